#include <cmath>
#include <unordered_set>

#include <kestrova/embedder.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "word_scan.h"

namespace kestrova {
namespace {

// Only this many characters of a text go into its vector.
constexpr std::size_t kVectorChars = 1200;

std::string makeKind(Semantic semantic, std::int64_t semanticDim) {
  std::string kind(rawValue(semantic));
  kind += "-";
  kind += std::to_string(semanticDim);
  kind += "+bow";
  kind += std::to_string(Embedder::hashDim);
  return kind;
}

// Adds the stems of the words of the first `maxChars` characters of `text` to `bag`.
void addBag(std::string_view text, std::size_t maxChars, std::vector<float>& bag) {
  float counts[Embedder::hashDim] = {};
  wordscan::forEachWord(
      text, maxChars,
      [&](wordscan::Word& word) {
        if (!TextTools::isStopWord(word.text())) {
          const std::uint64_t hash = Embedder::fnv(word.stem());
          counts[hash & 0xFFU] += ((hash >> 32) & 1U) != 0 ? -1.0f : 1.0f;
        }
        return true;
      },
      [&] {
        for (auto& count : counts) {
          count = 0.0f;
        }
      });
  for (std::size_t i = 0; i < bag.size(); ++i) {
    const float v = counts[i];
    if (v == 0.0f) {
      bag[i] = 0.0f;
    } else {
      // The logarithm is taken in double precision and rounded once, which gives the correctly
      // rounded float on every platform rather than whatever its logf happens to return.
      const float ln = static_cast<float>(std::log(static_cast<double>(std::fabs(v))));
      const float magnitude = ln + 1.0f;
      bag[i] = v < 0.0f ? -magnitude : magnitude;
    }
  }
}

}  // namespace

Embedder::Embedder(bool allowSemantic, Env& env) {
  choose(allowSemantic, env);
  kind_ = makeKind(semantic_, semanticDim_);
}

void Embedder::choose(bool allowSemantic, Env& env) {
  semantic_ = Semantic::none;
  semanticDim_ = 0;
  if (!allowSemantic || env.variable("KESTROVA_NO_SEMANTIC").has_value()) {
    return;
  }
  SemanticPlatform& platform = env.semanticPlatform();
  std::unique_ptr<SemanticModel> model = platform.contextualModel("de");
  if (!model) {
    model = platform.sentenceModel("de");
  }
  if (!model) {
    model = platform.sentenceModel("en");
  }
  // A model that reports no usable length or claims to be no model at all is no model.
  if (!model || model->semantic() == Semantic::none || model->dimension() <= 0) {
    return;
  }
  semantic_ = model->semantic();
  semanticDim_ = model->dimension();
  model_ = std::move(model);
}

std::optional<std::vector<float>> Embedder::semanticVector(std::string_view text) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!model_) {
    return std::nullopt;
  }
  return model_->vector(text);
}

std::vector<float> Embedder::vector(std::string_view text) {
  const auto semDim = static_cast<std::size_t>(semanticDim_);

  std::vector<float> out(semDim + static_cast<std::size_t>(hashDim), 0.0f);
  bool semanticPresent = false;
  if (semDim > 0) {
    std::optional<std::vector<float>> raw =
        semanticVector(unicode::graphemePrefix(text, kVectorChars));
    if (raw && raw->size() == semDim) {
      std::vector<float> unit = normalized(std::move(*raw));
      for (std::size_t i = 0; i < semDim; ++i) {
        out[i] = unit[i];
        semanticPresent = semanticPresent || unit[i] != 0.0f;
      }
    }
  }

  std::vector<float> bag(static_cast<std::size_t>(hashDim), 0.0f);
  addBag(text, kVectorChars, bag);
  bag = normalized(std::move(bag));

  const float semFactor = semanticPresent ? semWeight : 0.0f;
  const float bagFactor = semanticPresent ? bowWeight : 1.0f;
  for (std::size_t i = 0; i < semDim; ++i) {
    out[i] *= semFactor;
  }
  for (std::size_t i = 0; i < bag.size(); ++i) {
    out[semDim + i] = bag[i] * bagFactor;
  }
  return out;
}

std::vector<float> Embedder::hashedBagOfWords(std::string_view text) {
  std::vector<float> bag(static_cast<std::size_t>(hashDim), 0.0f);
  addBag(text, wordscan::kNoLimit, bag);
  return bag;
}

std::uint64_t Embedder::fnv(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char byte : text) {
    hash ^= byte;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

std::vector<float> Embedder::normalized(std::vector<float> v) {
  float sum = 0.0f;
  for (float x : v) {
    sum += x * x;
  }
  if (sum > 0.0f) {
    const float length = std::sqrt(sum);
    for (float& x : v) {
      x /= length;
    }
  }
  return v;
}

float Embedder::cosine(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.empty() || a.size() != b.size()) {
    return 0.0f;
  }
  return cosine(a.data(), b.data(), a.size());
}

float Embedder::cosine(const float* a, const float* b, std::size_t n) {
  float dot = 0.0f;
  float aa = 0.0f;
  float bb = 0.0f;
  for (std::size_t i = 0; i < n; ++i) {
    dot += a[i] * b[i];
    aa += a[i] * a[i];
    bb += b[i] * b[i];
  }
  if (!(aa > 0.0f) || !(bb > 0.0f)) {
    return 0.0f;
  }
  return dot / (std::sqrt(aa) * std::sqrt(bb));
}

void Embedder::ensureEmbeddings(LibraryData& data) {
  if (data.embedderKind != kind_) {
    data.embeddings.clear();
    data.embedderKind = kind_;
  }
  std::unordered_set<std::string> ids;
  ids.reserve(data.tabs.size());
  for (const SavedTab& tab : data.tabs) {
    ids.insert(tab.id.string());
  }
  std::erase_if(data.embeddings, [&](const auto& entry) { return ids.count(entry.first) == 0; });
  for (const SavedTab& tab : data.tabs) {
    std::string key = tab.id.string();
    if (data.embeddings.find(key) == data.embeddings.end()) {
      data.embeddings.emplace(std::move(key), vector(tab.searchableText()));
    }
  }
}

}  // namespace kestrova
