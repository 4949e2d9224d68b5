// ChromiumBridge: Chromium, Chrome, Brave, Edge and every other Chromium-family browser, reached
// through the DevTools protocol of a browser started with --remote-debugging-port. It lists the
// page targets (the tabs) with their titles and addresses, grouped by the browser window each
// belongs to, closes targets by id and opens addresses.
//
// A browser writes the port it listens on, and the path of its DevTools WebSocket, into the file
// "DevToolsActivePort" of its profile folder; where only a port is known, the WebSocket is asked
// for at http://HOST:PORT/json/version.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/browser.h>
#include <kestrova/env.h>

namespace kestrova {

// Where a browser's DevTools protocol is.
struct DevToolsAddress {
  std::string host = "127.0.0.1";
  int port = 0;
  // The browser's WebSocket path ("/devtools/browser/<id>"); empty: ask /json/version.
  std::string browserPath;
  friend bool operator==(const DevToolsAddress&, const DevToolsAddress&) = default;
};

// "9222", "HOST:9222" or "[::1]:9222"; no value for anything else (a port must be 1 to 65535).
std::optional<DevToolsAddress> parseDevToolsAddress(std::string_view text);

// The address a browser wrote into `file` (its profile's DevToolsActivePort: the port on the
// first line, the WebSocket path on the second), read through env.fileSystem(). Throws
// BrowserError (notRunning) when the file is missing or does not hold a port.
DevToolsAddress readDevToolsActivePort(const std::filesystem::path& file, Env& env = Env::real());

class ChromiumBridge : public Browser {
 public:
  explicit ChromiumBridge(DevToolsAddress address,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10));

  std::string name() const override { return "Chromium"; }

  // The page targets, by window (windows in the order the browser numbers them), each window's
  // tabs in the order the browser lists them. Pages of the browser itself (chrome:, devtools:,
  // about:) are left out. Throws BrowserError.
  std::vector<SafariWindow> snapshotWindows() override;

  // Closes the targets of the last snapshot that belong to the given windows' tabs and still
  // show the same address (a tab navigated elsewhere since stays open). Throws BrowserError.
  std::int64_t closeAllTabs(const std::vector<SafariWindow>& windows, bool keepPinned,
                            const std::vector<std::string>& pinnedDomains) override;

  // Opens each address as a new target; with `newWindow` the first one opens a new window and
  // the others follow it there. Addresses the browser refuses are skipped. Throws BrowserError
  // when the browser cannot be reached.
  void reopen(const std::vector<std::string>& urls, bool newWindow) override;

 private:
  DevToolsAddress address_;
  std::chrono::milliseconds timeout_;
  // Target ids of the last snapshot's tabs, by address.
  std::map<std::string, std::vector<std::string>> snapshotTargets_;
};

}  // namespace kestrova
