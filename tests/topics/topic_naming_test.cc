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
  return makeSavedTab({.id = Uuid::random(),
                       .url = "https://" + domain + "/",
                       .title = title,
                       .domain = domain,
                       .text = text,
                       .summary = summary,
                       .tags = tags});
}

TEST(TopicFallbackName, KeywordsThenDomainsAndNeverEmpty) {
  const std::string filler(600, ' ');  // 600 characters without a keyword
  const std::vector<std::pair<std::vector<SavedTab>, std::string>> cases = {
      // "Rezepte" in both titles: 6; "Pasta" and "Gemüse" 3 each, the tie to the first key.
      {{tab("Rezepte für Pasta", "kochen.ch"), tab("Rezepte mit Gemüse", "essen.ch")},
       "Rezepte & Gemüse"},
      // Tags weigh like title words; the capitalised spelling is shown.
      {{tab("Uno", "a.ch", "", {"Velotour", "Alpen"}), tab("Due", "b.ch", "", {"velotouren"})},
       "Velotour & Alpen"},
      // A word in only one tab's text does not count; one keyword goes with the top domain.
      {{tab("Uno", "b.ch", "", {}, "Wanderung und Bergsteigen"),
        tab("Due", "a.ch", "", {}, "Bergsteigen")},
       "Bergsteigen · a.ch"},
      // Only the first 600 characters of a text are read.
      {{tab("Uno", "b.ch", "", {}, filler + "Bergsteigen"),
        tab("Due", "b.ch", "", {}, filler + "Bergsteigen")},
       "b.ch"},
      {{tab("Uno", "z.ch"), tab("Due", "a.ch")}, "a.ch · z.ch"},
      {{tab("Uno", "a.ch"), tab("Due", "z.ch"), tab("Tre", "z.ch"), tab("", "m.ch")},
       "z.ch · a.ch"},
      {{}, "Unbenanntes Thema"},
      {{tab("", ""), tab("ok", "")}, "Unbenanntes Thema"},
  };
  for (const auto& [tabs, name] : cases) {
    EXPECT_EQ(TopicClusterer::fallbackName(tabs), name);
  }
}

TEST(TopicModelName, CleanUpTrimsListedCharactersAndKeepsFortyCharacters) {
  std::string forty;
  for (int i = 0; i < 40; ++i) {
    forty += "u\u0308";  // one character as the user sees it
  }
  const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
      {"«Reisen.»", "Reisen"},
      {" \"Kochen & Backen\"\n\n", "Kochen & Backen"},
      {"Web 2.0 Werkzeuge...", "Web 2.0 Werkzeuge"},
      {"\tRuhe'", "\tRuhe'"},  // a tab or an apostrophe stays
      {"..\n", std::nullopt},
      {" « » \" ", std::nullopt},
      {"", std::nullopt},
      {"«" + forty + "»", forty},
      {forty + "x", std::nullopt},
  };
  for (const auto& [raw, clean] : cases) {
    EXPECT_EQ(topics::cleanModelName(raw), clean) << raw;
  }
}

constexpr double kLimit = TopicClusterer::defaultNameTimeLimitSeconds;

TEST(TopicModelName, TheModelSeesTheFirstTwelveTabs) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "Reisen"}}));
  std::vector<SavedTab> tabs;
  for (int i = 1; i <= 13; ++i) {
    tabs.push_back(tab("Titel " + std::to_string(i), "d" + std::to_string(i) + ".ch",
                       "Zusammenfassung " + std::to_string(i) + "."));
  }
  EXPECT_EQ(TopicClusterer::nameWithModel(tabs, {}, kLimit, scope.env()), "Reisen");
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].type.name, "TopicName");
  EXPECT_TRUE(requests[0].includeSchemaInPrompt);
  const std::string& prompt = requests[0].prompt;
  EXPECT_EQ(prompt.rfind("Diese gespeicherten Tabs gehören zu einem Thema. Wie heisst das "
                         "Thema?\n- Titel 1 (d1.ch): Zusammenfassung 1.\n- Titel 2 (d2.ch): ",
                         0),
            0u);
  EXPECT_TRUE(prompt.ends_with("\n- Titel 12 (d12.ch): Zusammenfassung 12."));
}

}  // namespace
}  // namespace kestrova
