#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/search_index.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

SavedTab tab(int n, std::string title, std::int64_t savedAt = 1'800'000'000) {
  SavedTab t;
  char id[37];
  std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
  t.id = *Uuid::parse(id);
  t.url = "https://example.org/" + std::to_string(n);
  t.title = std::move(title);
  t.savedAt = Date(std::chrono::seconds(savedAt));
  return t;
}

// The keyword score by its plain rules, term by term: the first field holding the stem wins,
// else a term of five or more characters, cut by one ending, scores as a part of title or meta.
float referenceKeywordScore(const std::set<std::string>& terms, const SavedTab& t) {
  auto stems = [](std::string_view text) {
    std::set<std::string> out;
    for (const std::string& w : TextTools::words(text, false)) {
      out.insert(TextTools::stem(w));
    }
    return out;
  };
  std::string tags, projects;
  for (const std::string& s : t.tags)
    tags += (tags.empty() ? "" : " ") + s;
  for (const std::string& s : t.projectTags)
    projects += (projects.empty() ? "" : " ") + s;
  const std::string metaText = t.summary + " " + tags + " " + t.note;
  const std::set<std::string> fields[] = {stems(t.title), stems(metaText + " " + projects),
                                          stems(t.url),
                                          stems(unicode::graphemePrefix(t.text, 6000))};
  const float weights[] = {1.0f, 0.8f, 0.6f, 0.4f};
  double sum = 0.0;
  for (const std::string& term : terms) {
    const auto field = std::find_if(std::begin(fields), std::end(fields),
                                    [&](const auto& f) { return f.count(term) != 0; });
    if (field != std::end(fields)) {
      sum += weights[field - std::begin(fields)];
      continue;
    }
    if (unicode::graphemeCount(term) < 5)
      continue;
    std::string root = term;
    for (std::string ending : {"en", "er", "es", "e", "n", "s"}) {
      if (term.ends_with(ending)) {
        root = term.substr(0, term.size() - ending.size());
        break;
      }
    }
    if (root != term && unicode::graphemeCount(root) < 4)
      continue;
    if (unicode::toLower(t.title).find(root) != std::string::npos) {
      sum += 0.7f;
    } else if (unicode::toLower(metaText).find(root) != std::string::npos) {
      sum += 0.5f;
    }
  }
  return terms.empty() ? 0.0f : static_cast<float>(sum) / static_cast<float>(terms.size());
}

TEST(SearchKeywordScore, EdgeCasesAndAgreementWithThePlainRules) {
  EXPECT_EQ(SearchIndex::queryTerms("  Projekte und Kurse, die Projekten!\n"),
            (std::set<std::string>{"projek", "kurse"}));
  SavedTab t = tab(1, "Titel");
  t.text = std::string(5995, '.') + " kaffee";  // one character past the 6000
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee"}, t), 0.0f);
  t.text = std::string(5993, '.') + " kaffee";
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee"}, t), 0.4f);
  t.title = "Zusammenfassung";  // a stop word: only the root rule sees it
  EXPECT_EQ(SearchIndex::keywordScore({"zusamm"}, t), 0.7f);
  const std::vector<std::string> vocabulary = {
      "Kaffee",   "Kurse",    "Kursplan", "Projekte", "Projektplan", "und",   "Zusammenfassung",
      "Rösterei", "RÖSTEREI", "Bohnen",   "Tee",      "Datenbank",   "daten", "İstanbul",
      "ΚΑΦΕΣ",    "café",     "Kur",      "2024",     "e",           "Übung", "übungen"};
  std::mt19937 rng(7);
  auto phrase = [&](int words) {
    std::string out;
    for (int i = 0; i < words; ++i) {
      out += vocabulary[rng() % vocabulary.size()] + ((rng() % 4 == 0) ? "-" : " ");
    }
    return out;
  };
  for (int round = 0; round < 800; ++round) {
    SavedTab r = tab(round, phrase(static_cast<int>(rng() % 4)));
    r.summary = phrase(static_cast<int>(rng() % 4));
    r.tags = {phrase(1), phrase(1)};
    r.note = phrase(static_cast<int>(rng() % 2));
    if (rng() % 2 == 0)
      r.projectTags = {phrase(1)};
    r.url = "https://example.org/" + phrase(static_cast<int>(rng() % 3));
    r.text = phrase(static_cast<int>(rng() % 12));
    const auto terms = SearchIndex::queryTerms(phrase(static_cast<int>(rng() % 5)));
    EXPECT_EQ(SearchIndex::keywordScore(terms, r), referenceKeywordScore(terms, r))
        << r.title << " | " << r.text;
  }
}

TEST(SearchHits, CachedVectorsLimitsThresholdAndTies) {
  auto embedder = std::make_shared<Embedder>(false);
  const SearchIndex index(embedder);
  LibraryData data;
  data.embedderKind = embedder->kind();
  data.tabs = {tab(1, "Kaffee", 100), tab(2, "Kaffee", 300), tab(3, "Anderes"),
               tab(4, "Kaffee", 300), tab(5, "Rösterei", 300)};
  data.tabs[4].summary = "Kaffee";
  std::vector<float> opposite = embedder->vector("Kaffee");
  for (float& x : opposite)
    x = -x;
  for (const SavedTab& t : data.tabs) {
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  }
  data.embeddings[data.tabs[0].id.string()] = embedder->vector("Kaffee");
  data.embeddings[data.tabs[2].id.string()] = opposite;  // a negative cosine counts as 0
  const auto hits = index.hits("Kaffee", data, 10);
  std::vector<std::pair<int, float>> got;
  for (const SearchHit& hit : hits)
    got.emplace_back(hit.tab.id.bytes()[15], hit.score);
  // Title before summary; equal scores newest first, then in library order.
  EXPECT_EQ(got, (std::vector<std::pair<int, float>>{
                     {1, 0.55f + 0.45f}, {2, 0.45f}, {4, 0.45f}, {5, 0.8f * 0.45f}}));
  EXPECT_EQ(index.hits("Kaffee", data, 2).size(), 2U);
  EXPECT_EQ(index.hits("Kaffee", data, 2)[1].tab.id, data.tabs[1].id);
  EXPECT_TRUE(index.hits("Kaffee", data, 0).empty());
  EXPECT_TRUE(index.hits("   \n\t", data, 10).empty());
  EXPECT_TRUE(index.hits("und", data, 10).empty());  // no terms and a zero query vector
  // One text term of eleven: 0.4 / 11 × 0.45 is under the threshold, one of one is not.
  LibraryData weak;
  weak.embedderKind = embedder->kind();
  weak.tabs = {tab(6, "Titel")};
  weak.tabs[0].text = "kaffee";
  weak.embeddings[weak.tabs[0].id.string()] = std::vector<float>(256, 0.0f);
  EXPECT_TRUE(
      index.hits("kaffee eins zwei drei vier fünf sechs sieben acht neun zehn", weak, 10).empty());
  EXPECT_EQ(index.hits("kaffee", weak, 10).size(), 1U);
  // A cache of another kind is ignored, and not changed.
  data.embedderKind = "sentence-2+bow256";
  const LibraryData before = data;
  const auto fresh = index.hits("Anderes", data, 10);
  ASSERT_EQ(fresh.size(), 1U);
  EXPECT_EQ(fresh[0].score, Embedder::cosine(embedder->vector("Anderes"),
                                             embedder->vector(data.tabs[2].searchableText())) *
                                    0.55f +
                                0.45f);
  EXPECT_EQ(data, before);
}

}  // namespace
}  // namespace kestrova
