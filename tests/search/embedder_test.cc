#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/embedder.h>

#include "semantic_fakes.h"

namespace kestrova {
namespace {

using testing::FakeModel;
using testing::FakePlatform;

TEST(EmbedderMath, FnvNormalizedCosineAndMeanPool) {
  EXPECT_EQ(Embedder::fnv(""), 0xcbf29ce484222325ULL);
  EXPECT_EQ(Embedder::fnv("foobar"), 0x85944171f73967e8ULL);
  EXPECT_EQ(Embedder::normalized({3.0f, 4.0f}), (std::vector<float>{0.6f, 0.8f}));
  EXPECT_EQ(Embedder::normalized({0.0f, 0.0f}), (std::vector<float>{0.0f, 0.0f}));
  EXPECT_EQ(Embedder::cosine({1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}), 0.0f);
  EXPECT_EQ(Embedder::cosine({0.0f, 0.0f}, {1.0f, 1.0f}), 0.0f);
  EXPECT_EQ(Embedder::cosine({1.0f, 0.0f}, {1.0f, 1.0f}), 1.0f / std::sqrt(2.0f));
  EXPECT_EQ(Embedder::cosine({1.0f, 2.0f}, {-1.0f, -2.0f}), -1.0f);  // not clamped
  EXPECT_EQ(meanPool({{1.0, 2.0}, {3.0}, {3.0, 6.0}}, 2), (std::vector<float>{2.0f, 4.0f}));
  EXPECT_FALSE(meanPool({{1.0}, {1.0, 2.0, 3.0}}, 2).has_value());
}

TEST(EmbedderBag, DampenedCountsOfStemsWithoutStopWords) {
  // A word hits one bucket with ±1, twice with ±(ln 2 + 1); long words by their first six letters.
  const std::uint64_t hash = Embedder::fnv("kaffee");
  const float sign = ((hash >> 32) & 1U) != 0 ? -1.0f : 1.0f;
  const std::vector<float> once = Embedder::hashedBagOfWords("Kaffee");
  ASSERT_EQ(once.size(), 256U);
  EXPECT_EQ(once[hash & 255U], sign);
  EXPECT_EQ(Embedder::hashedBagOfWords("Kaffee, kaffee!")[hash & 255U],
            sign * (std::log(2.0f) + 1.0f));
  const std::uint64_t stem = Embedder::fnv("projek");
  EXPECT_EQ(Embedder::hashedBagOfWords("Projektplan")[stem & 255U],
            ((stem >> 32) & 1U) != 0 ? -1.0f : 1.0f);
  EXPECT_EQ(Embedder::hashedBagOfWords("Die Projektleitung und der Kaffee-Automat!"),
            Embedder::hashedBagOfWords("projektplanung KAFFEE automaten"));
  EXPECT_EQ(Embedder::hashedBagOfWords("und die der a e"), std::vector<float>(256, 0.0f));
}

TEST(EmbedderKind, ModelChoiceOrderAndSwitches) {
  FakePlatform platform;
  platform.contextual["de"] =
      std::make_shared<FakeModel>(FakeModel{Semantic::contextual, 6, {}, {}});
  platform.sentence["de"] = std::make_shared<FakeModel>(FakeModel{Semantic::sentence, 5, {}, {}});
  platform.sentence["en"] = std::make_shared<FakeModel>(FakeModel{Semantic::sentence, 3, {}, {}});
  EXPECT_EQ(Embedder(false, platform.env).kind(), "none-0+bow256");  // not allowed: not asked
  EXPECT_TRUE(platform.asked.empty());
  platform.env.variables["KESTROVA_NO_SEMANTIC"] = "";
  EXPECT_EQ(Embedder(true, platform.env).kind(), "none-0+bow256");
  platform.env.variables["KESTROVA_NO_SEMANTIC"] = std::nullopt;
  const Embedder contextual(true, platform.env);
  EXPECT_EQ(contextual.kind(), "contextual-6+bow256");
  EXPECT_EQ(contextual.dimension(), 262);
  platform.contextual.clear();
  EXPECT_EQ(Embedder(true, platform.env).kind(), "sentence-5+bow256");
  platform.sentence.erase("de");
  platform.asked.clear();
  EXPECT_EQ(Embedder(true, platform.env).kind(), "sentence-3+bow256");
  EXPECT_EQ(platform.asked,
            (std::vector<std::string>{"contextual:de", "sentence:de", "sentence:en"}));
  platform.sentence.clear();
  EXPECT_EQ(Embedder(true, platform.env).kind(), "none-0+bow256");
}

TEST(EmbedderVector, OnlyTheFirst1200CharactersCount) {
  Embedder embedder(false);
  EXPECT_EQ(embedder.vector(""), std::vector<float>(256, 0.0f));
  // "ab" straddles the cut: only its "a" is inside, too short to be a word.
  EXPECT_EQ(embedder.vector(std::string(1199, '.') + "ab Kaffee"), std::vector<float>(256, 0.0f));
  // Characters, not bytes: 1190 characters of "ä." are 1785 bytes and leave room for a word.
  std::string umlauts;
  for (int i = 0; i < 595; ++i) {
    umlauts += "\xC3\xA4.";
  }
  EXPECT_NE(embedder.vector(umlauts + " Kaffee"), embedder.vector(umlauts));
  EXPECT_EQ(embedder.vector(umlauts + " Tee Milch Kaffee"),
            embedder.vector(umlauts + " Tee Milch"));
}

TEST(EmbedderVector, SemanticPartIsWeightedAndFallsBackToTheBag) {
  FakePlatform platform;
  auto model = std::make_shared<FakeModel>(FakeModel{Semantic::sentence, 3, {}, {}});
  model->answer = std::vector<float>{3.0f, 0.0f, 4.0f};
  platform.sentence["de"] = model;
  Embedder embedder(true, platform.env);
  const auto v = embedder.vector("Kaffee Bohnen" + std::string(1500, ' '));
  ASSERT_EQ(v.size(), 259U);
  EXPECT_EQ(v[0], 0.6f * 0.7746f);
  EXPECT_EQ(v[2], 0.8f * 0.7746f);
  const auto bag = Embedder::normalized(Embedder::hashedBagOfWords("Kaffee Bohnen"));
  for (std::size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(v[3 + i], bag[i] * 0.6325f);
  }
  ASSERT_EQ(model->texts.size(), 1U);
  EXPECT_EQ(model->texts[0].size(), 1200U);  // the model sees only the cut text
  // Missing, wrong-length or zero answers leave the full bag.
  std::vector<float> fullBag(3, 0.0f);
  fullBag.insert(fullBag.end(), bag.begin(), bag.end());
  for (const auto& answer : std::vector<std::optional<std::vector<float>>>{
           std::nullopt, std::vector<float>{1.0f, 2.0f}, std::vector<float>{1, 2, 3, 4},
           std::vector<float>{0.0f, 0.0f, 0.0f}}) {
    model->answer = answer;
    EXPECT_EQ(embedder.vector("Kaffee Bohnen"), fullBag);
  }
}

TEST(EmbedderCache, FillsMissingKeepsExistingAndEmptiesOnKindChange) {
  Embedder embedder(false);
  LibraryData data;
  data.embedderKind = embedder.kind();
  for (const char* title : {"Kaffee", "Tee"}) {
    SavedTab tab;
    tab.id = Uuid::random();
    tab.title = title;
    data.tabs.push_back(tab);
  }
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

}  // namespace
}  // namespace kestrova
