// hint_bench [TABS...]: one hint run over a generated library (5 projects of 30,000 characters,
// max 3), with the tab vectors cached in the document as after a sleep run, and with an empty
// cache. The floor is the work every run must do: embed the five project queries and take the
// cosine of each with every tab vector.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <kestrova/hint_engine.h>

#include "bench_timer.h"
#include "library_generator.h"

namespace {

using namespace kestrova;
using Clock = std::chrono::steady_clock;

std::vector<ProjectText> makeProjects() {
  const char* themes[] = {"Kompass Route Wanderung Karte Pass Hütte Proviant",
                          "Sauerteig Brot Mehl Backofen Teig Kruste Hefe",
                          "Datenbank Index Abfrage Transaktion Replikation Schema",
                          "Garten Tomaten Kompost Hochbeet Setzlinge Dünger",
                          "Velo Reparatur Kette Schaltung Bremse Reifen"};
  std::vector<ProjectText> projects;
  for (int p = 0; p < 5; ++p) {
    std::string text;
    while (text.size() < 30000) {
      text += themes[p];
      text += ". Notizen zum Projekt und offene Punkte für die nächste Woche. ";
    }
    projects.push_back({"projekt" + std::to_string(p), "/p/" + std::to_string(p), text});
  }
  return projects;
}

// Median milliseconds of `runs` calls of `work` on a fresh copy of `data` each (the copy is not
// timed).
template <typename Work>
double medianOnCopies(const LibraryData& data, int runs, Work work) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    LibraryData copy = data;
    const auto start = Clock::now();
    work(copy);
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return bench::median(std::move(times));
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::size_t> sizes = bench::sizesFromArguments(argc, argv, {1000, 10000});
  Embedder embedder(false);
  const std::vector<ProjectText> projects = makeProjects();
  HintEngine engine(embedder);
  for (std::size_t tabs : sizes) {
    const LibraryData data = bench::generateLibrary(tabs);
    if (data.embedderKind != embedder.kind()) {
      std::fprintf(stderr, "generated kind %s differs from %s\n", data.embedderKind.c_str(),
                   embedder.kind().c_str());
      return 1;
    }
    const int runs = tabs >= 10000 ? 5 : 11;
    std::size_t made = 0;
    const double warm = medianOnCopies(
        data, runs, [&](LibraryData& d) { made = engine.generateHints(d, projects, 3).size(); });
    LibraryData cold = data;
    cold.embeddings.clear();
    const double coldMs =
        medianOnCopies(cold, runs, [&](LibraryData& d) { engine.generateHints(d, projects, 3); });
    float sink = 0;
    const double floor = medianOnCopies(data, runs, [&](LibraryData& d) {
      for (const ProjectText& p : projects) {
        const std::vector<float> v = embedder.vector(HintEngine::query(p));
        for (const auto& [key, vector] : d.embeddings) {
          sink += Embedder::cosine(v, vector);
        }
      }
    });
    std::printf(
        "%6zu tabs | hints (cached vectors) %8.2f ms  floor %8.2f ms  ratio %4.2fx |"
        " empty cache %9.1f ms (%5.1fx the cached run) | %zu hints%s\n",
        tabs, warm, floor, warm / floor, coldMs, coldMs / warm, made, sink == 12345.0f ? " " : "");
  }
  return 0;
}
