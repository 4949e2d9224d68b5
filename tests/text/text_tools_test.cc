#include <tuple>

#include <gtest/gtest.h>

#include <kestrova/text_tools.h>

namespace kestrova {
namespace {

using Words = std::vector<std::string>;

// isStopWord searches a table of its own, which must hold exactly the words of the set.
TEST(TextToolsStopWords, AreDroppedAndFoundExactlyAsListed) {
  EXPECT_EQ(TextTools::words("Kaffee und E-Mail 2024", false), (Words{"kaffee", "mail", "2024"}));
  for (const std::string& word : TextTools::stopWords()) {
    EXPECT_TRUE(TextTools::isStopWord(word)) << word;
  }
  for (const char* word : {"Der", "", "katze", "zusammenfassungen", "ß"}) {
    EXPECT_FALSE(TextTools::isStopWord(word)) << word;
  }
}

TEST(TextToolsStem, KeepsTheFirstSixCharactersOfLongerWords) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"sechss", "sechss"},
      {"e\xCC\x81o\xCC\x81ghijk", "e\xCC\x81o\xCC\x81ghij"},
      {"abcde\xFFghi", "abcde\xEF\xBF\xBD"}};
  for (const auto& [word, stem] : cases) {
    EXPECT_EQ(TextTools::stem(word), stem) << word;
  }
  EXPECT_EQ(TextTools::originalWords("E-Mail -- Open-Source- a\r\nÉlan\xFF"),
            (Words{"E-Mail", "Open-Source", "a", "Élan"}));
}

// Keys are stems counted once per text; most texts first, ties by key.
TEST(TextToolsKeywords, CountStemsOncePerTextAndShowTheBestSpelling) {
  const std::tuple<Words, std::int64_t, std::vector<KeywordCount>> cases[] = {
      {{"projekten", "Projektleiter", "Projekt", "ProjekT"}, 3, {{"projek", "Projekt", 4}}},
      {{"Zürich zürich", "zürichsee"}, 3, {{"zürich", "Zürich", 2}}},
      {{"Bern Bern Uri", "Uri 123 ٣٤٥ x2"},
       2,
       {{"uri", "Uri", 2}, {"bern", "Bern", 1}, {"x2", "x2", 1}}},
      // Lengths count characters: "Öl" has two in four bytes, "e\u0301o\u0301" two as well.
      {{"Öl e\xCC\x81o\xCC\x81"}, 3, {}},
      {{"Öl"}, 2, {{"öl", "Öl", 1}}}};
  for (const auto& [texts, minLength, counts] : cases) {
    EXPECT_EQ(TextTools::keywordCounts(texts, minLength), counts) << texts.front();
  }
  // topKeywords shows the first capitalised spelling, keywordCounts the shortest.
  EXPECT_EQ(TextTools::topKeywords({"projekten", "Projektleiter", "Projekt"}, 9, 3),
            Words{"Projektleiter"});
  const Words texts = {"Die Datenbank 2024 und die datenbanken", "Ein Test", "Tests für Ab"};
  EXPECT_EQ(TextTools::topKeywords(texts, 3, 3), (Words{"Datenbank", "Test", "Tests"}));
  EXPECT_EQ(TextTools::topKeywords(texts, 2, 3), (Words{"Datenbank", "Test"}));
  EXPECT_EQ(TextTools::topKeywords(texts, 0, 3), Words{});
}

}  // namespace
}  // namespace kestrova
