#include <gtest/gtest.h>

#include <kestrova/search_index.h>

#include "library_generator.h"

namespace kestrova {
namespace {

// Themed words, only stop words, a word no tab holds (every text read), the partial rule
// (Velotouren finds "velotour"), umlauts, and a stem too long to be kept inside its number.
const std::vector<std::string> kQueries = {"Risotto Rezept",
                                           "wie und was",
                                           "Zebrafischlarven",
                                           "Velotouren",
                                           "Höhenmeter über Pässe",
                                           "東京の地下鉄路線図",
                                           "Training Plan für den Marathon",
                                           "Gotthard"};

// Hits of every query with the cache, asked twice (to fill it, then from it), against a search
// without it.
void expectSameHits(const LibraryData& data, const SearchIndex& index, SearchCache& cache) {
  for (const std::string& query : kQueries) {
    SCOPED_TRACE(query);
    const std::vector<SearchHit> expected = index.hits(query, data, 25);
    EXPECT_EQ(index.hits(query, data, 25, &cache), expected);
    EXPECT_EQ(index.hits(query, data, 25, &cache), expected);
  }
}

TEST(SearchCache, HitsAreExactlyThoseOfASearchWithoutIt) {
  LibraryData data = bench::generateLibrary(400, 7);
  // Some tabs without a cached vector, so that vectors are made and kept in the cache.
  for (std::size_t i = 0; i < data.tabs.size(); i += 3) {
    data.embeddings.erase(data.tabs[i].id.string());
  }
  data.tabs[5].title = "Velotour durch das Engadin";
  data.tabs[6].text = "東京の地下鉄路線図 und mehr";
  const SearchIndex index(std::make_shared<Embedder>(false));
  SearchCache cache;
  expectSameHits(data, index, cache);

  // A changed tab that the cache is told of, and one moved to another place (noticed by its id).
  data.tabs[9].note = "Zebrafischlarven im Aquarium";
  cache.forgetTab(9);
  std::swap(data.tabs[20], data.tabs[21]);
  expectSameHits(data, index, cache);

  // Vectors of another kind are not the document's: every tab is embedded on the fly.
  data.embedderKind = "anders";
  cache.clear();
  expectSameHits(data, index, cache);
}

}  // namespace
}  // namespace kestrova
