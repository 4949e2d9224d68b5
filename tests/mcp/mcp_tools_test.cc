// The library tools of the MCP server, called directly and through tools/call.
#include <filesystem>
#include <set>

#include <gtest/gtest.h>

#include <kestrova/fmt.h>
#include <kestrova/mcp_server.h>
#include <kestrova/unicode.h>

#include "mcp_fixture.h"
#include "mcp_results.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::failureText;
using testing::innerValue;
using testing::Json;
using testing::kFullTabId;
using testing::kPlainTabId;
using testing::readFile;
using testing::TestFolder;

class McpToolsTest : public ::testing::Test {
 protected:
  TestFolder folder;
  fs::path file = folder / "library.json";
  LibraryStore store{file};
  MCPServer server{store};

  void SetUp() override { store.save(testing::sampleLibrary()); }
  Json call(const std::string& name, const Json& arguments = Json::object()) {
    return server.callTool(name, arguments);
  }
};

TEST_F(McpToolsTest, ListTopicsAndWindows) {
  EXPECT_EQ(
      innerValue(call("list_topics")),
      Json::parse(R"([{"id":"22222222-2222-4222-8222-222222222222","name":"Wissen","tabs":1}])"));
  const Json windows = Json::parse(R"([{
    "id":"11111111-1111-4111-8111-111111111111","title":"Fenster 1 · 01.09. 10:00","tabs":2,
    "savedAt":"2026-09-21T14:13:20Z"}])");
  EXPECT_EQ(innerValue(call("list_windows")), windows);
}

TEST_F(McpToolsTest, BriefOfAPlainTabHoldsOnlyTheAlwaysKeys) {
  Json tab = innerValue(call("get_tab", {{"id", kPlainTabId.string()}}));
  tab.erase("text");
  const Json expected = Json::parse(R"({"id":"AAAAAAAA-0000-4000-8000-000000000001",
    "title":"Schlicht","url":"https://example.org/a/b","domain":"example.org",
    "savedAt":"2026-09-21T14:13:20Z","summary":"Eine Seite.","tags":["eins"],"read":false})");
  EXPECT_EQ(tab, expected);
}

TEST_F(McpToolsTest, BriefOfAFullTabHoldsEveryKey) {
  Json tab = innerValue(call("get_tab", {{"id", kFullTabId.string()}}));
  EXPECT_EQ(tab["topic"], "Wissen");
  EXPECT_EQ(tab["window"], "Fenster 1 · 01.09. 10:00");
  EXPECT_EQ(tab["note"], "Später lesen");
  EXPECT_EQ(tab["reminderAt"], "2026-09-22T14:13:20Z");
  EXPECT_EQ(tab["projects"], Json::parse(R"(["Garten"])"));
  EXPECT_EQ(tab["read"], true);
  EXPECT_EQ(tab["text"], "Kurzer Text.");
  EXPECT_EQ(tab.size(), 14u);
}

TEST_F(McpToolsTest, GetTabCutsTheTextAtFourThousandCharacters) {
  LibraryData data = store.load();
  std::string text;
  for (int i = 0; i < 10000; ++i) {
    text += i % 2 == 0 ? "e\xCC\x81" : "a";  // "é" as two code points: one character
  }
  data.tabs[0].text = text;
  store.save(data);
  std::string got = innerValue(call("get_tab", {{"id", kPlainTabId.string()}}))["text"];
  EXPECT_EQ(unicode::graphemeCount(got), 4000u);
  EXPECT_EQ(got, text.substr(0, 2000 * 3 + 2000));
}

TEST_F(McpToolsTest, GetTabFindsIdsInEitherCaseOnly) {
  std::string lower = kFullTabId.string();
  for (char& c : lower) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  EXPECT_EQ(innerValue(call("get_tab", {{"id", lower}}))["title"], "Voll");
  for (const Json& args : {Json::object(), Json{{"id", 5}}, Json{{"id", "kein-uuid"}},
                           Json{{"id", "{" + kFullTabId.string() + "}"}},
                           Json{{"id", "BBBBBBBB-0000-4000-8000-000000000001"}}}) {
    EXPECT_EQ(failureText(call("get_tab", args)), "Tab nicht gefunden") << args.dump();
  }
}

TEST_F(McpToolsTest, AddNoteSavesAndEmptyClears) {
  Json tab = innerValue(call("add_note", {{"id", kPlainTabId.string()}, {"note", "Merken/1"}}));
  EXPECT_EQ(tab["note"], "Merken/1");
  EXPECT_EQ(store.load().tabs[0].note, "Merken/1");
  tab = innerValue(call("add_note", {{"id", kFullTabId.string()}, {"note", ""}}));
  EXPECT_FALSE(tab.contains("note"));
  EXPECT_EQ(store.load().tabs[1].note, "");
}

TEST_F(McpToolsTest, AddNoteWithoutUsableArgumentsChangesNothing) {
  const std::string before = readFile(file);
  for (const Json& args : {Json::object(), Json{{"id", kPlainTabId.string()}}, Json{{"note", "x"}},
                           Json{{"id", kPlainTabId.string()}, {"note", 3}},
                           Json{{"id", kPlainTabId.string()}, {"note", nullptr}},
                           Json{{"id", "BBBBBBBB-0000-4000-8000-000000000001"}, {"note", "x"}}}) {
    EXPECT_EQ(failureText(call("add_note", args)), "id oder note fehlt") << args.dump();
  }
  EXPECT_EQ(readFile(file), before);
}

TEST_F(McpToolsTest, SetReminderAcceptsTheUsualForms) {
  Json tab = innerValue(call(
      "set_reminder", {{"id", kPlainTabId.string()}, {"iso_date", "2026-10-09T09:00:00+02:00"}}));
  EXPECT_EQ(tab["reminderAt"], "2026-10-09T07:00:00Z");
  EXPECT_EQ(Fmt::iso(*store.load().tabs[0].reminderAt), "2026-10-09T07:00:00Z");
  tab =
      innerValue(call("set_reminder", {{"id", kPlainTabId.string()}, {"iso_date", "2026-10-09"}}));
  EXPECT_EQ(tab["reminderAt"], "2026-10-09T00:00:00Z");
  tab = innerValue(
      call("set_reminder", {{"id", kPlainTabId.string()}, {"iso_date", "2026-10-09 09:00"}}));
  EXPECT_EQ(tab["reminderAt"], Fmt::iso(*Fmt::parseISO("2026-10-09 09:00")));
  for (const char* far : {"2300-01-01T00:00:00Z", "0001-01-01T00:00:00Z", "9999-12-31"}) {
    tab = innerValue(call("set_reminder", {{"id", kPlainTabId.string()}, {"iso_date", far}}));
    EXPECT_EQ(tab["reminderAt"], Fmt::iso(*Fmt::parseISO(far))) << far;
    EXPECT_EQ(store.load().tabs[0].reminderAt, Fmt::parseISO(far)) << far;
  }
}

TEST_F(McpToolsTest, SetReminderRejectsBadInput) {
  const std::string before = readFile(file);
  for (const Json& args : {Json{{"id", kPlainTabId.string()}, {"iso_date", "morgen"}},
                           Json{{"id", kPlainTabId.string()}, {"iso_date", "09.10.2026"}},
                           Json{{"id", kPlainTabId.string()}, {"iso_date", " 2026-10-09"}},
                           Json{{"id", kPlainTabId.string()}, {"iso_date", "0000-12-31"}},
                           Json{{"id", kPlainTabId.string()}, {"iso_date", "10000-01-01"}},
                           Json{{"id", kPlainTabId.string()}, {"iso_date", 20261009}},
                           Json{{"id", kPlainTabId.string()}}, Json{{"iso_date", "2026-10-09"}},
                           Json{{"id", "x"}, {"iso_date", "2026-10-09"}}}) {
    EXPECT_EQ(failureText(call("set_reminder", args)), "id oder iso_date fehlt oder ungültig")
        << args.dump();
  }
  EXPECT_EQ(readFile(file), before);
}

// The real system with a full disk: opening a new version of a file fails.
class FullDisk final : public EnvWrapper, private FileSystem {
 public:
  FullDisk() : EnvWrapper(Env::real()) {}
  FileSystem& fileSystem() override { return *this; }

 private:
  FileSystem& disk() { return target().fileSystem(); }
  std::optional<std::string> readFile(const fs::path& p) override { return disk().readFile(p); }
  std::unique_ptr<AtomicFile> openAtomically(const fs::path& p) override {
    throw StoreError("Die Datei «" + p.filename().string() +
                     "» konnte nicht gesichert werden (kein freier Speicherplatz).");
  }
  void createDirectories(const fs::path& p) override { disk().createDirectories(p); }
  std::optional<Date> modificationDate(const fs::path& p) override {
    return disk().modificationDate(p);
  }
  bool copyFile(const fs::path& a, const fs::path& b) override { return disk().copyFile(a, b); }
};

TEST_F(McpToolsTest, AFailedSaveIsReported) {
  FullDisk disk;
  MCPServer full{LibraryStore(file, disk)};
  const std::string expected =
      "Speichern fehlgeschlagen: Die Datei «library.json» konnte nicht gesichert werden (kein "
      "freier Speicherplatz).";
  EXPECT_EQ(failureText(full.callTool("add_note", {{"id", kPlainTabId.string()}, {"note", "x"}})),
            expected);
  EXPECT_EQ(failureText(full.callTool("set_reminder",
                                      {{"id", kPlainTabId.string()}, {"iso_date", "2026-10-09"}})),
            expected);
}

TEST_F(McpToolsTest, AFolderWhereTheFileShouldBeReportsTheSaveFailure) {
  fs::path blocked = folder / "blocked";
  fs::create_directories(blocked / "library.json");
  MCPServer server2{LibraryStore(blocked / "library.json")};
  EXPECT_EQ(innerValue(server2.callTool("recent_tabs", Json{{"days", 100000}})), Json::array());
  EXPECT_EQ(failureText(server2.callTool("add_note", {{"id", "x"}, {"note", "x"}})),
            "id oder note fehlt");
}

class McpRecentTabsTest : public ::testing::Test {
 protected:
  TestFolder folder;
  LibraryStore store{folder / "library.json"};
  MCPServer server{store};

  // Tabs saved `ages` seconds ago, in this order.
  void saveTabsAged(const std::vector<std::int64_t>& ages) {
    LibraryData data;
    const Date base = std::chrono::floor<std::chrono::seconds>(now());
    for (std::size_t i = 0; i < ages.size(); ++i) {
      SavedTab tab;
      tab.id = Uuid::random();
      tab.url = "https://example.org/" + std::to_string(i);
      tab.title = std::to_string(i);
      tab.savedAt = base - std::chrono::seconds(ages[i]);
      data.tabs.push_back(tab);
    }
    store.save(data);
  }
  std::vector<std::string> titles(const Json& arguments) {
    std::vector<std::string> out;
    for (const Json& tab : innerValue(server.callTool("recent_tabs", arguments))) {
      out.push_back(tab["title"]);
    }
    return out;
  }
};

TEST_F(McpRecentTabsTest, NewestFirstWithinTheDays) {
  const std::int64_t day = 86400;
  saveTabsAged({3 * day, 10 * day, -3600, 100, 6 * day});
  EXPECT_EQ(titles(Json::object()), (std::vector<std::string>{"2", "3", "0", "4"}));
  EXPECT_EQ(titles({{"days", 1}}), (std::vector<std::string>{"2", "3"}));
  EXPECT_EQ(titles({{"days", 11}}), (std::vector<std::string>{"2", "3", "0", "4", "1"}));
  // Only the current second or later.
  EXPECT_EQ(titles({{"days", 0}}), (std::vector<std::string>{"2"}));
  // A negative count moves the cut-off into the future.
  EXPECT_EQ(titles({{"days", -1}}), std::vector<std::string>{});
}

TEST_F(McpRecentTabsTest, DaysOfTheWrongKindFallBackToSeven) {
  const std::int64_t day = 86400;
  saveTabsAged({2 * day, 5 * day, 8 * day});
  const std::vector<std::string> week{"0", "1"};
  EXPECT_EQ(titles({{"days", "1"}}), week);
  EXPECT_EQ(titles({{"days", 2.5}}), week);
  EXPECT_EQ(titles({{"days", true}}), week);
  EXPECT_EQ(titles({{"days", nullptr}}), week);
  EXPECT_EQ(titles({{"days", 1e300}}), week);
  // An integral value written as a float is that integer.
  EXPECT_EQ(titles({{"days", 3.0}}), std::vector<std::string>{"0"});
}

TEST_F(McpRecentTabsTest, ExtremeDaysDoNotOverflow) {
  saveTabsAged({0, 250LL * 365 * 86400});  // about as old as a date can be
  EXPECT_EQ(titles({{"days", std::numeric_limits<std::int64_t>::max()}}).size(), 2u);
  EXPECT_EQ(titles({{"days", 1'000'000}}).size(), 2u);
  EXPECT_EQ(titles({{"days", std::numeric_limits<std::int64_t>::min()}}).size(), 0u);
  EXPECT_EQ(titles({{"days", -1'000'000}}).size(), 0u);
}

TEST_F(McpRecentTabsTest, AtMostAHundredNewestTabs) {
  std::vector<std::int64_t> ages;
  for (int i = 0; i < 200; ++i) {
    ages.push_back((i * 7919) % 200 * 60);  // every age once, in a scrambled order
  }
  saveTabsAged(ages);
  std::vector<std::string> got = titles(Json::object());
  ASSERT_EQ(got.size(), 100u);
  std::int64_t previousAge = -1;
  for (const std::string& title : got) {
    const std::int64_t age = ages[std::stoul(title)];
    EXPECT_GT(age, previousAge);
    previousAge = age;
  }
  EXPECT_EQ(previousAge, 99 * 60);
}

TEST(McpToolsLibraryFile, MissingFileActsAsEmptyAndCreatesNothing) {
  TestFolder folder;
  MCPServer server{LibraryStore(folder / "sub" / "library.json")};
  EXPECT_EQ(innerValue(server.callTool("list_topics", Json::object())), Json::array());
  EXPECT_EQ(innerValue(server.callTool("list_windows", Json::object())), Json::array());
  EXPECT_EQ(failureText(server.callTool("get_tab", {{"id", kPlainTabId.string()}})),
            "Tab nicht gefunden");
  EXPECT_FALSE(fs::exists(folder / "sub"));
}

TEST(McpToolsLibraryFile, CorruptFileIsKeptAndNotOverwritten) {
  TestFolder folder;
  testing::writeFile(folder / "library.json", "{");
  MCPServer server{LibraryStore(folder / "library.json")};
  EXPECT_EQ(innerValue(server.callTool("recent_tabs", Json::object())), Json::array());
  EXPECT_EQ(failureText(server.callTool("add_note", {{"id", kPlainTabId.string()}, {"note", "x"}})),
            "id oder note fehlt");
  EXPECT_EQ(readFile(folder / "library.json"), "{");
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder.path())) {
    names.insert(entry.path().filename().string());
  }
  ASSERT_GE(names.size(), 2u);
  for (const std::string& name : names) {
    EXPECT_TRUE(name == "library.json" || name.rfind("library.defekt-", 0) == 0) << name;
  }
}

TEST_F(McpToolsTest, UnknownToolsFail) {
  EXPECT_EQ(failureText(call("delete_everything")), "Unbekanntes Werkzeug: delete_everything");
}

TEST(McpResultEnvelopes, TextIsPrettySortedAndEscapesSlashes) {
  Json result = mcp::textResult(Json{{"url", "https://a.ch/x"}, {"b", {{"z", 1}, {"a", 2}}}});
  EXPECT_EQ(result["isError"], false);
  ASSERT_EQ(result["content"].size(), 1u);
  EXPECT_EQ(result["content"][0]["type"], "text");
  EXPECT_EQ(
      result["content"][0]["text"],
      "{\n  \"b\": {\n    \"a\": 2,\n    \"z\": 1\n  },\n  \"url\": \"https:\\/\\/a.ch\\/x\"\n}");
  EXPECT_EQ(
      mcp::failResult("Tab nicht gefunden"),
      Json::parse(R"({"content":[{"type":"text","text":"Tab nicht gefunden"}],"isError":true})"));
}

TEST(McpResultEnvelopes, TooDeepAValueGivesAnEmptyText) {
  Json deep = Json::array();
  for (int i = 0; i < 1000; ++i) {
    deep = Json::array({std::move(deep)});
  }
  EXPECT_EQ(mcp::textResult(deep)["content"][0]["text"], "");
  EXPECT_TRUE(mcp::nestsDeeperThan(deep, 512));
  EXPECT_FALSE(mcp::nestsDeeperThan(Json::parse("[[1],{\"a\":[2]}]"), 3));
  EXPECT_TRUE(mcp::nestsDeeperThan(Json::parse("[[1],{\"a\":[2]}]"), 2));
}

TEST(McpArguments, IntegersStringsAndWrongTypes) {
  Json args = Json::parse(R"({"a":3,"b":3.0,"c":3.5,"d":"3","e":-4,"f":18446744073709551615,
    "g":-9223372036854775808,"h":9.3e18,"i":true,"s":"x"})");
  EXPECT_EQ(mcp::integerArgument(args, "a"), 3);
  EXPECT_EQ(mcp::integerArgument(args, "b"), 3);
  EXPECT_EQ(mcp::integerArgument(args, "c"), std::nullopt);
  EXPECT_EQ(mcp::integerArgument(args, "d"), std::nullopt);
  EXPECT_EQ(mcp::integerArgument(args, "e"), -4);
  EXPECT_EQ(mcp::integerArgument(args, "f"), std::nullopt);
  EXPECT_EQ(mcp::integerArgument(args, "g"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(mcp::integerArgument(args, "h"), std::nullopt);
  EXPECT_EQ(mcp::integerArgument(args, "i"), std::nullopt);
  EXPECT_EQ(mcp::integerArgument(args, "missing"), std::nullopt);
  EXPECT_EQ(mcp::stringArgument(args, "s"), "x");
  EXPECT_EQ(mcp::stringArgument(args, "a"), std::nullopt);
  EXPECT_EQ(mcp::stringArgument(Json::array(), "s"), std::nullopt);
}

}  // namespace
}  // namespace kestrova
