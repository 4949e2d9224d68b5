// Self-test check of a sleep run in demo mode.
#include <kestrova/sleep_pipeline.h>

#include "selftest_checks.h"

namespace kestrova::cli {

void checkSleep(Report& report, SelftestContext& context) {
  report.section("Schlafen legen");
  const LibraryStore store(context.folder / "Schlafen" / "library.json");
  const SleepPipeline pipeline(context.embedder);
  std::vector<SleepStage::Kind> kinds;
  const SleepStage last =
      runSleep(pipeline, nullptr, store, SleepOptions(), [&](const SleepStage& stage) {
        if (kinds.empty() || kinds.back() != stage.kind()) {
          kinds.push_back(stage.kind());
        }
      });
  using Kind = SleepStage::Kind;
  const bool order =
      kinds == std::vector<Kind>{Kind::reading, Kind::summarizing, Kind::grouping, Kind::done};
  const LibraryData saved = store.load();
  bool complete = saved.tabs.size() == 52 && !saved.topics.empty();
  for (const SavedTab& tab : saved.tabs) {
    complete = complete && !tab.summary.empty() && tab.topicId.has_value();
  }
  report.check("Schlafen legen im Demo-Modus", last.kind() == Kind::done && order && complete,
               "52 Tabs mit Zusammenfassung und Thema, Stufen in Reihenfolge", last.label());
}

}  // namespace kestrova::cli
