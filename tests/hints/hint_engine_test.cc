#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/hint_engine.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

SavedTab makeTab(std::string title, std::string summary = "") {
  SavedTab tab;
  tab.id = Uuid::random(), tab.title = std::move(title), tab.summary = std::move(summary);
  tab.url = "https://example.org/" + std::to_string(tab.id.bytes()[0]), tab.domain = "example.org";
  return tab;
}

// Bag-of-words vectors only, so every score below is reproducible on any machine.
class HintEngineTest : public ::testing::Test {
 protected:
  std::vector<Uuid> hinted(float min, LibraryData& data, std::vector<ProjectText> ps, int max = 5) {
    std::vector<Uuid> ids;
    for (const Hint& hint : HintEngine(embedder, min).generateHints(data, ps, max))
      ids.push_back(hint.tabId);
    return ids;
  }

  Embedder embedder{false};
};

TEST_F(HintEngineTest, QueryIsNameKeywordsAndTextPrefix) {
  std::string body, many;
  for (int i = 0; i < 300; ++i)  // a hundred keys in the 1800 characters of `many`
    body += "Kompassnadel Magnetfeld Norden ", many += "w" + std::to_string(1000 + i % 100) + " ";
  EXPECT_TRUE(HintEngine::query({"kompass", "/p/kompass", body})
                  .starts_with("kompass Kompassnadel Magnetfeld Norden Kompassnadel Magnetfeld "
                               "Norden Kompassnadel"));
  const std::string bounded = HintEngine::query({"viel", "", many});
  EXPECT_TRUE(bounded.ends_with(" " + std::string(unicode::graphemePrefix(many, 800))));
  // "viel", a blank, 40 keywords of five letters with 39 blanks, a blank, 800 characters.
  EXPECT_EQ(bounded.size(), 4u + 1u + (40u * 5u + 39u) + 1u + 800u);
}

TEST_F(HintEngineTest, SuggestsSimilarTabsOnceAndRecordsThem) {
  LibraryData data;
  SavedTab match = makeTab("Kompass selber bauen", "Eine Anleitung für einen Magnetkompass.");
  data.tabs = {makeTab("Sauerteigbrot backen"), match};
  ProjectText project{"kompass", "/p/kompass", "Wir bauen einen Kompass mit Magnetnadel."};
  // Nothing without projects or with a maximum of zero or less, not even a filled vector cache.
  const LibraryData untouched = data;
  for (int max : {0, -3})
    EXPECT_TRUE(hinted(0.0f, data, {project}, max).empty());
  EXPECT_TRUE(hinted(0.0f, data, {}).empty());
  EXPECT_EQ(data, untouched);
  const auto hints = HintEngine(embedder).generateHints(data, {project}, 5);
  ASSERT_EQ(hints.size(), 1u);
  EXPECT_EQ(hints[0].reason,
            "passt zu deinem Projekt kompass: Eine Anleitung für einen Magnetkompass.");
  EXPECT_TRUE(hints[0].tabId == match.id && !hints[0].dismissed && data.hints == hints &&
              data.embedderKind == embedder.kind() && data.embeddings.size() == 2u);
  // The same tab is never suggested twice, in a later run either.
  EXPECT_TRUE(HintEngine(embedder).generateHints(data, {project}, 5).empty());
}

TEST_F(HintEngineTest, SkipsReadTabsAndTabsOfEarlierHintsAndKeepsAScoreAtTheThreshold) {
  LibraryData data;
  SavedTab read = makeTab("Kompass Magnetnadel Norden");
  read.readAt = now();
  SavedTab dismissed = makeTab("Kompass Magnetnadel Norden Karte");
  SavedTab fresh = makeTab("Kompass Magnetnadel Wandern");
  data.tabs = {read, dismissed, fresh};
  data.hints = {{Uuid::random(), dismissed.id, "alt", now(), true}};
  const ProjectText project{"kompass", "", "Kompass Magnetnadel Norden"};
  embedder.ensureEmbeddings(data);
  const float score = Embedder::cosine(embedder.vector(HintEngine::query(project)),
                                       data.embeddings.at(fresh.id.string()));
  EXPECT_TRUE(hinted(std::nextafter(score, 2.0f), data, {project}).empty());
  EXPECT_EQ(hinted(score, data, {project}), (std::vector<Uuid>{fresh.id}));
  // Without a summary the reason names the tab's title.
  EXPECT_EQ(data.hints.at(1).reason,
            "passt zu deinem Projekt kompass: Kompass Magnetnadel Wandern");
}

// Two projects and a rest with unrelated words; a tab's cached vector fixes its score per project.
class HintEngineTurns : public HintEngineTest {
 protected:
  // Cached as the tab's vector, a unit vector with a cosine of about s1 with p1 and s2 with p2.
  Uuid add(LibraryData& data, const std::string& title, float s1, float s2) {
    const SavedTab& tab = data.tabs.emplace_back(makeTab(title, "Zusammenfassung " + title));
    const float r = std::sqrt(std::max(0.0f, 1.0f - s1 * s1 - s2 * s2));
    std::vector<float> v(rest.size());
    for (std::size_t i = 0; i < v.size(); ++i)
      v[i] = s1 * v1[i] + s2 * v2[i] + r * rest[i];
    data.embedderKind = embedder.kind(), data.embeddings[tab.id.string()] = Embedder::normalized(v);
    return tab.id;
  }

  ProjectText p1{"kompass", "/p/kompass", "Kompass Magnetnadel Norden Wanderkarte"};
  ProjectText p2{"garten", "/p/garten", "Tomaten Setzlinge Kompost Hochbeet"};
  std::vector<float> v1 = embedder.vector(HintEngine::query(p1));
  std::vector<float> v2 = embedder.vector(HintEngine::query(p2));
  std::vector<float> rest = embedder.vector("Zebra Giraffe Elefant Savanne Safari");
};

TEST_F(HintEngineTurns, ProjectsTakeTurnsShareNoTabAndARoundWithoutNewHintEndsTheRun) {
  LibraryData data;
  const Uuid a2 = add(data, "A2", 0.6f, 0.0f), b1 = add(data, "B1", 0.0f, 0.9f);
  const Uuid a1 = add(data, "A1", 0.9f, 0.0f);
  add(data, "B2", 0.0f, 0.6f), add(data, "A3", 0.4f, 0.0f);
  EXPECT_EQ(hinted(0.3f, data, {p1, p2}, 3), (std::vector<Uuid>{a1, b1, a2}));
  EXPECT_EQ(data.hints[1].reason, "passt zu deinem Projekt garten: Zusammenfassung B1");
  // kompass ranks T before X; garten ranks X, then T, then Y. Round 0 takes T and X; in round 1
  // both projects meet tabs already taken: no tab is shared, and Y is never reached.
  LibraryData rounds;
  const Uuid t = add(rounds, "T", 0.8f, 0.45f), x = add(rounds, "X", 0.5f, 0.8f);
  add(rounds, "Y", 0.0f, 0.35f);
  EXPECT_EQ(hinted(0.3f, rounds, {p1, p2}, 10), (std::vector<Uuid>{t, x}));
}

}  // namespace
}  // namespace kestrova
