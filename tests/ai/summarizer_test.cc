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

// A summarizer that asks the scope's scripted model.
Summarizer summarizer(ModelScope& scope, double limit = Summarizer::defaultTimeLimitSeconds) {
  return Summarizer(limit, scope.env());
}

const char* kPage =
    "Eine Seite über Bergwandern und Hütten im Wallis, mit Routen für Familien und Hinweisen zum "
    "Wetter.";

TEST(SummarizerPrompt, TitleAndTextCutTo2500Characters) {
  EXPECT_EQ(Summarizer::prompt("Titel A", "Ein Text."),
            "Fasse diese Webseite zusammen.\nTitel: Titel A\nText: Ein Text.");
  // Characters as the user sees them: "ä" written as a + combining diaeresis is one.
  const std::string text = repeat("a\u0308", 3000);
  const std::string prompt = Summarizer::prompt("T", text);
  const std::string head = "Fasse diese Webseite zusammen.\nTitel: T\nText: ";
  ASSERT_EQ(prompt.substr(0, head.size()), head);
  EXPECT_EQ(prompt.substr(head.size()), repeat("a\u0308", 2500));
}

TEST(SummarizerModel, PromptSchemaAndInstructionsReachTheModel) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(summaryJson("Eine Seite über Pasta.", {"Pasta"})));
  const SummaryResult result = summarizer(scope).summarize("Pasta-Rezepte", "");
  EXPECT_EQ(result, (SummaryResult{"Eine Seite über Pasta.", {"Pasta"}, true}));
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].prompt,
            "Fasse diese Webseite zusammen.\nTitel: Pasta-Rezepte\nText: (kein Text, nur der "
            "Titel)");
  EXPECT_EQ(requests[0].instructions, AIEngine::instructions);
  EXPECT_EQ(requests[0].type.schema, TabSummary::guidedType().schema);
  EXPECT_TRUE(requests[0].includeSchemaInPrompt);
}

TEST(SummarizerModel, OnlyTheFirstThreeTagsAreKeptThenCleaned) {
  ModelScope scope;
  scope.model().then(
      ScriptedModel::answer(summaryJson("  Ein Satz.\n", {" Reise\t", "", "Berge", "Zug"})));
  const SummaryResult result = summarizer(scope).summarize("Titel", kPage);
  EXPECT_EQ(result.summary, "Ein Satz.");
  EXPECT_EQ(result.tags, (std::vector<std::string>{"Reise", "Berge"}));
  EXPECT_TRUE(result.byAI);
}

TEST(SummarizerModel, LongSummaryIsTruncatedTo160) {
  ModelScope scope;
  std::string longSummary = repeat("Wort ", 60);  // 300 characters
  scope.model().then(ScriptedModel::answer(summaryJson(longSummary, {})));
  const SummaryResult result = summarizer(scope).summarize("Titel", kPage);
  EXPECT_TRUE(result.byAI);
  EXPECT_LE(unicode::graphemeCount(result.summary), 160u);
  EXPECT_EQ(result.summary.substr(result.summary.size() - 3), "…");
  EXPECT_EQ(result.summary.substr(0, 10), "Wort Wort ");
}

TEST(SummarizerModel, FailingMalformedAndMissingAnswersFallBack) {
  ModelScope scope;
  scope.model().then(ScriptedModel::fail());
  scope.model().then(ScriptedModel::answer(Json{{"summary", "S."}}));  // no tags
  scope.model().then(ScriptedModel::nothing());
  const SummaryResult expected = Summarizer::fallback("Bergwandern im Wallis", kPage);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(summarizer(scope).summarize("Bergwandern im Wallis", kPage), expected) << i;
  }
  EXPECT_EQ(scope.model().requests().size(), 3u);
}

TEST(SummarizerModel, LateAnswerFallsBackAtTheLimit) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(summaryJson("Zu spät.", {}), 60s));
  const auto start = std::chrono::steady_clock::now();
  const SummaryResult result = summarizer(scope, 0.2).summarize("Bergwandern im Wallis", kPage);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
  EXPECT_FALSE(result.byAI);
  EXPECT_TRUE(scope.model().waitForStops(1));
  EXPECT_FALSE(AIEngine::gate().busy());
}

TEST(SummarizerModel, EmptyPageNeverAsksTheModel) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(summaryJson("S.", {})));
  const SummaryResult result = summarizer(scope).summarize("", "");
  EXPECT_EQ(result, (SummaryResult{"Ohne Inhalt gespeichert.", {}, false}));
  EXPECT_TRUE(scope.model().requests().empty());
}

TEST(SummarizerModel, SwitchedOffOrUnavailableModelIsNotAsked) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(summaryJson("S.", {})));
  AIStatus::setForceOff(true);
  EXPECT_FALSE(summarizer(scope).summarize("Bergwandern im Wallis", kPage).byAI);
  AIStatus::setForceOff(false);
  scope.model().setAvailability(ModelAvailability::appleIntelligenceNotEnabled);
  EXPECT_FALSE(summarizer(scope).summarize("Bergwandern im Wallis", kPage).byAI);
  EXPECT_TRUE(scope.model().requests().empty());
}

TEST(SummarizerFallback, FirstSentenceAndTitleKeywords) {
  const SummaryResult result = Summarizer::fallback("Bergwandern im Wallis", kPage);
  EXPECT_EQ(result.summary, kPage);
  EXPECT_EQ(result.tags, (std::vector<std::string>{"Bergwandern", "Wallis"}));
  EXPECT_FALSE(result.byAI);
}

TEST(SummarizerFallback, TitleWhenNoSentenceQualifies) {
  const std::string title = repeat("Titelwort ", 20);  // 200 characters
  const SummaryResult result = Summarizer::fallback(title, "Zu kurz");
  EXPECT_LE(unicode::graphemeCount(result.summary), 160u);
  EXPECT_EQ(result.summary.substr(result.summary.size() - 3), "…");
  EXPECT_EQ(result.summary.substr(0, 10), "Titelwort ");
}

TEST(SummarizerFallback, KeywordsComeFromTheFirst3000CharactersOnly) {
  const std::string text = repeat(". ", 1500) + " Zauberwort Zauberwort";
  EXPECT_TRUE(Summarizer::fallback("", text).tags.empty());
  EXPECT_EQ(Summarizer::fallback("", "Zauberwort. " + text).tags,
            (std::vector<std::string>{"Zauberwort"}));
}

}  // namespace
}  // namespace kestrova
