// mcp_bench [TABS] [CLI]: kestrova-cli mcp on a generated library, driven through pipes like a
// client. Times 50 get_tab and 50 add_note calls one at a time (each waits for its reply) and
// prints the median per call beside one LibraryStore::load and one save of the same file: every
// call loads the whole document, and add_note saves it too, so those are the floors.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kestrova/store.h>

#include "bench_timer.h"
#include "library_generator.h"

namespace {

using namespace kestrova;
using Clock = std::chrono::steady_clock;

struct Server {
  pid_t pid = -1;
  int in = -1;
  int out = -1;
  std::string pending;

  void start(const std::string& cli, const std::filesystem::path& library) {
    int toServer[2];
    int fromServer[2];
    if (::pipe(toServer) != 0 || ::pipe(fromServer) != 0) {
      std::abort();
    }
    pid = ::fork();
    if (pid == 0) {
      ::dup2(toServer[0], 0);
      ::dup2(fromServer[1], 1);
      ::close(toServer[0]);
      ::close(toServer[1]);
      ::close(fromServer[0]);
      ::close(fromServer[1]);
      const std::string path = library.string();
      ::execl(cli.c_str(), cli.c_str(), "mcp", "--library", path.c_str(),
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(toServer[0]);
    ::close(fromServer[1]);
    in = toServer[1];
    out = fromServer[0];
  }

  // Sends one line and returns the reply line.
  std::string ask(const std::string& line) {
    const std::string message = line + "\n";
    std::size_t done = 0;
    while (done < message.size()) {
      ssize_t n = ::write(in, message.data() + done, message.size() - done);
      if (n <= 0) {
        std::fprintf(stderr, "mcp_bench: the server stopped reading\n");
        std::exit(1);
      }
      done += static_cast<std::size_t>(n);
    }
    for (;;) {
      std::size_t newline = pending.find('\n');
      if (newline != std::string::npos) {
        std::string reply = pending.substr(0, newline);
        pending.erase(0, newline + 1);
        return reply;
      }
      char buffer[65536];
      ssize_t n = ::read(out, buffer, sizeof buffer);
      if (n <= 0) {
        std::fprintf(stderr, "mcp_bench: the server ended without a reply\n");
        std::exit(1);
      }
      pending.append(buffer, static_cast<std::size_t>(n));
    }
  }

  void stop() {
    ::close(in);
    ::close(out);
    int status = 0;
    ::waitpid(pid, &status, 0);
  }
};

std::string callLine(int id, const std::string& tool, const std::string& arguments) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/call","params":{"name":")" + tool + R"(","arguments":)" + arguments +
         "}}";
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t tabs = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 10000;
  const std::string cli = argc > 2 ? argv[2] : KESTROVA_CLI_PATH;
  constexpr int kCalls = 50;
  ::signal(SIGPIPE, SIG_IGN);

  std::string pattern =
      (std::filesystem::temp_directory_path() / "kestrova-mcp-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    return 1;
  }
  const std::filesystem::path file = std::filesystem::path(pattern) / "library.json";
  const LibraryData data = bench::generateLibrary(tabs);
  const LibraryStore store(file);
  store.save(data);
  const double megabytes = static_cast<double>(std::filesystem::file_size(file)) / 1e6;

  const double load = bench::medianMs(5, [&] {
    if (store.load().tabs.size() != tabs) {
      std::abort();
    }
  });
  const double save = bench::medianMs(5, [&] { store.save(data); });

  Server server;
  server.start(cli, file);
  server.ask(R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{}})");
  std::vector<double> getTab;
  std::vector<double> addNote;
  for (int i = 0; i < kCalls; ++i) {
    const std::string id = data.tabs[(static_cast<std::size_t>(i) * 7919) % tabs].id.string();
    auto start = Clock::now();
    std::string reply = server.ask(callLine(i + 1, "get_tab", R"({"id":")" + id + R"("})"));
    getTab.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    if (reply.find(R"("isError":false)") == std::string::npos) {
      std::fprintf(stderr, "mcp_bench: get_tab failed: %.200s\n", reply.c_str());
      return 1;
    }
  }
  for (int i = 0; i < kCalls; ++i) {
    const std::string id = data.tabs[(static_cast<std::size_t>(i) * 104729) % tabs].id.string();
    auto start = Clock::now();
    std::string reply =
        server.ask(callLine(100 + i, "add_note",
                            R"({"id":")" + id + R"(","note":"Notiz )" + std::to_string(i) + "\"}"));
    addNote.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    if (reply.find(R"("isError":false)") == std::string::npos) {
      std::fprintf(stderr, "mcp_bench: add_note failed: %.200s\n", reply.c_str());
      return 1;
    }
  }
  server.stop();

  const double getMedian = median(getTab);
  const double noteMedian = median(addNote);
  std::printf("mcp: %zu tabs, %.1f MB library, %d calls each through the pipe\n", tabs, megabytes,
              kCalls);
  std::printf("  LibraryStore::load %8.1f ms   save %8.1f ms\n", load, save);
  std::printf("  get_tab  median %8.1f ms   ratio to load        %4.2fx\n", getMedian,
              getMedian / load);
  std::printf("  add_note median %8.1f ms   ratio to load + save %4.2fx\n", noteMedian,
              noteMedian / (load + save));
  std::filesystem::remove_all(pattern);
  return 0;
}
