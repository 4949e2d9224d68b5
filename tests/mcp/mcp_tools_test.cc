// The library tools of the MCP server, called directly, and the building blocks of their results.
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
  // Replaces the library by tabs titled by their position, saved `ages` seconds ago.
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
};

TEST_F(McpToolsTest, ListsAndTabsShowOnlyWhatIsThereAndTextsAreCutAtFourThousand) {
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
  EXPECT_EQ(innerValue(call("get_tab", {{"id", "aaaaaaaa-0000-4000-8000-000000000002"}})),
            Json::parse(R"({"title":"Voll","id":"AAAAAAAA-0000-4000-8000-000000000002",
    "url":"https://example.org/a/b","domain":"example.org","savedAt":"2026-09-21T14:13:20Z",
    "summary":"Eine Seite.","tags":["eins"],"text":"Kurzer Text.","topic":"Wissen",
    "window":"Fenster 1 · 01.09. 10:00","note":"Später lesen","reminderAt":"2026-09-22T14:13:20Z",
    "projects":["Garten"],"read":true})"));
  // The text is cut at 4000 characters.
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
  // "ID" stands for the plain tab's id.
  const std::vector<std::tuple<std::string, std::string, std::vector<std::string>>> cases = {
      {"get_tab",
       "Tab nicht gefunden",
       {"{}", R"({"id":5})", R"({"id":"kein-uuid"})", R"({"id":"{ID}"})",
        R"({"id":"BBBBBBBB-0000-4000-8000-000000000001"})"}},
      {"add_note",
       "id oder note fehlt",
       {"{}", R"({"id":"ID"})", R"({"note":"x"})", R"({"id":"ID","note":3})",
        R"({"id":"x","note":"x"})"}},
      {"set_reminder",
       "id oder iso_date fehlt oder ungültig",
       {R"({"id":"ID","iso_date":"morgen"})", R"({"id":"ID","iso_date":"09.10.2026"})",
        R"({"id":"ID","iso_date":" 2026-10-09"})", R"({"id":"ID","iso_date":"0000-12-31"})",
        R"({"id":"ID","iso_date":"10000-01-01"})", R"({"id":"ID","iso_date":20261009})",
        R"({"id":"ID"})", R"({"id":"x","iso_date":"2026-10-09"})"}},
      {"delete_everything", "Unbekanntes Werkzeug: delete_everything", {"{}"}}};
  for (const auto& [tool, message, arguments] : cases) {
    for (std::string text : arguments) {
      if (std::size_t at = text.find("ID"); at != std::string::npos) {
        text.replace(at, 2, kPlain);
      }
      EXPECT_EQ(failureText(call(tool, Json::parse(text))), message) << tool << text;
    }
  }
  EXPECT_EQ(testing::readFile(file), before);
}

// The real system with a full disk: opening a new version of a file fails.
class FullDisk final : public EnvWrapper, private FileSystem {
 public:
  FullDisk() : EnvWrapper(Env::real()) {}
  FileSystem& fileSystem() override { return *this; }

 private:
  std::optional<std::string> readFile(const fs::path& p) override {
    return target().fileSystem().readFile(p);
  }
  std::unique_ptr<AtomicFile> openAtomically(const fs::path&) override {
    throw StoreError("kein freier Speicherplatz");
  }
  void createDirectories(const fs::path& p) override { target().fileSystem().createDirectories(p); }
  std::optional<Date> modificationDate(const fs::path&) override { return {}; }
  bool copyFile(const fs::path&, const fs::path&) override { return false; }
};

TEST_F(McpToolsTest, AddNoteAndSetReminderSaveOrReportTheFailure) {
  EXPECT_EQ(innerValue(call("add_note", {{"id", kPlain}, {"note", "Merken/1"}}))["note"],
            "Merken/1");
  EXPECT_EQ(store.load().tabs[0].note, "Merken/1");
  EXPECT_FALSE(innerValue(call("add_note", {{"id", kPlain}, {"note", ""}})).contains("note"));
  EXPECT_EQ(store.load().tabs[0].note, "");
  const std::vector<std::pair<std::string, std::string>> dates = {
      {"2026-10-09T09:00:00+02:00", "2026-10-09T07:00:00Z"},
      {"2026-10-09", "2026-10-09T00:00:00Z"},
      {"2026-10-09 09:00", Fmt::iso(*Fmt::parseISO("2026-10-09 09:00"))},
      {"2300-01-01T00:00:00Z", "2300-01-01T00:00:00Z"},
      {"0001-01-01T00:00:00Z", "0001-01-01T00:00:00Z"},
      {"9999-12-31", "9999-12-31T00:00:00Z"}};
  for (const auto& [date, iso] : dates) {
    EXPECT_EQ(innerValue(call("set_reminder", {{"id", kPlain}, {"iso_date", date}}))["reminderAt"],
              iso);
    EXPECT_EQ(Fmt::iso(*store.load().tabs[0].reminderAt), iso) << date;
  }
  // A failed save is reported.
  FullDisk disk;
  MCPServer full{LibraryStore(file, disk)};
  EXPECT_EQ(failureText(full.callTool("add_note", {{"id", kPlain}, {"note", "x"}})),
            "Speichern fehlgeschlagen: kein freier Speicherplatz");
}

TEST_F(McpToolsTest, RecentTabsNewestFirstWithinTheDays) {
  const std::int64_t day = 86400;
  saveTabsAged({3 * day, 10 * day, -3600, 100, 6 * day, 7 * day + 60, 250LL * 365 * day});
  const std::int64_t max = std::numeric_limits<std::int64_t>::max();
  const std::int64_t min = std::numeric_limits<std::int64_t>::min();
  // Days of the wrong kind count as the default of seven; 0 keeps only the current second on.
  const std::vector<std::pair<std::string, std::vector<Json>>> cases = {
      {"2 3 0 4 ", {nullptr, "1", 2.5, true, 1e300, 18446744073709551615u}},
      {"2 3 ", {1}},
      {"2 3 0 ", {3.0}},
      {"2 3 0 4 5 ", {8}},
      {"2 3 0 4 5 1 ", {11}},
      {"2 ", {0}},
      {"", {-1, min, -1'000'000}},
      {"2 3 0 4 5 1 6 ", {max, 1'000'000}}};
  for (const auto& [expected, daysList] : cases) {
    for (const Json& days : daysList) {
      std::string titles;
      for (const Json& tab : innerValue(
               call("recent_tabs", days.is_null() ? Json::object() : Json{{"days", days}}))) {
        titles += tab["title"].get<std::string>() + " ";
      }
      EXPECT_EQ(titles, expected) << days.dump();
    }
  }
  // At most a hundred, the newest.
  std::vector<std::int64_t> ages;
  for (int i = 0; i < 101; ++i) {
    ages.push_back((i * 37) % 101 * 60);  // every age once, in a scrambled order
  }
  saveTabsAged(ages);
  const Json got = innerValue(call("recent_tabs"));
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
