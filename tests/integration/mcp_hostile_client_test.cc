// kestrova-cli mcp against clients that misbehave: they vanish half way, send a line of 16 MB,
// or send a hundred thousand requests in a row. The server neither crashes nor grows.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <kestrova/store.h>

#include "support/pipe_child.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::PipeChild;
using testing::TestFolder;

constexpr const char* kCli = KESTROVA_CLI_PATH;
constexpr const char* kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
constexpr const char* kPong = R"({"id":1,"jsonrpc":"2.0","result":{}})";
constexpr const char* kParseError =
    R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})";

// Under AddressSanitizer freed memory waits in a quarantine (256 MB by default) before reuse,
// which would look like growth; a small one keeps the measurement about real leaks.
std::vector<std::string> smallQuarantine() {
  const char* inherited = std::getenv("ASAN_OPTIONS");
  std::string options = inherited != nullptr ? inherited : "";
  return {"ASAN_OPTIONS=" + options + (options.empty() ? "" : ":") + "quarantine_size_mb=4"};
}

class McpHostileClient : public ::testing::Test {
 protected:
  void SetUp() override {
    LibraryData data;
    for (int i = 0; i < 5; ++i) {
      data.tabs.push_back(
          makeSavedTab({.id = Uuid::random(), .url = "https://example.ch/", .text = "Kaffee"}));
    }
    tabId_ = data.tabs[3].id.string();
    LibraryStore(file_).save(data);
  }

  std::vector<std::string> command() const { return {kCli, "mcp", "--library", file_.string()}; }

  static bool exitedCleanly(PipeChild& server) {
    server.closeInput();
    const std::optional<int> status = server.waitFor(std::chrono::seconds(20));
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
  }

  TestFolder folder_;
  fs::path file_ = folder_ / "library.json";
  std::string tabId_;
};

TEST_F(McpHostileClient, InputClosedInTheMiddleOfALine) {
  PipeChild server(command());
  ASSERT_TRUE(server.write(std::string(kPing) + "\n"));
  EXPECT_EQ(server.readLine(), kPong);
  // The client goes away after half a request: the rest of the line never comes.
  ASSERT_TRUE(server.write(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"na)"));
  // What came is not a JSON object, and is answered as such; then the server ends.
  EXPECT_TRUE(exitedCleanly(server));
  EXPECT_EQ(server.readLine(), kParseError);
  EXPECT_EQ(server.readLine(), std::nullopt);
  EXPECT_TRUE(LibraryStore(file_).load().tab(*Uuid::parse(tabId_)));
}

TEST_F(McpHostileClient, OutputClosedWhileRepliesAreStillComing) {
  PipeChild server(command());
  // Enough requests that the replies fill the pipe, then the client stops reading.
  std::string burst;
  for (int i = 0; i < 2000; ++i)
    burst += R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})"
             "\n";
  std::thread writer([&] { server.write(burst); });
  EXPECT_TRUE(server.readLine());
  server.closeOutput();
  writer.join();
  // No SIGPIPE death and no hang: the server notices and stops by itself, input still open.
  const std::optional<int> status = server.waitFor(std::chrono::seconds(20));
  EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
}

TEST_F(McpHostileClient, LinesOfSixteenMegabytes) {
  PipeChild server(command(), smallQuarantine());
  const std::string pad(16u << 20, 'x');
  std::thread writer([&] {
    server.write(R"({"jsonrpc":"2.0","id":7,"method":"ping","params":{"pad":")" + pad + "\"}}\n");
    server.write(pad + "\n");  // 16 MB that are not JSON
    server.write(std::string(kPing) + "\n");
  });
  EXPECT_EQ(server.readLine(), R"({"id":7,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(server.readLine(), kParseError);
  EXPECT_EQ(server.readLine(), kPong);
  writer.join();
  // A few copies of the line at most, not a copy per character or per nesting level.
  const long peakMb = server.peakResidentKb() / 1024;
  EXPECT_LT(peakMb, 450) << "peak resident memory " << peakMb << " MB for 16 MB lines";
  EXPECT_TRUE(exitedCleanly(server));
}

TEST_F(McpHostileClient, AHundredThousandRequestsWithoutGrowth) {
  PipeChild server(command(), smallQuarantine());
  // A mix of what a client sends, right and wrong; notifications get no reply. Every tenth
  // request is a tool call that loads the library.
  const std::vector<std::string> kinds = {
      kPing,
      R"({"jsonrpc":"2.0","id":"l","method":"tools/list"})",
      R"({"jsonrpc":"2.0","id":6,"method":"unbekannt"})",
      R"({"jsonrpc":"2.0","id":[1,{"a":[]}],"method":"initialize","params":{"protocolVersion":"x"}})",
      "{kaputt",
      R"({"jsonrpc":"2.0","method":"notifications/initialized"})",
      R"({"jsonrpc":"2.0","id":2.5,"method":"ping","params":[]})",
      "[]",
      R"({"jsonrpc":"2.0","id":{"x":null},"method":"tools/call","params":{"name":"nichts"}})",
      R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"get_tab","arguments":{"id":")" +
          tabId_ + R"("}}})",
  };
  constexpr int kRequests = 100'000;
  constexpr int kWarmUp = 20'000;
  // One in ten is the notification, which gets no reply.
  const int expectedReplies = kRequests - kRequests / static_cast<int>(kinds.size());
  std::thread writer([&] {
    for (int i = 0; i < kRequests; ++i)
      server.write(kinds[static_cast<std::size_t>(i) % kinds.size()] + "\n");
  });

  int replies = 0, errors = 0;
  long warmPeakKb = 0;
  for (std::optional<std::string> line; replies < expectedReplies && (line = server.readLine());) {
    errors += line->find(R"("jsonrpc":"2.0")") == std::string::npos;
    if (++replies == kWarmUp)
      warmPeakKb = server.peakResidentKb();
  }
  writer.join();
  const long finalPeakKb = server.peakResidentKb();
  EXPECT_EQ(replies, expectedReplies);
  EXPECT_EQ(errors, 0);
  // 80,000 requests after the warm-up: a leak of 100 bytes each would add 8 MB.
  EXPECT_LT(finalPeakKb - warmPeakKb, 4 * 1024)
      << "peak resident memory grew from " << warmPeakKb << " kB to " << finalPeakKb << " kB";
  EXPECT_TRUE(exitedCleanly(server));
}

}  // namespace
}  // namespace kestrova
