// The library tools of the MCP server, called directly, and the building blocks of their results.
#include <map>

#include <gtest/gtest.h>

#include <kestrova/fmt.h>
#include <kestrova/unicode.h>

#include "mcp_fixture.h"
#include "mcp_results.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::failureText;
using testing::innerValue;
using testing::Json;

const std::string kPlain = testing::kPlainTabId.string();

class McpToolsTest : public ::testing::Test {
 protected:
  testing::TestFolder folder;
  fs::path file = folder / "library.json";
  LibraryStore store{file};
  MCPServer server{store};

  void SetUp() override { store.save(testing::sampleLibrary()); }
  Json call(const std::string& name, const Json& arguments = Json::object()) {
    return server.callTool(name, arguments);
  }
};

TEST_F(McpToolsTest, ListsAndTabsShowOnlyWhatIsThere) {
  EXPECT_EQ(
      innerValue(call("list_topics")),
      Json::parse(R"([{"id":"22222222-2222-4222-8222-222222222222","name":"Wissen","tabs":1}])"));
  EXPECT_EQ(innerValue(call("list_windows")),
            Json::parse(R"([{"tabs":2,"savedAt":"2026-09-21T14:13:20Z",
    "id":"11111111-1111-4111-8111-111111111111","title":"Fenster 1 · 01.09. 10:00"}])"));
  EXPECT_EQ(innerValue(call("get_tab", {{"id", kPlain}})), Json::parse(R"({"title":"Schlicht",
    "id":"AAAAAAAA-0000-4000-8000-000000000001","url":"https://example.org/a/b","read":false,
    "domain":"example.org","savedAt":"2026-09-21T14:13:20Z","summary":"Eine Seite.",
    "tags":["eins"],"text":"Kurzer Text."})"));
  // Either case of the id; the full tab shows every optional key.
  Json full = innerValue(call("get_tab", {{"id", "aaaaaaaa-0000-4000-8000-000000000002"}}));
  for (const char* key : {"id", "title", "url", "domain", "savedAt", "summary", "tags", "text"}) {
    full.erase(key);
  }
  EXPECT_EQ(full, Json::parse(R"({"topic":"Wissen","window":"Fenster 1 · 01.09. 10:00",
    "note":"Später lesen","reminderAt":"2026-09-22T14:13:20Z","projects":["Garten"],"read":true})"));
}

TEST_F(McpToolsTest, GetTabCutsTheTextAtFourThousandCharacters) {
  LibraryData data = store.load();
  std::string text;
  for (int i = 0; i < 4001; ++i) {
    text += i % 2 == 0 ? "e\xCC\x81" : "a";  // "é" as two code points: one character
  }
  data.tabs[0].text = text;
  data.tabs[1].text = text.substr(0, text.size() - 3);  // exactly 4000
  store.save(data);
  std::string got = innerValue(call("get_tab", {{"id", kPlain}}))["text"];
  EXPECT_EQ(unicode::graphemeCount(got), 4000u);
  EXPECT_EQ(got, data.tabs[1].text);
  EXPECT_EQ(innerValue(call("get_tab", {{"id", testing::kFullTabId.string()}}))["text"], got);
}

TEST_F(McpToolsTest, BadArgumentsFailWithTheirMessageAndChangeNothing) {
  const std::string before = testing::readFile(file);
  const std::map<std::string, std::string> messages = {
      {"get_tab", "Tab nicht gefunden"},
      {"add_note", "id oder note fehlt"},
      {"set_reminder", "id oder iso_date fehlt oder ungültig"},
      {"delete_everything", "Unbekanntes Werkzeug: delete_everything"}};
  // "ID" stands for the plain tab's id.
  for (const auto& [tool, args] : std::vector<std::pair<std::string, std::string>>{
           {"get_tab", "{}"},
           {"get_tab", R"({"id":5})"},
           {"get_tab", R"({"id":"kein-uuid"})"},
           {"get_tab", R"({"id":"{ID}"})"},
           {"get_tab", R"({"id":"BBBBBBBB-0000-4000-8000-000000000001"})"},
           {"add_note", "{}"},
           {"add_note", R"({"id":"ID"})"},
           {"add_note", R"({"note":"x"})"},
           {"add_note", R"({"id":"ID","note":3})"},
           {"add_note", R"({"id":"x","note":"x"})"},
           {"set_reminder", R"({"id":"ID","iso_date":"morgen"})"},
           {"set_reminder", R"({"id":"ID","iso_date":"09.10.2026"})"},
           {"set_reminder", R"({"id":"ID","iso_date":" 2026-10-09"})"},
           {"set_reminder", R"({"id":"ID","iso_date":"0000-12-31"})"},
           {"set_reminder", R"({"id":"ID","iso_date":"10000-01-01"})"},
           {"set_reminder", R"({"id":"ID","iso_date":20261009})"},
           {"set_reminder", R"({"id":"ID"})"},
           {"set_reminder", R"({"id":"x","iso_date":"2026-10-09"})"},
           {"delete_everything", "{}"}}) {
    std::string text = args;
    if (std::size_t at = text.find("ID"); at != std::string::npos) {
      text.replace(at, 2, kPlain);
    }
    EXPECT_EQ(failureText(call(tool, Json::parse(text))), messages.at(tool)) << tool << text;
  }
  EXPECT_EQ(testing::readFile(file), before);
}

TEST_F(McpToolsTest, AddNoteAndSetReminderSave) {
  EXPECT_EQ(innerValue(call("add_note", {{"id", kPlain}, {"note", "Merken/1"}}))["note"],
            "Merken/1");
  EXPECT_EQ(store.load().tabs[0].note, "Merken/1");
  EXPECT_FALSE(innerValue(call("add_note", {{"id", kPlain}, {"note", ""}})).contains("note"));
  EXPECT_EQ(store.load().tabs[0].note, "");
  for (const auto& [date, iso] : std::vector<std::pair<std::string, std::string>>{
           {"2026-10-09T09:00:00+02:00", "2026-10-09T07:00:00Z"},
           {"2026-10-09", "2026-10-09T00:00:00Z"},
           {"2026-10-09 09:00", Fmt::iso(*Fmt::parseISO("2026-10-09 09:00"))},
           {"2300-01-01T00:00:00Z", "2300-01-01T00:00:00Z"},
           {"0001-01-01T00:00:00Z", "0001-01-01T00:00:00Z"},
           {"9999-12-31", "9999-12-31T00:00:00Z"}}) {
    EXPECT_EQ(innerValue(call("set_reminder", {{"id", kPlain}, {"iso_date", date}}))["reminderAt"],
              iso);
    EXPECT_EQ(Fmt::iso(*store.load().tabs[0].reminderAt), iso) << date;
  }
}

// The real system with a full disk: opening a new version of a file fails.
class FullDisk final : public EnvWrapper, private FileSystem {
 public:
  FullDisk() : EnvWrapper(Env::real()) {}
  FileSystem& fileSystem() override { return *this; }

 private:
  FileSystem& disk() { return target().fileSystem(); }
  std::optional<std::string> readFile(const fs::path& p) override { return disk().readFile(p); }
  std::unique_ptr<AtomicFile> openAtomically(const fs::path&) override {
    throw StoreError("kein freier Speicherplatz");
  }
  void createDirectories(const fs::path& p) override { disk().createDirectories(p); }
  std::optional<Date> modificationDate(const fs::path&) override { return {}; }
  bool copyFile(const fs::path&, const fs::path&) override { return false; }
};

TEST_F(McpToolsTest, AFailedSaveIsReported) {
  FullDisk disk;
  MCPServer full{LibraryStore(file, disk)};
  EXPECT_EQ(failureText(full.callTool("add_note", {{"id", kPlain}, {"note", "x"}})),
            "Speichern fehlgeschlagen: kein freier Speicherplatz");
}

class McpRecentTabsTest : public ::testing::Test {
 protected:
  testing::TestFolder folder;
  LibraryStore store{folder / "library.json"};
  MCPServer server{store};

  // Tabs titled by their position, saved `ages` seconds ago.
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
  std::string titles(const Json& arguments) {
    std::string out;
    for (const Json& tab : innerValue(server.callTool("recent_tabs", arguments))) {
      out += tab["title"].get<std::string>() + " ";
    }
    return out;
  }
};

TEST_F(McpRecentTabsTest, NewestFirstWithinTheDays) {
  const std::int64_t day = 86400;
  saveTabsAged({3 * day, 10 * day, -3600, 100, 6 * day, 7 * day + 60, 250LL * 365 * day});
  const std::int64_t max = std::numeric_limits<std::int64_t>::max();
  const std::int64_t min = std::numeric_limits<std::int64_t>::min();
  // Days of the wrong kind count as the default of seven; 0 keeps only the current second on.
  for (const auto& [days, expected] :
       std::vector<std::pair<Json, std::string>>{{nullptr, "2 3 0 4 "},
                                                 {"1", "2 3 0 4 "},
                                                 {2.5, "2 3 0 4 "},
                                                 {true, "2 3 0 4 "},
                                                 {1e300, "2 3 0 4 "},
                                                 {18446744073709551615u, "2 3 0 4 "},
                                                 {1, "2 3 "},
                                                 {3.0, "2 3 0 "},
                                                 {8, "2 3 0 4 5 "},
                                                 {11, "2 3 0 4 5 1 "},
                                                 {0, "2 "},
                                                 {-1, ""},
                                                 {max, "2 3 0 4 5 1 6 "},
                                                 {1'000'000, "2 3 0 4 5 1 6 "},
                                                 {min, ""},
                                                 {-1'000'000, ""}}) {
    EXPECT_EQ(titles(days.is_null() ? Json::object() : Json{{"days", days}}), expected)
        << days.dump();
  }
}

TEST_F(McpRecentTabsTest, AtMostAHundredNewestTabs) {
  std::vector<std::int64_t> ages;
  for (int i = 0; i < 101; ++i) {
    ages.push_back((i * 37) % 101 * 60);  // every age once, in a scrambled order
  }
  saveTabsAged(ages);
  const Json got = innerValue(server.callTool("recent_tabs", Json::object()));
  ASSERT_EQ(got.size(), 100u);
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(ages[std::stoul(got[i]["title"].get<std::string>())], std::int64_t(i) * 60);
  }
}

// Slashes and sorting are checked through the server; here the depth the writer is trusted with.
TEST(McpResults, TooDeepAValueGivesAnEmptyText) {
  Json deep = Json::array();
  for (int i = 1; i < 512; ++i) {  // 512 levels: the most the writer is trusted with
    deep = Json::array({std::move(deep)});
  }
  EXPECT_NE(mcp::textResult(deep)["content"][0]["text"], "");
  EXPECT_EQ(mcp::textResult(Json::array({deep}))["content"][0]["text"], "");
  EXPECT_EQ(mcp::failResult("Nein"),
            Json::parse(R"({"content":[{"type":"text","text":"Nein"}],"isError":true})"));
}

}  // namespace
}  // namespace kestrova
