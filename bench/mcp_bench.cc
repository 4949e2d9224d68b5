// mcp_bench LIBRARY|TABS [CLI]: kestrova-cli mcp on a library, driven through pipes like a client.
// LIBRARY is a library file (bench/run passes the ones it generated); a number instead generates
// a library of that many tabs into a temporary folder. The server keeps the document while the
// file stays the same, so each tool is timed twice: warm (the file unchanged since the last call)
// and right after the file changed (its times touched, so the call loads it). One
// LibraryStore::load of the same document, timed in this process right before each call, is the
// floor of every call (for add_note, a LibraryStore::save); so both see the same load of a shared
// machine. Prints median and 90th percentile per figure, the server's resident memory between
// calls (VmRSS) and its peak (VmHWM) against the file's size.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
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

// Themed words, a question with stop words, a common word and a word no tab holds (which makes
// every tab's text be read).
const std::vector<std::string> kQueries = {"Risotto Rezept", "Höhenmeter Gotthard Pass",
                                           "wie plane ich eine Velotour über den Furka", "Training",
                                           "Zebrafischlarven"};

struct Timings {
  std::vector<double> ms;
  std::vector<double> floorMs;  // the floor, timed right before each call
  bool failed = false;
};

double millisecondsOf(const std::function<void()>& work) {
  const auto start = Clock::now();
  work();
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Calls `tool` `calls` times with the arguments `argumentsFor(i)` and times each call, and the
// floor `floor` right before it: on a shared machine both then see the same load.
template <typename Arguments>
Timings timeCalls(Server& server, int& id, const char* tool, int calls, Arguments argumentsFor,
                  const std::function<void()>& floor, const std::function<void()>& prepare = {}) {
  Timings timings;
  for (int i = 0; i < calls; ++i) {
    timings.floorMs.push_back(millisecondsOf(floor));
    if (prepare) {
      prepare();
    }
    std::string reply;
    timings.ms.push_back(
        millisecondsOf([&] { reply = server.ask(callLine(++id, tool, argumentsFor(i))); }));
    if (reply.find(R"("isError":false)") == std::string::npos) {
      std::fprintf(stderr, "mcp_bench: %s failed: %.200s\n", tool, reply.c_str());
      timings.failed = true;
    }
  }
  return timings;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string argument = argc > 1 ? argv[1] : "10000";
  const std::string cli = argc > 2 ? argv[2] : KESTROVA_CLI_PATH;
  ::signal(SIGPIPE, SIG_IGN);

  std::string pattern =
      (std::filesystem::temp_directory_path() / "kestrova-mcp-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    return 1;
  }
  std::filesystem::path file = argument;
  if (!std::filesystem::is_regular_file(file)) {
    file = std::filesystem::path(pattern) / "library.json";
    LibraryStore(file).save(bench::generateLibrary(std::strtoull(argument.c_str(), nullptr, 10)));
  }
  const LibraryStore store(file);
  std::vector<std::string> ids;
  {
    const LibraryData data = store.load();
    for (const SavedTab& tab : data.tabs) {
      ids.push_back(tab.id.string());
    }
  }
  const std::size_t tabs = ids.size();
  if (tabs == 0) {
    std::fprintf(stderr, "mcp_bench: %s holds no tabs\n", file.c_str());
    return 1;
  }
  const double bytes = static_cast<double>(std::filesystem::file_size(file));
  // Every load reads the whole file: fewer calls on large libraries keep the run short.
  const int calls = tabs >= 80000 ? 5 : (tabs >= 40000 ? 7 : (tabs >= 8000 ? 15 : 41));
  const LibraryStore copy(std::filesystem::path(pattern) / "floor.json");
  const auto load = [&] {
    if (store.load().tabs.size() != tabs) {
      std::abort();
    }
  };
  std::optional<LibraryData> data;
  const auto save = [&] {
    if (!data) {
      data = store.load();
    }
    copy.save(*data);
  };
  // A change the server must notice: new times, the same bytes.
  const auto touch = [&] {
    const struct timespec times[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
    ::utimensat(AT_FDCWD, file.c_str(), times, 0);
  };
  const auto query = [](int i) {
    return R"({"query":")" + kQueries[static_cast<std::size_t>(i) % kQueries.size()] + "\"}";
  };
  const auto tab = [&](int i) {
    return R"({"id":")" + ids[(static_cast<std::size_t>(i) * 7919) % tabs] + "\"}";
  };

  Server server;
  server.start(cli, file);
  int id = 0;
  server.ask(R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{}})");
  // The first search makes the server's embedder; that happens once per server, not per call.
  server.ask(callLine(++id, "search_tabs", R"({"query":"warm up"})"));
  const Timings search = timeCalls(server, id, "search_tabs", calls, query, load);
  const Timings getTab = timeCalls(server, id, "get_tab", calls, tab, load);
  const double resident = bench::residentBytes(server.pid);
  const Timings changedGet = timeCalls(server, id, "get_tab", calls, tab, load, touch);
  const Timings changedSearch = timeCalls(server, id, "search_tabs", calls, query, load, touch);
  const Timings addNote = timeCalls(
      server, id, "add_note", calls,
      [&](int i) {
        return R"({"id":")" + ids[(static_cast<std::size_t>(i) * 104729) % tabs] +
               R"(","note":"Notiz )" + std::to_string(i) + "\"}";
      },
      save);
  // The other four tools once each, warm: every tool must answer at every size.
  std::vector<std::pair<std::string, double>> others;
  bool othersAnswer = true;
  for (const auto& [tool, arguments] : std::vector<std::pair<std::string, std::string>>{
           {"list_topics", "{}"},
           {"list_windows", "{}"},
           {"set_reminder", R"({"id":")" + ids[0] + R"(","iso_date":"2026-12-24T09:00:00+01:00"})"},
           {"recent_tabs", R"({"days":36500})"}}) {
    std::string reply;
    others.emplace_back(
        tool, millisecondsOf([&] { reply = server.ask(callLine(++id, tool, arguments)); }));
    if (reply.find(R"("isError":false)") == std::string::npos) {
      std::fprintf(stderr, "mcp_bench: %s failed: %.200s\n", tool.c_str(), reply.c_str());
      othersAnswer = false;
    }
  }
  const double peak = bench::peakResidentBytes(server.pid);
  server.stop();
  std::filesystem::remove_all(pattern);

  const std::string size = bench::format("%zu tabs", tabs);
  std::printf("mcp: %zu tabs, %.1f MB library, %d calls per figure through the pipe\n", tabs,
              bytes / 1e6, calls);
  struct Row {
    const char* name;
    const Timings& timings;
    const char* floorName;
    double limit;  // target ratio of the median to the floor; 0 for none
  };
  const bool tenThousand = tabs == 10000;
  const bool hundredThousand = tabs == 100000;
  const Row rows[] = {
      {"get_tab after a change", changedGet, "load", 0},
      {"search_tabs after a change", changedSearch, "load", 0},
      {"get_tab warm", getTab, "load", tenThousand ? 0.05 : 0},
      {"search_tabs warm", search, "load", tenThousand ? 0.10 : (hundredThousand ? 0.2 : 0)},
      {"add_note warm", addNote, "save", 0},
  };
  bool answered = othersAnswer;
  for (const auto& [tool, ms] : others) {
    std::printf("  %-27s once   %8.1f ms%s\n", (tool + " warm").c_str(), ms,
                othersAnswer ? "" : "  (a tool FAILED)");
  }
  for (const Row& row : rows) {
    const double med = bench::median(row.timings.ms);
    const double p90 = bench::percentile(row.timings.ms, 0.9);
    const double floor = bench::median(row.timings.floorMs);
    answered = answered && !row.timings.failed;
    std::printf("  %-27s median %8.1f ms  p90 %8.1f ms | %-4s %8.1f ms | ratio %5.3fx%s\n",
                row.name, med, p90, row.floorName, floor, med / floor,
                row.timings.failed ? "  (FAILED)" : "");
    bench::Figure figure{
        std::string(row.name) + " (mcp) median", size, bench::format("%.1f ms", med),
        bench::format("%.1f ms %s", floor, row.floorName), bench::ratioText(med, floor)};
    if (row.limit > 0) {
      figure.target = bench::format("<= %.2fx", row.limit);
      figure.met = bench::metText(!row.timings.failed && med <= row.limit * floor);
    } else if (row.timings.failed) {
      figure.target = "answers";
      figure.met = bench::metText(false);
    }
    bench::report(figure);
  }
  std::printf(
      "  memory of the server between calls %8.1f MB, peak %8.1f MB; %4.2fx and %4.2fx the file\n",
      resident / 1e6, peak / 1e6, resident / bytes, peak / bytes);
  bench::report({"resident memory between calls (mcp, VmRSS)", size,
                 bench::format("%.0f MB", resident / 1e6),
                 bench::format("%.0f MB file", bytes / 1e6), bench::ratioText(resident, bytes)});
  bench::Figure memory{"peak memory (mcp, VmHWM)", size, bench::format("%.0f MB", peak / 1e6),
                       bench::format("%.0f MB file", bytes / 1e6), bench::ratioText(peak, bytes)};
  if (tabs == 50000) {
    memory.target = "<= 2.5x";
    memory.met = bench::metText(peak <= 2.5 * bytes);
  } else if (hundredThousand) {
    memory.target = "every tool answers";
    memory.met = bench::metText(answered);
  }
  bench::report(memory);
  return answered ? 0 : 1;
}
