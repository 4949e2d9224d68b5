// ScriptedModel: a thread-safe LanguageModel answering one scripted step per request (nothing past
// the script); it records requests and counts delayed answers asked to stop. ModelScope: an Env
// with it, forceOff lifted for one test.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <vector>

#include <kestrova/ai.h>
#include <kestrova/language_model.h>

#include "support/fake_env.h"

namespace kestrova::testing {

class ScriptedModel : public LanguageModel {
 public:
  using ms = std::chrono::milliseconds;
  struct Step {
    enum class Kind { answer, nothing, fail } kind = Kind::nothing;
    Json content;
    ms delay{0};
  };
  static Step answer(Json content, ms delay = {}) { return {Step::Kind::answer, content, delay}; }
  static Step nothing(ms delay = {}) { return {Step::Kind::nothing, {}, delay}; }
  static Step fail(ms delay = {}) { return {Step::Kind::fail, {}, delay}; }

  explicit ScriptedModel(ModelAvailability availability = ModelAvailability::available)
      : availability_(availability) {}

  void setAvailability(ModelAvailability availability) { availability_ = availability; }
  void then(Step step) {
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(step));
  }
  ModelAvailability availability() const override { return availability_; }

  std::optional<Json> respond(const ModelRequest& request, std::stop_token stop) override {
    std::unique_lock lock(mutex_);
    requests_.push_back(request);
    Step step;
    if (!script_.empty())
      step = std::move(script_.front()), script_.pop_front();
    if (step.delay.count() > 0)
      changed_.wait_for(lock, stop, step.delay, [] { return false; });
    const bool stopped = step.delay.count() > 0 && stop.stop_requested();
    stopsSeen_ += stopped;
    changed_.notify_all();
    if (!stopped && step.kind == Step::Kind::fail)
      throw std::runtime_error("scripted failure");
    return !stopped && step.kind == Step::Kind::answer ? std::optional(step.content) : std::nullopt;
  }

  std::vector<ModelRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  // Waits (up to `limit`) until `count` delayed answers have seen a stop request.
  bool waitForStops(int count, std::chrono::seconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return stopsSeen_ >= count; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable_any changed_;
  std::atomic<ModelAvailability> availability_;
  std::deque<Step> script_;
  std::vector<ModelRequest> requests_;
  int stopsSeen_ = 0;
};

class ModelScope {
 public:
  explicit ModelScope(ModelAvailability availability = ModelAvailability::available)
      : model_(std::make_shared<ScriptedModel>(availability)),
        env_({.model = model_}),
        wasForcedOff_(AIStatus::forceOff()) {
    AIStatus::setForceOff(false);
  }
  ~ModelScope() { AIStatus::setForceOff(wasForcedOff_); }

  ScriptedModel& model() { return *model_; }
  Env& env() { return env_; }

 private:
  std::shared_ptr<ScriptedModel> model_;
  FakeEnv env_;
  bool wasForcedOff_;
};

}  // namespace kestrova::testing
