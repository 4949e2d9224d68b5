// The kestrova application with real browsers: a headless Chromium from the system's packages,
// started with its own profile and DevTools port, showing pages of a loopback server; and Firefox
// session files written here with liblz4. Everything stays on this machine.
#include <chrono>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <lz4.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kestrova/chromium_bridge.h>
#include <kestrova/store.h>

#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::TestFolder;

struct Outcome {
  int status = -1;
  std::string output;  // standard output and error together
};

// Runs the kestrova program with `args` to its end, on a pseudo-terminal when `terminal` is true.
Outcome kestrova(std::vector<std::string> args, bool terminal = false) {
  args.insert(args.begin(), KESTROVA_APP_PATH);
  std::vector<char*> argv;
  for (std::string& arg : args)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
  int fds[2] = {-1, -1};
  const pid_t pid =
      terminal ? ::forkpty(&fds[0], nullptr, nullptr, nullptr) : (::pipe(fds) == 0 ? ::fork() : -1);
  if (pid == 0) {
    if (!terminal)
      ::dup2(fds[1], 1), ::dup2(fds[1], 2), ::close(fds[0]), ::close(fds[1]);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(fds[1]);
  Outcome out;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR);)
    out.output.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
  ::close(fds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  out.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

// Pages about two themes, each naming its number, with their text in a paragraph.
struct PageServer {
  PageServer() {
    server.Get(R"(/seite/(\d+))", [](const httplib::Request& request, httplib::Response& reply) {
      const std::string n = request.matches[1];
      const std::string theme = std::stoi(n) % 2 == 0 ? "Risotto mit Safran und Parmesan kochen"
                                                      : "Velotour über den Furkapass planen";
      reply.set_content("<html><head><meta charset=\"utf-8\"><title>Seite " + n + ": " + theme +
                            "</title></head><body><main><p>" + theme + ". Seite Nummer " + n +
                            " erklärt Schritt für Schritt, was man braucht und worauf man "
                            "achten muss.</p></main></body></html>",
                        "text/html; charset=utf-8");
    });
    port = server.bind_to_any_port("127.0.0.1");
    thread = std::thread([this] { server.listen_after_bind(); });
  }
  ~PageServer() { server.stop(), thread.join(); }
  std::string url(int n) const {
    return "http://127.0.0.1:" + std::to_string(port) + "/seite/" + std::to_string(n);
  }

  httplib::Server server;
  int port = 0;
  std::thread thread;
};

// A headless Chromium with its own profile, listening on a DevTools port it picks itself.
struct Chromium {
  Chromium() {
    if (::access(kChromium, X_OK) != 0 || (pid = ::fork()) < 0)
      return;
    if (pid == 0) {
      ::setsid();
      const int null = ::open("/dev/null", O_RDWR);
      ::dup2(null, 1), ::dup2(null, 2);
      const std::string folder = "--user-data-dir=" + profile();
      // Without the background flags Chromium keeps trying to reach the internet.
      ::execl(kChromium, kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
              "--no-first-run", "--disable-background-networking", "--disable-component-update",
              "--disable-sync", "--remote-debugging-port=0", folder.c_str(), "about:blank",
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int i = 0; i < 300 && !address; ++i, std::this_thread::sleep_for(100ms)) {
      try {
        address = readDevToolsActivePort(profileFolder / "DevToolsActivePort");
      } catch (const BrowserError&) {  // not written yet, or only in part
      }
    }
  }
  ~Chromium() {
    if (pid > 0)
      ::kill(-pid, SIGKILL), ::waitpid(pid, nullptr, 0);
  }
  std::string profile() const { return profileFolder.path().string(); }
  // The sorted addresses of the open pages (with `loaded`, of those that show their title); with
  // `expected`, once they are that or after ten seconds.
  std::vector<std::string> pages(std::optional<std::vector<std::string>> expected = {},
                                 bool loaded = false) {
    std::vector<std::string> urls;
    for (int i = 0; i == 0 || (expected && urls != *expected && i < 100); ++i) {
      if (i > 0)
        std::this_thread::sleep_for(100ms);
      urls.clear();
      for (const SafariWindow& window : ChromiumBridge(*address).snapshotWindows())
        for (const SafariTab& tab : window.tabs)
          if (!loaded || tab.title != tab.url)
            urls.push_back(tab.url);
      std::sort(urls.begin(), urls.end());
    }
    return urls;
  }
  // Opens `urls` (sorted) and waits until every one shows with its title.
  void open(const std::vector<std::string>& urls) {
    ChromiumBridge(*address).reopen(urls, false);
    ASSERT_EQ(pages(urls, true), urls);
  }

  static constexpr const char* kChromium = "/usr/bin/chromium";
  TestFolder profileFolder;
  pid_t pid = -1;
  std::optional<DevToolsAddress> address;
};

TEST(KestrovaChromium, SleepSavesEveryPageWithTextSummaryAndTopicClosesItAndReopenBringsItBack) {
  PageServer server;
  Chromium chromium;
  if (!chromium.address)
    GTEST_SKIP() << "no Chromium at /usr/bin/chromium (scripts/setup.sh installs it)";
  std::vector<std::string> urls;
  for (int n = 1; n <= 6; ++n)
    urls.push_back(server.url(n));
  chromium.open(urls);
  TestFolder folder;
  const fs::path library = folder / "library.json";
  const Outcome slept = kestrova({"sleep", "--browser", "chromium", "--profile", chromium.profile(),
                                  "--library", library.string()});
  ASSERT_EQ(slept.status, 0) << slept.output;
  EXPECT_NE(slept.output.find("6 Tabs schlafen, 1 Gruppe"), std::string::npos) << slept.output;
  EXPECT_NE(slept.output.find("Schliesse die Tabs in Chromium …"), std::string::npos);

  const LibraryData data = LibraryStore(library).load();
  ASSERT_EQ(data.tabs.size(), 6u);
  for (const SavedTab& tab : data.tabs) {
    SCOPED_TRACE(tab.url);
    EXPECT_NE(tab.text.find("Schritt für Schritt"), std::string::npos) << tab.text;
    EXPECT_NE(tab.title.find("Seite "), std::string::npos);
    EXPECT_FALSE(tab.summary.empty());
    EXPECT_FALSE(tab.tags.empty());
    ASSERT_TRUE(tab.topicId);
    EXPECT_NE(data.topic(tab), nullptr);
  }
  EXPECT_TRUE(chromium.pages().empty());

  // A whole topic comes back, and counts as read.
  const Topic& topic = data.topics.front();
  const Outcome reopen =
      kestrova({"reopen", "--browser", "chromium", "--profile", chromium.profile(), "--library",
                library.string(), "--topic", topic.name});
  ASSERT_EQ(reopen.status, 0) << reopen.output;
  std::vector<std::string> expected;
  for (const Uuid& id : topic.tabIds) {
    expected.push_back(data.tab(id)->url);
    EXPECT_TRUE(LibraryStore(library).load().tab(id)->readAt);
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(chromium.pages(expected), expected);
}

TEST(KestrovaChromium, ASaveThatFailsClosesNothingAndAMissingBrowserIsNamed) {
  PageServer server;
  Chromium chromium;
  if (!chromium.address)
    GTEST_SKIP() << "no Chromium at /usr/bin/chromium (scripts/setup.sh installs it)";
  chromium.open({server.url(1), server.url(2)});
  TestFolder folder;
  testing::writeFile(folder / "datei", "kein Ordner");
  const Outcome failed =
      kestrova({"sleep", "--browser", "chromium", "--profile", chromium.profile(), "--library",
                (folder / "datei" / "l.json").string()});
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.output.find("Speichern fehlgeschlagen: "), std::string::npos) << failed.output;
  EXPECT_EQ(chromium.pages().size(), 2u);

  const Outcome absent = kestrova({"sleep", "--browser", "chromium", "--devtools", "127.0.0.1:1",
                                   "--library", (folder / "l.json").string()});
  EXPECT_EQ(absent.status, 1);
  EXPECT_NE(absent.output.find("antwortet nicht auf 127.0.0.1:1"), std::string::npos)
      << absent.output;
  EXPECT_FALSE(fs::exists(folder / "l.json"));
}

// A session file as Firefox writes it: mozlz4 around the JSON.
void writeSession(const fs::path& file, const std::string& json) {
  std::string out("mozLz40\0", 8), block(LZ4_compressBound(static_cast<int>(json.size())), '\0');
  for (int shift = 0; shift < 32; shift += 8)
    out += static_cast<char>((json.size() >> shift) & 0xFF);
  block.resize(static_cast<std::size_t>(LZ4_compress_default(
      json.data(), block.data(), static_cast<int>(json.size()), static_cast<int>(block.size()))));
  testing::writeFile(file, out + block);
}

TEST(KestrovaFirefox, SleepSavesTheSessionAndSaysTheTabsStayOpenADamagedOneWritesNothing) {
  PageServer server;
  TestFolder profile;
  const fs::path session = profile / "sessionstore-backups" / "recovery.jsonlz4";
  writeSession(session, R"({"windows":[{"tabs":[{"entries":[{"url":")" + server.url(1) +
                            R"(","title":"Eins"}],"index":1},{"pinned":true,"entries":[{"url":")" +
                            server.url(2) + R"(","title":"Zwei"},{"url":")" + server.url(3) +
                            R"(","title":"Drei"}],"index":1}]}]})");
  TestFolder folder;
  const fs::path library = folder / "library.json";
  const Outcome slept = kestrova({"sleep", "--browser", "firefox", "--profile",
                                  profile.path().string(), "--library", library.string()});
  ASSERT_EQ(slept.status, 0) << slept.output;
  EXPECT_NE(slept.output.find("2 Tabs schlafen, 1 Gruppe, "), std::string::npos) << slept.output;
  EXPECT_NE(slept.output.find(". Firefox lässt sich nicht von aussen steuern: Die Tabs bleiben "
                              "offen.\n"),
            std::string::npos)
      << slept.output;
  const LibraryData data = LibraryStore(library).load();
  ASSERT_EQ(data.tabs.size(), 2u);
  EXPECT_EQ(data.tabs[1].url, server.url(2));  // the current entry, not the last
  EXPECT_NE(data.tabs[1].text.find("Seite Nummer 2"), std::string::npos);

  const std::string before = testing::readFile(library);
  testing::writeFile(session, testing::readFile(session).substr(0, 30));
  const Outcome broken = kestrova({"sleep", "--browser", "firefox", "--profile",
                                   profile.path().string(), "--library", library.string()});
  EXPECT_EQ(broken.status, 1);
  EXPECT_NE(broken.output.find("recovery.jsonlz4"), std::string::npos) << broken.output;
  EXPECT_EQ(testing::readFile(library), before);
}

TEST(KestrovaProgress, ABarIsRedrawnOnATerminalAndPlainLinesGoElsewhere) {
  TestFolder folder;
  const Outcome terminal =
      kestrova({"sleep", "--browser", "demo", "--library", (folder / "a.json").string()}, true);
  ASSERT_EQ(terminal.status, 0) << terminal.output;
  EXPECT_NE(terminal.output.find("\r\033[K[###"), std::string::npos);
  EXPECT_NE(terminal.output.find("%  Fasse zusammen: 52 von 52"), std::string::npos);
  EXPECT_NE(terminal.output.find("52 Tabs schlafen, 3 Gruppen"), std::string::npos);

  const Outcome plain =
      kestrova({"sleep", "--browser", "demo", "--library", (folder / "b.json").string()});
  ASSERT_EQ(plain.status, 0) << plain.output;
  EXPECT_EQ(plain.output.find('\r'), std::string::npos);
  EXPECT_EQ(plain.output.find('%'), std::string::npos);
  EXPECT_NE(plain.output.find("Lese die offenen Tabs aus den Demo-Daten …\n"), std::string::npos);
  EXPECT_NE(plain.output.find("\nFasse zusammen: 52 von 52\nSortiere nach Thema …\n52 Tabs"),
            std::string::npos)
      << plain.output;
}

}  // namespace
}  // namespace kestrova
