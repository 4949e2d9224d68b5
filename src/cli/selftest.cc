#include "selftest.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include <stdlib.h>

#include <kestrova/ai.h>
#include <kestrova/demo_data.h>

#include "selftest_checks.h"
#include "selftest_report.h"

namespace kestrova::cli {
namespace {

namespace fs = std::filesystem;

// A fresh folder "kestrova-selftest-XXXXXX" under the system's temporary folder, removed when the
// run ends however it ends.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::error_code ec;
    const fs::path base = fs::temp_directory_path(ec);
    std::string pattern = ((ec ? fs::path("/tmp") : base) / "kestrova-selftest-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) {
      path_ = pattern;
    }
  }
  ~TemporaryFolder() {
    std::error_code ec;
    if (!path_.empty()) {
      fs::remove_all(path_, ec);
    }
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// Runs one group; an unexpected exception becomes a failed check instead of ending the run.
template <typename Group>
void runGroup(Report& report, SelftestContext& context, const char* name, Group group) {
  try {
    group(report, context);
  } catch (const std::exception& error) {
    report.check(std::string(name) + ": unerwarteter Fehler", false, "kein Fehler", error.what());
  }
}

}  // namespace

int runSelftest(const SelftestOptions& options) {
  // Before any model work: the switch holds for the whole run.
  if (options.noAI) {
    AIStatus::setForceOff(true);
  }
  SelftestContext context;
  context.embedder = std::make_shared<Embedder>(true);
  std::printf("Kestrova Selbsttest\n%s\nEmbedder: %s\n", AIStatus::description().c_str(),
              context.embedder->kind().c_str());
  std::fflush(stdout);

  TemporaryFolder folder;
  Report report;
  if (folder.path().empty()) {
    report.check("Temp-Ordner anlegen", false, "ein neuer Ordner", "keiner");
  } else {
    context.folder = folder.path();
    context.demo = DemoData::library(now());
    runGroup(report, context, "Bibliothek", checkLibrary);
    runGroup(report, context, "Seitentext", checkText);
    runGroup(report, context, "Themen", checkTopics);
    runGroup(report, context, "Suche", checkSearchAndChat);
    runGroup(report, context, "Kontext", checkContext);
    runGroup(report, context, "MCP", checkMcp);
    runGroup(report, context, "Schlafen", checkSleep);
  }
  std::printf("%d passed, %d failed\n", report.passed(), report.failed());
  return report.failed() == 0 ? 0 : 1;
}

}  // namespace kestrova::cli
