// Reading osascript's results and errors, and the real runner against a stand-in `osascript`.

#include <chrono>
#include <cstdint>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <kestrova/safari_bridge.h>
#include <kestrova/script_runner.h>

#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

using Kind = ScriptValue::Kind;

ScriptValue parsed(std::string_view text) {
  auto result = parseScriptResult(text);
  if (auto* error = std::get_if<ScriptParseError>(&result)) {
    ADD_FAILURE() << "parse error at " << error->offset << ": " << error->message;
    return {};
  }
  return std::get<ScriptValue>(result);
}

std::optional<ScriptParseError> parseError(std::string_view text) {
  auto result = parseScriptResult(text);
  if (auto* error = std::get_if<ScriptParseError>(&result)) {
    return *error;
  }
  return std::nullopt;
}

TEST(ScriptResultParse, NestedListsStringsAndNumbers) {
  ScriptValue v =
      parsed(R"({{1, {"https://a.ch/?q=\"x\"", "C:\\dir"}, {"Tab", missing value}}, {2, {}, {}}})");
  ASSERT_EQ(v.kind, Kind::list);
  ASSERT_EQ(v.itemCount(), 2u);
  const ScriptValue& w = *v.item(1);
  EXPECT_EQ(w.item(1)->integer, 1);
  EXPECT_EQ(w.item(2)->item(1)->text, "https://a.ch/?q=\"x\"");
  EXPECT_EQ(w.item(2)->item(2)->text, "C:\\dir");
  EXPECT_EQ(w.item(3)->item(2)->kind, Kind::missingValue);
  EXPECT_EQ(v.item(2)->item(2)->kind, Kind::list);
  EXPECT_EQ(v.item(2)->item(2)->itemCount(), 0u);
  EXPECT_EQ(v.item(3), nullptr);
  EXPECT_EQ(v.item(0), nullptr);
}

TEST(ScriptResultParse, ScalarsAndEscapes) {
  EXPECT_EQ(parsed("-42").integer, -42);
  EXPECT_EQ(parsed("-42").kind, Kind::integer);
  EXPECT_DOUBLE_EQ(parsed("2.5").real, 2.5);
  EXPECT_DOUBLE_EQ(parsed("1.0E+20").real, 1e20);
  EXPECT_EQ(parsed("99999999999999999999").kind, Kind::real);
  EXPECT_TRUE(parsed("true").boolean);
  EXPECT_EQ(parsed("false").kind, Kind::boolean);
  EXPECT_EQ(parsed(R"("a\nb\tc\rd\q")").text, "a\nb\tc\rd\\q");
  EXPECT_EQ(parsed("\"zwei\nZeilen\"").text, "zwei\nZeilen");
  EXPECT_EQ(parsed("").kind, Kind::nothing);
  EXPECT_EQ(parsed(" \n").kind, Kind::nothing);
  EXPECT_EQ(parsed("\"Zürich\"").text, "Zürich");
}

TEST(ScriptResultParse, RecordsAndOtherObjects) {
  ScriptValue r =
      parsed(R"({name:"x", |my key|:{1, 2}, «class abcd»:date "Montag, 1. Januar 2024"})");
  ASSERT_EQ(r.kind, Kind::record);
  ASSERT_EQ(r.fields.size(), 3u);
  EXPECT_EQ(r.fields[0].first, "name");
  EXPECT_EQ(r.fields[1].first, "my key");
  EXPECT_EQ(r.fields[1].second.itemCount(), 2u);
  EXPECT_EQ(r.fields[2].first, "«class abcd»");
  EXPECT_EQ(r.fields[2].second.kind, Kind::other);
  EXPECT_EQ(r.fields[2].second.text, "date \"Montag, 1. Januar 2024\"");
  ScriptValue refs =
      parsed(R"({tab 1 of window id 12 of application "Safari", «data utf8416263»})");
  ASSERT_EQ(refs.itemCount(), 2u);
  EXPECT_EQ(refs.item(1)->text, "tab 1 of window id 12 of application \"Safari\"");
  EXPECT_EQ(refs.item(2)->kind, Kind::other);
}

TEST(ScriptResultParse, BadInputGivesErrors) {
  for (std::string_view bad : {"\"open", "{1, 2", "}", "{1,}", "{,}", "1 }", "{a:1, 2}",
                               "{|a:1}", "\xC2\xAB unclosed", "{x:}", "{\"a\" \"b\"}"}) {
    std::optional<ScriptParseError> error = parseError(bad);
    ASSERT_TRUE(error.has_value()) << bad;
    EXPECT_FALSE(error->message.empty());
    EXPECT_LE(error->offset, bad.size());
  }
}

TEST(ScriptResultParse, DeepNestingIsRefusedWithoutCrash) {
  std::string deep(100000, '{');
  EXPECT_TRUE(parseError(deep).has_value());
  std::string ok = std::string(200, '{') + std::string(200, '}');
  EXPECT_EQ(parsed(ok).kind, Kind::list);
  std::string word = "x " + std::string(5000, '{');
  EXPECT_TRUE(parseError(word).has_value());
}

TEST(ScriptResultParse, ArbitraryBytesNeverCrash) {
  // A deterministic stream of inputs made of the grammar's own characters and random bytes.
  const std::string alphabet = "{}\",:|\\ \n-.0123456789Eemissing value\xC2\xAB\xBB\xFFtruex";
  std::uint64_t state = 0x9E3779B97F4A7C15ull;
  int trees = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string input;
    std::size_t length = round % 64;
    for (std::size_t i = 0; i < length; ++i) {
      state = state * 6364136223846793005ull + 1442695040888963407ull;
      input.push_back(alphabet[(state >> 33) % alphabet.size()]);
    }
    auto result = parseScriptResult(input);
    if (auto* error = std::get_if<ScriptParseError>(&result)) {
      EXPECT_LE(error->offset, input.size() * 3) << input;  // offsets count the repaired text
    } else {
      ++trees;
    }
  }
  EXPECT_GT(trees, 0);
}

TEST(ScriptValueCoercion, StringAndIntegerValues) {
  EXPECT_EQ(ScriptValue::makeInteger(7).stringValue(), "7");
  EXPECT_EQ(parsed("true").stringValue(), "true");
  EXPECT_EQ(ScriptValue::makeMissing().stringValue(), std::nullopt);
  EXPECT_EQ(ScriptValue::makeList({}).stringValue(), std::nullopt);
  EXPECT_EQ(parsed("\"12\"").int32Value(), 12);
  EXPECT_EQ(parsed("\"12x\"").int32Value(), 0);
  EXPECT_EQ(parsed("3.9").int32Value(), 3);
  EXPECT_EQ(parsed("4294967296").int32Value(), 0);
  EXPECT_EQ(ScriptValue::makeMissing().int32Value(), 0);
}

TEST(ScriptErrorParse, ReadsNumberAndMessage) {
  EXPECT_EQ(parseScriptError("12:40: execution error: Safari got an error: Not allowed (1). "
                             "(-1743)\n"),
            (ScriptError{-1743, "Safari got an error: Not allowed (1)."}));
  EXPECT_EQ(parseScriptError("0:5: syntax error: Expected end of line. (-2741)"),
            (ScriptError{-2741, "Expected end of line."}));
  EXPECT_EQ(parseScriptError("1:2: execution error: no number"), (ScriptError{0, "no number"}));
  EXPECT_EQ(parseScriptError("something odd\n"), (ScriptError{0, "something odd"}));
  EXPECT_EQ(parseScriptError(" \n"), (ScriptError{0, std::nullopt}));
  EXPECT_EQ(parseScriptError("1:2: execution error: (-1728)"), (ScriptError{-1728, std::nullopt}));
}

// A stand-in `osascript` in a fresh folder placed first on PATH. It records its arguments and
// standard input and replies with what the test put into reply.out, reply.err and reply.code.
class StandIn {
 public:
  StandIn() : oldPath_(getenv("PATH") != nullptr ? getenv("PATH") : "") {
    std::string dir = folder_.path().string();
    testing::writeFile(folder_ / "osascript",
                       "#!/bin/sh\n"
                       "printf '%s\\n' \"$*\" > '" +
                           dir +
                           "/args.txt'\n"
                           "cat > '" +
                           dir +
                           "/stdin.txt'\n"
                           "if grep -q 'is running' '" +
                           dir +
                           "/stdin.txt'; then\n"
                           "  cat '" +
                           dir +
                           "/running.out' 2>/dev/null; exit 0\n"
                           "fi\n"
                           "cat '" +
                           dir +
                           "/reply.out' 2>/dev/null\n"
                           "cat '" +
                           dir +
                           "/reply.err' >&2 2>/dev/null\n"
                           "exit $(cat '" +
                           dir + "/reply.code' 2>/dev/null || echo 0)\n");
    ::chmod((folder_ / "osascript").c_str(), 0755);
    setenv("PATH", (dir + ":" + oldPath_).c_str(), 1);
  }
  ~StandIn() { setenv("PATH", oldPath_.c_str(), 1); }

  void reply(const std::string& out, const std::string& err = "", int code = 0) {
    testing::writeFile(folder_ / "reply.out", out);
    testing::writeFile(folder_ / "reply.err", err);
    testing::writeFile(folder_ / "reply.code", std::to_string(code));
  }
  void running(bool yes) {
    testing::writeFile(folder_ / "running.out", yes ? "true\n" : "false\n");
  }
  std::string input() const { return testing::readFile(folder_ / "stdin.txt"); }
  std::string args() const { return testing::readFile(folder_ / "args.txt"); }
  const testing::TestFolder& folder() const { return folder_; }

 private:
  testing::TestFolder folder_;
  std::string oldPath_;
};

TEST(OsascriptRunner, PassesSourceOnStdinAndParsesResult) {
  StandIn standIn;
  standIn.reply("{{1, {\"https://a.ch/\"}, {\"A \\\"q\\\"\"}}}\n");
  OsascriptRunner runner;
  std::string source = "tell application \"Safari\"\n    return \"it's $HOME `x`\"\nend tell";
  ScriptOutcome outcome = runner.run(source);
  ASSERT_TRUE(std::holds_alternative<ScriptValue>(outcome));
  const ScriptValue& v = std::get<ScriptValue>(outcome);
  EXPECT_EQ(v.item(1)->item(3)->item(1)->text, "A \"q\"");
  EXPECT_EQ(standIn.input(), source);
  EXPECT_EQ(standIn.args(), "-ss\n");
}

TEST(OsascriptRunner, ReportsErrorNumberAndMessage) {
  StandIn standIn;
  standIn.reply("", "31:40: execution error: Safari got an error: Not authorised. (-1743)\n", 1);
  OsascriptRunner runner;
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")),
            (ScriptError{-1743, "Safari got an error: Not authorised."}));
  standIn.reply("", "", 1);
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")), (ScriptError{0, std::nullopt}));
}

TEST(OsascriptRunner, UnreadableResultIsKeptAsRawText) {
  StandIn standIn;
  standIn.reply("{\"broken\n");
  OsascriptRunner runner;
  ScriptValue v = std::get<ScriptValue>(runner.run("x"));
  EXPECT_EQ(v.kind, Kind::other);
  EXPECT_EQ(v.itemCount(), 0u);
}

TEST(OsascriptRunner, AsksWhetherApplicationRuns) {
  StandIn standIn;
  OsascriptRunner runner;
  standIn.running(true);
  EXPECT_TRUE(runner.isApplicationRunning("com.apple.Safari"));
  EXPECT_EQ(standIn.input(), "application id \"com.apple.Safari\" is running");
  standIn.running(false);
  EXPECT_FALSE(runner.isApplicationRunning("com.apple.Safari"));
}

TEST(OsascriptRunner, WithoutOsascriptNothingRuns) {
  testing::TestFolder empty;
  OsascriptRunner runner((empty / "osascript").string());
  EXPECT_FALSE(runner.isApplicationRunning("com.apple.Safari"));
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")).number, -600);
  // Through the bridge this is Safari not running, for reading as for reopening.
  struct NoLauncher : ProcessLauncher {
    std::optional<int> run(const std::vector<std::string>&, std::chrono::milliseconds) override {
      return std::nullopt;
    }
  } launcher;
  testing::FakeEnv env({.launcher = &launcher, .runner = &runner});
  SafariBridge bridge(env, false);
  EXPECT_FALSE(bridge.isSafariRunning());
  EXPECT_THROW(bridge.snapshotWindows(), SafariError);
  try {
    bridge.reopen({"https://a.ch/"}, true);
    ADD_FAILURE() << "reopen without osascript must fail";
  } catch (const SafariError& e) {
    EXPECT_EQ(e, SafariError::notRunning());
  }
}

TEST(OsascriptRunner, KillsScriptsPastTheLimit) {
  StandIn standIn;
  testing::writeFile(standIn.folder() / "osascript", "#!/bin/sh\nexec sleep 30\n");
  OsascriptRunner runner("osascript", std::chrono::milliseconds(300));
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")).number, -1712);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(OsascriptRunner, LargeInputAndOutputDoNotDeadlock) {
  StandIn standIn;
  // Echoes its whole input back as one string literal after reading all of it.
  testing::writeFile(standIn.folder() / "osascript",
                     "#!/bin/sh\nprintf '\"'; cat; printf '\"\\n'\n");
  std::string big(3 << 20, 'a');
  OsascriptRunner runner;
  EXPECT_EQ(std::get<ScriptValue>(runner.run(big)).text, big);
}

TEST(OsascriptRunner, ChildThatIgnoresInputDoesNotKillUs) {
  StandIn standIn;
  testing::writeFile(standIn.folder() / "osascript", "#!/bin/sh\nexec 0<&-\necho 5\n");
  OsascriptRunner runner;
  EXPECT_EQ(std::get<ScriptValue>(runner.run(std::string(8 << 20, 'x'))).integer, 5);
}

TEST(SafariBridgeEndToEnd, SnapshotThroughStandIn) {
  StandIn standIn;
  standIn.running(true);
  standIn.reply(
      "{{1, {\"https://a.ch/\", \"favorites://\"}, {\"A\", \"Favoriten\"}}, "
      "{2, {\"about:blank\"}, {\"\"}}, {3, {\"https://c.ch/\"}, {missing value}}}\n");
  OsascriptRunner runner;
  testing::FakeEnv env({.runner = &runner});
  SafariBridge bridge(env, false);
  std::vector<SafariWindow> expected = {{1, {{"A", "https://a.ch/", 1}}},
                                        {3, {{"https://c.ch/", "https://c.ch/", 1}}}};
  EXPECT_EQ(bridge.snapshotWindows(), expected);
  EXPECT_EQ(standIn.input(), SafariBridge::readScript());
}

}  // namespace
}  // namespace kestrova
