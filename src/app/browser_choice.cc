#include <kestrova/chromium_bridge.h>
#include <kestrova/firefox_session.h>

#include "app_options.h"

namespace kestrova::app {
namespace {

namespace fs = std::filesystem;

// Where Chromium-family browsers keep their profiles, under the user's configuration folder.
constexpr const char* kChromiumProfiles[] = {"chromium",           "google-chrome",
                                             "google-chrome-beta", "BraveSoftware/Brave-Browser",
                                             "microsoft-edge",     "vivaldi"};

fs::path configFolder(Env& env) {
  if (auto config = env.variable("XDG_CONFIG_HOME");
      config && !config->empty() && config->front() == '/') {
    return *config;
  }
  return fs::path(homeFolder(env).value_or("/")) / ".config";
}

DevToolsAddress chromiumAddress(const BrowserChoice& choice, Env& env) {
  if (!choice.devtools.empty()) {
    if (auto address = parseDevToolsAddress(choice.devtools)) {
      return *address;
    }
    throw BrowserError(
        BrowserError::Kind::notRunning,
        "«" + choice.devtools + "» ist keine DevTools-Adresse (PORT oder HOST:PORT).");
  }
  if (!choice.profile.empty()) {
    return readDevToolsActivePort(fs::path(choice.profile) / "DevToolsActivePort", env);
  }
  for (const char* profile : kChromiumProfiles) {
    const fs::path file = configFolder(env) / profile / "DevToolsActivePort";
    if (env.fileSystem().modificationDate(file)) {
      return readDevToolsActivePort(file, env);
    }
  }
  throw BrowserError(BrowserError::Kind::notRunning,
                     "Kein Chromium mit offenem DevTools-Port gefunden. Starte Chromium mit "
                     "--remote-debugging-port=9222 und gib --devtools 9222 an, oder nenne mit "
                     "--profile den Profilordner.");
}

}  // namespace

std::unique_ptr<Browser> makeBrowser(const BrowserChoice& choice, Env& env) {
  if (choice.browser == "demo") {
    return nullptr;
  }
  if (choice.browser == "firefox") {
    const fs::path profile =
        choice.profile.empty() ? firefoxDefaultProfile(env) : fs::path(choice.profile);
    return std::make_unique<FirefoxSession>(profile, env);
  }
  return std::make_unique<ChromiumBridge>(chromiumAddress(choice, env));
}

LibraryStore storeAt(const std::string& path, Env& env) {
  return path.empty() ? LibraryStore::standard(env) : LibraryStore(path, env);
}

}  // namespace kestrova::app
