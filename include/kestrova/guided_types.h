// The small records Kestrova asks the language model to generate, each with its schema (field
// descriptions in German, the at-most-three guides) and its reading of a generated JSON object.
// Reading is strict: a record whose fields are missing or of the wrong kind gives no value, and
// the caller then takes its keyword path. Plain values; the schemas are built once and immutable.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <kestrova/language_model.h>

namespace kestrova {

// A one-sentence summary of a web page and a few tags.
struct TabSummary {
  std::string summary;
  std::vector<std::string> tags;

  static const GuidedType& guidedType();
  static std::optional<TabSummary> fromGenerated(const Json& content);
};

// One hit the model chose for a chat answer: its number in the list shown and why it fits.
struct ChatPick {
  std::int64_t number = 0;
  std::string reason;

  static const Json& schema();
  static std::optional<ChatPick> fromGenerated(const Json& content);
};

// A chat answer: an introductory sentence and up to three picks.
struct ChatReply {
  std::string intro;
  std::vector<ChatPick> picks;

  static const GuidedType& guidedType();
  static std::optional<ChatReply> fromGenerated(const Json& content);
};

// The name of a topic of saved tabs.
struct TopicName {
  std::string name;

  static const GuidedType& guidedType();
  static std::optional<TopicName> fromGenerated(const Json& content);
};

}  // namespace kestrova
