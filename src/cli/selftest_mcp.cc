// Self-test checks of the MCP server: the handshake and every tool over JSON-RPC lines.
#include <nlohmann/json.hpp>

#include <kestrova/mcp_server.h>
#include <kestrova/store.h>

#include "selftest_checks.h"

namespace kestrova::cli {
namespace {

using nlohmann::json;

class Session {
 public:
  explicit Session(const LibraryStore& store) : server_(store) {}

  // Sends one request and returns the parsed reply (null when there is none).
  json request(const std::string& method, const json& params) {
    json message = {{"jsonrpc", "2.0"}, {"id", ++id_}, {"method", method}, {"params", params}};
    auto line = server_.handle(message.dump());
    return line ? json::parse(*line, nullptr, false) : json();
  }
  std::optional<std::string> raw(const std::string& line) { return server_.handle(line); }

  // Calls a tool; returns the parsed inner text (or the text itself for failures) and the flag.
  std::pair<json, bool> call(const std::string& tool, const json& arguments) {
    const json reply = request("tools/call", {{"name", tool}, {"arguments", arguments}});
    const json& result = reply.value("result", json::object());
    const std::string text = result.value("content", json::array()).empty()
                                 ? ""
                                 : result["content"][0].value("text", "");
    const bool isError = result.value("isError", true);
    return {isError ? json(text) : json::parse(text, nullptr, false), isError};
  }

 private:
  MCPServer server_;
  int id_ = 0;
};

}  // namespace

void checkMcp(Report& report, SelftestContext& context) {
  report.section("MCP-Server");
  const LibraryStore store(context.folder / "MCP" / "library.json");
  store.save(context.demo);
  Session session(store);

  const json init =
      session.request("initialize", {{"protocolVersion", "2025-06-18"},
                                     {"capabilities", json::object()},
                                     {"clientInfo", {{"name", "selftest"}, {"version", "1"}}}});
  const bool initOk = init.value("id", 0) == 1 &&
                      init["result"].value("protocolVersion", "") == "2025-06-18" &&
                      init["result"]["serverInfo"].value("name", "") == "kestrova";
  const bool silent = !session.raw(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
  const json ping = session.request("ping", json::object());
  report.check("MCP: initialize, Notification ohne Antwort, ping",
               initOk && silent && ping.contains("result"), "Handshake", init.dump());

  const json list = session.request("tools/list", json::object());
  std::vector<std::string> names;
  for (const json& tool : list["result"].value("tools", json::array())) {
    names.push_back(tool.value("name", ""));
  }
  const std::vector<std::string> expected = {"search_tabs", "list_topics", "list_windows",
                                             "get_tab",     "add_note",    "set_reminder",
                                             "recent_tabs"};
  report.check("MCP: tools/list nennt die sieben Werkzeuge", names == expected,
               "search_tabs … recent_tabs", std::to_string(names.size()) + " Werkzeuge");

  const auto [found, searchFailed] =
      session.call("search_tabs", {{"query", "Steuererklärung Abzüge"}, {"limit", 3}});
  const bool searchOk = !searchFailed && found.is_array() && !found.empty() && found.size() <= 3 &&
                        found[0].value("url", "").find("steuer") != std::string::npos;
  report.check("MCP: search_tabs findet die Steuererklärung", searchOk, "Steuer-Seite zuerst",
               found.dump().substr(0, 120));

  const auto [topics, topicsFailed] = session.call("list_topics", json::object());
  const auto [windows, windowsFailed] = session.call("list_windows", json::object());
  report.check("MCP: list_topics und list_windows",
               !topicsFailed && topics.is_array() && !windowsFailed && windows.is_array() &&
                   windows.size() == 3,
               "Listen, 3 Fenster", windows.dump().substr(0, 120));

  const std::string id = context.demo.tabs.front().id.string();
  const auto [tab, tabFailed] = session.call("get_tab", {{"id", id}});
  const auto [noted, noteFailed] = session.call("add_note", {{"id", id}, {"note", "Selbsttest"}});
  const auto [reminded, reminderFailed] =
      session.call("set_reminder", {{"id", id}, {"iso_date", "2030-01-02T09:00:00+01:00"}});
  const LibraryData after = store.load();
  const SavedTab* changed = after.tab(context.demo.tabs.front().id);
  report.check("MCP: get_tab, add_note und set_reminder speichern in der Bibliothek",
               !tabFailed && tab.value("id", "") == id && !noteFailed && !reminderFailed &&
                   changed != nullptr && changed->note == "Selbsttest" &&
                   reminded.value("reminderAt", "") == "2030-01-02T08:00:00Z",
               "Notiz und Erinnerung gesetzt", reminded.dump().substr(0, 120));

  const auto [recent, recentFailed] = session.call("recent_tabs", {{"days", 30}});
  const auto [unknown, unknownFailed] = session.call("gibt_es_nicht", json::object());
  report.check("MCP: recent_tabs und ein unbekanntes Werkzeug",
               !recentFailed && recent.is_array() && recent.size() == 52 && unknownFailed &&
                   unknown == json("Unbekanntes Werkzeug: gibt_es_nicht"),
               "52 Tabs, Fehlermeldung", std::to_string(recent.size()) + " Tabs");
}

}  // namespace kestrova::cli
