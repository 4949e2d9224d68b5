// The bridge's logic against a fake script runner and a recording launcher; reading osascript's
// results and errors; and the real runner against a stand-in `osascript`.

#include <atomic>
#include <chrono>
#include <deque>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <kestrova/safari_bridge.h>
#include <kestrova/script_runner.h>

#include "serial_queue.h"
#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

using ::testing::HasSubstr;
using S = ScriptValue;
using Kind = ScriptValue::Kind;
using Calls = std::vector<std::vector<std::string>>;

const auto str = [](std::string s) { return S::makeString(std::move(s)); };
const auto num = [](std::int64_t i) { return S::makeInteger(i); };
const auto list = [](std::vector<ScriptValue> items) { return S::makeList(items); };
ScriptValue other(std::string source) {
  S value;
  value.kind = Kind::other;
  value.text = std::move(source);
  return value;
}

ScriptValue parsed(std::string_view text) {
  auto result = parseScriptResult(text);
  EXPECT_TRUE(std::holds_alternative<ScriptValue>(result)) << text;
  return std::holds_alternative<ScriptValue>(result) ? std::get<ScriptValue>(result) : S{};
}

// Records every script and answers with queued outcomes (an empty list when none is queued).
class FakeRunner : public ScriptRunner {
 public:
  bool running = true;
  std::atomic<int> runningChecks{0}, active{0};
  std::vector<std::string> scripts;
  std::deque<ScriptOutcome> answers;

  bool isApplicationRunning(std::string_view bundleID) override {
    EXPECT_EQ(bundleID, "com.apple.Safari");
    return ++runningChecks, running;
  }
  ScriptOutcome run(std::string_view source) override {
    // Scripts must never overlap: a second one arriving while this one runs is a fault.
    EXPECT_EQ(active.fetch_add(1), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    scripts.emplace_back(source);
    ScriptOutcome next = answers.empty() ? list({}) : answers.front();
    if (!answers.empty())
      answers.pop_front();
    return active.fetch_sub(1), next;
  }
};

// Records every command and answers with queued exit statuses (0 when none is queued).
class RecordingLauncher : public ProcessLauncher {
 public:
  Calls calls;
  std::deque<std::optional<int>> statuses;
  std::optional<int> run(const std::vector<std::string>& argv, std::chrono::milliseconds) override {
    calls.push_back(argv);
    std::optional<int> status = statuses.empty() ? 0 : statuses.front();
    if (!statuses.empty())
      statuses.pop_front();
    return status;
  }
};

struct Fixture {
  FakeRunner runner;
  RecordingLauncher launcher;
  testing::FakeEnv env{{.launcher = &launcher, .runner = &runner}};
  SafariBridge bridge{env, false};
};

// The user text of the SafariError `body` throws.
std::string failure(const std::function<void()>& body) {
  try {
    body();
  } catch (const SafariError& e) {
    return e.what();
  }
  return "kein Fehler";
}

TEST(SafariBridgeScripts, TheRunnerGetsTheGivenAddressesQuotedAndSorted) {
  Fixture f;
  f.runner.answers = {num(4)};
  EXPECT_EQ(
      f.bridge.closeTabs({"https://b.ch/X", R"(https://a.ch/"b\c)"}, {"GitHub.COM", "Ünï.ch"}), 4);
  std::vector<SafariWindow> windows = {{1, {{"A", "https://a.ch/", 1}, {"B", "https://b.ch/", 2}}},
                                       {2, {{"A again", "https://a.ch/", 1}}}};
  // Pinned domains are kept only when asked to; each address is named once.
  f.bridge.closeAllTabs(windows, false, {"A.ch"});
  f.bridge.closeAllTabs(windows, true, {"A.ch"});
  f.bridge.reopen({"https://z.ch/", "https://a.ch/"}, true);
  f.bridge.reopen({"https://a.ch/"}, false);
  const char* expected[] = {
      "    set saved to {\"https://a.ch/\\\"b\\\\c\", \"https://b.ch/X\"}\n"
      "    set keepList to {\"github.com\", \"ünï.ch\"}\n",
      "    set saved to {\"https://a.ch/\", \"https://b.ch/\"}\n    set keepList to {}\n",
      "    set saved to {\"https://a.ch/\", \"https://b.ch/\"}\n    set keepList to {\"a.ch\"}\n",
      "    set theURLs to {\"https://z.ch/\", \"https://a.ch/\"}\n    set useNew to true\n",
      "    set theURLs to {\"https://a.ch/\"}\n    set useNew to false\n"};
  ASSERT_EQ(f.runner.scripts.size(), 5u);
  for (int i = 0; i < 5; ++i)
    EXPECT_THAT(f.runner.scripts[i], HasSubstr(expected[i])) << i;
}

TEST(SafariBridgeSnapshot, WindowsAndCountsParsedBlankPagesSkippedWithoutRenumbering) {
  Fixture f;
  f.runner.answers.push_back(list({
      list({num(1), list({str("https://a.ch/"), str("about:blank"), str("https://b.ch/")}),
            list({str("A"), str(""), S::makeMissing()})}),
      list({num(2), list({str("favorites://"), str("about:blank")}), list({str("F"), str("")})}),
      list({num(4), list({str("https://c.ch/")}), list({str("")})}),
      str("garbage"),
      list({num(5), list({})}),
      // A single tab may come as a plain value; a window number that is no integer reads as 0,
      // and fewer names than addresses fall back to the address.
      list({num(3), str("https://single.ch/"), str("Single")}),
      list({S::makeMissing(), list({str("https://n.ch/"), num(7)}), list({num(8)})}),
  }));
  EXPECT_EQ(f.bridge.snapshotWindows(),
            (std::vector<SafariWindow>{
                {1, {{"A", "https://a.ch/", 1}, {"https://b.ch/", "https://b.ch/", 3}}},
                {4, {{"", "https://c.ch/", 1}}},
                {3, {{"Single", "https://single.ch/", 1}}},
                {0, {{"8", "https://n.ch/", 1}, {"7", "7", 2}}}}));
  // Counting reads a pair or falls back to zero; a real number out of range reads as 0 too.
  f.runner.answers = {list({num(12), num(3)}), list({num(12)}), list({num(12), S::makeMissing()}),
                      str("odd"), parsed("{-5.0E+9, 1.0E+20}")};
  EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{12, 3}));
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{0, 0})) << i;
  f.runner.answers.push_back(ScriptValue{});
  EXPECT_EQ(f.bridge.closeTabs({"https://a.ch/"}, {}), 0);
}

TEST(SafariBridgeErrors, ScriptErrorsBecomeTheUserTextsAndInvalidTextNeverRuns) {
  const std::string notRunning =
      "Safari ist nicht geöffnet. Öffne Safari und versuche es nochmals.";
  const std::string denied =
      "Kestrova darf Safari noch nicht steuern. Erlauben: Systemeinstellungen → Datenschutz & "
      "Sicherheit → Automation → Kestrova → Safari einschalten.";
  Fixture f;
  for (const auto& [error, text] : std::vector<std::pair<ScriptError, std::string>>{
           {{-1743, "x"}, denied},
           {{-1744, "x"}, denied},
           {{-600, "x"}, notRunning},
           {{-609, "x"}, notRunning},
           {{-1700, "Kann nicht umwandeln."},
            "Safari hat nicht geantwortet (Fehler -1700): Kann nicht umwandeln."},
           {{0, std::nullopt}, "Safari hat nicht geantwortet (Fehler 0): unbekannt"}}) {
    f.runner.answers.push_back(error);
    EXPECT_EQ(failure([&] { f.bridge.countTabs(); }), text) << error.number;
  }
  const std::string invalid = "Safari hat nicht geantwortet (Fehler 0): Skript ungültig";
  EXPECT_EQ(failure([&] { f.bridge.closeTabs({"https://a.ch/\xff"}, {}); }), invalid);
  EXPECT_EQ(failure([&] { f.bridge.reopen({std::string("https://a.ch/\0x", 15)}, true); }),
            invalid);
  EXPECT_EQ(f.runner.scripts.size(), 6u);
  // Not running stops before any script, except reopening, which starts Safari itself.
  f.runner.running = false;
  EXPECT_EQ(failure([&] { f.bridge.snapshotWindows(); }), notRunning);
  EXPECT_EQ(failure([&] { f.bridge.countTabs(); }), notRunning);
  EXPECT_EQ(failure([&] { f.bridge.closeAllTabs({}, false, {}); }), notRunning);
  f.runner.runningChecks = 0;
  f.bridge.reopen({}, true);  // nothing to open runs nothing
  f.bridge.reopen({"https://a.ch/"}, false);
  EXPECT_EQ(f.runner.runningChecks.load(), 0);
  EXPECT_EQ(f.runner.scripts.size(), 7u);
}

TEST(SafariBridgeQueue, ScriptsNeverOverlapAndAnExceptionPassesToItsCaller) {
  Fixture f;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 6; ++i)
    threads.emplace_back([&] { f.bridge.countTabs(); });
  threads.clear();
  EXPECT_EQ(f.runner.scripts.size(), 6u);
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
  const std::vector<std::string> safari = {"open", "-b", "com.apple.Safari", "https://a.ch/",
                                           "https://b.ch/"};
  EXPECT_EQ(mac.launcher.calls,
            (Calls{safari, safari, {"open", "https://a.ch/"}, {"open", "https://b.ch/"}}));
  Fixture xdg;  // no bundle opener: xdg-open for each address, skipping blanks and options
  xdg.bridge.openWithWorkspace({"https://a.ch/", "-x", "", "https://b.ch/"});
  xdg.bridge.openWithWorkspace({});
  EXPECT_EQ(xdg.launcher.calls,
            (Calls{{"xdg-open", "https://a.ch/"}, {"xdg-open", "https://b.ch/"}}));
  EXPECT_TRUE(mac.runner.scripts.empty() && xdg.runner.scripts.empty());
}

TEST(ScriptResultParse, TreesScalarsRecordsAndEscapes) {
  ScriptValue v =
      parsed(R"({{1, {"https://a.ch/?q=\"x\"", "C:\\dir"}, {"Tab", missing value}}, {}})");
  EXPECT_EQ(v, list({list({num(1), list({str("https://a.ch/?q=\"x\""), str("C:\\dir")}),
                           list({str("Tab"), S::makeMissing()})}),
                     list({})}));
  EXPECT_EQ(v.item(3), nullptr);
  EXPECT_EQ(v.item(0), nullptr);
  EXPECT_EQ(parsed("-42"), num(-42));
  EXPECT_DOUBLE_EQ(parsed("1.0E+20").real, 1e20);
  EXPECT_EQ(parsed("99999999999999999999").kind, Kind::real);
  EXPECT_TRUE(parsed("true").boolean);
  EXPECT_EQ(parsed("false").kind, Kind::boolean);
  EXPECT_EQ(parsed(R"("a\nb\tc\rd\q")").text, "a\nb\tc\rd\\q");
  EXPECT_EQ(parsed(" \n").kind, Kind::nothing);
  // Records keep their keys; other objects are kept as their source text.
  ScriptValue r = parsed(R"({name:"x", |my key|:{1, 2}, «class abcd»:date "1. Januar 2024"})");
  ASSERT_EQ(r.kind, Kind::record);
  EXPECT_EQ(r.fields, (decltype(r.fields){{"name", str("x")},
                                          {"my key", list({num(1), num(2)})},
                                          {"«class abcd»", other("date \"1. Januar 2024\"")}}));
  EXPECT_EQ(
      parsed(R"({tab 1 of window id 12 of application "Safari", «data utf8416263»})"),
      list({other("tab 1 of window id 12 of application \"Safari\""), other("«data utf8416263»")}));
}

TEST(ScriptResultParse, BadOrDeepInputGivesErrorsNeverACrash) {
  for (const std::string& bad : std::vector<std::string>{
           "\"open", "{1, 2", "}", "{1,}", "{,}", "1 }", "{a:1, 2}", "{|a:1}", "\xC2\xAB unclosed",
           "{x:}", "{\"a\" \"b\"}", std::string(100000, '{'), "x " + std::string(5000, '{')}) {
    auto result = parseScriptResult(bad);
    ASSERT_TRUE(std::holds_alternative<ScriptParseError>(result)) << bad.substr(0, 20);
    EXPECT_FALSE(std::get<ScriptParseError>(result).message.empty());
    EXPECT_LE(std::get<ScriptParseError>(result).offset, bad.size());
  }
  EXPECT_EQ(parsed(std::string(200, '{') + std::string(200, '}')).kind, Kind::list);
}

TEST(ScriptResultParse, CoercionAndErrorLines) {
  EXPECT_EQ(num(7).stringValue(), "7");
  EXPECT_EQ(parsed("true").stringValue(), "true");
  EXPECT_EQ(S::makeMissing().stringValue(), std::nullopt);
  // Out of the int32 range (for an integer, a real or a text) gives 0, never a wrapped number.
  for (const auto& [text, value] :
       std::vector<std::pair<std::string, int>>{{"\"12\"", 12},
                                                {"\"12x\"", 0},
                                                {"\"2147483648\"", 0},
                                                {"3.9", 3},
                                                {"-2147483648", INT32_MIN},
                                                {"2147483647", INT32_MAX},
                                                {"4294967296", 0},
                                                {"-5.0E+9", 0},
                                                {"1.0E+20", 0},
                                                {"-2.147483648E+9", INT32_MIN},
                                                {"2.147483647E+9", INT32_MAX},
                                                {"missing value", 0}}) {
    EXPECT_EQ(parsed(text).int32Value(), value) << text;
  }
  for (const auto& [text, error] : std::vector<std::pair<std::string, ScriptError>>{
           {"12:40: execution error: Safari got an error: Not allowed (1). (-1743)\n",
            {-1743, "Safari got an error: Not allowed (1)."}},
           {"0:5: syntax error: Expected end of line. (-2741)", {-2741, "Expected end of line."}},
           {"1:2: execution error: no number", {0, "no number"}},
           {"something odd\n", {0, "something odd"}},
           {" \n", {0, std::nullopt}},
           {"1:2: execution error: (-1728)", {-1728, std::nullopt}}}) {
    EXPECT_EQ(parseScriptError(text), error) << text;
  }
}

// A stand-in `osascript` first on PATH: it records its arguments and standard input, answers
// "is running" questions from running.out and all else from reply.*.
class StandIn {
 public:
  StandIn() : oldPath_(getenv("PATH") != nullptr ? getenv("PATH") : "") {
    const std::string d = "'" + folder_.path().string() + "/";
    script("printf '%s\\n' \"$*\" > " + d + "args.txt'\ncat > " + d + "stdin.txt'\nif grep -q " +
           "'is running' " + d + "stdin.txt'; then cat " + d + "running.out'; exit 0; fi\ncat " +
           d + "reply.out'\ncat " + d + "reply.err' >&2\nexit $(cat " + d + "reply.code')\n");
    reply("");
    setenv("PATH", (folder_.path().string() + ":" + oldPath_).c_str(), 1);
  }
  ~StandIn() { setenv("PATH", oldPath_.c_str(), 1); }
  void script(const std::string& body) {
    testing::writeFile(folder_ / "osascript", "#!/bin/sh\n" + body);
    ::chmod((folder_ / "osascript").c_str(), 0755);
  }
  void reply(const std::string& out, const std::string& err = "", int code = 0) {
    testing::writeFile(folder_ / "reply.out", out);
    testing::writeFile(folder_ / "reply.err", err);
    testing::writeFile(folder_ / "reply.code", std::to_string(code));
  }
  void running(bool yes) { testing::writeFile(folder_ / "running.out", yes ? "true\n" : "false"); }
  std::string file(const std::string& name) const { return testing::readFile(folder_ / name); }

 private:
  testing::TestFolder folder_;
  std::string oldPath_;
};

TEST(OsascriptRunner, PassesSourceOnStdinAndReadsResultsAndErrors) {
  StandIn standIn;
  standIn.running(true);
  standIn.reply("{{1, {\"https://a.ch/\", \"favorites://\"}, {\"A \\\"q\\\"\", \"F\"}}}\n");
  OsascriptRunner runner;
  testing::FakeEnv env({.runner = &runner});
  EXPECT_EQ(SafariBridge(env, false).snapshotWindows(),
            (std::vector<SafariWindow>{{1, {{"A \"q\"", "https://a.ch/", 1}}}}));
  EXPECT_EQ(standIn.file("stdin.txt"), SafariBridge::readScript());
  EXPECT_EQ(standIn.file("args.txt"), "-ss\n");
  const std::string source = "return \"it's $HOME `x`\"";
  standIn.reply("{\"broken\n");  // unreadable: kept as raw text
  EXPECT_EQ(std::get<ScriptValue>(runner.run(source)).kind, Kind::other);
  EXPECT_EQ(standIn.file("stdin.txt"), source);
  standIn.reply("", "31:40: execution error: Safari got an error: Not authorised. (-1743)\n", 1);
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")),
            (ScriptError{-1743, "Safari got an error: Not authorised."}));
  standIn.reply("", "", 1);
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")), (ScriptError{0, std::nullopt}));
  EXPECT_TRUE(runner.isApplicationRunning("com.apple.Safari"));
  EXPECT_EQ(standIn.file("stdin.txt"), "application id \"com.apple.Safari\" is running");
  standIn.running(false);
  EXPECT_FALSE(runner.isApplicationRunning("com.apple.Safari"));
  // Without osascript at all Safari counts as not running, reopening included.
  testing::TestFolder empty;
  OsascriptRunner missing((empty / "osascript").string());
  EXPECT_FALSE(missing.isApplicationRunning("com.apple.Safari"));
  testing::FakeEnv none({.runner = &missing});
  EXPECT_EQ(failure([&] { SafariBridge(none, false).reopen({"https://a.ch/"}, true); }),
            "Safari ist nicht geöffnet. Öffne Safari und versuche es nochmals.");
}

TEST(OsascriptRunner, StallsAndLargeOrIgnoredInputAreSurvived) {
  StandIn standIn;
  // Echoes its whole input back as one string literal after reading all of it.
  standIn.script("printf '\"'; cat; printf '\"\\n'\n");
  const std::string big(3 << 20, 'a');
  EXPECT_EQ(std::get<ScriptValue>(OsascriptRunner().run(big)).text, big);
  standIn.script("exec 0<&-\necho 5\n");
  EXPECT_EQ(std::get<ScriptValue>(OsascriptRunner().run(std::string(8 << 20, 'x'))).integer, 5);
  standIn.script("exec sleep 30\n");
  const auto start = std::chrono::steady_clock::now();
  OsascriptRunner impatient("osascript", std::chrono::milliseconds(300));
  EXPECT_EQ(std::get<ScriptError>(impatient.run("x")).number, -1712);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));  // the stall is cut
}

}  // namespace
}  // namespace kestrova
