#include <chrono>
#include <string>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <kestrova/ai.h>
#include <kestrova/chat.h>
#include <kestrova/fmt.h>
#include <kestrova/guided_types.h>

#include "support/scripted_model.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ModelScope;
using testing::ScriptedModel;

// Dates in prompts are local calendar days; fix the zone before anything reads it.
const bool kZoneSet = (::setenv("TZ", "Europe/Zurich", 1), ::tzset(), true);

const std::string kNote(Chat::fallbackNote);

SavedTab tab(std::string title, std::string summary, std::string savedAt) {
  static int pages = 0;
  return makeSavedTab({.id = Uuid::random(),
                       .url = "https://www.beispiel.ch/seite" + std::to_string(++pages),
                       .title = std::move(title),
                       .savedAt = *Fmt::parseISO(savedAt),
                       .summary = std::move(summary)});
}

// Ten tabs about coffee, saved on ten different days, so that a question about coffee has eight
// hits; and one unrelated tab.
LibraryData coffeeLibrary() {
  LibraryData data;
  for (int i = 0; i < 10; ++i) {
    data.tabs.push_back(tab("Kaffee " + std::to_string(i),
                            "Über Kaffee Nummer " + std::to_string(i),
                            "2026-10-1" + std::to_string(i) + "T12:00:00Z"));
  }
  data.tabs.push_back(tab("Velotouren", "Routen im Jura", "2026-10-01T12:00:00Z"));
  return data;
}

Chat makeChat(Env& env = Env::real(), double limit = Chat::defaultTimeLimitSeconds) {
  return Chat(std::make_shared<Embedder>(false), limit, env);
}

Json pick(std::int64_t number, std::string reason) {
  return Json{{"number", number}, {"reason", std::move(reason)}};
}

TEST(ChatNoHits, NothingFoundWhateverTheModel) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"intro", "x"}, {"picks", Json::array()}}));
  const ChatAnswer none{
      "Dazu habe ich in deinen gespeicherten Tabs nichts gefunden.", {}, {}, false};
  EXPECT_EQ(makeChat(scope.env()).answer("Steuererklärung", coffeeLibrary()), none);
  EXPECT_EQ(makeChat(scope.env()).answer("   ", LibraryData{}), none);
  EXPECT_TRUE(scope.model().requests().empty());
}

TEST(ChatKeywordAnswer, OneTwoAndThreeHitsWithTheModelOff) {
  ModelScope scope;
  AIStatus::setForceOff(true);
  LibraryData data;
  data.tabs.push_back(tab("Espresso", "Kaffee aus Italien", "2026-10-02T12:00:00Z"));
  data.tabs.push_back(tab("Kaffee rösten", "", "2026-10-03T12:00:00Z"));
  data.tabs.push_back(tab("Velotouren", "Routen im Jura", "2026-10-01T12:00:00Z"));
  const Chat chat = makeChat(scope.env());
  const auto hits = chat.index().search("Kaffee", data, 8);
  ASSERT_EQ(hits.size(), 2u);
  const ChatAnswer answer = chat.answer("Kaffee", data);
  EXPECT_EQ(answer.text, "2 Tabs passen am besten zu deiner Frage. " + kNote);
  ASSERT_EQ(answer.cards.size(), 2u);
  EXPECT_EQ(answer.tabs, hits);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(answer.cards[i].tab, hits[i]);
    // An empty summary is replaced by the title.
    EXPECT_EQ(answer.cards[i].reason, hits[i].summary.empty() ? hits[i].title : hits[i].summary);
  }
  EXPECT_FALSE(answer.byAI);
  EXPECT_TRUE(scope.model().requests().empty());

  EXPECT_EQ(Chat::keywordAnswer({hits[0]}).text,
            "Ein Tab passt am besten zu deiner Frage. " + kNote);
  const ChatAnswer three = Chat::keywordAnswer(coffeeLibrary().tabs);
  EXPECT_EQ(three.text, "3 Tabs passen am besten zu deiner Frage. " + kNote);
  EXPECT_EQ(three.cards.size(), 3u);
  EXPECT_EQ(three.cards[2].reason, "Über Kaffee Nummer 2");
}

TEST(ChatPrompt, NumberedLinesExactly) {
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

TEST(ChatModel, ShowsEightHitsUsesTheValidPicksOrKeepsTheIntroWithTheBestHits) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(
      Json{{"intro", "Hier sind drei Tabs."},
           {"picks", Json::array({pick(0, "null"), pick(9, "neun"), pick(2, " zwei "),
                                  pick(5, "fünf"), pick(2, "nochmals")})}}));
  const Json unclear{{"intro", " Leider unklar. "},
                     {"picks", Json::array({pick(-3, "x"), pick(99, "y")})}};
  scope.model().then(ScriptedModel::answer(unclear));
  scope.model().then(ScriptedModel::answer(unclear));
  const Chat chat = makeChat(scope.env());
  const LibraryData data = coffeeLibrary();
  const auto hits = chat.index().search("Kaffee", data, 8);
  ASSERT_EQ(hits.size(), 8u);
  const ChatAnswer answer = chat.answer("Kaffee", data);
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].prompt, Chat::prompt("Kaffee", hits));
  EXPECT_EQ(requests[0].instructions, AIEngine::instructions);
  EXPECT_EQ(requests[0].type.schema, ChatReply::guidedType().schema);
  EXPECT_EQ(answer, (ChatAnswer{"Hier sind drei Tabs.",
                                {hits[1], hits[4]},
                                {{hits[1], " zwei "}, {hits[4], "fünf"}},  // reasons not trimmed
                                true}));

  // No valid pick: the intro with the three best hits and their summaries.
  EXPECT_EQ(
      chat.answer("Kaffee", data),
      (ChatAnswer{
          " Leider unklar. ",
          {hits[0], hits[1], hits[2]},
          {{hits[0], hits[0].summary}, {hits[1], hits[1].summary}, {hits[2], hits[2].summary}},
          true}));
  // Here, unlike the keyword answer, an empty summary is not replaced by the title.
  LibraryData two;
  two.tabs.push_back(tab("Kaffeebohnen", "", "2026-10-02T12:00:00Z"));
  two.tabs.push_back(tab("Kaffeemaschinen", "Über Maschinen", "2026-10-03T12:00:00Z"));
  const ChatAnswer fewer = chat.answer("Kaffeebohnen Kaffeemaschinen", two);
  ASSERT_EQ(fewer.cards.size(), 2u);
  for (const ChatCard& card : fewer.cards) {
    EXPECT_EQ(card.reason, card.tab.summary);
  }
}

TEST(ChatModel, LateFailingAndMalformedRepliesGiveTheKeywordAnswer) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"intro", "x"}, {"picks", Json::array()}}, 60s));
  scope.model().then(ScriptedModel::fail());
  scope.model().then(ScriptedModel::answer(Json{{"intro", "x"}}));
  const Chat chat = makeChat(scope.env(), 0.2);
  const LibraryData data = coffeeLibrary();
  const ChatAnswer expected = Chat::keywordAnswer(chat.index().search("Kaffee", data, 8));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(chat.answer("Kaffee", data), expected) << i;
  }
  EXPECT_TRUE(scope.model().waitForStops(1));
  EXPECT_EQ(scope.model().requests().size(), 3u);
}

}  // namespace
}  // namespace kestrova
