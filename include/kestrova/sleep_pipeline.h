// The sleep run: the open browser tabs are read, stored in the library with their page texts,
// summarised, sorted into topics and then closed. SleepPipeline holds the steps as separate
// operations on a LibraryData value (each takes the document by value and returns the changed
// copy; none saves), so that a driver can save between steps and show progress. runSleep is that
// driver.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/browser.h>
#include <kestrova/embedder.h>
#include <kestrova/env.h>
#include <kestrova/models.h>
#include <kestrova/page_fetcher.h>
#include <kestrova/safari_bridge.h>
#include <kestrova/store.h>
#include <kestrova/summarizer.h>

namespace kestrova {

// The user's choices for a run.
struct SleepOptions {
  bool groupByWindow = true;  // keep browser windows apart; false: one collection window
  bool sortByTopic = true;    // re-cluster topics after summarising
  bool saveContent = true;    // fetch and keep page texts
  bool keepPinned = false;    // do not close tabs whose address contains a pinned domain
  std::vector<std::string> pinnedDomains;

  // JSON with the field names as keys. Decoding requires every key; anything else (a missing
  // key, a wrong type, text that is no JSON object) gives no value.
  std::string toJson() const;
  static std::optional<SleepOptions> fromJson(std::string_view json);

  friend bool operator==(const SleepOptions&, const SleepOptions&) = default;
};

// The result shown at the end of a run.
struct SleepStats {
  std::int64_t tabs = 0;     // tabs put to sleep
  std::int64_t groups = 0;   // groups (saved windows)
  std::int64_t topics = 0;   // topics
  std::int64_t newTabs = 0;  // tabs new to the library
  std::int64_t closed = 0;   // tabs closed in the browser

  // "12 Tabs schlafen, 3 Gruppen, 1 Thema" (zero takes the plural).
  std::string sentence() const;

  friend bool operator==(const SleepStats&, const SleepStats&) = default;
};

// The progress state shown while a run goes on.
class SleepStage {
 public:
  enum class Kind { idle, reading, fetching, summarizing, grouping, closing, done, failed };

  static SleepStage idle() { return SleepStage(Kind::idle); }
  static SleepStage reading() { return SleepStage(Kind::reading); }
  static SleepStage fetching(std::int64_t done, std::int64_t total);
  static SleepStage summarizing(std::int64_t done, std::int64_t total);
  static SleepStage grouping() { return SleepStage(Kind::grouping); }
  static SleepStage closing() { return SleepStage(Kind::closing); }
  static SleepStage finished(SleepStats stats);  // the "done" case
  static SleepStage failed(std::string message);

  Kind kind() const { return kind_; }
  std::int64_t done() const { return done_; }
  std::int64_t total() const { return total_; }
  const SleepStats& stats() const { return stats_; }

  // The text shown to the user.
  std::string label() const;
  // The position of the progress bar, or no value when none is shown.
  std::optional<double> fraction() const;
  bool isRunning() const;

  friend bool operator==(const SleepStage&, const SleepStage&) = default;

 private:
  explicit SleepStage(Kind kind) : kind_(kind) {}

  Kind kind_;
  std::int64_t done_ = 0;
  std::int64_t total_ = 0;
  SleepStats stats_;
  std::string message_;
};

// The steps of a run. Holds the shared embedder, a fetcher and a summarizer with their defaults,
// and the platform environment the summaries and topic names ask their model through (it must
// outlive the pipeline). Thread-compatible: one run at a time per pipeline.
struct SleepPipeline {
  using Progress = std::function<void(std::int64_t done, std::int64_t total)>;

  std::shared_ptr<Embedder> embedder;
  PageFetcher fetcher;
  Summarizer summarizer;
  Env* env;

  explicit SleepPipeline(std::shared_ptr<Embedder> embedder, Env& env = Env::real());

  struct Added {
    LibraryData data;
    std::vector<Uuid> ids;  // the new tabs, in the order added
  };
  // Turns a browser snapshot into saved windows and tabs. Addresses already in the library, and
  // repeats within the snapshot, are skipped (the first occurrence wins). In demo mode the texts
  // come from the demo data.
  Added addSnapshot(const std::vector<SafariWindow>& windows, LibraryData data,
                    const SleepOptions& options, bool demo, Date now) const;

  // Fills the empty texts of the listed tabs from the web, reporting (done, total) per page.
  LibraryData fetchTexts(LibraryData data, const std::vector<Uuid>& ids,
                         const Progress& progress = nullptr, std::stop_token stop = {}) const;

  // Fills summary and tags of the listed tabs, in order, from the model when it may be used and
  // from keywords otherwise; stops early when `stop` is requested.
  LibraryData summarize(LibraryData data, const std::vector<Uuid>& ids,
                        const Progress& progress = nullptr, std::stop_token stop = {}) const;

  // Makes sure every tab has its vector and, with `byTopic`, re-clusters the topics.
  LibraryData group(LibraryData data, bool byTopic, std::stop_token stop = {}) const;
};

// Runs one sleep on `library` in stage order, reporting each stage to `report`: read the snapshot
// (the demo snapshot when `browser` is null), add it to the library, fetch texts (not in demo
// mode), summarise, group — writing the library after each of these steps, so that an interrupted
// run keeps what it did — and, only after the document read back from the file holds every new
// tab, close the saved tabs (not in demo mode, and not where the browser cannot close tabs).
// Returns the last stage: finished, or failed with a browser error's description or the
// library's "Speichern fehlgeschlagen: …" (nothing is closed then). Never throws.
SleepStage runSleep(const SleepPipeline& pipeline, Browser* browser, Library& library,
                    const SleepOptions& options,
                    const std::function<void(const SleepStage&)>& report = nullptr,
                    std::stop_token stop = {});

// The same on a Library of `store`, made for the run.
SleepStage runSleep(const SleepPipeline& pipeline, Browser* browser, const LibraryStore& store,
                    const SleepOptions& options,
                    const std::function<void(const SleepStage&)>& report = nullptr,
                    std::stop_token stop = {});

}  // namespace kestrova
