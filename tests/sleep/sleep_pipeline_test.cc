#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

#include <kestrova/demo_data.h>
#include <kestrova/fmt.h>
#include <kestrova/sleep_pipeline.h>

#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

using Kind = SleepStage::Kind;

// A progress report that notes each new kind of stage in `kinds`.
std::function<void(const SleepStage&)> noting(std::vector<Kind>& kinds) {
  return [&kinds](const SleepStage& stage) {
    if (kinds.empty() || kinds.back() != stage.kind())
      kinds.push_back(stage.kind());
  };
}

// Without a browser the run sleeps the demo tabs and closes nothing.
TEST(DemoData, RunWithoutBrowserSavesTheDemoInStageOrder) {
  testing::TestFolder folder;
  const LibraryStore store(folder / "library.json");
  std::vector<Kind> kinds;
  const SleepStage last = runSleep(SleepPipeline(std::make_shared<Embedder>(false)), nullptr, store,
                                   SleepOptions(), noting(kinds));
  ASSERT_EQ(last.kind(), Kind::done) << last.label();
  EXPECT_EQ(kinds,
            (std::vector<Kind>{Kind::reading, Kind::summarizing, Kind::grouping, Kind::done}));
  const LibraryData saved = store.load();
  EXPECT_EQ(saved.tabs.size(), 52u);
  EXPECT_EQ(saved.tabs[3].text, DemoData::text(saved.tabs[3].url));
  EXPECT_EQ(last.stats(),
            (SleepStats{52, 3, static_cast<std::int64_t>(saved.topics.size()), 52, 0}));
}

TEST(SleepStage, ProgressLabelsAndSentences) {
  EXPECT_FALSE(SleepStage::fetching(0, 0).fraction());
  EXPECT_FALSE(SleepStage::summarizing(3, 0).fraction());
  EXPECT_DOUBLE_EQ(*SleepStage::fetching(5, 10).fraction(), 0.275);
  EXPECT_DOUBLE_EQ(*SleepStage::summarizing(10, 10).fraction(), 0.85);
  EXPECT_DOUBLE_EQ(*SleepStage::closing().fraction(), 0.95);
  EXPECT_EQ(SleepStage::fetching(1200, 3400).label(), "Speichere Seiteninhalte: 1'200 von 3'400");
  EXPECT_TRUE(SleepStage::closing().isRunning());
  EXPECT_FALSE(SleepStage::finished({}).isRunning());
  EXPECT_FALSE(SleepStage::failed("x").isRunning());
  EXPECT_EQ((SleepStats{1, 1, 1, 1, 0}.sentence()), "1 Tab schläft, 1 Gruppe, 1 Thema");
  EXPECT_EQ((SleepStats{0, 0, 0, 0, 0}.sentence()), "0 Tabs schlafen, 0 Gruppen, 0 Themen");
  EXPECT_EQ(SleepStage::finished(SleepStats{1234, 3, 12, 5, 9}).label(),
            "1'234 Tabs schlafen, 3 Gruppen, 12 Themen");
}

TEST(SleepOptionsJson, RoundTripAndEveryKeyRequired) {
  const SleepOptions options{.keepPinned = true, .pinnedDomains = {"mail.google.com", "kalender"}};
  EXPECT_EQ(SleepOptions::fromJson(options.toJson()), options);
  const std::string head = R"({"groupByWindow":true,"sortByTopic":true,"saveContent":true,)";
  for (const std::string& bad :
       {head + R"("keepPinned":false})", head + R"("keepPinned":0,"pinnedDomains":[]})",
        head + R"("keepPinned":false,"pinnedDomains":[1]})", std::string("[]"),
        std::string("nicht json")})
    EXPECT_FALSE(SleepOptions::fromJson(bad)) << bad;
}

TEST(AddSnapshot, OneTabPerAddressKnownAddressesSkippedAndWindowsNumbered) {
  setenv("TZ", "Europe/Zurich", 1), tzset();
  const SleepPipeline pipeline{std::make_shared<Embedder>(false)};
  const Date now = *Fmt::parseISO("2026-10-09T07:05:00Z");  // 09:05 in Zurich
  const std::vector<SafariWindow> snapshot = {
      {1, {{"A", "https://a.ch/", 1}, {"B", "https://b.ch/", 2}, {"A again", "https://a.ch/", 3}}},
      {2, {{"C", "https://c.ch/", 1}}},
      {3, {{"B elsewhere", "https://b.ch/", 1}}}};
  LibraryData existing;
  existing.windows.push_back(SavedWindow{Uuid::random(), now, "alt", {}});
  const auto added = pipeline.addSnapshot(snapshot, existing, SleepOptions(), false, now);
  ASSERT_EQ(added.ids.size(), 3u);
  ASSERT_EQ(added.data.tabs.size(), 3u);
  EXPECT_EQ(added.data.tabs[0].title, "A");  // the first occurrence wins
  EXPECT_EQ(added.data.tabs[0].savedAt, now);
  // Window 3 brought no new tab and is dropped; numbering goes on from the existing window.
  ASSERT_EQ(added.data.windows.size(), 3u);
  EXPECT_EQ(added.data.windows[2].title, "Fenster 3 \u00B7 09.10. 9:05");
  EXPECT_EQ(added.data.windows[1].tabIds,
            (std::vector<Uuid>{added.data.tabs[0].id, added.data.tabs[1].id}));
  EXPECT_EQ(added.data.tabs[2].windowId, added.data.windows[2].id);
  const auto again = pipeline.addSnapshot(snapshot, added.data, SleepOptions(), false, now);
  EXPECT_TRUE(again.ids.empty());
  EXPECT_EQ(again.data, added.data);
  // Without grouping by window, every new tab goes to one collection window.
  const auto collected = pipeline.addSnapshot(
      snapshot, LibraryData(), {.groupByWindow = false, .pinnedDomains = {}}, false, now);
  ASSERT_EQ(collected.data.windows.size(), 1u);
  EXPECT_EQ(collected.data.windows[0].title, "Sammlung \u00B7 09.10. 09:05");
  EXPECT_EQ(collected.data.windows[0].tabIds.size(), 3u);
}

// Pages on loopback and a browser whose close script records how many tabs the saved library
// held at that moment.
struct FullSleep : ::testing::Test {
  struct Browser : ScriptRunner {
    explicit Browser(const LibraryStore& store) : store_(store) {}
    const LibraryStore& store_;
    ScriptValue snapshot;
    std::vector<std::string> scripts;
    std::size_t tabsSavedWhenClosing = 0;
    bool isApplicationRunning(std::string_view) override { return true; }
    ScriptOutcome run(std::string_view source) override {
      scripts.emplace_back(source);
      if (scripts.size() == 1)
        return snapshot;
      tabsSavedWhenClosing = store_.load().tabs.size();
      return ScriptValue::makeInteger(static_cast<std::int64_t>(tabsSavedWhenClosing));
    }
  };

  FullSleep() {
    server_.Get("/velo", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(
          "<html><head><title>Velotour</title></head><body><p>Die Velotour durch "
          "Graubünden führt über sechs Pässe und endet im Engadin.</p></body></html>",
          "text/html; charset=utf-8");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~FullSleep() override { server_.stop(), thread_.join(); }
  // A whole sleep against one browser window of these paths; the stage kinds seen go to `kinds`.
  SleepStage run(const LibraryStore& store, Browser& browser, const SleepOptions& options,
                 const std::vector<std::string>& paths) {
    std::vector<ScriptValue> urls, names;
    for (const std::string& path : paths) {
      urls.push_back(ScriptValue::makeString("http://127.0.0.1:" + std::to_string(port_) + path));
      names.push_back(ScriptValue::makeString(path));
    }
    browser.snapshot = ScriptValue::makeList({ScriptValue::makeList(
        {ScriptValue::makeInteger(1), ScriptValue::makeList(urls), ScriptValue::makeList(names)})});
    testing::FakeEnv env({.runner = &browser});
    SafariBridge bridge(env, false);
    SleepPipeline pipeline(std::make_shared<Embedder>(false));
    return runSleep(pipeline, &bridge, store, options, noting(kinds));
  }

  testing::TestFolder folder_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::vector<Kind> kinds;
};

TEST_F(FullSleep, FetchesSummarisesGroupsSavesAndOnlyThenCloses) {
  setenv("KESTROVA_NO_AI", "1", 1);
  const LibraryStore store(folder_ / "library.json");
  Browser browser(store);
  const SleepStage last = run(store, browser, SleepOptions(), {"/velo", "/fehlt", "/velo"});
  unsetenv("KESTROVA_NO_AI");
  ASSERT_EQ(last.kind(), Kind::done) << last.label();
  EXPECT_EQ(kinds, (std::vector<Kind>{Kind::reading, Kind::fetching, Kind::summarizing,
                                      Kind::grouping, Kind::closing, Kind::done}));
  const LibraryData saved = store.load();
  ASSERT_EQ(saved.tabs.size(), 2u);
  EXPECT_NE(saved.tabs[0].text.find("sechs Pässe"), std::string::npos) << saved.tabs[0].text;
  EXPECT_EQ(saved.tabs[1].summary, "Ohne Inhalt gespeichert.");  // a 404 keeps an empty text
  EXPECT_EQ(saved.embeddings.size(), 2u);
  ASSERT_EQ(browser.scripts.size(), 2u);
  EXPECT_EQ(browser.tabsSavedWhenClosing, 2u);
  EXPECT_EQ(last.stats().newTabs, 2);
  EXPECT_EQ(last.stats().groups, 1);
}

TEST_F(FullSleep, FailedSaveClosesNothing) {
  testing::writeFile(folder_ / "plain", "x");
  const LibraryStore store(folder_ / "plain/library.json");
  Browser browser(store);
  const SleepStage last =
      run(store, browser, {.saveContent = false, .pinnedDomains = {}}, {"/velo"});
  EXPECT_EQ(last.kind(), Kind::failed);
  EXPECT_EQ(last.label().rfind("Speichern fehlgeschlagen: ", 0), 0u) << last.label();
  EXPECT_EQ(browser.scripts.size(), 1u);  // only the snapshot was read
}

}  // namespace
}  // namespace kestrova
