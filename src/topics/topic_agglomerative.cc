#include <cstddef>
#include <vector>

#include "topic_math.h"

namespace kestrova::topics {
namespace {

// The merge loop. Instead of rescanning the whole matrix for the best pair on every merge, each
// active row i remembers its best partner j > i (the first one of the largest similarity); the
// best pair overall is then the first row with the largest remembered value, which is exactly the
// pair a full scan (rows ascending, columns ascending, replacing only on a strictly larger value)
// finds. A merge changes only the merged row and column, so only rows that pointed at one of the
// two clusters need a fresh scan.
class Merger {
 public:
  Merger(const SimilarityMatrix& matrix, float outlierSimilarity)
      : n_(matrix.n),
        sim_(matrix.values),
        members_(n_),
        active_(n_, 1),
        best_(n_, 0),
        bestValue_(n_, 0.0f),
        hasBest_(n_, 0) {
    for (std::size_t i = 0; i < n_; ++i) {
      members_[i].push_back(i);
    }
    for (std::size_t i = 0; i < n_; ++i) {
      bool any = false;
      float largest = 0.0f;
      for (std::size_t j = 0; j < n_; ++j) {
        if (j != i && (!any || at(i, j) > largest)) {
          largest = at(i, j);
          any = true;
        }
      }
      // Without any other vector there is nothing it could be similar to.
      if (!any || largest < outlierSimilarity) {
        active_[i] = 0;
        members_[i].clear();
        outliers_.push_back(i);
      }
    }
    activeCount_ = n_ - outliers_.size();
    for (std::size_t i = 0; i < n_; ++i) {
      if (active_[i]) {
        rescan(i);
      }
    }
  }

  void run(std::size_t k, float mergeFloor) {
    while (activeCount_ > k) {
      bool found = false;
      std::size_t a = 0;
      float value = 0.0f;
      for (std::size_t i = 0; i < n_; ++i) {
        if (active_[i] && hasBest_[i] && (!found || bestValue_[i] > value)) {
          found = true;
          a = i;
          value = bestValue_[i];
        }
      }
      if (!found || value < mergeFloor) {
        return;
      }
      merge(a, best_[a]);
    }
  }

  TopicClusterer::Agglomeration result() && {
    TopicClusterer::Agglomeration out;
    for (std::size_t i = 0; i < n_; ++i) {
      if (!members_[i].empty()) {
        out.clusters.push_back(std::move(members_[i]));
      }
    }
    out.outliers = std::move(outliers_);
    return out;
  }

 private:
  float& at(std::size_t i, std::size_t j) { return sim_[i * n_ + j]; }

  // Finds row i's best active partner among the columns after i.
  void rescan(std::size_t i) {
    hasBest_[i] = 0;
    const float* row = sim_.data() + i * n_;
    for (std::size_t j = i + 1; j < n_; ++j) {
      if (active_[j] && (!hasBest_[i] || row[j] > bestValue_[i])) {
        hasBest_[i] = 1;
        best_[i] = j;
        bestValue_[i] = row[j];
      }
    }
  }

  // Merges cluster b into cluster a (a < b) with average linkage.
  void merge(std::size_t a, std::size_t b) {
    const float sizeA = static_cast<float>(members_[a].size());
    const float sizeB = static_cast<float>(members_[b].size());
    const float total = static_cast<float>(members_[a].size() + members_[b].size());
    for (std::size_t x = 0; x < n_; ++x) {
      if (!active_[x] || x == a || x == b) {
        continue;
      }
      const float value = (at(a, x) * sizeA + at(b, x) * sizeB) / total;
      at(a, x) = value;
      at(x, a) = value;
    }
    members_[a].insert(members_[a].end(), members_[b].begin(), members_[b].end());
    members_[b].clear();
    active_[b] = 0;
    hasBest_[b] = 0;
    --activeCount_;

    rescan(a);
    for (std::size_t x = 0; x < b; ++x) {
      if (!active_[x] || x == a) {
        continue;
      }
      if (hasBest_[x] && (best_[x] == a || best_[x] == b)) {
        rescan(x);
      } else if (x < a) {
        // Only the value towards a changed in this row.
        const float value = at(x, a);
        if (!hasBest_[x] || value > bestValue_[x] || (value == bestValue_[x] && a < best_[x])) {
          hasBest_[x] = 1;
          best_[x] = a;
          bestValue_[x] = value;
        }
      }
    }
  }

  std::size_t n_;
  std::vector<float> sim_;
  std::vector<TopicClusterer::Cluster> members_;
  std::vector<char> active_;
  std::vector<std::size_t> best_;
  std::vector<float> bestValue_;
  std::vector<char> hasBest_;
  std::vector<std::size_t> outliers_;
  std::size_t activeCount_ = 0;
};

}  // namespace

TopicClusterer::Agglomeration agglomerate(const SimilarityMatrix& sim, std::size_t k,
                                          float outlierSimilarity, float mergeFloor) {
  Merger merger(sim, outlierSimilarity);
  merger.run(k, mergeFloor);
  return std::move(merger).result();
}

}  // namespace kestrova::topics
