#include <unordered_map>
#include <unordered_set>

#include <kestrova/ai.h>
#include <kestrova/demo_data.h>
#include <kestrova/fmt.h>
#include <kestrova/sleep_pipeline.h>
#include <kestrova/text_tools.h>
#include <kestrova/topic_clusterer.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

// Keyword summary of one page: its first usable sentence, else the start of its text.
SummaryResult keywordSummary(const SavedTab& tab) {
  SummaryResult result;
  if (auto sentence = TextTools::firstSentence(tab.text, 160)) {
    result.summary = std::move(*sentence);
  } else if (tab.text.empty()) {
    result.summary = "Ohne Inhalt gespeichert.";
  } else {
    result.summary = TextTools::truncate(tab.text, 160);
  }
  // The title counts twice against the page text, as in the summarizer's own fallback.
  result.tags = TextTools::topKeywords(
      {tab.title, tab.title, std::string(unicode::graphemePrefix(tab.text, 3000))}, 3, 4);
  return result;
}

std::unordered_map<Uuid, std::size_t> indexById(const LibraryData& data) {
  std::unordered_map<Uuid, std::size_t> index;
  for (std::size_t i = 0; i < data.tabs.size(); ++i) {
    index.emplace(data.tabs[i].id, i);  // the first tab with an id wins
  }
  return index;
}

}  // namespace

SleepPipeline::SleepPipeline(std::shared_ptr<Embedder> sharedEmbedder, Env& environment)
    : embedder(std::move(sharedEmbedder)),
      summarizer(Summarizer::defaultTimeLimitSeconds, environment),
      env(&environment) {}

SleepPipeline::Added SleepPipeline::addSnapshot(const std::vector<SafariWindow>& windows,
                                                LibraryData data, const SleepOptions& options,
                                                bool demo, Date now) const {
  Added added;
  std::unordered_set<std::string> known;
  for (const SavedTab& tab : data.tabs) {
    known.insert(tab.url);
  }
  const std::size_t windowsBefore = data.windows.size();
  std::vector<SavedWindow> newWindows;
  SavedWindow collection{Uuid::random(), now, "Sammlung \u00B7 " + Fmt::dayMonthTime(now), {}};
  std::vector<SavedTab> newTabs;

  for (std::size_t w = 0; w < windows.size(); ++w) {
    SavedWindow window{Uuid::random(), now, "", {}};
    SavedWindow& target = options.groupByWindow ? window : collection;
    for (const SafariTab& safariTab : windows[w].tabs) {
      if (!known.insert(safariTab.url).second) {
        continue;
      }
      SavedTab tab = makeSavedTab({
          .id = Uuid::random(),
          .url = safariTab.url,
          .title = safariTab.title,
          .savedAt = now,
          .windowId = target.id,
          .windowIndex = windows[w].index,
          .tabIndex = safariTab.index,
          .text = demo ? DemoData::text(safariTab.url) : "",
          .isDemo = demo,
      });
      target.tabIds.push_back(tab.id);
      added.ids.push_back(tab.id);
      newTabs.push_back(std::move(tab));
    }
    if (options.groupByWindow && !window.tabIds.empty()) {
      // Windows are numbered on from those the library already holds.
      window.title = "Fenster " + std::to_string(windowsBefore + newWindows.size() + 1) +
                     " \u00B7 " + Fmt::formatted(now, "dd.MM. H:mm");
      newWindows.push_back(std::move(window));
    }
  }
  if (!options.groupByWindow && !collection.tabIds.empty()) {
    newWindows.push_back(std::move(collection));
  }
  for (SavedTab& tab : newTabs) {
    data.tabs.push_back(std::move(tab));
  }
  for (SavedWindow& window : newWindows) {
    data.windows.push_back(std::move(window));
  }
  added.data = std::move(data);
  return added;
}

LibraryData SleepPipeline::fetchTexts(LibraryData data, const std::vector<Uuid>& ids,
                                      const Progress& progress, std::stop_token stop) const {
  const auto index = indexById(data);
  std::vector<std::string> urls;
  for (const Uuid& id : ids) {
    auto it = index.find(id);
    if (it != index.end() && data.tabs[it->second].text.empty()) {
      urls.push_back(data.tabs[it->second].url);
    }
  }
  if (urls.empty()) {
    return data;
  }
  const std::map<std::string, std::string> texts = fetcher.fetchAll(urls, progress, stop);
  for (const Uuid& id : ids) {
    auto it = index.find(id);
    if (it == index.end()) {
      continue;
    }
    SavedTab& tab = data.tabs[it->second];
    if (tab.text.empty()) {
      if (auto text = texts.find(tab.url); text != texts.end()) {
        tab.text = text->second;
      }
    }
  }
  return data;
}

LibraryData SleepPipeline::summarize(LibraryData data, const std::vector<Uuid>& ids,
                                     const Progress& progress, std::stop_token stop) const {
  const auto index = indexById(data);
  const auto total = static_cast<std::int64_t>(ids.size());
  std::int64_t done = 0;
  for (const Uuid& id : ids) {
    if (stop.stop_requested()) {
      break;
    }
    auto it = index.find(id);
    if (it != index.end()) {
      SavedTab& tab = data.tabs[it->second];
      std::optional<SummaryResult> result;
      if (AIStatus::isAvailable(*env) && !tab.title.empty() && !tab.text.empty()) {
        result = summarizer.summarizeWithModel(tab.title, tab.text, stop);
      }
      if (!result) {
        result = keywordSummary(tab);
      }
      tab.summary = std::move(result->summary);
      tab.tags = std::move(result->tags);
    }
    ++done;
    if (progress) {
      progress(done, total);
    }
  }
  return data;
}

LibraryData SleepPipeline::group(LibraryData data, bool byTopic, std::stop_token stop) const {
  embedder->ensureEmbeddings(data);
  if (!byTopic) {
    return data;
  }
  TopicClusterer clusterer(embedder, *env);
  clusterer.minSimilarity = 0.12f;
  clusterer.outlierSimilarity = 0.1f;
  clusterer.mergeFloor = 0.02f;
  clusterer.cluster(data, true, stop);
  return data;
}

}  // namespace kestrova
