// The browser script runner: the seam between Kestrova and the platform's AppleScript engine.
//
// A ScriptRunner takes the source text of one AppleScript and gives back either the script's
// result as a ScriptValue tree (nested lists of strings and numbers, "missing value", ...) or the
// AppleScript error number and message. The browser bridge is written against this interface; the
// real runner starts `osascript`, and tests pass a fake that records the texts it is given.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace kestrova {

// One value of a script result. A plain value type; the tree owns its children.
struct ScriptValue {
  enum class Kind {
    nothing,       // the script returned no value at all
    missingValue,  // AppleScript's `missing value`
    boolean,
    integer,
    real,
    string,
    list,
    record,  // {key:value, ...}; the fields keep their order
    other,   // any other object (a date, an application reference, raw data ...) as source text
  };

  Kind kind = Kind::nothing;
  bool boolean = false;
  std::int64_t integer = 0;
  double real = 0.0;
  std::string text;                // string: its text; other: its source form
  std::vector<ScriptValue> items;  // list
  std::vector<std::pair<std::string, ScriptValue>> fields;  // record

  static ScriptValue makeString(std::string s);
  static ScriptValue makeInteger(std::int64_t i);
  static ScriptValue makeList(std::vector<ScriptValue> items);
  static ScriptValue makeMissing();

  // Number of items: the elements of a list, the fields of a record, 0 for anything else.
  std::size_t itemCount() const;
  // The item at the 1-based `position`, or nullptr when there is none.
  const ScriptValue* item(std::size_t position) const;
  // The value coerced to text as AppleScript would: strings as they are, numbers in decimal,
  // booleans as "true"/"false". No value for lists, records, `missing value`, nothing and others.
  std::optional<std::string> stringValue() const;
  // The value coerced to a 32-bit integer: integers and reals in range (reals truncated), and
  // strings that hold a decimal integer in range; 0 for everything else.
  std::int32_t int32Value() const;

  friend bool operator==(const ScriptValue&, const ScriptValue&) = default;
};

// Why a result text could not be read: the byte offset where reading stopped, and a German reason.
struct ScriptParseError {
  std::size_t offset = 0;
  std::string message;
  friend bool operator==(const ScriptParseError&, const ScriptParseError&) = default;
};

// Reads a result printed in AppleScript source form (`osascript -ss`): `{...}` lists and records,
// quoted strings with the escapes \" \\ \n \r \t, integers, reals, true/false, `missing value`;
// any other object is kept as Kind::other with its source text. Empty input (blanks only) gives
// Kind::nothing. Never throws and never recurses without bound: any input gives a tree or a
// ScriptParseError (unterminated string, unbalanced braces, nesting deeper than 256 levels, text
// after the value). Invalid UTF-8 is repaired to U+FFFD before reading.
std::variant<ScriptValue, ScriptParseError> parseScriptResult(std::string_view text);

// An AppleScript error: its number (0 when none was given) and message (absent when none).
struct ScriptError {
  std::int64_t number = 0;
  std::optional<std::string> message;
  friend bool operator==(const ScriptError&, const ScriptError&) = default;
};

// Reads osascript's error output, e.g. "12:40: execution error: Safari got an error: ... (-1743)":
// the number is the integer in parentheses at the end and the message the text between the
// "error: " marker and the number. Output without a marker gives number 0 and the whole trimmed
// text as message; empty output gives number 0 and no message.
ScriptError parseScriptError(std::string_view errorOutput);

// What running one script gives: its result or its error.
using ScriptOutcome = std::variant<ScriptValue, ScriptError>;

// The interface. Implementations must allow calls from any thread; the bridge makes sure that it
// runs one script at a time itself.
class ScriptRunner {
 public:
  virtual ~ScriptRunner() = default;

  // True when an application with this bundle identifier is running. False when that cannot be
  // found out (no script engine on this system).
  virtual bool isApplicationRunning(std::string_view bundleID) = 0;

  // Compiles and runs `source`. Every failure, including a missing script engine, comes back as a
  // ScriptError; nothing throws.
  virtual ScriptOutcome run(std::string_view source) = 0;
};

// The real runner: `osascript -ss` as a child process, started without a shell, with the source on
// its standard input. Where no `osascript` is found on PATH, no application counts as running and
// run() gives error -600 ("application isn't running"). A script that is still running after
// `timeout` is killed and gives error -1712 (AppleScript's "timed out"). Thread-safe; holds no
// state besides its settings.
class OsascriptRunner : public ScriptRunner {
 public:
  explicit OsascriptRunner(std::string program = "osascript",
                           std::chrono::milliseconds timeout = std::chrono::minutes(3));

  bool isApplicationRunning(std::string_view bundleID) override;
  ScriptOutcome run(std::string_view source) override;

 private:
  std::string program_;
  std::chrono::milliseconds timeout_;
};

}  // namespace kestrova
