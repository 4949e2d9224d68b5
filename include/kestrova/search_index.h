// SearchIndex: ranked free-text search over the saved tabs of a library. Each tab's score adds a
// semantic part (cosine of the query's vector and the tab's vector, times 0.55) and a keyword part
// (stemmed query terms found in the tab's title, meta data, address or text, times 0.45), so the
// best possible score is 1. There is no index structure: every search scans the library it is
// given, using the cached tab vectors when they belong to the embedder's vector space.
//
// Thread-safety: a search only reads the LibraryData it is given and may run on any thread; the
// embedder serialises its own model access.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/embedder.h>
#include <kestrova/models.h>

namespace kestrova {

// One result of a search: a copy of the tab and its score.
struct SearchHit {
  SavedTab tab;
  float score = 0.0f;

  friend bool operator==(const SearchHit&, const SearchHit&) = default;
};

// What searches derive from one document, kept for the next search of the same document: the
// vectors of tabs that have no cached vector of the embedder's kind (kept here, never written to
// the document), the stems of each tab's fields, and its title and meta data in lower case. With
// it a repeated search costs the scan of the library and little else; results are exactly those
// of a search without it.
//
// It belongs to one document, which its owner keeps unchanged: clear() when the document is
// replaced, forgetTab() when fields of one tab changed. (An entry of a tab that moved to another
// index is noticed by its id and made anew.) Not thread-safe: one search at a time.
class SearchCache {
 public:
  SearchCache();
  ~SearchCache();
  SearchCache(const SearchCache&) = delete;
  SearchCache& operator=(const SearchCache&) = delete;

  // Forgets everything.
  void clear();
  // Forgets what was derived from the tab at `index`.
  void forgetTab(std::size_t index);

  struct State;

 private:
  friend struct SearchIndex;
  std::unique_ptr<State> state_;
};

struct SearchIndex {
  // Shared with whoever made it (the MCP server keeps one for its whole life). Must not be null.
  std::shared_ptr<Embedder> embedder;

  explicit SearchIndex(std::shared_ptr<Embedder> embedder);

  // The tabs of `data` matching `query`, best first, at most `limit` (a negative limit counts as
  // 0). A tab is a hit when its score is above 0.04; equal scores put the more recently saved tab
  // first, and otherwise keep library order. A blank query or an empty library gives no hits.
  // Cached vectors are used only when data.embedderKind equals the embedder's kind; tabs without
  // one are embedded on the fly and nothing is stored. Never changes `data`.
  // With `cache`, what the search derives is taken from it and kept in it (see SearchCache).
  std::vector<SearchHit> hits(std::string_view query, const LibraryData& data, std::int64_t limit,
                              SearchCache* cache = nullptr) const;

  // The tabs of hits(), in the same order.
  std::vector<SavedTab> search(std::string_view query, const LibraryData& data,
                               std::int64_t limit) const;

  // The distinct stems of the words of `query` (stop words and one-letter words dropped).
  static std::set<std::string> queryTerms(std::string_view query);

  // The keyword part of a tab's score, in 0...1: per term 1.0 for a title term, 0.8 for a term
  // of summary, tags, note or project tags, 0.6 for an address term, 0.4 for a term of the first
  // 6000 characters of the text, else 0.7 or 0.5 when the term's root is part of the title or of
  // summary, tags and note; the mean over the terms. No terms give 0.
  static float keywordScore(const std::set<std::string>& terms, const SavedTab& tab);
};

}  // namespace kestrova
