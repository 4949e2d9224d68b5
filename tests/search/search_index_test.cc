#include <algorithm>
#include <chrono>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/search_index.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "semantic_fakes.h"

namespace kestrova {
namespace {

using testing::FakeModel;
using testing::FakePlatform;

Date at(std::int64_t seconds) {
  return Date(std::chrono::seconds(seconds));
}

Uuid idNumber(int n) {
  char text[37];
  std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012d", n);
  return *Uuid::parse(text);
}

SavedTab tab(int n, std::string title, std::int64_t savedAt = 1'800'000'000) {
  SavedTab t;
  t.id = idNumber(n);
  t.url = "https://example.org/" + std::to_string(n);
  t.domain = "example.org";
  t.title = std::move(title);
  t.savedAt = at(savedAt);
  return t;
}

std::shared_ptr<Embedder> bagOnly() {
  return std::make_shared<Embedder>(false);
}

// The keyword score exactly as described: build every term set and both strings, then take the
// first rule that applies per term.
float referenceKeywordScore(const std::set<std::string>& terms, const SavedTab& t) {
  if (terms.empty()) {
    return 0.0f;
  }
  auto stems = [](std::string_view text) {
    std::set<std::string> out;
    for (const std::string& w : TextTools::words(text, false)) {
      out.insert(TextTools::stem(w));
    }
    return out;
  };
  auto joined = [](const std::vector<std::string>& parts) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
      out += (i > 0 ? " " : "") + parts[i];
    }
    return out;
  };
  const auto title = stems(t.title);
  const auto meta =
      stems(t.summary + " " + joined(t.tags) + " " + t.note + " " + joined(t.projectTags));
  const auto address = stems(t.url);
  const auto text = stems(unicode::graphemePrefix(t.text, 6000));
  const std::string titleString = unicode::toLower(t.title);
  const std::string metaString = unicode::toLower(t.summary + " " + joined(t.tags) + " " + t.note);
  double sum = 0.0;
  for (const std::string& term : terms) {
    if (title.count(term) != 0) {
      sum += 1.0f;
    } else if (meta.count(term) != 0) {
      sum += 0.8f;
    } else if (address.count(term) != 0) {
      sum += 0.6f;
    } else if (text.count(term) != 0) {
      sum += 0.4f;
    } else if (unicode::graphemeCount(term) >= 5) {
      std::string root = term;
      bool cut = false;
      for (std::string ending : {"en", "er", "es", "e", "n", "s"}) {
        if (term.ends_with(ending)) {
          root = term.substr(0, term.size() - ending.size());
          cut = true;
          break;
        }
      }
      if (cut && unicode::graphemeCount(root) < 4) {
        continue;
      }
      if (titleString.find(root) != std::string::npos) {
        sum += 0.7f;
      } else if (metaString.find(root) != std::string::npos) {
        sum += 0.5f;
      }
    }
  }
  return static_cast<float>(sum) / static_cast<float>(terms.size());
}

TEST(SearchQueryTerms, StemsWithoutStopWords) {
  EXPECT_EQ(SearchIndex::queryTerms("  Projekte und Kurse, die Projekten!\n"),
            (std::set<std::string>{"projek", "kurse"}));
  EXPECT_TRUE(SearchIndex::queryTerms("und die a").empty());
}

TEST(SearchKeywordScore, FieldWeights) {
  const std::set<std::string> kaffee = {"kaffee"};
  SavedTab t = tab(1, "Kaffee rösten");
  EXPECT_EQ(SearchIndex::keywordScore(kaffee, t), 1.0f);
  t.title = "Rösten";
  t.summary = "Alles über Kaffee.";
  EXPECT_EQ(SearchIndex::keywordScore(kaffee, t), 0.8f);
  t.summary = "";
  t.url = "https://example.org/kaffee-bohnen";
  EXPECT_EQ(SearchIndex::keywordScore(kaffee, t), 0.6f);
  t.url = "https://example.org/";
  t.text = "Wie man Kaffee röstet.";
  EXPECT_EQ(SearchIndex::keywordScore(kaffee, t), 0.4f);
  t.text = "";
  EXPECT_EQ(SearchIndex::keywordScore(kaffee, t), 0.0f);
  EXPECT_EQ(SearchIndex::keywordScore({}, tab(1, "Kaffee")), 0.0f);
}

TEST(SearchKeywordScore, MeanOverTerms) {
  SavedTab t = tab(1, "Kaffee");
  t.text = "Bohnen aus Kolumbien";
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee", "bohnen", "tee"}, t),
            static_cast<float>(1.0 + static_cast<double>(0.4f)) / 3.0f);
}

TEST(SearchKeywordScore, StemsAndRoots) {
  // Projekte → projek, an exact title term of Projektplan.
  EXPECT_EQ(SearchIndex::keywordScore(SearchIndex::queryTerms("Projekte"), tab(1, "Projektplan")),
            1.0f);
  // Kurse → kurse, root kurs, part of the title Kursplan.
  EXPECT_EQ(SearchIndex::keywordScore(SearchIndex::queryTerms("Kurse"), tab(1, "Kursplan")), 0.7f);
  SavedTab meta = tab(2, "Anderes");
  meta.tags = {"Kursplan"};
  EXPECT_EQ(SearchIndex::keywordScore({"kurse"}, meta), 0.5f);
  // Project tags count as meta terms, but not for the root rule.
  SavedTab projects = tab(3, "Anderes");
  projects.projectTags = {"Kurse", "Kursplan"};
  EXPECT_EQ(SearchIndex::keywordScore({"kurse"}, projects), 0.8f);
  EXPECT_EQ(SearchIndex::keywordScore({"kursp"}, projects), 0.0f);
  // An exact text term beats the root rule even though it is worth less.
  SavedTab both = tab(4, "Kursplan");
  both.text = "Kurse für alle";
  EXPECT_EQ(SearchIndex::keywordScore({"kurse"}, both), 0.4f);
  // Short terms and short roots get nothing from the root rule.
  EXPECT_EQ(SearchIndex::keywordScore({"kur"}, tab(5, "Kursplan")), 0.0f);
  EXPECT_EQ(SearchIndex::keywordScore({"daten"}, tab(6, "Datbank")), 0.0f);
}

TEST(SearchKeywordScore, StopWordsInFieldsDoNotMatch) {
  // "zusammenfassung" is a stop word whose stem is zusamm.
  SavedTab t = tab(1, "Zusammenfassung");
  EXPECT_EQ(SearchIndex::keywordScore({"zusamm"}, t), 0.7f);  // root rule only
  t.title = "Zusammenarbeit";
  EXPECT_EQ(SearchIndex::keywordScore({"zusamm"}, t), 1.0f);
}

TEST(SearchKeywordScore, OnlyThe6000FirstCharactersOfText) {
  SavedTab t = tab(1, "Titel");
  t.text = std::string(5995, '.') + " kaffee";
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee"}, t), 0.0f);
  t.text = std::string(5993, '.') + " kaffee";
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee"}, t), 0.4f);
  // With umlauts the count is in characters, not bytes.
  std::string umlauts;
  for (int i = 0; i < 5993; ++i) {
    umlauts += "\xC3\xA4";
  }
  t.text = umlauts + " kaffee";
  EXPECT_EQ(SearchIndex::keywordScore({"kaffee"}, t), 0.4f);
}

TEST(SearchKeywordScore, AgreesWithTheDirectRules) {
  const std::vector<std::string> vocabulary = {
      "Kaffee",   "Kurse",    "Kursplan",     "Projekte", "Projektplan", "und",   "Zusammenfassung",
      "Rösterei", "RÖSTEREI", "Bohnen",       "Tee",      "Datenbank",   "daten", "İstanbul",
      "ΚΑΦΕΣ",    "café",     "cafe\xCC\x81", "2024",     "e",           "Übung", "übungen",
      "Straße",   "x"};
  std::mt19937 rng(7);
  auto phrase = [&](int words) {
    std::string out;
    for (int i = 0; i < words; ++i) {
      out += vocabulary[rng() % vocabulary.size()];
      out += (rng() % 4 == 0) ? "-" : " ";
    }
    return out;
  };
  for (int round = 0; round < 600; ++round) {
    SavedTab t = tab(round, phrase(static_cast<int>(rng() % 4)));
    t.summary = phrase(static_cast<int>(rng() % 4));
    t.tags = {phrase(1), phrase(1)};
    t.note = phrase(static_cast<int>(rng() % 2));
    if (rng() % 2 == 0) {
      t.projectTags = {phrase(1)};
    }
    t.url = "https://example.org/" + phrase(static_cast<int>(rng() % 3));
    t.text = phrase(static_cast<int>(rng() % 12));
    const auto terms = SearchIndex::queryTerms(phrase(1 + static_cast<int>(rng() % 4)));
    EXPECT_EQ(SearchIndex::keywordScore(terms, t), referenceKeywordScore(terms, t))
        << t.title << " | " << t.text;
  }
}

TEST(SearchHits, BlankQueryEmptyLibraryAndLimits) {
  SearchIndex index(bagOnly());
  LibraryData data;
  EXPECT_TRUE(index.hits("Kaffee", data, 10).empty());
  data.tabs = {tab(1, "Kaffee"), tab(2, "Kaffee Bohnen"), tab(3, "Tee")};
  EXPECT_TRUE(index.hits("   \n\t", data, 10).empty());
  EXPECT_TRUE(index.hits("Kaffee", data, 0).empty());
  EXPECT_TRUE(index.hits("Kaffee", data, -3).empty());
  EXPECT_EQ(index.hits("Kaffee", data, 100).size(), 2U);
  EXPECT_EQ(index.hits("Kaffee", data, 1).size(), 1U);
  EXPECT_EQ(index.search("Kaffee", data, 100).size(), 2U);
}

TEST(SearchHits, StopWordOnlyQuery) {
  LibraryData data;
  data.tabs = {tab(1, "und oder Kaffee")};
  // Without semantic vectors the query vector is zero and there are no terms.
  EXPECT_TRUE(SearchIndex(bagOnly()).hits("und", data, 10).empty());

  // With a semantic part the meaning alone counts.
  FakePlatform platform;
  auto model = std::make_shared<FakeModel>(Semantic::sentence, 2);
  model->answer = std::vector<float>{1.0f, 0.0f};
  platform.sentence["de"] = model;
  auto embedder = std::make_shared<Embedder>(true, platform.env);
  const auto hits = SearchIndex(embedder).hits("und", data, 10);
  ASSERT_EQ(hits.size(), 1U);
  // Query: semantic (0.7746, 0) and no bag; tab: 0.7746 semantic and 0.6325 bag.
  const auto q = embedder->vector("und");
  const auto v = embedder->vector(data.tabs[0].searchableText());
  EXPECT_EQ(hits[0].score, Embedder::cosine(q, v) * 0.55f);
  EXPECT_NEAR(hits[0].score, 0.7746f * 0.55f, 1e-3f);
}

TEST(SearchHits, ExactScoresFromCachedVectors) {
  auto embedder = bagOnly();
  LibraryData data;
  data.embedderKind = embedder->kind();
  data.tabs = {tab(1, "Kaffee"), tab(2, "Kaffee"), tab(3, "Anderes")};
  const auto q = embedder->vector("Kaffee");
  data.embeddings[data.tabs[0].id.string()] = q;
  data.embeddings[data.tabs[1].id.string()] = std::vector<float>(256, 0.0f);
  // Opposite direction: a negative cosine counts as 0.
  std::vector<float> opposite = q;
  for (float& x : opposite) {
    x = -x;
  }
  data.embeddings[data.tabs[2].id.string()] = opposite;
  const auto hits = SearchIndex(embedder).hits("Kaffee", data, 10);
  ASSERT_EQ(hits.size(), 2U);
  EXPECT_EQ(hits[0].tab.id, data.tabs[0].id);
  EXPECT_EQ(hits[0].score, 0.55f + 0.45f);
  EXPECT_EQ(hits[1].tab.id, data.tabs[1].id);
  EXPECT_EQ(hits[1].score, 0.45f);
}

TEST(SearchHits, CacheOfAnotherKindIsIgnoredAndNotChanged) {
  auto embedder = bagOnly();
  LibraryData data;
  data.embedderKind = "sentence-2+bow256";
  data.tabs = {tab(1, "Kaffee")};
  data.embeddings[data.tabs[0].id.string()] = std::vector<float>(258, 0.0f);
  const LibraryData before = data;
  const auto hits = SearchIndex(embedder).hits("Kaffee", data, 10);
  ASSERT_EQ(hits.size(), 1U);
  const float onTheFly =
      Embedder::cosine(embedder->vector("Kaffee"), embedder->vector(data.tabs[0].searchableText()));
  EXPECT_EQ(hits[0].score, onTheFly * 0.55f + 0.45f);
  EXPECT_EQ(data, before);
}

TEST(SearchHits, CachedVectorsAreTrustedEvenWhenStale) {
  auto embedder = bagOnly();
  LibraryData data;
  data.embedderKind = embedder->kind();
  data.tabs = {tab(1, "Tee")};
  // The cache says "Kaffee" although the title changed since.
  data.embeddings[data.tabs[0].id.string()] = embedder->vector("Kaffee");
  const auto hits = SearchIndex(embedder).hits("Kaffee", data, 10);
  ASSERT_EQ(hits.size(), 1U);
  EXPECT_EQ(hits[0].score, 0.55f);
  // A cached vector of the wrong length contributes nothing.
  data.embeddings[data.tabs[0].id.string()] = {1.0f};
  EXPECT_TRUE(SearchIndex(embedder).hits("Kaffee", data, 10).empty());
}

TEST(SearchHits, TitleOutranksSummary) {
  auto embedder = bagOnly();
  LibraryData data;
  data.embedderKind = embedder->kind();
  SavedTab inSummary = tab(1, "Rösterei");
  inSummary.summary = "Kaffee";
  data.tabs = {inSummary, tab(2, "Kaffee")};
  for (const SavedTab& t : data.tabs) {
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  }
  const auto hits = SearchIndex(embedder).hits("Kaffee", data, 10);
  ASSERT_EQ(hits.size(), 2U);
  EXPECT_EQ(hits[0].tab.id, idNumber(2));
  EXPECT_EQ(hits[0].score, 0.45f);
  EXPECT_EQ(hits[1].score, 0.8f * 0.45f);
}

TEST(SearchHits, TiesNewestFirstThenLibraryOrder) {
  auto embedder = bagOnly();
  LibraryData data;
  data.embedderKind = embedder->kind();
  data.tabs = {tab(1, "Kaffee", 100), tab(2, "Kaffee", 300), tab(3, "Kaffee", 200),
               tab(4, "Kaffee", 300)};
  for (const SavedTab& t : data.tabs) {
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  }
  const auto hits = SearchIndex(embedder).hits("Kaffee", data, 10);
  std::vector<Uuid> order;
  for (const auto& hit : hits) {
    order.push_back(hit.tab.id);
  }
  EXPECT_EQ(order, (std::vector<Uuid>{idNumber(2), idNumber(4), idNumber(3), idNumber(1)}));
  const auto two = SearchIndex(embedder).hits("Kaffee", data, 2);
  ASSERT_EQ(two.size(), 2U);
  EXPECT_EQ(two[0].tab.id, idNumber(2));
  EXPECT_EQ(two[1].tab.id, idNumber(4));
}

TEST(SearchHits, ThresholdIsStrict) {
  auto embedder = bagOnly();
  LibraryData data;
  data.embedderKind = embedder->kind();
  // One term of 11 found in the text: 0.4 / 11 × 0.45 ≈ 0.0164, no hit.
  SavedTab weak = tab(1, "Titel");
  weak.text = "kaffee";
  data.tabs = {weak};
  data.embeddings[weak.id.string()] = std::vector<float>(256, 0.0f);
  EXPECT_TRUE(SearchIndex(embedder)
                  .hits("kaffee eins zwei drei vier fünf sechs sieben acht neun zehn", data, 10)
                  .empty());
  EXPECT_EQ(SearchIndex(embedder).hits("kaffee", data, 10).size(), 1U);
}

TEST(SearchHits, SmallLimitsGiveThePrefixOfTheFullRanking) {
  // Many ties and near-ties: the bounded search must return exactly the head of the full order.
  auto embedder = bagOnly();
  const std::vector<std::string> words = {"Kaffee",  "Bohnen", "Tee",      "Kurse", "Kursplan",
                                          "Projekt", "Garten", "Rösterei", "Milch", "Zucker"};
  std::mt19937 rng(99);
  LibraryData data;
  data.embedderKind = embedder->kind();
  for (int i = 0; i < 400; ++i) {
    auto pick = [&] { return words[rng() % words.size()]; };
    SavedTab t = tab(i, pick() + " " + pick(), 1000 + static_cast<std::int64_t>(rng() % 5));
    t.summary = pick();
    t.text = pick() + " " + pick() + " " + pick();
    data.tabs.push_back(t);
  }
  Embedder& e = *embedder;
  for (std::size_t i = 0; i < data.tabs.size(); i += 2) {
    data.embeddings[data.tabs[i].id.string()] = e.vector(data.tabs[i].searchableText());
  }
  SearchIndex index(embedder);
  for (const char* query : {"Kaffee Bohnen", "Kurse", "Rösterei Garten Tee", "Milch"}) {
    const auto all = index.hits(query, data, 1000);
    ASSERT_FALSE(all.empty());
    for (std::size_t i = 1; i < all.size(); ++i) {
      ASSERT_TRUE(
          all[i - 1].score > all[i].score ||
          (all[i - 1].score == all[i].score && all[i - 1].tab.savedAt >= all[i].tab.savedAt));
    }
    for (std::int64_t limit : {1, 3, 10, 50}) {
      const auto head = index.hits(query, data, limit);
      ASSERT_EQ(head.size(), std::min<std::size_t>(static_cast<std::size_t>(limit), all.size()));
      for (std::size_t i = 0; i < head.size(); ++i) {
        EXPECT_EQ(head[i], all[i]) << query << " limit " << limit << " at " << i;
      }
    }
  }
}

}  // namespace
}  // namespace kestrova
