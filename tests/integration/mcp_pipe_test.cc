// kestrova-cli mcp as a client sees it: the real binary, driven through pipes.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/test_folder.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using kestrova::testing::readFile;
using kestrova::testing::TestFolder;
using kestrova::testing::writeFile;

constexpr const char* kCli = KESTROVA_CLI_PATH;
constexpr const char* kTabId = "AAAAAAAA-0000-4000-8000-000000000001";
constexpr const char* kParseErrorLine =
    R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})";

struct Outcome {
  std::string out;
  std::string err;
  int status = -1;  // exit status, or -1 when killed by a signal
  int signal = 0;
};

struct Spawn {
  std::vector<std::string> args;
  std::vector<std::string> env;  // extra NAME=value entries, replacing inherited ones
  fs::path cwd;
};

// Starts the binary with pipes on all three standard streams.
struct Child {
  pid_t pid = -1;
  int in = -1;
  int out = -1;
  int err = -1;
};

Child start(const Spawn& spawn) {
  int inPipe[2], outPipe[2], errPipe[2];
  if (::pipe(inPipe) != 0 || ::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) {
    throw std::runtime_error("pipe failed");
  }
  std::vector<std::string> args{kCli};
  args.insert(args.end(), spawn.args.begin(), spawn.args.end());
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    bool replaced = false;
    for (const std::string& extra : spawn.env) {
      replaced |= entry.substr(0, entry.find('=') + 1) == extra.substr(0, extra.find('=') + 1);
    }
    if (!replaced) {
      env.push_back(entry);
    }
  }
  env.insert(env.end(), spawn.env.begin(), spawn.env.end());
  std::vector<char*> argv, envp;
  for (std::string& a : args) {
    argv.push_back(a.data());
  }
  argv.push_back(nullptr);
  for (std::string& e : env) {
    envp.push_back(e.data());
  }
  envp.push_back(nullptr);
  const std::string cwd = spawn.cwd.string();

  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(inPipe[0], 0);
    ::dup2(outPipe[1], 1);
    ::dup2(errPipe[1], 2);
    for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) {
      ::close(fd);
    }
    if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) {
      ::_exit(126);
    }
    ::signal(SIGPIPE, SIG_DFL);  // as a client's child would start
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(inPipe[0]);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  return Child{pid, inPipe[1], outPipe[0], errPipe[0]};
}

void writeAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return;  // the server has gone; what it answered so far is what counts
    }
    done += static_cast<std::size_t>(n);
  }
}

std::string readAll(int fd) {
  std::string out;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return out;
    }
    out.append(buffer, static_cast<std::size_t>(n));
  }
}

void finish(Child& child, Outcome& run) {
  int status = 0;
  while (::waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    run.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    run.signal = WTERMSIG(status);
  }
}

// Sends all of `input`, closes standard input and collects everything until the process ends.
Outcome runCli(const Spawn& spawn, const std::string& input) {
  Child child = start(spawn);
  Outcome run;
  std::thread writer([&] {
    writeAll(child.in, input);
    ::close(child.in);
  });
  std::thread errReader([&] { run.err = readAll(child.err); });
  run.out = readAll(child.out);
  writer.join();
  errReader.join();
  ::close(child.out);
  ::close(child.err);
  finish(child, run);
  return run;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    out.push_back(line);
  }
  return out;
}

std::string call(int id, const std::string& tool, const Json& arguments) {
  return Json{{"jsonrpc", "2.0"},
              {"id", id},
              {"method", "tools/call"},
              {"params", {{"name", tool}, {"arguments", arguments}}}}
             .dump() +
         "\n";
}

std::string toolText(const std::string& line) {
  return Json::parse(line)["result"]["content"][0]["text"].get<std::string>();
}

std::string sampleLibrary() {
  return std::string(R"({"tabs":[{"id":")") + kTabId +
         R"(","url":"https://example.org/x","title":"Beispiel","savedAt":"2026-01-02T03:04:05Z"}]})";
}

class McpPipes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ::signal(SIGPIPE, SIG_IGN); }
  TestFolder folder;
  fs::path library = folder / "library.json";
  Spawn spawn{{"mcp", "--library", library.string()}, {}, {}};
};

TEST_F(McpPipes, HandshakeAndLinesInOrder) {
  Outcome run = runCli(
      spawn,
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"t","version":"1"}}})"
      "\n"
      R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
      "\n\n   \n"
      R"({"jsonrpc":"2.0","id":2,"method":"ping"})"
      "\n"
      R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})"
      "\r\n"
      R"({"jsonrpc":"2.0","id":4,"method":"ping"})");  // no final newline
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  std::vector<std::string> out = lines(run.out);
  ASSERT_EQ(out.size(), 4u) << run.out;
  EXPECT_EQ(Json::parse(out[0])["result"]["protocolVersion"], "2025-06-18");
  EXPECT_EQ(out[1], R"({"id":2,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(Json::parse(out[2])["result"]["tools"].size(), 7u);
  EXPECT_EQ(out[3], R"({"id":4,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(run.out.back(), '\n');
}

TEST_F(McpPipes, NoInputNoOutput) {
  Outcome run = runCli(spawn, "");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_FALSE(fs::exists(library));
}

TEST_F(McpPipes, BadLinesGetDefinedReplies) {
  std::mt19937 random(42);
  std::string garbage;
  for (int i = 0; i < 4096; ++i) {
    char c = static_cast<char>(random() & 0xFF);
    garbage.push_back(c == '\n' ? 'x' : c);
  }
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  Outcome run = runCli(spawn, "12345\n" + garbage + "\n" + deep + "\n" +
                                  R"({"id":1,"method":"ping","params":{"deep":)" + deep + "}}\n" +
                                  R"({"id":)" + deep + R"(,"method":"ping"})" + "\n" +
                                  "{\"id\":2,\"method\":\"caf\xC3\x28\xFF\"}\n");
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<std::string> out = lines(run.out);
  ASSERT_EQ(out.size(), 6u) << run.out.substr(0, 2000);
  EXPECT_EQ(out[0], kParseErrorLine);
  EXPECT_EQ(out[1], kParseErrorLine);
  EXPECT_EQ(out[2], kParseErrorLine);
  EXPECT_EQ(out[3], R"({"id":1,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(out[4],
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Internal error"}})");
  EXPECT_EQ(Json::parse(out[5])["error"]["message"],
            "Method not found: caf\xEF\xBF\xBD(\xEF\xBF\xBD");
}

TEST_F(McpPipes, LinesOfSeveralMegabytes) {
  writeFile(library, sampleLibrary());
  const std::string note(6 * 1024 * 1024, 'x');
  Outcome run = runCli(spawn, call(1, "add_note", {{"id", kTabId}, {"note", note}}) +
                                  std::string(5 * 1024 * 1024, '{') + "\n" +
                                  call(2, "get_tab", {{"id", kTabId}}));
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<std::string> out = lines(run.out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(Json::parse(out[0])["result"]["isError"], false);
  EXPECT_EQ(out[1], kParseErrorLine);
  EXPECT_EQ(Json::parse(toolText(out[2]))["note"], note);
}

TEST_F(McpPipes, ClientClosingStandardOutputEndsTheServerCleanly) {
  Child child = start(spawn);
  const std::string ping = "{\"id\":1,\"method\":\"ping\"}\n";
  writeAll(child.in, ping);
  char buffer[256];
  ssize_t n = ::read(child.out, buffer, sizeof buffer);
  EXPECT_GT(n, 0);
  ::close(child.out);  // the client stops listening
  for (int i = 0; i < 200; ++i) {
    writeAll(child.in, ping);
  }
  ::close(child.in);
  std::string err = readAll(child.err);
  ::close(child.err);
  Outcome run;
  finish(child, run);
  EXPECT_EQ(run.signal, 0) << "killed by signal " << run.signal;
  EXPECT_EQ(run.status, 0) << err;
}

TEST_F(McpPipes, MissingLibraryIsEmptyAndStaysMissing) {
  Outcome run = runCli(spawn, call(1, "list_topics", Json::object()) +
                                  call(2, "add_note", {{"id", kTabId}, {"note", "x"}}));
  std::vector<std::string> out = lines(run.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(toolText(out[0]), "[]");
  EXPECT_EQ(toolText(out[1]), "id oder note fehlt");
  EXPECT_FALSE(fs::exists(library));
}

TEST_F(McpPipes, CorruptLibraryIsKeptAsideAndNotOverwritten) {
  writeFile(library, "{\"tabs\":[{\"id\":");
  Outcome run = runCli(spawn, call(1, "recent_tabs", {{"days", 100000}}) +
                                  call(2, "add_note", {{"id", kTabId}, {"note", "x"}}));
  std::vector<std::string> out = lines(run.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(toolText(out[0]), "[]");
  EXPECT_EQ(toolText(out[1]), "id oder note fehlt");
  EXPECT_EQ(readFile(library), "{\"tabs\":[{\"id\":");
  bool copied = false;
  for (const auto& entry : fs::directory_iterator(folder.path())) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("library.defekt-", 0) == 0) {
      copied = readFile(entry.path()) == "{\"tabs\":[{\"id\":";
    }
  }
  EXPECT_TRUE(copied);
}

TEST_F(McpPipes, UnreadableLibraryIsEmpty) {
  fs::create_directories(library);  // a folder where the file should be
  Outcome run = runCli(spawn, call(1, "list_windows", Json::object()));
  ASSERT_EQ(lines(run.out).size(), 1u);
  EXPECT_EQ(toolText(lines(run.out)[0]), "[]");
}

TEST_F(McpPipes, TildeMeansTheHomeFolder) {
  writeFile(folder / "x.json", sampleLibrary());
  Spawn tilde{{"mcp", "--library", "~/x.json"}, {"HOME=" + folder.path().string()}, {}};
  Outcome run = runCli(tilde, call(1, "add_note", {{"id", kTabId}, {"note", "daheim"}}));
  ASSERT_EQ(lines(run.out).size(), 1u) << run.err;
  EXPECT_EQ(Json::parse(toolText(lines(run.out)[0]))["note"], "daheim");
  EXPECT_NE(readFile(folder / "x.json").find("daheim"), std::string::npos);
  EXPECT_FALSE(fs::exists(fs::current_path() / "~"));
}

TEST_F(McpPipes, RelativePathFollowsTheWorkingFolder) {
  writeFile(folder / "sub" / "lib.json", sampleLibrary());
  Spawn relative{{"mcp", "--library", "sub/lib.json"}, {}, folder.path()};
  Outcome run = runCli(relative, call(1, "add_note", {{"id", kTabId}, {"note", "relativ"}}));
  ASSERT_EQ(lines(run.out).size(), 1u) << run.err;
  EXPECT_NE(readFile(folder / "sub" / "lib.json").find("relativ"), std::string::npos);
}

TEST_F(McpPipes, DefaultLibraryFollowsTheDataFolder) {
  writeFile(folder / "data" / "Kestrova" / "library.json", sampleLibrary());
  Spawn byDefault{{"mcp"}, {"XDG_DATA_HOME=" + (folder / "data").string()}, {}};
  Outcome run = runCli(byDefault, call(1, "get_tab", {{"id", kTabId}}));
  ASSERT_EQ(lines(run.out).size(), 1u) << run.err;
  EXPECT_EQ(Json::parse(toolText(lines(run.out)[0]))["title"], "Beispiel");
}

TEST_F(McpPipes, UsageErrors) {
  Outcome run = runCli(Spawn{{"mcp", "--library"}, {}, {}}, "");
  EXPECT_EQ(run.status, 64);
  EXPECT_EQ(run.err.rfind("Error: ", 0), 0u) << run.err;
  EXPECT_EQ(run.out, "");
  run = runCli(Spawn{{"mcp", "-l", "x"}, {}, {}}, "");
  EXPECT_EQ(run.status, 64);
  run = runCli(Spawn{{"--help"}, {}, {}}, "");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("MCP-Server über stdio (für Claude Desktop / Claude Code)."),
            std::string::npos);
  EXPECT_LT(run.out.find("selftest"), run.out.find("mcp"));
}

}  // namespace
