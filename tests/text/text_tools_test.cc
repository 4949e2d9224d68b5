#include <memory>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "unicode_samples.h"

namespace kestrova {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// words() done the slow, obvious way: lower-case the whole text with ICU, walk ICU's clusters,
// classify each by its first code point.
std::vector<std::string> referenceWords(std::string_view text, bool keepStopWords) {
  icu::UnicodeString lowered =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())))
          .toLower(icu::Locale::getRoot());
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> it(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  it->setText(lowered);
  std::vector<std::string> result;
  icu::UnicodeString word;
  int chars = 0;
  auto finish = [&]() {
    if (chars >= 2) {
      std::string utf8;
      word.toUTF8String(utf8);
      if (keepStopWords || !TextTools::stopWords().contains(utf8)) {
        result.push_back(utf8);
      }
    }
    word.remove();
    chars = 0;
  };
  int32_t begin = it->first();
  for (int32_t end = it->next(); end != icu::BreakIterator::DONE; begin = end, end = it->next()) {
    const UChar32 first = lowered.char32At(begin);
    if (u_hasBinaryProperty(first, UCHAR_ALPHABETIC) ||
        u_getIntPropertyValue(first, UCHAR_NUMERIC_TYPE) != U_NT_NONE) {
      word.append(lowered, begin, end - begin);
      ++chars;
    } else {
      finish();
    }
  }
  finish();
  return result;
}

TEST(TextToolsWords, DropsStopWordsAndShortWords) {
  EXPECT_THAT(TextTools::words("Kaffee und E-Mail 2024", false),
              ElementsAre("kaffee", "mail", "2024"));
  EXPECT_THAT(TextTools::words("Kaffee und E-Mail 2024", true),
              ElementsAre("kaffee", "und", "mail", "2024"));
  EXPECT_THAT(TextTools::words("Die Katze, die Katze!", false), ElementsAre("katze", "katze"));
  EXPECT_THAT(TextTools::words("", false), IsEmpty());
  EXPECT_THAT(TextTools::words("a b c", true), IsEmpty());
}

TEST(TextToolsWords, UnicodeCases) {
  // A decomposed é is one character and part of the word.
  EXPECT_THAT(TextTools::words("Cafe\xCC\x81 ok", true), ElementsAre("cafe\xCC\x81", "ok"));
  // "İ" lower-cases to i with a combining dot: still one character, still a letter.
  EXPECT_THAT(TextTools::words("İZMİR", true), ElementsAre("i\xCC\x87zmi\xCC\x87r"));
  // Final sigma depends on the whole word.
  EXPECT_THAT(TextTools::words("ΟΔΟΣ", true), ElementsAre("οδος"));
  // Emoji and flags separate words; CR LF too.
  EXPECT_THAT(TextTools::words("gut👍🏽sehr🇨🇭gut\r\nja", true),
              ElementsAre("gut", "sehr", "gut", "ja"));
  // Digits of other scripts are numbers.
  EXPECT_THAT(TextTools::words("Seite ٣٤ und १२", true), ElementsAre("seite", "٣٤", "und", "१२"));
  // Upper-case umlauts are lowered; "ß" stays.
  EXPECT_THAT(TextTools::words("ÄRGER Straße", false), ElementsAre("ärger", "straße"));
  // A single letter with a combining mark is one character, so too short.
  EXPECT_THAT(TextTools::words("e\xCC\x81 x", true), IsEmpty());
}

TEST(TextToolsWords, InvalidUtf8SeparatesWords) {
  EXPECT_THAT(TextTools::words("ab\xFF"
                               "cd\xC3",
                               true),
              ElementsAre("ab", "cd"));
  EXPECT_THAT(TextTools::words("\xE2\x82"
                               "Grüsse",
                               true),
              ElementsAre("grüsse"));
}

TEST(TextToolsWords, FastPathAgreesWithReferenceOnMixedText) {
  std::mt19937 random(2024);
  for (int round = 0; round < 1500; ++round) {
    const std::string text = testing::mixedSample(random, 1 + round % 20);
    const bool keep = round % 2 == 0;
    ASSERT_EQ(TextTools::words(text, keep), referenceWords(text, keep)) << text;
  }
}

TEST(TextToolsWords, ForEachWordYieldsTheSameWords) {
  const std::string text = "Die Schweizer Bahn: SBB fährt 2024 pünktlich, meistens.";
  std::vector<std::string> visited;
  TextTools::forEachWord(text, false, [&](std::string_view w) { visited.emplace_back(w); });
  EXPECT_EQ(visited, TextTools::words(text, false));
  EXPECT_THAT(visited,
              ElementsAre("schweizer", "bahn", "sbb", "fährt", "2024", "pünktlich", "meistens"));
}

TEST(TextToolsWords, SafeFromManyThreads) {
  const std::string text = "Über Datenbanken und Suchmaschinen — ein Überblick für Einsteiger.";
  const std::vector<std::string> expected = TextTools::words(text, false);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        if (TextTools::words(text, false) != expected ||
            TextTools::readableText("<title>x</title><p>" + text, 100).text != text) {
          ++mismatches[t];
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mismatches, std::vector<int>(8, 0));
}

TEST(TextToolsStopWords, TheFixedList) {
  const auto& set = TextTools::stopWords();
  EXPECT_EQ(set.size(), 164u);  // 169 entries, five of them twice
  for (const char* word : {"der", "für", "fur", "über", "können", "vs", "https", "zusammenfassung",
                           "darüber", "dazu", "neu"}) {
    EXPECT_TRUE(set.contains(std::string_view(word))) << word;
    EXPECT_TRUE(TextTools::isStopWord(word)) << word;
  }
  for (const char* word : {"Der", "katze", "", "zusammenfassungen", "ß"}) {
    EXPECT_FALSE(TextTools::isStopWord(word)) << word;
  }
  for (const std::string& word : set) {
    EXPECT_TRUE(TextTools::isStopWord(word)) << word;
  }
}

TEST(TextToolsOriginalWords, KeepsCaseAndInnerHyphens) {
  EXPECT_THAT(TextTools::originalWords("E-Mail -- Open-Source- a"),
              ElementsAre("E-Mail", "Open-Source", "a"));
  EXPECT_THAT(TextTools::originalWords("--- ! ?"), IsEmpty());
  EXPECT_THAT(TextTools::originalWords("Ärger\r\nÉlan"), ElementsAre("Ärger", "Élan"));
}

TEST(TextToolsStem, PrefixOfSixCharacters) {
  EXPECT_EQ(TextTools::stem("Projekt"), "Projek");
  EXPECT_EQ(TextTools::stem("Haus"), "Haus");
  EXPECT_EQ(TextTools::stem("sechss"), "sechss");
  EXPECT_EQ(TextTools::stem("Projekten"), "Projek");
  EXPECT_EQ(TextTools::stem("Übersetzung"), "Überse");
  EXPECT_EQ(TextTools::stem("e\xCC\x81"
                            "e\xCC\x81"
                            "abcdef"),
            "e\xCC\x81"
            "e\xCC\x81"
            "abcd");
  EXPECT_EQ(TextTools::stem(""), "");
}

TEST(TextToolsKeywords, TopKeywordsRules) {
  const std::vector<std::string> texts = {
      "Die datenbanken 2024 und die Datenbank",
      "Ein Datenbanksystem im Test",
      "Tests und noch ein test für Ab",
  };
  // "datenb" is in 2 texts, "test" in 2; ties by key. Numbers, stop words, short words skipped.
  EXPECT_THAT(TextTools::topKeywords(texts, 10, 3), ElementsAre("Datenbank", "Test", "Tests"));
  EXPECT_THAT(TextTools::topKeywords(texts, 1, 3), ElementsAre("Datenbank"));
  EXPECT_THAT(TextTools::topKeywords(texts, 0, 3), IsEmpty());
  EXPECT_THAT(TextTools::topKeywords({}, 5, 3), IsEmpty());
}

TEST(TextToolsKeywords, DisplayFormsDiffer) {
  const std::vector<std::string> texts = {"datenbanken", "Datenbanksystem", "Datenbank"};
  // topKeywords: the first capitalised spelling wins.
  EXPECT_THAT(TextTools::topKeywords(texts, 5, 3), ElementsAre("Datenbanksystem"));
  // keywordCounts: a shorter capitalised spelling replaces a longer one.
  EXPECT_THAT(TextTools::keywordCounts(texts, 3),
              ElementsAre(KeywordCount{"datenb", "Datenbank", 3}));
  // A lower-case spelling never replaces a stored one.
  EXPECT_THAT(TextTools::keywordCounts({"Zürich zürich", "zürichsee"}, 3),
              ElementsAre(KeywordCount{"zürich", "Zürich", 2}));
}

TEST(TextToolsKeywords, CountsOncePerTextAndSorts) {
  const auto counts =
      TextTools::keywordCounts({"Bern Bern Basel", "Basel Genf", "Basel 123 ٣٤٥ x2"}, 2);
  EXPECT_THAT(counts,
              ElementsAre(KeywordCount{"basel", "Basel", 3}, KeywordCount{"bern", "Bern", 1},
                          KeywordCount{"genf", "Genf", 1}, KeywordCount{"x2", "x2", 1}));
}

TEST(TextToolsKeywords, MinLengthCountsCharacters) {
  // "Öl" has two characters (and four bytes); "e\u0301" is one character.
  EXPECT_THAT(TextTools::topKeywords({"Öl e\xCC\x81"
                                      "e\xCC\x81"},
                                     5, 3),
              IsEmpty());
  EXPECT_THAT(TextTools::topKeywords({"Öl"}, 5, 2), ElementsAre("Öl"));
  EXPECT_THAT(TextTools::topKeywords({"Öl"}, 5, -1), ElementsAre("Öl"));
}

}  // namespace
}  // namespace kestrova
