// The bridge's logic against a fake script runner and a recording launcher.

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_set>

#include <gtest/gtest.h>

#include <kestrova/safari_bridge.h>

#include "serial_queue.h"
#include "support/fake_env.h"

namespace kestrova {
namespace {

using Kind = ScriptValue::Kind;

ScriptValue str(std::string s) {
  return ScriptValue::makeString(std::move(s));
}
ScriptValue num(std::int64_t i) {
  return ScriptValue::makeInteger(i);
}
ScriptValue list(std::vector<ScriptValue> items) {
  return ScriptValue::makeList(std::move(items));
}

// Records every script and answers with queued outcomes (an empty list when none is queued).
class FakeRunner : public ScriptRunner {
 public:
  bool running = true;
  int runningChecks = 0;
  std::vector<std::string> scripts;
  std::deque<ScriptOutcome> answers;

  bool isApplicationRunning(std::string_view bundleID) override {
    EXPECT_EQ(bundleID, "com.apple.Safari");
    ++runningChecks;
    return running;
  }
  ScriptOutcome run(std::string_view source) override {
    scripts.emplace_back(source);
    if (answers.empty()) {
      return list({});
    }
    ScriptOutcome next = answers.front();
    answers.pop_front();
    return next;
  }
};

class RecordingLauncher : public ProcessLauncher {
 public:
  std::vector<std::vector<std::string>> calls;
  std::deque<std::optional<int>> statuses;
  std::optional<int> run(const std::vector<std::string>& argv, std::chrono::milliseconds) override {
    calls.push_back(argv);
    if (statuses.empty()) {
      return 0;
    }
    std::optional<int> s = statuses.front();
    statuses.pop_front();
    return s;
  }
};

struct Fixture {
  FakeRunner runner;
  RecordingLauncher launcher;
  testing::FakeEnv env{{.launcher = &launcher, .runner = &runner}};
  SafariBridge bridge{env, false};
};

SafariError caught(const std::function<void()>& body) {
  try {
    body();
  } catch (const SafariError& e) {
    return e;
  }
  ADD_FAILURE() << "no SafariError thrown";
  return SafariError::scriptFailed(-999999, "none");
}

TEST(SafariBridgeScripts, ReadAndCountScriptsAreExact) {
  EXPECT_EQ(SafariBridge::readScript(),
            "tell application \"Safari\"\n"
            "    set out to {}\n"
            "    set wi to 0\n"
            "    repeat with w in (every window)\n"
            "        set wi to wi + 1\n"
            "        try\n"
            "            set us to URL of every tab of w\n"
            "            set ns to name of every tab of w\n"
            "            set end of out to {wi, us, ns}\n"
            "        end try\n"
            "    end repeat\n"
            "    return out\n"
            "end tell");
  EXPECT_EQ(SafariBridge::countScript(),
            "tell application \"Safari\"\n"
            "    set total to 0\n"
            "    set wc to 0\n"
            "    repeat with w in (every window)\n"
            "        try\n"
            "            set c to count of tabs of w\n"
            "            if c > 0 then\n"
            "                set total to total + c\n"
            "                set wc to wc + 1\n"
            "            end if\n"
            "        end try\n"
            "    end repeat\n"
            "    return {total, wc}\n"
            "end tell");
}

TEST(SafariBridgeScripts, CloseScriptSortsSavedAndLowerCasesKeepEntries) {
  std::string script =
      SafariBridge::closeScript({"https://b.ch/X", "https://a.ch/"}, {"GitHub.COM", "Ünï.ch"});
  EXPECT_EQ(script,
            "tell application \"Safari\"\n"
            "    set saved to {\"https://a.ch/\", \"https://b.ch/X\"}\n"
            "    set keepList to {\"github.com\", \"ünï.ch\"}\n"
            "    set closedCount to 0\n"
            "    set wins to every window\n"
            "    repeat with wi from (count of wins) to 1 by -1\n"
            "        set w to item wi of wins\n"
            "        try\n"
            "            set tc to count of tabs of w\n"
            "            repeat with ti from tc to 1 by -1\n"
            "                try\n"
            "                    set t to tab ti of w\n"
            "                    set u to URL of t\n"
            "                    set keepIt to false\n"
            "                    repeat with k in keepList\n"
            "                        if u contains (k as text) then set keepIt to true\n"
            "                    end repeat\n"
            "                    if (not keepIt) and (saved contains u) then\n"
            "                        close t\n"
            "                        set closedCount to closedCount + 1\n"
            "                    end if\n"
            "                end try\n"
            "            end repeat\n"
            "        end try\n"
            "    end repeat\n"
            "    return closedCount\n"
            "end tell");
  EXPECT_NE(SafariBridge::closeScript({}, {}).find("    set saved to {}\n    set keepList to {}\n"),
            std::string::npos);
}

TEST(SafariBridgeScripts, ReopenScriptChoosesWindowAndKeepsOrder) {
  std::string tail =
      "    if useNew or (count of windows) is 0 then\n"
      "        make new document with properties {URL:(item 1 of theURLs)}\n"
      "        set startAt to 2\n"
      "    else\n"
      "        set startAt to 1\n"
      "    end if\n"
      "    tell front window\n"
      "        repeat with i from startAt to (count of theURLs)\n"
      "            make new tab at end of tabs with properties {URL:(item i of theURLs)}\n"
      "        end repeat\n"
      "    end tell\n"
      "    activate\n"
      "end tell";
  EXPECT_EQ(SafariBridge::reopenScript({"https://z.ch/", "https://a.ch/"}, true),
            "tell application \"Safari\"\n"
            "    set theURLs to {\"https://z.ch/\", \"https://a.ch/\"}\n"
            "    set useNew to true\n" +
                tail);
  EXPECT_EQ(SafariBridge::reopenScript({"https://a.ch/"}, false),
            "tell application \"Safari\"\n"
            "    set theURLs to {\"https://a.ch/\"}\n"
            "    set useNew to false\n" +
                tail);
}

TEST(SafariBridgeScripts, QuotingDoublesBackslashesBeforeEscapingQuotes) {
  EXPECT_EQ(SafariBridge::quoted(R"(https://x.ch/?q="a\b")"), R"("https://x.ch/?q=\"a\\b\"")");
  EXPECT_EQ(SafariBridge::quoted(R"(\")"), R"("\\\"")");
  EXPECT_EQ(SafariBridge::quoted(""), R"("")");
  std::string script = SafariBridge::closeScript({R"(https://x.ch/a"b\c)"}, {R"(K"\)"});
  EXPECT_NE(script.find(R"(set saved to {"https://x.ch/a\"b\\c"})"), std::string::npos);
  EXPECT_NE(script.find(R"(set keepList to {"k\"\\"})"), std::string::npos);
}

TEST(SafariBridgeSnapshot, ParsesWindowsAndSkipsBlankPagesWithoutRenumbering) {
  Fixture f;
  f.runner.answers.push_back(list({
      list({num(1), list({str("https://a.ch/"), str("about:blank"), str("https://b.ch/")}),
            list({str("A"), str(""), ScriptValue::makeMissing()})}),
      list({num(2), list({str("favorites://"), str("about:blank")}), list({str("F"), str("")})}),
      list({num(4), list({str("https://c.ch/")}), list({str("")})}),
  }));
  std::vector<SafariWindow> windows = f.bridge.snapshotWindows();
  ASSERT_EQ(f.runner.scripts.size(), 1u);
  EXPECT_EQ(f.runner.scripts[0], SafariBridge::readScript());
  std::vector<SafariWindow> expected = {
      {1, {{"A", "https://a.ch/", 1}, {"https://b.ch/", "https://b.ch/", 3}}},
      {4, {{"", "https://c.ch/", 1}}},
  };
  EXPECT_EQ(windows, expected);
}

TEST(SafariBridgeSnapshot, MalformedEntriesAreSkippedNotThrown) {
  ScriptValue oneTab = list({num(3), str("https://single.ch/"), str("Single")});
  ScriptValue noNumber = list({ScriptValue{}, list({str("https://n.ch/")}), list({})});
  noNumber.items[0].kind = Kind::missingValue;
  ScriptValue result = list({str("garbage"), list({num(1), list({})}), oneTab, noNumber});
  std::vector<SafariWindow> windows = SafariBridge::parseWindows(result);
  ASSERT_EQ(windows.size(), 2u);
  // A window whose tabs come back as single values (one tab) is still read.
  EXPECT_EQ(windows[0], (SafariWindow{3, {{"Single", "https://single.ch/", 1}}}));
  // A window number that is no integer reads as 0; fewer names than addresses fall back to the URL.
  EXPECT_EQ(windows[1], (SafariWindow{0, {{"https://n.ch/", "https://n.ch/", 1}}}));
  EXPECT_TRUE(SafariBridge::parseWindows(str("x")).empty());
  EXPECT_TRUE(SafariBridge::parseWindows(ScriptValue{}).empty());
}

TEST(SafariBridgeSnapshot, StringsReadsListsAndSingleValues) {
  EXPECT_TRUE(SafariBridge::strings(nullptr).empty());
  ScriptValue single = str("s");
  EXPECT_EQ(SafariBridge::strings(&single), (std::vector<std::optional<std::string>>{"s"}));
  ScriptValue missing = ScriptValue::makeMissing();
  EXPECT_EQ(SafariBridge::strings(&missing),
            (std::vector<std::optional<std::string>>{std::nullopt}));
  ScriptValue mixed = list({str("a"), num(7), ScriptValue::makeMissing(), list({})});
  EXPECT_EQ(SafariBridge::strings(&mixed),
            (std::vector<std::optional<std::string>>{"a", "7", std::nullopt, std::nullopt}));
}

TEST(SafariBridgeErrors, MapsScriptErrorNumbers) {
  EXPECT_EQ(SafariBridge::errorFor({-1743, "x"}), SafariError::permissionDenied());
  EXPECT_EQ(SafariBridge::errorFor({-1744, "x"}), SafariError::permissionDenied());
  EXPECT_EQ(SafariBridge::errorFor({-600, "x"}), SafariError::notRunning());
  EXPECT_EQ(SafariBridge::errorFor({-609, "x"}), SafariError::notRunning());
  SafariError failed = SafariBridge::errorFor({-1700, "Kann nicht umwandeln."});
  EXPECT_EQ(failed, SafariError::scriptFailed(-1700, "Kann nicht umwandeln."));
  EXPECT_STREQ(failed.what(), "Safari hat nicht geantwortet (Fehler -1700): Kann nicht umwandeln.");
  EXPECT_EQ(SafariBridge::errorFor({0, std::nullopt}).description(),
            "Safari hat nicht geantwortet (Fehler 0): unbekannt");
}

TEST(SafariBridgeErrors, DescriptionsAreTheUserTexts) {
  EXPECT_EQ(SafariError::notRunning().description(),
            "Safari ist nicht geöffnet. Öffne Safari und versuche es nochmals.");
  EXPECT_EQ(
      SafariError::permissionDenied().description(),
      "Kestrova darf Safari noch nicht steuern. Erlauben: Systemeinstellungen → Datenschutz & "
      "Sicherheit → Automation → Kestrova → Safari einschalten.");
  EXPECT_NE(SafariError::scriptFailed(1, "a"), SafariError::scriptFailed(1, "b"));
}

TEST(SafariBridgeErrors, ThrownFromOperations) {
  Fixture f;
  f.runner.answers.push_back(ScriptError{-1744, "not allowed"});
  EXPECT_EQ(caught([&] { f.bridge.snapshotWindows(); }), SafariError::permissionDenied());
  f.runner.answers.push_back(ScriptError{-609, "connection invalid"});
  EXPECT_EQ(caught([&] { f.bridge.countTabs(); }), SafariError::notRunning());
  f.runner.answers.push_back(ScriptError{-1700, std::nullopt});
  EXPECT_EQ(caught([&] { f.bridge.closeTabs({"https://a.ch/"}, {}); }),
            SafariError::scriptFailed(-1700, "unbekannt"));
}

TEST(SafariBridgeRunning, NotRunningStopsBeforeAnyScript) {
  Fixture f;
  f.runner.running = false;
  EXPECT_EQ(caught([&] { f.bridge.snapshotWindows(); }), SafariError::notRunning());
  EXPECT_EQ(caught([&] { f.bridge.countTabs(); }), SafariError::notRunning());
  EXPECT_EQ(caught([&] { f.bridge.closeAllTabs({}, false, {}); }), SafariError::notRunning());
  EXPECT_TRUE(f.runner.scripts.empty());
  // Reopening starts Safari itself, so it does not ask.
  f.runner.runningChecks = 0;
  f.bridge.reopen({"https://a.ch/"}, false);
  EXPECT_EQ(f.runner.runningChecks, 0);
  ASSERT_EQ(f.runner.scripts.size(), 1u);
  EXPECT_EQ(f.runner.scripts[0], SafariBridge::reopenScript({"https://a.ch/"}, false));
}

TEST(SafariBridgeRunning, ReopenWithNothingRunsNothing) {
  Fixture f;
  f.runner.running = false;
  f.bridge.reopen({}, true);
  EXPECT_TRUE(f.runner.scripts.empty());
  EXPECT_EQ(f.runner.runningChecks, 0);
}

TEST(SafariBridgeCount, ReadsPairOrFallsBackToZero) {
  Fixture f;
  f.runner.answers.push_back(list({num(12), num(3)}));
  EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{12, 3}));
  EXPECT_EQ(f.runner.scripts.back(), SafariBridge::countScript());
  f.runner.answers.push_back(list({num(12)}));
  EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{0, 0}));
  f.runner.answers.push_back(list({num(12), ScriptValue::makeMissing()}));
  EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{0, 0}));
  f.runner.answers.push_back(str("odd"));
  EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{0, 0}));
}

TEST(SafariBridgeClose, ReturnsNumberAndReadsOddResultAsZero) {
  Fixture f;
  f.runner.answers.push_back(num(4));
  EXPECT_EQ(f.bridge.closeTabs({"https://a.ch/"}, {"X.ch"}), 4);
  EXPECT_EQ(f.runner.scripts.back(), SafariBridge::closeScript({"https://a.ch/"}, {"x.ch"}));
  f.runner.answers.push_back(ScriptValue{});
  EXPECT_EQ(f.bridge.closeTabs({"https://a.ch/"}, {}), 0);
}

TEST(SafariBridgeClose, CloseAllIgnoresPinnedDomainsUnlessKeepingPinned) {
  Fixture f;
  std::vector<SafariWindow> windows = {{1, {{"A", "https://a.ch/", 1}, {"B", "https://b.ch/", 2}}},
                                       {2, {{"A again", "https://a.ch/", 1}}}};
  f.bridge.closeAllTabs(windows, false, {"A.ch"});
  EXPECT_EQ(f.runner.scripts.back(),
            SafariBridge::closeScript({"https://a.ch/", "https://b.ch/"}, {}));
  f.bridge.closeAllTabs(windows, true, {"A.ch"});
  EXPECT_EQ(f.runner.scripts.back(),
            SafariBridge::closeScript({"https://a.ch/", "https://b.ch/"}, {"a.ch"}));
}

TEST(SafariBridgeRun, TextThatIsNoValidScriptIsRejected) {
  Fixture f;
  EXPECT_EQ(caught([&] { f.bridge.closeTabs({"https://a.ch/\xff"}, {}); }),
            SafariError::scriptFailed(0, "Skript ungültig"));
  EXPECT_EQ(caught([&] { f.bridge.reopen({std::string("https://a.ch/\0x", 15)}, true); }),
            SafariError::scriptFailed(0, "Skript ungültig"));
  EXPECT_TRUE(f.runner.scripts.empty());
}

// A slow runner that notices overlapping scripts and logs the scripts it ran.
class SlowRunner : public ScriptRunner {
 public:
  std::atomic<int> active{0};
  std::atomic<bool> overlapped{false};
  std::mutex mutex;
  std::vector<std::string> order;
  bool isApplicationRunning(std::string_view) override { return true; }
  ScriptOutcome run(std::string_view source) override {
    if (active.fetch_add(1) != 0) {
      overlapped = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
      std::lock_guard lock(mutex);
      order.emplace_back(source);
    }
    active.fetch_sub(1);
    return num(1);
  }
};

TEST(SafariBridgeQueue, ScriptsNeverOverlap) {
  SlowRunner runner;
  RecordingLauncher launcher;
  testing::FakeEnv env({.launcher = &launcher, .runner = &runner});
  SafariBridge bridge(env, false);
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&] { bridge.countTabs(); });
  }
  for (std::thread& t : threads) {
    t.join();
  }
  EXPECT_FALSE(runner.overlapped.load());
  EXPECT_EQ(runner.order.size(), 6u);
}

TEST(SerialQueueOrder, RunsInSubmissionOrder) {
  SerialQueue queue("test");
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<bool> firstRunning{false};
  std::atomic<bool> letFirstGo{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    queue.run([&] {
      firstRunning = true;
      while (!letFirstGo) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      std::lock_guard lock(mutex);
      order.push_back(0);
    });
  });
  while (!firstRunning) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (int i = 1; i <= 5; ++i) {
    threads.emplace_back([&, i] {
      queue.run([&] {
        std::lock_guard lock(mutex);
        order.push_back(i);
      });
    });
    // The next thread starts only once this one holds its place in the line.
    while (queue.submitted() < static_cast<std::uint64_t>(i + 1)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  letFirstGo = true;
  for (std::thread& t : threads) {
    t.join();
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST(SerialQueueOrder, ExceptionsPassAndTheLineMovesOn) {
  SerialQueue queue("test");
  EXPECT_THROW(queue.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_EQ(queue.run([] { return 7; }), 7);
}

TEST(SafariBridgeWorkspace, OpensAllAtOnceWithSafariWhereTheBundleCanBeNamed) {
  FakeRunner runner;
  RecordingLauncher launcher;
  testing::FakeEnv env({.launcher = &launcher, .runner = &runner});
  SafariBridge bridge(env, true);
  bridge.openWithWorkspace({"https://a.ch/", "https://b.ch/"});
  ASSERT_EQ(launcher.calls.size(), 1u);
  EXPECT_EQ(launcher.calls[0], (std::vector<std::string>{"open", "-b", "com.apple.Safari",
                                                         "https://a.ch/", "https://b.ch/"}));
  EXPECT_TRUE(runner.scripts.empty());
}

TEST(SafariBridgeWorkspace, FallsBackToDefaultBrowserOneByOne) {
  FakeRunner runner;
  RecordingLauncher launcher;
  testing::FakeEnv macEnv({.launcher = &launcher, .runner = &runner});
  SafariBridge mac(macEnv, true);
  launcher.statuses = {1, std::nullopt, 0};  // no Safari; the first plain open fails too
  mac.openWithWorkspace({"https://a.ch/", "https://b.ch/"});
  ASSERT_EQ(launcher.calls.size(), 3u);
  EXPECT_EQ(launcher.calls[1], (std::vector<std::string>{"open", "https://a.ch/"}));
  EXPECT_EQ(launcher.calls[2], (std::vector<std::string>{"open", "https://b.ch/"}));

  RecordingLauncher linuxLauncher;
  testing::FakeEnv otherEnv({.launcher = &linuxLauncher, .runner = &runner});
  SafariBridge other(otherEnv, false);
  other.openWithWorkspace({"https://a.ch/", "-x", "", "https://b.ch/"});
  EXPECT_EQ(linuxLauncher.calls,
            (std::vector<std::vector<std::string>>{{"xdg-open", "https://a.ch/"},
                                                   {"xdg-open", "https://b.ch/"}}));
  linuxLauncher.calls.clear();
  other.openWithWorkspace({});
  EXPECT_TRUE(linuxLauncher.calls.empty());
}

TEST(SafariRecords, EqualityAndHashingCoverAllFields) {
  std::unordered_set<SafariTab> tabs = {{"A", "https://a.ch/", 1},
                                        {"A", "https://a.ch/", 1},
                                        {"A", "https://a.ch/", 2},
                                        {"B", "https://a.ch/", 1}};
  EXPECT_EQ(tabs.size(), 3u);
  std::unordered_set<SafariWindow> windows = {
      {1, {{"A", "u", 1}}}, {1, {{"A", "u", 1}}}, {2, {{"A", "u", 1}}}, {1, {}}};
  EXPECT_EQ(windows.size(), 3u);
}

}  // namespace
}  // namespace kestrova
