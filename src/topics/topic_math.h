// The vector maths behind topic clustering: a pairwise similarity matrix, average-linkage merging
// on it, and k-means. Every cosine here has exactly the bits Embedder::cosine gives for the same
// two vectors (same summation order, no fused multiply-add), only computed many at a time over
// contiguous memory. Not thread-safe per object; the functions are pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <kestrova/topic_clusterer.h>

namespace kestrova::topics {

// Cosines of all pairs of n vectors, row-major n x n. The diagonal is 0, pairs of different
// lengths or with a zero vector are 0, and a value that is not a number counts as 0.
struct SimilarityMatrix {
  std::size_t n = 0;
  std::vector<float> values;

  float at(std::size_t i, std::size_t j) const { return values[i * n + j]; }
};

SimilarityMatrix similarities(std::span<const std::vector<float>> vectors);

// Average-linkage merging on a copy of `sim` (see TopicClusterer::agglomerative). `k` >= 1.
TopicClusterer::Agglomeration agglomerate(const SimilarityMatrix& sim, std::size_t k,
                                          float outlierSimilarity, float mergeFloor);

// The centroid (see TopicClusterer::centroid) of the vectors at `positions`, summed in the order
// of `positions`.
std::vector<float> centroidAt(std::span<const std::vector<float>> vectors,
                              std::span<const std::size_t> positions);

// K-means as TopicClusterer::kMeans describes it. kMeansScalar is the plain form, one cosine at a
// time through Embedder::cosine, and handles vectors of mixed lengths; kMeans takes a faster route
// with identical results when all vectors have one length. `k` >= 1.
std::vector<TopicClusterer::Cluster> kMeans(std::span<const std::vector<float>> vectors,
                                            std::size_t k);
std::vector<TopicClusterer::Cluster> kMeansScalar(std::span<const std::vector<float>> vectors,
                                                  std::size_t k);

// Dot products of `v` with `count` vectors of v's length stored column-wise in `columns` (element d
// of vector c at columns[d * stride + c]), written to out[0..count). Each sum runs over d ascending
// from 0, as Embedder::cosine adds.
void dotColumns(std::span<const float> v, const float* columns, std::size_t stride,
                std::size_t count, float* out);

// Sum of squares of `v`, in the order Embedder::cosine adds them.
float sumOfSquares(std::span<const float> v);

// dot / (sqrt(aa) * sqrt(bb)) given the two square roots; 0 when either sum of squares is not
// positive, and 0 for a result that is not a number.
float cosineFrom(float dot, float aa, float rootA, float bb, float rootB);

}  // namespace kestrova::topics
