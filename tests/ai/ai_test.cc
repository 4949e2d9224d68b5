#include <atomic>
#include <chrono>
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

#include "support/scripted_model.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ModelScope;
using testing::ScriptedModel;

// Dates in prompts are local calendar days; fix the zone before anything reads it.
const bool kZoneSet = (::setenv("TZ", "Europe/Zurich", 1), ::tzset(), true);

// Blocks until `done()` holds or a generous limit for a shared, noisy machine passes.
bool waitUntil(const std::function<bool()>& done) {
  for (int i = 0; i < 20000 && !done(); ++i)
    std::this_thread::sleep_for(1ms);
  return done();
}

bool returnsPromptly(const std::function<void()>& call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::steady_clock::now() - start < 30s;
}

void script(ModelScope& scope, std::initializer_list<ScriptedModel::Step> steps) {
  for (const auto& step : steps)
    scope.model().then(step);
}

SavedTab tab(std::string title, std::string summary, std::string savedAt) {
  static int pages = 0;
  return makeSavedTab({.id = Uuid::random(),
                       .url = "https://www.beispiel.ch/seite" + std::to_string(++pages),
                       .title = std::move(title),
                       .savedAt = *Fmt::parseISO(savedAt),
                       .summary = std::move(summary)});
}

TEST(AIStatusDescription, LineForTheStateAndTheSwitchByPresenceWhateverItsValue) {
  for (std::optional<std::string> value : {std::optional<std::string>(), {""}, {"0"}}) {
    testing::FakeEnv env({.variables = {{"KESTROVA_NO_AI", value}}});
    EXPECT_EQ(AIStatus::forceOffFromEnvironment(env), value.has_value()) << value.value_or("-");
  }
  ModelScope scope;
  const auto state = [&] {
    return std::to_string(AIStatus::isAvailable(scope.env())) + AIStatus::description(scope.env());
  };
  EXPECT_EQ(state(), "1Apple Intelligence: eingeschaltet, Themen und Chat laufen auf deinem Mac");
  scope.model().setAvailability(ModelAvailability::modelNotReady);
  EXPECT_EQ(
      state(),
      "0Apple Intelligence lädt noch das Sprachmodell. Bis dahin nutzt Kestrova Stichwörter.");
  scope.model().setAvailability(ModelAvailability::available);
  AIStatus::setForceOff(true);  // switched off for this run overrides an available model
  EXPECT_EQ(state(), "0Apple Intelligence: für diesen Lauf ausgeschaltet");
}

TEST(SerialGateOrder, WaitersServedInArrivalOrderAndReleasedWhenTheOperationThrows) {
  SerialGate gate;
  gate.acquire();
  std::vector<int> order;  // written only while holding the gate
  std::vector<std::jthread> callers;
  for (int i = 1; i <= 3; ++i) {
    callers.emplace_back([&, i] { gate.run([&] { order.push_back(i); }); });
    // The next caller starts only once this one is queued, so arrival order is known.
    ASSERT_TRUE(waitUntil([&] { return gate.waiting() >= static_cast<std::size_t>(i); }));
  }
  gate.release();
  callers.clear();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_THROW(gate.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_FALSE(gate.busy());
}

TEST(WithTimeoutLimit, LimitOrCallerStopReturnsAndStopsTheWorkAndOnlyAValueInTimeCounts) {
  std::stop_source caller;
  // A short, a negative and a NaN limit (taken as 0), and a caller stop under a long limit.
  for (double limit : {0.2, -1.0, std::numeric_limits<double>::quiet_NaN(), 600.0}) {
    const auto sawStop = std::make_shared<std::atomic<bool>>(false);
    EXPECT_TRUE(returnsPromptly([&] {
      EXPECT_FALSE(withTimeout<int>(
          limit,
          [sawStop, limit, &caller](std::stop_token token) {
            if (limit > 100)
              caller.request_stop();
            while (!token.stop_requested())
              std::this_thread::sleep_for(1ms);
            return *sawStop = true, 1;
          },
          caller.get_token()));
    }));
    EXPECT_TRUE(waitUntil([&] { return sawStop->load(); }));
  }
  // A caller that has already stopped does not start the work; no work gives no value.
  bool started = false;
  EXPECT_FALSE(withTimeout<int>(
      1, [&started](std::stop_token) { return started = true, 1; }, caller.get_token()));
  EXPECT_FALSE(started || withTimeout<int>(1, nullptr));
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
  script(scope, {ScriptedModel::answer(Json{{"name", "Reisen"}}), ScriptedModel::nothing(),
                 ScriptedModel::fail(), ScriptedModel::answer(Json{{"name", "x"}}, 60s)});
  auto ask = [&](const char* prompt, double limit = 30, std::stop_token stop = {}) {
    return AIEngine::respond(prompt, TopicName::guidedType(), limit, stop, scope.env());
  };
  std::stop_source stopped;
  stopped.request_stop();
  EXPECT_FALSE(ask("p", 30, stopped.get_token()).has_value());  // never reaches the model
  EXPECT_TRUE(scope.model().requests().empty());
  EXPECT_EQ(ask("Wie heisst das Thema?"), (Json{{"name", "Reisen"}}));
  const ModelRequest sent = scope.model().requests().at(0);
  EXPECT_EQ(sent.instructions, AIEngine::instructions);
  EXPECT_EQ(sent.prompt, "Wie heisst das Thema?");
  EXPECT_TRUE(sent.type.schema == TopicName::guidedType().schema && sent.includeSchemaInPrompt);
  EXPECT_FALSE(ask("a") || ask("b"));
  EXPECT_TRUE(returnsPromptly([&] { EXPECT_FALSE(ask("c", 0.2).has_value()); }));
  EXPECT_TRUE(scope.model().waitForStops(1));
  EXPECT_FALSE(AIEngine::gate().busy());
  // Waiting for the gate is not counted against the limit.
  scope.model().then(ScriptedModel::answer(Json{{"name", "Kochen"}}));
  AIEngine::gate().acquire();
  auto pending = std::async(std::launch::async, [&] { return ask("p", 1.0); });
  ASSERT_TRUE(waitUntil([] { return AIEngine::gate().waiting() >= 1; }));
  std::this_thread::sleep_for(1500ms);  // longer than the limit
  AIEngine::gate().release();
  EXPECT_EQ(pending.get(), (Json{{"name", "Kochen"}}));
}

TEST(GuidedTypesReading, WellFormedRecordsAreReadAndMalformedOnesGiveNoValue) {
  // Whole numbers also as reals; beyond int64 they are pinned to its ends. Picks are not capped.
  auto chat = ChatReply::fromGenerated(Json::parse(
      R"({"intro":"Hier.","picks":[{"number":2,"reason":"r"},{"number":3.0,"reason":""},
          {"number":18446744073709551615,"reason":""},{"number":-1e19,"reason":""}]})"));
  ASSERT_EQ(chat->picks.size(), 4u);
  EXPECT_EQ(chat->picks[1].number, 3);
  EXPECT_EQ(chat->picks[2].number, std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(chat->picks[3].number, std::numeric_limits<std::int64_t>::min());
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

TEST(ChatAnswering, ModelGetsEightNumberedHitsItsValidPicksAreUsedOnceElseTheKeywordAnswer) {
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
  ModelScope scope;
  // Picks 0 and 9 lie just outside the eight hits, 1 and 8 at their ends; repeats are dropped.
  script(scope, {ScriptedModel::answer(Json::parse(R"({"intro":"Hier.","picks":[{"number":0,
      "reason":"null"},{"number":9,"reason":"neun"},{"number":8,"reason":" acht "},
      {"number":1,"reason":"eins"},{"number":8,"reason":"x"}]})")),
                 ScriptedModel::answer(Json{{"intro", " Unklar. "}, {"picks", Json::array()}}),
                 ScriptedModel::answer(Json{{"intro", "x"}})});
  const Chat chat(std::make_shared<Embedder>(false), 30, scope.env());
  LibraryData data;  // ten tabs about coffee saved on ten days: eight hits
  for (char i = '0'; i <= '9'; ++i)
    data.tabs.push_back(tab(std::string("Kaffee ") + i, std::string("Über Kaffee Nummer ") + i,
                            std::string("2026-10-1") + i + "T12:00:00Z"));
  const ChatAnswer none{"Dazu habe ich in deinen gespeicherten Tabs nichts gefunden.", {}, {}};
  EXPECT_EQ(chat.answer("Steuererklärung", data), none);
  EXPECT_EQ(chat.answer("   ", LibraryData{}), none);
  EXPECT_TRUE(scope.model().requests().empty());
  const auto hits = chat.index().search("Kaffee", data, 8);
  ASSERT_EQ(hits.size(), 8u);
  EXPECT_EQ(
      chat.answer("Kaffee", data),  // reasons are not trimmed
      (ChatAnswer{"Hier.", {hits[7], hits[0]}, {{hits[7], " acht "}, {hits[0], "eins"}}, true}));
  const ModelRequest sent = scope.model().requests().at(0);
  EXPECT_EQ(sent.prompt, Chat::prompt("Kaffee", hits));
  EXPECT_EQ(sent.type.schema, ChatReply::guidedType().schema);
  // No valid pick: the intro stays and the three best hits stand in.
  const ChatAnswer standIn = chat.answer("Kaffee", data);
  EXPECT_EQ(standIn.tabs, (std::vector<SavedTab>{hits[0], hits[1], hits[2]}));
  EXPECT_TRUE(standIn.byAI && standIn.text == " Unklar. " &&
              standIn.cards[2].reason == hits[2].summary);
  EXPECT_EQ(chat.answer("Kaffee", data), Chat::keywordAnswer(hits));  // malformed reply
  AIStatus::setForceOff(true);
  EXPECT_EQ(chat.answer("Kaffee", data), Chat::keywordAnswer(hits));
  EXPECT_EQ(scope.model().requests().size(), 3u);
  // The keyword answer: at most three cards, an empty summary replaced by the title.
  const std::string tail = " am besten zu deiner Frage. " + std::string(Chat::fallbackNote);
  read.summary.clear();
  EXPECT_EQ(Chat::keywordAnswer({read}),
            (ChatAnswer{"Ein Tab passt" + tail, {read}, {{read, "Espresso"}}}));
  const ChatAnswer three = Chat::keywordAnswer(data.tabs);
  EXPECT_EQ(three.text, "3 Tabs passen" + tail);
  EXPECT_EQ(three.tabs, (std::vector<SavedTab>{data.tabs[0], data.tabs[1], data.tabs[2]}));
  EXPECT_EQ(three.cards.at(2).reason, "Über Kaffee Nummer 2");
}

Json summaryJson(std::string summary, std::vector<std::string> tags) {
  return Json{{"summary", std::move(summary)}, {"tags", std::move(tags)}};
}

TEST(Summarizer, ModelGetsACutPromptItsAnswerIsCleanedAndElseTheFirstSentenceAndKeywords) {
  const std::string title = "Bergwandern im Wallis";
  const std::string page = "Über Bergwandern und Hütten im Wallis, mit Routen für Familien.";
  ModelScope scope;
  // A long summary; then failing, tagless and blank answers.
  script(scope, {ScriptedModel::answer(summaryJson("  Ein Satz.\n", {" Reise\t", "", "B", "Zug"})),
                 ScriptedModel::answer(summaryJson(std::string(200, 'x'), {})),
                 ScriptedModel::fail(), ScriptedModel::answer(Json{{"summary", "S."}}),
                 ScriptedModel::answer(summaryJson(" \n ", {"x"}))});
  const Summarizer summarizer(30, scope.env());
  std::string text;  // "ä" as a + combining diaeresis: one character as the user sees it
  for (int i = 0; i < 3000; ++i)
    text += "a\u0308";
  EXPECT_EQ(summarizer.summarize("T", text), (SummaryResult{"Ein Satz.", {"Reise", "B"}, true}));
  const std::string cut = std::string(159, 'x') + "…";  // 160 characters
  EXPECT_EQ(summarizer.summarize("Pasta-Rezepte", ""), (SummaryResult{cut, {}, true}));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(summarizer.summarize(title, page), (SummaryResult{page, {"Bergwandern", "Wallis"}}));
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 5u);
  EXPECT_EQ(requests[0].prompt,
            "Fasse diese Webseite zusammen.\nTitel: T\nText: " + text.substr(0, 2500 * 3));
  EXPECT_TRUE(
      requests[1].prompt.ends_with("Titel: Pasta-Rezepte\nText: (kein Text, nur der Titel)"));
  EXPECT_EQ(requests[0].type.schema, TabSummary::guidedType().schema);
  // Nothing to summarise, or the model switched off: the model is not asked.
  EXPECT_EQ(summarizer.summarize("", ""), (SummaryResult{"Ohne Inhalt gespeichert.", {}}));
  AIStatus::setForceOff(true);
  EXPECT_EQ(summarizer.summarize(title, page), Summarizer::fallback(title, page));
  EXPECT_EQ(scope.model().requests().size(), 5u);
  // Without a sentence the title, cut; keywords only from the first 3000 characters.
  EXPECT_EQ(Summarizer::fallback(std::string(200, 'x'), "Zu kurz").summary, cut);
  text = std::string(3000, '.') + " Zauberwort Zauberwort";
  EXPECT_TRUE(Summarizer::fallback("", text).tags.empty());
  EXPECT_EQ(Summarizer::fallback("", "Zauberwort. " + text).tags,
            (std::vector<std::string>{"Zauberwort"}));
}

}  // namespace
}  // namespace kestrova
