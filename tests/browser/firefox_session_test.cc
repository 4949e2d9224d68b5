// Firefox's session file: mozlz4, the session document, the newest file, profiles.ini, reopening.
#include <tuple>

#include <gtest/gtest.h>
#include <lz4.h>

#include <kestrova/firefox_session.h>

#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

using testing::FakeEnv;
using testing::TestFolder;
using testing::writeFile;
using Windows = std::vector<SafariWindow>;
constexpr auto kUnreadable = BrowserError::Kind::unreadable;

// `text` in mozlz4, stating `size` as its size.
std::string mozLz4(const std::string& text, std::optional<std::size_t> size = {}) {
  std::string out("mozLz40\0", 8), block(LZ4_compressBound(static_cast<int>(text.size())), '\0');
  for (int i = 0; i < 4; ++i)
    out.push_back(static_cast<char>((size.value_or(text.size()) >> (8 * i)) & 0xff));
  block.resize(static_cast<std::size_t>(LZ4_compress_default(
      text.data(), block.data(), static_cast<int>(text.size()), static_cast<int>(block.size()))));
  return out + block;
}

// The kind and message of the BrowserError `f` throws; no kind when it throws none.
template <typename F>
std::pair<std::optional<BrowserError::Kind>, std::string> thrown(F&& f) try {
  f();
  return {};
} catch (const BrowserError& error) {
  return {error.kind(), error.what()};
}

TEST(FirefoxSession, DecodesMozLz4AndRejectsDamagedFiles) {
  const std::string text = R"({"windows":[]} and more text so that LZ4 finds repeats repeats)";
  const std::string good = mozLz4(text);
  EXPECT_EQ(decodeMozLz4(good), text);
  EXPECT_EQ(decodeMozLz4(mozLz4("")), "");
  for (const std::string& bad :
       {"mozLz41" + good.substr(7), good.substr(0, 11), mozLz4(text, text.size() + 1),
        mozLz4(text, text.size() - 1), mozLz4(text, 0xffffffffu), good.substr(0, good.size() - 3),
        mozLz4("", 100).substr(0, 12) + std::string(40, '\xff')})
    EXPECT_EQ(thrown([&] { decodeMozLz4(bad); }).first, kUnreadable) << bad.size();
}

TEST(FirefoxSession, ReadsEachTabAtItsCurrentEntry) {
  const std::pair<std::string, Windows> cases[] = {
      // Several windows, pinned, back-navigation, title missing, closed windows ignored.
      {R"({"windows":[{"tabs":[{"entries":[{"url":"https://a.ch/","title":"A"}],"pinned":true},
          {"entries":[{"url":"https://b.ch/1","title":"B1"},{"url":"https://b.ch/2"}],"index":1}]},
          {"tabs":[{"entries":[{"url":"https://c.ch/"}],"index":7}]}],
          "_closedWindows":[{"tabs":[{"entries":[{"url":"https://x.ch/"}]}]}]})",
       {{1, {{"A", "https://a.ch/", 1, true}, {"B1", "https://b.ch/1", 2, false}}},
        {2, {{"https://c.ch/", "https://c.ch/", 1, false}}}}},
      // about: and broken tabs, and an about:-only window, dropped without renumbering.
      {R"({"windows":[{"tabs":[{"entries":[{"url":"about:newtab"}]},{"entries":[]},
          {"entries":[{"url":"https://d.ch/","title":"D"}],"index":"x"}]},
          {"tabs":[{"entries":[{"url":"about:blank"}]},7,{"entries":[{"title":"no url"}]},
          {"entries":[{"url":""}]},{"entries":[{"url":42}]}]},
          {"tabs":[{"entries":[{"url":"https://e.ch/","title":"E"},{"url":"ABOUT:home"}]},
          {"entries":[{"url":"https://f.ch/","title":"F"}],"index":-3}]}]})",
       {{1, {{"D", "https://d.ch/", 3, false}}}, {3, {{"F", "https://f.ch/", 2, false}}}}},
      // A title cut inside an emoji: the lone half is U+FFFD, a whole pair and \\u kept.
      {R"({"windows":[{"tabs":[{"entries":[{"url":"https://g.ch/",
          "title":"a\ud83d b\ude00 \ud83d\ude00 \\ud83d"}]}]}]})",
       {{1, {{"a\uFFFD b\uFFFD \U0001F600 \\ud83d", "https://g.ch/", 1, false}}}}}};
  for (const auto& [json, expected] : cases)
    EXPECT_EQ(parseFirefoxSession(json), expected) << json;
  for (const std::string json : {R"({"windows":[)", R"({"version":1})", R"({"windows":{}})", "[]"})
    EXPECT_EQ(thrown([&] { parseFirefoxSession(json); }).first, kUnreadable) << json;
}

TEST(FirefoxSession, ReadsTheNewestSessionFileAndNamesADamagedOne) {
  const std::string jsonlz4 = "sessionstore.jsonlz4", recovery = "sessionstore-backups/recovery";
  const std::pair<std::string, std::string> olderNewer[] = {
      {jsonlz4, recovery + ".jsonlz4"},
      {recovery + ".jsonlz4", recovery + ".baklz4"},
      {recovery + ".jsonlz4", jsonlz4}};
  for (const auto& [older, newer] : olderNewer) {
    TestFolder profile;
    writeFile(profile / older, mozLz4(R"({"windows":[]})"));
    writeFile(profile / newer, mozLz4(R"({"windows":[{"tabs":[{"entries":[{"url":"n:"}]}]}]})"));
    const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(profile / older, now - std::chrono::hours(1));
    std::filesystem::last_write_time(profile / newer, now);
    EXPECT_EQ(FirefoxSession(profile.path(), Env::real()).snapshotWindows(),
              (Windows{{1, {{"n:", "n:", 1, false}}}}));
  }
  TestFolder profile;
  FirefoxSession firefox(profile.path(), Env::real());
  EXPECT_EQ(thrown([&] { firefox.snapshotWindows(); }).first, kUnreadable);
  writeFile(profile / jsonlz4, "mozLz40");
  const auto [kind, message] = thrown([&] { firefox.snapshotWindows(); });
  EXPECT_EQ(kind, kUnreadable);
  EXPECT_NE(message.find(jsonlz4), std::string::npos) << message;
}

TEST(FirefoxSession, FindsDefaultProfileInProfilesIni) {
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {"[Profile0]\nPath=a\nIsRelative=1\nDefault=1\n[Install4F96D]\nDefault=b.release\n"
       "Locked=1\n[Profile1]\nPath=b.release\nIsRelative=1\n",
       "b.release"},
      {"[Install1]\nDefault=/opt/ff/p\n", "/opt/ff/p"},
      {"[General]\nStartWithLastProfile=1\n[Profile0]\nPath=a\nIsRelative=1\n"
       "[Profile1]\r\n  Path = b \r\nIsRelative=1\r\nDefault=1\r\n",
       "b"},
      {"; comment\n[Profile0]\nIsRelative=0\nPath=/srv/ff/p\n", "/srv/ff/p"},
      {"[Profile0]\nPath=a\n[Profile1]\nPath=b\n", std::nullopt},
      {"[General]\nVersion=2\n", std::nullopt},
      {std::nullopt, std::nullopt}};
  for (const auto& [ini, expected] : cases) {
    TestFolder home;
    const auto folder = home.path() / ".mozilla" / "firefox";
    if (ini)
      writeFile(folder / "profiles.ini", *ini);
    FakeEnv env({.variables = {{"HOME", home.path().string()}}});
    if (expected)
      EXPECT_EQ(firefoxDefaultProfile(env), folder / *expected);
    else
      EXPECT_EQ(thrown([&] { firefoxDefaultProfile(env); }).first, kUnreadable) << ini.value_or("");
  }
}

struct RecordingLauncher : ProcessLauncher {
  std::vector<std::vector<std::string>> calls;
  std::optional<int> status = 0;
  std::optional<int> run(const std::vector<std::string>& argv, std::chrono::milliseconds) override {
    calls.push_back(argv);
    return status;
  }
};

TEST(FirefoxSession, ReopensThroughFirefoxCommand) {
  using Calls = std::vector<std::vector<std::string>>;
  const std::tuple<std::vector<std::string>, bool, Calls> cases[] = {
      {{"https://a.ch/", "-P", "", "https://b.ch/"},
       true,
       {{"firefox", "--new-window", "https://a.ch/", "--new-tab", "https://b.ch/"}}},
      {{"--kiosk", "https://a.ch/"}, false, {{"firefox", "--new-tab", "https://a.ch/"}}},
      {{"-x", ""}, true, Calls()}};
  for (const auto& [urls, newWindow, expected] : cases) {
    RecordingLauncher launcher;
    FakeEnv env({.launcher = &launcher});
    FirefoxSession(".", env).reopen(urls, newWindow);
    EXPECT_EQ(launcher.calls, expected);
  }
  RecordingLauncher failing;
  failing.status = 1;
  FakeEnv env({.launcher = &failing});
  EXPECT_EQ(thrown([&] { FirefoxSession(".", env).reopen({"https://a.ch/"}, false); }).first,
            BrowserError::Kind::notRunning);
}

}  // namespace
}  // namespace kestrova
