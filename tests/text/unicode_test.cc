#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <kestrova/unicode.h>

#include "unicode_samples.h"

namespace kestrova::unicode {
namespace {

// Cluster boundaries straight from ICU, as byte offsets into the repaired text.
std::vector<std::size_t> icuBoundaries(const std::string& text) {
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

std::vector<std::size_t> walkerBoundaries(std::string_view text) {
  std::vector<std::size_t> result;
  GraphemeWalker walker(text);
  while (walker.next()) {
    result.push_back(walker.end());
  }
  return result;
}

std::string icuLower(std::string_view text) {
  std::string out;
  icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())))
      .toLower(icu::Locale::getRoot())
      .toUTF8String(out);
  return out;
}

TEST(UnicodeGraphemeWalker, AgreesWithIcuOnMixedText) {
  std::mt19937 random(7);
  for (int round = 0; round < 400; ++round) {
    const std::string text = repairUtf8(testing::mixedSample(random, 12));
    ASSERT_EQ(walkerBoundaries(text), icuBoundaries(text)) << text;
  }
}

TEST(UnicodeGraphemeWalker, ClustersAndFirstCodePoints) {
  const std::string text = "a\r\nÄe\xCC\x81🇨🇭👨‍👩‍👧";
  GraphemeWalker walker(text);
  std::vector<std::string_view> clusters;
  std::vector<char32_t> firsts;
  while (walker.next()) {
    clusters.push_back(walker.cluster());
    firsts.push_back(walker.first());
  }
  EXPECT_EQ(clusters, (std::vector<std::string_view>{"a", "\r\n", "Ä", "e\xCC\x81", "🇨🇭",
                                                     "👨‍👩‍👧"}));
  EXPECT_EQ(firsts[2], U'Ä');
  EXPECT_EQ(firsts[3], U'e');
}

TEST(UnicodeGraphemeWalker, RestartAtBoundary) {
  const std::string text =
      "ab\xCC\x81"
      "cd";
  GraphemeWalker walker(text);
  walker.restartAt(1);
  ASSERT_TRUE(walker.next());
  EXPECT_EQ(walker.cluster(), "b\xCC\x81");
  walker.restartAt(text.size());
  EXPECT_FALSE(walker.next());
}

TEST(UnicodeCount, CountsAndPrefixes) {
  EXPECT_EQ(graphemeCount(""), 0u);
  EXPECT_EQ(graphemeCount("a\r\nb"), 3u);
  EXPECT_EQ(graphemeCount("e\xCC\x81"), 1u);
  EXPECT_EQ(graphemeCount("👍🏽👍🏽"), 2u);
  EXPECT_EQ(graphemePrefix("Äpfel", 2), "Äp");
  EXPECT_EQ(graphemePrefix("e\xCC\x81x", 1), "e\xCC\x81");
  EXPECT_EQ(graphemePrefix("abc", 10), "abc");
  EXPECT_EQ(graphemePrefix("abc", 0), "");
}

TEST(UnicodeLower, FullMappingOfEveryCodePointMatchesIcu) {
  for (char32_t cp = 0; cp <= 0x10FFFF; ++cp) {
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp == 0x3A3) {
      continue;  // surrogates are no scalars; sigma depends on its context
    }
    std::string one;
    appendUtf8(one, cp);
    std::string mine;
    char32_t mapped[3];
    const int count = lowerCodePoint(cp, mapped);
    for (int i = 0; i < count; ++i) {
      appendUtf8(mine, mapped[i]);
    }
    ASSERT_EQ(mine, icuLower(one)) << "U+" << std::hex << static_cast<uint32_t>(cp);
  }
}

TEST(UnicodeLower, LoweringKeepsClusterClasses) {
  // words() walks the original text's clusters but classifies the lowered ones; that is only
  // the same when lower-casing never changes a code point's cluster-break class.
  for (char32_t cp = 0; cp <= 0x10FFFF; ++cp) {
    if (cp >= 0xD800 && cp <= 0xDFFF) {
      continue;
    }
    char32_t mapped[3];
    lowerCodePoint(cp, mapped);
    const auto a = static_cast<UChar32>(cp);
    const auto b = static_cast<UChar32>(mapped[0]);
    ASSERT_EQ(u_getIntPropertyValue(a, UCHAR_GRAPHEME_CLUSTER_BREAK),
              u_getIntPropertyValue(b, UCHAR_GRAPHEME_CLUSTER_BREAK));
    if (cp != 0x24C2) {  // "Ⓜ" is an emoji, "ⓜ" is not; words() handles that one apart
      ASSERT_EQ(u_hasBinaryProperty(a, UCHAR_EXTENDED_PICTOGRAPHIC),
                u_hasBinaryProperty(b, UCHAR_EXTENDED_PICTOGRAPHIC))
          << "U+" << std::hex << static_cast<uint32_t>(cp);
    }
    ASSERT_EQ(isLetter(cp), isLetter(mapped[0]));
    ASSERT_EQ(isNumber(cp), isNumber(mapped[0]));
  }
}

TEST(UnicodeLower, RangesLowerLikeTheWholeText) {
  EXPECT_EQ(toLower("İ"), "i\xCC\x87");
  EXPECT_EQ(toLower("ΟΔΟΣ ΣΑ"), "οδος σα");
  std::mt19937 random(11);
  for (int round = 0; round < 400; ++round) {
    const std::string text = repairUtf8(testing::mixedSample(random, 10));
    std::string lowered;
    appendLower(lowered, text, 0, text.size());
    ASSERT_EQ(lowered, icuLower(text)) << text;
  }
}

TEST(UnicodeDecode, BackwardsInvertsForwards) {
  const std::string text = "aÄ€😀\xEF\xBF\xBD";
  std::size_t pos = text.size();
  std::vector<char32_t> backwards;
  while (pos > 0) {
    backwards.push_back(decodeBefore(text, pos));
  }
  EXPECT_EQ(backwards, (std::vector<char32_t>{0xFFFD, U'😀', U'€', U'Ä', U'a'}));
  const std::string broken = "a\x80\xC3";
  pos = broken.size();
  EXPECT_EQ(decodeBefore(broken, pos), 0xFFFDu);
  EXPECT_EQ(pos, 2u);
  EXPECT_EQ(decodeBefore(broken, pos), 0xFFFDu);
  EXPECT_EQ(pos, 1u);
}

TEST(UnicodeClasses, AsciiShortcutsMatchTheProperties) {
  for (char32_t cp = 0; cp < 0x80; ++cp) {
    const auto c = static_cast<UChar32>(cp);
    EXPECT_EQ(isLetter(cp), static_cast<bool>(u_hasBinaryProperty(c, UCHAR_ALPHABETIC)))
        << static_cast<uint32_t>(cp);
    EXPECT_EQ(isWhitespace(cp), static_cast<bool>(u_hasBinaryProperty(c, UCHAR_WHITE_SPACE)))
        << static_cast<uint32_t>(cp);
    EXPECT_EQ(isNumber(cp), u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE)
        << static_cast<uint32_t>(cp);
  }
}

TEST(UnicodeClasses, PropertiesOfFirstLetters) {
  EXPECT_TRUE(isUppercase(U'Ä'));
  EXPECT_TRUE(isUppercase(U'É'));
  EXPECT_FALSE(isUppercase(U'ä'));
  EXPECT_TRUE(isNumber(U'٣'));  // Arabic-Indic three
  EXPECT_TRUE(isNumber(U'३'));  // Devanagari three
  EXPECT_TRUE(isNumber(U'½'));
  EXPECT_FALSE(isLetter(U'½'));
  EXPECT_TRUE(isLetter(U'ß'));
  EXPECT_TRUE(isWhitespace(0x00A0));
  EXPECT_TRUE(isWhitespace(0x2028));
  EXPECT_FALSE(isWhitespace(0x200B));
}

TEST(UnicodeRepair, InvalidBytesBecomeReplacementCharacters) {
  EXPECT_FALSE(isValidUtf8("a\xFF"));
  EXPECT_TRUE(isValidUtf8("a\xEF\xBF\xBD"));
  EXPECT_EQ(repairUtf8("a\xFF"
                       "b"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(repairUtf8("\xC3"), "\xEF\xBF\xBD");
  EXPECT_EQ(repairUtf8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");  // a surrogate
}

}  // namespace
}  // namespace kestrova::unicode
