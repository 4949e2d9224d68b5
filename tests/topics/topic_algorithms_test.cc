#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/embedder.h>
#include <kestrova/topic_clusterer.h>

#include "topic_math.h"

namespace kestrova {
namespace {

using Vectors = std::vector<std::vector<float>>;
using Clusters = std::vector<TopicClusterer::Cluster>;

// A small deterministic generator, so that the same "random" vectors come out everywhere.
class Lcg {
 public:
  explicit Lcg(std::uint64_t seed) : state_(seed) {}
  float next() {  // in [-1, 1)
    state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<float>(static_cast<double>(state_ >> 40) / double(1 << 23) - 1.0);
  }

 private:
  std::uint64_t state_;
};

// `perGroup` noisy copies of each of `groups` random directions in `dim` dimensions, interleaved
// so that the groups are not in order.
Vectors groupedVectors(std::size_t groups, std::size_t perGroup, std::size_t dim, float noise,
                       std::uint64_t seed) {
  Lcg random(seed);
  Vectors centres(groups, std::vector<float>(dim));
  for (auto& centre : centres) {
    for (float& x : centre) {
      x = random.next();
    }
  }
  Vectors out;
  for (std::size_t i = 0; i < groups * perGroup; ++i) {
    std::vector<float> v = centres[i % groups];
    for (float& x : v) {
      x += noise * random.next();
    }
    out.push_back(v);
  }
  return out;
}

TopicClusterer clusterer() {
  return TopicClusterer(std::make_shared<Embedder>(false));
}

// The merge loop exactly as it reads: a full scan for the best pair on every merge. The real one
// keeps per-row bests; both must give the same clusters.
TopicClusterer::Agglomeration naiveAgglomerate(const topics::SimilarityMatrix& matrix,
                                               std::size_t k, float outlierSimilarity,
                                               float mergeFloor) {
  const std::size_t n = matrix.n;
  std::vector<float> sim = matrix.values;
  Clusters members(n);
  std::vector<bool> active(n, true);
  TopicClusterer::Agglomeration out;
  for (std::size_t i = 0; i < n; ++i) {
    members[i] = {i};
  }
  for (std::size_t i = 0; i < n; ++i) {
    float largest = -INFINITY;
    for (std::size_t j = 0; j < n; ++j) {
      if (j != i) {
        largest = std::max(largest, sim[i * n + j]);
      }
    }
    if (largest < outlierSimilarity) {
      active[i] = false;
      members[i].clear();
      out.outliers.push_back(i);
    }
  }
  auto count = [&] {
    return static_cast<std::size_t>(std::count(active.begin(), active.end(), true));
  };
  while (count() > k) {
    bool found = false;
    std::size_t a = 0;
    std::size_t b = 0;
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = i + 1; j < n; ++j) {
        if (active[i] && active[j] && (!found || sim[i * n + j] > sim[a * n + b])) {
          found = true;
          a = i;
          b = j;
        }
      }
    }
    if (!found || sim[a * n + b] < mergeFloor) {
      break;
    }
    const float sa = static_cast<float>(members[a].size());
    const float sb = static_cast<float>(members[b].size());
    for (std::size_t x = 0; x < n; ++x) {
      if (active[x] && x != a && x != b) {
        const float v = (sim[a * n + x] * sa + sim[b * n + x] * sb) / (sa + sb);
        sim[a * n + x] = v;
        sim[x * n + a] = v;
      }
    }
    members[a].insert(members[a].end(), members[b].begin(), members[b].end());
    members[b].clear();
    active[b] = false;
  }
  for (auto& m : members) {
    if (!m.empty()) {
      out.clusters.push_back(m);
    }
  }
  return out;
}

// A matrix written by hand (symmetric; only the upper triangle is given).
topics::SimilarityMatrix matrixOf(std::size_t n, std::initializer_list<float> upper) {
  topics::SimilarityMatrix m{n, std::vector<float>(n * n, 0.0f)};
  auto value = upper.begin();
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t j = i + 1; j < n; ++j) {
      m.values[i * n + j] = m.values[j * n + i] = *value++;
    }
  }
  return m;
}

TEST(TopicClustererK, FollowsSquareRootOfHalfTheTabs) {
  EXPECT_EQ(TopicClusterer::k(-5), 2);
  EXPECT_EQ(TopicClusterer::k(0), 2);
  EXPECT_EQ(TopicClusterer::k(8), 2);
  EXPECT_EQ(TopicClusterer::k(18), 3);  // sqrt(9)
  EXPECT_EQ(TopicClusterer::k(24), 3);  // sqrt(12) = 3.46
  EXPECT_EQ(TopicClusterer::k(25), 4);  // sqrt(12.5) = 3.54
  EXPECT_EQ(TopicClusterer::k(50), 5);
  EXPECT_EQ(TopicClusterer::k(287), 12);  // 11.98
  EXPECT_EQ(TopicClusterer::k(288), 12);
  EXPECT_EQ(TopicClusterer::k(1'000'000), 12);
}

TEST(TopicClustererCentroid, SumScaledToUnitLength) {
  EXPECT_TRUE(TopicClusterer::centroid({}).empty());
  const std::vector<float> c = TopicClusterer::centroid({{3, 0}, {0, 3}});
  ASSERT_EQ(c.size(), 2u);
  EXPECT_FLOAT_EQ(c[0], std::sqrt(0.5f));
  EXPECT_FLOAT_EQ(c[1], std::sqrt(0.5f));
  // Zero vectors stay zero; a vector of another length cannot pull the centroid.
  EXPECT_EQ(TopicClusterer::centroid({{0, 0}, {0, 0}}), (std::vector<float>{0, 0}));
  EXPECT_EQ(TopicClusterer::centroid({{0, 2}, {5, 5, 5}}), (std::vector<float>{0, 1}));
}

TEST(TopicSimilarities, SameBitsAsEmbedderCosine) {
  Vectors vectors = groupedVectors(4, 10, 37, 0.8f, 7);
  vectors.push_back(std::vector<float>(37, 0.0f));  // zero vector
  vectors.push_back({1, 2, 3});                     // another length
  vectors.push_back({2, 2, 3});
  vectors.push_back({});
  const topics::SimilarityMatrix m = topics::similarities(vectors);
  ASSERT_EQ(m.n, vectors.size());
  for (std::size_t i = 0; i < m.n; ++i) {
    for (std::size_t j = 0; j < m.n; ++j) {
      const float expected = i == j ? 0.0f : Embedder::cosine(vectors[i], vectors[j]);
      ASSERT_EQ(m.at(i, j), expected) << i << "," << j;
    }
  }
  EXPECT_GT(m.at(41, 42), 0.9f);
}

TEST(TopicAgglomerative, AverageLinkageNotSingleLinkage) {
  // 0 and 1 merge first. Then 2 is close to 0 (0.9) but far from 1 (0.1): average 0.5, which
  // loses against 3 (0.6). Single linkage would have joined 2 to {0, 1}.
  const auto m = matrixOf(4, {0.95f, 0.9f, 0.0f,  // 0-1, 0-2, 0-3
                              0.1f, 0.0f,         // 1-2, 1-3
                              0.6f});             // 2-3
  const auto result = topics::agglomerate(m, 2, 0.1f, 0.02f);
  EXPECT_EQ(result.clusters, (Clusters{{0, 1}, {2, 3}}));
  EXPECT_TRUE(result.outliers.empty());
  EXPECT_EQ(result, naiveAgglomerate(m, 2, 0.1f, 0.02f));
}

TEST(TopicAgglomerative, TiesGoToTheFirstPairAndMembersKeepMergeOrder) {
  // Every pair equally similar: (0,1) merges, then ({0,1},2), and so on.
  const auto m = matrixOf(4, {0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f});
  EXPECT_EQ(topics::agglomerate(m, 1, 0.1f, 0.02f).clusters, (Clusters{{0, 1, 2, 3}}));
  // 1-3 is the best pair; then {0} takes {1, 3} (first pair of the tie), then {2}.
  const auto m2 = matrixOf(4, {0.2f, 0.2f, 0.2f, 0.2f, 0.8f, 0.2f});
  EXPECT_EQ(topics::agglomerate(m2, 3, 0.1f, 0.02f).clusters, (Clusters{{0}, {1, 3}, {2}}));
  EXPECT_EQ(topics::agglomerate(m2, 1, 0.1f, 0.02f).clusters, (Clusters{{0, 1, 3, 2}}));
}

TEST(TopicAgglomerative, OutliersAndMergeFloor) {
  // 2 is nowhere near anything (best 0.05 < 0.1): an outlier from the start. 0-1 merge; 3 joins
  // them only while the average stays at or above the floor.
  const auto m = matrixOf(4, {0.9f, 0.05f, 0.03f,  // 0-1, 0-2, 0-3
                              0.0f, 0.12f,         // 1-2, 1-3
                              0.0f});              // 2-3
  auto result = topics::agglomerate(m, 1, 0.1f, 0.02f);
  EXPECT_EQ(result.outliers, (std::vector<std::size_t>{2}));
  EXPECT_EQ(result.clusters, (Clusters{{0, 1, 3}}));  // (0.03 + 0.12) / 2 = 0.075
  result = topics::agglomerate(m, 1, 0.1f, 0.08f);
  EXPECT_EQ(result.clusters, (Clusters{{0, 1}, {3}}));
}

TEST(TopicAgglomerative, MatchesTheFullScanOnManyVectors) {
  const auto c = clusterer();
  for (std::uint64_t seed = 1; seed <= 6; ++seed) {
    Vectors vectors = groupedVectors(5 + seed, 12, 64, 0.9f, seed);
    Vectors units;
    for (const auto& v : vectors) {
      units.push_back(Embedder::normalized(v));
    }
    const auto matrix = topics::similarities(units);
    for (std::size_t k : {1u, 3u, 8u, 20u}) {
      const auto fast = c.agglomerative(vectors, static_cast<std::int64_t>(k));
      ASSERT_EQ(fast, naiveAgglomerate(matrix, k, c.outlierSimilarity, c.mergeFloor))
          << "seed " << seed << " k " << k;
    }
  }
}

TEST(TopicAgglomerative, MatchesTheFullScanWhenValuesTie) {
  // Similarities from a handful of values, so that equal pairs and equal averages abound.
  const float levels[] = {0.0f, 0.05f, 0.25f, 0.5f, 0.75f};
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    Lcg random(seed);
    const std::size_t n = 40;
    topics::SimilarityMatrix m{n, std::vector<float>(n * n, 0.0f)};
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = i + 1; j < n; ++j) {
        const auto level = static_cast<std::size_t>((random.next() + 1.0f) * 2.5f) % 5;
        m.values[i * n + j] = m.values[j * n + i] = levels[level];
      }
    }
    for (std::size_t k : {1u, 4u, 12u}) {
      ASSERT_EQ(topics::agglomerate(m, k, 0.1f, 0.02f), naiveAgglomerate(m, k, 0.1f, 0.02f))
          << "seed " << seed << " k " << k;
    }
  }
}

TEST(TopicAgglomerative, SeparatedGroupsAndBadInput) {
  const auto c = clusterer();
  // Three orthogonal pairs and one vector of zeros.
  const Vectors vectors = {{1, 0, 0},       {0, 1, 0},       {0, 0, 1},      {0, 0, 0},
                           {0.9f, 0.1f, 0}, {0, 0.9f, 0.1f}, {0.1f, 0, 0.9f}};
  const auto result = c.agglomerative(vectors, 3);
  EXPECT_EQ(result.clusters, (Clusters{{0, 4}, {1, 5}, {2, 6}}));
  EXPECT_EQ(result.outliers, (std::vector<std::size_t>{3}));
  // Orthogonal groups never merge (similarity 0 is below the floor), whatever k asks for.
  EXPECT_EQ(c.agglomerative({{1, 0, 0}, {0, 1, 0}, {1, 0, 0}, {0, 1, 0}}, 0).clusters,
            (Clusters{{0, 2}, {1, 3}}));
  EXPECT_TRUE(c.agglomerative({}, 2).clusters.empty());
  EXPECT_EQ(c.agglomerative({{1, 0}}, 2).outliers, (std::vector<std::size_t>{0}));
  // Different lengths are different spaces: no similarity at all.
  EXPECT_EQ(c.agglomerative({{1, 0}, {1, 0, 0}}, 1).outliers, (std::vector<std::size_t>{0, 1}));
}

TEST(TopicKMeans, SeparatedGroupsWithFarthestPointSeeds) {
  // Seeds: position 0, then the vector least like it (position 4, cosine 0), then the one least
  // like both (position 2, cosine 0.1 to position 0). Clusters come in seed order.
  const Vectors vectors = {{1, 0.1f, 0}, {0.9f, 0, 0.1f}, {0, 1, 0}, {0, 0.1f, 1},
                           {0, 0, 1},    {0.1f, 1, 0},    {1, 0, 0}};
  EXPECT_EQ(TopicClusterer::kMeans(vectors, 3), (Clusters{{0, 1, 6}, {3, 4}, {2, 5}}));
  EXPECT_EQ(TopicClusterer::kMeans(vectors, 1), (Clusters{{0, 1, 2, 3, 4, 5, 6}}));
  EXPECT_EQ(TopicClusterer::kMeans(vectors, -3), TopicClusterer::kMeans(vectors, 1));
  EXPECT_TRUE(TopicClusterer::kMeans({}, 4).empty());
}

TEST(TopicKMeans, TiesGoToTheLowerCentroid) {
  // (1, 1) is exactly as close to seed (1, 0) as to seed (0, 1): it joins the first.
  const Vectors vectors = {{1, 0}, {0, 1}, {1, 1}};
  EXPECT_EQ(TopicClusterer::kMeans(vectors, 2), (Clusters{{0, 2}, {1}}));
  EXPECT_EQ(topics::kMeansScalar(vectors, 2), (Clusters{{0, 2}, {1}}));
  // Seeding ties go to the earliest position: (0, 1) and (0, -1) are equally far from (1, 0).
  EXPECT_EQ(TopicClusterer::kMeans({{1, 0}, {0, -1}, {0, 1}}, 2), (Clusters{{0, 2}, {1}}));
}

TEST(TopicKMeans, EmptyClustersAreDropped) {
  // Identical vectors: every seed is the same, and ties go to centroid 0.
  const Vectors same(5, std::vector<float>{0.3f, 0.4f});
  EXPECT_EQ(TopicClusterer::kMeans(same, 3), (Clusters{{0, 1, 2, 3, 4}}));
  // More clusters than vectors asked for.
  EXPECT_EQ(TopicClusterer::kMeans({{1, 0}, {0, 1}}, 12), (Clusters{{0}, {1}}));
}

TEST(TopicKMeans, FastPathMatchesPlainForm) {
  for (std::uint64_t seed = 1; seed <= 5; ++seed) {
    const Vectors vectors = groupedVectors(9, 60, 96, 1.2f, seed);
    for (std::size_t k : {2u, 7u, 12u}) {
      const Clusters fast = topics::kMeans(vectors, k);
      ASSERT_EQ(fast, topics::kMeansScalar(vectors, k)) << "seed " << seed << " k " << k;
      std::size_t total = 0;
      for (const auto& c : fast) {
        EXPECT_TRUE(std::is_sorted(c.begin(), c.end()));
        total += c.size();
      }
      EXPECT_EQ(total, vectors.size());
    }
  }
}

TEST(TopicKMeans, MixedLengthsAndZeroVectorsDoNotBreakIt) {
  const Vectors vectors = {{1, 0}, {0, 0}, {1, 0, 0}, {0.9f, 0.1f}, {0, 1}, {0, 0, 1}};
  const Clusters clusters = TopicClusterer::kMeans(vectors, 3);
  std::size_t total = 0;
  for (const auto& c : clusters) {
    total += c.size();
  }
  EXPECT_EQ(total, vectors.size());
  EXPECT_EQ(clusters, TopicClusterer::kMeans(vectors, 3));
}

}  // namespace
}  // namespace kestrova
