#include <algorithm>
#include <cmath>
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
using Urls = std::vector<std::string>;

// A library whose tab vectors are given by the test: they sit in the cache under the embedder's
// kind, so the clusterer takes them as they are.
struct HandMadeLibrary {
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
  // Adds "https://<host>/<i>" for each vector.
  void addAll(const std::string& host, const std::vector<std::vector<float>>& vectors) {
    for (std::size_t i = 0; i < vectors.size(); ++i) {
      add("https://" + host + "/" + std::to_string(i), vectors[i]);
    }
  }
  // The urls of every topic, in order.
  std::vector<Urls> urls() const {
    std::vector<Urls> out;
    for (const Topic& topic : data.topics) {
      out.emplace_back();
      for (const Uuid& id : topic.tabIds) {
        out.back().push_back(data.tab(id)->url);
      }
    }
    return out;
  }
  // Every tab is listed by exactly one topic, its topicId names that topic, the unsorted topic is
  // last and grey, the others have two tabs or more and the palette colour of their place.
  void expectConsistent() const {
    std::map<Uuid, Uuid> listedIn;
    for (std::size_t i = 0; i < data.topics.size(); ++i) {
      const Topic& topic = data.topics[i];
      for (const Uuid& id : topic.tabIds) {
        EXPECT_TRUE(listedIn.emplace(id, topic.id).second) << "listed twice";
      }
      if (topic.isUnsorted) {
        EXPECT_EQ(i + 1, data.topics.size()) << "the unsorted topic is last";
        EXPECT_EQ(topic.color, "grau");
        EXPECT_EQ(topic.name, "Ohne klares Thema");
      } else {
        EXPECT_GE(topic.tabIds.size(), 2u);
        EXPECT_EQ(topic.color, TopicPalette::colors[i % 12]);
      }
    }
    EXPECT_EQ(listedIn.size(), data.tabs.size());
    for (const SavedTab& tab : data.tabs) {
      EXPECT_EQ(tab.topicId, listedIn[tab.id]) << tab.url;
    }
  }
  // What a user sees: names, colours and the urls of the topics, in order.
  std::vector<std::string> view() const {
    std::vector<std::string> out;
    const std::vector<Urls> all = urls();
    for (std::size_t i = 0; i < data.topics.size(); ++i) {
      out.push_back(data.topics[i].name + "|" + data.topics[i].color);
      for (const std::string& url : all[i]) {
        out.back() += " " + url;
      }
    }
    return out;
  }

  std::shared_ptr<Embedder> embedder = std::make_shared<Embedder>(false);
  LibraryData data;
};

TEST(TopicClustererCluster, SmallLibrariesAndPruningToTheUnsortedTopic) {
  for (bool byAI : {true, false}) {  // an empty library gets no topics and keeps topicsByAI
    HandMadeLibrary library;
    library.data.topics.push_back(Topic{Uuid::random(), "Alt", "rot", {}, false});
    library.data.topicsByAI = byAI;
    library.cluster(!byAI);  // the opposite request, so it cannot explain the kept value
    EXPECT_TRUE(library.data.topics.empty() && library.data.topicsByAI == byAI);
  }
  HandMadeLibrary library;
  library.add("https://b.example/2", {0.99f, 0.05f, 0}, "Rezepte mit Gemüse");
  library.cluster();
  EXPECT_EQ(library.view(), (Urls{"Ohne klares Thema|grau https://b.example/2"}));
  library.add("https://a.example/1", {1, 0, 0}, "Rezepte für Pasta");
  library.cluster();
  EXPECT_EQ(library.view(),
            (Urls{"Rezepte & Gemüse|gelb https://a.example/1 https://b.example/2"}));
  // Up to three tabs form one cluster; this one's cosine to the centroid is about 0, below 0.12.
  library.add("https://c.example/3", {-0.5f, 0, 0.866f});
  library.cluster();
  EXPECT_EQ(library.urls(), (std::vector<Urls>{{"https://a.example/1", "https://b.example/2"},
                                               {"https://c.example/3"}}));
  library.expectConsistent();
}

TEST(TopicClustererCluster, SingletonCorrectionKeepsTwoTopics) {
  // Seven tabs aim at two clusters. Merging down to two joins A and B (similarity 0.5) and leaves
  // s alone; because only one real topic came out, the run is repeated aiming at three, which
  // keeps A and B apart. s then goes to the unsorted topic.
  HandMadeLibrary library;
  library.addAll("a", {{1, 0, 0}, {1, 0.01f, 0}, {1, 0.02f, 0}});
  library.addAll("b", {{0.5f, 0.866f, 0}, {0.5f, 0.866f, 0.01f}, {0.5f, 0.866f, 0.02f}});
  library.addAll("s", {{0.11f, -0.0635f, 0.9919f}});
  library.cluster();
  EXPECT_EQ(library.urls(), (std::vector<Urls>{{"https://a/0", "https://a/1", "https://a/2"},
                                               {"https://b/0", "https://b/1", "https://b/2"},
                                               {"https://s/0"}}));
  library.expectConsistent();
}

TEST(TopicClustererCluster, BiggerTopicsFirstColoursRepeatAfterTwelveAndShuffleChangesNothing) {
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
  library.expectConsistent();
  EXPECT_EQ(library.urls()[0].size(), 3u);
  EXPECT_EQ(library.urls()[0][0], "https://t07.example/a");
  EXPECT_EQ(library.urls()[1][0], "https://t00.example/a");
  EXPECT_EQ(library.urls()[12][0], "https://t12.example/a");
  EXPECT_EQ(library.data.topics[11].color, "indigo");
  EXPECT_EQ(library.data.topics[12].color, "gelb");
  EXPECT_EQ(library.urls()[13], (Urls{"https://zz.example/"}));

  const auto before = library.view();
  const Uuid firstId = library.data.topics[0].id;
  std::shuffle(library.data.tabs.begin(), library.data.tabs.end(), std::mt19937(42));
  library.cluster();
  EXPECT_EQ(library.view(), before);
  EXPECT_NE(library.data.topics[0].id, firstId);  // only the ids are new
}

TEST(TopicClustererCluster, KMeansAboveFourHundredTabsNeverMixesSeparatedGroups) {
  HandMadeLibrary library;
  for (int i = 0; i < 401; ++i) {  // six groups on six axes, a little apart within
    std::vector<float> v(8, 0.0f);
    v[static_cast<std::size_t>(i % 6)] = 1.0f;
    v[6 + static_cast<std::size_t>(i % 2)] = 0.001f * static_cast<float>(i);
    library.add("https://g" + std::to_string(i % 6) + ".example/" + std::to_string(i), v);
  }
  library.cluster();
  library.expectConsistent();
  EXPECT_LE(library.data.topics.size(), 13u);
  const std::vector<Urls> all = library.urls();
  for (std::size_t t = 0; t < all.size(); ++t) {
    std::set<std::string> hosts;
    for (const std::string& url : all[t]) {
      hosts.insert(SavedTab::domainOf(url));
    }
    EXPECT_TRUE(hosts.size() == 1u || library.data.topics[t].isUnsorted) << t;
  }
}

TEST(TopicClustererCluster, DamagedVectorsGoToTheUnsortedTopic) {
  HandMadeLibrary library;
  library.addAll(
      "x",
      {{1, 0, 0}, {1, 0.1f, 0}, {NAN, 1, 0}, {1, 0}, {0, 1, 0}, {0, 1, INFINITY}, {0, 1, 0.1f}});
  library.cluster();
  library.expectConsistent();
  ASSERT_EQ(library.data.topics.size(), 3u);
  EXPECT_EQ(library.urls()[2], (Urls{"https://x/2", "https://x/3", "https://x/5"}));
}

TEST(TopicClustererNaming, ModelNamesTopicsFallbackFillsGapsAndAnUnusableModelIsNotAsked) {
  ModelScope scope;
  HandMadeLibrary library;
  for (int i = 0; i < 3; ++i) {
    library.add("https://reise.example/" + std::to_string(i), {1, 0.01f * i, 0},
                "Reisen nach Rom " + std::to_string(i));
    library.add("https://kochen.example/" + std::to_string(i), {0, 1, 0.01f * i},
                "Rezepte Pasta " + std::to_string(i));
  }
  scope.model().then(ScriptedModel::answer(Json{{"name", "«Kochen.»"}}));
  scope.model().then(ScriptedModel::nothing());
  library.cluster(true, scope.env());
  ASSERT_EQ(library.data.topics.size(), 2u);
  EXPECT_EQ(library.data.topics[0].name, "Kochen");
  EXPECT_EQ(library.data.topics[1].name, "Reisen · reise.example");
  EXPECT_TRUE(library.data.topicsByAI);
  ASSERT_EQ(scope.model().requests().size(), 2u);  // one per topic, the bigger first
  EXPECT_TRUE(
      scope.model().requests()[1].prompt.ends_with("- Reisen nach Rom 2 (reise.example): "));

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
  EXPECT_EQ(scope.model().requests().size(), 2u);
}

}  // namespace
}  // namespace kestrova
