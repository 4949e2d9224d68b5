// The choices of `kestrova sleep` and `kestrova reopen`, as the command line gives them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <kestrova/browser.h>
#include <kestrova/env.h>
#include <kestrova/store.h>

namespace kestrova::app {

// Which browser, and where to find it.
struct BrowserChoice {
  std::string browser = "chromium";  // "chromium", "firefox" or "demo"
  std::string devtools;              // Chromium: "PORT" or "HOST:PORT"
  std::string profile;               // the browser's profile folder
};

struct SleepCommand {
  BrowserChoice choice;
  std::string library;  // empty: the standard place
  bool oneWindow = false;
  bool noTopics = false;
  bool noContent = false;
  bool keepPinned = false;
  std::vector<std::string> pinned;
  bool noClose = false;
};

struct ReopenCommand {
  BrowserChoice choice;
  std::string library;
  std::string topic;
  std::string window;
  std::vector<std::string> tabIds;
  bool newWindow = false;
};

// The browser of `choice`; null for "demo". Throws BrowserError when it cannot be found.
std::unique_ptr<Browser> makeBrowser(const BrowserChoice& choice, Env& env);

// The store at `path`, or at the standard place when it is empty.
LibraryStore storeAt(const std::string& path, Env& env);

// The commands; each returns the process's exit status and writes its messages to the streams.
int runSleepCommand(const SleepCommand& command, std::ostream& out, std::ostream& err, Env& env);
int runReopenCommand(const ReopenCommand& command, std::ostream& out, std::ostream& err, Env& env);

}  // namespace kestrova::app
