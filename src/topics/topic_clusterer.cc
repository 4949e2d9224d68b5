#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include <kestrova/ai.h>
#include <kestrova/topic_clusterer.h>

#include "topic_math.h"
#include "topic_naming.h"

namespace kestrova {
namespace {

// How often the number of clusters may be raised to make up for clusters of one tab.
constexpr int kSingletonRetries = 6;
constexpr std::int64_t kMinTopics = 2;
constexpr std::int64_t kMaxTopics = 12;

std::size_t clampedK(std::int64_t k, std::size_t n) {
  if (k < 1) {
    return 1;
  }
  return std::min(static_cast<std::size_t>(k), std::max<std::size_t>(n, 1));
}

std::vector<std::vector<float>> unitVectors(const std::vector<std::vector<float>>& vectors) {
  std::vector<std::vector<float>> units;
  units.reserve(vectors.size());
  for (const std::vector<float>& v : vectors) {
    units.push_back(Embedder::normalized(v));
  }
  return units;
}

// Positions 0..n-1 of data.tabs in the order clustering works in: by url, then title, then id
// text. This makes the result independent of the order of the tabs in the library.
std::vector<std::size_t> workingOrder(const LibraryData& data) {
  std::vector<std::string> ids;
  ids.reserve(data.tabs.size());
  for (const SavedTab& tab : data.tabs) {
    ids.push_back(tab.id.string());
  }
  std::vector<std::size_t> order(data.tabs.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    const SavedTab& x = data.tabs[a];
    const SavedTab& y = data.tabs[b];
    if (x.url != y.url) {
      return x.url < y.url;
    }
    if (x.title != y.title) {
      return x.title < y.title;
    }
    return ids[a] < ids[b];
  });
  return order;
}

// A vector with an element that is not a finite number (possible only in a damaged document)
// cannot be compared with anything; it counts as the zero vector.
std::vector<float> finiteOrZero(std::vector<float> v) {
  if (!std::all_of(v.begin(), v.end(), [](float x) { return std::isfinite(x); })) {
    std::fill(v.begin(), v.end(), 0.0f);
  }
  return v;
}

// Agglomerative clustering with the correction for clusters of one tab: when too few clusters of
// two or more came out, the run is repeated aiming at more clusters, so that the singletons do not
// eat up the topics. The similarity matrix is built once for all runs.
TopicClusterer::Agglomeration agglomerativeWithCorrection(
    const TopicClusterer& clusterer, const std::vector<std::vector<float>>& vectors) {
  const topics::SimilarityMatrix matrix = topics::similarities(unitVectors(vectors));
  const auto run = [&](std::int64_t k) {
    return topics::agglomerate(matrix, clampedK(k, vectors.size()), clusterer.outlierSimilarity,
                               clusterer.mergeFloor);
  };
  const std::int64_t k0 = TopicClusterer::k(static_cast<std::int64_t>(vectors.size()));
  std::int64_t lastK = k0;
  TopicClusterer::Agglomeration result = run(k0);
  for (int retry = 0; retry < kSingletonRetries; ++retry) {
    std::int64_t singles = 0;
    std::int64_t groups = 0;
    for (const TopicClusterer::Cluster& c : result.clusters) {
      (c.size() < 2 ? singles : groups) += 1;
    }
    if (singles == 0 || groups >= k0) {
      break;
    }
    const std::int64_t k = k0 + singles;
    if (k <= lastK) {
      break;
    }
    result = run(k);
    lastK = k;
  }
  return result;
}

// Drops members that lie too far from their cluster's centroid, and clusters left with fewer than
// two members, into `outliers`.
std::vector<TopicClusterer::Cluster> pruned(const std::vector<std::vector<float>>& vectors,
                                            std::vector<TopicClusterer::Cluster> clusters,
                                            float minSimilarity,
                                            std::vector<std::size_t>& outliers) {
  std::vector<TopicClusterer::Cluster> kept;
  for (TopicClusterer::Cluster& members : clusters) {
    if (members.size() < 2) {
      outliers.insert(outliers.end(), members.begin(), members.end());
      continue;
    }
    const std::vector<float> centre = topics::centroidAt(vectors, members);
    TopicClusterer::Cluster staying;
    for (std::size_t p : members) {
      if (Embedder::cosine(vectors[p], centre) >= minSimilarity) {
        staying.push_back(p);
      } else {
        outliers.push_back(p);
      }
    }
    if (staying.size() < 2) {
      outliers.insert(outliers.end(), staying.begin(), staying.end());
    } else {
      kept.push_back(std::move(staying));
    }
  }
  // Largest first; equal sizes by their first member's position.
  std::stable_sort(kept.begin(), kept.end(),
                   [](const TopicClusterer::Cluster& a, const TopicClusterer::Cluster& b) {
                     return a.size() != b.size() ? a.size() > b.size() : a.front() < b.front();
                   });
  return kept;
}

}  // namespace

TopicClusterer::TopicClusterer(std::shared_ptr<Embedder> embedder_, Env& env)
    : embedder(embedder_ ? std::move(embedder_) : std::make_shared<Embedder>(true, env)),
      env_(&env) {}

std::int64_t TopicClusterer::k(std::int64_t n) {
  const double wanted = n > 0 ? std::round(std::sqrt(static_cast<double>(n) * 0.5)) : 0.0;
  return std::clamp(static_cast<std::int64_t>(wanted), kMinTopics, kMaxTopics);
}

std::vector<float> TopicClusterer::centroid(const std::vector<std::vector<float>>& vectors) {
  std::vector<std::size_t> positions(vectors.size());
  std::iota(positions.begin(), positions.end(), std::size_t{0});
  return topics::centroidAt(vectors, positions);
}

std::vector<TopicClusterer::Cluster> TopicClusterer::kMeans(
    const std::vector<std::vector<float>>& vectors, std::int64_t k) {
  return topics::kMeans(vectors, clampedK(k, vectors.size()));
}

TopicClusterer::Agglomeration TopicClusterer::agglomerative(
    const std::vector<std::vector<float>>& vectors, std::int64_t k) const {
  return topics::agglomerate(topics::similarities(unitVectors(vectors)),
                             clampedK(k, vectors.size()), outlierSimilarity, mergeFloor);
}

void TopicClusterer::cluster(LibraryData& data, bool useAI, std::stop_token stop) const {
  embedder->ensureEmbeddings(data);
  const std::size_t n = data.tabs.size();
  if (n == 0) {
    // No topic was named, so there is nothing for topicsByAI to describe anew: it keeps the value
    // it had.
    data.topics.clear();
    return;
  }

  const std::vector<std::size_t> order = workingOrder(data);
  std::vector<std::vector<float>> vectors;
  vectors.reserve(n);
  for (std::size_t position : order) {
    const SavedTab& tab = data.tabs[position];
    const auto cached = data.embeddings.find(tab.id.string());
    vectors.push_back(finiteOrZero(
        cached != data.embeddings.end() ? cached->second : embedder->vector(tab.searchableText())));
  }

  std::vector<Cluster> clusters;
  std::vector<std::size_t> outliers;
  if (n <= singleClusterLimit) {
    Cluster all(n);
    std::iota(all.begin(), all.end(), std::size_t{0});
    clusters.push_back(std::move(all));
  } else if (n > agglomerativeLimit) {
    clusters = kMeans(vectors, k(static_cast<std::int64_t>(n)));
  } else {
    Agglomeration result = agglomerativeWithCorrection(*this, vectors);
    clusters = std::move(result.clusters);
    outliers = std::move(result.outliers);
  }
  clusters = pruned(vectors, std::move(clusters), minSimilarity, outliers);

  const bool useModel = useAI && AIStatus::isAvailable(*env_);
  std::vector<Topic> topicList;
  topicList.reserve(clusters.size() + 1);
  std::vector<const SavedTab*> members;
  for (std::size_t i = 0; i < clusters.size(); ++i) {
    members.clear();
    Topic topic;
    for (std::size_t p : clusters[i]) {
      members.push_back(&data.tabs[order[p]]);
      topic.tabIds.push_back(data.tabs[order[p]].id);
    }
    std::optional<std::string> name;
    if (useModel) {
      name = topics::nameWithModel(members, stop, nameTimeLimitSeconds, *env_);
    }
    topic.name = name ? std::move(*name) : topics::fallbackName(members);
    topic.color = TopicPalette::colors[i % TopicPalette::colors.size()];
    topic.id = Uuid::random();
    topicList.push_back(std::move(topic));
  }
  if (!outliers.empty()) {
    Topic unsorted;
    unsorted.name = std::string(unsortedName);
    unsorted.color = TopicPalette::unsorted;
    unsorted.id = Uuid::random();
    unsorted.isUnsorted = true;
    for (std::size_t p : outliers) {
      unsorted.tabIds.push_back(data.tabs[order[p]].id);
    }
    clusters.push_back(std::move(outliers));
    topicList.push_back(std::move(unsorted));
  }

  // Each working position is listed exactly once, so this gives every tab its topic and clears
  // whatever stale value it had.
  for (SavedTab& tab : data.tabs) {
    tab.topicId.reset();
  }
  for (std::size_t t = 0; t < clusters.size(); ++t) {
    for (std::size_t p : clusters[t]) {
      data.tabs[order[p]].topicId = topicList[t].id;
    }
  }
  data.topics = std::move(topicList);
  data.topicsByAI = useModel;
}

}  // namespace kestrova
