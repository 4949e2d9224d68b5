// A semantic model with a fixed answer that records what it was asked, and a platform that hands
// out such models by language, with an Env around it.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <kestrova/semantic_model.h>

#include "support/fake_env.h"

namespace kestrova::testing {

struct FakeModel {
  Semantic semantic;
  std::int64_t dimension;
  std::optional<std::vector<float>> answer;
  std::vector<std::string> texts;
};

// Forwards to a shared FakeModel, so a test can change the answer after the embedder chose it.
class ForwardingModel final : public SemanticModel {
 public:
  explicit ForwardingModel(std::shared_ptr<FakeModel> fake) : fake_(std::move(fake)) {}
  Semantic semantic() const override { return fake_->semantic; }
  std::int64_t dimension() const override { return fake_->dimension; }
  std::optional<std::vector<float>> vector(std::string_view text) override {
    fake_->texts.emplace_back(text);
    return fake_->answer;
  }

 private:
  std::shared_ptr<FakeModel> fake_;
};

using FakeModels = std::map<std::string, std::shared_ptr<FakeModel>, std::less<>>;

class FakePlatform final : public SemanticPlatform {
 public:
  // Without KESTROVA_NO_SEMANTIC whatever the caller's environment holds.
  FakeEnv env{{.semantic = this, .variables = {{"KESTROVA_NO_SEMANTIC", std::nullopt}}}};
  FakeModels contextual, sentence;
  std::vector<std::string> asked;

  std::unique_ptr<SemanticModel> contextualModel(std::string_view language) override {
    return find(contextual, "contextual:", language);
  }
  std::unique_ptr<SemanticModel> sentenceModel(std::string_view language) override {
    return find(sentence, "sentence:", language);
  }
  std::unique_ptr<SemanticModel> find(const FakeModels& models, const std::string& label,
                                      std::string_view language) {
    asked.push_back(label + std::string(language));
    auto it = models.find(language);
    return it == models.end() ? nullptr : std::make_unique<ForwardingModel>(it->second);
  }
};

}  // namespace kestrova::testing
