// The library file under faults: writers killed in the middle of a save, two processes writing
// the same file, and a full disk. Whatever happens, library.json is a complete document.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kestrova/store.h>

#include "library_codec.h"
#include "support/pipe_child.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using testing::PipeChild;
using testing::TestFolder;

constexpr const char* kCli = KESTROVA_CLI_PATH;

// `count` tabs with `textBytes` of page text each; `mark` makes two libraries differ everywhere.
LibraryData libraryOf(int count, std::size_t textBytes, const std::string& mark) {
  LibraryData data;
  for (int i = 0; i < count; ++i) {
    data.tabs.push_back(makeSavedTab({.id = Uuid::random(),
                                      .url = "https://example.ch/" + mark + std::to_string(i),
                                      .savedAt = Date(std::chrono::seconds(1'790'000'000 + i)),
                                      .text = std::string(textBytes, 'a')}));
  }
  data.embedderKind = mark;
  return data;
}

std::vector<std::string> temporariesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(".library.json.tmp-", 0) == 0)
      names.push_back(name);
  }
  return names;
}

std::string fileText(const fs::path& path) {
  return Env::real().fileSystem().readFile(path).value_or("<unreadable>");
}

TEST(SaveCrashSafety, KilledWritersLeaveTheOldOrTheNewDocument) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  const LibraryStore store(file);
  const LibraryData first = libraryOf(3000, 1000, "alt");
  const LibraryData second = libraryOf(3000, 1000, "neu");
  const std::string firstText = codec::encodeLibrary(first);
  const std::string secondText = codec::encodeLibrary(second);
  // How long one save takes here, so that the kills spread over whole saves.
  const auto started = std::chrono::steady_clock::now();
  store.save(first);
  const auto oneSave = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - started);

  std::mt19937 random(20261009);
  int killedMidWrite = 0;
  for (int round = 0; round < 30; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (;;) {
        store.save(second);
        store.save(first);
      }
    }
    std::uniform_int_distribution<long> delay(0, 2 * oneSave.count() + 1000);
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    const std::string text = fileText(file);
    ASSERT_TRUE(text == firstText || text == secondText)
        << "round " << round << ": " << text.size() << " bytes, neither document";
    killedMidWrite += !temporariesIn(folder.path()).empty();
  }
  // The kills did land inside saves, so the check above was not idle.
  EXPECT_GT(killedMidWrite, 0) << "one save takes " << oneSave.count() << " µs";

  // What the killed writers left behind does not disturb later loads and saves.
  const LibraryData loaded = store.load();
  EXPECT_TRUE(loaded == first || loaded == second);
  Library library(store);
  library.mutate([](LibraryData& data) { data.tabs.resize(10); });
  EXPECT_FALSE(library.lastError()) << *library.lastError();
  EXPECT_EQ(store.load(), library.data());

  // Once they are old enough to be certainly abandoned, the next save clears them away.
  const auto longAgo = fs::file_time_type::clock::now() - std::chrono::hours(1);
  for (const std::string& name : temporariesIn(folder.path()))
    fs::last_write_time(folder / name, longAgo);
  library.mutate([](LibraryData& data) { data.tabs.resize(5); });
  EXPECT_FALSE(library.lastError());
  EXPECT_TRUE(temporariesIn(folder.path()).empty());
  EXPECT_EQ(store.load(), library.data());
}

// The note of `tabId` through add_note; the parsed result of the tool.
Json addNote(PipeChild& server, int id, const std::string& tabId, const std::string& note) {
  const Json request = {
      {"jsonrpc", "2.0"},
      {"id", id},
      {"method", "tools/call"},
      {"params", {{"name", "add_note"}, {"arguments", {{"id", tabId}, {"note", note}}}}}};
  const std::optional<std::string> line =
      server.write(request.dump() + "\n") ? server.readLine() : std::nullopt;
  return Json::parse(line.value_or(""), nullptr, false).value("result", Json());
}

// The handler that removes temporary files on SIGTERM and SIGINT is installed only where the
// signal has its default action. One that a program starts with ignored (it inherits that through
// exec) stays ignored: the server saves on, and ends normally when its input ends.
TEST(SaveCrashSafety, SignalIgnoredByTheServerStaysIgnoredThroughItsSaves) {
  for (const int number : {SIGTERM, SIGINT}) {
    SCOPED_TRACE("signal " + std::to_string(number));
    TestFolder folder;
    const fs::path file = folder / "library.json";
    LibraryStore(file).save(libraryOf(3, 100, "alt"));
    const std::string tabId = LibraryStore(file).load().tabs[0].id.string();
    struct sigaction before {
    }, ignore{};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(number, &ignore, &before), 0);
    PipeChild server({kCli, "mcp", "--library", file.string()});
    ASSERT_EQ(::sigaction(number, &before, nullptr), 0);
    EXPECT_FALSE(addNote(server, 1, tabId, "vorher").value("isError", true));
    ASSERT_EQ(::kill(server.pid(), number), 0);
    EXPECT_FALSE(addNote(server, 2, tabId, "nachher").value("isError", true));
    server.closeInput();
    const std::optional<int> status = server.waitFor(std::chrono::seconds(20));
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
    EXPECT_EQ(LibraryStore(file).load().tabs[0].note, "nachher");
  }
}

TEST(SaveConcurrency, ServerAndLibraryWritingTheSameFile) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  const LibraryStore store(file);
  store.save(libraryOf(300, 600, "start"));
  const std::vector<SavedTab> tabs = store.load().tabs;

  std::atomic<bool> done{false};
  std::atomic<int> reads{0}, broken{0};
  std::thread reader([&] {
    while (!done) {
      if (std::optional<std::string> text = Env::real().fileSystem().readFile(file)) {
        ++reads;
        broken += !codec::decodeLibrary(*text);
      }
    }
  });

  PipeChild server({kCli, "mcp", "--library", file.string()});
  int failures = 0;
  std::thread client([&] {
    for (int i = 0; i < 100; ++i) {
      const Json result = addNote(server, i, tabs[static_cast<std::size_t>(i)].id.string(),
                                  "vom Server " + std::to_string(i));
      failures += !result.is_object() || result.value("isError", true);
    }
  });
  Library library(store);
  for (int i = 0; i < 100; ++i) {
    library.mutate([i](LibraryData& data) {
      data.tabs[static_cast<std::size_t>(200 + i)].title = "von der App " + std::to_string(i);
    });
    EXPECT_FALSE(library.lastError()) << *library.lastError();
  }
  client.join();
  done = true;
  reader.join();

  EXPECT_EQ(failures, 0);
  EXPECT_EQ(broken.load(), 0) << "of " << reads.load() << " reads";
  EXPECT_GT(reads.load(), 10);

  // No merge: the live library writes its own document whole, without the server's notes.
  library.mutate([](LibraryData& data) { data.tabs[0].title = "zuletzt die App"; });
  EXPECT_EQ(store.load(), library.data());
  EXPECT_EQ(store.load().tabs[1].note, "");
  // And the server, writing last, changes only its one tab of what it finds on disk.
  EXPECT_FALSE(
      addNote(server, 999, tabs[1].id.string(), "zuletzt der Server").value("isError", true));
  LibraryData expected = library.data();
  expected.tabs[1].note = "zuletzt der Server";
  EXPECT_EQ(store.load(), expected);
  server.closeInput();
  EXPECT_TRUE(server.waitFor(std::chrono::seconds(10)));
  EXPECT_TRUE(temporariesIn(folder.path()).empty());
}

// A tmpfs of one megabyte, unmounted again when the test ends.
struct SmallDisk {
  explicit SmallDisk(const fs::path& where) : path(where) {
    fs::create_directories(path);
    mounted = ::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=1m") == 0;
  }
  ~SmallDisk() {
    if (mounted)
      ::umount2(path.c_str(), MNT_DETACH);
  }
  fs::path path;
  bool mounted = false;
};

TEST(SaveFullDisk, FailedSavesReportAndKeepTheOldFile) {
  TestFolder folder;
  SmallDisk disk(folder / "disk");
  if (!disk.mounted) {
    GTEST_SKIP() << "mounting a small tmpfs is not permitted here; the injected full disk of "
                    "store_test and mcp_tools_test covers this case";
  }
  const fs::path file = folder / "disk" / "library.json";
  const LibraryStore store(file);
  store.save(libraryOf(3, 100, "klein"));
  const std::string before = fileText(file);

  // Through the live library: the error text, the old file, the new data kept in memory.
  Library library(store);
  library.mutate([](LibraryData& data) { data.tabs[0].text = std::string(2'000'000, 'x'); });
  ASSERT_TRUE(library.lastError());
  EXPECT_EQ(library.lastError()->rfind("Speichern fehlgeschlagen: ", 0), 0U);
  EXPECT_NE(library.lastError()->find("kein freier Speicherplatz"), std::string::npos);
  EXPECT_EQ(fileText(file), before);
  EXPECT_EQ(library.data().tabs[0].text.size(), 2'000'000U);
  EXPECT_TRUE(temporariesIn(file.parent_path()).empty());

  // Through the server's add_note.
  const std::string tabId = library.data().tabs[1].id.string();
  {
    PipeChild server({kCli, "mcp", "--library", file.string()});
    const Json result = addNote(server, 1, tabId, std::string(1'500'000, 'n'));
    ASSERT_TRUE(result.is_object());
    EXPECT_TRUE(result.value("isError", false));
    EXPECT_EQ(result["content"][0].value("text", "").rfind("Speichern fehlgeschlagen: ", 0), 0U);
    EXPECT_EQ(fileText(file), before);
    EXPECT_TRUE(temporariesIn(file.parent_path()).empty());
    // With room again, the same server saves.
    EXPECT_FALSE(addNote(server, 2, tabId, "kurz").value("isError", true));
    EXPECT_EQ(store.load().tabs[1].note, "kurz");
  }

  // The next mutation that fits writes the data kept in memory, and clears the error.
  library.mutate([](LibraryData& data) { data.tabs[0].text = "wieder kurz"; });
  EXPECT_FALSE(library.lastError());
  EXPECT_EQ(store.load(), library.data());
}

}  // namespace
}  // namespace kestrova
