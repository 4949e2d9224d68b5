// Firefox's session file: the mozlz4 wrapper, the session document, the choice of the newest
// file, the profile from profiles.ini and the `firefox` commands that reopen addresses.

#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lz4.h>

#include <kestrova/firefox_session.h>

#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

using testing::FakeEnv;
using ::testing::HasSubstr;
using testing::TestFolder;
using testing::writeFile;
using Windows = std::vector<SafariWindow>;

std::string header(std::size_t statedSize) {
  std::string out("mozLz40\0", 8);
  for (int i = 0; i < 4; ++i)
    out.push_back(static_cast<char>((statedSize >> (8 * i)) & 0xff));
  return out;
}

std::string block(const std::string& text) {
  std::string out(static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(text.size()))), '\0');
  out.resize(static_cast<std::size_t>(LZ4_compress_default(
      text.data(), out.data(), static_cast<int>(text.size()), static_cast<int>(out.size()))));
  return out;
}

std::string mozLz4(const std::string& text) {
  return header(text.size()) + block(text);
}

template <typename F>
std::optional<BrowserError::Kind> thrownKind(F&& f) {
  try {
    f();
  } catch (const BrowserError& error) {
    return error.kind();
  }
  return std::nullopt;
}

const std::string kText = R"({"windows":[]} and some more text so that LZ4 finds repeats repeats)";

TEST(FirefoxSession, DecodesMozLz4AndRejectsDamagedFiles) {
  const std::string good = mozLz4(kText);
  const struct {
    std::string name, bytes;
    std::optional<std::string> expected;  // no value: unreadable
  } cases[] = {
      {"good", good, kText},
      {"empty text", header(0) + block(""), ""},
      {"wrong magic", "mozLz41" + good.substr(7), std::nullopt},
      {"too short", good.substr(0, 11), std::nullopt},
      {"stated larger", header(kText.size() + 1) + block(kText), std::nullopt},
      {"stated smaller", header(kText.size() - 1) + block(kText), std::nullopt},
      {"stated absurd", header(0xffffffffu) + block(kText), std::nullopt},
      {"truncated block", good.substr(0, good.size() - 3), std::nullopt},
      {"garbage block", header(100) + std::string(40, '\xff'), std::nullopt},
  };
  for (const auto& c : cases) {
    if (c.expected)
      EXPECT_EQ(decodeMozLz4(c.bytes), *c.expected) << c.name;
    else
      EXPECT_EQ(thrownKind([&] { decodeMozLz4(c.bytes); }), BrowserError::Kind::unreadable)
          << c.name;
  }
}

TEST(FirefoxSession, ReadsEachTabAtItsCurrentEntry) {
  const struct {
    std::string name, json;
    Windows expected;
  } cases[] = {
      {"several windows, pinned, back-navigation, title missing",
       R"({"windows":[{"tabs":[{"entries":[{"url":"https://a.ch/","title":"A"}],"pinned":true},
          {"entries":[{"url":"https://b.ch/1","title":"B1"},{"url":"https://b.ch/2"}],"index":1}]},
          {"tabs":[{"entries":[{"url":"https://c.ch/"}],"index":7}]}],
          "_closedWindows":[{"tabs":[{"entries":[{"url":"https://x.ch/"}]}]}]})",
       {{1, {{"A", "https://a.ch/", 1, true}, {"B1", "https://b.ch/1", 2, false}}},
        {2, {{"https://c.ch/", "https://c.ch/", 1, false}}}}},
      {"about: tabs, broken tabs and an about:-only window dropped without renumbering",
       R"({"windows":[{"tabs":[{"entries":[{"url":"about:newtab"}]},{"entries":[]},
          {"entries":[{"url":"https://d.ch/","title":"D"}],"index":"x"}]},
          {"tabs":[{"entries":[{"url":"about:blank"}]},7,{"entries":[{"title":"no url"}]},
          {"entries":[{"url":""}]},{"entries":[{"url":42}]}]},
          {"tabs":[{"entries":[{"url":"https://e.ch/","title":"E"},{"url":"ABOUT:home"}]},
          {"entries":[{"url":"https://f.ch/","title":"F"}],"index":-3}]}]})",
       {{1, {{"D", "https://d.ch/", 3, false}}}, {3, {{"F", "https://f.ch/", 2, false}}}}},
      {"a title cut inside an emoji: the lone half is U+FFFD, a whole pair and \\u kept",
       R"({"windows":[{"tabs":[{"entries":[{"url":"https://g.ch/",
          "title":"a\ud83d b\ude00 \ud83d\ude00 \\ud83d"}]}]}]})",
       {{1, {{"a\uFFFD b\uFFFD \U0001F600 \\ud83d", "https://g.ch/", 1, false}}}}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(parseFirefoxSession(c.json), c.expected) << c.name;
}

TEST(FirefoxSession, RejectsDocumentsWithoutWindowList) {
  for (const std::string json : {R"({"windows":[)", R"({"version":1})", R"({"windows":{}})", "[]"})
    EXPECT_EQ(thrownKind([&] { parseFirefoxSession(json); }), BrowserError::Kind::unreadable)
        << json;
}

std::string session(const std::string& url) {
  return mozLz4(R"({"windows":[{"tabs":[{"entries":[{"url":")" + url + R"("}]}]}]})");
}

TEST(FirefoxSession, ReadsTheNewestSessionFile) {
  const struct {
    std::string older, newer;
  } cases[] = {
      {"sessionstore.jsonlz4", "sessionstore-backups/recovery.jsonlz4"},
      {"sessionstore-backups/recovery.jsonlz4", "sessionstore-backups/recovery.baklz4"},
      {"sessionstore-backups/recovery.jsonlz4", "sessionstore.jsonlz4"},
  };
  for (const auto& c : cases) {
    TestFolder profile;
    writeFile(profile / c.older, session("https://older.ch/"));
    writeFile(profile / c.newer, session("https://newer.ch/"));
    const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(profile / c.older, now - std::chrono::hours(1));
    std::filesystem::last_write_time(profile / c.newer, now);
    FirefoxSession firefox(profile.path(), Env::real());
    const Windows windows = firefox.snapshotWindows();
    ASSERT_EQ(windows.size(), 1u) << c.newer;
    EXPECT_EQ(windows[0].tabs.at(0).url, "https://newer.ch/") << c.newer;
  }
}

TEST(FirefoxSession, ReportsProfileWithoutSessionOrWithDamagedOne) {
  TestFolder profile;
  FirefoxSession firefox(profile.path(), Env::real());
  EXPECT_EQ(thrownKind([&] { firefox.snapshotWindows(); }), BrowserError::Kind::unreadable);
  writeFile(profile / "sessionstore.jsonlz4", "mozLz40");
  try {
    firefox.snapshotWindows();
    ADD_FAILURE() << "a damaged session was read";
  } catch (const BrowserError& error) {
    EXPECT_THAT(error.what(), HasSubstr("sessionstore.jsonlz4"));
  }
}

TEST(FirefoxSession, FindsDefaultProfileInProfilesIni) {
  const struct {
    std::string name;
    std::optional<std::string> ini, expected;  // expected relative to the ini's folder
  } cases[] = {
      {"install default wins",
       "[Profile0]\nPath=a\nIsRelative=1\nDefault=1\n[Install4F96D]\n"
       "Default=b.release\nLocked=1\n[Profile1]\nPath=b.release\n"
       "IsRelative=1\n",
       "b.release"},
      {"install default, absolute", "[Install1]\nDefault=/opt/ff/p\n", "/opt/ff/p"},
      {"Default=1",
       "[General]\nStartWithLastProfile=1\n[Profile0]\nPath=a\nIsRelative=1\n"
       "[Profile1]\r\n  Path = b \r\nIsRelative=1\r\nDefault=1\r\n",
       "b"},
      {"only profile, absolute", "; comment\n[Profile0]\nIsRelative=0\nPath=/srv/ff/p\n",
       "/srv/ff/p"},
      {"two profiles, no default", "[Profile0]\nPath=a\n[Profile1]\nPath=b\n", std::nullopt},
      {"no profile", "[General]\nVersion=2\n", std::nullopt},
      {"no file", std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    TestFolder home;
    const auto folder = home.path() / ".mozilla" / "firefox";
    if (c.ini)
      writeFile(folder / "profiles.ini", *c.ini);
    FakeEnv env({.variables = {{"HOME", home.path().string()}}});
    if (c.expected)
      EXPECT_EQ(firefoxDefaultProfile(env), folder / *c.expected) << c.name;
    else
      EXPECT_EQ(thrownKind([&] { firefoxDefaultProfile(env); }), BrowserError::Kind::unreadable)
          << c.name;
  }
}

class RecordingLauncher : public ProcessLauncher {
 public:
  std::vector<std::vector<std::string>> calls;
  std::optional<int> status = 0;
  std::optional<int> run(const std::vector<std::string>& argv, std::chrono::milliseconds) override {
    calls.push_back(argv);
    return status;
  }
};

TEST(FirefoxSession, ReopensThroughFirefoxCommand) {
  using Calls = std::vector<std::vector<std::string>>;
  const struct {
    std::vector<std::string> urls;
    bool newWindow;
    Calls expected;
  } cases[] = {
      {{"https://a.ch/", "-P", "https://b.ch/"},
       true,
       {{"firefox", "--new-window", "https://a.ch/", "--new-tab", "https://b.ch/"}}},
      {{"--kiosk", "https://a.ch/"}, false, {{"firefox", "--new-tab", "https://a.ch/"}}},
      {{}, true, {}},
      {{"-x"}, false, {}},
  };
  for (const auto& c : cases) {
    RecordingLauncher launcher;
    FakeEnv env({.launcher = &launcher});
    FirefoxSession(".", env).reopen(c.urls, c.newWindow);
    EXPECT_EQ(launcher.calls, c.expected);
  }
  RecordingLauncher failing;
  failing.status = std::nullopt;
  FakeEnv env({.launcher = &failing});
  EXPECT_EQ(thrownKind([&] { FirefoxSession(".", env).reopen({"https://a.ch/"}, false); }),
            BrowserError::Kind::notRunning);
}

}  // namespace
}  // namespace kestrova
