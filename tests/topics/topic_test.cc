// Topics: the vector maths (exact results on hand-made input, the fast merge loop and k-means
// against their plain forms), clustering a library into named, coloured topics, and naming a topic
// by the model or by its keywords and domains.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/ai.h>
#include <kestrova/embedder.h>
#include <kestrova/topic_clusterer.h>

#include "support/scripted_model.h"
#include "topic_math.h"
#include "topic_naming.h"

namespace kestrova {
namespace {

using Vectors = std::vector<std::vector<float>>;
using Clusters = std::vector<TopicClusterer::Cluster>;

// The merge loop exactly as it reads: a full scan for the best pair (rows and columns ascending,
// replaced only by a strictly larger value) on every merge. The real one keeps per-row bests.
TopicClusterer::Agglomeration naiveAgglomerate(topics::SimilarityMatrix m, std::size_t k,
                                               float outlierSimilarity, float mergeFloor) {
  const std::size_t n = m.n;
  Clusters members(n);
  std::vector<bool> active(n, true);
  TopicClusterer::Agglomeration out;
  for (std::size_t i = 0; i < n; ++i) {
    float largest = -INFINITY;
    for (std::size_t j = 0; j < n; ++j)
      largest = j != i ? std::max(largest, m.at(i, j)) : largest;
    active[i] = largest >= outlierSimilarity;
    members[i] = active[i] ? Clusters::value_type{i} : Clusters::value_type{};
    if (!active[i])
      out.outliers.push_back(i);
  }
  while (static_cast<std::size_t>(std::count(active.begin(), active.end(), true)) > k) {
    bool found = false;
    std::size_t a = 0, b = 0;
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = i + 1; j < n; ++j) {
        if (active[i] && active[j] && (!found || m.at(i, j) > m.at(a, b)))
          std::tie(found, a, b) = std::tuple(true, i, j);
      }
    }
    if (!found || m.at(a, b) < mergeFloor)
      break;
    const float sa = static_cast<float>(members[a].size());
    const float sb = static_cast<float>(members[b].size());
    for (std::size_t x = 0; x < n; ++x) {
      if (active[x] && x != a && x != b)
        m.values[a * n + x] = m.values[x * n + a] = (m.at(a, x) * sa + m.at(b, x) * sb) / (sa + sb);
    }
    members[a].insert(members[a].end(), members[b].begin(), members[b].end());
    members[b].clear();
    active[b] = false;
  }
  for (auto& c : members) {
    if (!c.empty())
      out.clusters.push_back(c);
  }
  return out;
}

TEST(TopicClustererK, SquareRootOfHalfTheTabsBetweenTwoAndTwelve) {
  const std::vector<std::pair<std::int64_t, std::int64_t>> cases = {
      {-5, 2}, {8, 2}, {18, 3}, {24, 3}, {25, 4}, {50, 5}, {287, 12}, {1'000'000, 12}};
  for (const auto& [n, k] : cases)
    EXPECT_EQ(TopicClusterer::k(n), k) << n;
}

TEST(TopicAgglomerative, MatchesTheFullScanWhenValuesTie) {
  // Similarities from a handful of values, so that equal pairs and equal averages abound.
  const float levels[] = {0.0f, 0.05f, 0.25f, 0.5f, 0.75f};
  std::mt19937 random(11);
  for (int round = 0; round < 20; ++round) {
    const std::size_t n = 40;
    topics::SimilarityMatrix m{n, std::vector<float>(n * n, 0.0f)};
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = i + 1; j < n; ++j)
        m.values[i * n + j] = m.values[j * n + i] = levels[random() % 5];
    }
    for (std::size_t k : {1u, 3u, 12u}) {
      ASSERT_EQ(topics::agglomerate(m, k, 0.1f, 0.02f), naiveAgglomerate(m, k, 0.1f, 0.02f))
          << "round " << round << " k " << k;
    }
  }
  // All alike: the first pair wins every time and members keep merge order.
  EXPECT_EQ(topics::agglomerate({4, std::vector<float>(16, 0.5f)}, 1, 0.1f, 0.02f),
            (TopicClusterer::Agglomeration{{{0, 1, 2, 3}}, {}}));
}

TEST(TopicAgglomerative, KBelowOneCountsAsOneAndOrthogonalGroupsNeverMerge) {
  const TopicClusterer c(std::make_shared<Embedder>(false));
  EXPECT_EQ(c.agglomerative({{1, 0, 0}, {0, 1, 0}, {1, 0, 0}, {0, 1, 0}}, 0).clusters,
            (Clusters{{0, 2}, {1, 3}}));
}

TEST(TopicKMeans, FarthestPointSeedsTiesToTheFirstAndEmptyClustersDropped) {
  // Seeds: position 0, then the one least like it (4), then the one least like both (2).
  const Vectors vectors = {{1, 0.1f, 0}, {0.9f, 0, 0.1f}, {0, 1, 0}, {0, 0.1f, 1},
                           {0, 0, 1},    {0.1f, 1, 0},    {1, 0, 0}};
  const std::vector<std::tuple<Vectors, std::int64_t, Clusters>> cases = {
      {vectors, 3, {{0, 1, 6}, {3, 4}, {2, 5}}},
      {vectors, -3, {{0, 1, 2, 3, 4, 5, 6}}},
      {Vectors{}, 4, Clusters{}},
      {{{1, 0}, {0, 1}, {1, 1}}, 2, {{0, 2}, {1}}},      // (1, 1) as near to both
      {{{1, 0}, {0, -1}, {0, 1}}, 2, {{0, 2}, {1}}},     // seeding tie: the earliest
      {Vectors(5, {0.3f, 0.4f}), 3, {{0, 1, 2, 3, 4}}},  // identical seeds: empty ones
      {{{1, 0}, {0, 1}}, 12, {{0}, {1}}},                // more clusters than vectors
      {{{1, 0}, {0, 0}, {1, 0, 0}, {0.9f, 0.1f}, {0, 1}}, 2, {{0, 1, 2, 3, 4}}},  // mixed lengths
  };
  for (const auto& [input, k, expected] : cases)
    EXPECT_EQ(TopicClusterer::kMeans(input, k), expected) << k;
}

TEST(TopicKMeans, FastPathMatchesPlainForm) {
  std::mt19937 random(5);
  std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
  Vectors vectors(540, std::vector<float>(96));
  for (auto& v : vectors)
    std::generate(v.begin(), v.end(), [&] { return uniform(random); });
  for (std::size_t k : {2u, 7u, 12u})
    EXPECT_EQ(topics::kMeans(vectors, k), topics::kMeansScalar(vectors, k)) << k;
}

using testing::ModelScope;
using testing::ScriptedModel;
using Lines = std::vector<std::string>;

// A library whose tab vectors are given by the test: they sit in the cache under the embedder's
// kind, so the clusterer takes them as they are.
struct HandMadeLibrary {
  HandMadeLibrary() { data.embedderKind = embedder->kind(); }

  void add(const std::string& url, std::vector<float> vector, std::string title = "Uno") {
    data.tabs.push_back(makeSavedTab({.id = Uuid::random(), .url = url, .title = title}));
    data.embeddings[data.tabs.back().id.string()] = std::move(vector);
  }
  // Clusters, checks that each tab's topicId names the one topic listing it, and gives what a user
  // sees: per topic its name, colour and urls.
  Lines cluster(bool useAI = false, Env& env = Env::real()) {
    TopicClusterer(embedder, env).cluster(data, useAI);
    Lines out;
    std::size_t listed = 0;
    for (const Topic& topic : data.topics) {
      out.push_back(topic.name + "|" + topic.color);
      for (const Uuid& id : topic.tabIds) {
        out.back() += " " + data.tab(id)->url;
        EXPECT_EQ(data.tab(id)->topicId, topic.id) << data.tab(id)->url;
        ++listed;
      }
    }
    EXPECT_EQ(listed, data.tabs.size());
    return out;
  }

  std::shared_ptr<Embedder> embedder = std::make_shared<Embedder>(false);
  LibraryData data;
};

TEST(TopicClustererCluster, SmallLibrariesAndPruningToTheUnsortedTopic) {
  HandMadeLibrary library;  // an empty library gets no topics and keeps topicsByAI
  library.data.topics.push_back(Topic{Uuid::random(), "Alt", "rot", {}, false});
  library.data.topicsByAI = true;
  EXPECT_EQ(library.cluster(false), Lines{});
  EXPECT_TRUE(library.data.topicsByAI);
  library.add("https://b.example/2", {0.99f, 0.05f, 0}, "Rezepte mit Gemüse");
  EXPECT_EQ(library.cluster(), (Lines{"Ohne klares Thema|grau https://b.example/2"}));
  library.add("https://a.example/1", {1, 0, 0}, "Rezepte für Pasta");
  EXPECT_EQ(library.cluster(),
            (Lines{"Rezepte & Gemüse|gelb https://a.example/1 https://b.example/2"}));
  // Up to three tabs form one cluster; this one's cosine to the centroid is about 0, below 0.12.
  library.add("https://c.example/3", {-0.5f, 0, 0.866f});
  EXPECT_EQ(library.cluster(),
            (Lines{"Rezepte & Gemüse|gelb https://a.example/1 https://b.example/2",
                   "Ohne klares Thema|grau https://c.example/3"}));
}

TEST(TopicClustererCluster, SingletonCorrectionKeepsTwoTopics) {
  // Seven tabs aim at two clusters. Merging down to two joins A and B (similarity 0.5) and leaves
  // s alone; because only one real topic came out, the run is repeated aiming at three, which
  // keeps A and B apart. s then goes to the unsorted topic.
  HandMadeLibrary library;
  for (int i = 0; i < 3; ++i) {
    library.add("https://a/" + std::to_string(i), {1, 0.01f * i, 0});
    library.add("https://b/" + std::to_string(i), {0.5f, 0.866f, 0.01f * i});
  }
  library.add("https://s/", {0.11f, -0.0635f, 0.9919f});
  const Lines topics = library.cluster();
  ASSERT_EQ(topics.size(), 3u);
  EXPECT_TRUE(topics[0].ends_with(" https://a/0 https://a/1 https://a/2"));
  EXPECT_TRUE(topics[1].ends_with(" https://b/0 https://b/1 https://b/2"));
  EXPECT_EQ(topics[2], "Ohne klares Thema|grau https://s/");
}

TEST(TopicClustererCluster, BiggerTopicsFirstAndColoursRepeatAfterTwelve) {
  HandMadeLibrary library;
  auto unit = [](std::size_t axis, float length) {
    std::vector<float> v(16, 0.0f);
    v[axis] = length;
    return v;
  };
  // Thirteen pairs on thirteen axes; pair 07 gets a third member and so comes first.
  for (std::size_t i = 0; i < 13; ++i) {
    const std::string host = "https://t" + std::string(i < 10 ? "0" : "") + std::to_string(i);
    library.add(host + ".example/a", unit(i, 1.0f));
    library.add(host + ".example/b", unit(i, 2.0f));
  }
  library.add("https://t07.example/c", unit(7, 0.5f));
  library.add("https://zz.example/", unit(15, 1.0f));  // like nothing else
  const Lines topics = library.cluster();
  ASSERT_EQ(topics.size(), 14u);
  EXPECT_EQ(topics[0],
            "t07.example|gelb https://t07.example/a https://t07.example/b https://t07.example/c");
  EXPECT_EQ(topics[1], "t00.example|blau https://t00.example/a https://t00.example/b");
  EXPECT_EQ(topics[12], "t12.example|gelb https://t12.example/a https://t12.example/b");
  EXPECT_EQ(topics[13], "Ohne klares Thema|grau https://zz.example/");
}

TEST(TopicClustererNaming, ModelNamesTopicsFallbackFillsGapsAndAnUnusableModelIsNotAsked) {
  ModelScope scope;
  HandMadeLibrary library;
  for (int i = 0; i < 3; ++i) {
    const std::string n = std::to_string(i);
    library.add("https://reise.example/" + n, {1, 0.01f * i, 0}, "Reisen nach Rom " + n);
    library.add("https://kochen.example/" + n, {0, 1, 0.01f * i}, "Rezepte Pasta " + n);
  }
  scope.model().then(ScriptedModel::answer(Json{{"name", "«Kochen.»"}}));
  scope.model().then(ScriptedModel::nothing());
  library.cluster(true, scope.env());
  ASSERT_EQ(library.data.topics.size(), 2u);
  EXPECT_EQ(library.data.topics[0].name, "Kochen");
  EXPECT_EQ(library.data.topics[1].name, "Reisen · reise.example");
  EXPECT_TRUE(library.data.topicsByAI);
  ASSERT_EQ(scope.model().requests().size(), 2u);  // one per topic, the bigger first
  library.cluster(false, scope.env());
  EXPECT_FALSE(library.data.topicsByAI);
  EXPECT_EQ(library.data.topics[0].name, "Pasta & Rezepte");
  scope.model().setAvailability(ModelAvailability::modelNotReady);
  library.cluster(true, scope.env());
  EXPECT_FALSE(library.data.topicsByAI);
  EXPECT_EQ(scope.model().requests().size(), 2u);
}

SavedTab tab(std::string title, std::string domain, std::vector<std::string> tags = {},
             std::string text = {}) {
  return makeSavedTab(
      {.id = Uuid::random(), .title = title, .domain = domain, .text = text, .tags = tags});
}

TEST(TopicFallbackName, KeywordsThenDomainsAndNeverEmpty) {
  const std::string filler(600, ' ');  // 600 characters without a keyword
  const std::vector<std::pair<std::vector<SavedTab>, std::string>> cases = {
      // Tags weigh like title words; the capitalised spelling is shown.
      {{tab("Uno", "a.ch", {"Velotour", "Alpen"}), tab("Due", "b.ch", {"velotouren"})},
       "Velotour & Alpen"},
      // A word in only one tab's text does not count; one keyword goes with the top domain.
      {{tab("Uno", "b.ch", {}, "Wanderung und Bergsteigen"), tab("Due", "a.ch", {}, "Bergsteigen")},
       "Bergsteigen · a.ch"},
      // Only the first 600 characters of a text are read.
      {{tab("Uno", "b.ch", {}, filler + "Bergsteigen"),
        tab("Due", "b.ch", {}, filler + "Bergsteigen")},
       "b.ch"},
      {{tab("Uno", "z.ch"), tab("Due", "a.ch")}, "a.ch · z.ch"},
      {{tab("Uno", "a.ch"), tab("Due", "z.ch"), tab("Tre", "z.ch"), tab("", "m.ch")},
       "z.ch · a.ch"},
      {{tab("", ""), tab("ok", "")}, "Unbenanntes Thema"},
  };
  for (const auto& [tabs, name] : cases)
    EXPECT_EQ(TopicClusterer::fallbackName(tabs), name);
}

TEST(TopicModelName, CleanUpTrimsListedCharactersAndKeepsFortyCharacters) {
  std::string forty;
  for (int i = 0; i < 40; ++i)
    forty += "u\u0308";  // one character as the user sees it
  const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
      {"«Reisen.»", "Reisen"},
      {" \"Kochen & Backen\"\n\n", "Kochen & Backen"},
      {"Web 2.0 Werkzeuge...", "Web 2.0 Werkzeuge"},
      {"\tRuhe'", "\tRuhe'"},  // a tab or an apostrophe stays
      {" « » \" ", std::nullopt},
      {"«" + forty + "»", forty},
      {forty + "x", std::nullopt},
  };
  for (const auto& [raw, clean] : cases)
    EXPECT_EQ(topics::cleanModelName(raw), clean) << raw;
}

TEST(TopicModelName, TheModelSeesTheFirstTwelveTabs) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "Reisen"}}));
  std::vector<SavedTab> tabs;
  for (int i = 1; i <= 13; ++i)
    tabs.push_back(tab("Titel " + std::to_string(i), "d" + std::to_string(i) + ".ch"));
  EXPECT_EQ(TopicClusterer::nameWithModel(tabs, {}, 5.0, scope.env()), "Reisen");
  const std::string prompt = scope.model().requests().at(0).prompt;
  EXPECT_TRUE(
      prompt.starts_with("Diese gespeicherten Tabs gehören zu einem Thema. Wie heisst das "
                         "Thema?\n- Titel 1 (d1.ch): \n- Titel 2 (d2.ch): "));
  EXPECT_TRUE(prompt.ends_with("\n- Titel 12 (d12.ch): "));
}

}  // namespace
}  // namespace kestrova
