#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/ai.h>
#include <kestrova/guided_types.h>
#include <kestrova/language_model.h>

#include "support/scripted_model.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ModelScope;
using testing::ScriptedModel;

// Generous bound for "returned promptly" on a shared, noisy machine.
constexpr auto kPrompt = 20s;

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

using Flag = std::shared_ptr<std::atomic<bool>>;
Flag flag(bool value = false) {
  return std::make_shared<std::atomic<bool>>(value);
}

// Blocks until `done()` holds or `limit` passes.
bool waitUntil(std::function<bool()> done, std::chrono::seconds limit = kPrompt) {
  for (const auto end = std::chrono::steady_clock::now() + limit; !done();
       std::this_thread::sleep_for(1ms)) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
  }
  return true;
}
bool waitFor(const Flag& flag, std::chrono::seconds limit = kPrompt) {
  return waitUntil([&] { return flag->load(); }, limit);
}

TEST(AIStatusDescription, EveryLineExactlyAndThePresenceOfTheSwitchWhateverItsValue) {
  using enum ModelAvailability;
  const std::vector<std::tuple<bool, ModelAvailability, std::string>> cases = {
      {true, available, "Apple Intelligence: für diesen Lauf ausgeschaltet"},
      {false, available,
       "Apple Intelligence: eingeschaltet, Themen und Chat laufen auf deinem Mac"},
      {false, deviceNotEligible,
       "Apple Intelligence: dieser Mac unterstützt es nicht. Kestrova nutzt Stichwörter statt KI."},
      {false, appleIntelligenceNotEnabled,
       "Apple Intelligence ist ausgeschaltet. Einschalten: Systemeinstellungen → Apple "
       "Intelligence & Siri."},
      {false, modelNotReady,
       "Apple Intelligence lädt noch das Sprachmodell. Bis dahin nutzt Kestrova Stichwörter."},
      {false, other, "Apple Intelligence ist gerade nicht verfügbar. Kestrova nutzt Stichwörter."},
  };
  for (const auto& [off, availability, text] : cases) {
    EXPECT_EQ(AIStatus::describe(off, availability), text);
  }
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("0")}) {
    testing::FakeEnv env({.variables = {{"KESTROVA_NO_AI", value}}});
    EXPECT_EQ(AIStatus::forceOffFromEnvironment(env), value.has_value()) << value.value_or("-");
  }
  // Switched off for this run overrides an available model.
  ModelScope scope(available);
  EXPECT_TRUE(AIStatus::isAvailable(scope.env()));
  EXPECT_EQ(AIStatus::description(scope.env()), std::get<2>(cases[1]));
  AIStatus::setForceOff(true);
  EXPECT_FALSE(AIStatus::isAvailable(scope.env()));
  EXPECT_EQ(AIStatus::description(scope.env()), std::get<2>(cases[0]));
}

TEST(AIStatusDescription, ThePlatformModelIsUnavailableHere) {
  const bool was = AIStatus::forceOff();
  AIStatus::setForceOff(false);
  EXPECT_EQ(Env::real().languageModel()->availability(), ModelAvailability::other);
  EXPECT_FALSE(AIStatus::isAvailable());
  EXPECT_EQ(AIStatus::description(), AIStatus::describe(false, ModelAvailability::other));
  ModelRequest request{"i", "p", TopicName::guidedType(), true};
  EXPECT_FALSE(Env::real().languageModel()->respond(request, {}).has_value());
  AIStatus::setForceOff(was);
}

TEST(SerialGateOrder, ThreeWaitersServedInArrivalOrder) {
  SerialGate gate;
  gate.acquire();
  std::mutex orderMutex;
  std::vector<int> order;
  std::vector<std::thread> callers;
  for (int i = 1; i <= 3; ++i) {
    callers.emplace_back([&, i] {
      gate.acquire();
      std::lock_guard lock(orderMutex);
      order.push_back(i);
      gate.release();
    });
    // The next caller starts only once this one is queued, so arrival order is known.
    ASSERT_TRUE(waitUntil([&] { return gate.waiting() >= static_cast<std::size_t>(i); }));
  }
  gate.release();
  for (auto& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(gate.busy());
  EXPECT_EQ(gate.waiting(), 0u);

  // A free gate is taken at once.
  auto taken = std::async(std::launch::async, [&gate] { gate.acquire(); });
  EXPECT_EQ(taken.wait_for(kPrompt), std::future_status::ready);
  EXPECT_TRUE(gate.busy());
  gate.release();

  // run releases even when the operation throws.
  EXPECT_EQ(gate.run([] { return 7; }), 7);
  EXPECT_THROW(gate.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_FALSE(gate.busy());
  gate.release();  // releasing a free gate is harmless
  EXPECT_FALSE(gate.busy());
}

// Work that runs until asked to stop, notes that it saw the stop, and then keeps running until
// `mayFinish` (withTimeout must not wait for it).
auto untilStopped(Flag sawStop, Flag mayFinish = flag(true), Flag finished = flag()) {
  return [=](std::stop_token token) {
    while (!token.stop_requested()) {
      std::this_thread::sleep_for(1ms);
    }
    *sawStop = true;
    waitFor(mayFinish, 60s);
    return *finished = true, 1;
  };
}

TEST(WithTimeoutLimit, FiresWhileTheWorkIsStillRunningAndBadLimitsGiveAClearResult) {
  const Flag mayFinish = flag();
  std::vector<Flag> finished;
  for (double limit : {0.2, -1.0, std::nan("")}) {
    const Flag sawStop = flag();
    finished.push_back(flag());
    EXPECT_FALSE(withTimeout<int>(limit, untilStopped(sawStop, mayFinish, finished.back())));
    EXPECT_FALSE(finished.back()->load());
    EXPECT_TRUE(waitFor(sawStop));
  }
  *mayFinish = true;
  for (const Flag& done : finished) {
    EXPECT_TRUE(waitFor(done));
  }
  // No limit at all waits for the work; a failure returns at once, not at the limit.
  auto value = withTimeout<int>(std::numeric_limits<double>::infinity(), [](std::stop_token) {
    std::this_thread::sleep_for(50ms);
    return 3;
  });
  EXPECT_EQ(value, 3);
  EXPECT_FALSE(withTimeout<int>(1, nullptr).has_value());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(withTimeout<int>(40, [](std::stop_token) -> int {
    std::this_thread::sleep_for(300ms);
    throw TimeoutError();
  }));
  EXPECT_GE(secondsSince(start), 0.25);
  EXPECT_LT(secondsSince(start), 30);
}

TEST(WithTimeoutLimit, CallerStopEndsTheWaitAndStopsTheWork) {
  std::stop_source caller;
  const Flag sawStop = flag();
  std::thread canceller([&caller] {
    std::this_thread::sleep_for(100ms);
    caller.request_stop();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(withTimeout<int>(600, untilStopped(sawStop), caller.get_token()));
  canceller.join();
  EXPECT_LT(secondsSince(start), 30);
  EXPECT_TRUE(waitFor(sawStop));
  // A caller that has already stopped does not start the work at all.
  const Flag started = flag();
  EXPECT_FALSE(withTimeout<int>(
      1, [started](std::stop_token) { return *started = true, 1; }, caller.get_token()));
  EXPECT_FALSE(started->load());
}

TEST(AIEngineRespond, SendsInstructionsPromptAndSchemaAndOnlyATimelyAnswerGivesAValue) {
  ModelScope scope;
  for (const auto& step :
       {ScriptedModel::answer(Json{{"name", "Reisen"}}), ScriptedModel::nothing(),
        ScriptedModel::fail(), ScriptedModel::answer(Json{{"name", "x"}}, 60s)}) {
    scope.model().then(step);
  }
  auto ask = [&](const char* prompt, double limit = 30, std::stop_token stop = {}) {
    return AIEngine::respond(prompt, TopicName::guidedType(), limit, stop, scope.env());
  };
  std::stop_source stopped;
  stopped.request_stop();
  EXPECT_FALSE(ask("p", 30, stopped.get_token()).has_value());  // never reaches the model
  EXPECT_TRUE(scope.model().requests().empty());

  auto content = ask("Wie heisst das Thema?");
  ASSERT_TRUE(content.has_value());
  EXPECT_EQ((*content)["name"], "Reisen");
  auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].instructions, AIEngine::instructions);
  EXPECT_EQ(requests[0].prompt, "Wie heisst das Thema?");
  EXPECT_EQ(requests[0].type.name, "TopicName");
  EXPECT_EQ(requests[0].type.schema, TopicName::guidedType().schema);
  EXPECT_TRUE(requests[0].includeSchemaInPrompt);

  EXPECT_FALSE(ask("a").has_value());
  EXPECT_FALSE(ask("b").has_value());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(ask("c", 0.2).has_value());
  EXPECT_LT(secondsSince(start), 30);
  EXPECT_TRUE(scope.model().waitForStops(1));
  EXPECT_FALSE(AIEngine::gate().busy());
}

TEST(AIEngineRespond, WaitingForTheGateIsNotCountedAgainstTheLimit) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "Kochen"}}));
  AIEngine::gate().acquire();
  auto pending = std::async(std::launch::async, [&scope] {
    return AIEngine::respond("p", TopicName::guidedType(), 1.0, {}, scope.env());
  });
  ASSERT_TRUE(waitUntil([] { return AIEngine::gate().waiting() >= 1; }));
  std::this_thread::sleep_for(1500ms);  // longer than the limit
  AIEngine::gate().release();
  auto content = pending.get();
  ASSERT_TRUE(content.has_value());
  EXPECT_EQ((*content)["name"], "Kochen");
}

}  // namespace
}  // namespace kestrova
