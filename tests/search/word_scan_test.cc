// The fast word scanner must give exactly the words (and stems) of TextTools on the same prefix of
// characters, and must decline every text it cannot handle.
#include "word_scan.h"

#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

using Words = std::vector<std::pair<std::string, std::string>>;
constexpr std::size_t kAll = wordscan::kNoLimit;

// Checks the fast path alone and the fast path with the general one taking over (after a reset)
// where it declines against what TextTools says: the words of the first `maxChars` characters,
// with their stems. True when the fast path took the text.
bool agrees(std::string_view text, std::size_t maxChars) {
  Words expected, fast, combined;
  for (const std::string& word : TextTools::words(unicode::graphemePrefix(text, maxChars), true))
    expected.emplace_back(word, TextTools::stem(word));
  auto into = [](Words& out) {
    return [&out](wordscan::Word& w) {
      std::string stem(w.stem());  // the stem first, as the search asks
      out.emplace_back(std::string(w.text()), stem);
      return true;
    };
  };
  std::string buffer;
  const wordscan::Scan scan = wordscan::scanFast(text, maxChars, buffer, into(fast));
  wordscan::forEachWord(text, maxChars, into(combined), [&] { combined.clear(); });
  EXPECT_EQ(combined, expected) << text << " cut " << maxChars;
  if (scan == wordscan::Scan::declined)
    return false;
  EXPECT_EQ(scan, wordscan::Scan::completed);
  EXPECT_EQ(fast, expected) << text << " cut " << maxChars;
  return true;
}

TEST(WordScan, FastPathTakesWhatItCanAndTheGeneralPathTheRest) {
  const std::vector<std::tuple<std::string, std::size_t, bool>> cases = {
      {"Projektplanung\r\nÄRZTEKAMMER ab c 12345678 Übung\n", kAll, true},
      {"Projektplanung\r\nÄRZTEKAMMER ab c 12345678 Übung\n", 16, true},  // CR LF is one
      // Beyond the cut, a character that starts a cluster of its own is never looked at.
      {"cafe \xE2\x80\x94", 4, true},
      {"cafe\xCE\x91", 4, true},
      // A combining mark on a letter, also right after the cut, where it still belongs to it.
      {"cafe\xCC\x81s", kAll, false},
      {"cafe\xCC\x81s", 4, false},
      {"\xC4\xB0stanbul Istanbul", 5, false},  // "İ" lower-cases to two
      {"Kaffee und Café \xE2\x80\x94 ΚΑΦΕΣ", kAll, false},
      {"bad \xC3 word", kAll, false},
      {"\xED\xA0\x80", kAll, false},  // a surrogate
      {"\xE0\x80\xAF", kAll, false},  // overlong
  };
  for (const auto& [text, cut, takes] : cases)
    EXPECT_EQ(agrees(text, cut), takes) << text << " " << cut;
}

TEST(WordScan, StopsWhenAsked) {
  std::vector<std::string> seen;
  std::string buffer;
  EXPECT_EQ(wordscan::scanFast("eins zwei drei", kAll, buffer,
                               [&](wordscan::Word& w) {
                                 seen.emplace_back(w.text());
                                 return seen.size() < 2;
                               }),
            wordscan::Scan::stopped);
  EXPECT_EQ(seen, (std::vector<std::string>{"eins", "zwei"}));
}

// Every Latin-1 character, and each letter or number beyond it that the fast path lower-cases
// itself, between ASCII letters.
TEST(WordScan, EveryCharacterTheFastPathTakesAgrees) {
  for (char32_t cp = 1; cp <= 0x10FFFF; ++cp) {
    const wordscan::CodePointInfo info = wordscan::codePointInfo(cp);
    if (cp > 0xFF && ((cp >= 0xD800 && cp <= 0xDFFF) || !info.word || info.lower == 0 ||
                      info.pictographic || info.join != wordscan::Join::none)) {
      continue;
    }
    std::string c;
    unicode::appendUtf8(c, cp);
    const std::string text = cp <= 0xFF ? "x" + c + "y Ab" + c : "Ab" + c + "Cd " + c + c;
    ASSERT_TRUE(agrees(text, kAll)) << static_cast<std::uint32_t>(cp);
  }
}

TEST(WordScan, RandomTextsAgree) {
  // Random mixes of ASCII and Latin-1 letters, digits, signs, CR/LF and (the last five pieces, '|'
  // between pieces) the odd character from elsewhere, at random cuts.
  std::vector<std::string> pieces;
  std::istringstream all(
      "a|Z|q|7| "
      "|.|-|\r|\n|\r\n|ä|Ä|ß|é|É|ÿ|Þ|µ|ª|²|½|×|÷|\xC2\xA0|\xC2\xAD|Projekt|KURS|"
      "\t|_|'|"
      "\xF0\x9F\x87\xA8|\xE2\x9D\xA4\xEF\xB8\x8F|\xE2\x80\x94|\xCC\x81|€|ΣΑ|"
      "\xE2\x80\x8D");
  for (std::string piece; std::getline(all, piece, '|');)
    pieces.push_back(piece);
  std::mt19937 rng(20261122);
  int fastCount = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    const std::size_t choices = pieces.size() - (round % 2 == 0 ? 5 : 0);
    for (std::uint32_t i = 0, length = rng() % 40; i < length; ++i)
      text += pieces[rng() % choices];
    const std::size_t cut = round % 3 == 0 ? kAll : rng() % 50;
    fastCount += agrees(text, cut) ? 1 : 0;
  }
  // Most texts must take the fast path, or the test proves nothing about it.
  EXPECT_GT(fastCount, 1000);
}

}  // namespace
}  // namespace kestrova
