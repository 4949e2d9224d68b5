#include <algorithm>
#include <charconv>
#include <set>

#include <kestrova/chromium_bridge.h>

#include "devtools_client.h"

namespace kestrova {
namespace {

using nlohmann::json;

// Pages of the browser itself: nothing there to save or to read again later.
bool isBrowserPage(std::string_view url) {
  for (std::string_view prefix : {"chrome:", "chrome-untrusted:", "devtools:", "about:", "edge:",
                                  "brave:", "chrome-search:"}) {
    if (url.rfind(prefix, 0) == 0) {
      return true;
    }
  }
  return url.empty();
}

std::string text(const json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

struct Page {
  std::string id;
  std::string title;
  std::string url;
};

// The page targets of a Target.getTargets result.
std::vector<Page> pagesOf(const json& result) {
  const auto infos = result.find("targetInfos");
  if (infos == result.end() || !infos->is_array()) {
    throw devtools::unexpected("Target.getTargets ohne targetInfos");
  }
  std::vector<Page> pages;
  for (const json& info : *infos) {
    if (!info.is_object() || text(info, "type") != "page") {
      continue;
    }
    Page page{text(info, "targetId"), text(info, "title"), text(info, "url")};
    if (!page.id.empty()) {
      pages.push_back(std::move(page));
    }
  }
  return pages;
}

devtools::Client connect(const DevToolsAddress& address, std::chrono::milliseconds timeout) {
  std::string path = address.browserPath;
  if (path.empty()) {
    const json version = json::parse(
        devtools::httpGet(address.host, address.port, "/json/version", timeout), nullptr, false);
    const std::string socket = version.is_object() ? text(version, "webSocketDebuggerUrl") : "";
    // ws://HOST:PORT/devtools/browser/ID: the path is what counts, the host is the one asked.
    const std::size_t scheme = socket.find("://");
    const std::size_t slash =
        scheme == std::string::npos ? std::string::npos : socket.find('/', scheme + 3);
    if (slash == std::string::npos) {
      throw devtools::unexpected("/json/version ohne webSocketDebuggerUrl");
    }
    path = socket.substr(slash);
  }
  return devtools::Client(address.host, address.port, path, timeout);
}

}  // namespace

std::optional<DevToolsAddress> parseDevToolsAddress(std::string_view value) {
  DevToolsAddress address;
  std::string_view port = value;
  if (!value.empty() && value.front() == '[') {
    const std::size_t close = value.find("]:");
    if (close == std::string_view::npos) {
      return std::nullopt;
    }
    address.host = std::string(value.substr(1, close - 1));
    port = value.substr(close + 2);
  } else if (const std::size_t colon = value.rfind(':'); colon != std::string_view::npos) {
    address.host = std::string(value.substr(0, colon));
    port = value.substr(colon + 1);
  }
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
  if (error != std::errc() || end != port.data() + port.size() || address.port < 1 ||
      address.port > 65535 || address.host.empty()) {
    return std::nullopt;
  }
  return address;
}

DevToolsAddress readDevToolsActivePort(const std::filesystem::path& file, Env& env) {
  const std::optional<std::string> bytes = env.fileSystem().readFile(file);
  const std::string content = bytes.value_or("");
  const std::size_t newline = content.find('\n');
  std::optional<DevToolsAddress> address = parseDevToolsAddress(content.substr(0, newline));
  if (!address) {
    throw BrowserError(BrowserError::Kind::notRunning,
                       "In «" + file.string() +
                           "» steht kein DevTools-Port. Starte den Browser mit "
                           "--remote-debugging-port=0 (oder einem festen Port) und versuche es "
                           "nochmals.");
  }
  if (newline != std::string::npos) {
    std::string path = content.substr(newline + 1);
    path.erase(
        std::find_if(path.begin(), path.end(), [](char c) { return c == '\n' || c == '\r'; }),
        path.end());
    if (path.rfind("/devtools/", 0) == 0) {
      address->browserPath = path;
    }
  }
  return *address;
}

ChromiumBridge::ChromiumBridge(DevToolsAddress address, std::chrono::milliseconds timeout)
    : address_(std::move(address)), timeout_(timeout) {}

std::vector<SafariWindow> ChromiumBridge::snapshotWindows() {
  devtools::Client client = connect(address_, timeout_);
  const std::vector<Page> pages = pagesOf(client.call("Target.getTargets"));
  std::map<std::int64_t, SafariWindow> byWindow;
  snapshotTargets_.clear();
  for (const Page& page : pages) {
    if (isBrowserPage(page.url)) {
      continue;
    }
    // The window a target belongs to; a browser too old to tell puts every tab into window 0.
    std::int64_t windowId = 0;
    try {
      const json window = client.call("Browser.getWindowForTarget", {{"targetId", page.id}});
      const auto id = window.find("windowId");
      if (id == window.end() || !id->is_number_integer()) {
        throw devtools::unexpected("Browser.getWindowForTarget ohne windowId");
      }
      windowId = id->get<std::int64_t>();
    } catch (const BrowserError& error) {
      if (error.kind() != BrowserError::Kind::protocol) {
        throw;
      }
    }
    SafariWindow& window = byWindow[windowId];
    window.tabs.push_back(SafariTab{page.title.empty() ? page.url : page.title, page.url,
                                    static_cast<std::int64_t>(window.tabs.size() + 1)});
    snapshotTargets_[page.url].push_back(page.id);
  }
  std::vector<SafariWindow> windows;
  for (auto& [id, window] : byWindow) {
    window.index = static_cast<std::int64_t>(windows.size() + 1);
    windows.push_back(std::move(window));
  }
  return windows;
}

std::int64_t ChromiumBridge::closeAllTabs(const std::vector<SafariWindow>& windows, bool keepPinned,
                                          const std::vector<std::string>& pinnedDomains) {
  std::set<std::string> wanted;
  for (const SafariWindow& window : windows) {
    for (const SafariTab& tab : window.tabs) {
      if (keepsOpen(tab, keepPinned, pinnedDomains)) {
        continue;
      }
      const auto targets = snapshotTargets_.find(tab.url);
      if (targets != snapshotTargets_.end()) {
        wanted.insert(targets->second.begin(), targets->second.end());
      }
    }
  }
  if (wanted.empty()) {
    return 0;
  }
  devtools::Client client = connect(address_, timeout_);
  std::int64_t closed = 0;
  for (const Page& page : pagesOf(client.call("Target.getTargets"))) {
    const auto targets = snapshotTargets_.find(page.url);
    const bool sameAddress =
        targets != snapshotTargets_.end() &&
        std::find(targets->second.begin(), targets->second.end(), page.id) != targets->second.end();
    if (wanted.count(page.id) == 0 || !sameAddress) {
      continue;
    }
    const json result = client.call("Target.closeTarget", {{"targetId", page.id}});
    const auto success = result.find("success");
    // Newer browsers answer an empty result; only an explicit false means it stayed open.
    if (success == result.end() || !success->is_boolean() || success->get<bool>()) {
      ++closed;
    }
  }
  return closed;
}

void ChromiumBridge::reopen(const std::vector<std::string>& urls, bool newWindow) {
  if (urls.empty()) {
    return;
  }
  devtools::Client client = connect(address_, timeout_);
  bool first = true;
  for (const std::string& url : urls) {
    try {
      client.call("Target.createTarget", {{"url", url}, {"newWindow", newWindow && first}});
      first = false;
    } catch (const BrowserError& error) {
      if (error.kind() != BrowserError::Kind::protocol) {
        throw;
      }
    }
  }
}

}  // namespace kestrova
