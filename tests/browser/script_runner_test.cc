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
  EXPECT_TRUE(std::holds_alternative<ScriptValue>(result)) << text;
  return std::holds_alternative<ScriptValue>(result) ? std::get<ScriptValue>(result)
                                                     : ScriptValue{};
}

TEST(ScriptResultParse, TreesScalarsAndEscapes) {
  ScriptValue v =
      parsed(R"({{1, {"https://a.ch/?q=\"x\"", "C:\\dir"}, {"Tab", missing value}}, {}})");
  using S = ScriptValue;
  EXPECT_EQ(v, S::makeList({S::makeList({S::makeInteger(1),
                                         S::makeList({S::makeString("https://a.ch/?q=\"x\""),
                                                      S::makeString("C:\\dir")}),
                                         S::makeList({S::makeString("Tab"), S::makeMissing()})}),
                            S::makeList({})}));
  EXPECT_EQ(v.item(2)->itemCount(), 0u);
  EXPECT_EQ(v.item(3), nullptr);
  EXPECT_EQ(v.item(0), nullptr);
  EXPECT_EQ(parsed("-42"), S::makeInteger(-42));
  EXPECT_DOUBLE_EQ(parsed("1.0E+20").real, 1e20);
  EXPECT_EQ(parsed("99999999999999999999").kind, Kind::real);
  EXPECT_TRUE(parsed("true").boolean);
  EXPECT_EQ(parsed("false").kind, Kind::boolean);
  EXPECT_EQ(parsed(R"("a\nb\tc\rd\q")").text, "a\nb\tc\rd\\q");
  EXPECT_EQ(parsed("\"zwei\nZeilen\"").text, "zwei\nZeilen");
  EXPECT_EQ(parsed(" \n").kind, Kind::nothing);
  // Records keep their keys; other objects are kept as their source text.
  ScriptValue r = parsed(R"({name:"x", |my key|:{1, 2}, «class abcd»:date "1. Januar 2024"})");
  ASSERT_EQ(r.kind, Kind::record);
  ASSERT_EQ(r.itemCount(), 3u);
  EXPECT_EQ(r.fields[0], (std::pair<std::string, ScriptValue>{"name", S::makeString("x")}));
  EXPECT_EQ(r.fields[1].first, "my key");
  EXPECT_EQ(r.fields[2].first, "«class abcd»");
  EXPECT_EQ(r.fields[2].second.kind, Kind::other);
  EXPECT_EQ(r.fields[2].second.text, "date \"1. Januar 2024\"");
  ScriptValue refs =
      parsed(R"({tab 1 of window id 12 of application "Safari", «data utf8416263»})");
  EXPECT_EQ(refs.item(1)->text, "tab 1 of window id 12 of application \"Safari\"");
  EXPECT_EQ(refs.item(2)->kind, Kind::other);
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
  // A deterministic stream of inputs made of the grammar's own characters and random bytes.
  const std::string alphabet = "{}\",:|\\ \n-.0123456789Eemissing value\xC2\xAB\xBB\xFFtruex";
  std::uint64_t state = 0x9E3779B97F4A7C15ull;
  for (int round = 0; round < 3000; ++round) {
    std::string input;
    for (int i = 0; i < round % 64; ++i) {
      state = state * 6364136223846793005ull + 1442695040888963407ull;
      input.push_back(alphabet[(state >> 33) % alphabet.size()]);
    }
    auto result = parseScriptResult(input);
    if (auto* error = std::get_if<ScriptParseError>(&result)) {
      EXPECT_LE(error->offset, input.size() * 3) << input;  // offsets count the repaired text
    }
  }
}

TEST(ScriptResultParse, CoercionAndErrorLines) {
  EXPECT_EQ(ScriptValue::makeInteger(7).stringValue(), "7");
  EXPECT_EQ(parsed("true").stringValue(), "true");
  EXPECT_EQ(ScriptValue::makeMissing().stringValue(), std::nullopt);
  EXPECT_EQ(ScriptValue::makeList({}).stringValue(), std::nullopt);
  const std::vector<std::pair<std::string, int>> numbers = {
      {"\"12\"", 12},    {"\"12x\"", 0},      {"3.9", 3}, {"2147483647", 2147483647},
      {"4294967296", 0}, {"missing value", 0}};
  for (const auto& [text, value] : numbers) {
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

// A stand-in `osascript` in a fresh folder placed first on PATH: it records its arguments and
// standard input, answers "is running" questions from running.out and all else from reply.*.
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
  void running(bool yes) {
    testing::writeFile(folder_ / "running.out", yes ? "true\n" : "false\n");
  }
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
  SafariBridge bridge(env, false);
  EXPECT_EQ(bridge.snapshotWindows(),
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
}

TEST(OsascriptRunner, WithoutOsascriptSafariIsNotRunning) {
  testing::TestFolder empty;
  OsascriptRunner runner((empty / "osascript").string());
  EXPECT_FALSE(runner.isApplicationRunning("com.apple.Safari"));
  EXPECT_EQ(std::get<ScriptError>(runner.run("x")).number, -600);
  testing::FakeEnv env({.runner = &runner});
  SafariBridge bridge(env, false);
  EXPECT_THROW(bridge.snapshotWindows(), SafariError);
  try {
    bridge.reopen({"https://a.ch/"}, true);
    ADD_FAILURE() << "reopen without osascript must fail";
  } catch (const SafariError& e) {
    EXPECT_EQ(e, SafariError::notRunning());
  }
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
  EXPECT_EQ(
      std::get<ScriptError>(OsascriptRunner("osascript", std::chrono::milliseconds(300)).run("x"))
          .number,
      -1712);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));  // the stall is cut
}

}  // namespace
}  // namespace kestrova
