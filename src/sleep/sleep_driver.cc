#include <unordered_map>
#include <unordered_set>

#include <kestrova/demo_data.h>
#include <kestrova/sleep_pipeline.h>

namespace kestrova {
namespace {

// True when every new tab is in the document read back, with the address it was saved with.
bool holdsEveryTab(const LibraryData& saved, const LibraryData& readBack,
                   const std::vector<Uuid>& ids) {
  std::unordered_map<Uuid, const SavedTab*> back;
  for (const SavedTab& tab : readBack.tabs) {
    back.emplace(tab.id, &tab);
  }
  for (const Uuid& id : ids) {
    auto it = back.find(id);
    const SavedTab* original = saved.tab(id);
    if (it == back.end() || original == nullptr || it->second->url != original->url) {
      return false;
    }
  }
  return readBack.tabs.size() == saved.tabs.size();
}

std::int64_t tabsNowSaved(const std::vector<SafariWindow>& snapshot, const LibraryData& data) {
  std::unordered_set<std::string> saved;
  for (const SavedTab& tab : data.tabs) {
    saved.insert(tab.url);
  }
  std::unordered_set<std::string> counted;
  for (const SafariWindow& window : snapshot) {
    for (const SafariTab& tab : window.tabs) {
      if (saved.count(tab.url) != 0) {
        counted.insert(tab.url);
      }
    }
  }
  return static_cast<std::int64_t>(counted.size());
}

}  // namespace

SleepStage runSleep(const SleepPipeline& pipeline, SafariBridge* bridge, const LibraryStore& store,
                    const SleepOptions& options,
                    const std::function<void(const SleepStage&)>& report, std::stop_token stop) {
  const auto tell = [&](SleepStage stage) {
    if (report) {
      report(stage);
    }
    return stage;
  };
  const bool demo = bridge == nullptr;
  try {
    tell(SleepStage::reading());
    const std::vector<SafariWindow> snapshot =
        demo ? DemoData::snapshot() : bridge->snapshotWindows();
    // The document keeps whole seconds; taking them now lets the read-back compare exactly.
    const Date now = std::chrono::floor<std::chrono::seconds>(kestrova::now());
    LibraryData before = store.load();
    const std::size_t windowsBefore = before.windows.size();
    SleepPipeline::Added added =
        pipeline.addSnapshot(snapshot, std::move(before), options, demo, now);
    LibraryData data = std::move(added.data);
    const auto total = static_cast<std::int64_t>(added.ids.size());

    if (!demo && options.saveContent) {
      tell(SleepStage::fetching(0, total));
      data = pipeline.fetchTexts(
          std::move(data), added.ids,
          [&](std::int64_t done, std::int64_t all) { tell(SleepStage::fetching(done, all)); },
          stop);
    }
    tell(SleepStage::summarizing(0, total));
    data = pipeline.summarize(
        std::move(data), added.ids,
        [&](std::int64_t done, std::int64_t all) { tell(SleepStage::summarizing(done, all)); },
        stop);
    tell(SleepStage::grouping());
    data = pipeline.group(std::move(data), options.sortByTopic, stop);

    try {
      store.save(data);
    } catch (const StoreError& error) {
      return tell(SleepStage::failed(std::string("Speichern fehlgeschlagen: ") + error.what()));
    }
    // No tab is closed unless its data is safely on disk.
    if (!holdsEveryTab(data, store.load(), added.ids)) {
      return tell(SleepStage::failed(
          "Speichern fehlgeschlagen: Die Bibliothek liess sich nach dem Speichern nicht "
          "vollständig lesen. Es wurden keine Tabs geschlossen."));
    }
    if (stop.stop_requested()) {
      return tell(SleepStage::failed(
          "Schlafen legen abgebrochen. Die gelesenen Tabs sind gespeichert und bleiben offen."));
    }

    std::int64_t closed = 0;
    if (!demo) {
      tell(SleepStage::closing());
      closed = bridge->closeAllTabs(snapshot, options.keepPinned, options.pinnedDomains);
    }
    SleepStats stats;
    stats.tabs = tabsNowSaved(snapshot, data);
    stats.groups = static_cast<std::int64_t>(data.windows.size() - windowsBefore);
    stats.topics = static_cast<std::int64_t>(data.topics.size());
    stats.newTabs = total;
    stats.closed = closed;
    return tell(SleepStage::finished(stats));
  } catch (const SafariError& error) {
    return tell(SleepStage::failed(error.what()));
  }
}

}  // namespace kestrova
