// Browser: what a sleep run needs of a web browser — read its open windows and tabs, close the
// tabs that were saved, open saved addresses again. SafariBridge (macOS), ChromiumBridge (any
// Chromium-family browser through its DevTools port) and FirefoxSession (Firefox's session file)
// are the implementations; a run and the application see only this interface.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrova {

// One tab as the browser reported it (the records keep the name of the first bridge, Safari's).
struct SafariTab {
  std::string title;  // the tab's name; its address when Safari reported no name
  std::string url;    // the address exactly as Safari reported it
  // 1-based position in the window's tab list, counted over all tabs including skipped ones.
  std::int64_t index = 0;
  // Shown pinned by the browser (Firefox tells; Safari's scripts and Chromium's protocol do not).
  bool pinned = false;
  friend bool operator==(const SafariTab&, const SafariTab&) = default;
};

// One window with the tabs that were kept, in the browser's order.
struct SafariWindow {
  // The window's 1-based position in Safari's window list at the moment of reading.
  std::int64_t index = 0;
  std::vector<SafariTab> tabs;
  friend bool operator==(const SafariWindow&, const SafariWindow&) = default;
};

// A browser that cannot be reached or answered what it should not. what() is the German text for
// the user. Safari's own errors stay SafariError.
class BrowserError : public std::runtime_error {
 public:
  enum class Kind {
    notRunning,  // nothing answers where the browser should be
    protocol,    // an answer that is not what the browser's protocol promises
    unreadable,  // a file of the browser's that is missing, damaged or of an unknown kind
  };
  BrowserError(Kind kind, const std::string& description)
      : std::runtime_error(description), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

class Browser {
 public:
  virtual ~Browser() = default;

  // The browser's name as the user knows it ("Safari", "Chromium", "Firefox").
  virtual std::string name() const = 0;

  // All windows with their tabs, in the browser's order. Throws SafariError or BrowserError.
  virtual std::vector<SafariWindow> snapshotWindows() = 0;

  // False for a browser that cannot be told from outside to close tabs; closeAllTabs then closes
  // nothing and the tabs stay open.
  virtual bool canCloseTabs() const { return true; }

  // Closes the tabs of the given snapshot windows that are still open at the same address,
  // except, when `keepPinned` is true, pinned tabs and tabs whose address contains one of
  // `pinnedDomains` (case ignored). Returns the number closed. Throws SafariError or BrowserError.
  virtual std::int64_t closeAllTabs(const std::vector<SafariWindow>& windows, bool keepPinned,
                                    const std::vector<std::string>& pinnedDomains) = 0;

  // Opens the addresses again: in a new window when `newWindow` is true, otherwise as new tabs of
  // the front window. An empty list does nothing. Throws SafariError or BrowserError.
  virtual void reopen(const std::vector<std::string>& urls, bool newWindow) = 0;
};

// True when a run with these options leaves `tab` open: `keepPinned` and the tab pinned, or its
// address holding one of `pinnedDomains` (both lower-cased; empty entries count for nothing).
bool keepsOpen(const SafariTab& tab, bool keepPinned,
               const std::vector<std::string>& pinnedDomains);

}  // namespace kestrova
