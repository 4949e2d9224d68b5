#include "library_codec.h"

#include <cmath>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <kestrova/fmt.h>

namespace kestrova {
namespace {

using codec::decodeLibrary;
using codec::EncodeError;
using codec::encodeLibrary;

Date at(const char* iso) {
  return *Fmt::parseInternetDateTime(iso);
}

Uuid fixedId(char last) {
  return *Uuid::parse(std::string("E621E1F8-C36C-495A-93FC-0C247A3E6E5") + last);
}

LibraryData fullLibrary() {
  LibraryData data;
  data.version = 3;
  SavedWindow window{Uuid::random(), at("2026-10-09T07:00:00Z"), "Fenster 1 · 09.10. 09:00", {}};
  Topic topic{Uuid::random(), "Käse & Berge", "gelb", {}, false};
  SavedTab tab = makeSavedTab({.id = Uuid::random(),
                               .url = "https://www.srf.ch/news/a?b=1",
                               .title = "Titel",
                               .savedAt = at("2026-10-09T07:00:01Z"),
                               .windowId = window.id,
                               .windowIndex = 1,
                               .tabIndex = 2,
                               .text = "Zeile 1\nmit Emoji 👩‍👩‍👧",
                               .summary = "Kurz.",
                               .note = "Notiz",
                               .projectTags = {"Projekt A"},
                               .tags = {"käse", "berge"},
                               .readAt = at("2026-10-10T08:00:00Z"),
                               .isDemo = true});
  tab.topicId = topic.id;
  tab.reminderAt = at("2026-11-01T09:30:00Z");
  SavedTab bare = makeSavedTab({.id = Uuid::random(), .url = "file:///tmp/x"});
  window.tabIds = {tab.id, bare.id};
  topic.tabIds = {tab.id};
  data.tabs = {tab, bare};
  data.windows = {window};
  data.topics = {topic, Topic{Uuid::random(), "Ohne klares Thema", "grau", {bare.id}, true}};
  data.context = UserContext{{"~/Projekte/a", "/srv/b"}, "Ich lerne Rust", 3, 8};
  data.hints = {
      Hint{Uuid::random(), tab.id, "Passt zu Projekt A", at("2026-10-09T09:00:00Z"), true}};
  data.embeddings = {{tab.id.string(), {0.5f, -0.25f, 1e-7f, 3.4028235e38f}}, {"leer", {}}};
  data.embedderKind = "none-0+bow256";
  data.topicsByAI = true;
  data.lastHintDay = "2026-10-09";
  return data;
}

// Every field survives, whether the text is viewed, copied or handed over (and then freed), and
// writing what was read gives the same bytes.
TEST(LibraryCodecRoundTrip, EveryFieldSurvivesFromAViewACopyOrHandedOverText) {
  const LibraryData data = fullLibrary();
  std::string text = encodeLibrary(data);
  const auto fromView = decodeLibrary(std::string_view(text));
  const auto fromCopy = decodeLibrary(static_cast<const std::string&>(text));
  ASSERT_TRUE(fromView && fromCopy);
  EXPECT_EQ(*fromView, data);
  EXPECT_EQ(*fromCopy, data);
  EXPECT_EQ(encodeLibrary(*fromCopy), text);
  const auto handedOver = decodeLibrary(std::move(text));
  EXPECT_EQ(handedOver, data);
  EXPECT_EQ(text.capacity(), std::string().capacity());  // NOLINT(bugprone-use-after-move)
}

// The whole text of a small document: one line, keys sorted at every level, "/" and controls
// escaped, absent optionals left out, the fraction of a second dropped, invalid UTF-8 written as
// U+FFFD, and -0 keeping its sign.
TEST(LibraryCodecFormat, WritesTheExactText) {
  LibraryData data;
  SavedTab tab =
      makeSavedTab({.id = fixedId('1'),
                    .url = "https://a.ch/b?c=\"2\"",
                    .title = std::string("Ka\xC3\x28se \xFF", 8),
                    .savedAt = at("2026-10-09T07:00:00Z") + std::chrono::milliseconds(750),
                    .windowId = fixedId('2'),
                    .text = "a\\b\b\f\n\r\t\x01\x1f ü"});
  data.tabs = {tab};
  data.windows = {SavedWindow{fixedId('2'), at("0001-01-01T00:00:00Z"), "F", {fixedId('1')}}};
  data.embeddings["x"] = {-0.0f, 0.0f, 1e-45f, -1.5f};
  const std::string text = encodeLibrary(data);
  EXPECT_EQ(
      text,
      R"({"context":{"folderPaths":[],"freeText":"","hintHour":9,"hintsPerDay":2},)"
      R"("embedderKind":"","embeddings":{"x":[-0.0,0,1e-45,-1.5]},"hints":[],)"
      R"("tabs":[{"domain":"","id":"E621E1F8-C36C-495A-93FC-0C247A3E6E51","isDemo":false,)"
      R"("note":"","projectTags":[],"savedAt":"2026-10-09T07:00:00Z","summary":"",)"
      R"("tabIndex":0,"tags":[],"text":"a\\b\b\f\n\r\t\u0001\u001f ü","title":"Ka�(se �",)"
      R"("url":"https:\/\/a.ch\/b?c=\"2\"","windowId":"E621E1F8-C36C-495A-93FC-0C247A3E6E52",)"
      R"("windowIndex":0}],"topics":[],"topicsByAI":false,"version":1,)"
      R"("windows":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E52",)"
      R"("savedAt":"0001-01-01T00:00:00Z","tabIds":["E621E1F8-C36C-495A-93FC-0C247A3E6E51"],)"
      R"("title":"F"}]})");
  const auto decoded = decodeLibrary(text);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->tabs[0].savedAt, at("2026-10-09T07:00:00Z"));
  EXPECT_EQ(decoded->tabs[0].title, "Ka\uFFFD(se \uFFFD");
  EXPECT_TRUE(std::signbit(decoded->embeddings.at("x")[0]));
  EXPECT_FALSE(std::signbit(decoded->embeddings.at("x")[1]));
  EXPECT_EQ(encodeLibrary(*decoded), text);
}

// A value the document cannot hold is refused on writing rather than making the file unreadable.
TEST(LibraryCodecFormat, RefusesNonFiniteNumbersAndDatesBeyondTheYears1To9999) {
  const auto refused = [](const std::function<void(LibraryData&)>& change) {
    LibraryData data;
    data.tabs = {makeSavedTab({.id = fixedId('1'), .url = "u", .savedAt = kLastDate})};
    change(data);
    try {
      encodeLibrary(data);
      return false;
    } catch (const EncodeError&) {
      return true;
    }
  };
  EXPECT_FALSE(refused([](LibraryData& d) { d.tabs[0].readAt = kFirstDate; }));
  EXPECT_TRUE(
      refused([](LibraryData& d) { d.tabs[0].readAt = kLastDate + std::chrono::seconds(1); }));
  EXPECT_TRUE(refused(
      [](LibraryData& d) { d.tabs[0].readAt = kFirstDate - std::chrono::microseconds(1); }));
  EXPECT_TRUE(refused([](LibraryData& d) { d.embeddings["x"] = {1.0f, std::nanf("")}; }));
  EXPECT_TRUE(refused(
      [](LibraryData& d) { d.embeddings["x"] = {-std::numeric_limits<float>::infinity()}; }));
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
  EXPECT_EQ(decoded->tabs[0].savedAt, kFirstDate);
  EXPECT_EQ(decoded->tabs[0].readAt, kLastDate);
  EXPECT_EQ(Fmt::iso(decoded->windows[0].savedAt), "1600-02-29T12:00:00Z");
  EXPECT_EQ(decoded->tabs[0].reminderAt, at("2300-01-01T00:00:00Z"));
  EXPECT_EQ(decodeLibrary(encodeLibrary(*decoded)), decoded);
  EXPECT_FALSE(decodeLibrary(head + R"("savedAt":"0000-12-31T23:59:59Z"}]})"));
  EXPECT_FALSE(decodeLibrary(head + R"("readAt":"9999-12-31T23:59:59-00:01"}]})"));
}

// A tab needs only its id and url; null counts as missing there and in the document, and unknown
// keys are ignored.
TEST(LibraryCodecTolerance, TabsAndTheDocumentFillInDefaults) {
  EXPECT_EQ(decodeLibrary(std::string("{}")), LibraryData());
  const Date loadTime = at("2026-11-22T10:00:00Z");
  const auto decoded = decodeLibrary(
      std::string(R"({"version":null,"unknown":[1,{"x":2}],"tabs":[{"id":)"
                  R"("e621e1f8-c36c-495a-93fc-0c247a3e6e5f","url":"https://WWW.SRF.CH/x",)"
                  R"("title":null,"savedAt":null}]})"),
      loadTime);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->version, 1);
  ASSERT_EQ(decoded->tabs.size(), 1u);
  const SavedTab& tab = decoded->tabs[0];
  EXPECT_EQ(tab.id, fixedId('F'));
  EXPECT_EQ(tab.domain, "srf.ch");
  EXPECT_EQ(tab.title, "");
  EXPECT_EQ(tab.windowIndex + tab.tabIndex, 0);
  EXPECT_EQ(tab.savedAt, loadTime);
  EXPECT_NE(tab.windowId, Uuid());
  EXPECT_FALSE(tab.isDemo);
}

// Every other record is strict: each key is required and null is an error. The reason names the
// first missing key in the order the record declares its members. "*" stands for the parser's own
// reason for text that is no JSON at all; "" for a document that decodes.
TEST(LibraryCodecStrictness, WhatFailsADocumentAndWhy) {
  const std::string id = "\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"";
  const std::string date = "\"2026-10-09T07:00:00Z\"";
  const std::string tab = R"({"tabs":[{"id":)" + id + R"(,"url":"u",)";
  std::string deep(5000, '[');
  deep += std::string(5000, ']');
  const std::pair<std::string, std::string> cases[] = {
      {R"({"windows":[{"id":)" + id + R"(,"savedAt":)" + date + "}]}", "window: missing key title"},
      {R"({"windows":[{"id":)" + id + R"(,"savedAt":null,"title":"t","tabIds":[]}]})",
       "window.savedAt: expected a string"},
      {R"({"topics":[{"id":)" + id + R"(,"name":"n","color":"gelb","tabIds":[]}]})",
       "topic: missing key isUnsorted"},
      {R"({"hints":[{"id":)" + id + R"(,"tabId":)" + id + R"(,"createdAt":)" + date + "}]}",
       "hint: missing key reason"},
      {R"({"context":{"folderPaths":[],"freeText":"","hintsPerDay":2}})",
       "context: missing key hintHour"},
      {R"({"tabs":[{"id":)" + id + "}]}", "tab: id and url are required"},
      {R"({"tabs":[1]})", "tab: expected an object"},
      {R"({"tabs":"x"})", "tabs: expected an array"},
      {tab + R"("savedAt":"2026-10-09T07:00:00.5Z"}]})",
       "tab.savedAt: not an ISO 8601 date-time with a zone and whole seconds"},
      {tab + R"("savedAt":12345}]})", "tab.savedAt: expected a string"},
      {tab + R"("tabIndex":1.5}]})", "tab.tabIndex: expected an integer in range"},
      {tab + R"("tabIndex":9223372036854775808}]})", "tab.tabIndex: expected an integer in range"},
      {tab + R"("isDemo":1}]})", "tab.isDemo: expected a boolean"},
      {tab + R"("tags":"a"}]})", "tab.tags: expected an array"},
      {tab + R"("tags":["a",1]}]})", "tab.tags: expected a string"},
      {tab + R"("topicId":"nicht-uuid"}]})", "tab.topicId: not a UUID"},
      {R"({"embeddings":{"x":[3.4028235677973362e38]}})", ""},
      {R"({"embeddings":{"x":[3.4028235677973366e38]}})",
       "embeddings: number does not fit in a 32-bit float"},
      {R"({"embeddings":{"x":["1"]}})", "embeddings: expected a number"},
      {R"({"embeddings":{"x":1}})", "embeddings: expected an array"},
      {R"({"version":"1"})", "version: expected an integer in range"},
      {R"({"version":123456789012345678901234567890})", "*"},
      {"[]", "document: expected an object"},
      {"", "*"},
      {"{}x", "*"},
      {deep, "*"},
      {std::string("{\"embedderKind\":\"\xC3\x28\"}"), "*"},
      {std::string("\0\0\0", 3), "*"},
  };
  for (const auto& [text, reason] : cases) {
    std::string error;
    const bool decoded = decodeLibrary(text, now(), &error).has_value();
    if (reason == "*")
      EXPECT_TRUE(!decoded && !error.empty()) << text.substr(0, 40);
    else
      EXPECT_EQ(decoded ? "" : error, reason) << text.substr(0, 40);
  }
}

}  // namespace
}  // namespace kestrova
