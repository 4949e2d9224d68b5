#include <algorithm>
#include <utility>

#include <kestrova/search_index.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "keyword_matcher.h"
#include "search_cache.h"

namespace kestrova {
namespace {

constexpr float kSemanticWeight = 0.55f;
constexpr float kKeywordWeight = 0.45f;
constexpr float kHitThreshold = 0.04f;

// A tab that scored as a hit, by index into the library.
struct Candidate {
  float score;
  Date savedAt;
  std::size_t index;
};

// Better first: higher score, then more recently saved, then earlier in the library (which makes
// the order that of a stable sort).
bool better(const Candidate& a, const Candidate& b) {
  if (a.score != b.score) {
    return a.score > b.score;
  }
  if (a.savedAt != b.savedAt) {
    return a.savedAt > b.savedAt;
  }
  return a.index < b.index;
}

float semanticScore(const std::vector<float>& q, const std::vector<float>& v) {
  if (q.empty() || q.size() != v.size()) {
    return 0.0f;
  }
  const float c = Embedder::cosine(q.data(), v.data(), q.size());
  return c >= 0.0f ? c * kSemanticWeight : 0.0f;
}

bool isZero(const std::vector<float>& v) {
  return std::all_of(v.begin(), v.end(), [](float x) { return x == 0.0f; });
}

}  // namespace

SearchIndex::SearchIndex(std::shared_ptr<Embedder> e) : embedder(std::move(e)) {}

std::set<std::string> SearchIndex::queryTerms(std::string_view query) {
  std::set<std::string> terms;
  TextTools::forEachWord(unicode::trim(query), false,
                         [&](std::string_view word) { terms.insert(TextTools::stem(word)); });
  return terms;
}

float SearchIndex::keywordScore(const std::set<std::string>& terms, const SavedTab& tab) {
  KeywordMatcher matcher(terms);
  return matcher.score(tab);
}

std::vector<SearchHit> SearchIndex::hits(std::string_view query, const LibraryData& data,
                                         std::int64_t limit, SearchCache* cache) const {
  const std::string_view text = unicode::trim(query);
  if (text.empty() || data.tabs.empty() || limit <= 0) {
    return {};
  }
  KeywordMatcher matcher(queryTerms(text));
  const std::vector<float> q = embedder->vector(text);
  // A zero query vector has cosine 0 with everything: no tab vector is needed then.
  const bool semantic = !isZero(q);
  const bool cacheUsable = data.embedderKind == embedder->kind();
  SearchCache::State* kept = cache != nullptr ? cache->state_.get() : nullptr;
  if (kept != nullptr && kept->kind != embedder->kind()) {
    cache->clear();
    kept = cache->state_.get();
    kept->kind = embedder->kind();
  }

  // The best `keep` candidates so far, as a heap whose front is the worst of them.
  const std::size_t keep = std::min(static_cast<std::size_t>(limit), data.tabs.size());
  std::vector<Candidate> best;
  best.reserve(keep);

  for (std::size_t i = 0; i < data.tabs.size(); ++i) {
    const SavedTab& tab = data.tabs[i];
    TabMemo* memo = kept != nullptr ? &kept->memo(data, i) : nullptr;
    float sem = 0.0f;
    if (semantic && memo != nullptr) {
      if (!memo->haveVector) {
        if (cacheUsable) {
          auto it = data.embeddings.find(tab.id.string());
          memo->cached = it != data.embeddings.end() ? &it->second : nullptr;
        }
        if (memo->cached == nullptr) {
          memo->computed = embedder->vector(tab.searchableText());
        }
        memo->haveVector = true;
      }
      sem = semanticScore(q, memo->vector());
    } else if (semantic) {
      const std::vector<float>* v = nullptr;
      std::vector<float> computed;
      if (cacheUsable) {
        auto it = data.embeddings.find(tab.id.string());
        if (it != data.embeddings.end()) {
          v = &it->second;
        }
      }
      if (v == nullptr) {
        computed = embedder->vector(tab.searchableText());
        v = &computed;
      }
      sem = semanticScore(q, *v);
    }
    // A tab that cannot beat the threshold, or the worst of a full list, need not be read.
    auto cannotMatter = [&](float keywordBound) {
      const float bound = sem + keywordBound * kKeywordWeight;
      return !(bound > kHitThreshold) || (best.size() == keep && bound < best.front().score);
    };
    std::optional<float> keyword = 0.0f;
    if (!matcher.empty()) {
      keyword = memo != nullptr ? matcher.score(tab, *memo, kept->keys, cannotMatter)
                                : matcher.score(tab, cannotMatter);
      if (!keyword) {
        continue;
      }
    }
    Candidate candidate{sem + *keyword * kKeywordWeight, tab.savedAt, i};
    if (!(candidate.score > kHitThreshold)) {
      continue;
    }
    if (best.size() < keep) {
      best.push_back(candidate);
      std::push_heap(best.begin(), best.end(), better);
    } else if (better(candidate, best.front())) {
      std::pop_heap(best.begin(), best.end(), better);
      best.back() = candidate;
      std::push_heap(best.begin(), best.end(), better);
    }
  }

  std::sort(best.begin(), best.end(), better);
  std::vector<SearchHit> out;
  out.reserve(best.size());
  for (const Candidate& c : best) {
    out.push_back(SearchHit{data.tabs[c.index], c.score});
  }
  return out;
}

std::vector<SavedTab> SearchIndex::search(std::string_view query, const LibraryData& data,
                                          std::int64_t limit) const {
  std::vector<SavedTab> tabs;
  for (SearchHit& hit : hits(query, data, limit)) {
    tabs.push_back(std::move(hit.tab));
  }
  return tabs;
}

}  // namespace kestrova
