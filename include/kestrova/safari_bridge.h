// SafariBridge: the only place where Kestrova talks to Safari. It reads the open windows and tabs,
// counts them, closes tabs that were saved and opens saved addresses again, all through four
// AppleScript texts handed to a ScriptRunner.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/browser.h>
#include <kestrova/env.h>
#include <kestrova/process_launcher.h>
#include <kestrova/script_runner.h>

namespace kestrova {

class SerialQueue;

// Number of tabs, and of windows holding at least one tab.
struct SafariTabCount {
  std::int64_t tabs = 0;
  std::int64_t windows = 0;
  friend bool operator==(const SafariTabCount&, const SafariTabCount&) = default;
};

// The error every failing operation of the bridge throws. what() and description() give the German
// text to show the user.
class SafariError : public std::exception {
 public:
  enum class Kind { scriptFailed, notRunning, permissionDenied };

  static SafariError scriptFailed(std::int64_t code, std::string message);
  static SafariError notRunning();
  static SafariError permissionDenied();

  Kind kind() const { return kind_; }
  std::int64_t code() const { return code_; }              // scriptFailed only, else 0
  const std::string& message() const { return message_; }  // scriptFailed only, else ""
  const std::string& description() const { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

  friend bool operator==(const SafariError& a, const SafariError& b) {
    return a.kind_ == b.kind_ && a.code_ == b.code_ && a.message_ == b.message_;
  }

 private:
  SafariError(Kind kind, std::int64_t code, std::string message);

  Kind kind_;
  std::int64_t code_;
  std::string message_;
  std::string description_;
};

// The bridge. Each instance runs its scripts one at a time, in the order they were submitted, on
// its own serial queue; calls block until their script has run and may come from any thread. It
// runs its scripts with env.scriptRunner() and opens addresses with env.processLauncher(); the
// env is not owned and must outlive the bridge.
class SafariBridge : public Browser {
 public:
  std::string name() const override { return "Safari"; }
  static constexpr std::string_view bundleID = "com.apple.Safari";
  // The name of the bridge's serial queue.
  static constexpr std::string_view queueLabel = "app.kestrova.safari";

  // `hasBundleOpener` tells whether the platform's "open" command can open addresses with a given
  // application (macOS); elsewhere addresses go to the plain opener ("xdg-open").
  explicit SafariBridge(Env& env = Env::real(), bool hasBundleOpener = platformHasBundleOpener());
  ~SafariBridge();
  SafariBridge(const SafariBridge&) = delete;
  SafariBridge& operator=(const SafariBridge&) = delete;

  static bool platformHasBundleOpener();

  // True exactly when Safari runs. Asked on the caller's thread, not on the queue.
  bool isSafariRunning();

  // Reads all windows and tabs. Throws SafariError (notRunning when Safari does not run).
  std::vector<SafariWindow> snapshotWindows() override;

  // Counts tabs and windows with tabs; a result of unexpected shape gives (0, 0). Throws
  // SafariError.
  SafariTabCount countTabs();

  // Closes every tab whose address is exactly one of `savedURLs` and contains none of
  // `keepDomains` (lower-cased) as a substring; returns the number closed as Safari reported it
  // (0 when it reported nothing readable). Throws SafariError.
  std::int64_t closeTabs(const std::set<std::string>& savedURLs,
                         const std::vector<std::string>& keepDomains);

  // Closes the tabs of the given snapshot windows; `pinnedDomains` are kept open only when
  // `keepPinned` is true. Throws SafariError.
  std::int64_t closeAllTabs(const std::vector<SafariWindow>& windows, bool keepPinned,
                            const std::vector<std::string>& pinnedDomains) override;

  // Opens the addresses in Safari, starting it when needed: in a new window when `newWindow` is
  // true or Safari has none, otherwise as new tabs of the front window. An empty list does
  // nothing. Throws SafariError.
  void reopen(const std::vector<std::string>& urls, bool newWindow) override;

  // Opens the addresses without a script: all at once with Safari where the platform can name the
  // application, otherwise each with the default browser. Never fails; results are ignored.
  void openWithWorkspace(const std::vector<std::string>& urls);

  // The script texts, exactly as they are run. Exposed for tests and diagnostics.
  static const std::string& readScript();
  static const std::string& countScript();
  static std::string closeScript(const std::set<std::string>& savedURLs,
                                 const std::vector<std::string>& keepDomains);
  static std::string reopenScript(const std::vector<std::string>& urls, bool newWindow);

  // A value spliced into a script as one string literal: backslashes doubled, quotes escaped,
  // enclosed in double quotes.
  static std::string quoted(std::string_view value);

  // Reads a list value item by item as optional strings (see ScriptValue::stringValue); a single
  // non-list value gives a list of one.
  static std::vector<std::optional<std::string>> strings(const ScriptValue* value);

  // Turns the read script's result into windows. Malformed entries are skipped; "about:blank"
  // and "favorites:" tabs are dropped without renumbering; windows without kept tabs are dropped.
  static std::vector<SafariWindow> parseWindows(const ScriptValue& result);

  // Maps an AppleScript error to the bridge's error.
  static SafariError errorFor(const ScriptError& error);

 private:
  ScriptValue run(const std::string& source, bool requireRunning);

  ScriptRunner* runner_;
  ProcessLauncher* launcher_;
  bool hasBundleOpener_;
  std::unique_ptr<SerialQueue> queue_;
};

}  // namespace kestrova

template <>
struct std::hash<kestrova::SafariTab> {
  std::size_t operator()(const kestrova::SafariTab& tab) const noexcept;
};

template <>
struct std::hash<kestrova::SafariWindow> {
  std::size_t operator()(const kestrova::SafariWindow& window) const noexcept;
};
