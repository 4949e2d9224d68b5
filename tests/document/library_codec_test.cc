#include "library_codec.h"

#include <cmath>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <kestrova/fmt.h>

namespace kestrova {
namespace {

using codec::decodeLibrary;
using codec::encodeLibrary;

Date at(const char* iso) {
  return *Fmt::parseInternetDateTime(iso);
}

Uuid fixedId(char last) {
  return *Uuid::parse(std::string("E621E1F8-C36C-495A-93FC-0C247A3E6E5") + last);
}

// Every field: keys sorted, "/" and controls escaped, absent optionals left out, whole seconds,
// invalid UTF-8 as U+FFFD, -0 kept, the years 1 and 9999. Read back from a view, a copy or
// handed-over text (then freed), it is the data and gives the same bytes.
TEST(LibraryCodecFormat, WritesTheExactTextAndReadsEveryFieldBack) {
  // Every member in declaration order, so that none is left out.
  const SavedTab tab(fixedId('1'), "https://a.ch/b?c=\"2\"", std::string("Ka\xC3\x28se \xFF", 8),
                     "a.ch", at("2026-10-09T07:00:00Z") + std::chrono::milliseconds(750),
                     fixedId('2'), 1, 2, "a\\b\b\f\n\r\t\x01\x1f ü", "S", fixedId('3'), "N",
                     kLastDate, {"P"}, {"a", "b"}, std::nullopt, true);
  LibraryData data(3, {tab}, {SavedWindow{fixedId('2'), kFirstDate, "F", {fixedId('1')}}},
                   {Topic{fixedId('3'), "K", "gelb", {fixedId('1')}, false},
                    Topic{fixedId('4'), "U", "grau", {}, true}},
                   UserContext{{"~/a", "/b"}, "f", 3, 8},
                   {Hint{fixedId('5'), fixedId('1'), "r", at("2026-10-09T09:00:00Z"), true}},
                   {{"x", {-0.0f, 0.0f, 1e-45f, -1.5f, 3.4028235e38f}}, {"y", {}}}, "e", true,
                   "2026-10-09");
  std::string text = encodeLibrary(data);
  EXPECT_EQ(
      text,
      R"({"context":{"folderPaths":["~\/a","\/b"],"freeText":"f","hintHour":8,"hintsPerDay":3},)"
      R"("embedderKind":"e","embeddings":{"x":[-0.0,0,1e-45,-1.5,3.4028235e+38],"y":[]},)"
      R"("hints":[{"createdAt":"2026-10-09T09:00:00Z","dismissed":true,)"
      R"("id":"E621E1F8-C36C-495A-93FC-0C247A3E6E55","reason":"r",)"
      R"("tabId":"E621E1F8-C36C-495A-93FC-0C247A3E6E51"}],"lastHintDay":"2026-10-09",)"
      R"("tabs":[{"domain":"a.ch","id":"E621E1F8-C36C-495A-93FC-0C247A3E6E51","isDemo":true,)"
      R"("note":"N","projectTags":["P"],"reminderAt":"9999-12-31T23:59:59Z",)"
      R"("savedAt":"2026-10-09T07:00:00Z","summary":"S","tabIndex":2,"tags":["a","b"],)"
      R"("text":"a\\b\b\f\n\r\t\u0001\u001f ü","title":"Ka�(se �",)"
      R"("topicId":"E621E1F8-C36C-495A-93FC-0C247A3E6E53",)"
      R"("url":"https:\/\/a.ch\/b?c=\"2\"","windowId":"E621E1F8-C36C-495A-93FC-0C247A3E6E52",)"
      R"("windowIndex":1}],"topics":[{"color":"gelb","id":"E621E1F8-C36C-495A-93FC-0C247A3E6E53",)"
      R"("isUnsorted":false,"name":"K","tabIds":["E621E1F8-C36C-495A-93FC-0C247A3E6E51"]},)"
      R"({"color":"grau","id":"E621E1F8-C36C-495A-93FC-0C247A3E6E54","isUnsorted":true,)"
      R"("name":"U","tabIds":[]}],"topicsByAI":true,"version":3,)"
      R"("windows":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E52",)"
      R"("savedAt":"0001-01-01T00:00:00Z","tabIds":["E621E1F8-C36C-495A-93FC-0C247A3E6E51"],)"
      R"("title":"F"}]})");
  data.tabs[0].title = "Ka\uFFFD(se \uFFFD";
  data.tabs[0].savedAt = at("2026-10-09T07:00:00Z");
  EXPECT_EQ(decodeLibrary(std::string_view(text)), data);
  const auto fromCopy = decodeLibrary(static_cast<const std::string&>(text));
  ASSERT_EQ(fromCopy, data);
  EXPECT_TRUE(std::signbit(fromCopy->embeddings.at("x")[0]));
  EXPECT_EQ(encodeLibrary(*fromCopy), text);
  EXPECT_EQ(decodeLibrary(std::move(text)), data);
  EXPECT_EQ(text.capacity(), std::string().capacity());  // NOLINT(bugprone-use-after-move)
}

// A value the document cannot hold is refused on writing rather than making the file unreadable.
TEST(LibraryCodecFormat, RefusesNonFiniteNumbersAndDatesBeyondTheYears1To9999) {
  const std::pair<Date, float> cases[] = {{kLastDate + std::chrono::seconds(1), 1.0f},
                                          {kFirstDate - std::chrono::microseconds(1), 1.0f},
                                          {kFirstDate, std::nanf("")},
                                          {kFirstDate, -std::numeric_limits<float>::infinity()}};
  for (const auto& [date, number] : cases) {
    LibraryData data;
    data.tabs = {makeSavedTab({.id = fixedId('1'), .url = "u", .readAt = date})};
    data.embeddings["x"] = {1.0f, number};
    EXPECT_THROW(encodeLibrary(data), codec::EncodeError) << Fmt::iso(date) << ' ' << number;
  }
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
  ASSERT_TRUE(decoded && decoded->tabs.size() == 1);
  const Uuid windowId = decoded->tabs[0].windowId;
  EXPECT_NE(windowId, Uuid());
  LibraryData expected;
  expected.tabs = {makeSavedTab({.id = fixedId('F'),
                                 .url = "https://WWW.SRF.CH/x",
                                 .savedAt = loadTime,
                                 .windowId = windowId})};
  EXPECT_EQ(decoded, expected);
}

// Every other record is strict: each key is required (the first missing one in declaration order
// is named) and null is an error. "*": the parser's own reason; "": the document decodes.
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
      {R"({"context":{"folderPaths":[],"freeText":"","hintsPerDay":2}})",
       "context: missing key hintHour"},
      {R"({"tabs":[{"id":)" + id + "}]}", "tab: id and url are required"},
      {R"({"tabs":[1]})", "tab: expected an object"},
      {R"({"tabs":"x"})", "tabs: expected an array"},
      {tab + R"("savedAt":"2026-10-09T07:00:00.5Z"}]})",
       "tab.savedAt: not an ISO 8601 date-time with a zone and whole seconds"},
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
      {R"({"version":"1"})", "version: expected an integer in range"},
      {"[]", "document: expected an object"},
      {"", "*"},
      {deep, "*"},
      {std::string("{\"embedderKind\":\"\xC3\x28\"}"), "*"},
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

// A text handed over has its vectors read apart first (less memory); every decision and error
// text must be that of reading it in one go, also where the shortcut has to give up.
TEST(LibraryCodecVectorsApart, DecideExactlyAsOneParse) {
  const std::string tabs =
      R"("tabs":[{"id":"00000000-0000-4000-8000-000000000001","url":"u","windowId":"00000000-0000-4000-8000-000000000002","tags":["]}"]}])";
  for (const std::string& doc : std::vector<std::string>{
           R"({"embeddings":{"a":[1,2],"b":[]},)" + tabs + "}", R"({"embeddings":{},)" + tabs + "}",
           R"({ "embeddings" : { "a" : [ 1 ] } , )" + tabs + " }", R"({"embeddings":null})",
           R"({"embeddings":{"a":[1]},"embeddings":{"b":[2]}})", R"({"embedding\u0073":{"a":[3]}})",
           R"({"embeddings":{"a":[1,"x"]}})", R"({"embeddings":{"a":[[1]]}})",
           R"({"embeddings":{"a":[1]})", R"({"embeddings":{"a":[1]}} x)",
           R"({"embeddings":{"a":[1]},"version":"2"})",
           R"({"context":{"projectFolders":["]}"]},"embeddings":{"a":[1e39]}})", "[]", ""}) {
    std::string oneParse, apart;
    const auto expected = codec::decodeLibrary(std::string_view(doc), kFirstDate, &oneParse);
    std::string owned = doc;
    owned.reserve(doc.size() + codec::kPadding);
    EXPECT_EQ(codec::decodeLibrary(std::move(owned), kFirstDate, &apart), expected) << doc;
    EXPECT_EQ(apart, oneParse) << doc;
  }
}

}  // namespace
}  // namespace kestrova
