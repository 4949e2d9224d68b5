#include <algorithm>
#include <cmath>
#include <map>

#include <kestrova/embedder.h>

#include "topic_math.h"

namespace kestrova::topics {

void dotColumns(std::span<const float> v, const float* columns, std::size_t stride,
                std::size_t count, float* out) {
  std::fill(out, out + count, 0.0f);
  // One running sum per column, each fed in the order d = 0, 1, ...: the same additions as a
  // single dot product, but independent sums the compiler can do side by side.
  for (std::size_t d = 0; d < v.size(); ++d) {
    const float x = v[d];
    const float* column = columns + d * stride;
    for (std::size_t c = 0; c < count; ++c) {
      out[c] += x * column[c];
    }
  }
}

float sumOfSquares(std::span<const float> v) {
  float sum = 0.0f;
  for (float x : v) {
    sum += x * x;
  }
  return sum;
}

float cosineFrom(float dot, float aa, float rootA, float bb, float rootB) {
  if (!(aa > 0.0f) || !(bb > 0.0f)) {
    return 0.0f;
  }
  const float value = dot / (rootA * rootB);
  return std::isnan(value) ? 0.0f : value;
}

SimilarityMatrix similarities(std::span<const std::vector<float>> vectors) {
  SimilarityMatrix matrix;
  matrix.n = vectors.size();
  matrix.values.assign(matrix.n * matrix.n, 0.0f);

  // Vectors of different lengths live in different spaces and stay at 0; each group of one length
  // is done on its own.
  std::map<std::size_t, std::vector<std::size_t>> byLength;
  for (std::size_t i = 0; i < vectors.size(); ++i) {
    if (!vectors[i].empty()) {
      byLength[vectors[i].size()].push_back(i);
    }
  }
  for (const auto& [length, rows] : byLength) {
    const std::size_t m = rows.size();
    if (m < 2) {
      continue;
    }
    std::vector<float> columns(length * m);
    std::vector<float> squares(m);
    std::vector<float> roots(m);
    for (std::size_t q = 0; q < m; ++q) {
      const std::vector<float>& v = vectors[rows[q]];
      for (std::size_t d = 0; d < length; ++d) {
        columns[d * m + q] = v[d];
      }
      squares[q] = sumOfSquares(v);
      roots[q] = std::sqrt(squares[q]);
    }
    std::vector<float> dots(m);
    for (std::size_t p = 0; p + 1 < m; ++p) {
      const std::size_t count = m - p - 1;
      dotColumns(vectors[rows[p]], columns.data() + p + 1, m, count, dots.data());
      const std::size_t i = rows[p];
      for (std::size_t c = 0; c < count; ++c) {
        const std::size_t q = p + 1 + c;
        const std::size_t j = rows[q];
        const float value = cosineFrom(dots[c], squares[p], roots[p], squares[q], roots[q]);
        matrix.values[i * matrix.n + j] = value;
        matrix.values[j * matrix.n + i] = value;
      }
    }
  }
  return matrix;
}

}  // namespace kestrova::topics

namespace kestrova::topics {

std::vector<float> centroidAt(std::span<const std::vector<float>> vectors,
                              std::span<const std::size_t> positions) {
  if (positions.empty()) {
    return {};
  }
  const std::size_t length = vectors[positions[0]].size();
  std::vector<float> sum(length, 0.0f);
  for (std::size_t p : positions) {
    const std::vector<float>& v = vectors[p];
    if (v.size() != length) {
      continue;  // another vector space: it cannot move this centroid
    }
    for (std::size_t d = 0; d < length; ++d) {
      sum[d] += v[d];
    }
  }
  return Embedder::normalized(std::move(sum));
}

}  // namespace kestrova::topics
