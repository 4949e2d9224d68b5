#include "library_codec.h"

#include <cmath>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kestrova/fmt.h>

namespace kestrova {
namespace {

using codec::decodeLibrary;
using codec::EncodeError;
using codec::encodeLibrary;

Date at(const char* iso) {
  return *Fmt::parseInternetDateTime(iso);
}

LibraryData fullLibrary() {
  LibraryData data;
  data.version = 3;
  SavedWindow window{Uuid::random(), at("2026-10-09T07:00:00Z"), "Fenster 1 · 09.10. 09:00", {}};
  Topic topic{Uuid::random(), "Käse & Berge", "gelb", {}, false};
  SavedTab tab =
      makeSavedTab({.id = Uuid::random(),
                    .url = "https://www.srf.ch/news/a?b=1&c=\"2\"",
                    .title = "Titel mit \"Zitat\" und \\ Backslash",
                    .savedAt = at("2026-10-09T07:00:01Z"),
                    .windowId = window.id,
                    .windowIndex = 1,
                    .tabIndex = 2,
                    .text = "Zeile 1\nZeile 2\tmit Tab \u0001 und Emoji 👩‍👩‍👧",
                    .summary = "Kurz.",
                    .note = "Notiz",
                    .projectTags = {"Projekt A"},
                    .tags = {"käse", "berge"},
                    .readAt = at("2026-10-10T08:00:00Z"),
                    .isDemo = true});
  tab.topicId = topic.id;
  tab.reminderAt = at("2026-11-01T09:30:00Z");
  SavedTab bare;
  bare.id = Uuid::random();
  bare.url = "file:///tmp/x";
  bare.savedAt = at("2026-10-08T00:00:00Z");
  bare.windowId = window.id;
  window.tabIds = {tab.id, bare.id};
  topic.tabIds = {tab.id};
  data.tabs = {tab, bare};
  data.windows = {window};
  data.topics = {topic, Topic{Uuid::random(), "Ohne klares Thema", "grau", {bare.id}, true}};
  data.context = UserContext{{"~/Projekte/a", "/srv/b"}, "Ich lerne Rust", 3, 8};
  data.hints = {
      Hint{Uuid::random(), tab.id, "Passt zu Projekt A", at("2026-10-09T09:00:00Z"), true}};
  data.embeddings = {{tab.id.string(), {0.5f, -0.25f, 1e-7f, 0.0f, 3.4028235e38f}},
                     {bare.id.string(), {}}};
  data.embedderKind = "none-0+bow256";
  data.topicsByAI = true;
  data.lastHintDay = "2026-10-09";
  return data;
}

// Checks that the keys of every object in the text come in sorted order.
void expectSortedKeys(const nlohmann::ordered_json& value) {
  std::string previous;
  for (auto it = value.begin(); value.is_structured() && it != value.end(); ++it) {
    if (value.is_object()) {
      EXPECT_LT(previous, it.key());  // every key is longer than ""
      previous = it.key();
    }
    expectSortedKeys(*it);
  }
}

// Every field survives, whether the text is copied or handed over (and then freed).
TEST(LibraryCodecRoundTrip, EveryFieldSurvivesFromACopyOrHandedOverText) {
  const LibraryData data = fullLibrary();
  std::string text = encodeLibrary(data);
  const auto fromCopy = decodeLibrary(static_cast<const std::string&>(text));
  const auto handedOver = decodeLibrary(std::move(text));
  ASSERT_TRUE(fromCopy);
  ASSERT_TRUE(handedOver);
  EXPECT_EQ(*fromCopy, data);
  EXPECT_EQ(*handedOver, data);
  EXPECT_EQ(text.capacity(), std::string().capacity());  // NOLINT(bugprone-use-after-move)
  std::string broken = "{\"tabs\":[";
  EXPECT_FALSE(decodeLibrary(std::move(broken)));
}

TEST(LibraryCodecFormat, OneLineSortedKeysEscapedSlashes) {
  const std::string text = encodeLibrary(fullLibrary());
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_EQ(text.find(": "), std::string::npos);
  EXPECT_NE(text.find(R"("url":"https:\/\/www.srf.ch\/news\/a?b=1&c=\"2\"")"), std::string::npos);
  EXPECT_NE(text.find(R"(Zeile 1\nZeile 2\tmit Tab \u0001 und)"), std::string::npos);
  EXPECT_NE(text.find(R"("savedAt":"2026-10-09T07:00:01Z")"), std::string::npos);
  expectSortedKeys(nlohmann::ordered_json::parse(text));
}

// A bare tab: absent optionals are left out, the date loses its fraction of a second, and invalid
// UTF-8 is written as the replacement character and reads back as such.
TEST(LibraryCodecFormat, BareTabWithFractionAndInvalidUtf8) {
  LibraryData data;
  SavedTab tab;
  tab.id = Uuid::random();
  tab.url = "https://example.ch";
  tab.title = std::string("Ka\xC3\x28se \xFF", 8);
  tab.savedAt = at("2026-10-09T07:00:00Z") + std::chrono::milliseconds(750);
  data.tabs.push_back(tab);
  const std::string text = encodeLibrary(data);
  const auto json = nlohmann::json::parse(text);
  EXPECT_FALSE(json.contains("lastHintDay"));
  for (const char* key : {"topicId", "reminderAt", "readAt"})
    EXPECT_FALSE(json["tabs"][0].contains(key)) << key;
  EXPECT_EQ(json["tabs"][0]["id"], tab.id.string());
  const auto decoded = decodeLibrary(text);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->tabs[0].savedAt, at("2026-10-09T07:00:00Z"));
  EXPECT_EQ(decoded->tabs[0].title, "Ka\uFFFD(se \uFFFD");
}

TEST(LibraryCodecFormat, StreamedPiecesMakeTheSameText) {
  LibraryData data = fullLibrary();
  for (int i = 0; i < 2000; ++i) {
    SavedTab tab = data.tabs[0];
    tab.id = Uuid::random();
    tab.text = std::string(900, 'x');
    data.tabs.push_back(tab);
  }
  std::string streamed;
  int pieces = 0;
  codec::encodeLibrary(data, [&](std::string_view piece) {
    streamed += piece;
    ++pieces;
  });
  EXPECT_EQ(streamed, encodeLibrary(data));
  EXPECT_GT(pieces, 1);
}

TEST(LibraryCodecFormat, NonFiniteVectorValuesCannotBeEncoded) {
  LibraryData data;
  data.embeddings["x"] = {1.0f, std::nanf("")};
  EXPECT_THROW(encodeLibrary(data), codec::EncodeError);
}

TEST(LibraryCodecFormat, NegativeZeroKeepsItsSignThroughARoundTrip) {
  LibraryData data;
  data.embeddings["x"] = {-0.0f, 0.0f, 1e-45f, -3.4028235e38f};
  const std::string text = encodeLibrary(data);
  const auto decoded = decodeLibrary(text);
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->embeddings.at("x").size(), 4U);
  EXPECT_TRUE(std::signbit(decoded->embeddings.at("x")[0]));
  EXPECT_FALSE(std::signbit(decoded->embeddings.at("x")[1]));
  EXPECT_EQ(encodeLibrary(*decoded), text);
}

TEST(LibraryCodecDates, EveryYearFromOneTo9999RoundTripsAndNothingBeyond) {
  const std::string head = R"({"tabs":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","url":"u",)";
  const std::string far =
      head + R"("readAt":"9999-12-31T23:59:59Z","reminderAt":"2300-01-01T00:00:00Z",)"
             R"("savedAt":"0001-01-01T00:00:00Z"}],"windows":[{"id":)"
             R"("E621E1F8-C36C-495A-93FC-0C247A3E6E60","savedAt":"1600-02-29T12:00:00Z",)"
             R"("tabIds":[],"title":"t"}]})";
  const auto decoded = decodeLibrary(far);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(Fmt::iso(decoded->tabs[0].savedAt), "0001-01-01T00:00:00Z");
  EXPECT_EQ(Fmt::iso(*decoded->tabs[0].readAt), "9999-12-31T23:59:59Z");
  EXPECT_EQ(Fmt::iso(decoded->windows[0].savedAt), "1600-02-29T12:00:00Z");
  const std::string again = encodeLibrary(*decoded);
  EXPECT_NE(again.find(R"("reminderAt":"2300-01-01T00:00:00Z")"), std::string::npos);
  EXPECT_EQ(decodeLibrary(again), decoded);

  EXPECT_FALSE(decodeLibrary(head + R"("savedAt":"0000-12-31T23:59:59Z"}]})"));
  EXPECT_FALSE(decodeLibrary(head + R"("readAt":"9999-12-31T23:59:59-00:01"}]})"));
  // A date in memory beyond the span is refused on writing rather than making the file unreadable.
  LibraryData beyond = *decoded;
  beyond.tabs[0].readAt = kLastDate + std::chrono::seconds(1);
  EXPECT_THROW(encodeLibrary(beyond), EncodeError);
  beyond.tabs[0].readAt = kFirstDate - std::chrono::microseconds(1);
  EXPECT_THROW(encodeLibrary(beyond), EncodeError);
}

TEST(LibraryCodecTolerance, TabWithOnlyIdAndUrlGetsDefaults) {
  const Date loadTime = at("2026-11-22T10:00:00Z");
  const auto decoded = decodeLibrary(
      std::string(
          R"({"tabs":[{"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","url":"https://WWW.SRF.CH/x"}]})"),
      loadTime);
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->tabs.size(), 1u);
  const SavedTab& tab = decoded->tabs[0];
  EXPECT_EQ(tab.id.string(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(tab.domain, "srf.ch");
  EXPECT_EQ(tab.title, "");
  EXPECT_EQ(tab.windowIndex, 0);
  EXPECT_EQ(tab.tabIndex, 0);
  EXPECT_EQ(tab.savedAt, loadTime);
  EXPECT_NE(tab.windowId, Uuid());
  EXPECT_FALSE(tab.isDemo);
}

TEST(LibraryCodecTolerance, EmptyObjectIsANewLibraryAndNullsCountAsMissing) {
  EXPECT_EQ(decodeLibrary(std::string("{}")), LibraryData());
  const auto decoded = decodeLibrary(std::string(
      R"({"version":null,"tabs":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","url":"u","title":null}],"unknown":[1,{"x":2}]})"));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->version, 1);
  EXPECT_EQ(decoded->tabs[0].title, "");
}

TEST(LibraryCodecStrictness, MissingKeysInStrictRecordsFailTheDocument) {
  const std::string id = "\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"";
  const std::string date = "\"2026-10-09T07:00:00Z\"";
  const std::string cases[] = {
      R"({"windows":[{"id":)" + id + R"(,"savedAt":)" + date + R"(,"title":"t"}]})",
      R"({"topics":[{"id":)" + id + R"(,"name":"n","color":"gelb","tabIds":[]}]})",
      R"({"hints":[{"id":)" + id + R"(,"tabId":)" + id + R"(,"reason":"r","createdAt":)" + date +
          "}]}",
      R"({"context":{"folderPaths":[],"freeText":"","hintsPerDay":2}})",
      R"({"tabs":[{"url":"https://example.ch"}]})",
      R"({"tabs":[{"id":)" + id + "}]}",
      R"({"windows":[{"id":)" + id + R"(,"savedAt":null,"title":"t","tabIds":[]}]})",
  };
  for (const std::string& text : cases)
    EXPECT_FALSE(decodeLibrary(text)) << text;
  // The same records complete decode.
  EXPECT_TRUE(decodeLibrary(R"({"windows":[{"id":)" + id + R"(,"savedAt":)" + date +
                            R"(,"title":"t","tabIds":[)" + id + "]}]}"));
}

TEST(LibraryCodecStrictness, BadDatesAndTypesFail) {
  const std::string head = R"({"tabs":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","url":"u",)";
  for (const std::string& field :
       {std::string(R"("savedAt":"2026-10-09T07:00:00.5Z")"),
        std::string(R"("savedAt":"2026-10-09T07:00:00")"), std::string(R"("savedAt":12345)"),
        std::string(R"("tabIndex":"3")"), std::string(R"("tabIndex":1.5)"),
        std::string(R"("tabIndex":9223372036854775808)"), std::string(R"("isDemo":1)"),
        std::string(R"("tags":"a")"), std::string(R"("topicId":"nicht-uuid")")}) {
    EXPECT_FALSE(decodeLibrary(head + field + "}]}")) << field;
  }
  EXPECT_FALSE(decodeLibrary(std::string(R"({"embeddings":{"x":[1e39]}})")));
  EXPECT_FALSE(decodeLibrary(std::string(R"({"embeddings":{"x":["1"]}})")));
  EXPECT_FALSE(decodeLibrary(std::string(R"({"version":"1"})")));
}

TEST(LibraryCodecStrictness, MalformedDocumentsFail) {
  std::string deep(5000, '[');
  deep += std::string(5000, ']');
  const std::string cases[] = {"",
                               "{",
                               "[]",
                               "42",
                               "null",
                               "\"text\"",
                               "{}x",
                               deep,
                               "{\"tabs\":" + deep + "}",
                               std::string("{\"embedderKind\":\"\xC3\x28\"}")};
  for (const std::string& text : cases)
    EXPECT_FALSE(decodeLibrary(text)) << text.substr(0, 40);
}

TEST(LibraryCodecPadding, PaddedAndUnpaddedInputsDecodeAlike) {
  std::string text = encodeLibrary(fullLibrary());
  const auto viaView = decodeLibrary(std::string_view(text));
  text.reserve(text.size() + codec::kPadding);
  const auto viaString = decodeLibrary(text);
  ASSERT_TRUE(viaView);
  ASSERT_TRUE(viaString);
  EXPECT_EQ(*viaView, *viaString);
}

}  // namespace
}  // namespace kestrova
