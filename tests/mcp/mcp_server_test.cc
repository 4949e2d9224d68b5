// The MCP protocol loop: framing, JSON-RPC replies and the protocol methods.
#include <sstream>

#include <gtest/gtest.h>

#include <kestrova/mcp_server.h>

#include "mcp_fixture.h"

namespace kestrova {
namespace {

using testing::callLine;
using testing::Json;
using testing::TestFolder;

constexpr const char* kParseErrorLine =
    R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})";
constexpr const char* kInternalErrorLine =
    R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Internal error"}})";

class McpServerTest : public ::testing::Test {
 protected:
  TestFolder folder;
  MCPServer server{LibraryStore(folder / "library.json")};

  Json reply(const std::string& line) {
    std::optional<std::string> out = server.handle(line);
    EXPECT_TRUE(out.has_value()) << line;
    return out ? Json::parse(*out) : Json();
  }
};

TEST_F(McpServerTest, InitializeEchoesTheClientsVersion) {
  Json r = reply(
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"selftest","version":"1"}}})");
  EXPECT_EQ(r["id"], 1);
  EXPECT_EQ(r["jsonrpc"], "2.0");
  EXPECT_EQ(r["result"]["protocolVersion"], "2025-06-18");
  EXPECT_EQ(r["result"]["capabilities"], Json::parse(R"({"tools":{"listChanged":false}})"));
  EXPECT_EQ(
      r["result"]["serverInfo"],
      Json::parse(R"({"name":"kestrova","title":"Kestrova Tab-Bibliothek","version":"0.1.0"})"));
  EXPECT_EQ(r["result"]["instructions"],
            "Durchsucht die gespeicherten Safari-Tabs des Nutzers (Bibliothek von Kestrova). "
            "Antworte auf Deutsch.");

  r = reply(
      R"({"jsonrpc":"2.0","id":2,"method":"initialize","params":{"protocolVersion":"2024-11-05"}})");
  EXPECT_EQ(r["result"]["protocolVersion"], "2024-11-05");
}

TEST_F(McpServerTest, InitializeWithoutAUsableVersionOffersItsOwn) {
  for (const char* line : {R"({"id":1,"method":"initialize"})",
                           R"({"id":1,"method":"initialize","params":{"protocolVersion":5}})",
                           R"({"id":1,"method":"initialize","params":[1,2]})"}) {
    EXPECT_EQ(reply(line)["result"]["protocolVersion"], "2025-06-18") << line;
  }
  // No connection state: a second initialize is answered like the first.
  EXPECT_EQ(reply(R"({"id":2,"method":"initialize"})")["id"], 2);
}

TEST_F(McpServerTest, NotificationsAreNeverAnswered) {
  EXPECT_EQ(server.handle(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"),
            std::nullopt);
  EXPECT_EQ(server.handle(R"({"jsonrpc":"2.0","method":"no/such/thing"})"), std::nullopt);
  EXPECT_EQ(server.handle(R"({"method":17})"), std::nullopt);
  EXPECT_EQ(server.handle(R"({})"), std::nullopt);
}

TEST_F(McpServerTest, BlankLinesAreIgnoredAndLinesAreTrimmed) {
  EXPECT_EQ(server.handle(""), std::nullopt);
  EXPECT_EQ(server.handle(" \t\r\n"), std::nullopt);
  EXPECT_EQ(server.handle("\xC2\xA0\xE2\x80\xA8 "), std::nullopt);  // no-break space, line sep.
  EXPECT_EQ(reply("\t {\"id\":3,\"method\":\"ping\"} \r\xE2\x80\x83")["id"], 3);
}

TEST_F(McpServerTest, RepliesAreCompactWithSortedKeys) {
  EXPECT_EQ(server.handle(R"({"method":"ping","jsonrpc":"2.0","id":7})"),
            R"({"id":7,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(
      server.handle(R"({"jsonrpc":"2.0","id":"a","method":"tools/foo"})"),
      R"({"error":{"code":-32601,"message":"Method not found: tools/foo"},"id":"a","jsonrpc":"2.0"})");
}

TEST_F(McpServerTest, IdComesBackAsItCame) {
  EXPECT_EQ(server.handle(R"({"id":null,"method":"ping"})"),
            R"({"id":null,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(server.handle(R"({"id":"x/y","method":"ping"})"),
            R"({"id":"x/y","jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(server.handle(R"({"id":-12,"method":"ping"})"),
            R"({"id":-12,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(server.handle(R"({"id":18446744073709551615,"method":"ping"})"),
            R"({"id":18446744073709551615,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(server.handle(R"({"id":{"b":1,"a":[2]},"method":"ping"})"),
            R"({"id":{"a":[2],"b":1},"jsonrpc":"2.0","result":{}})");
}

TEST_F(McpServerTest, UnknownOrMissingMethod) {
  Json r = reply(R"({"jsonrpc":"2.0","id":"a","method":"foo"})");
  EXPECT_EQ(r["id"], "a");
  EXPECT_EQ(r["error"]["code"], -32601);
  EXPECT_EQ(r["error"]["message"], "Method not found: foo");
  EXPECT_FALSE(r.contains("result"));
  EXPECT_EQ(reply(R"({"id":1})")["error"]["message"], "Method not found: ");
  EXPECT_EQ(reply(R"({"id":1,"method":["ping"]})")["error"]["message"], "Method not found: ");
}

TEST_F(McpServerTest, LinesThatAreNotJsonObjectsGetTheParseError) {
  for (const char* line : {"[1,2]", "not json", "42", "\"text\"", "null", "{\"id\":1",
                           "{\"id\":1}}", "{'id':1}", "\x01\x02\xFE\xFF"}) {
    EXPECT_EQ(server.handle(line), kParseErrorLine) << line;
  }
}

TEST_F(McpServerTest, InvalidUtf8IsReadAsReplacementCharacters) {
  Json r = reply("{\"id\":1,\"method\":\"x\xFF\xC3\"}");
  EXPECT_EQ(r["error"]["message"], "Method not found: x\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST_F(McpServerTest, DeepNestingIsAnsweredWithoutCrashing) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  // Nested parameters are simply not looked at.
  EXPECT_EQ(reply(R"({"id":1,"method":"ping","params":{"x":)" + deep + "}}")["result"],
            Json::object());
  // An id too deep to write back gets the fixed internal-error line.
  EXPECT_EQ(server.handle(R"({"id":)" + deep + R"(,"method":"ping"})"), kInternalErrorLine);
  EXPECT_EQ(server.handle(deep), kParseErrorLine);
}

TEST_F(McpServerTest, PingAndToolsList) {
  EXPECT_EQ(reply(R"({"id":1,"method":"ping","params":"ignored"})")["result"], Json::object());
  Json tools = reply(R"({"id":2,"method":"tools/list"})")["result"]["tools"];
  ASSERT_EQ(tools, MCPServer::toolDefinitions());
}

// clang-format off
TEST(McpToolDefinitions, NamesSchemasAndOrder) {
  const Json& tools = MCPServer::toolDefinitions();
  std::vector<std::string> names;
  for (const Json& tool : tools) {
    names.push_back(tool["name"]);
    EXPECT_EQ(tool.size(), 3u);
    EXPECT_EQ(tool["inputSchema"]["type"], "object");
    EXPECT_TRUE(tool["inputSchema"]["required"].is_array());
    EXPECT_TRUE(tool["inputSchema"]["properties"].is_object());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"search_tabs", "list_topics", "list_windows",
                                             "get_tab", "add_note", "set_reminder",
                                             "recent_tabs"}));
  const Json expected = Json::parse(R"json([
    {"name":"search_tabs",
     "description":"Sucht gespeicherte Tabs nach Bedeutung und Stichwörtern.",
     "inputSchema":{"type":"object","properties":{
       "query":{"type":"string","description":"Suchtext oder Frage"},
       "limit":{"type":"integer","description":"Höchstzahl Treffer (Standard 10)"}},
       "required":["query"]}},
    {"name":"list_topics",
     "description":"Listet die Themen (KI-Gruppen) mit Anzahl Tabs.",
     "inputSchema":{"type":"object","properties":{},"required":[]}},
    {"name":"list_windows",
     "description":"Listet die gespeicherten Fenster wie sie in Safari waren.",
     "inputSchema":{"type":"object","properties":{},"required":[]}},
    {"name":"get_tab",
     "description":"Gibt einen Tab mit Zusammenfassung, Notiz und Seitentext zurück.",
     "inputSchema":{"type":"object","properties":{
       "id":{"type":"string","description":"Tab-ID (UUID)"}},"required":["id"]}},
    {"name":"add_note",
     "description":"Setzt die Notiz eines Tabs.",
     "inputSchema":{"type":"object","properties":{
       "id":{"type":"string"},"note":{"type":"string"}},"required":["id","note"]}},
    {"name":"set_reminder",
     "description":"Setzt eine Erinnerung (ISO-8601-Datum, z. B. 2026-10-09T09:00:00+02:00).",
     "inputSchema":{"type":"object","properties":{
       "id":{"type":"string"},"iso_date":{"type":"string"}},"required":["id","iso_date"]}},
    {"name":"recent_tabs",
     "description":"Tabs, die in den letzten N Tagen gespeichert wurden.",
     "inputSchema":{"type":"object","properties":{
       "days":{"type":"integer","description":"Anzahl Tage (Standard 7)"}},"required":[]}}
  ])json");
  ASSERT_EQ(tools.size(), expected.size());
  for (std::size_t i = 0; i < tools.size(); ++i) {
    EXPECT_EQ(tools[i], expected[i]) << i;
  }
}
// clang-format on

TEST_F(McpServerTest, ToolsCallTakesNameAndArgumentsLeniently) {
  Json r = reply(R"({"id":1,"method":"tools/call"})");
  EXPECT_EQ(r["result"]["isError"], true);
  EXPECT_EQ(r["result"]["content"][0]["text"], "Unbekanntes Werkzeug: ");
  r = reply(R"({"id":1,"method":"tools/call","params":{"name":["get_tab"]}})");
  EXPECT_EQ(r["result"]["content"][0]["text"], "Unbekanntes Werkzeug: ");
  r = reply(R"({"id":1,"method":"tools/call","params":{"name":"get_tab","arguments":"x"}})");
  EXPECT_EQ(r["result"]["content"][0]["text"], "Tab nicht gefunden");
  r = reply(R"({"id":1,"method":"tools/call","params":{"name":"list_topics","arguments":[1]}})");
  EXPECT_EQ(r["result"]["isError"], false);
}

TEST_F(McpServerTest, SlashesAreEscapedOnlyInsideTheToolText) {
  LibraryStore(folder / "library.json").save(testing::sampleLibrary());
  std::string line =
      *server.handle(callLine(1, "get_tab", {{"id", testing::kPlainTabId.string()}}));
  // The inner JSON keeps "\/"; the outer writer escapes its backslash but adds none of its own.
  EXPECT_NE(line.find(R"(https:\\/\\/example.org\\/a\\/b)"), std::string::npos) << line;
  EXPECT_EQ(line.find("https://"), std::string::npos) << line;
}

TEST_F(McpServerTest, RequestsOfSeveralMegabytes) {
  LibraryStore(folder / "library.json").save(testing::sampleLibrary());
  std::string note(4 * 1024 * 1024, 'n');
  Json r = reply(callLine(5, "add_note", {{"id", testing::kPlainTabId.string()}, {"note", note}}));
  EXPECT_EQ(r["result"]["isError"], false);
  EXPECT_EQ(LibraryStore(folder / "library.json").load().tabs[0].note, note);
}

TEST_F(McpServerTest, RunAnswersLineByLineUntilInputEnds) {
  std::istringstream in(
      "{\"id\":1,\"method\":\"ping\"}\n"
      "\n"
      "{\"method\":\"notifications/initialized\"}\n"
      "oops\n"
      "{\"id\":2,\"method\":\"ping\"}");  // the last line has no newline
  std::ostringstream out;
  EXPECT_TRUE(server.run(in, out));
  EXPECT_EQ(out.str(), std::string(R"({"id":1,"jsonrpc":"2.0","result":{}})") + "\n" +
                           kParseErrorLine + "\n" + R"({"id":2,"jsonrpc":"2.0","result":{}})" +
                           "\n");
}

// A stream buffer that accepts `capacity` bytes and then fails, like a pipe whose reader left.
class ClosingBuffer : public std::streambuf {
 public:
  explicit ClosingBuffer(std::size_t capacity) : capacity_(capacity) {}
  std::string written;

 protected:
  int_type overflow(int_type c) override {
    if (written.size() >= capacity_ || traits_type::eq_int_type(c, traits_type::eof())) {
      return traits_type::eof();
    }
    written.push_back(traits_type::to_char_type(c));
    return c;
  }

 private:
  std::size_t capacity_;
};

TEST_F(McpServerTest, RunStopsWhenTheOutputFails) {
  std::istringstream in(
      "{\"id\":1,\"method\":\"ping\"}\n{\"id\":2,\"method\":\"ping\"}\n"
      "{\"id\":3,\"method\":\"ping\"}\n");
  ClosingBuffer buffer(50);
  std::ostream out(&buffer);
  EXPECT_FALSE(server.run(in, out));
  // It stopped at the first failed reply and read no further request.
  std::string rest;
  std::getline(in, rest);
  EXPECT_EQ(rest, "{\"id\":3,\"method\":\"ping\"}");
}

TEST(McpClaudeConfigSnippet, EightLinesWithThePathVerbatim) {
  EXPECT_EQ(MCPServer::claudeConfigSnippet("/Applications/Kestrova.app/kestrova-cli"),
            "{\n"
            "  \"mcpServers\": {\n"
            "    \"kestrova\": {\n"
            "      \"command\": \"/Applications/Kestrova.app/kestrova-cli\",\n"
            "      \"args\": [\"mcp\"]\n"
            "    }\n"
            "  }\n"
            "}");
  // Inserted as it is, not escaped.
  EXPECT_NE(MCPServer::claudeConfigSnippet("C:\\a \"b\"").find("\"C:\\a \"b\"\","),
            std::string::npos);
}

}  // namespace
}  // namespace kestrova
