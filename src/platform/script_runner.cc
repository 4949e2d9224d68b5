// The real script runner: `osascript -ss` as a child process.

#include <kestrova/script_runner.h>

#include "child_process.h"

namespace kestrova {
namespace {

// AppleScript's error numbers for a target application that is not running and for a time-out.
constexpr std::int64_t kNotRunning = -600;
constexpr std::int64_t kTimedOut = -1712;

std::string literal(std::string_view value) {
  std::string out = "\"";
  for (char c : value) {
    if (c == '\\' || c == '"') {
      out.push_back('\\');
    }
    out.push_back(c);
  }
  out.push_back('"');
  return out;
}

}  // namespace

OsascriptRunner::OsascriptRunner(std::string program, std::chrono::milliseconds timeout)
    : program_(std::move(program)), timeout_(timeout) {}

bool OsascriptRunner::isApplicationRunning(std::string_view bundleID) {
  // "is running" asks the system without launching the application.
  ScriptOutcome outcome = run("application id " + literal(bundleID) + " is running");
  const auto* value = std::get_if<ScriptValue>(&outcome);
  return value != nullptr && value->kind == ScriptValue::Kind::boolean && value->boolean;
}

ScriptOutcome OsascriptRunner::run(std::string_view source) {
  std::optional<std::string> executable = process::findExecutable(program_);
  if (!executable) {
    return ScriptError{kNotRunning, "osascript nicht gefunden"};
  }
  // The source goes through standard input: no shell, no quoting, no limit on argument length.
  process::ChildResult child = process::runChild(*executable, {program_, "-ss"}, source, timeout_);
  if (!child.started) {
    return ScriptError{kNotRunning, "osascript konnte nicht gestartet werden"};
  }
  if (child.timedOut) {
    return ScriptError{kTimedOut, "Zeitüberschreitung"};
  }
  if (child.exitStatus != 0) {
    return parseScriptError(child.err);
  }
  std::string_view out = child.out;
  // osascript ends its output with one line feed.
  if (!out.empty() && out.back() == '\n') {
    out.remove_suffix(1);
  }
  auto parsed = parseScriptResult(out);
  if (auto* value = std::get_if<ScriptValue>(&parsed)) {
    return std::move(*value);
  }
  // A result we cannot read is kept as raw text: callers treat unexpected shapes as "nothing".
  ScriptValue raw;
  raw.kind = ScriptValue::Kind::other;
  raw.text.assign(out);
  return raw;
}

}  // namespace kestrova
