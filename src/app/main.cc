// kestrova: puts the open tabs of Chromium or Firefox to sleep into the tab library, and opens
// saved tabs again.
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "app_options.h"

namespace {

// The conventional exit status for a command-line usage error.
constexpr int kUsageError = 64;

const CLI::App* reached(const CLI::App& root) {
  const CLI::App* app = &root;
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
  }
  return app;
}

void addBrowserOptions(CLI::App& command, kestrova::app::BrowserChoice& choice,
                       std::string& library) {
  command.add_option("--browser", choice.browser, "chromium (Standard), firefox oder demo")
      ->check(CLI::IsMember({"chromium", "firefox", "demo"}))
      ->option_text("<browser>");
  command
      .add_option("--devtools", choice.devtools,
                  "Chromium: DevTools-Port oder HOST:PORT (Standard: aus DevToolsActivePort)")
      ->option_text("<port>");
  command.add_option("--profile", choice.profile, "Profilordner des Browsers")
      ->option_text("<ordner>");
  command
      .add_option("--library", library,
                  "Pfad zur library.json (Standard: ~/.local/share/Kestrova/library.json)")
      ->option_text("<library>");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Kestrova: legt offene Browser-Tabs schlafen und öffnet sie wieder.", "kestrova");
  app.require_subcommand(0, 1);

  kestrova::app::SleepCommand sleep;
  CLI::App* sleepCommand = app.add_subcommand(
      "sleep",
      "Liest alle offenen Tabs, speichert sie mit Text, Zusammenfassung und Thema und "
      "schliesst sie.");
  addBrowserOptions(*sleepCommand, sleep.choice, sleep.library);
  sleepCommand->add_flag("--one-window", sleep.oneWindow,
                         "Alle Tabs in eine Sammlung statt nach Fenstern");
  sleepCommand->add_flag("--no-topics", sleep.noTopics, "Nicht nach Themen sortieren");
  sleepCommand->add_flag("--no-content", sleep.noContent, "Seiteninhalte nicht laden");
  sleepCommand->add_flag("--keep-pinned", sleep.keepPinned,
                         "Angeheftete Tabs und Tabs der --pinned-Domains offen lassen");
  sleepCommand->add_option("--pinned", sleep.pinned, "Domain, deren Tabs offen bleiben (mehrfach)")
      ->option_text("<domain>");
  sleepCommand->add_flag("--no-close", sleep.noClose, "Speichern, aber keine Tabs schliessen");

  kestrova::app::ReopenCommand reopen;
  CLI::App* reopenCommand =
      app.add_subcommand("reopen", "Öffnet gespeicherte Tabs wieder im Browser.");
  addBrowserOptions(*reopenCommand, reopen.choice, reopen.library);
  auto* topic = reopenCommand->add_option("--topic", reopen.topic, "Alle Tabs eines Themas")
                    ->option_text("<thema>");
  auto* window =
      reopenCommand->add_option("--window", reopen.window, "Alle Tabs eines gespeicherten Fensters")
          ->option_text("<fenster>");
  auto* ids = reopenCommand->add_option("tab-ids", reopen.tabIds, "Tab-IDs (UUID)");
  topic->excludes(window)->excludes(ids);
  window->excludes(ids);
  reopenCommand->add_flag("--new-window", reopen.newWindow, "In einem neuen Fenster öffnen");

  try {
    app.parse(argc, argv);
    if (reopenCommand->parsed() && reopen.topic.empty() && reopen.window.empty() &&
        reopen.tabIds.empty()) {
      throw CLI::RequiredError("--topic, --window oder tab-ids");
    }
  } catch (const CLI::CallForHelp&) {
    std::cout << reached(app)->help();
    return 0;
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return 0;
  } catch (const CLI::ParseError& error) {
    std::cerr << "Error: " << error.what() << "\n" << reached(app)->help();
    return kUsageError;
  }
  kestrova::Env& env = kestrova::Env::real();
  if (sleepCommand->parsed()) {
    return kestrova::app::runSleepCommand(sleep, std::cout, std::cerr, env);
  }
  if (reopenCommand->parsed()) {
    return kestrova::app::runReopenCommand(reopen, std::cout, std::cerr, env);
  }
  std::cout << app.help();
  return 0;
}
