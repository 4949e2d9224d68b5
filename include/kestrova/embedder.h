// Embedder: turns any text into a fixed-length vector of 32-bit floats so that texts can be
// compared by cosine similarity. A vector is a semantic part from a platform model (when one is
// available) followed by a 256-value hashed bag of words that always works. Both parts are unit
// length before weighting (0.7746 and 0.6325, whose squares add up to about 1), so a full vector
// has length 1. Every result is deterministic for equal input.
//
// Thread-safety: one Embedder may be used from several threads. Every use of the semantic model
// goes through `lock`; the bag of words and the static vector maths need no lock.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/env.h>
#include <kestrova/models.h>
#include <kestrova/semantic_model.h>

namespace kestrova {

class Embedder {
 public:
  using Semantic = kestrova::Semantic;

  // Length of the hashed bag-of-words part.
  static constexpr std::int64_t hashDim = 256;

  // Chooses the semantic model once, for the life of the object, from env.semanticPlatform()
  // (`env` need only live during the call). With `allowSemantic` false, or when `env` holds the
  // variable KESTROVA_NO_SEMANTIC (any value), there is none. Otherwise the platform's contextual
  // model for German is taken, else its sentence model for German, else for English, else none.
  // Never fails: a missing model simply means bag-of-words vectors.
  explicit Embedder(bool allowSemantic, Env& env = Env::real());

  Embedder(const Embedder&) = delete;
  Embedder& operator=(const Embedder&) = delete;

  Semantic semantic() const { return semantic_; }
  std::int64_t semanticDim() const { return semanticDim_; }
  // semanticDim + 256.
  std::int64_t dimension() const { return semanticDim_ + hashDim; }
  // Names the vector space, for example "none-0+bow256" or "sentence-512+bow256". Vectors are
  // only comparable between equal kinds; the kind is stored with the cache in the library.
  const std::string& kind() const { return kind_; }

  // The full weighted vector of the first 1200 characters of `text`, always dimension() long.
  // When the model gives nothing usable the semantic part is zero and the bag part carries full
  // weight. An empty text gives all zeros.
  std::vector<float> vector(std::string_view text);

  // The raw semantic vector of `text` from the model, under `lock`; no value without a model or
  // when the model gives none.
  std::optional<std::vector<float>> semanticVector(std::string_view text);

  // The unnormalised, dampened hashed bag of the stems of the words of `text` (stop words
  // dropped): 256 values.
  static std::vector<float> hashedBagOfWords(std::string_view text);
  // FNV-1a, 64 bit, of the UTF-8 bytes of `text`.
  static std::uint64_t fnv(std::string_view text);
  // `v` scaled to unit length; a zero vector is returned unchanged.
  static std::vector<float> normalized(std::vector<float> v);
  // Cosine similarity in 32-bit floats: 0 when `a` is empty, the lengths differ, or either vector
  // is zero. Not clamped.
  static float cosine(const std::vector<float>& a, const std::vector<float>& b);
  // The same over raw ranges of `n` values each.
  static float cosine(const float* a, const float* b, std::size_t n);

  // Brings the vector cache of `data` in step with this embedder: a cache of another kind is
  // emptied and relabelled, entries of tabs no longer in the library are dropped, and every tab
  // without an entry gets the vector of its searchable text. Existing entries are kept as they
  // are, even when the tab's text changed since. The caller saves `data`.
  void ensureEmbeddings(LibraryData& data);

  // Weights of the two parts when the semantic part is present.
  static constexpr float semWeight = 0.7746f;
  static constexpr float bowWeight = 0.6325f;

 private:
  void choose(bool allowSemantic, Env& env);

  Semantic semantic_ = Semantic::none;
  std::int64_t semanticDim_ = 0;
  std::string kind_;
  std::unique_ptr<SemanticModel> model_;
  std::mutex lock_;  // serialises every use of model_
};

}  // namespace kestrova
