// Self-test checks of the project context reader and the hints.
#include <fstream>

#include <kestrova/context_reader.h>
#include <kestrova/hint_engine.h>

#include "selftest_checks.h"

namespace kestrova::cli {
namespace {

void write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace

void checkContext(Report& report, SelftestContext& context) {
  report.section("Projekte und Hinweise");
  const std::filesystem::path project = context.folder / "Projekte" / "Velotour";
  write(project / "CLAUDE.md", "Projekt Velotour: Etappen über den Albulapass planen.");
  write(project / "TODO.yaml", "- Route und Höhenmeter der Etappe prüfen\n- Velohotel buchen");
  write(project / "README.md", "Velotour Graubünden mit Pass, Etappe und Velo-Karte.");
  write(project / "notizen.txt", "GEHEIM-NOTIZ");
  write(project / ".versteckt" / "README.md", "GEHEIM-VERSTECKT");
  write(project / "package.json", "{\"name\": \"GEHEIM-PAKET\"}");

  UserContext user;
  user.folderPaths = {project.string()};
  const std::vector<ProjectText> projects = ContextReader::projects(user);
  const bool one = projects.size() == 1;
  const std::string text = one ? projects.front().text : "";
  const bool onlyAllowed = one && text.find("Albulapass") != std::string::npos &&
                           text.find("Velohotel") != std::string::npos &&
                           text.find("Velo-Karte") != std::string::npos &&
                           text.find("GEHEIM") == std::string::npos;
  report.check("Kontext liest nur CLAUDE.md, TODO.yaml, README.md", onlyAllowed,
               "die drei Projektdateien, sonst nichts",
               one ? text.substr(0, 120) : std::to_string(projects.size()) + " Projekte");

  LibraryData data = context.demo;
  for (SavedTab& tab : data.tabs) {
    tab.readAt.reset();
  }
  HintEngine engine(*context.embedder);
  const std::vector<Hint> hints = engine.generateHints(data, projects, 2);
  const SavedTab* first = hints.empty() ? nullptr : data.tab(hints.front().tabId);
  report.check("Projekt-Hinweise schlagen eine passende Velo-Seite vor",
               first != nullptr && demoTheme(*first) == "velo" && !hints.front().reason.empty() &&
                   data.hints.size() == hints.size(),
               "ein Hinweis auf eine Velo-Seite", first == nullptr ? "keiner" : first->title);
}

}  // namespace kestrova::cli
