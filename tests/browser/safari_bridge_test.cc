#include <atomic>
#include <chrono>
#include <thread>

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

using S = ScriptValue;
using Kind = ScriptValue::Kind;
using Calls = std::vector<std::vector<std::string>>;

const auto str = [](std::string s) { return S::makeString(std::move(s)); };
const auto num = [](std::int64_t i) { return S::makeInteger(i); };
const auto list = [](std::vector<ScriptValue> items) { return S::makeList(items); };
const auto other = [](std::string t) {
  return S{.kind = Kind::other, .text = t, .items = {}, .fields = {}};
};

ScriptValue parsed(std::string_view text) {
  return std::get<ScriptValue>(parseScriptResult(text));  // throws when the text is unreadable
}

// A bridge whose runner and launcher record all they get and answer `answer` and `statuses`.
struct Fake : ScriptRunner, ProcessLauncher {
  bool running = true;
  std::atomic<int> active{0};
  std::vector<std::string> scripts;
  ScriptOutcome answer = list({});
  Calls calls;
  std::vector<std::optional<int>> statuses;
  testing::FakeEnv env{{.launcher = this, .runner = this}};
  SafariBridge bridge{env, false};

  bool isApplicationRunning(std::string_view bundleID) override {
    return running && bundleID == "com.apple.Safari";
  }
  ScriptOutcome run(std::string_view source) override {
    EXPECT_EQ(active.fetch_add(1), 0);  // a second script while one runs is a fault
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    scripts.emplace_back(source);
    return active.fetch_sub(1), answer;
  }
  std::optional<int> run(const std::vector<std::string>& argv, std::chrono::milliseconds) override {
    calls.push_back(argv);
    return calls.size() <= statuses.size() ? statuses[calls.size() - 1] : 0;
  }
};

// The user text of the SafariError `body` throws.
std::string failure(const std::function<void()>& body) try {
  return body(), "kein Fehler";
} catch (const SafariError& e) {
  return e.what();
}

const std::string kNotRunning = "Safari ist nicht geöffnet. Öffne Safari und versuche es nochmals.";

TEST(SafariBridgeScripts, TheRunnerAndTheOpenerGetTheGivenAddressesQuotedSortedOrOneByOne) {
  Fake f;
  f.answer = num(4);
  EXPECT_EQ(
      f.bridge.closeTabs({"https://b.ch/X", R"(https://a.ch/"b\c)"}, {"GitHub.COM", "Ünï.ch"}), 4);
  std::vector<SafariWindow> windows = {{1, {{"A", "https://a.ch/", 1}, {"B", "https://b.ch/", 2}}},
                                       {2, {{"A again", "https://a.ch/", 1}}}};
  f.bridge.closeAllTabs(windows, false, {"A.ch"});  // pinned ones kept only when asked to
  f.bridge.closeAllTabs(windows, true, {"A.ch"});
  f.bridge.reopen({"https://z.ch/", "https://a.ch/"}, true);
  const char* expected[] = {
      "    set saved to {\"https://a.ch/\\\"b\\\\c\", \"https://b.ch/X\"}\n"
      "    set keepList to {\"github.com\", \"ünï.ch\"}\n",
      "    set saved to {\"https://a.ch/\", \"https://b.ch/\"}\n    set keepList to {}\n",
      "    set saved to {\"https://a.ch/\", \"https://b.ch/\"}\n    set keepList to {\"a.ch\"}\n",
      "    set theURLs to {\"https://z.ch/\", \"https://a.ch/\"}\n    set useNew to true\n"};
  ASSERT_EQ(f.scripts.size(), 4u);
  for (int i = 0; i < 4; ++i)
    EXPECT_NE(f.scripts[i].find(expected[i]), std::string::npos) << f.scripts[i];
  SafariBridge bridge(f.env, true);
  f.statuses = {0, 1, std::nullopt, 0};  // then no Safari; the first plain open fails too
  bridge.openWithWorkspace({"https://a.ch/", "https://b.ch/"});
  bridge.openWithWorkspace({"https://a.ch/", "https://b.ch/"});
  const std::vector<std::string> safari = {"open", "-b", "com.apple.Safari", "https://a.ch/",
                                           "https://b.ch/"};
  EXPECT_EQ(f.calls, (Calls{safari, safari, {"open", "https://a.ch/"}, {"open", "https://b.ch/"}}));
  Fake xdg;  // no bundle opener: xdg-open for each address, skipping blanks and options
  xdg.bridge.openWithWorkspace({"https://a.ch/", "-x", "", "https://b.ch/"});
  bridge.openWithWorkspace({"-x", ""});
  EXPECT_EQ(xdg.calls, (Calls{{"xdg-open", "https://a.ch/"}, {"xdg-open", "https://b.ch/"}}));
}

TEST(SafariBridgeRun, WindowsAndCountsAreReadErrorsBecomeUserTextsScriptsNeverOverlap) {
  Fake f;
  const std::string denied =
      "Kestrova darf Safari noch nicht steuern. Erlauben: Systemeinstellungen → Datenschutz & "
      "Sicherheit → Automation → Kestrova → Safari einschalten.";
  // clang-format off
  const std::pair<ScriptError, std::string> rows[] = {
      {{-1743, "x"}, denied}, {{-1744, "x"}, denied}, {{-600, "x"}, kNotRunning},
      {{-609, "x"}, kNotRunning},
      {{-1700, "Kaputt."}, "Safari hat nicht geantwortet (Fehler -1700): Kaputt."},
      {{0, std::nullopt}, "Safari hat nicht geantwortet (Fehler 0): unbekannt"}};
  // A lone tab as a plain value; a window number no integer reads 0; a missing name the address.
  f.answer = parsed(R"({{1, {"https://a.ch/", "about:blank", "https://b.ch/"}, {"A", "",
      missing value}}, {2, {"favorites://", "about:blank"}, {"F", ""}}, "garbage",
      {3, "https://s.ch/", "Single"}, {missing value, {"https://n.ch/", 7}, {8}}})");
  EXPECT_EQ(f.bridge.snapshotWindows(), (std::vector<SafariWindow>{
      {1, {{"A", "https://a.ch/", 1}, {"https://b.ch/", "https://b.ch/", 3}}},
      {3, {{"Single", "https://s.ch/", 1}}}, {0, {{"8", "https://n.ch/", 1}, {"7", "7", 2}}}}));
  // clang-format on
  for (const auto& [error, text] : rows)
    EXPECT_EQ(SafariBridge::errorFor(error).what(), text) << error.number;
  // Counting reads a pair or falls back to zero; a real number out of range reads as 0 too.
  f.answer = parsed("{12, 3}");
  EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{12, 3}));
  for (const char* odd : {"{12}", "{12, missing value}", "\"odd\"", "{-5.0E+9, 1.0E+20}"}) {
    f.answer = parsed(odd);
    EXPECT_EQ(f.bridge.countTabs(), (SafariTabCount{0, 0})) << odd;
  }
  const std::string invalid = "Safari hat nicht geantwortet (Fehler 0): Skript ungültig";
  EXPECT_EQ(failure([&] { f.bridge.closeTabs({"https://a.ch/\xff"}, {}); }), invalid);
  EXPECT_EQ(failure([&] { f.bridge.reopen({std::string("https://a.ch/\0x", 15)}, true); }),
            invalid);
  std::vector<std::jthread> threads;  // one script at a time
  for (int i = 0; i < 6; ++i)
    threads.emplace_back([&] { f.bridge.countTabs(); });
  threads.clear();
  EXPECT_EQ(f.scripts.size(), 12u);
  // Not running stops before any script, except reopening, which starts Safari itself.
  f.running = false;
  EXPECT_EQ(failure([&] { f.bridge.snapshotWindows(); }), kNotRunning);
  EXPECT_EQ(failure([&] { f.bridge.countTabs(); }), kNotRunning);
  EXPECT_EQ(failure([&] { f.bridge.closeAllTabs({}, false, {}); }), kNotRunning);
  f.bridge.reopen({}, true);  // nothing to open runs nothing
  f.bridge.reopen({"https://a.ch/"}, false);
  EXPECT_EQ(f.scripts.size(), 13u);
  SerialQueue queue("test");  // an exception passes to its caller; the next work still runs
  EXPECT_THROW(queue.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_EQ(queue.run([] { return 7; }), 7);
}

TEST(ScriptResultParse, ValuesCoercionsAndErrorLinesAndBadOrDeepInputGivesNoCrash) {
  const ScriptValue pair = parsed("{1, -2}");
  EXPECT_TRUE(pair.item(0) == nullptr && pair.item(3) == nullptr && pair.item(2)->integer == -2);
  EXPECT_EQ(parsed("99999999999999999999").kind, Kind::real);
  EXPECT_TRUE(parsed("true").boolean && parsed("false").kind == Kind::boolean);
  EXPECT_EQ(parsed(R"("a\nb\tc\rd\q\"\\")").text, "a\nb\tc\rd\\q\"\\");
  EXPECT_EQ(parsed(" \n").kind, Kind::nothing);
  // Records keep their keys; other objects are kept as their source text.
  // clang-format off
  EXPECT_EQ(parsed(R"({name:"x", |my key|:{}, «class abcd»:date "1. Januar 2024"})").fields,
            (decltype(S::fields){{"name", str("x")}, {"my key", list({})},
                                 {"«class abcd»", other("date \"1. Januar 2024\"")}}));
  EXPECT_EQ(parsed(R"({tab 1 of window id 12 of application "Safari", «data utf8416263»})"),
            list({other("tab 1 of window id 12 of application \"Safari\""),
                  other("«data utf8416263»")}));
  EXPECT_TRUE(num(7).stringValue() == "7" && parsed("true").stringValue() == "true" &&
              !S::makeMissing().stringValue());
  // Out of the int32 range (for an integer, a real or a text) gives 0, never a wrapped number.
  const std::pair<const char*, int> numbers[] = {
      {"\"12\"", 12}, {"\"12x\"", 0}, {"\"2147483648\"", 0}, {"3.9", 3}, {"4294967296", 0},
      {"-2147483648", INT32_MIN}, {"2147483647", INT32_MAX}, {"-5.0E+9", 0}, {"1.0E+20", 0},
      {"-2.147483648E+9", INT32_MIN}, {"2.147483647E+9", INT32_MAX}, {"missing value", 0}};
  const std::pair<const char*, ScriptError> errors[] = {
      {"0:5: syntax error: Expected end of line. (-2741)", {-2741, "Expected end of line."}},
      {"1:2: execution error: no number", {0, "no number"}}, {"odd\n", {0, "odd"}},
      {" \n", {0, std::nullopt}}, {"1:2: execution error: (-1728)", {-1728, std::nullopt}}};
  // clang-format on
  EXPECT_EQ(parsed(std::string(200, '{') + std::string(200, '}')).kind, Kind::list);
  for (const std::string& bad : std::vector<std::string>{
           "\"open", "{1, 2", "}", "{1,}", "{,}", "1 }", "{a:1, 2}", "{|a:1}", "\xC2\xAB unclosed",
           "{x:}", "{\"a\" \"b\"}", std::string(100000, '{'), "x " + std::string(5000, '{')}) {
    auto result = parseScriptResult(bad);
    ASSERT_TRUE(std::holds_alternative<ScriptParseError>(result)) << bad.substr(0, 20);
    EXPECT_FALSE(std::get<ScriptParseError>(result).message.empty());
    EXPECT_LE(std::get<ScriptParseError>(result).offset, bad.size());
  }
  for (const auto& [text, value] : numbers)
    EXPECT_EQ(parsed(text).int32Value(), value) << text;
  for (const auto& [text, error] : errors)
    EXPECT_EQ(parseScriptError(text), error) << text;
}

// A stand-in `osascript` in a fresh folder first on PATH; it runs in that folder.
struct StandIn : testing::TestFolder {
  const std::string oldPath = getenv("PATH");
  StandIn() { setenv("PATH", (path().string() + ":" + oldPath).c_str(), 1); }
  ~StandIn() { setenv("PATH", oldPath.c_str(), 1); }
  void script(const std::string& body) {
    testing::writeFile(*this / "osascript", "#!/bin/sh\ncd '" + path().string() + "'\n" + body);
    ::chmod((*this / "osascript").c_str(), 0755);
  }
  std::string file(const char* name) { return testing::readFile(*this / name); }
};

TEST(OsascriptRunner, PassesSourceOnStdinReadsResultsAndErrorsAndSurvivesStallsAndLargeInput) {
  StandIn standIn;
  OsascriptRunner runner;
  standIn.script("echo \"$*\" > args; cat > in; printf '%s\\n' '{1, \"A \\\"q\\\"\"}'");
  const std::string source = "return \"it's $HOME `x`\"";
  EXPECT_EQ(std::get<ScriptValue>(runner.run(source)), list({num(1), str("A \"q\"")}));
  EXPECT_EQ(standIn.file("in") + "|" + standIn.file("args"), source + "|-ss\n");
  standIn.script("echo '{\"broken'");  // unreadable: kept as raw text
  EXPECT_EQ(std::get<ScriptValue>(runner.run(source)), other("{\"broken"));
  standIn.script("echo '12:40: execution error: Safari got an error: No (1). (-1743)' >&2; exit 1");
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")),
            (ScriptError{-1743, "Safari got an error: No (1)."}));
  standIn.script("cat > in; echo true");
  EXPECT_TRUE(runner.isApplicationRunning("com.apple.Safari"));
  EXPECT_EQ(standIn.file("in"), "application id \"com.apple.Safari\" is running");
  // Without osascript at all Safari counts as not running; scripts give "not running".
  OsascriptRunner missing((standIn / "none").string());
  EXPECT_FALSE(missing.isApplicationRunning("com.apple.Safari"));
  EXPECT_EQ(std::get<ScriptError>(missing.run("x")).number, -600);
  standIn.script("printf '\"'; cat; printf '\"\\n'");  // echoes all its input as one string
  const std::string big(3 << 20, 'a');
  EXPECT_EQ(std::get<ScriptValue>(OsascriptRunner().run(big)).text, big);
  standIn.script("exec 0<&-\necho 5");
  EXPECT_EQ(std::get<ScriptValue>(OsascriptRunner().run(std::string(8 << 20, 'x'))).integer, 5);
  standIn.script("exec sleep 30");
  const auto start = std::chrono::steady_clock::now();
  OsascriptRunner impatient("osascript", std::chrono::milliseconds(300));
  EXPECT_EQ(std::get<ScriptError>(impatient.run("x")).number, -1712);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));  // the stall is cut
}

}  // namespace
}  // namespace kestrova
