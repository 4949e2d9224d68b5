#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/embedder.h>
#include <kestrova/topic_clusterer.h>

#include "topic_math.h"

namespace kestrova {
namespace {

using Vectors = std::vector<std::vector<float>>;
using Clusters = std::vector<TopicClusterer::Cluster>;

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

TEST(TopicClustererK, SquareRootOfHalfTheTabsBetweenTwoAndTwelve) {
  const std::vector<std::pair<std::int64_t, std::int64_t>> cases = {
      {-5, 2}, {8, 2}, {18, 3}, {24, 3}, {25, 4}, {50, 5}, {287, 12}, {1'000'000, 12}};
  for (const auto& [n, k] : cases) {
    EXPECT_EQ(TopicClusterer::k(n), k) << n;
  }
}

TEST(TopicClustererCentroid, SumScaledToUnitLengthOfTheFirstVectorsLength) {
  EXPECT_TRUE(TopicClusterer::centroid({}).empty());
  const std::vector<float> c = TopicClusterer::centroid({{3, 0}, {0, 3}});
  ASSERT_EQ(c.size(), 2u);
  EXPECT_FLOAT_EQ(c[0], std::sqrt(0.5f));
  EXPECT_FLOAT_EQ(c[1], std::sqrt(0.5f));
  EXPECT_EQ(TopicClusterer::centroid({{0, 0}, {0, 0}}), (std::vector<float>{0, 0}));
  EXPECT_EQ(TopicClusterer::centroid({{0, 2}, {5, 5, 5}}), (std::vector<float>{0, 1}));
}

TEST(TopicSimilarities, SameBitsAsEmbedderCosineWithAZeroDiagonal) {
  const Vectors vectors = {{1, 2, 3}, {2, 2, 3}, {0, 0, 0}, {1, 0}, {}, {-1, 2, 0.5f}};
  const topics::SimilarityMatrix m = topics::similarities(vectors);
  ASSERT_EQ(m.n, vectors.size());
  for (std::size_t i = 0; i < m.n; ++i) {
    for (std::size_t j = 0; j < m.n; ++j) {
      EXPECT_EQ(m.at(i, j), i == j ? 0.0f : Embedder::cosine(vectors[i], vectors[j])) << i << j;
    }
  }
}

TEST(TopicAgglomerative, AverageLinkageTiesOutliersAndFloorOnHandMadeMatrices) {
  using Case =
      std::tuple<topics::SimilarityMatrix, std::size_t, float, TopicClusterer::Agglomeration>;
  const std::vector<Case> cases = {
      // 2 is close to 0 (0.9) but far from 1: average 0.5 loses against 3 (0.6).
      {matrixOf(4, {0.95f, 0.9f, 0.0f, 0.1f, 0.0f, 0.6f}), 2, 0.02f, {{{0, 1}, {2, 3}}, {}}},
      // All equal: the first pair wins every time; members keep merge order.
      {matrixOf(4, {0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f}), 1, 0.02f, {{{0, 1, 2, 3}}, {}}},
      {matrixOf(4, {0.2f, 0.2f, 0.2f, 0.2f, 0.8f, 0.2f}), 3, 0.02f, {{{0}, {1, 3}, {2}}, {}}},
      {matrixOf(4, {0.2f, 0.2f, 0.2f, 0.2f, 0.8f, 0.2f}), 1, 0.02f, {{{0, 1, 3, 2}}, {}}},
      // 2 is an outlier (best 0.05 < 0.1); 3 joins {0, 1} at (0.03 + 0.12) / 2 = 0.075.
      {matrixOf(4, {0.9f, 0.05f, 0.03f, 0.0f, 0.12f, 0.0f}), 1, 0.02f, {{{0, 1, 3}}, {2}}},
      {matrixOf(4, {0.9f, 0.05f, 0.03f, 0.0f, 0.12f, 0.0f}), 1, 0.08f, {{{0, 1}, {3}}, {2}}},
  };
  for (const auto& [m, k, floor, expected] : cases) {
    EXPECT_EQ(topics::agglomerate(m, k, 0.1f, floor), expected) << k << floor;
  }
}

TEST(TopicAgglomerative, VectorsOfZerosOtherLengthsOrAloneAreOutliers) {
  const TopicClusterer c(std::make_shared<Embedder>(false));
  const Vectors vectors = {{1, 0, 0}, {0, 1, 0}, {0, 0, 0}, {0.9f, 0.1f, 0}, {0, 0.9f, 0.1f}};
  EXPECT_EQ(c.agglomerative(vectors, 2), (TopicClusterer::Agglomeration{{{0, 3}, {1, 4}}, {2}}));
  // Orthogonal groups never merge (0 is below the floor), and k = 0 counts as 1.
  EXPECT_EQ(c.agglomerative({{1, 0, 0}, {0, 1, 0}, {1, 0, 0}, {0, 1, 0}}, 0).clusters,
            (Clusters{{0, 2}, {1, 3}}));
  EXPECT_EQ(c.agglomerative({{1, 0, 0}, {1, 0, 0}, {0, 1, 0}}, 0).clusters, (Clusters{{0, 1}}));
  EXPECT_TRUE(c.agglomerative({}, 2).clusters.empty());
  EXPECT_EQ(c.agglomerative({{1, 0}}, 2).outliers, (std::vector<std::size_t>{0}));
  EXPECT_EQ(c.agglomerative({{1, 0}, {1, 0, 0}}, 1).outliers, (std::vector<std::size_t>{0, 1}));
}

TEST(TopicKMeans, FarthestPointSeedsTiesToTheFirstAndEmptyClustersDropped) {
  // Seeds: position 0, then the one least like it (4), then the one least like both (2).
  const Vectors vectors = {{1, 0.1f, 0}, {0.9f, 0, 0.1f}, {0, 1, 0}, {0, 0.1f, 1},
                           {0, 0, 1},    {0.1f, 1, 0},    {1, 0, 0}};
  const Vectors same(5, std::vector<float>{0.3f, 0.4f});
  const std::vector<std::tuple<Vectors, std::int64_t, Clusters>> cases = {
      {vectors, 3, {{0, 1, 6}, {3, 4}, {2, 5}}},
      {vectors, 1, {{0, 1, 2, 3, 4, 5, 6}}},
      {vectors, -3, {{0, 1, 2, 3, 4, 5, 6}}},
      {Vectors{}, 4, Clusters{}},
      {{{1, 0}, {0, 1}, {1, 1}}, 2, {{0, 2}, {1}}},   // (1, 1) is as near to both: the first
      {{{1, 0}, {0, -1}, {0, 1}}, 2, {{0, 2}, {1}}},  // seeding tie: the earliest position
      {same, 3, {{0, 1, 2, 3, 4}}},                   // identical seeds leave empty clusters
      {{{1, 0}, {0, 1}}, 12, {{0}, {1}}},             // more clusters than vectors
      {{{1, 0}, {0, 0}, {1, 0, 0}, {0.9f, 0.1f}, {0, 1}},
       2,
       {{0, 1, 2, 3, 4}}},  // mixed lengths and zeros
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto& [input, k, expected] = cases[i];
    EXPECT_EQ(TopicClusterer::kMeans(input, k), expected) << i;
    const auto clamped =
        std::clamp<std::int64_t>(k, 1, std::max<std::int64_t>(1, std::ssize(input)));
    EXPECT_EQ(topics::kMeansScalar(input, static_cast<std::size_t>(clamped)), expected) << i;
  }
}

TEST(TopicKMeans, FastPathMatchesPlainForm) {
  std::mt19937 random(5);
  std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
  Vectors centres(9, std::vector<float>(96));
  for (auto& centre : centres) {
    std::generate(centre.begin(), centre.end(), [&] { return uniform(random); });
  }
  Vectors vectors;
  for (std::size_t i = 0; i < 540; ++i) {
    vectors.push_back(centres[i % 9]);
    for (float& x : vectors.back()) {
      x += 1.2f * uniform(random);
    }
  }
  for (std::size_t k : {2u, 7u, 12u}) {
    EXPECT_EQ(topics::kMeans(vectors, k), topics::kMeansScalar(vectors, k)) << k;
  }
}

}  // namespace
}  // namespace kestrova
