#include "topic_naming.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/topic_clusterer.h>

#include "support/scripted_model.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ModelScope;
using testing::ScriptedModel;

SavedTab tab(std::string title, std::string domain, std::string summary = {},
             std::vector<std::string> tags = {}, std::string text = {}) {
  SavedTab t;
  t.id = Uuid::random();
  t.url = "https://" + domain + "/";
  t.title = std::move(title);
  t.domain = std::move(domain);
  t.summary = std::move(summary);
  t.tags = std::move(tags);
  t.text = std::move(text);
  return t;
}

TEST(TopicFallbackName, TwoBestKeywords) {
  // "Rezepte" is in both titles: 2 + 2 x 2 = 6. "Pasta" and "Gemüse" score 1 + 2 x 1 = 3 each;
  // the tie goes to the key that sorts first.
  const std::vector<SavedTab> tabs = {tab("Rezepte für Pasta", "kochen.ch"),
                                      tab("Rezepte mit Gemüse", "essen.ch")};
  EXPECT_EQ(TopicClusterer::fallbackName(tabs), "Rezepte & Gemüse");
}

TEST(TopicFallbackName, TagsCountLikeTitleWords) {
  const std::vector<SavedTab> tabs = {tab("Uno", "a.ch", "", {"Velotour", "Alpen"}),
                                      tab("Due", "b.ch", "", {"velotouren"})};
  // velotour: 2 tabs, both as tags: 6. alpen: 1 + 2 = 3. The capitalised spelling is shown.
  EXPECT_EQ(TopicClusterer::fallbackName(tabs), "Velotour & Alpen");
}

TEST(TopicFallbackName, WordsOfOnePageTextOnlyAreNotUsed) {
  // "Wanderung" only in one tab's text scores 1; "Bergsteigen" in both texts scores 2.
  const std::vector<SavedTab> tabs = {
      tab("Uno", "b.ch", "", {}, "Wanderung und Bergsteigen im Sommer"),
      tab("Due", "a.ch", "", {}, "Bergsteigen")};
  EXPECT_EQ(TopicClusterer::fallbackName(tabs), "Bergsteigen · a.ch");
}

TEST(TopicFallbackName, OnlyTheFirst600CharactersOfTheText) {
  std::string filler;
  for (int i = 0; i < 200; ++i) {
    filler += "ab ";  // 600 characters without a keyword
  }
  const std::vector<SavedTab> tabs = {tab("Uno", "b.ch", "", {}, filler + "Bergsteigen"),
                                      tab("Due", "b.ch", "", {}, filler + "Bergsteigen")};
  EXPECT_EQ(TopicClusterer::fallbackName(tabs), "b.ch");
}

TEST(TopicFallbackName, DomainsByCountThenByText) {
  EXPECT_EQ(TopicClusterer::fallbackName({tab("Uno", "z.ch"), tab("Due", "a.ch")}), "a.ch · z.ch");
  EXPECT_EQ(TopicClusterer::fallbackName(
                {tab("Uno", "a.ch"), tab("Due", "z.ch"), tab("Tre", "z.ch"), tab("", "m.ch")}),
            "z.ch · a.ch");
}

TEST(TopicFallbackName, NeverEmpty) {
  EXPECT_EQ(TopicClusterer::fallbackName({}), "Unbenanntes Thema");
  EXPECT_EQ(TopicClusterer::fallbackName({tab("", ""), tab("ok", "")}), "Unbenanntes Thema");
}

TEST(TopicModelName, CleanUp) {
  EXPECT_EQ(topics::cleanModelName("«Reisen.»"), "Reisen");
  EXPECT_EQ(topics::cleanModelName(" \"Kochen & Backen\"\n\n"), "Kochen & Backen");
  EXPECT_EQ(topics::cleanModelName("Web 2.0 Werkzeuge..."), "Web 2.0 Werkzeuge");
  EXPECT_EQ(topics::cleanModelName("..\n"), std::nullopt);
  EXPECT_EQ(topics::cleanModelName(" « » \" "), std::nullopt);
  EXPECT_EQ(topics::cleanModelName(""), std::nullopt);
  // Only the listed characters go: a tab or an apostrophe stays.
  EXPECT_EQ(topics::cleanModelName("\tRuhe'"), "\tRuhe'");
  // 40 characters are fine, 41 are not; characters as the user sees them.
  std::string forty;
  for (int i = 0; i < 40; ++i) {
    forty += "u\u0308";
  }
  EXPECT_EQ(topics::cleanModelName("«" + forty + "»"), forty);
  EXPECT_EQ(topics::cleanModelName(forty + "x"), std::nullopt);
}

TEST(TopicModelName, PromptListsTheFirstTwelveTabs) {
  std::vector<SavedTab> tabs;
  for (int i = 1; i <= 14; ++i) {
    tabs.push_back(tab("Titel " + std::to_string(i), "d" + std::to_string(i) + ".ch",
                       "Zusammenfassung " + std::to_string(i) + "."));
  }
  std::vector<const SavedTab*> pointers;
  for (const SavedTab& t : tabs) {
    pointers.push_back(&t);
  }
  const std::string prompt = topics::namePrompt(pointers);
  EXPECT_EQ(prompt.rfind("Diese gespeicherten Tabs gehören zu einem Thema. Wie heisst das "
                         "Thema?\n- Titel 1 (d1.ch): Zusammenfassung 1.\n- Titel 2 (d2.ch): ",
                         0),
            0u);
  EXPECT_NE(prompt.find("\n- Titel 12 (d12.ch): Zusammenfassung 12."), std::string::npos);
  EXPECT_EQ(prompt.find("Titel 13"), std::string::npos);
  EXPECT_NE(prompt.back(), '\n');
}

constexpr double kLimit = TopicClusterer::defaultNameTimeLimitSeconds;

TEST(TopicModelName, AsksTheModelForATopicName) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "«Reisen.»"}}));
  const std::vector<SavedTab> tabs = {tab("Zug nach Rom", "sbb.ch", "Verbindungen.")};
  EXPECT_EQ(TopicClusterer::nameWithModel(tabs, {}, kLimit, scope.env()), "Reisen");
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].type.name, "TopicName");
  EXPECT_TRUE(requests[0].includeSchemaInPrompt);
  EXPECT_EQ(requests[0].prompt,
            "Diese gespeicherten Tabs gehören zu einem Thema. Wie heisst das Thema?\n"
            "- Zug nach Rom (sbb.ch): Verbindungen.");
}

TEST(TopicModelName, NoUsableAnswerGivesNoName) {
  ModelScope scope;
  const std::vector<SavedTab> tabs = {tab("Zug nach Rom", "sbb.ch")};
  scope.model().then(ScriptedModel::answer(Json{{"name", std::string(41, 'a')}}));
  scope.model().then(ScriptedModel::answer(Json{{"title", "Reisen"}}));
  scope.model().then(ScriptedModel::fail());
  scope.model().then(ScriptedModel::nothing());
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(TopicClusterer::nameWithModel(tabs, {}, kLimit, scope.env()), std::nullopt) << i;
  }
  // Too late: the limit passes first and the request is asked to stop.
  scope.model().then(ScriptedModel::answer(Json{{"name", "Reisen"}}, 5s));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(TopicClusterer::nameWithModel(tabs, {}, 0.2, scope.env()), std::nullopt);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
  EXPECT_TRUE(scope.model().waitForStops(1));
}

}  // namespace
}  // namespace kestrova
