// Search results on a generated library, ids and every score's bits, after the library went
// through the document: speed work must leave them unchanged. KESTROVA_WRITE_GOLDEN set records
// the file anew after a deliberate change of ranking.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/embedder.h>
#include <kestrova/search_index.h>
#include <kestrova/store.h>

#include "library_generator.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

// Themed words in several languages, a question full of stop words, a word of another script,
// endings for the partial rule, an emoji and a word no tab holds.
const std::vector<std::string> kQueries = {
    "Risotto Rezept",
    "Höhenmeter Gotthard Pass",
    "wie plane ich eine Velotour über den Furka",
    "Training",
    "Zebrafischlarven",
    "Steuererklärung Abzüge Säule",
    "cuisine française théâtre",
    "日本語 漢字",
    "Москва литература",
    "Kubernetes Deployments Namespaces",
    "Projekte Kurse Gärten",
    "🚲 Velo",
    "und der die",
};

// One line per hit: query, rank, tab id and the score's bits in hexadecimal.
std::string resultsOf(const LibraryData& data) {
  const SearchIndex index(std::make_shared<Embedder>(false));
  std::ostringstream out;
  for (const std::string& query : kQueries) {
    const std::vector<SearchHit> hits = index.hits(query, data, 25);
    for (std::size_t rank = 0; rank < hits.size(); ++rank) {
      char bits[16];
      std::snprintf(bits, sizeof bits, "%08x", std::bit_cast<std::uint32_t>(hits[rank].score));
      out << query << '\t' << rank << '\t' << hits[rank].tab.id.string() << '\t' << bits << '\n';
    }
  }
  return out.str();
}

const std::filesystem::path kGolden = std::filesystem::path(KESTROVA_GOLDEN) / "search_600.tsv";

TEST(SearchGolden, GeneratedLibraryThroughTheDocument) {
  const LibraryData generated = bench::generateLibrary(600, 3);
  testing::TestFolder folder;
  const LibraryStore store(folder.path() / "library.json");
  store.save(generated);
  const LibraryData loaded = store.load();
  ASSERT_EQ(loaded.tabs.size(), 600u);

  const std::string results = resultsOf(loaded);
  // The document must carry every vector bit for bit: the same results straight from memory.
  EXPECT_EQ(resultsOf(generated), results);

  if (std::getenv("KESTROVA_WRITE_GOLDEN") != nullptr) {
    std::ofstream(kGolden, std::ios::binary) << results;
    GTEST_SKIP() << "wrote " << kGolden;
  }
  std::ifstream file(kGolden, std::ios::binary);
  ASSERT_TRUE(file) << "missing " << kGolden;
  std::ostringstream expected;
  expected << file.rdbuf();
  EXPECT_EQ(expected.str(), results);
  // Most queries find something: a golden file of empty results would pin nothing.
  EXPECT_GT(std::count(results.begin(), results.end(), '\n'), 150);
}

}  // namespace
}  // namespace kestrova
