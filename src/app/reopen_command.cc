#include <algorithm>
#include <ostream>
#include <variant>

#include <kestrova/fmt.h>
#include <kestrova/unicode.h>

#include "app_options.h"

namespace kestrova::app {
namespace {

// The ids of the tabs the command names, in the library's order for a topic or window and in the
// given order for ids; a message when something named does not exist.
std::variant<std::vector<Uuid>, std::string> chosenTabs(const ReopenCommand& command,
                                                        const LibraryData& data) {
  const auto same = [](std::string_view a, std::string_view b) {
    return unicode::toLower(a) == unicode::toLower(b);
  };
  if (!command.topic.empty()) {
    for (const Topic& topic : data.topics) {
      if (same(topic.name, command.topic) || topic.id.string() == unicode::toLower(command.topic)) {
        return topic.tabIds;
      }
    }
    return "Kein Thema «" + command.topic + "» in der Bibliothek.";
  }
  if (!command.window.empty()) {
    for (const SavedWindow& window : data.windows) {
      if (same(window.title, command.window) ||
          window.id.string() == unicode::toLower(command.window)) {
        return window.tabIds;
      }
    }
    return "Kein Fenster «" + command.window + "» in der Bibliothek.";
  }
  std::vector<Uuid> ids;
  for (const std::string& text : command.tabIds) {
    const std::optional<Uuid> id = Uuid::parse(text);
    if (!id || data.tab(*id) == nullptr) {
      return "Kein Tab «" + text + "» in der Bibliothek.";
    }
    ids.push_back(*id);
  }
  return ids;
}

}  // namespace

int runReopenCommand(const ReopenCommand& command, std::ostream& out, std::ostream& err, Env& env) {
  if (command.choice.browser == "demo") {
    err << "Mit --browser demo lässt sich nichts öffnen: Wähle chromium oder firefox.\n";
    return 1;
  }
  Library library(storeAt(command.library, env));
  const auto chosen = chosenTabs(command, library.data());
  if (const auto* message = std::get_if<std::string>(&chosen)) {
    err << *message << "\n";
    return 1;
  }
  const auto& ids = std::get<std::vector<Uuid>>(chosen);
  std::vector<std::string> urls;
  for (const Uuid& id : ids) {
    if (const SavedTab* tab = library.data().tab(id)) {
      urls.push_back(tab->url);
    }
  }
  if (urls.empty()) {
    err << "Keine Tabs zum Öffnen.\n";
    return 1;
  }
  try {
    makeBrowser(command.choice, env)->reopen(urls, command.newWindow);
  } catch (const BrowserError& error) {
    err << error.what() << "\n";
    return 1;
  }
  // A tab opened again counts as read: hints leave it alone from now on.
  const Date now = std::chrono::floor<std::chrono::seconds>(env.now());
  library.mutate([&](LibraryData& data) {
    for (const Uuid& id : ids) {
      if (SavedTab* tab = data.tab(id)) {
        tab->readAt = now;
      }
    }
  });
  out << (urls.size() == 1 ? std::string("1 Tab")
                           : Fmt::number(static_cast<std::int64_t>(urls.size())) + " Tabs")
      << " wieder geöffnet.\n";
  if (library.lastError()) {
    err << *library.lastError() << "\n";
  }
  return 0;
}

}  // namespace kestrova::app
