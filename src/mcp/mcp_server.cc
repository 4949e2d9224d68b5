// The MCP protocol loop: line framing, JSON-RPC replies and the protocol methods. The tools
// themselves live in mcp_tools.cc.
#include <istream>
#include <ostream>
#include <string>

#include <kestrova/mcp_server.h>
#include <kestrova/unicode.h>

#include "mcp_results.h"

namespace kestrova {
namespace {

using mcp::Json;

constexpr std::string_view kServerName = "kestrova";
constexpr std::string_view kServerTitle = "Kestrova Tab-Bibliothek";
constexpr std::string_view kServerVersion = "0.1.0";
constexpr std::string_view kInstructions =
    "Durchsucht die gespeicherten Safari-Tabs des Nutzers (Bibliothek von Kestrova). Antworte auf "
    "Deutsch.";

// The reply used when a reply cannot be written at all.
constexpr std::string_view kInternalErrorLine =
    R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Internal error"}})";

constexpr int kParseError = -32700;
constexpr int kMethodNotFound = -32601;

// Compact, keys sorted (the map keeps them so), "/" as it is; the fixed internal-error line
// when the reply cannot be written.
std::string encode(const Json& reply) {
  if (mcp::nestsDeeperThan(reply, mcp::kMaxSerialisedDepth)) {
    return std::string(kInternalErrorLine);
  }
  try {
    return reply.dump(-1, ' ', false, Json::error_handler_t::replace);
  } catch (const std::exception&) {
    return std::string(kInternalErrorLine);
  }
}

Json parseErrorReply() {
  return Json{{"jsonrpc", "2.0"},
              {"id", nullptr},
              {"error", {{"code", kParseError}, {"message", "Parse error"}}}};
}

}  // namespace

MCPServer::MCPServer(LibraryStore store) : library_(std::move(store)) {}

bool MCPServer::run(std::istream& in, std::ostream& out) {
  std::string line;
  while (std::getline(in, line)) {
    std::optional<std::string> reply = handle(line);
    if (!reply) {
      continue;
    }
    reply->push_back('\n');
    out.write(reply->data(), static_cast<std::streamsize>(reply->size()));
    out.flush();
    if (!out) {
      return false;
    }
  }
  return true;
}

std::optional<std::string> MCPServer::handle(std::string_view rawLine) {
  try {
    // Bytes that are not UTF-8 are read as U+FFFD, so such a request is still answered.
    std::string repaired;
    std::string_view line = rawLine;
    if (!unicode::isValidUtf8(line)) {
      repaired = unicode::repairUtf8(line);
      line = repaired;
    }
    line = unicode::trim(line);
    if (line.empty()) {
      return std::nullopt;
    }
    Json message = Json::parse(line.begin(), line.end(), nullptr, false);
    if (message.is_discarded() || !message.is_object()) {
      return encode(parseErrorReply());
    }
    auto id = message.find("id");
    if (id == message.end()) {
      return std::nullopt;  // a notification: never answered
    }
    auto method = message.find("method");
    const std::string name =
        method != message.end() && method->is_string() ? method->get<std::string>() : "";
    auto params = message.find("params");
    static const Json kNoParams = Json::object();
    const Json& paramsObject = params != message.end() && params->is_object() ? *params : kNoParams;

    Json reply = dispatch(name, paramsObject);
    reply["jsonrpc"] = "2.0";
    reply["id"] = std::move(*id);
    return encode(reply);
  } catch (const std::exception&) {
    return std::string(kInternalErrorLine);
  }
}

nlohmann::json MCPServer::dispatch(const std::string& method, const nlohmann::json& params) {
  if (method == "initialize") {
    auto requested = params.find("protocolVersion");
    const std::string version = requested != params.end() && requested->is_string()
                                    ? requested->get<std::string>()
                                    : std::string(protocolVersion);
    return Json{{"result",
                 {{"protocolVersion", version},
                  {"capabilities", {{"tools", {{"listChanged", false}}}}},
                  {"serverInfo",
                   {{"name", kServerName}, {"title", kServerTitle}, {"version", kServerVersion}}},
                  {"instructions", kInstructions}}}};
  }
  if (method == "ping") {
    return Json{{"result", Json::object()}};
  }
  if (method == "tools/list") {
    return Json{{"result", {{"tools", toolDefinitions()}}}};
  }
  if (method == "tools/call") {
    const std::string name = mcp::stringArgument(params, "name").value_or("");
    auto arguments = params.find("arguments");
    static const Json kNoArguments = Json::object();
    return Json{{"result", callTool(name, arguments != params.end() && arguments->is_object()
                                              ? *arguments
                                              : kNoArguments)}};
  }
  return Json{{"error", {{"code", kMethodNotFound}, {"message", "Method not found: " + method}}}};
}

std::string MCPServer::claudeConfigSnippet(std::string_view cliPath) {
  std::string out;
  out += "{\n";
  out += "  \"mcpServers\": {\n";
  out += "    \"kestrova\": {\n";
  out += "      \"command\": \"";
  out += cliPath;
  out += "\",\n";
  out += "      \"args\": [\"mcp\"]\n";
  out += "    }\n";
  out += "  }\n";
  out += "}";
  return out;
}

}  // namespace kestrova
