#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/ai.h>
#include <kestrova/topic_clusterer.h>

#include "support/scripted_model.h"

namespace kestrova {
namespace {

using testing::ModelScope;
using testing::ScriptedModel;

// A library whose tab vectors are given by the test: they sit in the cache under the embedder's
// kind, so the clusterer takes them as they are.
class HandMadeLibrary {
 public:
  HandMadeLibrary() { data.embedderKind = embedder->kind(); }

  SavedTab& add(const std::string& url, std::vector<float> vector, std::string title = "Uno") {
    SavedTab tab;
    tab.id = Uuid::random();
    tab.url = url;
    tab.domain = SavedTab::domainOf(url);
    tab.title = std::move(title);
    data.embeddings[tab.id.string()] = std::move(vector);
    data.tabs.push_back(std::move(tab));
    return data.tabs.back();
  }

  void cluster(bool useAI = false, Env& env = Env::real()) {
    TopicClusterer(embedder, env).cluster(data, useAI);
  }

  // The urls of a topic's tabs, in the topic's order.
  std::vector<std::string> urls(const Topic& topic) const {
    std::vector<std::string> out;
    for (const Uuid& id : topic.tabIds) {
      out.push_back(data.tab(id)->url);
    }
    return out;
  }

  std::shared_ptr<Embedder> embedder = std::make_shared<Embedder>(false);
  LibraryData data;
};

// Every tab is listed by exactly one topic, and its topicId names that topic.
void expectConsistent(const LibraryData& data) {
  std::map<Uuid, Uuid> listedIn;
  for (const Topic& topic : data.topics) {
    for (const Uuid& id : topic.tabIds) {
      EXPECT_TRUE(listedIn.emplace(id, topic.id).second) << "listed twice: " << id.string();
    }
  }
  for (const SavedTab& tab : data.tabs) {
    ASSERT_TRUE(listedIn.count(tab.id)) << tab.url;
    EXPECT_EQ(tab.topicId, listedIn[tab.id]) << tab.url;
  }
  EXPECT_EQ(listedIn.size(), data.tabs.size());
  for (std::size_t i = 0; i < data.topics.size(); ++i) {
    const Topic& topic = data.topics[i];
    if (topic.isUnsorted) {
      EXPECT_EQ(i + 1, data.topics.size()) << "the unsorted topic is last";
      EXPECT_EQ(topic.color, "grau");
      EXPECT_EQ(topic.name, "Ohne klares Thema");
    } else {
      EXPECT_GE(topic.tabIds.size(), 2u);
      EXPECT_EQ(topic.color, TopicPalette::colors[i % 12]);
    }
  }
}

// What a user sees of the topics: names, colours, order and the urls of their tabs.
struct TopicView {
  std::string name;
  std::string color;
  bool isUnsorted;
  std::vector<std::string> urls;
  bool operator==(const TopicView&) const = default;
};

std::vector<TopicView> view(const LibraryData& data) {
  std::vector<TopicView> out;
  for (const Topic& topic : data.topics) {
    TopicView v{topic.name, topic.color, topic.isUnsorted, {}};
    for (const Uuid& id : topic.tabIds) {
      v.urls.push_back(data.tab(id)->url);
    }
    out.push_back(std::move(v));
  }
  return out;
}

TEST(TopicClustererCluster, EmptyLibraryGetsNoTopicsAndKeepsTopicsByAI) {
  for (bool byAI : {true, false}) {
    HandMadeLibrary library;
    library.data.topics.push_back(Topic{Uuid::random(), "Alt", "rot", {}, false});
    library.data.topicsByAI = byAI;
    library.cluster(!byAI);  // the opposite request, so it cannot explain the kept value
    EXPECT_TRUE(library.data.topics.empty()) << byAI;
    EXPECT_EQ(library.data.topicsByAI, byAI);
  }
}

TEST(TopicClustererCluster, OneTabIsUnsorted) {
  HandMadeLibrary library;
  library.add("https://a.example/1", {1, 0, 0}).topicId = Uuid::random();
  library.cluster();
  ASSERT_EQ(library.data.topics.size(), 1u);
  const Topic& topic = library.data.topics[0];
  EXPECT_TRUE(topic.isUnsorted);
  EXPECT_EQ(topic.name, "Ohne klares Thema");
  EXPECT_EQ(topic.color, "grau");
  EXPECT_EQ(library.data.tabs[0].topicId, topic.id);
}

TEST(TopicClustererCluster, TwoOrThreeNearIdenticalTabsFormOneTopic) {
  HandMadeLibrary library;
  library.add("https://b.example/2", {0.99f, 0.05f, 0}, "Rezepte mit Gemüse");
  library.add("https://a.example/1", {1, 0, 0}, "Rezepte für Pasta");
  library.cluster();
  ASSERT_EQ(library.data.topics.size(), 1u);
  EXPECT_EQ(library.data.topics[0].name, "Rezepte & Gemüse");
  EXPECT_EQ(library.data.topics[0].color, "gelb");
  EXPECT_FALSE(library.data.topics[0].isUnsorted);
  EXPECT_EQ(library.urls(library.data.topics[0]),
            (std::vector<std::string>{"https://a.example/1", "https://b.example/2"}));

  library.add("https://c.example/3", {0.98f, 0, 0.1f});
  library.cluster();
  ASSERT_EQ(library.data.topics.size(), 1u);
  EXPECT_EQ(library.data.topics[0].tabIds.size(), 3u);
  expectConsistent(library.data);
}

TEST(TopicClustererCluster, UnrelatedThirdTabMovesToUnsorted) {
  HandMadeLibrary library;
  library.add("https://a.example/1", {1, 0, 0});
  library.add("https://b.example/2", {1, 0.05f, 0});
  // Its cosine to the centroid of all three is about 0, below 0.12.
  library.add("https://c.example/3", {-0.5f, 0, 0.866f});
  library.cluster();
  ASSERT_EQ(library.data.topics.size(), 2u);
  EXPECT_EQ(library.urls(library.data.topics[0]),
            (std::vector<std::string>{"https://a.example/1", "https://b.example/2"}));
  EXPECT_TRUE(library.data.topics[1].isUnsorted);
  EXPECT_EQ(library.urls(library.data.topics[1]),
            (std::vector<std::string>{"https://c.example/3"}));
  expectConsistent(library.data);
}

TEST(TopicClustererCluster, SingletonCorrectionKeepsTwoTopics) {
  // Seven tabs aim at two clusters. Merging down to two joins A and B (similarity 0.5) and leaves
  // s alone; because only one real topic came out, the run is repeated aiming at three, which
  // keeps A and B apart. s then goes to the unsorted topic.
  HandMadeLibrary library;
  for (int i = 0; i < 3; ++i) {
    library.add("https://a.example/" + std::to_string(i), {1, 0.01f * static_cast<float>(i), 0});
    library.add("https://b.example/" + std::to_string(i), {0.5f, 0.866f, 0.01f * i});
  }
  library.add("https://s.example/", {0.11f, -0.0635f, 0.9919f});
  const TopicClusterer clusterer(library.embedder);
  std::vector<std::vector<float>> inOrder;
  for (const char* host : {"a", "b"}) {
    for (const SavedTab& tab : library.data.tabs) {
      if (tab.domain == std::string(host) + ".example") {
        inOrder.push_back(library.data.embeddings[tab.id.string()]);
      }
    }
  }
  inOrder.push_back({0.11f, -0.0635f, 0.9919f});
  ASSERT_EQ(clusterer.agglomerative(inOrder, 2).clusters.size(), 2u);  // {A + B}, {s}

  library.cluster();
  ASSERT_EQ(library.data.topics.size(), 3u);
  EXPECT_EQ(library.urls(library.data.topics[0]),
            (std::vector<std::string>{"https://a.example/0", "https://a.example/1",
                                      "https://a.example/2"}));
  EXPECT_EQ(library.urls(library.data.topics[1]),
            (std::vector<std::string>{"https://b.example/0", "https://b.example/1",
                                      "https://b.example/2"}));
  EXPECT_EQ(library.urls(library.data.topics[2]), (std::vector<std::string>{"https://s.example/"}));
  expectConsistent(library.data);
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
  library.cluster();
  ASSERT_EQ(library.data.topics.size(), 14u);
  expectConsistent(library.data);
  EXPECT_EQ(library.urls(library.data.topics[0]).size(), 3u);
  EXPECT_EQ(library.urls(library.data.topics[0])[0], "https://t07.example/a");
  EXPECT_EQ(library.urls(library.data.topics[1])[0], "https://t00.example/a");
  EXPECT_EQ(library.urls(library.data.topics[12])[0], "https://t12.example/a");
  EXPECT_EQ(library.data.topics[12].color, "gelb");
  EXPECT_EQ(library.data.topics[11].color, "indigo");
  EXPECT_TRUE(library.data.topics[13].isUnsorted);
  EXPECT_EQ(library.urls(library.data.topics[13]),
            (std::vector<std::string>{"https://zz.example/"}));
}

// Pages on five themes, embedded by the real bag-of-words embedder.
LibraryData themedLibrary() {
  const std::vector<std::vector<std::string>> themes = {
      {"Rezepte", "Pasta mit Tomaten und Basilikum kochen, Rezepte für Teigwaren und Sauce"},
      {"Velotouren", "Velotouren im Jura, Routen mit Steigung, Velo Karte und Etappen"},
      {"Steuererklärung", "Steuererklärung Kanton Zürich, Abzüge, Formulare und Fristen"},
      {"Kubernetes", "Kubernetes Cluster, Pods, Deployment und Container Konfiguration"},
      {"Gartenarbeit", "Gartenarbeit im Frühling, Tomaten pflanzen, Kompost und Beete"}};
  LibraryData data;
  for (std::size_t t = 0; t < themes.size(); ++t) {
    for (int i = 0; i < 8; ++i) {
      SavedTab tab;
      tab.id = Uuid::random();
      tab.url = "https://" + themes[t][0] + ".example/" + std::to_string(i);
      tab.domain = SavedTab::domainOf(tab.url);
      tab.title = themes[t][0] + " Seite " + std::to_string(i);
      tab.text = themes[t][1] + " Teil " + std::to_string(i);
      tab.summary = themes[t][1];
      data.tabs.push_back(std::move(tab));
    }
  }
  return data;
}

TEST(TopicClustererDeterminism, ShuffledTabsGiveTheSameTopics) {
  const auto embedder = std::make_shared<Embedder>(false);
  const TopicClusterer clusterer(embedder);
  LibraryData original = themedLibrary();
  clusterer.cluster(original, false);
  expectConsistent(original);
  EXPECT_GE(original.topics.size(), 3u);
  std::mt19937 shuffle(42);
  for (int round = 0; round < 3; ++round) {
    LibraryData shuffled = themedLibrary();
    std::shuffle(shuffled.tabs.begin(), shuffled.tabs.end(), shuffle);
    clusterer.cluster(shuffled, false);
    EXPECT_EQ(view(shuffled), view(original)) << "round " << round;
  }
  // Running again on the same data changes nothing but the ids.
  LibraryData again = original;
  clusterer.cluster(again, false);
  EXPECT_EQ(view(again), view(original));
  EXPECT_NE(again.topics[0].id, original.topics[0].id);
}

TEST(TopicClustererDeterminism, KMeansAboveFourHundredTabs) {
  HandMadeLibrary library;
  std::mt19937 random(7);
  std::normal_distribution<float> noise(0.0f, 0.35f);
  std::vector<std::vector<float>> centres(6, std::vector<float>(24));
  for (auto& centre : centres) {
    for (float& x : centre) {
      x = noise(random) * 3.0f;
    }
  }
  for (int i = 0; i < 450; ++i) {
    std::vector<float> v = centres[static_cast<std::size_t>(i % 6)];
    for (float& x : v) {
      x += noise(random);
    }
    library.add("https://g" + std::to_string(i % 6) + ".example/" + std::to_string(i), v,
                "Gruppe" + std::to_string(i % 6));
  }
  library.cluster();
  expectConsistent(library.data);
  EXPECT_LE(library.data.topics.size(), 13u);
  // k-means never mixes well separated groups.
  for (const Topic& topic : library.data.topics) {
    if (!topic.isUnsorted) {
      std::set<std::string> hosts;
      for (const std::string& url : library.urls(topic)) {
        hosts.insert(SavedTab::domainOf(url));
      }
      EXPECT_EQ(hosts.size(), 1u) << topic.name;
    }
  }
  const auto before = view(library.data);
  std::shuffle(library.data.tabs.begin(), library.data.tabs.end(), random);
  library.cluster();
  EXPECT_EQ(view(library.data), before);
}

TEST(TopicClustererCluster, DamagedVectorsDoNotBreakIt) {
  HandMadeLibrary library;
  library.add("https://a.example/1", {1, 0, 0});
  library.add("https://a.example/2", {1, 0.1f, 0});
  library.add("https://a.example/3", {NAN, 1, 0});
  library.add("https://a.example/4", {1, 0});  // wrong length
  library.add("https://a.example/5", {});
  library.add("https://b.example/1", {0, 1, 0});
  library.add("https://b.example/2", {0, 1, INFINITY});
  library.add("https://b.example/3", {0, 1, 0.1f});
  library.cluster();
  expectConsistent(library.data);
  ASSERT_EQ(library.data.topics.size(), 3u);
  EXPECT_EQ(library.urls(library.data.topics[2]),
            (std::vector<std::string>{"https://a.example/3", "https://a.example/4",
                                      "https://a.example/5", "https://b.example/2"}));
}

// Two clear topics of three tabs each.
HandMadeLibrary twoTopics() {
  HandMadeLibrary library;
  for (int i = 0; i < 3; ++i) {
    library.add("https://reise.example/" + std::to_string(i), {1, 0.01f * i, 0},
                "Reisen nach Rom " + std::to_string(i));
    library.add("https://kochen.example/" + std::to_string(i), {0, 1, 0.01f * i},
                "Rezepte Pasta " + std::to_string(i));
  }
  return library;
}

TEST(TopicClustererNaming, ModelNamesTopicsAndFallbackFillsGaps) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "«Kochen.»"}}));
  scope.model().then(ScriptedModel::nothing());
  HandMadeLibrary library = twoTopics();
  library.cluster(true, scope.env());
  ASSERT_EQ(library.data.topics.size(), 2u);
  EXPECT_EQ(library.data.topics[0].name, "Kochen");
  EXPECT_EQ(library.data.topics[1].name, "Reisen · reise.example");
  EXPECT_TRUE(library.data.topicsByAI);
  const auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_NE(requests[0].prompt.find("\n- Rezepte Pasta 0 (kochen.example): \n- Rezepte Pasta 1"),
            std::string::npos);
  EXPECT_NE(requests[1].prompt.find("- Reisen nach Rom 2 (reise.example): "), std::string::npos);
}

TEST(TopicClustererNaming, WithoutTheModelAllNamesAreFallbacks) {
  ModelScope scope;
  HandMadeLibrary library = twoTopics();
  library.cluster(false, scope.env());
  EXPECT_FALSE(library.data.topicsByAI);
  EXPECT_EQ(library.data.topics[0].name, "Pasta & Rezepte");

  AIStatus::setForceOff(true);
  library.cluster(true, scope.env());
  EXPECT_FALSE(library.data.topicsByAI);
  AIStatus::setForceOff(false);

  scope.model().setAvailability(ModelAvailability::modelNotReady);
  library.cluster(true, scope.env());
  EXPECT_FALSE(library.data.topicsByAI);
  EXPECT_EQ(library.data.topics[0].name, "Pasta & Rezepte");
  EXPECT_TRUE(scope.model().requests().empty());
}

}  // namespace
}  // namespace kestrova
