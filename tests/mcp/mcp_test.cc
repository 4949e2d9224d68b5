// The MCP server on a small library on disk: the protocol loop with its JSON-RPC replies, and the
// tools called directly.
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kestrova/fmt.h>
#include <kestrova/mcp_server.h>
#include <kestrova/store.h>

#include "mcp_results.h"
#include "mcp_search.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr const char* kParseError =
    R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})";
constexpr const char* kPong = R"({"id":1,"jsonrpc":"2.0","result":{}})";

const std::string kPlain = "AAAAAAAA-0000-4000-8000-000000000001";
const Uuid kWindowId = *Uuid::parse("11111111-1111-4111-8111-111111111111");
const Uuid kTopicId = *Uuid::parse("22222222-2222-4222-8222-222222222222");
const Uuid kFullId = *Uuid::parse("AAAAAAAA-0000-4000-8000-000000000002");

Date at(std::int64_t seconds) {
  return Date(std::chrono::seconds(seconds));
}

// Two tabs: one with nothing optional (its window and topic do not exist), one with everything.
LibraryData sampleLibrary() {
  SavedTab plain;
  plain.id = *Uuid::parse(kPlain), plain.title = "Schlicht", plain.savedAt = at(1'790'000'000);
  plain.url = "https://example.org/a/b", plain.domain = "example.org";
  plain.text = "Kurzer Text.", plain.summary = "Eine Seite.", plain.tags = {"eins"};
  SavedTab full = plain;
  full.id = kFullId, full.title = "Voll", full.projectTags = {"Garten"};
  full.windowId = kWindowId, full.topicId = kTopicId, full.note = "Später lesen";
  full.reminderAt = at(1'790'086'400), full.readAt = at(1'790'000'200);
  LibraryData data;
  data.tabs = {plain, full};
  data.windows = {SavedWindow{kWindowId, at(1'790'000'000), "Fenster 1", {kFullId, plain.id}}};
  data.topics = {Topic{kTopicId, "Wissen", "blau", {kFullId}, false}};
  return data;
}

// The parsed inner JSON of a successful tool result; fails the test for an error result.
Json innerValue(const Json& result) {
  EXPECT_FALSE(result.value("isError", true)) << result.dump();
  return Json::parse(result["content"][0].value("text", "null"));
}

std::string failureText(const Json& result) {
  EXPECT_TRUE(result.value("isError", false)) << result.dump();
  return result["content"][0].value("text", "");
}

class McpTest : public ::testing::Test {
 protected:
  testing::TestFolder folder;
  fs::path file = folder / "library.json";
  LibraryStore store{file};
  MCPServer server{store};

  void SetUp() override { store.save(sampleLibrary()); }
  Json call(const std::string& name, const Json& arguments = Json::object()) {
    return server.callTool(name, arguments);
  }
  Json reply(const std::string& line) { return Json::parse(server.handle(line).value_or("null")); }
  // Replaces the library by tabs titled by their position, saved `ages` seconds ago.
  void saveTabsAged(const std::vector<std::int64_t>& ages) {
    LibraryData data;
    const Date base = std::chrono::floor<std::chrono::seconds>(now());
    for (std::size_t i = 0; i < ages.size(); ++i) {
      SavedTab tab;
      tab.id = Uuid::random(), tab.url = "https://example.org/", tab.title = std::to_string(i);
      tab.savedAt = base - std::chrono::seconds(ages[i]);
      data.tabs.push_back(tab);
    }
    store.save(data);
  }
};

TEST_F(McpTest, InitializeEchoesAStringVersionOrOffersItsOwn) {
  const std::string start = R"({"id":2,"method":"initialize","params":{"protocolVersion":)";
  EXPECT_EQ(reply(start + "\"2024-11-05\"}}")["result"]["protocolVersion"], "2024-11-05");
  EXPECT_EQ(reply(start + "5}}")["result"]["protocolVersion"], "2025-06-18");
}

// Each request and its whole reply: compact, sorted keys, the id as it came (or a fixed line when
// it is too deep to write back); nested parameters are not looked at.
TEST_F(McpTest, RepliesLineForLine) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"method":"ping","jsonrpc":"2.0","id":1,"params":"ignored"})", kPong},
      {"\t {\"id\":1,\"method\":\"ping\"} \r\xE2\x80\x83", kPong},
      {R"({"id":1,"method":"ping","params":{"x":)" + deep + "}}", kPong},
      {R"({"id":null,"method":"ping"})", R"({"id":null,"jsonrpc":"2.0","result":{}})"},
      {R"({"id":{"b":1,"a":[2]},"method":"ping"})",
       R"({"id":{"a":[2],"b":1},"jsonrpc":"2.0","result":{}})"},
      {R"({"jsonrpc":"2.0","id":"a","method":"tools/foo"})",
       R"({"error":{"code":-32601,"message":"Method not found: tools/foo"},"id":"a","jsonrpc":"2.0"})"},
      {R"({"id":1,"method":["ping"]})",
       R"({"error":{"code":-32601,"message":"Method not found: "},"id":1,"jsonrpc":"2.0"})"},
      {R"({"id":)" + deep + R"(,"method":"ping"})",
       R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Internal error"}})"},
      {deep, kParseError},
      {"[1,2]", kParseError},
      {"{\"id\":1", kParseError},
      {"\"text\"", kParseError},
      {"\x01\x02\xFE\xFF", kParseError}};
  for (const auto& [line, expected] : cases)
    EXPECT_EQ(server.handle(line), expected) << line.substr(0, 80);
}

TEST_F(McpTest, ToolsListAndCallTakeTheirParametersLeniently) {
  for (const auto& [params, text] : std::vector<std::pair<std::string, std::string>>{
           {R"(,"params":{"name":["get_tab"]})", "Unbekanntes Werkzeug: "},
           {R"(,"params":{"name":"get_tab","arguments":"x"})", "Tab nicht gefunden"}}) {
    EXPECT_EQ(failureText(reply(R"({"id":1,"method":"tools/call")" + params + "}")["result"]),
              text);
  }
}

// Notifications and blank lines get no reply.
TEST_F(McpTest, RunAnswersLineByLineUntilInputEndsOrOutputFails) {
  std::istringstream in(
      "{\"id\":1,\"method\":\"ping\"}\n\n{\"method\":\"notifications/initialized\"}\n{}\n"
      "{\"method\":17}\n \t\r\n\xC2\xA0\xE2\x80\xA8 \noops\n"
      "{\"id\":1,\"method\":\"ping\"}");  // the last line has no newline
  std::ostringstream out;
  EXPECT_TRUE(server.run(in, out));
  EXPECT_EQ(out.str(), std::string(kPong) + "\n" + kParseError + "\n" + kPong + "\n");
  in.clear();
  in.str("{\"id\":1,\"method\":\"ping\"}\n{\"id\":2}\n");
  out.setstate(std::ios::badbit);  // like a pipe whose reader left
  EXPECT_FALSE(server.run(in, out));
  // It stopped at the first failed reply and read no further request.
  std::string rest;
  EXPECT_TRUE(std::getline(in, rest));
  EXPECT_EQ(rest, "{\"id\":2}");
}

TEST(McpClaudeConfigSnippet, ThePathGoesInVerbatim) {
  EXPECT_EQ(MCPServer::claudeConfigSnippet("C:\\a \"b\""),
            "{\n  \"mcpServers\": {\n    \"kestrova\": {\n      \"command\": \"C:\\a \"b\"\",\n"
            "      \"args\": [\"mcp\"]\n    }\n  }\n}");
}

TEST_F(McpTest, ListsAndTabsShowOnlyWhatIsThereAndTextsAreCutAtFourThousand) {
  EXPECT_EQ(
      innerValue(call("list_topics")),
      Json::parse(R"([{"id":"22222222-2222-4222-8222-222222222222","name":"Wissen","tabs":1}])"));
  EXPECT_EQ(innerValue(call("list_windows")),
            Json::parse(R"([{"tabs":2,"savedAt":"2026-09-21T14:13:20Z",
    "id":"11111111-1111-4111-8111-111111111111","title":"Fenster 1"}])"));
  EXPECT_EQ(innerValue(call("get_tab", {{"id", kPlain}})), Json::parse(R"({"title":"Schlicht",
    "id":"AAAAAAAA-0000-4000-8000-000000000001","url":"https://example.org/a/b","read":false,
    "domain":"example.org","savedAt":"2026-09-21T14:13:20Z","summary":"Eine Seite.",
    "tags":["eins"],"text":"Kurzer Text."})"));
  // Either case of the id; the full tab shows every optional key.
  EXPECT_EQ(innerValue(call("get_tab", {{"id", "aaaaaaaa-0000-4000-8000-000000000002"}})),
            Json::parse(R"({"title":"Voll","id":"AAAAAAAA-0000-4000-8000-000000000002",
    "url":"https://example.org/a/b","domain":"example.org","savedAt":"2026-09-21T14:13:20Z",
    "summary":"Eine Seite.","tags":["eins"],"text":"Kurzer Text.","topic":"Wissen",
    "window":"Fenster 1","note":"Später lesen","reminderAt":"2026-09-22T14:13:20Z",
    "projects":["Garten"],"read":true})"));
  // The text is cut at 4000 characters ("é" as two code points is one).
  LibraryData data = store.load();
  std::string text;
  for (int i = 0; i < 4001; ++i)
    text += i % 2 == 0 ? "e\xCC\x81" : "a";
  data.tabs[0].text = text;
  store.save(data);
  EXPECT_EQ(innerValue(call("get_tab", {{"id", kPlain}}))["text"], text.substr(0, text.size() - 3));
}

TEST_F(McpTest, BadArgumentsFailWithTheirMessageAndChangeNothing) {
  const std::string before = testing::readFile(file);
  // "ID" stands for the plain tab's id.
  const std::vector<std::tuple<std::string, std::string, std::vector<std::string>>> cases = {
      {"get_tab",
       "Tab nicht gefunden",
       {"{}", R"({"id":5})", R"({"id":"{ID}"})",
        R"({"id":"BBBBBBBB-0000-4000-8000-000000000001"})"}},
      {"add_note",
       "id oder note fehlt",
       {R"({"id":"ID"})", R"({"note":"x"})", R"({"id":"ID","note":3})",
        R"({"id":"x","note":"x"})"}},
      {"set_reminder",
       "id oder iso_date fehlt oder ungültig",
       {R"({"id":"ID","iso_date":"09.10.2026"})", R"({"id":"ID","iso_date":" 2026-10-09"})",
        R"({"id":"ID","iso_date":"0000-12-31"})", R"({"id":"ID","iso_date":"10000-01-01"})",
        R"({"id":"ID","iso_date":20261009})", R"({"id":"x","iso_date":"2026-10-09"})"}},
  };
  for (const auto& [tool, message, arguments] : cases) {
    for (std::string text : arguments) {
      if (std::size_t at = text.find("ID"); at != std::string::npos)
        text.replace(at, 2, kPlain);
      EXPECT_EQ(failureText(call(tool, Json::parse(text))), message) << tool << text;
    }
  }
  EXPECT_EQ(testing::readFile(file), before);
}

TEST_F(McpTest, AddNoteAndSetReminderSaveAtOnce) {
  EXPECT_EQ(innerValue(call("add_note", {{"id", kPlain}, {"note", "Merken"}}))["note"], "Merken");
  EXPECT_EQ(store.load().tabs[0].note, "Merken");
  EXPECT_FALSE(innerValue(call("add_note", {{"id", kPlain}, {"note", ""}})).contains("note"));
  EXPECT_EQ(store.load().tabs[0].note, "");
  const std::vector<std::pair<std::string, std::string>> dates = {
      {"2026-10-09T09:00:00+02:00", "2026-10-09T07:00:00Z"},
      {"2026-10-09", "2026-10-09T00:00:00Z"},
      {"2026-10-09 09:00", Fmt::iso(*Fmt::parseISO("2026-10-09 09:00"))},
      {"0001-01-01T00:00:00Z", "0001-01-01T00:00:00Z"},
      {"9999-12-31", "9999-12-31T00:00:00Z"}};
  for (const auto& [date, iso] : dates) {
    EXPECT_EQ(innerValue(call("set_reminder", {{"id", kPlain}, {"iso_date", date}}))["reminderAt"],
              iso);
    EXPECT_EQ(Fmt::iso(*store.load().tabs[0].reminderAt), iso) << date;
  }
}

TEST_F(McpTest, RecentTabsNewestFirstWithinTheDays) {
  const std::int64_t day = 86400;
  saveTabsAged({3 * day, 10 * day, -3600, 100, 6 * day, 7 * day + 60, 250LL * 365 * day});
  using Limits = std::numeric_limits<std::int64_t>;
  // Days of the wrong kind count as the default of seven; 0 keeps only the current second on.
  const std::vector<std::pair<std::string, std::vector<Json>>> cases = {
      {"2 3 0 4 ", {nullptr, "1", 2.5, true, 1e300, 18446744073709551615u}},
      {"2 3 ", {1}},
      {"2 3 0 ", {3.0}},
      {"2 3 0 4 5 1 ", {11}},
      {"2 ", {0}},
      {"", {-1, Limits::min(), -1'000'000}},
      {"2 3 0 4 5 1 6 ", {Limits::max(), 1'000'000}}};
  for (const auto& [expected, daysList] : cases) {
    for (const Json& days : daysList) {
      std::string titles;
      for (const Json& tab : innerValue(call("recent_tabs", {{"days", days}})))
        titles += tab["title"].get<std::string>() + " ";
      EXPECT_EQ(titles, expected) << days.dump();
    }
  }
  // At most a hundred, the newest.
  std::vector<std::int64_t> ages;
  for (int i = 0; i < 101; ++i)
    ages.push_back((i * 37) % 101 * 60);  // every age once, in a scrambled order
  saveTabsAged(ages);
  const Json got = innerValue(call("recent_tabs"));
  ASSERT_EQ(got.size(), 100u);
  EXPECT_EQ(ages[std::stoul(got[99]["title"].get<std::string>())], 99 * 60);
}

// Exact scores across fields and the order of ties are checked through the binary.
TEST(McpSearchTabs, QueryLimitRoundingAndTheBriefNewestFirst) {
  for (const auto& [score, rounded] :
       std::vector<std::pair<float, double>>{{0.0625f, 0.063}, {0.12344f, 0.123}, {1.0f, 1.0}})
    EXPECT_EQ(mcp::roundedScore(score), rounded) << score;  // halves away from zero
  // 14 tabs titled "Kaffee <i>", the later ones saved later, with zero vectors.
  auto embedder = std::make_shared<Embedder>(false);
  LibraryData data;
  data.embedderKind = embedder->kind();
  for (int i = 0; i < 14; ++i) {
    SavedTab t;
    t.id = Uuid::random(), t.url = "https://example.org/x", t.domain = "example.org";
    t.title = "Kaffee " + std::to_string(i), t.savedAt = at(1'800'000'000 + i);
    data.tabs.push_back(t);
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  }
  for (const Json& query : {Json(nullptr), Json(""), Json(3)})
    EXPECT_EQ(failureText(mcp::searchTabs(data, {{"query", query}}, embedder)), "query fehlt");
  // A query of blanks is text: it runs and finds nothing.
  EXPECT_EQ(innerValue(mcp::searchTabs(data, {{"query", "   "}}, embedder)), Json::array());
  for (const auto& [limit, count] : std::vector<std::pair<Json, std::size_t>>{
           {nullptr, 10}, {"3", 10}, {2.5, 10}, {-1, 0}, {1, 1}, {14, 14}}) {
    Json list =
        innerValue(mcp::searchTabs(data, {{"query", "Kaffee"}, {"limit", limit}}, embedder));
    ASSERT_EQ(list.size(), count) << limit.dump();
    if (count == 14) {
      EXPECT_EQ(list[13]["title"], "Kaffee 0");
      EXPECT_EQ(list[0]["id"], data.tabs[13].id.string());
      list[0].erase("id");
      EXPECT_EQ(list[0], Json::parse(R"({"title":"Kaffee 13","url":"https://example.org/x",
        "domain":"example.org","score":0.45,"savedAt":"2027-01-15T08:00:13Z","summary":"",
        "tags":[],"read":false})"));
    }
  }
}

TEST(McpResults, TooDeepAValueGivesAnEmptyText) {
  Json deep = Json::array();
  for (int i = 1; i < 512; ++i)  // 512 levels: the most the writer is trusted with
    deep = Json::array({std::move(deep)});
  EXPECT_NE(mcp::textResult(deep)["content"][0]["text"], "");
  EXPECT_EQ(mcp::textResult(Json::array({deep}))["content"][0]["text"], "");
}

}  // namespace
}  // namespace kestrova
