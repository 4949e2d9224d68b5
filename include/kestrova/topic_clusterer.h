// TopicClusterer: groups all saved tabs of a library into topics and names them. It compares the
// tabs' cached vectors (see Embedder), chooses a number of topics from the number of tabs, clusters
// with average-linkage agglomerative clustering (up to 400 tabs) or k-means (above 400), sends tabs
// that fit no topic well to one unsorted topic "Ohne klares Thema", names every other topic (by the
// language model when it may be used, else from keywords and domains) and colours it from
// TopicPalette.
//
// Everything is deterministic: the same tabs give the same topics, names, colours and order
// whatever the order of the tabs in the library; only the topic ids are new random UUIDs on every
// run. The vector maths is done in 32-bit floats exactly as Embedder::cosine does it.
//
// Thread-safety: a TopicClusterer is a plain value; its functions only read its fields and may be
// called from several threads at once (each with its own LibraryData). Model requests are
// serialised process-wide through AIEngine::gate().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/embedder.h>
#include <kestrova/env.h>
#include <kestrova/models.h>

namespace kestrova {

class TopicClusterer {
 public:
  // Positions of tabs (or vectors) in the order the clusterer works in.
  using Cluster = std::vector<std::size_t>;

  // Result of agglomerative(): the clusters, and the positions that were outliers from the start.
  struct Agglomeration {
    std::vector<Cluster> clusters;
    std::vector<std::size_t> outliers;  // ascending

    friend bool operator==(const Agglomeration&, const Agglomeration&) = default;
  };

  // Name and colour of the topic of tabs that fit no other topic.
  static constexpr std::string_view unsortedName = "Ohne klares Thema";
  // The time a topic-name request may take once the model gate is held.
  static constexpr double defaultNameTimeLimitSeconds = 30;
  // Up to this many tabs, all tabs form one cluster; above agglomerativeLimit, k-means is used.
  static constexpr std::size_t singleClusterLimit = 3;
  static constexpr std::size_t agglomerativeLimit = 400;
  // Longest name (in characters) accepted from the model, and how many tabs it is shown.
  static constexpr std::size_t maxModelNameLength = 40;
  static constexpr std::size_t modelTabLimit = 12;

  // Shared with the caller. Never null (a null embedder given to the constructor is replaced by
  // one of Kestrova's own with semantic vectors allowed).
  std::shared_ptr<Embedder> embedder;
  // A member whose cosine to its cluster's centroid is below this leaves the cluster.
  float minSimilarity = 0.12f;
  // A tab whose best cosine to any other tab is below this is an outlier from the start.
  float outlierSimilarity = 0.1f;
  // Agglomerative merging stops when the best average similarity falls below this.
  float mergeFloor = 0.02f;
  // The time each topic-name request of cluster() may take once the model gate is held.
  double nameTimeLimitSeconds = defaultNameTimeLimitSeconds;

  // Names topics with env's language model; `env` must outlive the clusterer. A null embedder is
  // replaced by one over `env`.
  explicit TopicClusterer(std::shared_ptr<Embedder> embedder, Env& env = Env::real());

  // Rebuilds all topics of `data`: makes sure every tab has a cached vector of the embedder's kind
  // (Embedder::ensureEmbeddings), clusters, prunes, orders the topics by size and names them,
  // replaces data.topics, sets every tab's topicId to the topic that lists it and data.topicsByAI
  // to whether the model named them. The model is asked only when `useAI` is true and
  // AIStatus::isAvailable(env); a model that fails or is late leaves that topic to fallbackName().
  // A stop request through `stop` abandons model requests (names then come from fallbackName()).
  // Never fails; an empty library gets no topics and keeps its topicsByAI. The caller saves `data`.
  void cluster(LibraryData& data, bool useAI, std::stop_token stop = {}) const;

  // The number of topics aimed at for `n` tabs: round(sqrt(n / 2)), at least 2 and at most 12.
  static std::int64_t k(std::int64_t n);

  // K-means over the unit-length forms of `vectors` with deterministic farthest-point seeding and
  // at most 25 passes. Returns, per centroid in seeding order, the positions assigned to it in
  // ascending order; empty clusters are left out. A `k` below 1 counts as 1 and one above the
  // number of vectors as that number. No vectors give no clusters.
  static std::vector<Cluster> kMeans(const std::vector<std::vector<float>>& vectors,
                                     std::int64_t k);

  // Average-linkage agglomerative clustering of `vectors` down to `k` clusters (a `k` below 1
  // counts as 1), stopping early when the best average similarity falls below mergeFloor.
  // Vectors whose best cosine to any other is below outlierSimilarity are outliers from the start.
  // Clusters come in the order of their first position; members in merge order. Keeps an n x n
  // matrix: meant for a few hundred vectors.
  Agglomeration agglomerative(const std::vector<std::vector<float>>& vectors, std::int64_t k) const;

  // The element-wise sum of `vectors`, scaled to unit length. It has the length of the first
  // vector; vectors of another length belong to another vector space and are left out. No vectors
  // give an empty vector.
  static std::vector<float> centroid(const std::vector<std::vector<float>>& vectors);

  // Asks env's language model for a short name of the topic made of `tabs` (the first 12 are
  // shown), waiting for AIEngine::gate() and then at most `seconds`. Quotes, guillemets, full
  // stops, spaces and line breaks are trimmed from the answer. No value when the model gives no
  // answer in time, fails, is unavailable, `stop` is requested, or the cleaned name is empty or
  // longer than 40 characters. Does not look at AIStatus: cluster() decides whether to ask.
  static std::optional<std::string> nameWithModel(const std::vector<SavedTab>& tabs,
                                                  std::stop_token stop = {},
                                                  double seconds = defaultNameTimeLimitSeconds,
                                                  Env& env = Env::real());

  // The deterministic name of the topic made of `tabs`: its two best keywords joined by " & "
  // (words of titles and tags weigh three times, words found in only one tab's text are ignored);
  // with one keyword, that keyword and the most frequent domain joined by " · "; with none, the
  // two most frequent domains joined by " · ". "Unbenanntes Thema" when even that is empty.
  static std::string fallbackName(const std::vector<SavedTab>& tabs);

 private:
  Env* env_;
};

}  // namespace kestrova
