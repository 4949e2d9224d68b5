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

SleepStage runSleep(const SleepPipeline& pipeline, Browser* browser, Library& library,
                    const SleepOptions& options,
                    const std::function<void(const SleepStage&)>& report, std::stop_token stop) {
  const auto tell = [&](SleepStage stage) {
    if (report) {
      report(stage);
    }
    return stage;
  };
  const bool demo = browser == nullptr;
  // Each step's result is written at once; a write that fails ends the run before anything
  // could be closed.
  const auto keep = [&](LibraryData data) {
    library.replace(std::move(data));
    return !library.lastError().has_value();
  };
  try {
    tell(SleepStage::reading());
    const std::vector<SafariWindow> snapshot =
        demo ? DemoData::snapshot() : browser->snapshotWindows();
    // The document keeps whole seconds; taking them now lets the read-back compare exactly.
    const Date now = std::chrono::floor<std::chrono::seconds>(library.store().env().now());
    library.reloadIfChangedOnDisk();
    const std::size_t windowsBefore = library.data().windows.size();
    SleepPipeline::Added added = pipeline.addSnapshot(snapshot, library.data(), options, demo, now);
    const auto total = static_cast<std::int64_t>(added.ids.size());
    bool kept = keep(std::move(added.data));

    if (kept && !demo && options.saveContent) {
      tell(SleepStage::fetching(0, total));
      kept = keep(pipeline.fetchTexts(
          library.data(), added.ids,
          [&](std::int64_t done, std::int64_t all) { tell(SleepStage::fetching(done, all)); },
          stop));
    }
    if (kept) {
      tell(SleepStage::summarizing(0, total));
      kept = keep(pipeline.summarize(
          library.data(), added.ids,
          [&](std::int64_t done, std::int64_t all) { tell(SleepStage::summarizing(done, all)); },
          stop));
    }
    if (kept) {
      tell(SleepStage::grouping());
      kept = keep(pipeline.group(library.data(), options.sortByTopic, stop));
    }
    if (!kept) {
      return tell(SleepStage::failed(*library.lastError()));
    }
    const LibraryData& data = library.data();
    // No tab is closed unless its data is safely on disk.
    if (!holdsEveryTab(data, library.store().load(), added.ids)) {
      return tell(SleepStage::failed(
          "Speichern fehlgeschlagen: Die Bibliothek liess sich nach dem Speichern nicht "
          "vollständig lesen. Es wurden keine Tabs geschlossen."));
    }
    if (stop.stop_requested()) {
      return tell(SleepStage::failed(
          "Schlafen legen abgebrochen. Die gelesenen Tabs sind gespeichert und bleiben offen."));
    }

    std::int64_t closed = 0;
    if (!demo && browser->canCloseTabs()) {
      tell(SleepStage::closing());
      closed = browser->closeAllTabs(snapshot, options.keepPinned, options.pinnedDomains);
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
  } catch (const BrowserError& error) {
    return tell(SleepStage::failed(error.what()));
  }
}

SleepStage runSleep(const SleepPipeline& pipeline, Browser* browser, const LibraryStore& store,
                    const SleepOptions& options,
                    const std::function<void(const SleepStage&)>& report, std::stop_token stop) {
  Library library(store);
  return runSleep(pipeline, browser, library, options, report, stop);
}

}  // namespace kestrova
