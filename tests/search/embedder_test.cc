#include <atomic>
#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/embedder.h>
#include <kestrova/text_tools.h>

#include "semantic_fakes.h"

namespace kestrova {
namespace {

using testing::FakeModel;
using testing::FakePlatform;

float sumOfSquares(const std::vector<float>& v) {
  float sum = 0.0f;
  for (float x : v) {
    sum += x * x;
  }
  return sum;
}

TEST(EmbedderFnv, KnownValues) {
  EXPECT_EQ(Embedder::fnv(""), 0xcbf29ce484222325ULL);
  EXPECT_EQ(Embedder::fnv("a"), 0xaf63dc4c8601ec8cULL);
  EXPECT_EQ(Embedder::fnv("foobar"), 0x85944171f73967e8ULL);
  // Bytes, not characters: "ü" is two bytes.
  EXPECT_NE(Embedder::fnv("\xC3\xBC"), Embedder::fnv("\xFC"));
}

TEST(EmbedderNormalized, UnitLengthAndZero) {
  EXPECT_EQ(Embedder::normalized({3.0f, 4.0f}), (std::vector<float>{0.6f, 0.8f}));
  EXPECT_EQ(Embedder::normalized({0.0f, 0.0f, 0.0f}), (std::vector<float>{0.0f, 0.0f, 0.0f}));
  EXPECT_TRUE(Embedder::normalized({}).empty());
  EXPECT_EQ(Embedder::normalized({-2.0f}), (std::vector<float>{-1.0f}));
}

TEST(EmbedderCosine, EdgeCases) {
  EXPECT_EQ(Embedder::cosine({}, {}), 0.0f);
  EXPECT_EQ(Embedder::cosine({1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}), 0.0f);
  EXPECT_EQ(Embedder::cosine({0.0f, 0.0f}, {1.0f, 1.0f}), 0.0f);
  EXPECT_EQ(Embedder::cosine({1.0f, 0.0f}, {1.0f, 1.0f}), 1.0f / std::sqrt(2.0f));
  // Not clamped: opposite vectors give -1.
  EXPECT_EQ(Embedder::cosine({1.0f, 2.0f}, {-1.0f, -2.0f}), -1.0f);
  EXPECT_EQ(Embedder::cosine({2.0f, 0.0f}, {0.0f, 5.0f}), 0.0f);
}

TEST(EmbedderBag, CountsAreDampened) {
  // One word hits one bucket with ±1; twice gives ±(ln 2 + 1).
  const std::uint64_t hash = Embedder::fnv("kaffee");
  const std::size_t bucket = hash & 255U;
  const float sign = ((hash >> 32) & 1U) != 0 ? -1.0f : 1.0f;
  std::vector<float> once = Embedder::hashedBagOfWords("Kaffee");
  ASSERT_EQ(once.size(), 256U);
  EXPECT_EQ(once[bucket], sign);
  EXPECT_EQ(sumOfSquares(once), 1.0f);
  std::vector<float> twice = Embedder::hashedBagOfWords("Kaffee, kaffee!");
  EXPECT_EQ(twice[bucket], sign * (std::log(2.0f) + 1.0f));
}

TEST(EmbedderBag, StemsHashed) {
  // Words of 7 or more characters are hashed by their first six characters.
  const std::uint64_t hash = Embedder::fnv("projek");
  std::vector<float> bag = Embedder::hashedBagOfWords("Projektplan");
  EXPECT_EQ(bag[hash & 255U], ((hash >> 32) & 1U) != 0 ? -1.0f : 1.0f);
}

TEST(EmbedderBag, IgnoresStopWordsPunctuationCaseAndLongEndings) {
  const auto a = Embedder::hashedBagOfWords("Die Projektleitung und der Kaffee-Automat!");
  const auto b = Embedder::hashedBagOfWords("projektplanung KAFFEE automaten");
  EXPECT_EQ(a, b);
  EXPECT_EQ(Embedder::hashedBagOfWords("und die der a e"), std::vector<float>(256, 0.0f));
}

TEST(EmbedderBag, NonLatinTextUsesTheSameWords) {
  // Greek and a combining accent go through the general word splitter.
  const auto a = Embedder::hashedBagOfWords("ΚΑΦΕΣ cafe\xCC\x81 Straße");
  float expected[256] = {};
  for (const std::string& word : TextTools::words("ΚΑΦΕΣ cafe\xCC\x81 Straße", false)) {
    const std::uint64_t hash = Embedder::fnv(TextTools::stem(word));
    expected[hash & 255U] += ((hash >> 32) & 1U) != 0 ? -1.0f : 1.0f;
  }
  for (std::size_t i = 0; i < 256; ++i) {
    const float v = expected[i];
    const float want = v == 0.0f ? 0.0f : (v < 0 ? -1.0f : 1.0f) * (std::log(std::fabs(v)) + 1.0f);
    EXPECT_EQ(a[i], want) << i;
  }
}

TEST(EmbedderKind, NoSemanticOnThisPlatform) {
  Embedder embedder(true);
  EXPECT_EQ(embedder.semantic(), Semantic::none);
  EXPECT_EQ(embedder.semanticDim(), 0);
  EXPECT_EQ(embedder.dimension(), 256);
  EXPECT_EQ(embedder.kind(), "none-0+bow256");
  EXPECT_EQ(embedder.vector("Kaffee und Kuchen").size(), 256U);
}

TEST(EmbedderKind, EnvironmentSwitchesSemanticOff) {
  FakePlatform platform;
  platform.sentence["de"] = std::make_shared<FakeModel>(Semantic::sentence, 4);
  {
    platform.env.variables["KESTROVA_NO_SEMANTIC"] = "";
    Embedder embedder(true, platform.env);
    EXPECT_EQ(embedder.kind(), "none-0+bow256");
    EXPECT_EQ(embedder.vector("Kaffee").size(), 256U);
  }
  platform.env.variables["KESTROVA_NO_SEMANTIC"] = std::nullopt;
  Embedder embedder(true, platform.env);
  EXPECT_EQ(embedder.kind(), "sentence-4+bow256");
}

TEST(EmbedderKind, ModelChoiceOrder) {
  FakePlatform platform;
  platform.contextual["de"] = std::make_shared<FakeModel>(Semantic::contextual, 6);
  platform.sentence["de"] = std::make_shared<FakeModel>(Semantic::sentence, 5);
  platform.sentence["en"] = std::make_shared<FakeModel>(Semantic::sentence, 3);
  EXPECT_EQ(Embedder(true, platform.env).kind(), "contextual-6+bow256");
  platform.contextual.clear();
  EXPECT_EQ(Embedder(true, platform.env).kind(), "sentence-5+bow256");
  platform.sentence.erase("de");
  EXPECT_EQ(Embedder(true, platform.env).kind(), "sentence-3+bow256");
  platform.sentence.clear();
  EXPECT_EQ(Embedder(true, platform.env).kind(), "none-0+bow256");
  EXPECT_EQ(platform.asked,
            (std::vector<std::string>{"contextual:de", "contextual:de", "sentence:de",
                                      "contextual:de", "sentence:de", "sentence:en",
                                      "contextual:de", "sentence:de", "sentence:en"}));
}

TEST(EmbedderKind, SemanticNotAllowedAsksNothing) {
  FakePlatform platform;
  platform.sentence["de"] = std::make_shared<FakeModel>(Semantic::sentence, 4);
  Embedder embedder(false, platform.env);
  EXPECT_EQ(embedder.kind(), "none-0+bow256");
  EXPECT_TRUE(platform.asked.empty());
}

TEST(EmbedderVector, EmptyTextIsZero) {
  Embedder embedder(false);
  EXPECT_EQ(embedder.vector(""), std::vector<float>(256, 0.0f));
  EXPECT_EQ(Embedder::cosine(embedder.vector(""), embedder.vector("Kaffee")), 0.0f);
}

TEST(EmbedderVector, BagAloneIsUnitLength) {
  Embedder embedder(false);
  const auto v = embedder.vector("Kaffee Kuchen Kaffee Bohnen Röstung");
  EXPECT_NEAR(sumOfSquares(v), 1.0f, 1e-6f);
  EXPECT_EQ(
      v, Embedder::normalized(Embedder::hashedBagOfWords("Kaffee Kuchen Kaffee Bohnen Röstung")));
}

TEST(EmbedderVector, OnlyTheFirst1200CharactersCount) {
  Embedder embedder(false);
  const std::string head(1199, '.');
  // "ab" straddles the cut: only its "a" is inside, too short to be a word.
  EXPECT_EQ(embedder.vector(head + "ab Kaffee"), std::vector<float>(256, 0.0f));
  // Characters, not bytes: 1190 characters of "ä." are 1785 bytes and leave room for a word.
  std::string umlauts;
  for (int i = 0; i < 595; ++i) {
    umlauts += "\xC3\xA4.";
  }
  EXPECT_NE(embedder.vector(umlauts + " Kaffee"), embedder.vector(umlauts));
  EXPECT_EQ(embedder.vector(umlauts + " Tee Milch Kaffee"),
            embedder.vector(umlauts + " Tee Milch"));
}

TEST(EmbedderVector, SemanticPartIsWeighted) {
  FakePlatform platform;
  auto model = std::make_shared<FakeModel>(Semantic::sentence, 3);
  model->answer = std::vector<float>{3.0f, 0.0f, 4.0f};
  platform.sentence["de"] = model;
  Embedder embedder(true, platform.env);
  ASSERT_EQ(embedder.dimension(), 259);
  const auto v = embedder.vector("Kaffee");
  ASSERT_EQ(v.size(), 259U);
  EXPECT_EQ(v[0], 0.6f * 0.7746f);
  EXPECT_EQ(v[1], 0.0f);
  EXPECT_EQ(v[2], 0.8f * 0.7746f);
  const auto bag = Embedder::normalized(Embedder::hashedBagOfWords("Kaffee"));
  for (std::size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(v[3 + i], bag[i] * 0.6325f);
  }
  EXPECT_NEAR(sumOfSquares(v), 1.0f, 1e-3f);
  EXPECT_EQ(model->texts, (std::vector<std::string>{"Kaffee"}));
}

TEST(EmbedderVector, MissingWrongOrZeroSemanticGivesFullBag) {
  FakePlatform platform;
  auto model = std::make_shared<FakeModel>(Semantic::contextual, 3);
  platform.contextual["de"] = model;
  Embedder embedder(true, platform.env);
  const auto bag = Embedder::normalized(Embedder::hashedBagOfWords("Kaffee Bohnen"));
  std::vector<float> expected(3, 0.0f);
  expected.insert(expected.end(), bag.begin(), bag.end());

  model->answer = std::nullopt;
  EXPECT_EQ(embedder.vector("Kaffee Bohnen"), expected);
  model->answer = std::vector<float>{1.0f, 2.0f};  // wrong length
  EXPECT_EQ(embedder.vector("Kaffee Bohnen"), expected);
  model->answer = std::vector<float>{1.0f, 2.0f, 3.0f, 4.0f};
  EXPECT_EQ(embedder.vector("Kaffee Bohnen"), expected);
  model->answer = std::vector<float>{0.0f, 0.0f, 0.0f};
  EXPECT_EQ(embedder.vector("Kaffee Bohnen"), expected);
}

TEST(EmbedderVector, SemanticSeesOnlyTheCutText) {
  FakePlatform platform;
  auto model = std::make_shared<FakeModel>(Semantic::sentence, 2);
  platform.sentence["de"] = model;
  Embedder embedder(true, platform.env);
  embedder.vector(std::string(1500, 'x'));
  ASSERT_EQ(model->texts.size(), 1U);
  EXPECT_EQ(model->texts[0].size(), 1200U);
}

TEST(EmbedderLocking, ModelCallsNeverOverlap) {
  FakePlatform platform;
  auto model = std::make_shared<FakeModel>(Semantic::sentence, 2);
  model->answer = std::vector<float>{1.0f, 1.0f};
  model->delay = std::chrono::microseconds(200);
  platform.sentence["de"] = model;
  Embedder embedder(true, platform.env);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&embedder] {
      for (int i = 0; i < 20; ++i) {
        embedder.vector("Kaffee " + std::to_string(i));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(model->calls.load(), 120);
  EXPECT_EQ(model->maxInside.load(), 1);
}

TEST(SemanticMeanPool, SkipsTokensOfTheWrongLength) {
  EXPECT_EQ(meanPool({{1.0, 2.0}, {3.0}, {3.0, 6.0}}, 2), (std::vector<float>{2.0f, 4.0f}));
  EXPECT_FALSE(meanPool({{1.0}, {1.0, 2.0, 3.0}}, 2).has_value());
  EXPECT_FALSE(meanPool({}, 3).has_value());
}

SavedTab tabWith(const char* id, std::string title) {
  SavedTab tab;
  tab.id = *Uuid::parse(id);
  tab.url = "https://example.org/";
  tab.title = std::move(title);
  return tab;
}

TEST(EmbedderCache, FillsMissingAndDropsRemoved) {
  Embedder embedder(false);
  LibraryData data;
  data.embedderKind = embedder.kind();
  data.tabs = {tabWith("00000000-0000-4000-8000-000000000001", "Kaffee"),
               tabWith("00000000-0000-4000-8000-000000000002", "Tee")};
  data.embeddings["00000000-0000-4000-8000-000000000009"] = {1.0f};
  embedder.ensureEmbeddings(data);
  ASSERT_EQ(data.embeddings.size(), 2U);
  EXPECT_EQ(data.embeddings.at("00000000-0000-4000-8000-000000000001"),
            embedder.vector(data.tabs[0].searchableText()));
  EXPECT_EQ(data.embeddings.count("00000000-0000-4000-8000-000000000009"), 0U);

  // A removed tab loses its vector.
  data.tabs.pop_back();
  embedder.ensureEmbeddings(data);
  EXPECT_EQ(data.embeddings.size(), 1U);
}

TEST(EmbedderCache, ExistingEntriesAreNotRecomputed) {
  Embedder embedder(false);
  LibraryData data;
  data.embedderKind = embedder.kind();
  data.tabs = {tabWith("00000000-0000-4000-8000-000000000001", "Kaffee")};
  data.embeddings["00000000-0000-4000-8000-000000000001"] = {0.5f, 0.5f};
  embedder.ensureEmbeddings(data);
  EXPECT_EQ(data.embeddings.at("00000000-0000-4000-8000-000000000001"),
            (std::vector<float>{0.5f, 0.5f}));
}

TEST(EmbedderCache, KindChangeEmptiesTheCache) {
  Embedder embedder(false);
  LibraryData data;
  data.embedderKind = "sentence-512+bow256";
  data.tabs = {tabWith("00000000-0000-4000-8000-000000000001", "Kaffee")};
  data.embeddings["00000000-0000-4000-8000-000000000001"] = std::vector<float>(768, 0.1f);
  embedder.ensureEmbeddings(data);
  EXPECT_EQ(data.embedderKind, "none-0+bow256");
  EXPECT_EQ(data.embeddings.at("00000000-0000-4000-8000-000000000001"), embedder.vector("Kaffee"));
}

}  // namespace
}  // namespace kestrova
