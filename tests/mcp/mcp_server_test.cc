// The MCP protocol loop: framing, JSON-RPC replies and the protocol methods.
#include <sstream>

#include <gtest/gtest.h>

#include <kestrova/mcp_server.h>

#include "mcp_fixture.h"

namespace kestrova {
namespace {

using testing::Json;

constexpr const char* kParseError =
    R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})";
constexpr const char* kPong = R"({"id":1,"jsonrpc":"2.0","result":{}})";

class McpServerTest : public ::testing::Test {
 protected:
  testing::TestFolder folder;
  MCPServer server{LibraryStore(folder / "library.json")};

  Json reply(const std::string& line) { return Json::parse(server.handle(line).value_or("null")); }
};

TEST_F(McpServerTest, InitializeEchoesAUsableVersionOrOffersItsOwn) {
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":)"
                  R"("2024-11-05","capabilities":{},"clientInfo":{"name":"t","version":"1"}}})"),
            Json::parse(R"({"id":1,"jsonrpc":"2.0","result":{"protocolVersion":"2024-11-05",
              "capabilities":{"tools":{"listChanged":false}},
              "serverInfo":{"name":"kestrova","title":"Kestrova Tab-Bibliothek","version":"0.1.0"},
              "instructions":"Durchsucht die gespeicherten Safari-Tabs des Nutzers (Bibliothek von Kestrova). Antworte auf Deutsch."}})"));
  for (const char* params : {"", R"(,"params":{"protocolVersion":5})", R"(,"params":[1,2])"}) {
    EXPECT_EQ(reply(std::string(R"({"id":2,"method":"initialize")") + params +
                    "}")["result"]["protocolVersion"],
              "2025-06-18")
        << params;
  }
}

TEST_F(McpServerTest, NotificationsAndBlankLinesGetNoReply) {
  for (const char* line : {R"({"jsonrpc":"2.0","method":"notifications/initialized"})",
                           R"({"method":"no/such/thing"})", R"({"method":17})", "{}", "", " \t\r\n",
                           "\xC2\xA0\xE2\x80\xA8 "}) {
    EXPECT_EQ(server.handle(line), std::nullopt) << line;
  }
}

// Each request and its whole reply: compact, sorted keys, the id as it came (or a fixed line when
// it is too deep to write back); nested parameters are not looked at.
TEST_F(McpServerTest, RepliesLineForLine) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"method":"ping","jsonrpc":"2.0","id":1,"params":"ignored"})", kPong},
      {"\t {\"id\":1,\"method\":\"ping\"} \r\xE2\x80\x83", kPong},
      {R"({"id":1,"method":"ping","params":{"x":)" + deep + "}}", kPong},
      {R"({"id":null,"method":"ping"})", R"({"id":null,"jsonrpc":"2.0","result":{}})"},
      {R"({"id":18446744073709551615,"method":"ping"})",
       R"({"id":18446744073709551615,"jsonrpc":"2.0","result":{}})"},
      {R"({"id":{"b":1,"a":[2]},"method":"ping"})",
       R"({"id":{"a":[2],"b":1},"jsonrpc":"2.0","result":{}})"},
      {R"({"jsonrpc":"2.0","id":"a","method":"tools/foo"})",
       R"({"error":{"code":-32601,"message":"Method not found: tools/foo"},"id":"a","jsonrpc":"2.0"})"},
      {R"({"id":1,"method":["ping"]})",
       R"({"error":{"code":-32601,"message":"Method not found: "},"id":1,"jsonrpc":"2.0"})"},
      {R"({"id":)" + deep + R"(,"method":"ping"})",
       R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Internal error"}})"},
      {deep, kParseError}};
  for (const auto& [line, expected] : cases) {
    EXPECT_EQ(server.handle(line), expected) << line.substr(0, 80);
  }
  for (const char* line : {"[1,2]", "not json", "42", "\"text\"", "null", "{\"id\":1",
                           "{\"id\":1}}", "{'id':1}", "\x01\x02\xFE\xFF"}) {
    EXPECT_EQ(server.handle(line), kParseError) << line;
  }
}

TEST_F(McpServerTest, ToolsListAndCallTakeTheirParametersLeniently) {
  EXPECT_EQ(reply(R"({"id":2,"method":"tools/list"})")["result"]["tools"],
            MCPServer::toolDefinitions());
  for (const auto& [params, text] : std::vector<std::pair<std::string, std::string>>{
           {"", "Unbekanntes Werkzeug: "},
           {R"(,"params":{"name":["get_tab"]})", "Unbekanntes Werkzeug: "},
           {R"(,"params":{"name":"get_tab","arguments":"x"})", "Tab nicht gefunden"}}) {
    EXPECT_EQ(
        testing::failureText(reply(R"({"id":1,"method":"tools/call")" + params + "}")["result"]),
        text);
  }
  EXPECT_EQ(
      reply(R"({"id":1,"method":"tools/call","params":{"name":"list_topics","arguments":[1]}})")
          ["result"]["isError"],
      false);
}

TEST_F(McpServerTest, SlashesAreEscapedOnlyInsideTheToolText) {
  LibraryStore(folder / "library.json").save(testing::sampleLibrary());
  std::string line = *server.handle(
      R"({"id":1,"method":"tools/call","params":{"name":"get_tab","arguments":{"id":")" +
      testing::kPlainTabId.string() + "\"}}}");
  // The inner JSON keeps "\/"; the outer writer escapes its backslash but adds none of its own.
  EXPECT_NE(line.find(R"(https:\\/\\/example.org\\/a\\/b)"), std::string::npos) << line;
  EXPECT_EQ(line.find("https://"), std::string::npos) << line;
}

TEST_F(McpServerTest, RunAnswersLineByLineUntilInputEndsOrOutputFails) {
  std::istringstream in(
      "{\"id\":1,\"method\":\"ping\"}\n\n{\"method\":\"notifications/initialized\"}\noops\n"
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

}  // namespace
}  // namespace kestrova
