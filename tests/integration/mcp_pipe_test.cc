// kestrova-cli mcp as a client sees it: the real binary, driven through pipes.
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "support/pipe_child.h"
#include "support/test_folder.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using kestrova::testing::readFile;
using kestrova::testing::writeFile;

constexpr const char* kTabId = "AAAAAAAA-0000-4000-8000-000000000001";

struct Outcome {
  std::vector<std::string> out;
  std::string err;
  int status = -1;
};

class McpPipes : public ::testing::Test {
 protected:
  // Runs the binary with `args` in the test folder, sends all of `input`, closes standard input
  // and collects the output lines, standard error and exit status.
  Outcome run(std::vector<std::string> args, const std::string& input,
              const std::vector<std::string>& env = {}) {
    const fs::path err = folder / "stderr.txt";
    args.insert(args.begin(),
                {"/bin/sh", "-c", "cd \"$0\" && exec \"$@\" 2>\"" + err.string() + "\"",
                 folder.path().string(), KESTROVA_CLI_PATH});
    kestrova::testing::PipeChild child(args, env);
    std::thread writer([&] { child.write(input), child.closeInput(); });
    Outcome outcome;
    while (auto line = child.readLine())
      outcome.out.push_back(*line);
    writer.join();
    const auto status = child.waitFor(std::chrono::seconds(30));
    outcome.status = status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    outcome.err = readFile(err);
    fs::remove(err);
    return outcome;
  }
  Outcome mcp(const std::string& input) { return run({"mcp", "--library", library}, input); }

  static std::string call(int id, const std::string& tool, const Json& arguments) {
    return Json{{"jsonrpc", "2.0"},
                {"id", id},
                {"method", "tools/call"},
                {"params", {{"name", tool}, {"arguments", arguments}}}}
               .dump() +
           "\n";
  }
  static std::string toolText(const std::string& line) {
    return Json::parse(line)["result"]["content"][0]["text"];
  }

  kestrova::testing::TestFolder folder;
  std::string library = (folder / "library.json").string();
};

// Lines in order, blank ones skipped, CRLF and a last line without newline taken; bytes that are
// not UTF-8 are read as U+FFFD.
TEST_F(McpPipes, LinesInOrderAndBadLinesGetDefinedReplies) {
  const Outcome outcome = mcp(
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-03-26"}})"
      "\n"
      R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
      "\n\n   \n{kaputt\n{\"id\":2,\"method\":\"caf\xC3\x28\xFF\"}\n"
      R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})"
      "\r\n"
      R"({"id":4,"method":"ping"})");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  ASSERT_EQ(outcome.out.size(), 5u);
  EXPECT_EQ(Json::parse(outcome.out[0])["result"]["protocolVersion"], "2025-03-26");
  EXPECT_EQ(outcome.out[1],
            R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})");
  EXPECT_EQ(Json::parse(outcome.out[2])["error"]["message"],
            "Method not found: caf\xEF\xBF\xBD(\xEF\xBF\xBD");
  EXPECT_EQ(Json::parse(outcome.out[3])["result"]["tools"].size(), 7u);
  EXPECT_EQ(outcome.out[4], R"({"id":4,"jsonrpc":"2.0","result":{}})");
  // No input: no output, and no library file made.
  EXPECT_TRUE(mcp("").out.empty());
  EXPECT_FALSE(fs::exists(library));
}

TEST_F(McpPipes, MissingOrCorruptLibraryIsEmptyAndNeverOverwritten) {
  const std::string calls = call(1, "recent_tabs", {{"days", 100000}}) +
                            call(2, "add_note", {{"id", kTabId}, {"note", "x"}});
  for (const char* text : {"", "{\"tabs\":[{\"id\":"}) {
    if (*text != '\0')
      writeFile(library, text);
    const Outcome outcome = mcp(calls);
    ASSERT_EQ(outcome.out.size(), 2u);
    EXPECT_EQ(toolText(outcome.out[0]), "[]");
    EXPECT_EQ(toolText(outcome.out[1]), "id oder note fehlt");
    EXPECT_EQ(fs::exists(library), *text != '\0');
  }
  EXPECT_EQ(readFile(library), "{\"tabs\":[{\"id\":");
}

TEST_F(McpPipes, LibraryPathFromTildeWorkingFolderOrDataFolder) {
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> env;
    fs::path file;
  } cases[] = {
      {{"mcp", "--library", "~/x.json"}, {"HOME=" + folder.path().string()}, folder / "x.json"},
      {{"mcp", "--library", "sub/lib.json"}, {}, folder / "sub/lib.json"},
      {{"mcp"},
       {"XDG_DATA_HOME=" + (folder / "data").string()},
       folder / "data/Kestrova/library.json"},
  };
  for (const auto& c : cases) {
    writeFile(c.file, std::string(R"({"tabs":[{"id":")") + kTabId +
                          R"(","url":"https://example.org/x","title":"Beispiel"}]})");
    const Outcome outcome =
        run(c.args, call(1, "add_note", {{"id", kTabId}, {"note", "daheim"}}), c.env);
    ASSERT_EQ(outcome.out.size(), 1u) << outcome.err;
    EXPECT_EQ(Json::parse(toolText(outcome.out[0]))["title"], "Beispiel");
    EXPECT_NE(readFile(c.file).find("daheim"), std::string::npos) << c.file;
  }
  EXPECT_FALSE(fs::exists(folder / "~"));
}

}  // namespace
