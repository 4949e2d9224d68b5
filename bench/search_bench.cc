// search_bench [TABS...]: one search_tabs call through a running `kestrova-cli mcp` (which loads
// the library for every call) against `load` alone and the search alone on a library already in
// memory, all in one run, on generated libraries (default 1000 and 10000 tabs).
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <stdlib.h>

#include <kestrova/embedder.h>
#include <kestrova/search_index.h>
#include <kestrova/store.h>

#include "bench_timer.h"
#include "library_generator.h"
#include "support/mcp_process.h"

namespace {

using namespace kestrova;

// Themed words, a question with stop words, a common word and a word no tab holds (which makes
// every tab's text be read).
const std::vector<std::string> kQueries = {"Risotto Rezept", "Höhenmeter Gotthard Pass",
                                           "wie plane ich eine Velotour über den Furka", "Training",
                                           "Zebrafischlarven"};

std::string callLine(int id, const std::string& query) {
  return nlohmann::json{{"jsonrpc", "2.0"},
                        {"id", id},
                        {"method", "tools/call"},
                        {"params", {{"name", "search_tabs"}, {"arguments", {{"query", query}}}}}}
      .dump();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void measure(std::size_t tabs, const std::filesystem::path& folder) {
  const std::filesystem::path file = folder / ("library-" + std::to_string(tabs) + ".json");
  {
    const LibraryData generated = bench::generateLibrary(tabs);
    LibraryStore(file).save(generated);
  }
  const LibraryStore store(file);
  const int runs = tabs >= 10000 ? 5 : 11;

  const double load = bench::medianMs(runs, [&] {
    if (store.load().tabs.size() != tabs) {
      std::abort();
    }
  });

  const LibraryData data = store.load();
  const SearchIndex index(std::make_shared<Embedder>(true));
  std::vector<double> searchPerQuery;
  std::size_t hits = 0;
  for (const std::string& query : kQueries) {
    searchPerQuery.push_back(
        bench::medianMs(runs, [&] { hits += index.hits(query, data, 10).size(); }));
  }

  testing::McpProcess server(KESTROVA_CLI_PATH, {"mcp", "--library", file.string()});
  int id = 0;
  if (server.request(callLine(++id, "warm up")).empty()) {
    std::fprintf(stderr, "the server did not answer\n");
    std::abort();
  }
  std::vector<double> callPerQuery;
  for (const std::string& query : kQueries) {
    callPerQuery.push_back(bench::medianMs(runs, [&] {
      if (server.request(callLine(++id, query)).empty()) {
        std::abort();
      }
    }));
  }

  const double search = median(searchPerQuery);
  const double call = median(callPerQuery);
  std::printf(
      "%7zu tabs | load %7.1f ms | search %7.1f ms  %4.2fx load | call %7.1f ms  %4.2fx load\n",
      tabs, load, search, search / load, call, call / load);
  for (std::size_t i = 0; i < kQueries.size(); ++i) {
    std::printf("        %-45s search %7.1f ms  call %7.1f ms\n", kQueries[i].c_str(),
                searchPerQuery[i], callPerQuery[i]);
  }
  if (hits == 0) {
    std::printf("        (no query found anything)\n");
  }
  std::filesystem::remove(file);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::size_t> sizes = bench::sizesFromArguments(argc, argv, {1000, 10000});
  std::string pattern = (std::filesystem::temp_directory_path() / "kestrova-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    return 1;
  }
  std::printf(
      "search_tabs: median of one call through kestrova-cli mcp (load included), of load\n"
      "alone and of the search alone on a library in memory; medians over %zu queries\n",
      kQueries.size());
  for (std::size_t tabs : sizes) {
    measure(tabs, pattern);
  }
  std::filesystem::remove_all(pattern);
  return 0;
}
