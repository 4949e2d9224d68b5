// The embedder's vectors and the search on them: a generated library's ranking pinned bit for bit
// in golden/, the keyword rules against plain references, and the edges a library cannot reach.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <gtest/gtest.h>

#include <kestrova/embedder.h>
#include <kestrova/search_index.h>
#include <kestrova/store.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "library_generator.h"
#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

using Answer = std::optional<std::vector<float>>;
class FakeModel final : public SemanticModel {
 public:
  FakeModel(Semantic s, std::int64_t d, Answer a = {}) : kind(s), length(d), answer(std::move(a)) {}
  Semantic semantic() const override { return kind; }
  std::int64_t dimension() const override { return length; }
  Answer vector(std::string_view) override { return answer; }
  Semantic kind;
  std::int64_t length;
  Answer answer;
};

// Hands out copies of its models by "contextual:de", "sentence:en" and so on.
class FakePlatform final : public SemanticPlatform {
 public:
  std::unique_ptr<SemanticModel> contextualModel(std::string_view language) override {
    return find("contextual:" + std::string(language));
  }
  std::unique_ptr<SemanticModel> sentenceModel(std::string_view language) override {
    return find("sentence:" + std::string(language));
  }
  std::unique_ptr<SemanticModel> find(const std::string& name) {
    const auto it = models.find(name);
    return it != models.end() ? std::make_unique<FakeModel>(it->second) : nullptr;
  }
  std::map<std::string, FakeModel> models;
  // Without KESTROVA_NO_SEMANTIC whatever the caller's environment holds.
  testing::FakeEnv env{{.semantic = this, .variables = {{"KESTROVA_NO_SEMANTIC", std::nullopt}}}};
};

SavedTab tab(int n, std::string title, std::int64_t savedAt = 1'800'000'000) {
  char id[37];
  std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
  return makeSavedTab({.id = *Uuid::parse(id),
                       .url = "https://example.org/" + std::to_string(n),
                       .title = std::move(title),
                       .savedAt = Date(std::chrono::seconds(savedAt))});
}

TEST(EmbedderMath, CosineAndMeanPool) {
  EXPECT_EQ(Embedder::cosine({1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}), 0.0f);
  EXPECT_EQ(Embedder::cosine({0.0f, 0.0f}, {1.0f, 1.0f}), 0.0f);
  EXPECT_EQ(Embedder::cosine({1.0f, 2.0f}, {-1.0f, -2.0f}), -1.0f);  // not clamped
  EXPECT_EQ(meanPool({{1.0, 2.0}, {3.0}, {3.0, 6.0}}, 2), (std::vector<float>{2.0f, 4.0f}));
  EXPECT_FALSE(meanPool({{1.0}, {1.0, 2.0, 3.0}}, 2).has_value());
}

TEST(EmbedderBag, DampenedCountsOfStemsWithoutStopWordsInTheFirst1200Characters) {
  // A word hits one bucket with ±1, twice with ±(ln 2 + 1); long words by their first six letters.
  const std::uint64_t hash = Embedder::fnv("projek");
  const float sign = ((hash >> 32) & 1U) != 0 ? -1.0f : 1.0f;
  EXPECT_EQ(Embedder::hashedBagOfWords("Projektplan")[hash & 255U], sign);
  EXPECT_EQ(Embedder::hashedBagOfWords("Projekte, projekt!")[hash & 255U],
            sign * (std::log(2.0f) + 1.0f));
  EXPECT_EQ(Embedder::hashedBagOfWords("und die der a e"), std::vector<float>(256, 0.0f));
  // Only the first 1200 characters go into a vector: "Bohnen" straddles the cut after "Boh".
  Embedder embedder(false);
  EXPECT_EQ(embedder.vector(std::string(1197, '.') + "Bohnen"), embedder.vector("Boh"));
  EXPECT_NE(embedder.vector("Boh"), embedder.vector("Bohn"));
}

TEST(EmbedderKind, ContextualThenSentenceInGermanThenEnglishUnlessSwitchedOff) {
  FakePlatform p;
  p.models = {{"contextual:de", {Semantic::contextual, 6}},
              {"sentence:de", {Semantic::sentence, 5}},
              {"sentence:en", {Semantic::sentence, 3}}};
  auto kind = [&](bool allowed) { return Embedder(allowed, p.env).kind(); };
  EXPECT_EQ(kind(false), "none-0+bow256");
  p.env.variables["KESTROVA_NO_SEMANTIC"] = "";
  EXPECT_EQ(kind(true), "none-0+bow256");
  p.env.variables["KESTROVA_NO_SEMANTIC"] = std::nullopt;
  EXPECT_EQ(kind(true), "contextual-6+bow256");
  p.models.erase("contextual:de");
  EXPECT_EQ(kind(true), "sentence-5+bow256");
  p.models.erase("sentence:de");
  EXPECT_EQ(kind(true), "sentence-3+bow256");
  // A model without a usable length, or one that says it is none, is no model.
  p.models.at("sentence:en").length = 0;
  EXPECT_EQ(kind(true), "none-0+bow256");
  p.models.at("sentence:en") = {Semantic::none, 3};
  EXPECT_EQ(kind(true), "none-0+bow256");
}

TEST(EmbedderVector, SemanticPartIsWeightedAndFallsBackToTheBag) {
  FakePlatform p;
  auto vector = [&](Answer answer) {
    p.models.insert_or_assign("sentence:de", FakeModel(Semantic::sentence, 3, std::move(answer)));
    return Embedder(true, p.env).vector("Kaffee Bohnen");
  };
  auto joined = [](std::vector<float> v, float bagFactor) {
    for (float x : Embedder::normalized(Embedder::hashedBagOfWords("Kaffee Bohnen")))
      v.push_back(x * bagFactor);
    return v;
  };
  EXPECT_EQ(vector(std::vector<float>{3.0f, 0.0f, 4.0f}),
            joined({0.6f * 0.7746f, 0.0f, 0.8f * 0.7746f}, 0.6325f));
  // Missing, wrong-length or zero answers leave the full bag.
  for (const Answer& answer :
       std::vector<Answer>{std::nullopt, std::vector<float>{1.0f, 2.0f},
                           std::vector<float>{1, 2, 3, 4}, std::vector<float>{0.0f, 0.0f, 0.0f}})
    EXPECT_EQ(vector(answer), joined({0.0f, 0.0f, 0.0f}, 1.0f));
}

TEST(EmbedderCache, FillsMissingKeepsExistingAndEmptiesOnKindChange) {
  Embedder embedder(false);
  LibraryData data;
  data.embedderKind = embedder.kind();
  data.tabs = {tab(1, "Kaffee"), tab(2, "Tee")};
  const std::string kaffee = data.tabs[0].id.string(), tee = data.tabs[1].id.string();
  data.embeddings[kaffee] = {0.5f, 0.5f};
  data.embeddings["00000000-0000-4000-8000-000000000009"] = {1.0f};  // a removed tab
  embedder.ensureEmbeddings(data);
  EXPECT_EQ(data.embeddings,
            (std::map<std::string, std::vector<float>>{
                {kaffee, {0.5f, 0.5f}}, {tee, embedder.vector(data.tabs[1].searchableText())}}));
  data.embedderKind = "sentence-512+bow256";
  embedder.ensureEmbeddings(data);
  EXPECT_EQ(data.embedderKind, "none-0+bow256");
  EXPECT_EQ(data.embeddings.at(kaffee), embedder.vector(data.tabs[0].searchableText()));
}

TEST(SearchKeywordScore, TextCutAfter6000CharactersAndStopWordsOnlyByTheirRoot) {
  EXPECT_EQ(SearchIndex::queryTerms("  Projekte und Kurse, die Projekten!\n"),
            (std::set<std::string>{"projek", "kurse"}));
  SavedTab t = tab(1, "Titel");
  t.text = std::string(5995, '.') + " kaffee";  // one character past the 6000
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee"}, t), 0.0f);
  t.text = std::string(5993, '.') + " kaffee";
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee"}, t), 0.4f);
  t.title = "Zusammenfassung";  // a stop word: only the root rule sees it
  EXPECT_EQ(SearchIndex::keywordScore({"zusamm"}, t), 0.7f);
}

TEST(SearchHits, CachedVectorsLimitsThresholdAndTies) {
  auto embedder = std::make_shared<Embedder>(false);
  const SearchIndex index(embedder);
  LibraryData data;
  data.embedderKind = embedder->kind();
  data.tabs = {tab(1, "Kaffee", 100), tab(2, "Kaffee", 300), tab(3, "Anderes"),
               tab(4, "Kaffee", 300), tab(5, "Rösterei", 300)};
  data.tabs[4].summary = "Kaffee";
  for (const SavedTab& t : data.tabs)
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  data.embeddings[data.tabs[0].id.string()] = embedder->vector("Kaffee");
  data.embeddings[data.tabs[2].id.string()] = embedder->vector("Kaffee");
  for (float& x : data.embeddings[data.tabs[2].id.string()])
    x = -x;  // a negative cosine counts as 0, under the threshold
  std::vector<std::pair<int, float>> got;
  for (const SearchHit& hit : index.hits("Kaffee", data, 10))
    got.emplace_back(hit.tab.id.bytes()[15], hit.score);
  // Title before summary; equal scores newest first, then in library order.
  EXPECT_EQ(got, (std::vector<std::pair<int, float>>{
                     {1, 0.55f + 0.45f}, {2, 0.45f}, {4, 0.45f}, {5, 0.8f * 0.45f}}));
  EXPECT_EQ(index.search("Kaffee", data, 2), (std::vector<SavedTab>{data.tabs[0], data.tabs[1]}));
  EXPECT_TRUE(index.hits("Kaffee", data, 0).empty());
}

TEST(SearchHits, AQueryOfStopWordsFindsByMeaningAlone) {
  FakePlatform p;
  p.models.emplace("sentence:de", FakeModel(Semantic::sentence, 2, std::vector<float>{1, 0}));
  auto embedder = std::make_shared<Embedder>(true, p.env);
  LibraryData data;
  data.tabs = {tab(1, "und oder Kaffee")};
  const auto hits = SearchIndex(embedder).hits("und der", data, 10);
  ASSERT_EQ(hits.size(), 1U);
  EXPECT_EQ(hits[0].score, Embedder::cosine(embedder->vector("und der"),
                                            embedder->vector(data.tabs[0].searchableText())) *
                               0.55f);
  EXPECT_NEAR(hits[0].score, 0.7746f * 0.55f, 1e-3f);  // the tab's semantic part alone
}

// One line per hit: query, rank, tab id and the score's bits in hexadecimal. The queries: themed
// words in several languages, a question full of stop words, a word of another script, endings
// for the partial rule, an emoji and a word no tab holds.
std::string resultsOf(const LibraryData& data) {
  const SearchIndex index(std::make_shared<Embedder>(false));
  std::ostringstream out;
  for (const char* query :
       {"Risotto Rezept", "Höhenmeter Gotthard Pass", "wie plane ich eine Velotour über den Furka",
        "Training", "Zebrafischlarven", "Steuererklärung Abzüge Säule", "cuisine française théâtre",
        "日本語 漢字", "Москва литература", "Kubernetes Deployments Namespaces",
        "Projekte Kurse Gärten", "🚲 Velo", "und der die"}) {
    const std::vector<SearchHit> hits = index.hits(query, data, 25);
    for (std::size_t rank = 0; rank < hits.size(); ++rank) {
      char bits[16];
      std::snprintf(bits, sizeof bits, "%08x", std::bit_cast<std::uint32_t>(hits[rank].score));
      out << query << '\t' << rank << '\t' << hits[rank].tab.id.string() << '\t' << bits << '\n';
    }
  }
  return out.str();
}

// KESTROVA_WRITE_GOLDEN set records the file anew after a deliberate change of ranking.
TEST(SearchGolden, GeneratedLibraryThroughTheDocument) {
  const std::filesystem::path golden = std::filesystem::path(KESTROVA_GOLDEN) / "search_600.tsv";
  const LibraryData generated = bench::generateLibrary(600, 3);
  testing::TestFolder folder;
  const LibraryStore store(folder.path() / "library.json");
  store.save(generated);
  const std::string results = resultsOf(store.load());
  // The document must carry every vector bit for bit: the same results straight from memory.
  EXPECT_EQ(resultsOf(generated), results);
  if (std::getenv("KESTROVA_WRITE_GOLDEN") != nullptr) {
    std::ofstream(golden, std::ios::binary) << results;
    GTEST_SKIP() << "wrote " << golden;
  }
  std::ifstream file(golden, std::ios::binary);
  ASSERT_TRUE(file) << "missing " << golden;
  std::ostringstream expected;
  expected << file.rdbuf();
  EXPECT_EQ(expected.str(), results);
  // Most queries find something: a golden file of empty results would pin nothing.
  EXPECT_GT(std::count(results.begin(), results.end(), '\n'), 150);
}

bool startsUppercase(std::string_view word) {
  std::size_t pos = 0;
  return !word.empty() && unicode::isUppercase(unicode::decodeAt(word, pos));
}

// Keywords word by word, where the fast path checks each spelling once: a keyword is the stem of
// a word of at least `minLength` characters, no stop word and not only digits. A capitalised
// spelling replaces one that is not, and with `shortest` also a longer capitalised one.
std::vector<KeywordCount> referenceKeywords(const std::vector<std::string>& texts,
                                            std::int64_t minLength, bool shortest) {
  std::unordered_map<std::string, std::int64_t> count;
  std::unordered_map<std::string, std::string> display;
  for (const std::string& text : texts) {
    std::unordered_set<std::string> seen;
    for (const std::string& word : TextTools::originalWords(text)) {
      const std::string lower = unicode::toLower(word);
      bool digitsOnly = true;
      for (unicode::GraphemeWalker walker(lower); digitsOnly && walker.next();)
        digitsOnly = unicode::isNumber(walker.first());
      if (std::cmp_less(unicode::graphemeCount(lower), minLength) || TextTools::isStopWord(lower) ||
          digitsOnly)
        continue;
      const std::string key = TextTools::stem(lower);
      count[key] += seen.insert(key).second ? 1 : 0;
      auto [it, inserted] = display.try_emplace(key, word);
      const std::string& was = it->second;
      if (!inserted && startsUppercase(word) &&
          (!startsUppercase(was) ||
           (shortest && unicode::graphemeCount(word) < unicode::graphemeCount(was))))
        it->second = word;
    }
  }
  std::vector<KeywordCount> out;
  for (const auto& [key, n] : count)
    out.push_back({key, display.at(key), n});
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) {
    return a.count != b.count ? a.count > b.count : a.key < b.key;
  });
  return out;
}

TEST(KeywordsReference, KeywordCountsAndTopKeywordsMatchWordByWord) {
  std::vector<std::string> texts;
  for (const SavedTab& tab : bench::generateLibrary(150, 5).tabs)
    texts.push_back(tab.title + " " + tab.text);
  texts.push_back(
      "Käse KÄSE käse Kä 2024 2025 der Die und Zürich ZÜRICH 👩‍💻 Éclair éclair");
  for (std::int64_t minLength : {0, 3, 5}) {
    const auto expected = referenceKeywords(texts, minLength, true);
    const auto actual = TextTools::keywordCounts(texts, minLength);
    ASSERT_EQ(actual.size(), expected.size()) << "minLength " << minLength;
    ASSERT_GT(actual.size(), 100u);
    for (std::size_t i = 0; i < actual.size(); ++i)
      EXPECT_EQ(std::tie(actual[i].key, actual[i].display, actual[i].count),
                std::tie(expected[i].key, expected[i].display, expected[i].count));
  }
  const auto top = referenceKeywords(texts, 3, false);
  std::vector<std::string> spellings;
  for (std::size_t i = 0; i < 40 && i < top.size(); ++i)
    spellings.push_back(top[i].display);
  EXPECT_EQ(TextTools::topKeywords(texts, 40, 3), spellings);
}

}  // namespace
}  // namespace kestrova
