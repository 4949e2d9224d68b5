#include "selftest.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <unistd.h>

#include <kestrova/fmt.h>
#include <kestrova/store.h>

#include "selftest_report.h"

namespace kestrova::cli {
namespace {

namespace fs = std::filesystem;

// A fresh folder "kestrova-selftest-XXXXXX" under the system's temporary folder, removed when the
// run ends however it ends.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (fs::temp_directory_path() / "kestrova-selftest-XXXXXX").string();
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

LibraryData sampleLibrary() {
  LibraryData data;
  const Date saved = *Fmt::parseISO("2026-10-09T07:00:00Z");
  SavedWindow window{Uuid::random(), saved, SavedWindow::makeTitle(1, saved), {}};
  for (int i = 0; i < 3; ++i) {
    SavedTab tab = makeSavedTab(Uuid::random(), "https://www.example.ch/seite/" + std::to_string(i),
                                "Beispiel " + std::to_string(i), std::nullopt, saved, window.id, 0,
                                i, "Ein kurzer Seitentext über Käse und Berge.", "", "", {}, {},
                                std::nullopt, true);
    window.tabIds.push_back(tab.id);
    data.tabs.push_back(tab);
  }
  data.windows.push_back(window);
  return data;
}

void checkStore(Report& report, const fs::path& folder) {
  report.section("Bibliothek");
  const LibraryStore store(folder / "Kestrova" / "library.json");
  const LibraryData data = sampleLibrary();
  bool saved = true;
  std::string error;
  try {
    store.save(data);
  } catch (const StoreError& e) {
    saved = false;
    error = e.what();
  }
  report.check("Bibliothek speichern", saved, "gespeichert", error);
  const LibraryData loaded = store.load();
  report.check("Bibliothek laden: gleiche Anzahl Tabs", loaded.tabs.size() == data.tabs.size(),
               std::to_string(data.tabs.size()), std::to_string(loaded.tabs.size()));
  report.check("Bibliothek laden: gleicher Inhalt nach dem Speichern", loaded == data);
}

}  // namespace

int runSelftest(const SelftestOptions& options) {
  (void)options;
  TemporaryFolder folder;
  Report report;
  if (folder.path().empty()) {
    report.check("Temp-Ordner anlegen", false, "ein neuer Ordner", "keiner");
  } else {
    checkStore(report, folder.path());
  }
  std::printf("%d passed, %d failed\n", report.passed(), report.failed());
  return report.failed() == 0 ? 0 : 1;
}

}  // namespace kestrova::cli
