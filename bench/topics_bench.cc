// topics_bench [TABS...]: TopicClusterer::cluster over a generated library with the tab vectors
// already cached (as after a sleep run) and the language model off, so that names come from
// keywords. Up to 400 tabs this is agglomerative clustering, above it k-means. Besides the whole
// run it times the clustering step alone on the same vectors, to show what naming, ordering and
// book-keeping add. Targets: 400 tabs under 100 ms, 5,000 tabs under 1 s.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <kestrova/topic_clusterer.h>

#include "bench_timer.h"
#include "library_generator.h"

namespace {

using namespace kestrova;
using Clock = std::chrono::steady_clock;

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

template <typename Work>
double median(int runs, Work work) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    work();
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return bench::median(std::move(times));
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::size_t> sizes = bench::sizesFromArguments(argc, argv, {400, 5000, 20000});
  const auto embedder = std::make_shared<Embedder>(false);
  const TopicClusterer clusterer(embedder);
  for (std::size_t tabs : sizes) {
    const LibraryData data = bench::generateLibrary(tabs);
    if (data.embedderKind != embedder->kind()) {
      std::fprintf(stderr, "generated kind %s differs from %s\n", data.embedderKind.c_str(),
                   embedder->kind().c_str());
      return 1;
    }
    const int runs = tabs >= 20000 ? 3 : (tabs >= 5000 ? 5 : 11);
    std::size_t topics = 0;
    const double whole = medianOnCopies(data, runs, [&](LibraryData& d) {
      clusterer.cluster(d, false);
      topics = d.topics.size();
    });

    std::vector<std::vector<float>> vectors;
    for (const SavedTab& tab : data.tabs) {
      vectors.push_back(data.embeddings.at(tab.id.string()));
    }
    const bool agglomerative = tabs <= TopicClusterer::agglomerativeLimit;
    const std::int64_t k = TopicClusterer::k(static_cast<std::int64_t>(tabs));
    std::size_t clusters = 0;
    const double step = median(runs, [&] {
      clusters = agglomerative ? clusterer.agglomerative(vectors, k).clusters.size()
                               : TopicClusterer::kMeans(vectors, k).size();
    });
    const double target = tabs <= 400 ? 100.0 : (tabs <= 5000 ? 1000.0 : 0.0);
    std::printf("%6zu tabs | cluster %9.2f ms", tabs, whole);
    if (target > 0) {
      std::printf(" (%3.0f%% of the %4.0f ms target)", 100.0 * whole / target, target);
    } else {
      std::printf("                             ");
    }
    std::printf(" | %s alone (k %2lld) %9.2f ms, %zu clusters | %zu topics\n",
                agglomerative ? "agglomerative" : "k-means      ", static_cast<long long>(k), step,
                clusters, topics);
    bench::Figure figure{"clustering (whole run)", bench::format("%zu tabs", tabs),
                         bench::format("%.1f ms", whole)};
    if (target > 0) {
      figure.target = bench::format("< %.0f ms", target);
      figure.met = bench::metText(whole < target);
    }
    bench::report(figure);
  }
  return 0;
}
