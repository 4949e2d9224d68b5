// The bridge's logic against a fake script runner and a recording launcher.

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kestrova/safari_bridge.h>

#include "serial_queue.h"
#include "support/fake_env.h"

namespace kestrova {
namespace {

using ::testing::HasSubstr;

const auto str = [](std::string s) { return ScriptValue::makeString(std::move(s)); };
const auto num = [](std::int64_t i) { return ScriptValue::makeInteger(i); };
const auto list = [](std::vector<ScriptValue> items) { return ScriptValue::makeList(items); };

// Records every script and answers with queued outcomes (an empty list when none is queued).
class FakeRunner : public ScriptRunner {
 public:
  bool running = true;
  std::atomic<int> runningChecks{0};
  std::vector<std::string> scripts;
  std::deque<ScriptOutcome> answers;
  std::atomic<int> active{0};
  std::mutex mutex;

  bool isApplicationRunning(std::string_view bundleID) override {
    EXPECT_EQ(bundleID, "com.apple.Safari");
    ++runningChecks;
    return running;
  }
  ScriptOutcome run(std::string_view source) override {
    // Scripts must never overlap: a second one arriving while this one runs is a fault.
    EXPECT_EQ(active.fetch_add(1), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    active.fetch_sub(1);
    std::lock_guard lock(mutex);
    scripts.emplace_back(source);
    ScriptOutcome next = answers.empty() ? list({}) : answers.front();
    if (!answers.empty()) {
      answers.pop_front();
    }
    return next;
  }
};

// Records every command and answers with queued exit statuses (0 when none is queued).
class RecordingLauncher : public ProcessLauncher {
 public:
  std::vector<std::vector<std::string>> calls;
  std::deque<std::optional<int>> statuses;
  std::optional<int> run(const std::vector<std::string>& argv, std::chrono::milliseconds) override {
    calls.push_back(argv);
    std::optional<int> status = statuses.empty() ? 0 : statuses.front();
    if (!statuses.empty()) {
      statuses.pop_front();
    }
    return status;
  }
};

struct Fixture {
  FakeRunner runner;
  RecordingLauncher launcher;
  testing::FakeEnv env{{.launcher = &launcher, .runner = &runner}};
  SafariBridge bridge{env, false};

  // The error `body` throws; a failure and a placeholder when it throws none.
  SafariError caught(const std::function<void()>& body) {
    try {
      body();
    } catch (const SafariError& e) {
      return e;
    }
    ADD_FAILURE() << "no SafariError thrown";
    return SafariError::scriptFailed(-999999, "none");
  }
};

TEST(SafariBridgeScripts, TheRunnerGetsTheGivenTabsQuotedAndSorted) {
  Fixture f;
  f.runner.answers = {num(4), num(0)};
  EXPECT_EQ(
      f.bridge.closeTabs({"https://b.ch/X", R"(https://a.ch/"b\c)"}, {"GitHub.COM", "Ünï.ch"}), 4);
  EXPECT_THAT(f.runner.scripts[0],
              HasSubstr("    set saved to {\"https://a.ch/\\\"b\\\\c\", \"https://b.ch/X\"}\n"
                        "    set keepList to {\"github.com\", \"ünï.ch\"}\n"));
  std::vector<SafariWindow> windows = {{1, {{"A", "https://a.ch/", 1}, {"B", "https://b.ch/", 2}}},
                                       {2, {{"A again", "https://a.ch/", 1}}}};
  // Pinned domains are kept only when asked to; each address is named once.
  f.bridge.closeAllTabs(windows, false, {"A.ch"});
  f.bridge.closeAllTabs(windows, true, {"A.ch"});
  EXPECT_EQ(f.runner.scripts[1], SafariBridge::closeScript({"https://a.ch/", "https://b.ch/"}, {}));
  EXPECT_EQ(f.runner.scripts[2],
            SafariBridge::closeScript({"https://a.ch/", "https://b.ch/"}, {"a.ch"}));
  EXPECT_THAT(SafariBridge::closeScript({}, {}),
              HasSubstr("    set saved to {}\n    set keepList to {}\n"));
  f.bridge.reopen({"https://z.ch/", "https://a.ch/"}, true);
  f.bridge.reopen({"https://a.ch/"}, false);
  EXPECT_THAT(f.runner.scripts[3], HasSubstr("    set theURLs to {\"https://z.ch/\", "
                                             "\"https://a.ch/\"}\n    set useNew to true\n"));
  EXPECT_THAT(f.runner.scripts[4], HasSubstr("{\"https://a.ch/\"}\n    set useNew to false\n"));
}

TEST(SafariBridgeSnapshot, WindowsAndCountsParsedBlankPagesSkippedWithoutRenumbering) {
  Fixture f;
  f.runner.answers.push_back(list({
      list({num(1), list({str("https://a.ch/"), str("about:blank"), str("https://b.ch/")}),
            list({str("A"), str(""), ScriptValue::makeMissing()})}),
      list({num(2), list({str("favorites://"), str("about:blank")}), list({str("F"), str("")})}),
      list({num(4), list({str("https://c.ch/")}), list({str("")})}),
      str("garbage"),
      list({num(5), list({})}),
      // Tabs as single values (one tab) are read; a window number that is no integer reads as 0,
      // and fewer names than addresses fall back to the address.
      list({num(3), str("https://single.ch/"), str("Single")}),
      list({ScriptValue::makeMissing(), list({str("https://n.ch/"), num(7)}), list({num(8)})}),
  }));
  std::vector<SafariWindow> expected = {
      {1, {{"A", "https://a.ch/", 1}, {"https://b.ch/", "https://b.ch/", 3}}},
      {4, {{"", "https://c.ch/", 1}}},
      {3, {{"Single", "https://single.ch/", 1}}},
      {0, {{"8", "https://n.ch/", 1}, {"7", "7", 2}}}};
  EXPECT_EQ(f.bridge.snapshotWindows(), expected);
  EXPECT_EQ(f.runner.scripts, std::vector<std::string>{SafariBridge::readScript()});
  EXPECT_TRUE(SafariBridge::parseWindows(str("x")).empty());
  EXPECT_TRUE(SafariBridge::parseWindows(ScriptValue{}).empty());
  // Counting reads a pair or falls back to zero.
  f.runner.answers = {list({num(12), num(3)}), list({num(12)}),
                      list({num(12), ScriptValue::makeMissing()}), str("odd")};
  EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{12, 3}));
  EXPECT_EQ(f.runner.scripts.back(), SafariBridge::countScript());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{0, 0})) << i;
  }
  f.runner.answers.push_back(ScriptValue{});
  EXPECT_EQ(f.bridge.closeTabs({"https://a.ch/"}, {}), 0);
}

TEST(SafariBridgeErrors, ScriptErrorsBecomeTheUserTexts) {
  const std::string notRunning =
      "Safari ist nicht geöffnet. Öffne Safari und versuche es nochmals.";
  const std::string denied =
      "Kestrova darf Safari noch nicht steuern. Erlauben: Systemeinstellungen → Datenschutz & "
      "Sicherheit → Automation → Kestrova → Safari einschalten.";
  for (const auto& [error, text] : std::vector<std::pair<ScriptError, std::string>>{
           {{-1743, "x"}, denied},
           {{-1744, "x"}, denied},
           {{-600, "x"}, notRunning},
           {{-609, "x"}, notRunning},
           {{-1700, "Kann nicht umwandeln."},
            "Safari hat nicht geantwortet (Fehler -1700): Kann nicht umwandeln."},
           {{0, std::nullopt}, "Safari hat nicht geantwortet (Fehler 0): unbekannt"}}) {
    Fixture f;
    f.runner.answers.push_back(error);
    EXPECT_STREQ(f.caught([&] { f.bridge.countTabs(); }).what(), text.c_str()) << error.number;
  }
  Fixture f;
  f.runner.answers.push_back(ScriptError{-1700, std::nullopt});
  EXPECT_EQ(f.caught([&] { f.bridge.closeTabs({"https://a.ch/"}, {}); }),
            SafariError::scriptFailed(-1700, "unbekannt"));
  EXPECT_NE(SafariError::scriptFailed(1, "a"), SafariError::scriptFailed(1, "b"));
  // Text that is no valid script never reaches the runner.
  EXPECT_EQ(f.caught([&] { f.bridge.closeTabs({"https://a.ch/\xff"}, {}); }),
            SafariError::scriptFailed(0, "Skript ungültig"));
  EXPECT_EQ(f.caught([&] { f.bridge.reopen({std::string("https://a.ch/\0x", 15)}, true); }),
            SafariError::scriptFailed(0, "Skript ungültig"));
  EXPECT_EQ(f.runner.scripts.size(), 1u);
}

TEST(SafariBridgeRunning, NotRunningStopsBeforeAnyScriptExceptReopening) {
  Fixture f;
  f.runner.running = false;
  EXPECT_EQ(f.caught([&] { f.bridge.snapshotWindows(); }), SafariError::notRunning());
  EXPECT_EQ(f.caught([&] { f.bridge.countTabs(); }), SafariError::notRunning());
  EXPECT_EQ(f.caught([&] { f.bridge.closeAllTabs({}, false, {}); }), SafariError::notRunning());
  EXPECT_TRUE(f.runner.scripts.empty());
  // Reopening starts Safari itself, so it does not ask; with nothing to open it runs nothing.
  f.runner.runningChecks = 0;
  f.bridge.reopen({}, true);
  EXPECT_TRUE(f.runner.scripts.empty());
  f.bridge.reopen({"https://a.ch/"}, false);
  EXPECT_EQ(f.runner.runningChecks.load(), 0);
  EXPECT_EQ(f.runner.scripts,
            std::vector<std::string>{SafariBridge::reopenScript({"https://a.ch/"}, false)});
}

TEST(SafariBridgeQueue, ScriptsNeverOverlap) {
  Fixture f;
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&] { f.bridge.countTabs(); });
  }
  for (std::thread& t : threads) {
    t.join();
  }
  EXPECT_EQ(f.runner.scripts.size(), 6u);
  // An exception passes to its caller and the line moves on.
  SerialQueue queue("test");
  EXPECT_THROW(queue.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_EQ(queue.run([] { return 7; }), 7);
}

TEST(SafariBridgeWorkspace, OpensWithSafariOrFallsBackToTheDefaultBrowserOneByOne) {
  Fixture mac;
  SafariBridge bridge(mac.env, true);
  bridge.openWithWorkspace({"https://a.ch/", "https://b.ch/"});
  mac.launcher.statuses = {1, std::nullopt, 0};  // no Safari; the first plain open fails too
  bridge.openWithWorkspace({"https://a.ch/", "https://b.ch/"});
  EXPECT_EQ(mac.launcher.calls,
            (std::vector<std::vector<std::string>>{
                {"open", "-b", "com.apple.Safari", "https://a.ch/", "https://b.ch/"},
                {"open", "-b", "com.apple.Safari", "https://a.ch/", "https://b.ch/"},
                {"open", "https://a.ch/"},
                {"open", "https://b.ch/"}}));
  EXPECT_TRUE(mac.runner.scripts.empty());
  Fixture other;  // no bundle opener: xdg-open for each address, skipping blanks and options
  other.bridge.openWithWorkspace({"https://a.ch/", "-x", "", "https://b.ch/"});
  other.bridge.openWithWorkspace({});
  EXPECT_EQ(other.launcher.calls,
            (std::vector<std::vector<std::string>>{{"xdg-open", "https://a.ch/"},
                                                   {"xdg-open", "https://b.ch/"}}));
}

}  // namespace
}  // namespace kestrova
