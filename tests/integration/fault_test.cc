// Faults. The library file: writers killed in the middle of a save, two processes writing the
// same file, a full disk; whatever happens, library.json is a complete document. kestrova-cli mcp
// against clients that vanish half way, send lines of 16 MB or a hundred thousand requests: the
// server neither crashes nor grows.
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

bool hasTemporaries(const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().filename().string().rfind(".library.json.tmp-", 0) == 0)
      return true;
  return false;
}

// Under AddressSanitizer freed memory waits in a quarantine (256 MB by default) before reuse,
// which would look like growth; a small one keeps the measurements about real leaks.
PipeChild server(const fs::path& file) {
  const char* inherited = std::getenv("ASAN_OPTIONS");
  return PipeChild(
      {KESTROVA_CLI_PATH, "mcp", "--library", file.string()},
      {"ASAN_OPTIONS=" + std::string(inherited ? inherited : "") + ":quarantine_size_mb=4"});
}

// The parsed result of add_note, setting the note of `tabId`; an empty object if none came.
Json addNote(PipeChild& server, const std::string& tabId, const std::string& note) {
  const std::string request =
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"add_note","arguments":)" +
      Json{{"id", tabId}, {"note", note}}.dump() + "}}\n";
  const auto line = server.write(request) ? server.readLine() : std::nullopt;
  return Json::parse(line.value_or(""), nullptr, false).value("result", Json::object());
}

// Closes the server's input (if `closeInput`) and waits for it to end with status 0.
bool endsCleanly(PipeChild& server, bool closeInput = true) {
  if (closeInput)
    server.closeInput();
  const std::optional<int> status = server.waitFor(std::chrono::seconds(20));
  return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
}

TEST(SaveCrashSafety, KilledWritersLeaveTheOldOrTheNewDocument) {
  TestFolder folder;
  const LibraryStore store(folder / "library.json");
  const LibraryData first = libraryOf(3000, 1000, "alt"), second = libraryOf(3000, 1000, "neu");
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
    while (child == 0)
      store.save(second), store.save(first);
    std::uniform_int_distribution<long> delay(0, 2 * oneSave.count() + 1000);
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    const std::string text = testing::readFile(folder / "library.json");
    ASSERT_TRUE(text == firstText || text == secondText) << "round " << round << ": neither";
    killedMidWrite += hasTemporaries(folder.path());
  }
  // The kills did land inside saves, so the check above was not idle.
  EXPECT_GT(killedMidWrite, 0) << "one save takes " << oneSave.count() << " µs";

  // What the killed writers left does not disturb later saves.
  Library library(store);
  library.mutate([](LibraryData& data) { data.tabs.resize(10); });
  EXPECT_FALSE(library.lastError()) << *library.lastError();
  EXPECT_EQ(store.load(), library.data());
}

// The handler that removes temporary files on SIGTERM and SIGINT is installed only where the
// signal has its default action. One that a program starts with ignored (it inherits that through
// exec) stays ignored: the server saves on, and ends normally when its input ends.
TEST(SaveCrashSafety, SignalIgnoredByTheServerStaysIgnoredThroughItsSaves) {
  for (const int number : {SIGTERM, SIGINT}) {
    TestFolder folder;
    const LibraryStore store(folder / "library.json");
    store.save(libraryOf(3, 100, "alt"));
    const std::string tabId = store.load().tabs[0].id.string();
    struct sigaction before {
    }, ignore{};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(number, &ignore, &before), 0);
    PipeChild mcp = server(folder / "library.json");
    ASSERT_EQ(::sigaction(number, &before, nullptr), 0);
    EXPECT_FALSE(addNote(mcp, tabId, "vorher").value("isError", true));
    ASSERT_EQ(::kill(mcp.pid(), number), 0);
    EXPECT_FALSE(addNote(mcp, tabId, "nachher").value("isError", true));
    EXPECT_TRUE(endsCleanly(mcp)) << number;
    EXPECT_EQ(store.load().tabs[0].note, "nachher");
  }
}

// The server keeps its document between calls while the file is unchanged; it must see the
// app's writes, and neither writer may ever leave a broken file.
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
      if (std::optional<std::string> text = Env::real().fileSystem().readFile(file))
        ++reads, broken += !codec::decodeLibrary(*text);
    }
  });
  PipeChild mcp = server(file);
  int failures = 0;
  std::thread client([&] {
    for (std::size_t i = 0; i < 100; ++i)
      failures += addNote(mcp, tabs[i].id.string(), "vom Server " + std::to_string(i))
                      .value("isError", true);
  });
  Library library(store);
  for (std::size_t i = 0; i < 100; ++i) {
    library.mutate(
        [i](LibraryData& data) { data.tabs[200 + i].title = "von der App " + std::to_string(i); });
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
  EXPECT_FALSE(addNote(mcp, tabs[1].id.string(), "zuletzt der Server").value("isError", true));
  LibraryData expected = library.data();
  expected.tabs[1].note = "zuletzt der Server";
  EXPECT_EQ(store.load(), expected);
  EXPECT_TRUE(endsCleanly(mcp));
  EXPECT_FALSE(hasTemporaries(folder.path()));
}

TEST(SaveFullDisk, FailedSavesReportAndKeepTheOldFile) {
  TestFolder folder;
  const fs::path disk = folder / "disk";
  fs::create_directories(disk);
  if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "mounting a small tmpfs is not permitted here";
  const std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(disk.c_str(), MNT_DETACH); });
  const fs::path file = folder / "disk" / "library.json";
  const LibraryStore store(file);
  store.save(libraryOf(3, 100, "klein"));
  const std::string before = testing::readFile(file);

  // Through the live library: the error text, the old file, the new data kept in memory.
  Library library(store);
  library.mutate([](LibraryData& data) { data.tabs[0].text = std::string(2'000'000, 'x'); });
  const std::string error = library.lastError().value_or("");
  EXPECT_EQ(error.rfind("Speichern fehlgeschlagen: ", 0), 0U) << error;
  EXPECT_NE(error.find("kein freier Speicherplatz"), std::string::npos) << error;
  EXPECT_EQ(testing::readFile(file), before);
  EXPECT_EQ(library.data().tabs[0].text.size(), 2'000'000U);
  EXPECT_FALSE(hasTemporaries(file.parent_path()));

  // Through the server's add_note; with room again, the same server saves.
  const std::string tabId = library.data().tabs[1].id.string();
  {
    PipeChild mcp = server(file);
    const Json failed = addNote(mcp, tabId, std::string(1'500'000, 'n'));
    EXPECT_EQ(failed["content"][0].value("text", ""), error);
    EXPECT_EQ(testing::readFile(file), before);
    EXPECT_FALSE(hasTemporaries(file.parent_path()));
    EXPECT_FALSE(addNote(mcp, tabId, "kurz").value("isError", true));
    EXPECT_EQ(store.load().tabs[1].note, "kurz");
  }
  // The next mutation that fits writes the data kept in memory, and clears the error.
  library.mutate([](LibraryData& data) { data.tabs[0].text = "wieder kurz"; });
  EXPECT_FALSE(library.lastError());
  EXPECT_EQ(store.load(), library.data());
}

constexpr const char* kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
constexpr const char* kPong = R"({"id":1,"jsonrpc":"2.0","result":{}})";
constexpr const char* kParseError =
    R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})";

class McpHostileClient : public ::testing::Test {
 protected:
  void SetUp() override { LibraryStore(file_).save(libraryOf(5, 10, "x")); }

  TestFolder folder_;
  fs::path file_ = folder_ / "library.json";
};

TEST_F(McpHostileClient, InputOrOutputClosedHalfWay) {
  PipeChild half = server(file_);
  ASSERT_TRUE(half.write(std::string(kPing) + "\n"));
  EXPECT_EQ(half.readLine(), kPong);
  // The client goes away after half a request: what came is answered as no JSON object.
  ASSERT_TRUE(half.write(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"na)"));
  EXPECT_TRUE(endsCleanly(half));
  EXPECT_EQ(half.readLine(), kParseError);
  EXPECT_EQ(half.readLine(), std::nullopt);
  EXPECT_EQ(LibraryStore(file_).load().tabs.size(), 5U);
  // Enough requests that the replies fill the pipe, then the client stops reading: no SIGPIPE
  // death and no hang; the server stops by itself, its input still open.
  PipeChild deaf = server(file_);
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i)
      deaf.write(R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})"
                 "\n");
  });
  EXPECT_TRUE(deaf.readLine());
  deaf.closeOutput();
  writer.join();
  EXPECT_TRUE(endsCleanly(deaf, false));
}

TEST_F(McpHostileClient, LinesOfSixteenMegabytes) {
  PipeChild mcp = server(file_);
  const std::string pad(16u << 20, 'x');
  std::thread writer([&] {
    mcp.write(R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"pad":")" + pad + "\"}}\n");
    mcp.write(pad + "\n");  // 16 MB that are not JSON
  });
  EXPECT_EQ(mcp.readLine(), kPong);
  EXPECT_EQ(mcp.readLine(), kParseError);
  writer.join();
  // A few copies of the line at most, not a copy per character or per nesting level.
  EXPECT_LT(mcp.peakResidentKb() / 1024, 450);
  EXPECT_TRUE(endsCleanly(mcp));
}

TEST_F(McpHostileClient, AHundredThousandRequestsWithoutGrowth) {
  PipeChild mcp = server(file_);
  const std::string tabId = LibraryStore(file_).load().tabs[3].id.string();
  // A mix of what a client sends, right and wrong; the notification gets no reply, the tool call
  // loads the library.
  const std::vector<std::string> kinds = {
      kPing,
      "{kaputt",
      "[]",
      R"({"jsonrpc":"2.0","method":"notifications/initialized"})",
      R"({"jsonrpc":"2.0","id":[1,{"a":[]}],"method":"initialize","params":{"protocolVersion":"x"}})",
      R"({"jsonrpc":"2.0","id":{"x":null},"method":"tools/call","params":{"name":"nichts"}})",
      R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"get_tab","arguments":{"id":")" +
          tabId + R"("}}})",
      R"({"jsonrpc":"2.0","id":"l","method":"tools/list"})"};
  constexpr int kRequests = 100'000, kWarmUp = 20'000;
  const int expectedReplies = kRequests - kRequests / static_cast<int>(kinds.size());
  std::thread writer([&] {
    for (int i = 0; i < kRequests; ++i)
      mcp.write(kinds[static_cast<std::size_t>(i) % kinds.size()] + "\n");
  });
  int replies = 0, errors = 0;
  long warmPeakKb = 0;
  for (std::optional<std::string> line; replies < expectedReplies && (line = mcp.readLine());) {
    errors += line->find(R"("jsonrpc":"2.0")") == std::string::npos;
    if (++replies == kWarmUp)
      warmPeakKb = mcp.peakResidentKb();
  }
  writer.join();
  EXPECT_EQ(replies, expectedReplies);
  EXPECT_EQ(errors, 0);
  // 80,000 requests after the warm-up: a leak of 100 bytes each would add 8 MB.
  EXPECT_LT(mcp.peakResidentKb() - warmPeakKb, 4 * 1024);
  EXPECT_TRUE(endsCleanly(mcp));
}

}  // namespace
}  // namespace kestrova
