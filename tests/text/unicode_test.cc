// The Unicode fast paths, and words() built on them, held against ICU.
#include <algorithm>
#include <memory>
#include <random>

#include <gtest/gtest.h>
#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova::unicode {
namespace {

// Random texts of what troubles Unicode code: marks, joiners, flags, CR LF, sigma, bad bytes.
std::string mixedSample(std::mt19937& random, std::size_t pieces) {
  // clang-format off
  static constexpr std::string_view kPieces[] = {"Kaffee", "und", "E-Mail", "E\xCC\x81", " ", " ",
      "\r\n", "\n", "\t", "2024", "Ärger", "Élan", "Grüsse", "e\xCC\x81", "\xCC\x81", "İstanbul",
      "ΟΔΟΣ", "Σ", "ς", "'", ".", ":", "ΑΣ'Α", "👍🏽", "👨‍👩‍👧", "🇨🇭", "🇩🇪🇫", "٣٤٥", "१२३", "한국어",
      "\xE1\x84\x80\xE1\x85\xA1", "\xD8\x80", "\xD8\x80\x31", "\xFF", "\xE2\x82", "\xC3", "-",
      "--", "ß", "Ⱥ", "ǅ", "ͅ", "\xE2\x80\x8D", "\xC2\xAD", "\xC2\xA0", "Ⅻ", "½",
      "x\xE2\x80\x8D\xE2\x9D\xA4", "&amp;", "&#x41;", ";", "ABC", "Straße", "NAÏVE", "क्षि",
      "\xEF\xBF\xBD", "a\xCD\x8F", "Ω", "K", "ſ", "Ⓜ\xE2\x80\x8D", "Ⓜ", "😀\xE2\x80\x8D"};
  // clang-format on
  std::uniform_int_distribution<std::size_t> pick(0, std::size(kPieces) - 1);
  std::string text;
  for (std::size_t i = 0; i < pieces; ++i) {
    text.append(kPieces[pick(random)]);
  }
  return text;
}

// The ends of ICU's grapheme clusters in valid UTF-8, as byte offsets.
std::vector<std::size_t> icuBoundaries(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> it(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  UText* ut = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
  it->setText(ut, status);
  std::vector<std::size_t> result;
  for (int32_t b = it->next(); b != icu::BreakIterator::DONE; b = it->next()) {
    result.push_back(static_cast<std::size_t>(b));
  }
  utext_close(ut);
  return result;
}

// ICU's full lower case; invalid bytes read as U+FFFD.
std::string icuLower(std::string_view text) {
  std::string out;
  icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())))
      .toLower(icu::Locale::getRoot())
      .toUTF8String(out);
  return out;
}

// words() the slow, obvious way: ICU's lower case, ICU's clusters, classes of first code points.
std::vector<std::string> referenceWords(const std::string& text, bool keepStopWords) {
  const std::string lowered = icuLower(text) + " ";  // the space ends the last word
  std::vector<std::string> result;
  std::string word;
  std::size_t chars = 0;
  for (std::size_t begin = 0; std::size_t end : icuBoundaries(lowered)) {
    const std::string cluster = lowered.substr(begin, end - begin);
    const auto first = static_cast<UChar32>(decodeAt(lowered, begin));
    begin = end;
    if (u_hasBinaryProperty(first, UCHAR_ALPHABETIC) ||
        u_getIntPropertyValue(first, UCHAR_NUMERIC_TYPE) != U_NT_NONE) {
      word += cluster;
      ++chars;
      continue;
    }
    if (chars >= 2 && (keepStopWords || !TextTools::stopWords().contains(word))) {
      result.push_back(word);
    }
    word.clear();
    chars = 0;
  }
  return result;
}

// The walker, and with it counting, cutting, lowering and words(), decides most clusters without
// ICU; the result must be ICU's all the same, final sigma included.
TEST(UnicodeMixedText, ClustersLowerCaseAndWordsAgreeWithIcu) {
  std::mt19937 random(7);
  for (int round = 0; round < 1500; ++round) {
    const std::string raw = mixedSample(random, 1 + round % 20);
    ASSERT_EQ(TextTools::words(raw, round % 2 == 0), referenceWords(raw, round % 2 == 0)) << raw;
    const std::string text = repairUtf8(raw);
    std::vector<std::size_t> ends;
    std::string lowered;
    GraphemeWalker walker(text);
    while (walker.next()) {
      std::size_t pos = walker.begin();
      ASSERT_EQ(walker.first(), decodeAt(text, pos)) << text;
      appendLower(lowered, text, walker.begin(), walker.end());
      ends.push_back(walker.end());
    }
    ASSERT_EQ(ends, icuBoundaries(text)) << text;
    ASSERT_EQ(lowered, icuLower(text)) << text;
    ASSERT_EQ(toLower(text), lowered) << text;
    ASSERT_EQ(graphemeCount(text), ends.size()) << text;
    for (std::size_t n = 0; n <= ends.size() + 1; ++n) {
      ASSERT_EQ(graphemePrefix(text, n),
                text.substr(0, n == 0 ? 0 : ends[std::min(n, ends.size()) - 1]));
    }
  }
  EXPECT_EQ(toLower("Kaffee @ZH-2024[]"), "kaffee @zh-2024[]");
}

TEST(UnicodeClasses, EveryCodePointFollowsItsProperty) {
  for (UChar32 c = 0; c <= 0x10FFFF; ++c) {
    const auto cp = static_cast<char32_t>(c);
    ASSERT_EQ(isLetter(cp), static_cast<bool>(u_hasBinaryProperty(c, UCHAR_ALPHABETIC))) << c;
    ASSERT_EQ(isNumber(cp), u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE) << c;
    ASSERT_EQ(isUppercase(cp), static_cast<bool>(u_hasBinaryProperty(c, UCHAR_UPPERCASE))) << c;
    ASSERT_EQ(isWhitespace(cp), static_cast<bool>(u_hasBinaryProperty(c, UCHAR_WHITE_SPACE)));
  }
}

TEST(UnicodeRepair, EachBadByteBecomesOneReplacementCharacter) {
  const std::string r = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"aÄ€😀" + r, "aÄ€😀" + r},  // a real U+FFFD is valid
      {"\xC2\x80\xE0\xA0\x80\xF0\x90\x80\x80", "\xC2\x80\xE0\xA0\x80\xF0\x90\x80\x80"},  // lowest
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},
      {"abcdefg\xFF", "abcdefg" + r},  // either side of an eight-byte ASCII block
      {"äabcdefgh\xFF", "äabcdefgh" + r},
      {"a\x80\xC3", "a" + r + r},
      {"\xC0\x80", r + r},                   // overlong
      {"\xE0\x80\x80", r + r + r},           // overlong
      {"\xED\xA0\x80", r + r + r},           // a surrogate
      {"\xF4\x90\x80\x80", r + r + r + r}};  // beyond U+10FFFF
  for (const auto& [text, repaired] : cases) {
    EXPECT_EQ(repairUtf8(text), repaired);
    EXPECT_EQ(isValidUtf8(text), text == repaired) << repaired;
  }
  EXPECT_EQ(repairUtf8(std::string_view("a\xC3\xA4").substr(0, 2)), "a" + r);  // ends with the view
}

}  // namespace
}  // namespace kestrova::unicode
