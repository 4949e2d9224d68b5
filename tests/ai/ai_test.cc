#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <kestrova/ai.h>
#include <kestrova/chat.h>
#include <kestrova/fmt.h>
#include <kestrova/guided_types.h>
#include <kestrova/summarizer.h>
#include <kestrova/unicode.h>

#include "support/scripted_model.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ModelScope;
using testing::ScriptedModel;
using Flag = std::shared_ptr<std::atomic<bool>>;

// Dates in prompts are local calendar days; fix the zone before anything reads it.
const bool kZoneSet = (::setenv("TZ", "Europe/Zurich", 1), ::tzset(), true);

Flag flag() {
  return std::make_shared<std::atomic<bool>>(false);
}

// Blocks until `done()` holds or a generous limit for a shared, noisy machine passes.
bool waitUntil(const std::function<bool()>& done, std::chrono::seconds limit = 20s) {
  for (const auto end = std::chrono::steady_clock::now() + limit; !done();
       std::this_thread::sleep_for(1ms)) {
    if (std::chrono::steady_clock::now() > end)
      return false;
  }
  return true;
}

bool returnsPromptly(const std::function<void()>& call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::steady_clock::now() - start < 30s;
}

std::string repeat(std::string_view piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i)
    out += piece;
  return out;
}

SavedTab tab(std::string title, std::string summary, std::string savedAt) {
  static int pages = 0;
  return makeSavedTab({.id = Uuid::random(),
                       .url = "https://www.beispiel.ch/seite" + std::to_string(++pages),
                       .title = std::move(title),
                       .savedAt = *Fmt::parseISO(savedAt),
                       .summary = std::move(summary)});
}

// Ten tabs about coffee saved on ten days, so a question about coffee has eight hits; one other.
LibraryData coffeeLibrary() {
  LibraryData data;
  for (int i = 0; i < 10; ++i) {
    const std::string n = std::to_string(i);
    data.tabs.push_back(
        tab("Kaffee " + n, "Über Kaffee Nummer " + n, "2026-10-1" + n + "T12:00:00Z"));
  }
  data.tabs.push_back(tab("Velotouren", "Routen im Jura", "2026-10-01T12:00:00Z"));
  return data;
}

Json reply(std::string intro, std::vector<std::pair<std::int64_t, std::string>> picks) {
  Json list = Json::array();
  for (auto& [number, reason] : picks)
    list.push_back({{"number", number}, {"reason", reason}});
  return Json{{"intro", std::move(intro)}, {"picks", std::move(list)}};
}

TEST(AIStatusDescription, LineForTheStateAndTheSwitchByPresenceWhateverItsValue) {
  for (std::optional<std::string> value : {std::optional<std::string>(), {""}, {"0"}}) {
    testing::FakeEnv env({.variables = {{"KESTROVA_NO_AI", value}}});
    EXPECT_EQ(AIStatus::forceOffFromEnvironment(env), value.has_value()) << value.value_or("-");
  }
  ModelScope scope;
  EXPECT_TRUE(AIStatus::isAvailable(scope.env()));
  EXPECT_EQ(AIStatus::description(scope.env()),
            "Apple Intelligence: eingeschaltet, Themen und Chat laufen auf deinem Mac");
  scope.model().setAvailability(ModelAvailability::modelNotReady);
  EXPECT_FALSE(AIStatus::isAvailable(scope.env()));
  EXPECT_EQ(AIStatus::description(scope.env()),
            "Apple Intelligence lädt noch das Sprachmodell. Bis dahin nutzt Kestrova Stichwörter.");
  // The platform model of this build is never available.
  EXPECT_EQ(AIStatus::description(),
            "Apple Intelligence ist gerade nicht verfügbar. Kestrova nutzt Stichwörter.");
  scope.model().setAvailability(ModelAvailability::available);
  AIStatus::setForceOff(true);  // switched off for this run overrides an available model
  EXPECT_FALSE(AIStatus::isAvailable(scope.env()));
  EXPECT_EQ(AIStatus::description(scope.env()),
            "Apple Intelligence: für diesen Lauf ausgeschaltet");
}

TEST(SerialGateOrder, WaitersServedInArrivalOrderAndReleasedWhenTheOperationThrows) {
  SerialGate gate;
  gate.acquire();
  std::vector<int> order;  // written only while holding the gate
  std::vector<std::thread> callers;
  for (int i = 1; i <= 3; ++i) {
    callers.emplace_back([&, i] { gate.run([&] { order.push_back(i); }); });
    // The next caller starts only once this one is queued, so arrival order is known.
    ASSERT_TRUE(waitUntil([&] { return gate.waiting() >= static_cast<std::size_t>(i); }));
  }
  gate.release();
  for (auto& caller : callers)
    caller.join();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_THROW(gate.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_FALSE(gate.busy());
}

TEST(WithTimeoutLimit, LimitOrCallerStopReturnsAndStopsTheWorkAndOnlyAValueInTimeCounts) {
  std::stop_source caller;
  // A short, a negative and a NaN limit (taken as 0), and a caller stop under a long limit.
  for (double limit : {0.2, -1.0, std::nan(""), 600.0}) {
    const Flag sawStop = flag();
    std::jthread canceller([&] {
      std::this_thread::sleep_for(100ms);
      if (limit > 100)
        caller.request_stop();
    });
    EXPECT_TRUE(returnsPromptly([&] {
      EXPECT_FALSE(withTimeout<int>(
          limit,
          [sawStop](std::stop_token token) {
            while (!token.stop_requested())
              std::this_thread::sleep_for(1ms);
            return *sawStop = true, 1;
          },
          caller.get_token()));
    }));
    EXPECT_TRUE(waitUntil([&] { return sawStop->load(); }));
  }
  // A caller that has already stopped does not start the work; no work gives no value.
  const Flag started = flag();
  EXPECT_FALSE(withTimeout<int>(
      1, [started](std::stop_token) { return *started = true, 1; }, caller.get_token()));
  EXPECT_FALSE(started->load());
  EXPECT_FALSE(withTimeout<int>(1, nullptr).has_value());
  // No limit at all waits for the work; a failure returns at once, not at the limit.
  EXPECT_EQ(withTimeout<int>(std::numeric_limits<double>::infinity(),
                             [](std::stop_token) { return std::this_thread::sleep_for(50ms), 3; }),
            3);
  EXPECT_TRUE(returnsPromptly([] {
    EXPECT_FALSE(withTimeout<int>(40, [](std::stop_token) -> int { throw TimeoutError(); }));
  }));
}

TEST(AIEngineRespond, SendsInstructionsPromptAndSchemaAndOnlyATimelyAnswerGivesAValue) {
  ModelScope scope;
  for (const auto& step :
       {ScriptedModel::answer(Json{{"name", "Reisen"}}), ScriptedModel::nothing(),
        ScriptedModel::fail(), ScriptedModel::answer(Json{{"name", "x"}}, 60s)}) {
    scope.model().then(step);
  }
  auto ask = [&](const char* prompt, double limit = 30, std::stop_token stop = {}) {
    return AIEngine::respond(prompt, TopicName::guidedType(), limit, stop, scope.env());
  };
  std::stop_source stopped;
  stopped.request_stop();
  EXPECT_FALSE(ask("p", 30, stopped.get_token()).has_value());  // never reaches the model
  EXPECT_TRUE(scope.model().requests().empty());
  EXPECT_EQ(ask("Wie heisst das Thema?"), (Json{{"name", "Reisen"}}));
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].instructions, AIEngine::instructions);
  EXPECT_EQ(requests[0].prompt, "Wie heisst das Thema?");
  EXPECT_EQ(requests[0].type.schema, TopicName::guidedType().schema);
  EXPECT_TRUE(requests[0].includeSchemaInPrompt);
  EXPECT_FALSE(ask("a").has_value());
  EXPECT_FALSE(ask("b").has_value());
  EXPECT_TRUE(returnsPromptly([&] { EXPECT_FALSE(ask("c", 0.2).has_value()); }));
  EXPECT_TRUE(scope.model().waitForStops(1));
  EXPECT_FALSE(AIEngine::gate().busy());
}

TEST(AIEngineRespond, WaitingForTheGateIsNotCountedAgainstTheLimit) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "Kochen"}}));
  AIEngine::gate().acquire();
  auto pending = std::async(std::launch::async, [&scope] {
    return AIEngine::respond("p", TopicName::guidedType(), 1.0, {}, scope.env());
  });
  ASSERT_TRUE(waitUntil([] { return AIEngine::gate().waiting() >= 1; }));
  std::this_thread::sleep_for(1500ms);  // longer than the limit
  AIEngine::gate().release();
  EXPECT_EQ(pending.get(), (Json{{"name", "Kochen"}}));
}

TEST(GuidedTypesReading, WellFormedRecordsAreReadAndMalformedOnesGiveNoValue) {
  auto summary = TabSummary::fromGenerated(Json::parse(R"({"summary":"S.","tags":["a","b"]})"));
  ASSERT_TRUE(summary.has_value());
  EXPECT_EQ(summary->summary + "|" + summary->tags[0] + summary->tags[1], "S.|ab");
  // Whole numbers also as reals; beyond int64 they are pinned to its ends. Picks are not capped.
  auto chat = ChatReply::fromGenerated(Json::parse(
      R"({"intro":"Hier.","picks":[{"number":2,"reason":"r"},{"number":3.0,"reason":""},
          {"number":18446744073709551615,"reason":""},{"number":-1e19,"reason":""}]})"));
  ASSERT_TRUE(chat.has_value());
  std::vector<std::int64_t> numbers;
  for (const ChatPick& pick : chat->picks)
    numbers.push_back(pick.number);
  EXPECT_EQ(numbers, (std::vector<std::int64_t>{2, 3, std::numeric_limits<std::int64_t>::max(),
                                                std::numeric_limits<std::int64_t>::min()}));
  EXPECT_EQ(TopicName::fromGenerated(Json::parse(R"({"name":"Reisen","x":1})"))->name, "Reisen");
  EXPECT_FALSE(TopicName::fromGenerated(Json::parse(R"({"name":null})")).has_value());
  for (const char* text : {R"([])", R"({"summary":3,"tags":[]})", R"({"summary":"s"})",
                           R"({"summary":"s","tags":[1]})", R"({"summary":"s","tags":"a"})",
                           R"({"intro":"i"})", R"({"intro":"i","picks":{}})",
                           R"({"intro":1,"picks":[]})", R"({"intro":"i","picks":[{"number":1}]})",
                           R"({"intro":"i","picks":[{"number":"1","reason":"r"}]})",
                           R"({"intro":"i","picks":[{"number":1.5,"reason":"r"}]})"}) {
    const Json json = Json::parse(text);
    EXPECT_FALSE(TabSummary::fromGenerated(json) || ChatReply::fromGenerated(json)) << text;
  }
}

TEST(ChatAnswering, NoHitsNeverAskTheModelAndTheKeywordAnswerShowsAtMostThreeCards) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(reply("x", {})));
  const Chat chat(std::make_shared<Embedder>(false), 30, scope.env());
  const ChatAnswer none{
      "Dazu habe ich in deinen gespeicherten Tabs nichts gefunden.", {}, {}, false};
  EXPECT_EQ(chat.answer("Steuererklärung", coffeeLibrary()), none);
  EXPECT_EQ(chat.answer("   ", LibraryData{}), none);
  AIStatus::setForceOff(true);
  const LibraryData data = coffeeLibrary();
  EXPECT_EQ(chat.answer("Kaffee", data),
            Chat::keywordAnswer(chat.index().search("Kaffee", data, 8)));
  EXPECT_TRUE(scope.model().requests().empty());
  const std::string tail = " am besten zu deiner Frage. " + std::string(Chat::fallbackNote);
  // An empty summary is replaced by the title.
  const SavedTab plain = tab("Espresso", "", "2026-10-02T12:00:00Z");
  const SavedTab told = tab("Rösten", "Röstgrade", "2026-10-02T12:00:00Z");
  EXPECT_EQ(Chat::keywordAnswer({plain, told}),
            (ChatAnswer{"2 Tabs passen" + tail,
                        {plain, told},
                        {{plain, "Espresso"}, {told, "Röstgrade"}},
                        false}));
  EXPECT_EQ(Chat::keywordAnswer({told}).text, "Ein Tab passt" + tail);
  const ChatAnswer three = Chat::keywordAnswer(data.tabs);
  EXPECT_EQ(three.text, "3 Tabs passen" + tail);
  ASSERT_EQ(three.cards.size(), 3u);
  EXPECT_EQ(three.cards[2].reason, "Über Kaffee Nummer 2");
}

TEST(ChatAnswering, PromptNumbersTheHitsWithDayNoteAndUnreadMark) {
  SavedTab read = tab("Espresso", "Kaffee aus Italien", "2026-10-09T12:00:00Z");
  read.readAt = *Fmt::parseISO("2026-10-10T12:00:00Z");
  SavedTab noted = tab("Kaffee rösten", "Röstgrade erklärt", "2026-03-01T12:00:00Z");
  noted.note = "für das Wochenende";
  EXPECT_EQ(Chat::prompt("Was ist mit Kaffee?", {read, noted}),
            "Frage: Was ist mit Kaffee?\n"
            "Treffer aus den gespeicherten Tabs:\n"
            "1. Espresso (beispiel.ch, gespeichert 09.10.): Kaffee aus Italien\n"
            "2. Kaffee rösten (beispiel.ch, gespeichert 01.03., nie gelesen): Röstgrade erklärt "
            "Notiz: für das Wochenende\n"
            "Wähle die bis zu drei passendsten Treffer und sag je in einem Satz, warum.");
}

TEST(ChatAnswering, ModelGetsEightHitsItsValidPicksAreUsedOnceElseTheThreeBestHitsStandIn) {
  ModelScope scope;
  // Picks 0 and 9 lie just outside the eight hits, 1 and 8 at their ends; repeats are dropped.
  scope.model().then(ScriptedModel::answer(
      reply("Hier.", {{0, "null"}, {9, "neun"}, {8, " acht "}, {1, "eins"}, {8, "nochmals"}})));
  scope.model().then(ScriptedModel::answer(reply(" Unklar. ", {{-3, "x"}, {99, "y"}})));
  scope.model().then(ScriptedModel::answer(reply("x", {}), 60s));
  scope.model().then(ScriptedModel::fail());
  scope.model().then(ScriptedModel::answer(Json{{"intro", "x"}}));
  const Chat chat(std::make_shared<Embedder>(false), 0.5, scope.env());
  const LibraryData data = coffeeLibrary();
  const auto hits = chat.index().search("Kaffee", data, 8);
  ASSERT_EQ(hits.size(), 8u);
  EXPECT_EQ(
      chat.answer("Kaffee", data),  // reasons are not trimmed
      (ChatAnswer{"Hier.", {hits[7], hits[0]}, {{hits[7], " acht "}, {hits[0], "eins"}}, true}));
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].prompt, Chat::prompt("Kaffee", hits));
  EXPECT_EQ(requests[0].type.schema, ChatReply::guidedType().schema);
  EXPECT_EQ(
      chat.answer("Kaffee", data),
      (ChatAnswer{
          " Unklar. ",
          {hits[0], hits[1], hits[2]},
          {{hits[0], hits[0].summary}, {hits[1], hits[1].summary}, {hits[2], hits[2].summary}},
          true}));
  // Late, failing and malformed replies give the keyword answer.
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(chat.answer("Kaffee", data), Chat::keywordAnswer(hits)) << i;
  EXPECT_TRUE(scope.model().waitForStops(1));
}

Json summaryJson(std::string summary, std::vector<std::string> tags) {
  return Json{{"summary", std::move(summary)}, {"tags", std::move(tags)}};
}

// Cut to at most 160 characters as the user sees them, ending in an ellipsis.
void expectCut(const std::string& summary, const std::string& start) {
  EXPECT_LE(unicode::graphemeCount(summary), 160u);
  EXPECT_TRUE(summary.ends_with("…") && summary.starts_with(start)) << summary;
}

const std::string kTitle = "Bergwandern im Wallis";
const std::string kPage =
    "Eine Seite über Bergwandern und Hütten im Wallis, mit Routen für Familien und Hinweisen zum "
    "Wetter.";

TEST(SummarizerModel, PromptCutTo2500CharactersFirstThreeTagsCleanedLongSummaryCutElseFallback) {
  ModelScope scope;
  scope.model().then(
      ScriptedModel::answer(summaryJson("  Ein Satz.\n", {" Reise\t", "", "Berge", "Zug"})));
  scope.model().then(ScriptedModel::answer(summaryJson(repeat("Wort ", 60), {})));  // 300
  const Summarizer summarizer(0.5, scope.env());
  // Characters as the user sees them: "ä" written as a + combining diaeresis is one.
  EXPECT_EQ(summarizer.summarize("T", repeat("a\u0308", 3000)),
            (SummaryResult{"Ein Satz.", {"Reise", "Berge"}, true}));
  const SummaryResult cut = summarizer.summarize("Pasta-Rezepte", "");
  EXPECT_TRUE(cut.byAI);
  expectCut(cut.summary, "Wort Wort ");
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].prompt,
            "Fasse diese Webseite zusammen.\nTitel: T\nText: " + repeat("a\u0308", 2500));
  EXPECT_EQ(requests[1].prompt,
            "Fasse diese Webseite zusammen.\nTitel: Pasta-Rezepte\nText: (kein Text, nur der "
            "Titel)");
  EXPECT_EQ(requests[0].type.schema, TabSummary::guidedType().schema);
  // Failing, tagless, blank, missing and late answers.
  scope.model().then(ScriptedModel::fail());
  scope.model().then(ScriptedModel::answer(Json{{"summary", "S."}}));
  scope.model().then(ScriptedModel::answer(summaryJson(" \n ", {"x"})));
  scope.model().then(ScriptedModel::nothing());
  scope.model().then(ScriptedModel::answer(summaryJson("Zu spät.", {}), 60s));
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(summarizer.summarize(kTitle, kPage), Summarizer::fallback(kTitle, kPage)) << i;
  }
  EXPECT_EQ(scope.model().requests().size(), 7u);
  EXPECT_TRUE(scope.model().waitForStops(1));
}

TEST(SummarizerFallback, FirstSentenceOrTitleAndKeywordsFromTheFirst3000CharactersNoModel) {
  ModelScope scope;
  const Summarizer summarizer(30, scope.env());
  EXPECT_EQ(summarizer.summarize("", ""), (SummaryResult{"Ohne Inhalt gespeichert.", {}, false}));
  AIStatus::setForceOff(true);
  EXPECT_EQ(summarizer.summarize(kTitle, kPage), Summarizer::fallback(kTitle, kPage));
  EXPECT_TRUE(scope.model().requests().empty());
  EXPECT_EQ(Summarizer::fallback(kTitle, kPage),
            (SummaryResult{kPage, {"Bergwandern", "Wallis"}, false}));
  expectCut(Summarizer::fallback(repeat("Titelwort ", 20), "Zu kurz").summary, "Titelwort ");
  const std::string text = repeat(". ", 1500) + " Zauberwort Zauberwort";
  EXPECT_TRUE(Summarizer::fallback("", text).tags.empty());
  EXPECT_EQ(Summarizer::fallback("", "Zauberwort. " + text).tags,
            (std::vector<std::string>{"Zauberwort"}));
}

}  // namespace
}  // namespace kestrova
