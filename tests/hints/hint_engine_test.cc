#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/hint_engine.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

SavedTab makeTab(std::string title, std::string summary = "") {
  SavedTab tab;
  tab.id = Uuid::random();
  tab.url = "https://example.org/" + std::to_string(tab.id.bytes()[0]);
  tab.domain = "example.org";
  tab.title = std::move(title);
  tab.summary = std::move(summary);
  return tab;
}

// Bag-of-words vectors only, so every score below is reproducible on any machine.
class HintEngineTest : public ::testing::Test {
 protected:
  std::vector<float> projectVector(const ProjectText& project) {
    return embedder.vector(HintEngine::query(project));
  }

  Embedder embedder{false};
};

TEST_F(HintEngineTest, QueryIsNameKeywordsAndTextPrefix) {
  std::string body;
  for (int i = 0; i < 300; ++i)
    body += "Kompassnadel Magnetfeld Norden ";
  ProjectText project{"kompass", "/p/kompass", body};
  // The name, the top keywords, then the text's start.
  EXPECT_TRUE(HintEngine::query(project).starts_with(
      "kompass Kompassnadel Magnetfeld Norden Kompassnadel Magnetfeld Norden Kompassnadel"));
  std::string many;
  for (int i = 0; i < 200; ++i)
    many += "w" + std::to_string(1000 + i % 100) + " ";             // 1200 characters
  ASSERT_EQ(TextTools::topKeywords({many}, 1000, 4).size(), 100u);  // a hundred distinct keys
  const std::string bounded = HintEngine::query({"viel", "", many});
  const std::string prefix(unicode::graphemePrefix(many, 800));
  ASSERT_TRUE(bounded.ends_with(" " + prefix));
  // "viel", a blank, 40 keywords of five letters with 39 blanks, a blank, 800 characters.
  EXPECT_EQ(bounded.size(), 4u + 1u + (40u * 5u + 39u) + 1u + 800u);
}

TEST_F(HintEngineTest, SuggestsSimilarTabsOnceAndRecordsThem) {
  LibraryData data;
  SavedTab match = makeTab("Kompass selber bauen", "Eine Anleitung für einen Magnetkompass.");
  SavedTab other = makeTab("Sauerteigbrot backen");
  data.tabs = {other, match};
  ProjectText project{"kompass", "/p/kompass", "Wir bauen einen Kompass mit Magnetnadel."};
  // Nothing without projects or with a maximum of zero or less, not even a filled vector cache.
  const LibraryData untouched = data;
  for (int max : {0, -3}) {
    EXPECT_TRUE(HintEngine(embedder, 0.0f).generateHints(data, {project}, max).empty());
  }
  EXPECT_TRUE(HintEngine(embedder, 0.0f).generateHints(data, {}, 5).empty());
  EXPECT_EQ(data, untouched);

  const Date before = now();
  auto hints = HintEngine(embedder).generateHints(data, {project}, 5);
  ASSERT_EQ(hints.size(), 1u);
  EXPECT_EQ(hints[0].tabId, match.id);
  EXPECT_EQ(hints[0].reason,
            "passt zu deinem Projekt kompass: Eine Anleitung für einen Magnetkompass.");
  EXPECT_FALSE(hints[0].dismissed);
  EXPECT_GE(hints[0].createdAt, before);
  EXPECT_EQ(data.hints, hints);
  EXPECT_EQ(data.embedderKind, embedder.kind());
  EXPECT_EQ(data.embeddings.size(), 2u);

  // The same tab is never suggested twice, in a later run either.
  EXPECT_TRUE(HintEngine(embedder).generateHints(data, {project}, 5).empty());
  EXPECT_EQ(data.hints.size(), 1u);
}

TEST_F(HintEngineTest, SkipsReadTabsAndTabsOfEarlierHints) {
  LibraryData data;
  SavedTab read = makeTab("Kompass Magnetnadel Norden");
  read.readAt = now();
  SavedTab dismissed = makeTab("Kompass Magnetnadel Norden Karte");
  SavedTab fresh = makeTab("Kompass Magnetnadel Wandern");
  data.tabs = {read, dismissed, fresh};
  data.hints = {{Uuid::random(), dismissed.id, "alt", now(), true}};

  auto hints = HintEngine(embedder, 0.0f)
                   .generateHints(data, {{"kompass", "", "Kompass Magnetnadel Norden"}}, 5);
  ASSERT_EQ(hints.size(), 1u);
  EXPECT_EQ(hints[0].tabId, fresh.id);
  // Without a summary the reason names the tab's title.
  EXPECT_EQ(hints[0].reason, "passt zu deinem Projekt kompass: Kompass Magnetnadel Wandern");
  EXPECT_EQ(data.hints.size(), 2u);
}

TEST_F(HintEngineTest, ScoreEqualToThresholdIsKept) {
  LibraryData data;
  SavedTab tab = makeTab("Kompass Magnetnadel Wandern Karte");
  data.tabs = {tab};
  ProjectText project{"kompass", "", "Kompass Magnetnadel Norden"};
  embedder.ensureEmbeddings(data);
  const float score = Embedder::cosine(projectVector(project), data.embeddings.at(tab.id.string()));
  ASSERT_GT(score, 0.0f);

  LibraryData above = data;
  EXPECT_TRUE(
      HintEngine(embedder, std::nextafter(score, 2.0f)).generateHints(above, {project}, 1).empty());
  EXPECT_EQ(HintEngine(embedder, score).generateHints(data, {project}, 1).size(), 1u);
}

// Two projects with unrelated words; each tab's cached vector fixes its score per project.
class HintEngineTurns : public HintEngineTest {
 protected:
  void SetUp() override {
    p1 = {"kompass", "/p/kompass", "Kompass Magnetnadel Norden Wanderkarte"};
    p2 = {"garten", "/p/garten", "Tomaten Setzlinge Kompost Hochbeet"};
    v1 = projectVector(p1);
    v2 = projectVector(p2);
    rest = embedder.vector("Zebra Giraffe Elefant Savanne Safari");
    ASSERT_LT(std::fabs(Embedder::cosine(v1, v2)), 0.05f);
    ASSERT_LT(std::fabs(Embedder::cosine(v1, rest)), 0.05f);
    ASSERT_LT(std::fabs(Embedder::cosine(v2, rest)), 0.05f);
  }

  // Cached as the tab's vector, a unit vector with a cosine of about s1 with p1 and s2 with p2
  // (the rest unrelated to both) fixes the tab's scores whatever its text.
  SavedTab add(LibraryData& data, const std::string& title, float s1, float s2) {
    SavedTab tab = makeTab(title, "Zusammenfassung " + title);
    data.tabs.push_back(tab);
    const float r = std::sqrt(std::max(0.0f, 1.0f - s1 * s1 - s2 * s2));
    std::vector<float> v(rest.size());
    for (std::size_t i = 0; i < v.size(); ++i)
      v[i] = s1 * v1[i] + s2 * v2[i] + r * rest[i];
    data.embedderKind = embedder.kind();
    data.embeddings[tab.id.string()] = Embedder::normalized(v);
    return tab;
  }

  static std::vector<Uuid> ids(const std::vector<Hint>& hints) {
    std::vector<Uuid> out;
    for (const Hint& h : hints)
      out.push_back(h.tabId);
    return out;
  }

  ProjectText p1, p2;
  std::vector<float> v1, v2, rest;
};

TEST_F(HintEngineTurns, ProjectsTakeTurnsAndShareNoTab) {
  LibraryData data;
  SavedTab a2 = add(data, "A2", 0.6f, 0.0f);
  SavedTab b1 = add(data, "B1", 0.0f, 0.9f);
  SavedTab a1 = add(data, "A1", 0.9f, 0.0f);
  add(data, "B2", 0.0f, 0.6f);
  add(data, "A3", 0.4f, 0.0f);

  auto hints = HintEngine(embedder, 0.3f).generateHints(data, {p1, p2}, 3);
  EXPECT_EQ(ids(hints), (std::vector<Uuid>{a1.id, b1.id, a2.id}));
  EXPECT_EQ(hints[1].reason, "passt zu deinem Projekt garten: Zusammenfassung B1");
  // A tab close to both projects goes to the first one, once.
  LibraryData shared;
  SavedTab both = add(shared, "beide", 0.7f, 0.7f);
  SavedTab second = add(shared, "zweite", 0.0f, 0.5f);
  hints = HintEngine(embedder, 0.3f).generateHints(shared, {p1, p2}, 5);
  EXPECT_EQ(ids(hints), (std::vector<Uuid>{both.id, second.id}));
  EXPECT_EQ(hints[0].reason, "passt zu deinem Projekt kompass: Zusammenfassung beide");
}

TEST_F(HintEngineTurns, RoundWithoutNewHintEndsTheRun) {
  LibraryData data;
  // kompass ranks T before X; garten ranks X, then T, then Y. Round 0 takes T and X; in round 1
  // both projects meet tabs already taken, so Y is never reached.
  SavedTab t = add(data, "T", 0.8f, 0.45f);
  SavedTab x = add(data, "X", 0.5f, 0.8f);
  add(data, "Y", 0.0f, 0.35f);

  auto hints = HintEngine(embedder, 0.3f).generateHints(data, {p1, p2}, 10);
  EXPECT_EQ(ids(hints), (std::vector<Uuid>{t.id, x.id}));
}

}  // namespace
}  // namespace kestrova
