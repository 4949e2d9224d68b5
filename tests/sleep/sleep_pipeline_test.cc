#include <deque>
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

std::shared_ptr<Embedder> bagOfWords() {
  return std::make_shared<Embedder>(false);
}

TEST(SleepStageProgress, LabelsAndFractions) {
  EXPECT_FALSE(SleepStage::fetching(0, 0).fraction());
  EXPECT_DOUBLE_EQ(*SleepStage::fetching(5, 10).fraction(), 0.275);
  EXPECT_DOUBLE_EQ(*SleepStage::summarizing(10, 10).fraction(), 0.85);
  EXPECT_FALSE(SleepStage::summarizing(3, 0).fraction());
  EXPECT_DOUBLE_EQ(*SleepStage::grouping().fraction(), 0.88);
  EXPECT_DOUBLE_EQ(*SleepStage::closing().fraction(), 0.95);
  EXPECT_FALSE(SleepStage::idle().fraction());
  EXPECT_FALSE(SleepStage::reading().fraction());
  EXPECT_FALSE(SleepStage::failed("x").fraction());

  EXPECT_EQ(SleepStage::idle().label(), "");
  EXPECT_EQ(SleepStage::reading().label(), "Lese die offenen Tabs aus Safari \u2026");
  EXPECT_EQ(SleepStage::fetching(1200, 3400).label(), "Speichere Seiteninhalte: 1'200 von 3'400");
  EXPECT_EQ(SleepStage::summarizing(2, 9).label(), "Fasse zusammen: 2 von 9");
  EXPECT_EQ(SleepStage::grouping().label(), "Sortiere nach Thema \u2026");
  EXPECT_EQ(SleepStage::closing().label(), "Schliesse die Tabs in Safari \u2026");
  EXPECT_EQ(SleepStage::failed("Safari läuft nicht.").label(), "Safari läuft nicht.");

  EXPECT_FALSE(SleepStage::idle().isRunning());
  EXPECT_TRUE(SleepStage::reading().isRunning());
  EXPECT_TRUE(SleepStage::closing().isRunning());
  EXPECT_FALSE(SleepStage::finished({}).isRunning());
  EXPECT_FALSE(SleepStage::failed("x").isRunning());
}

TEST(SleepStatsSentence, SingularPluralAndZero) {
  EXPECT_EQ((SleepStats{1, 1, 1, 1, 0}.sentence()), "1 Tab schläft, 1 Gruppe, 1 Thema");
  EXPECT_EQ((SleepStats{0, 0, 0, 0, 0}.sentence()), "0 Tabs schlafen, 0 Gruppen, 0 Themen");
  EXPECT_EQ((SleepStats{1234, 3, 12, 5, 9}.sentence()),
            "1'234 Tabs schlafen, 3 Gruppen, 12 Themen");
  EXPECT_EQ(SleepStage::finished(SleepStats{2, 1, 1, 2, 2}).label(),
            "2 Tabs schlafen, 1 Gruppe, 1 Thema");
}

TEST(SleepOptionsJson, RoundTripAndEveryKeyRequired) {
  SleepOptions options;
  options.keepPinned = true;
  options.pinnedDomains = {"mail.google.com", "kalender"};
  EXPECT_EQ(SleepOptions::fromJson(options.toJson()), options);
  EXPECT_EQ(SleepOptions::fromJson(SleepOptions().toJson()), SleepOptions());
  EXPECT_FALSE(SleepOptions::fromJson(
      R"({"groupByWindow":true,"sortByTopic":true,"saveContent":true,"keepPinned":false})"));
  EXPECT_FALSE(SleepOptions::fromJson(
      R"({"groupByWindow":1,"sortByTopic":true,"saveContent":true,"keepPinned":false,"pinnedDomains":[]})"));
  EXPECT_FALSE(SleepOptions::fromJson(
      R"({"groupByWindow":true,"sortByTopic":true,"saveContent":true,"keepPinned":false,"pinnedDomains":[1]})"));
  EXPECT_FALSE(SleepOptions::fromJson("[]"));
  EXPECT_FALSE(SleepOptions::fromJson("nicht json"));
}

class AddSnapshot : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "Europe/Zurich", 1);
    tzset();
  }
  SleepPipeline pipeline{bagOfWords()};
  const Date now = *Fmt::parseISO("2026-10-09T07:05:00Z");  // 09:05 in Zurich
  std::vector<SafariWindow> snapshot = {
      {1, {{"A", "https://a.ch/", 1}, {"B", "https://b.ch/", 2}, {"A again", "https://a.ch/", 3}}},
      {2, {{"C", "https://c.ch/", 1}}},
      {3, {{"B elsewhere", "https://b.ch/", 1}}},
  };
};

TEST_F(AddSnapshot, OneTabPerAddressAndOneWindowPerBrowserWindow) {
  LibraryData existing;
  existing.windows.push_back(SavedWindow{Uuid::random(), now, "alt", {}});
  const auto added = pipeline.addSnapshot(snapshot, existing, SleepOptions(), false, now);
  ASSERT_EQ(added.ids.size(), 3u);
  ASSERT_EQ(added.data.tabs.size(), 3u);
  EXPECT_EQ(added.data.tabs[0].title, "A");  // the first occurrence wins
  EXPECT_EQ(added.data.tabs[2].url, "https://c.ch/");
  EXPECT_EQ(added.data.tabs[0].domain, "a.ch");
  EXPECT_EQ(added.data.tabs[0].savedAt, now);
  EXPECT_EQ(added.data.tabs[0].text, "");
  // Window 3 brought no new tab and is dropped; numbering goes on from the existing window.
  ASSERT_EQ(added.data.windows.size(), 3u);
  EXPECT_EQ(added.data.windows[1].title, "Fenster 2 \u00B7 09.10. 9:05");
  EXPECT_EQ(added.data.windows[2].title, "Fenster 3 \u00B7 09.10. 9:05");
  EXPECT_EQ(added.data.windows[1].tabIds,
            (std::vector<Uuid>{added.data.tabs[0].id, added.data.tabs[1].id}));
  EXPECT_EQ(added.data.tabs[2].windowId, added.data.windows[2].id);
}

TEST_F(AddSnapshot, KnownAddressesAddNothing) {
  const auto first = pipeline.addSnapshot(snapshot, LibraryData(), SleepOptions(), false, now);
  const auto again = pipeline.addSnapshot(snapshot, first.data, SleepOptions(), false, now);
  EXPECT_TRUE(again.ids.empty());
  EXPECT_EQ(again.data, first.data);
}

TEST_F(AddSnapshot, CollectionWindowWhenNotGroupingByWindow) {
  SleepOptions options;
  options.groupByWindow = false;
  const auto added = pipeline.addSnapshot(snapshot, LibraryData(), options, false, now);
  ASSERT_EQ(added.data.windows.size(), 1u);
  EXPECT_EQ(added.data.windows[0].title, "Sammlung \u00B7 09.10. 09:05");
  EXPECT_EQ(added.data.windows[0].tabIds.size(), 3u);
}

TEST_F(AddSnapshot, DemoModeTakesTextsFromTheDemoData) {
  const auto added =
      pipeline.addSnapshot(DemoData::snapshot(), LibraryData(), SleepOptions(), true, now);
  ASSERT_EQ(added.ids.size(), 52u);
  for (const SavedTab& tab : added.data.tabs) {
    EXPECT_TRUE(tab.isDemo);
    EXPECT_EQ(tab.text, DemoData::text(tab.url));
  }
}

TEST(SleepSummarize, KeywordPathWithoutModel) {
  setenv("KESTROVA_NO_AI", "1", 1);
  SleepPipeline pipeline(bagOfWords());
  LibraryData data;
  const auto addTab = [&](std::string title, std::string text) {
    SavedTab tab;
    tab.id = Uuid::random();
    tab.url = "https://example.ch/" + std::to_string(data.tabs.size());
    tab.title = std::move(title);
    tab.text = std::move(text);
    data.tabs.push_back(tab);
    return tab.id;
  };
  const Uuid full = addTab("Velotour Graubünden",
                           "Menü. Die Velotour führt über sechs Pässe durch ganz Graubünden und "
                           "das Engadin. Mehr dazu später.");
  const Uuid empty = addTab("Leer", "");
  const Uuid noSentence = addTab("", std::string(300, 'x'));
  const Uuid untouched = addTab("Bleibt", "Text");
  std::vector<std::pair<std::int64_t, std::int64_t>> progress;
  const LibraryData result = pipeline.summarize(
      data, {full, empty, noSentence},
      [&](std::int64_t done, std::int64_t total) { progress.emplace_back(done, total); });
  EXPECT_EQ(result.tab(full)->summary,
            "Die Velotour führt über sechs Pässe durch ganz Graubünden und das Engadin.");
  EXPECT_LE(result.tab(full)->tags.size(), 3u);
  EXPECT_FALSE(result.tab(full)->tags.empty());
  EXPECT_EQ(result.tab(empty)->summary, "Ohne Inhalt gespeichert.");
  EXPECT_EQ(result.tab(noSentence)->summary, std::string(159, 'x') + "\u2026");
  EXPECT_EQ(result.tab(untouched)->summary, "");
  EXPECT_EQ(progress, (std::vector<std::pair<std::int64_t, std::int64_t>>{{1, 3}, {2, 3}, {3, 3}}));
  unsetenv("KESTROVA_NO_AI");
}

TEST(SleepRun, DemoRunSavesEverythingInStageOrder) {
  testing::TestFolder folder;
  const LibraryStore store(folder / "library.json");
  SleepPipeline pipeline(bagOfWords());
  std::vector<Kind> kinds;
  const SleepStage last =
      runSleep(pipeline, nullptr, store, SleepOptions(), [&](const SleepStage& stage) {
        if (kinds.empty() || kinds.back() != stage.kind()) {
          kinds.push_back(stage.kind());
        }
      });
  ASSERT_EQ(last.kind(), Kind::done) << last.label();
  EXPECT_EQ(kinds,
            (std::vector<Kind>{Kind::reading, Kind::summarizing, Kind::grouping, Kind::done}));
  const LibraryData saved = store.load();
  EXPECT_EQ(saved.tabs.size(), 52u);
  EXPECT_EQ(saved.windows.size(), 3u);
  EXPECT_FALSE(saved.topics.empty());
  EXPECT_EQ(saved.embeddings.size(), 52u);
  for (const SavedTab& tab : saved.tabs) {
    EXPECT_FALSE(tab.summary.empty());
    EXPECT_TRUE(tab.topicId);
  }
  EXPECT_EQ(last.stats().newTabs, 52);
  EXPECT_EQ(last.stats().tabs, 52);
  EXPECT_EQ(last.stats().groups, 3);
  EXPECT_EQ(last.stats().topics, static_cast<std::int64_t>(saved.topics.size()));
  EXPECT_EQ(last.stats().closed, 0);
}

// Pages on loopback and a browser whose close script checks that the library is already saved.
class FullSleep : public ::testing::Test {
 protected:
  class Browser : public ScriptRunner {
   public:
    explicit Browser(const LibraryStore& store) : store_(store) {}
    ScriptValue snapshot;
    std::vector<std::string> scripts;
    std::size_t tabsSavedWhenClosing = 0;

    bool isApplicationRunning(std::string_view) override { return true; }
    ScriptOutcome run(std::string_view source) override {
      scripts.emplace_back(source);
      if (scripts.size() == 1) {
        return snapshot;
      }
      tabsSavedWhenClosing = store_.load().tabs.size();
      return ScriptValue::makeInteger(static_cast<std::int64_t>(tabsSavedWhenClosing));
    }

   private:
    const LibraryStore& store_;
  };

  class NoLauncher : public ProcessLauncher {
   public:
    std::optional<int> run(const std::vector<std::string>&, std::chrono::milliseconds) override {
      return 0;
    }
  };

  void SetUp() override {
    server_.Get("/velo", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(
          "<html><head><title>Velotour</title></head><body><p>Die Velotour durch Graubünden "
          "führt über sechs Pässe und endet nach einer Woche im Engadin.</p></body></html>",
          "text/html; charset=utf-8");
    });
    server_.Get("/kaese", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(
          "<html><head><title>Fondue</title></head><body><p>Ein Käsefondue braucht Gruyère, "
          "Vacherin und einen trockenen Weisswein aus dem Waadtland.</p></body></html>",
          "text/html; charset=utf-8");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  void TearDown() override {
    server_.stop();
    thread_.join();
  }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  static ScriptValue window(std::int64_t number, const std::vector<std::string>& urls,
                            const std::vector<std::string>& names) {
    std::vector<ScriptValue> u;
    std::vector<ScriptValue> n;
    for (const auto& x : urls) {
      u.push_back(ScriptValue::makeString(x));
    }
    for (const auto& x : names) {
      n.push_back(ScriptValue::makeString(x));
    }
    return ScriptValue::makeList(
        {ScriptValue::makeInteger(number), ScriptValue::makeList(u), ScriptValue::makeList(n)});
  }

  testing::TestFolder folder_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

TEST_F(FullSleep, FetchesSummarisesGroupsSavesAndThenCloses) {
  setenv("KESTROVA_NO_AI", "1", 1);
  const LibraryStore store(folder_ / "library.json");
  Browser browser(store);
  browser.snapshot =
      ScriptValue::makeList({window(1, {url("/velo"), url("/fehlt")}, {"Velo", "Fehlt"}),
                             window(2, {url("/kaese"), url("/velo")}, {"Käse", "Velo doppelt"})});
  NoLauncher launcher;
  testing::FakeEnv env({.launcher = &launcher, .runner = &browser});
  SafariBridge bridge(env, false);
  SleepPipeline pipeline(bagOfWords());

  const SleepStage last = runSleep(pipeline, &bridge, store, SleepOptions());
  ASSERT_EQ(last.kind(), Kind::done) << last.label();
  const LibraryData saved = store.load();
  ASSERT_EQ(saved.tabs.size(), 3u);
  EXPECT_NE(saved.tabs[0].text.find("sechs Pässe"), std::string::npos) << saved.tabs[0].text;
  EXPECT_EQ(saved.tabs[1].text, "");  // a 404 keeps an empty text
  EXPECT_EQ(saved.tabs[1].summary, "Ohne Inhalt gespeichert.");
  EXPECT_NE(saved.tabs[2].summary.find("Käsefondue"), std::string::npos);
  for (const SavedTab& tab : saved.tabs) {
    EXPECT_TRUE(tab.topicId) << tab.url;
  }
  ASSERT_EQ(browser.scripts.size(), 2u);
  EXPECT_EQ(browser.tabsSavedWhenClosing, 3u);
  EXPECT_EQ(last.stats().newTabs, 3);
  EXPECT_EQ(last.stats().groups, 2);
  unsetenv("KESTROVA_NO_AI");
}

TEST_F(FullSleep, NothingIsClosedWhenSavingFails) {
  testing::writeFile(folder_ / "plain", "x");
  const LibraryStore store(folder_ / "plain/library.json");
  Browser browser(store);
  browser.snapshot = ScriptValue::makeList({window(1, {url("/velo")}, {"Velo"})});
  NoLauncher launcher;
  testing::FakeEnv env({.launcher = &launcher, .runner = &browser});
  SafariBridge bridge(env, false);
  SleepPipeline pipeline(bagOfWords());
  SleepOptions options;
  options.saveContent = false;
  const SleepStage last = runSleep(pipeline, &bridge, store, options);
  EXPECT_EQ(last.kind(), Kind::failed);
  EXPECT_EQ(last.label().rfind("Speichern fehlgeschlagen: ", 0), 0u) << last.label();
  EXPECT_EQ(browser.scripts.size(), 1u);  // only the snapshot was read
}

TEST_F(FullSleep, BrowserErrorsEndTheRunWithTheirDescription) {
  const LibraryStore store(folder_ / "library.json");
  class Closed : public ScriptRunner {
   public:
    bool isApplicationRunning(std::string_view) override { return false; }
    ScriptOutcome run(std::string_view) override { return ScriptValue{}; }
  } closed;
  NoLauncher launcher;
  testing::FakeEnv env({.launcher = &launcher, .runner = &closed});
  SafariBridge bridge(env, false);
  SleepPipeline pipeline(bagOfWords());
  const SleepStage last = runSleep(pipeline, &bridge, store, SleepOptions());
  EXPECT_EQ(last.kind(), Kind::failed);
  EXPECT_EQ(last.label(), SafariError::notRunning().description());
  EXPECT_FALSE(std::filesystem::exists(folder_ / "library.json"));
}

}  // namespace
}  // namespace kestrova
