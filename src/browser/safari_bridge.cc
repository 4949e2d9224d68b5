#include <algorithm>
#include <functional>

#include <kestrova/safari_bridge.h>
#include <kestrova/unicode.h>

#include "serial_queue.h"

namespace kestrova {
namespace {

std::string joinLines(std::initializer_list<std::string_view> lines) {
  std::string out;
  for (std::string_view line : lines) {
    if (!out.empty()) {
      out.push_back('\n');
    }
    out.append(line);
  }
  return out;
}

template <typename Range, typename Transform>
std::string quotedList(const Range& values, Transform transform) {
  std::string out;
  for (const auto& value : values) {
    if (!out.empty()) {
      out.append(", ");
    }
    out.append(SafariBridge::quoted(transform(value)));
  }
  return out;
}

std::string describe(SafariError::Kind kind, std::int64_t code, const std::string& message) {
  switch (kind) {
    case SafariError::Kind::scriptFailed:
      return "Safari hat nicht geantwortet (Fehler " + std::to_string(code) + "): " + message;
    case SafariError::Kind::notRunning:
      return "Safari ist nicht geöffnet. Öffne Safari und versuche es nochmals.";
    case SafariError::Kind::permissionDenied:
      return "Kestrova darf Safari noch nicht steuern. Erlauben: Systemeinstellungen → "
             "Datenschutz & Sicherheit → Automation → Kestrova → Safari einschalten.";
  }
  return message;
}

}  // namespace

// --- SafariError ---

SafariError::SafariError(Kind kind, std::int64_t code, std::string message)
    : kind_(kind),
      code_(code),
      message_(std::move(message)),
      description_(describe(kind_, code_, message_)) {}

SafariError SafariError::scriptFailed(std::int64_t code, std::string message) {
  return SafariError(Kind::scriptFailed, code, std::move(message));
}

SafariError SafariError::notRunning() {
  return SafariError(Kind::notRunning, 0, {});
}

SafariError SafariError::permissionDenied() {
  return SafariError(Kind::permissionDenied, 0, {});
}

// --- SafariBridge ---

SafariBridge::SafariBridge(Env& env, bool hasBundleOpener)
    : runner_(&env.scriptRunner()),
      launcher_(&env.processLauncher()),
      hasBundleOpener_(hasBundleOpener),
      queue_(std::make_unique<SerialQueue>(std::string(queueLabel))) {}

SafariBridge::~SafariBridge() = default;

bool SafariBridge::platformHasBundleOpener() {
#ifdef __APPLE__
  return true;
#else
  return false;
#endif
}

bool SafariBridge::isSafariRunning() {
  return runner_->isApplicationRunning(bundleID);
}

const std::string& SafariBridge::readScript() {
  static const std::string script = joinLines({
      "tell application \"Safari\"",
      "    set out to {}",
      "    set wi to 0",
      "    repeat with w in (every window)",
      "        set wi to wi + 1",
      "        try",
      "            set us to URL of every tab of w",
      "            set ns to name of every tab of w",
      "            set end of out to {wi, us, ns}",
      "        end try",
      "    end repeat",
      "    return out",
      "end tell",
  });
  return script;
}

const std::string& SafariBridge::countScript() {
  static const std::string script = joinLines({
      "tell application \"Safari\"",
      "    set total to 0",
      "    set wc to 0",
      "    repeat with w in (every window)",
      "        try",
      "            set c to count of tabs of w",
      "            if c > 0 then",
      "                set total to total + c",
      "                set wc to wc + 1",
      "            end if",
      "        end try",
      "    end repeat",
      "    return {total, wc}",
      "end tell",
  });
  return script;
}

std::string SafariBridge::closeScript(const std::set<std::string>& savedURLs,
                                      const std::vector<std::string>& keepDomains) {
  // std::set iterates in ascending byte order, which for UTF-8 is code point order.
  std::string saved = quotedList(savedURLs, [](const std::string& s) { return s; });
  std::string keep =
      quotedList(keepDomains, [](const std::string& s) { return unicode::toLower(s); });
  std::string head = "tell application \"Safari\"\n    set saved to {" + saved +
                     "}\n    set keepList to {" + keep + "}\n";
  return head + joinLines({
                    "    set closedCount to 0",
                    "    set wins to every window",
                    "    repeat with wi from (count of wins) to 1 by -1",
                    "        set w to item wi of wins",
                    "        try",
                    "            set tc to count of tabs of w",
                    "            repeat with ti from tc to 1 by -1",
                    "                try",
                    "                    set t to tab ti of w",
                    "                    set u to URL of t",
                    "                    set keepIt to false",
                    "                    repeat with k in keepList",
                    "                        if u contains (k as text) then set keepIt to true",
                    "                    end repeat",
                    "                    if (not keepIt) and (saved contains u) then",
                    "                        close t",
                    "                        set closedCount to closedCount + 1",
                    "                    end if",
                    "                end try",
                    "            end repeat",
                    "        end try",
                    "    end repeat",
                    "    return closedCount",
                    "end tell",
                });
}

std::string SafariBridge::reopenScript(const std::vector<std::string>& urls, bool newWindow) {
  std::string list = quotedList(urls, [](const std::string& s) { return s; });
  std::string head = "tell application \"Safari\"\n    set theURLs to {" + list + "}\n" +
                     (newWindow ? "    set useNew to true\n" : "    set useNew to false\n");
  return head +
         joinLines({
             "    if useNew or (count of windows) is 0 then",
             "        make new document with properties {URL:(item 1 of theURLs)}",
             "        set startAt to 2",
             "    else",
             "        set startAt to 1",
             "    end if",
             "    tell front window",
             "        repeat with i from startAt to (count of theURLs)",
             "            make new tab at end of tabs with properties {URL:(item i of theURLs)}",
             "        end repeat",
             "    end tell",
             "    activate",
             "end tell",
         });
}

std::string SafariBridge::quoted(std::string_view value) {
  // Backslashes first, so the ones added before quotes are not doubled again.
  std::string out;
  out.reserve(value.size() + 2);
  out.push_back('"');
  for (char c : value) {
    if (c == '\\') {
      out.append("\\\\");
    } else if (c == '"') {
      out.append("\\\"");
    } else {
      out.push_back(c);
    }
  }
  out.push_back('"');
  return out;
}

std::vector<std::optional<std::string>> SafariBridge::strings(const ScriptValue* value) {
  std::vector<std::optional<std::string>> out;
  if (value == nullptr) {
    return out;
  }
  if (value->kind != ScriptValue::Kind::list && value->itemCount() == 0) {
    out.push_back(value->stringValue());
    return out;
  }
  std::size_t count = value->itemCount();
  out.reserve(count);
  for (std::size_t i = 1; i <= count; ++i) {
    const ScriptValue* item = value->item(i);
    out.push_back(item != nullptr ? item->stringValue() : std::nullopt);
  }
  return out;
}

std::vector<SafariWindow> SafariBridge::parseWindows(const ScriptValue& result) {
  std::vector<SafariWindow> windows;
  std::size_t count = result.itemCount();
  for (std::size_t p = 1; p <= count; ++p) {
    const ScriptValue* entry = result.item(p);
    if (entry == nullptr || entry->itemCount() < 3) {
      continue;
    }
    const ScriptValue* number = entry->item(1);
    SafariWindow window;
    window.index = number != nullptr ? number->int32Value() : static_cast<std::int64_t>(p);
    std::vector<std::optional<std::string>> urls = strings(entry->item(2));
    std::vector<std::optional<std::string>> names = strings(entry->item(3));
    for (std::size_t i = 0; i < urls.size(); ++i) {
      const std::optional<std::string>& url = urls[i];
      if (!url || url->empty() || url->starts_with("favorites:") || *url == "about:blank") {
        continue;
      }
      std::string title = i < names.size() && names[i] ? *names[i] : *url;
      window.tabs.push_back(SafariTab{std::move(title), *url, static_cast<std::int64_t>(i + 1)});
    }
    if (!window.tabs.empty()) {
      windows.push_back(std::move(window));
    }
  }
  return windows;
}

SafariError SafariBridge::errorFor(const ScriptError& error) {
  switch (error.number) {
    case -1743:
    case -1744:
      return SafariError::permissionDenied();
    case -600:
    case -609:
      return SafariError::notRunning();
    default:
      return SafariError::scriptFailed(error.number, error.message.value_or("unbekannt"));
  }
}

ScriptValue SafariBridge::run(const std::string& source, bool requireRunning) {
  if (requireRunning && !isSafariRunning()) {
    throw SafariError::notRunning();
  }
  ScriptOutcome outcome = queue_->run([&]() -> ScriptOutcome {
    // A text the script engine could not even take in (bytes that are no UTF-8, a NUL byte).
    if (!unicode::isValidUtf8(source) || source.find('\0') != std::string::npos) {
      return ScriptError{0, "Skript ungültig"};
    }
    return runner_->run(source);
  });
  if (auto* error = std::get_if<ScriptError>(&outcome)) {
    throw errorFor(*error);
  }
  return std::move(std::get<ScriptValue>(outcome));
}

std::vector<SafariWindow> SafariBridge::snapshotWindows() {
  return parseWindows(run(readScript(), true));
}

SafariTabCount SafariBridge::countTabs() {
  ScriptValue result = run(countScript(), true);
  const ScriptValue* tabs = result.item(1);
  const ScriptValue* windows = result.item(2);
  if (result.itemCount() < 2 || tabs == nullptr || windows == nullptr ||
      tabs->kind == ScriptValue::Kind::missingValue ||
      windows->kind == ScriptValue::Kind::missingValue) {
    return {};
  }
  return SafariTabCount{tabs->int32Value(), windows->int32Value()};
}

std::int64_t SafariBridge::closeTabs(const std::set<std::string>& savedURLs,
                                     const std::vector<std::string>& keepDomains) {
  return run(closeScript(savedURLs, keepDomains), true).int32Value();
}

std::int64_t SafariBridge::closeAllTabs(const std::vector<SafariWindow>& windows, bool keepPinned,
                                        const std::vector<std::string>& pinnedDomains) {
  std::set<std::string> urls;
  for (const SafariWindow& window : windows) {
    for (const SafariTab& tab : window.tabs) {
      urls.insert(tab.url);
    }
  }
  return closeTabs(urls, keepPinned ? pinnedDomains : std::vector<std::string>{});
}

void SafariBridge::reopen(const std::vector<std::string>& urls, bool newWindow) {
  if (urls.empty()) {
    return;
  }
  run(reopenScript(urls, newWindow), false);
}

void SafariBridge::openWithWorkspace(const std::vector<std::string>& input) {
  // An address never begins with "-"; such a value would be read as an option of the opener.
  std::vector<std::string> urls;
  for (const std::string& url : input) {
    if (!url.empty() && url.front() != '-') {
      urls.push_back(url);
    }
  }
  if (urls.empty()) {
    return;
  }
  if (hasBundleOpener_) {
    // "open -b" fails when no application has the bundle identifier; then the default browser
    // takes the addresses, one by one, as below.
    std::vector<std::string> argv = {"open", "-b", std::string(bundleID)};
    argv.insert(argv.end(), urls.begin(), urls.end());
    std::optional<int> status = launcher_->run(argv);
    if (status && *status == 0) {
      return;
    }
  }
  const std::string opener = hasBundleOpener_ ? "open" : "xdg-open";
  for (const std::string& url : urls) {
    launcher_->run({opener, url});
  }
}

}  // namespace kestrova

std::size_t std::hash<kestrova::SafariTab>::operator()(
    const kestrova::SafariTab& tab) const noexcept {
  std::size_t h = std::hash<std::string>{}(tab.title);
  h = h * 31 + std::hash<std::string>{}(tab.url);
  return h * 31 + std::hash<std::int64_t>{}(tab.index);
}

std::size_t std::hash<kestrova::SafariWindow>::operator()(
    const kestrova::SafariWindow& window) const noexcept {
  std::size_t h = std::hash<std::int64_t>{}(window.index);
  for (const kestrova::SafariTab& tab : window.tabs) {
    h = h * 31 + std::hash<kestrova::SafariTab>{}(tab);
  }
  return h;
}
