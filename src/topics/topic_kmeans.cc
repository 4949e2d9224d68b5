#include <cmath>
#include <cstddef>
#include <vector>

#include <kestrova/embedder.h>

#include "topic_math.h"

namespace kestrova::topics {
namespace {

constexpr int kMaxPasses = 25;

float safeCosine(const std::vector<float>& a, const std::vector<float>& b) {
  const float value = Embedder::cosine(a, b);
  return std::isnan(value) ? 0.0f : value;
}

std::vector<std::vector<float>> unitVectors(std::span<const std::vector<float>> vectors) {
  std::vector<std::vector<float>> units;
  units.reserve(vectors.size());
  for (const std::vector<float>& v : vectors) {
    units.push_back(Embedder::normalized(v));
  }
  return units;
}

// The position whose largest cosine to the centroids so far is smallest; the earliest on a tie.
std::size_t farthest(const std::vector<float>& largestCosine) {
  std::size_t pick = 0;
  for (std::size_t i = 1; i < largestCosine.size(); ++i) {
    if (largestCosine[i] < largestCosine[pick]) {
      pick = i;
    }
  }
  return pick;
}

std::vector<TopicClusterer::Cluster> collect(const std::vector<std::size_t>& assignment,
                                             std::size_t k) {
  std::vector<TopicClusterer::Cluster> clusters(k);
  for (std::size_t i = 0; i < assignment.size(); ++i) {
    clusters[assignment[i]].push_back(i);
  }
  std::erase_if(clusters, [](const TopicClusterer::Cluster& c) { return c.empty(); });
  return clusters;
}

// Replaces the centroid of every cluster that has members by the centroid of its members; a
// cluster without members keeps its centroid.
void updateCentroids(const std::vector<std::vector<float>>& units,
                     const std::vector<std::size_t>& assignment,
                     std::vector<std::vector<float>>& centroids) {
  std::vector<std::vector<std::size_t>> positions(centroids.size());
  for (std::size_t i = 0; i < assignment.size(); ++i) {
    positions[assignment[i]].push_back(i);
  }
  for (std::size_t c = 0; c < centroids.size(); ++c) {
    if (!positions[c].empty()) {
      centroids[c] = centroidAt(units, positions[c]);
    }
  }
}

}  // namespace

std::vector<TopicClusterer::Cluster> kMeansScalar(std::span<const std::vector<float>> vectors,
                                                  std::size_t k) {
  const std::size_t n = vectors.size();
  if (n == 0) {
    return {};
  }
  const std::vector<std::vector<float>> units = unitVectors(vectors);

  std::vector<std::vector<float>> centroids{units[0]};
  std::vector<float> largest(n);
  for (std::size_t i = 0; i < n; ++i) {
    largest[i] = safeCosine(units[i], centroids[0]);
  }
  while (centroids.size() < k) {
    centroids.push_back(units[farthest(largest)]);
    for (std::size_t i = 0; i < n; ++i) {
      const float value = safeCosine(units[i], centroids.back());
      if (value > largest[i]) {
        largest[i] = value;
      }
    }
  }

  std::vector<std::size_t> assignment(n, 0);
  for (int pass = 0; pass < kMaxPasses; ++pass) {
    bool changed = false;
    for (std::size_t i = 0; i < n; ++i) {
      std::size_t best = 0;
      float bestValue = safeCosine(units[i], centroids[0]);
      for (std::size_t c = 1; c < centroids.size(); ++c) {
        const float value = safeCosine(units[i], centroids[c]);
        if (value > bestValue) {
          best = c;
          bestValue = value;
        }
      }
      if (assignment[i] != best) {
        assignment[i] = best;
        changed = true;
      }
    }
    updateCentroids(units, assignment, centroids);
    if (!changed) {
      break;
    }
  }
  return collect(assignment, centroids.size());
}

std::vector<TopicClusterer::Cluster> kMeans(std::span<const std::vector<float>> vectors,
                                            std::size_t k) {
  const std::size_t n = vectors.size();
  if (n == 0) {
    return {};
  }
  const std::size_t length = vectors[0].size();
  for (const std::vector<float>& v : vectors) {
    if (v.size() != length) {
      return kMeansScalar(vectors, k);
    }
  }
  if (length == 0) {
    return kMeansScalar(vectors, k);
  }

  // From here every vector and every centroid has one length, so each cosine is a dot product
  // over contiguous memory divided by norms that are worked out once.
  const std::vector<std::vector<float>> units = unitVectors(vectors);
  std::vector<float> squares(n);
  std::vector<float> roots(n);
  for (std::size_t i = 0; i < n; ++i) {
    squares[i] = sumOfSquares(units[i]);
    roots[i] = std::sqrt(squares[i]);
  }

  // Seeding: the cosines of a new centroid with all vectors at once, over the vectors stored
  // column-wise.
  std::vector<std::vector<float>> centroids{units[0]};
  {
    std::vector<float> columns(length * n);
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t d = 0; d < length; ++d) {
        columns[d * n + i] = units[i][d];
      }
    }
    std::vector<float> dots(n);
    std::vector<float> largest(n);
    auto cosinesWith = [&](const std::vector<float>& c, bool first) {
      const float cc = sumOfSquares(c);
      const float rootC = std::sqrt(cc);
      dotColumns(c, columns.data(), n, n, dots.data());
      for (std::size_t i = 0; i < n; ++i) {
        const float value = cosineFrom(dots[i], squares[i], roots[i], cc, rootC);
        if (first || value > largest[i]) {
          largest[i] = value;
        }
      }
    };
    cosinesWith(centroids[0], true);
    while (centroids.size() < k) {
      centroids.push_back(units[farthest(largest)]);
      cosinesWith(centroids.back(), false);
    }
  }

  const std::size_t count = centroids.size();
  std::vector<float> centroidColumns(length * count);
  std::vector<float> centroidSquares(count);
  std::vector<float> centroidRoots(count);
  std::vector<float> dots(count);
  std::vector<std::size_t> assignment(n, 0);
  for (int pass = 0; pass < kMaxPasses; ++pass) {
    for (std::size_t c = 0; c < count; ++c) {
      for (std::size_t d = 0; d < length; ++d) {
        centroidColumns[d * count + c] = centroids[c][d];
      }
      centroidSquares[c] = sumOfSquares(centroids[c]);
      centroidRoots[c] = std::sqrt(centroidSquares[c]);
    }
    bool changed = false;
    for (std::size_t i = 0; i < n; ++i) {
      dotColumns(units[i], centroidColumns.data(), count, count, dots.data());
      std::size_t best = 0;
      float bestValue = 0.0f;
      for (std::size_t c = 0; c < count; ++c) {
        const float value =
            cosineFrom(dots[c], squares[i], roots[i], centroidSquares[c], centroidRoots[c]);
        if (c == 0 || value > bestValue) {
          best = c;
          bestValue = value;
        }
      }
      if (assignment[i] != best) {
        assignment[i] = best;
        changed = true;
      }
    }
    updateCentroids(units, assignment, centroids);
    if (!changed) {
      break;
    }
  }
  return collect(assignment, count);
}

}  // namespace kestrova::topics
