// The library tools of the MCP server: their definitions for "tools/list" and their work for
// "tools/call". Each call works on the document the file holds now; the tools that change a tab
// save it at once.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <string>

#include <kestrova/fmt.h>
#include <kestrova/mcp_server.h>
#include <kestrova/memory.h>
#include <kestrova/unicode.h>

#include "mcp_results.h"
#include "mcp_search.h"

namespace kestrova {
namespace {

using mcp::Json;

// How much page text get_tab hands out, in characters.
constexpr std::size_t kTabTextLimit = 4000;
// How many tabs recent_tabs lists at most.
constexpr std::size_t kRecentLimit = 100;
constexpr std::int64_t kSecondsPerDay = 86400;

// What a tool works with: the document the file holds now, the call's arguments, where to write a
// change, and what searches derived from the document (to forget a changed tab).
struct ToolCall {
  LibraryCache& library;
  LibraryData& data;
  const Json& arguments;
  SearchCache& search;
};

using Tool = Json (*)(ToolCall&);

Json property(const char* type, const char* description = nullptr) {
  Json out = {{"type", type}};
  if (description != nullptr) {
    out["description"] = description;
  }
  return out;
}

Json definition(const char* name, const char* description, Json properties, Json required) {
  return Json{{"name", name},
              {"description", description},
              {"inputSchema",
               {{"type", "object"},
                {"properties", std::move(properties)},
                {"required", std::move(required)}}}};
}

Json makeDefinitions() {
  Json tools = Json::array();
  tools.push_back(definition("search_tabs",
                             "Sucht gespeicherte Tabs nach Bedeutung und Stichwörtern.",
                             {{"query", property("string", "Suchtext oder Frage")},
                              {"limit", property("integer", "Höchstzahl Treffer (Standard 10)")}},
                             Json::array({"query"})));
  tools.push_back(definition("list_topics", "Listet die Themen (KI-Gruppen) mit Anzahl Tabs.",
                             Json::object(), Json::array()));
  tools.push_back(definition("list_windows",
                             "Listet die gespeicherten Fenster wie sie in Safari waren.",
                             Json::object(), Json::array()));
  tools.push_back(definition("get_tab",
                             "Gibt einen Tab mit Zusammenfassung, Notiz und Seitentext zurück.",
                             {{"id", property("string", "Tab-ID (UUID)")}}, Json::array({"id"})));
  tools.push_back(definition("add_note", "Setzt die Notiz eines Tabs.",
                             {{"id", property("string")}, {"note", property("string")}},
                             Json::array({"id", "note"})));
  tools.push_back(definition(
      "set_reminder", "Setzt eine Erinnerung (ISO-8601-Datum, z. B. 2026-10-09T09:00:00+02:00).",
      {{"id", property("string")}, {"iso_date", property("string")}},
      Json::array({"id", "iso_date"})));
  tools.push_back(definition("recent_tabs", "Tabs, die in den letzten N Tagen gespeichert wurden.",
                             {{"days", property("integer", "Anzahl Tage (Standard 7)")}},
                             Json::array()));
  return tools;
}

// Writes the changed document; the failure text carries the store's reason.
std::optional<Json> saveFailure(ToolCall& call) {
  try {
    call.library.save();
  } catch (const std::exception& error) {
    return mcp::failResult(std::string("Speichern fehlgeschlagen: ") + error.what());
  }
  return std::nullopt;
}

Json listTopics(ToolCall& call) {
  Json list = Json::array();
  for (const Topic& topic : call.data.topics) {
    list.push_back({{"id", topic.id.string()},
                    {"name", topic.name},
                    {"tabs", static_cast<std::int64_t>(topic.tabIds.size())}});
  }
  return mcp::textResult(list);
}

Json listWindows(ToolCall& call) {
  Json list = Json::array();
  for (const SavedWindow& window : call.data.windows) {
    list.push_back({{"id", window.id.string()},
                    {"title", window.title},
                    {"tabs", static_cast<std::int64_t>(window.tabIds.size())},
                    {"savedAt", Fmt::iso(window.savedAt)}});
  }
  return mcp::textResult(list);
}

Json getTab(ToolCall& call) {
  std::optional<std::size_t> index = mcp::findTab(call.arguments, call.data);
  if (!index) {
    return mcp::failResult("Tab nicht gefunden");
  }
  const SavedTab& tab = call.data.tabs[*index];
  Json out = mcp::brief(tab, call.data);
  out["text"] = std::string(unicode::graphemePrefix(tab.text, kTabTextLimit));
  return mcp::textResult(out);
}

Json addNote(ToolCall& call) {
  std::optional<std::size_t> index = mcp::findTab(call.arguments, call.data);
  std::optional<std::string> note = mcp::stringArgument(call.arguments, "note");
  // An unknown id is reported like a missing one: the caller sent nothing usable either way.
  if (!index || !note) {
    return mcp::failResult("id oder note fehlt");
  }
  call.data.tabs[*index].note = std::move(*note);
  // The note is searched, and a tab without a cached vector is embedded with it.
  call.search.forgetTab(*index);
  if (auto failure = saveFailure(call)) {
    return *failure;
  }
  return mcp::textResult(mcp::brief(call.data.tabs[*index], call.data));
}

Json setReminder(ToolCall& call) {
  std::optional<std::size_t> index = mcp::findTab(call.arguments, call.data);
  std::optional<std::string> text = mcp::stringArgument(call.arguments, "iso_date");
  std::optional<Date> date = text ? Fmt::parseISO(*text) : std::nullopt;
  if (!index || !date) {
    return mcp::failResult("id oder iso_date fehlt oder ungültig");
  }
  call.data.tabs[*index].reminderAt = *date;
  if (auto failure = saveFailure(call)) {
    return *failure;
  }
  return mcp::textResult(mcp::brief(call.data.tabs[*index], call.data));
}

// The earliest savedAt that counts as "within the last `days` days", in whole seconds (the
// document keeps whole seconds, so a tab saved in the current second counts for 0 days). No
// value when the cut-off lies before any representable date (every tab counts); a cut-off past
// the representable range is returned as the latest date (no tab counts).
std::optional<Date> recentCutoff(std::int64_t days, Date at) {
  using std::chrono::seconds;
  const std::int64_t nowSeconds = std::chrono::floor<seconds>(at.time_since_epoch()).count();
  std::int64_t span = 0;
  std::int64_t cutoff = 0;
  if (__builtin_mul_overflow(days, kSecondsPerDay, &span) ||
      __builtin_sub_overflow(nowSeconds, span, &cutoff)) {
    if (days > 0) {
      return std::nullopt;
    }
    return Date::max();
  }
  const std::int64_t lowest =
      std::chrono::floor<seconds>(Date::min().time_since_epoch()).count() + 1;
  const std::int64_t highest = std::chrono::floor<seconds>(Date::max().time_since_epoch()).count();
  if (cutoff < lowest) {
    return std::nullopt;
  }
  if (cutoff > highest) {
    return Date::max();
  }
  return Date(seconds(cutoff));
}

Json recentTabs(ToolCall& call) {
  const std::int64_t days = mcp::integerArgument(call.arguments, "days").value_or(7);
  const std::optional<Date> cutoff = recentCutoff(days, now());
  std::vector<const SavedTab*> recent;
  for (const SavedTab& tab : call.data.tabs) {
    if (!cutoff || tab.savedAt >= *cutoff) {
      recent.push_back(&tab);
    }
  }
  std::stable_sort(recent.begin(), recent.end(),
                   [](const SavedTab* a, const SavedTab* b) { return a->savedAt > b->savedAt; });
  if (recent.size() > kRecentLimit) {
    recent.resize(kRecentLimit);
  }
  Json list = Json::array();
  for (const SavedTab* tab : recent) {
    list.push_back(mcp::brief(*tab, call.data));
  }
  return mcp::textResult(list);
}

// The document of a call is gone once the call returns, but the allocator keeps the many small
// blocks it was made of for reuse. A little of that saves the next call fresh pages; the blocks
// of a large document, kept, would sit beside the next call's file text and parse tree and raise
// the server's peak by about the document's size. So more than kKeepFreedBytes goes back.
constexpr std::size_t kKeepFreedBytes = 128u << 20;

// The tools that need nothing but the call. search_tabs, which needs the server's embedder, is
// dispatched in callTool.
const std::map<std::string, Tool, std::less<>>& tools() {
  static const std::map<std::string, Tool, std::less<>> table = {
      {"list_topics", &listTopics}, {"list_windows", &listWindows}, {"get_tab", &getTab},
      {"add_note", &addNote},       {"set_reminder", &setReminder}, {"recent_tabs", &recentTabs},
  };
  return table;
}

}  // namespace

const nlohmann::json& MCPServer::toolDefinitions() {
  static const Json definitions = makeDefinitions();
  return definitions;
}

nlohmann::json MCPServer::callTool(std::string_view name, const nlohmann::json& arguments) {
  static const Json kNoArguments = Json::object();
  Json result = [&]() -> Json {
    LibraryData& data = library_.current([this] { searchCache_.clear(); });
    ToolCall call{library_, data, arguments.is_object() ? arguments : kNoArguments, searchCache_};
    if (name == "search_tabs") {
      if (!embedder_) {
        embedder_ = std::make_shared<Embedder>(true, library_.store().env());
      }
      return mcp::searchTabs(call.data, call.arguments, embedder_, &searchCache_);
    }
    auto tool = tools().find(name);
    if (tool == tools().end()) {
      return mcp::failResult("Unbekanntes Werkzeug: " + std::string(name));
    }
    return tool->second(call);
  }();
  giveBackFreedMemory(kKeepFreedBytes);
  return result;
}

}  // namespace kestrova
