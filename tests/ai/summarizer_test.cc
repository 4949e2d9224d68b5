#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include <kestrova/ai.h>
#include <kestrova/guided_types.h>
#include <kestrova/summarizer.h>
#include <kestrova/unicode.h>

#include "support/scripted_model.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ModelScope;
using testing::ScriptedModel;

std::string repeat(std::string_view piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) {
    out += piece;
  }
  return out;
}

Json summaryJson(std::string summary, std::vector<std::string> tags) {
  return Json{{"summary", std::move(summary)}, {"tags", std::move(tags)}};
}

// Cut to at most 160 characters as the user sees them, ending in an ellipsis.
void expectCut(const std::string& summary, const std::string& start) {
  EXPECT_LE(unicode::graphemeCount(summary), 160u);
  EXPECT_TRUE(summary.ends_with("…")) << summary;
  EXPECT_TRUE(summary.starts_with(start)) << summary;
}

const std::string kTitle = "Bergwandern im Wallis";
const std::string kPage =
    "Eine Seite über Bergwandern und Hütten im Wallis, mit Routen für Familien und Hinweisen zum "
    "Wetter.";

TEST(SummarizerModel, PromptCutTo2500CharactersSchemaAndInstructionsReachTheModel) {
  // Characters as the user sees them: "ä" written as a + combining diaeresis is one.
  EXPECT_EQ(Summarizer::prompt("T", repeat("a\u0308", 3000)),
            "Fasse diese Webseite zusammen.\nTitel: T\nText: " + repeat("a\u0308", 2500));
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(summaryJson("Eine Seite über Pasta.", {"Pasta"})));
  EXPECT_EQ(Summarizer(30, scope.env()).summarize("Pasta-Rezepte", ""),
            (SummaryResult{"Eine Seite über Pasta.", {"Pasta"}, true}));
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].prompt,
            "Fasse diese Webseite zusammen.\nTitel: Pasta-Rezepte\nText: (kein Text, nur der "
            "Titel)");
  EXPECT_EQ(requests[0].instructions, AIEngine::instructions);
  EXPECT_EQ(requests[0].type.schema, TabSummary::guidedType().schema);
  EXPECT_TRUE(requests[0].includeSchemaInPrompt);
  EXPECT_EQ(Summarizer::prompt("Titel A", "Ein Text."),
            "Fasse diese Webseite zusammen.\nTitel: Titel A\nText: Ein Text.");
}

TEST(SummarizerModel, OnlyTheFirstThreeTagsAreKeptThenCleanedAndALongSummaryIsCut) {
  ModelScope scope;
  scope.model().then(
      ScriptedModel::answer(summaryJson("  Ein Satz.\n", {" Reise\t", "", "Berge", "Zug"})));
  scope.model().then(ScriptedModel::answer(summaryJson(repeat("Wort ", 60), {})));  // 300
  const Summarizer summarizer(Summarizer::defaultTimeLimitSeconds, scope.env());
  EXPECT_EQ(summarizer.summarize("Titel", kPage),
            (SummaryResult{"Ein Satz.", {"Reise", "Berge"}, true}));
  const SummaryResult result = summarizer.summarize("Titel", kPage);
  EXPECT_TRUE(result.byAI);
  expectCut(result.summary, "Wort Wort ");
}

TEST(SummarizerModel, FailingMalformedMissingAndLateAnswersFallBack) {
  ModelScope scope;
  scope.model().then(ScriptedModel::fail());
  scope.model().then(ScriptedModel::answer(Json{{"summary", "S."}}));  // no tags
  scope.model().then(ScriptedModel::nothing());
  scope.model().then(ScriptedModel::answer(summaryJson("Zu spät.", {}), 60s));
  const SummaryResult expected = Summarizer::fallback(kTitle, kPage);
  for (int i = 0; i < 4; ++i) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Summarizer(i < 3 ? 30 : 0.2, scope.env()).summarize(kTitle, kPage), expected) << i;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
  }
  EXPECT_EQ(scope.model().requests().size(), 4u);
  EXPECT_TRUE(scope.model().waitForStops(1));
  EXPECT_FALSE(AIEngine::gate().busy());
}

TEST(SummarizerModel, EmptyPageSwitchedOffOrUnavailableModelIsNotAsked) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(summaryJson("S.", {})));
  const Summarizer summarizer(30, scope.env());
  EXPECT_EQ(summarizer.summarize("", ""), (SummaryResult{"Ohne Inhalt gespeichert.", {}, false}));
  AIStatus::setForceOff(true);
  EXPECT_FALSE(summarizer.summarize(kTitle, kPage).byAI);
  AIStatus::setForceOff(false);
  scope.model().setAvailability(ModelAvailability::appleIntelligenceNotEnabled);
  EXPECT_FALSE(summarizer.summarize(kTitle, kPage).byAI);
  EXPECT_TRUE(scope.model().requests().empty());
}

TEST(SummarizerFallback, FirstSentenceOrTitleAndKeywordsFromTheFirst3000Characters) {
  EXPECT_EQ(Summarizer::fallback(kTitle, kPage),
            (SummaryResult{kPage, {"Bergwandern", "Wallis"}, false}));
  const SummaryResult title = Summarizer::fallback(repeat("Titelwort ", 20), "Zu kurz");  // 200
  expectCut(title.summary, "Titelwort ");
  const std::string text = repeat(". ", 1500) + " Zauberwort Zauberwort";
  EXPECT_TRUE(Summarizer::fallback("", text).tags.empty());
  EXPECT_EQ(Summarizer::fallback("", "Zauberwort. " + text).tags,
            (std::vector<std::string>{"Zauberwort"}));
}

}  // namespace
}  // namespace kestrova
