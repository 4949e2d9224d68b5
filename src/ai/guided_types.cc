#include <cmath>
#include <limits>

#include <kestrova/guided_types.h>

namespace kestrova {
namespace {

Json stringProperty(const char* description) {
  return Json{{"type", "string"}, {"description", description}};
}

// An object schema whose properties are generated in the order given.
Json objectSchema(const char* title, Json properties) {
  Json required = Json::array();
  for (const auto& [key, value] : properties.items()) {
    required.push_back(key);
  }
  return Json{{"title", title},
              {"type", "object"},
              {"properties", std::move(properties)},
              {"required", std::move(required)},
              {"additionalProperties", false}};
}

const Json* member(const Json& content, const char* key) {
  if (!content.is_object()) {
    return nullptr;
  }
  auto it = content.find(key);
  return it == content.end() ? nullptr : &*it;
}

std::optional<std::string> stringMember(const Json& content, const char* key) {
  const Json* value = member(content, key);
  if (value == nullptr || !value->is_string()) {
    return std::nullopt;
  }
  return value->get<std::string>();
}

// Whole numbers, also when written as 3.0; anything else gives no value. Values beyond the range
// of int64 are pinned to its ends (no list is that long, so they stay invalid picks).
std::optional<std::int64_t> integerMember(const Json& content, const char* key) {
  const Json* value = member(content, key);
  if (value == nullptr) {
    return std::nullopt;
  }
  if (value->is_number_unsigned()) {
    const auto number = value->get<std::uint64_t>();
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return static_cast<std::int64_t>(number > kMax ? kMax : number);
  }
  if (value->is_number_integer()) {
    return value->get<std::int64_t>();
  }
  if (value->is_number_float()) {
    const double number = value->get<double>();
    if (!std::isfinite(number) || std::trunc(number) != number) {
      return std::nullopt;
    }
    if (number >= 9.2e18) {
      return std::numeric_limits<std::int64_t>::max();
    }
    if (number <= -9.2e18) {
      return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(number);
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> stringsMember(const Json& content, const char* key) {
  const Json* value = member(content, key);
  if (value == nullptr || !value->is_array()) {
    return std::nullopt;
  }
  std::vector<std::string> strings;
  for (const Json& element : *value) {
    if (!element.is_string()) {
      return std::nullopt;
    }
    strings.push_back(element.get<std::string>());
  }
  return strings;
}

}  // namespace

const GuidedType& TabSummary::guidedType() {
  static const GuidedType type{
      "TabSummary",
      objectSchema(
          "TabSummary",
          Json{
              {"summary", stringProperty("Genau ein deutscher Satz, höchstens 160 Zeichen: worum "
                                         "es auf der Seite geht.")},
              {"tags", Json{{"type", "array"},
                            {"description",
                             "Höchstens drei kurze Stichwörter zur Seite, je ein bis zwei Wörter."},
                            {"items", Json{{"type", "string"}}},
                            {"maxItems", 3}}}})};
  return type;
}

std::optional<TabSummary> TabSummary::fromGenerated(const Json& content) {
  auto summary = stringMember(content, "summary");
  auto tags = stringsMember(content, "tags");
  if (!summary || !tags) {
    return std::nullopt;
  }
  return TabSummary{std::move(*summary), std::move(*tags)};
}

const Json& ChatPick::schema() {
  static const Json schema = objectSchema(
      "ChatPick",
      Json{{"number", Json{{"type", "integer"},
                           {"description", "Nummer des Treffers aus der Liste (1 bis 8)."}}},
           {"reason",
            stringProperty("Ein kurzer deutscher Satz, warum dieser Tab zur Frage passt.")}});
  return schema;
}

std::optional<ChatPick> ChatPick::fromGenerated(const Json& content) {
  auto number = integerMember(content, "number");
  auto reason = stringMember(content, "reason");
  if (!number || !reason) {
    return std::nullopt;
  }
  return ChatPick{*number, std::move(*reason)};
}

const GuidedType& ChatReply::guidedType() {
  static const GuidedType type{
      "ChatReply",
      objectSchema(
          "ChatReply",
          Json{{"intro",
                stringProperty("Ein einleitender deutscher Satz als Antwort auf die Frage.")},
               {"picks", Json{{"type", "array"},
                              {"description", "Die bis zu drei passendsten Treffer."},
                              {"items", ChatPick::schema()},
                              {"maxItems", 3}}}})};
  return type;
}

std::optional<ChatReply> ChatReply::fromGenerated(const Json& content) {
  auto intro = stringMember(content, "intro");
  const Json* picks = member(content, "picks");
  if (!intro || picks == nullptr || !picks->is_array()) {
    return std::nullopt;
  }
  ChatReply reply{std::move(*intro), {}};
  for (const Json& element : *picks) {
    auto pick = ChatPick::fromGenerated(element);
    if (!pick) {
      return std::nullopt;
    }
    reply.picks.push_back(std::move(*pick));
  }
  return reply;
}

const GuidedType& TopicName::guidedType() {
  static const GuidedType type{
      "TopicName",
      objectSchema("TopicName", Json{{"name", stringProperty("Ein kurzer deutscher Themenname aus "
                                                             "zwei bis vier Wörtern, ohne "
                                                             "Anführungszeichen.")}})};
  return type;
}

std::optional<TopicName> TopicName::fromGenerated(const Json& content) {
  auto name = stringMember(content, "name");
  if (!name) {
    return std::nullopt;
  }
  return TopicName{std::move(*name)};
}

}  // namespace kestrova
