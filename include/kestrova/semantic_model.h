// The seam to the platform's semantic sentence vectors. The embedder asks its Env's
// SemanticPlatform (Env::semanticPlatform, env.h) for a model once, when it is made, and then calls
// that model's vector() under its own lock. A platform without such models (Linux, or a Mac without
// the language assets) offers none, and every vector is then the hashed bag of words alone.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

// Which semantic model an embedder uses. The raw values name the vector space in Embedder::kind.
enum class Semantic { contextual, sentence, none };

// "contextual", "sentence" or "none".
std::string_view rawValue(Semantic semantic);

// One loaded semantic model. Implementations need not be thread-safe: the embedder serialises
// every call into a model with its lock.
class SemanticModel {
 public:
  virtual ~SemanticModel() = default;

  // The kind of model: contextual (token vectors pooled per text) or sentence.
  virtual Semantic semantic() const = 0;
  // The length of the vectors the model reports. The embedder takes this as the length of the
  // semantic part of every vector.
  virtual std::int64_t dimension() const = 0;
  // The raw, unnormalised vector for `text`; no value when the model cannot embed it. A vector of
  // another length than dimension() is ignored by the embedder.
  virtual std::optional<std::vector<float>> vector(std::string_view text) = 0;
};

// Where semantic models come from. Each call either gives a model ready for use (available,
// assets present, loaded) or nothing; it never downloads anything.
class SemanticPlatform {
 public:
  virtual ~SemanticPlatform() = default;

  // The contextual embedding for `language` (an ISO 639-1 code such as "de").
  virtual std::unique_ptr<SemanticModel> contextualModel(std::string_view language) = 0;
  // The sentence embedding for `language`.
  virtual std::unique_ptr<SemanticModel> sentenceModel(std::string_view language) = 0;
};

// Mean of the token vectors of a contextual model, for a backend to use. Token vectors whose
// length differs from `dimension` are skipped; the sum runs in double precision and the mean is
// converted to float. No value when no token vector had the right length.
std::optional<std::vector<float>> meanPool(const std::vector<std::vector<double>>& tokenVectors,
                                           std::size_t dimension);

}  // namespace kestrova
