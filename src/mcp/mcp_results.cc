#include "mcp_results.h"

#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include <kestrova/fmt.h>

namespace kestrova::mcp {

std::optional<std::string> stringArgument(const Json& arguments, std::string_view key) {
  if (!arguments.is_object()) {
    return std::nullopt;
  }
  auto it = arguments.find(key);
  if (it == arguments.end() || !it->is_string()) {
    return std::nullopt;
  }
  return it->get<std::string>();
}

std::optional<std::int64_t> integerArgument(const Json& arguments, std::string_view key) {
  if (!arguments.is_object()) {
    return std::nullopt;
  }
  auto it = arguments.find(key);
  if (it == arguments.end()) {
    return std::nullopt;
  }
  if (it->is_number_unsigned()) {
    auto value = it->get<std::uint64_t>();
    if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return std::nullopt;
    }
    return static_cast<std::int64_t>(value);
  }
  if (it->is_number_integer()) {
    return it->get<std::int64_t>();
  }
  if (it->is_number_float()) {
    // Clients written in languages without an integer type send 7 as 7.0; that is still 7.
    const double value = it->get<double>();
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (!std::isfinite(value) || value != std::trunc(value) || value < -kLimit || value >= kLimit) {
      return std::nullopt;
    }
    return static_cast<std::int64_t>(value);
  }
  return std::nullopt;
}

std::optional<std::size_t> findTab(const Json& arguments, const LibraryData& data) {
  std::optional<std::string> text = stringArgument(arguments, "id");
  if (!text) {
    return std::nullopt;
  }
  std::optional<Uuid> id = Uuid::parse(*text);
  if (!id) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < data.tabs.size(); ++i) {
    if (data.tabs[i].id == *id) {
      return i;
    }
  }
  return std::nullopt;
}

Json brief(const SavedTab& tab, const LibraryData& data) {
  Json out = Json::object();
  out["id"] = tab.id.string();
  out["title"] = tab.title;
  out["url"] = tab.url;
  out["domain"] = tab.domain;
  out["savedAt"] = Fmt::iso(tab.savedAt);
  out["summary"] = tab.summary;
  out["tags"] = tab.tags;
  if (const Topic* topic = data.topic(tab)) {
    out["topic"] = topic->name;
  }
  if (const SavedWindow* window = data.window(tab)) {
    out["window"] = window->title;
  }
  if (!tab.note.empty()) {
    out["note"] = tab.note;
  }
  if (tab.reminderAt) {
    out["reminderAt"] = Fmt::iso(*tab.reminderAt);
  }
  if (!tab.projectTags.empty()) {
    out["projects"] = tab.projectTags;
  }
  out["read"] = tab.readAt.has_value();
  return out;
}

bool nestsDeeperThan(const Json& value, std::size_t limit) {
  std::vector<std::pair<const Json*, std::size_t>> pending{{&value, 0}};
  while (!pending.empty()) {
    auto [node, depth] = pending.back();
    pending.pop_back();
    if (!node->is_structured()) {
      continue;
    }
    if (depth + 1 > limit) {
      return true;
    }
    for (const Json& child : *node) {
      if (child.is_structured()) {
        pending.emplace_back(&child, depth + 1);
      }
    }
  }
  return false;
}

std::string prettyJson(const Json& value) {
  if (nestsDeeperThan(value, kMaxSerialisedDepth)) {
    return "";
  }
  std::string plain;
  try {
    plain = value.dump(2, ' ', false, Json::error_handler_t::replace);
  } catch (const std::exception&) {
    return "";
  }
  // Outside strings JSON has no "/", so escaping every one of them escapes exactly those inside.
  std::string out;
  out.reserve(plain.size() + plain.size() / 16);
  for (char c : plain) {
    if (c == '/') {
      out += "\\/";
    } else {
      out += c;
    }
  }
  return out;
}

Json textResult(const Json& value) {
  return Json{{"content", Json::array({Json{{"type", "text"}, {"text", prettyJson(value)}}})},
              {"isError", false}};
}

Json failResult(std::string_view message) {
  return Json{{"content", Json::array({Json{{"type", "text"}, {"text", std::string(message)}}})},
              {"isError", true}};
}

}  // namespace kestrova::mcp
