// The fast word scanner must give exactly the words (and stems) of TextTools on the same prefix of
// characters, and must decline every text it cannot handle.
#include "word_scan.h"

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

using Words = std::vector<std::pair<std::string, std::string>>;

// What TextTools says: the words of the first `maxChars` characters, with their stems.
Words reference(std::string_view text, std::size_t maxChars) {
  Words out;
  for (const std::string& word : TextTools::words(unicode::graphemePrefix(text, maxChars), true)) {
    out.emplace_back(word, TextTools::stem(word));
  }
  return out;
}

std::optional<Words> fast(std::string_view text, std::size_t maxChars) {
  Words out;
  std::string buffer;
  const wordscan::Scan scan = wordscan::scanFast(text, maxChars, buffer, [&](wordscan::Word& w) {
    // Ask for the stem first, as the search does, and then for the whole word.
    std::string stem(w.stem());
    out.emplace_back(std::string(w.text()), stem);
    return true;
  });
  if (scan == wordscan::Scan::declined) {
    return std::nullopt;
  }
  EXPECT_EQ(scan, wordscan::Scan::completed);
  return out;
}

Words combined(std::string_view text, std::size_t maxChars) {
  Words out;
  wordscan::forEachWord(
      text, maxChars,
      [&](wordscan::Word& w) {
        out.emplace_back(std::string(w.text()), std::string(w.stem()));
        return true;
      },
      [&] { out.clear(); });
  return out;
}

std::string utf8(char32_t cp) {
  std::string out;
  unicode::appendUtf8(out, cp);
  return out;
}

TEST(WordScanFast, StemsAndCrLf) {
  const std::string text = "Projektplanung\r\nÄRZTEKAMMER ab c 12345678 Übung\n";
  const auto got = fast(text, wordscan::kNoLimit);
  ASSERT_TRUE(got.has_value());
  EXPECT_EQ(*got, reference(text, wordscan::kNoLimit));
  EXPECT_EQ((*got)[0], (std::pair<std::string, std::string>{"projektplanung", "projek"}));
  // CR LF counts as one character: with 16 characters the cut falls right after it.
  EXPECT_EQ(*fast(text, 16), reference(text, 16));
  EXPECT_EQ(fast(text, 16)->size(), 1U);
}

TEST(WordScanFast, DeclinesOtherText) {
  EXPECT_FALSE(
      fast("Stra\xC3\x9F"
           "e und \xCE\x9A\xCE\x91\xCE\xA6\xCE\x95\xCE\xA3",
           wordscan::kNoLimit));
  EXPECT_FALSE(fast("\xC4\xB0stanbul", wordscan::kNoLimit));  // "İ" lower-cases to two
  EXPECT_FALSE(fast("bad \xC3", wordscan::kNoLimit));
  EXPECT_FALSE(fast("\xED\xA0\x80", wordscan::kNoLimit));  // a surrogate
  EXPECT_FALSE(fast("\xE0\x80\xAF", wordscan::kNoLimit));  // overlong
  // A combining mark on a letter, also right after the cut, where it still belongs to it.
  EXPECT_FALSE(fast("cafe\xCC\x81", wordscan::kNoLimit));
  EXPECT_FALSE(fast("cafe\xCC\x81", 4));
  // Beyond the cut, a character that starts a cluster of its own is never looked at.
  EXPECT_TRUE(fast("cafe \xE2\x80\x94", 4));
  EXPECT_TRUE(fast("cafe\xCE\x91", 4));
}

// Every Latin-1 character, and each letter or number beyond it that the fast path lower-cases
// itself, between ASCII letters.
TEST(WordScanFast, EveryCharacterTheFastPathTakesAgrees) {
  for (char32_t cp = 1; cp <= 0x10FFFF; ++cp) {
    const wordscan::CodePointInfo info = wordscan::codePointInfo(cp);
    if (cp > 0xFF && ((cp >= 0xD800 && cp <= 0xDFFF) || !info.word || info.lower == 0 ||
                      info.pictographic || info.join != wordscan::Join::none)) {
      continue;
    }
    const std::string text = cp <= 0xFF ? "x" + utf8(cp) + "y Ab" + utf8(cp)
                                        : "Ab" + utf8(cp) + "Cd " + utf8(cp) + utf8(cp);
    const auto got = fast(text, wordscan::kNoLimit);
    ASSERT_TRUE(got.has_value()) << static_cast<std::uint32_t>(cp);
    ASSERT_EQ(*got, reference(text, wordscan::kNoLimit)) << static_cast<std::uint32_t>(cp);
  }
}

TEST(WordScanFast, GeneralPathTakesOverAndResets) {
  for (const char* text : {"Kaffee und Café \xE2\x80\x94 ΚΑΦΕΣ", "cafe\xCC\x81s", "bad \xC3 word",
                           "İstanbul Istanbul", "a\r\nbb", "x\xC2\xA0yy"}) {
    for (std::size_t cut : {std::size_t{3}, std::size_t{5}, wordscan::kNoLimit}) {
      EXPECT_EQ(combined(text, cut), reference(text, cut)) << text << " " << cut;
    }
  }
}

TEST(WordScanFast, StopsWhenAsked) {
  std::vector<std::string> seen;
  std::string buffer;
  const auto scan =
      wordscan::scanFast("eins zwei drei", wordscan::kNoLimit, buffer, [&](wordscan::Word& w) {
        seen.emplace_back(w.text());
        return seen.size() < 2;
      });
  EXPECT_EQ(scan, wordscan::Scan::stopped);
  EXPECT_EQ(seen, (std::vector<std::string>{"eins", "zwei"}));
}

TEST(WordScanFast, RandomTextsAgree) {
  // Random mixes of ASCII and Latin-1 letters, digits, signs, CR/LF and (the last five pieces, '|'
  // between pieces) the odd character from elsewhere, at random cuts.
  const std::string all =
      "a|Z|q|7| |.|-|\r|\n|\r\n|ä|Ä|ß|é|É|ÿ|Þ|µ|ª|²|½|×|÷|\xC2\xA0|\xC2\xAD|Projekt|KURS|\t|_|'|"
      "\xF0\x9F\x87\xA8|\xE2\x9D\xA4\xEF\xB8\x8F|\xE2\x80\x94|\xCC\x81|€|ΣΑ|\xE2\x80\x8D";
  std::vector<std::string> pieces;
  for (std::size_t at = 0, end = 0; end < all.size(); at = end + 1) {
    end = std::min(all.find('|', at), all.size());
    pieces.push_back(all.substr(at, end - at));
  }
  ASSERT_EQ(pieces.size(), 37u);
  std::mt19937 rng(20261122);
  int fastCount = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    const int length = static_cast<int>(rng() % 40);
    const bool latinOnly = round % 2 == 0;
    for (int i = 0; i < length; ++i) {
      std::size_t pick = rng() % pieces.size();
      if (latinOnly) {
        pick = rng() % (pieces.size() - 5);
      }
      text += pieces[pick];
    }
    const std::size_t cut = round % 3 == 0 ? wordscan::kNoLimit : rng() % 50;
    const auto got = fast(text, cut);
    if (got) {
      ++fastCount;
      EXPECT_EQ(*got, reference(text, cut)) << text << " cut " << cut;
    }
    EXPECT_EQ(combined(text, cut), reference(text, cut)) << text << " cut " << cut;
  }
  // Most texts must take the fast path, or the test proves nothing about it.
  EXPECT_GT(fastCount, 1000);
}

}  // namespace
}  // namespace kestrova
