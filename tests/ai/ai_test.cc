#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
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

// Blocks until `flag` is set or `limit` passes.
bool waitFor(const std::atomic<bool>& flag, std::chrono::seconds limit = kPrompt) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!flag.load()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

bool waitForWaiters(const SerialGate& gate, std::size_t count) {
  const auto end = std::chrono::steady_clock::now() + kPrompt;
  while (gate.waiting() < count) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

TEST(AIStatusForceOff, PresenceOfTheVariableCountsWhateverItsValue) {
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("0")}) {
    testing::FakeEnv env({.variables = {{"KESTROVA_NO_AI", value}}});
    EXPECT_EQ(AIStatus::forceOffFromEnvironment(env), value.has_value()) << value.value_or("-");
  }
}

TEST(AIStatusForceOff, OverridesAnAvailableModel) {
  ModelScope scope(ModelAvailability::available);
  EXPECT_TRUE(AIStatus::isAvailable(scope.env()));
  EXPECT_EQ(AIStatus::description(scope.env()),
            "Apple Intelligence: eingeschaltet, Themen und Chat laufen auf deinem Mac");
  AIStatus::setForceOff(true);
  EXPECT_FALSE(AIStatus::isAvailable(scope.env()));
  EXPECT_EQ(AIStatus::description(scope.env()),
            "Apple Intelligence: für diesen Lauf ausgeschaltet");
}

TEST(AIStatusDescription, EveryLineExactly) {
  EXPECT_EQ(AIStatus::describe(true, ModelAvailability::available),
            "Apple Intelligence: für diesen Lauf ausgeschaltet");
  EXPECT_EQ(AIStatus::describe(false, ModelAvailability::available),
            "Apple Intelligence: eingeschaltet, Themen und Chat laufen auf deinem Mac");
  EXPECT_EQ(AIStatus::describe(false, ModelAvailability::deviceNotEligible),
            "Apple Intelligence: dieser Mac unterstützt es nicht. Kestrova nutzt Stichwörter statt "
            "KI.");
  EXPECT_EQ(AIStatus::describe(false, ModelAvailability::appleIntelligenceNotEnabled),
            "Apple Intelligence ist ausgeschaltet. Einschalten: Systemeinstellungen → Apple "
            "Intelligence & Siri.");
  EXPECT_EQ(AIStatus::describe(false, ModelAvailability::modelNotReady),
            "Apple Intelligence lädt noch das Sprachmodell. Bis dahin nutzt Kestrova Stichwörter.");
  EXPECT_EQ(AIStatus::describe(false, ModelAvailability::other),
            "Apple Intelligence ist gerade nicht verfügbar. Kestrova nutzt Stichwörter.");
}

TEST(AIStatusDescription, ThePlatformModelIsUnavailableHere) {
  const bool was = AIStatus::forceOff();
  AIStatus::setForceOff(false);
  EXPECT_EQ(Env::real().languageModel()->availability(), ModelAvailability::other);
  EXPECT_FALSE(AIStatus::isAvailable());
  EXPECT_EQ(AIStatus::description(),
            "Apple Intelligence ist gerade nicht verfügbar. Kestrova nutzt Stichwörter.");
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
      {
        std::lock_guard lock(orderMutex);
        order.push_back(i);
      }
      gate.release();
    });
    // The next caller starts only once this one is queued, so arrival order is known.
    ASSERT_TRUE(waitForWaiters(gate, static_cast<std::size_t>(i)));
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
}

TEST(SerialGateRun, ReleasesWhenTheOperationThrows) {
  SerialGate gate;
  EXPECT_EQ(gate.run([] { return 7; }), 7);
  EXPECT_THROW(gate.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_FALSE(gate.busy());
  gate.release();  // releasing a free gate is harmless
  EXPECT_FALSE(gate.busy());
}

TEST(WithTimeoutResult, FailureReturnsAtOnceNotAtTheLimit) {
  const auto start = std::chrono::steady_clock::now();
  auto value = withTimeout<int>(40, [](std::stop_token) -> int {
    std::this_thread::sleep_for(300ms);
    throw TimeoutError();
  });
  EXPECT_FALSE(value.has_value());
  EXPECT_GE(secondsSince(start), 0.25);
  EXPECT_LT(secondsSince(start), 30);
}

TEST(WithTimeoutLimit, FiresWhileTheWorkIsStillRunning) {
  auto sawStop = std::make_shared<std::atomic<bool>>(false);
  auto mayFinish = std::make_shared<std::atomic<bool>>(false);
  auto finished = std::make_shared<std::atomic<bool>>(false);
  auto value = withTimeout<int>(0.2, [=](std::stop_token token) {
    while (!token.stop_requested()) {
      std::this_thread::sleep_for(1ms);
    }
    *sawStop = true;
    // Keeps running after the stop request; withTimeout must not wait for this.
    waitFor(*mayFinish, 60s);
    *finished = true;
    return 1;
  });
  EXPECT_FALSE(value.has_value());
  EXPECT_FALSE(finished->load());
  EXPECT_TRUE(waitFor(*sawStop));
  *mayFinish = true;
  EXPECT_TRUE(waitFor(*finished));
}

TEST(WithTimeoutLimit, CallerStopEndsTheWaitAndStopsTheWork) {
  std::stop_source caller;
  auto sawStop = std::make_shared<std::atomic<bool>>(false);
  std::thread canceller([&caller] {
    std::this_thread::sleep_for(100ms);
    caller.request_stop();
  });
  const auto start = std::chrono::steady_clock::now();
  auto value = withTimeout<int>(
      600,
      [sawStop](std::stop_token token) {
        while (!token.stop_requested()) {
          std::this_thread::sleep_for(1ms);
        }
        *sawStop = true;
        return 1;
      },
      caller.get_token());
  canceller.join();
  EXPECT_FALSE(value.has_value());
  EXPECT_LT(secondsSince(start), 30);
  EXPECT_TRUE(waitFor(*sawStop));

  // A caller that has already stopped does not start the work at all.
  auto started = std::make_shared<std::atomic<bool>>(false);
  auto none = withTimeout<int>(
      1,
      [started](std::stop_token) {
        *started = true;
        return 1;
      },
      caller.get_token());
  EXPECT_FALSE(none.has_value());
  EXPECT_FALSE(started->load());
}

TEST(WithTimeoutLimit, BadLimitsGiveAClearResult) {
  for (double limit : {-1.0, std::nan("")}) {
    auto sawStop = std::make_shared<std::atomic<bool>>(false);
    auto value = withTimeout<int>(limit, [sawStop](std::stop_token token) {
      while (!token.stop_requested()) {
        std::this_thread::sleep_for(1ms);
      }
      *sawStop = true;
      return 1;
    });
    EXPECT_FALSE(value.has_value());
    EXPECT_TRUE(waitFor(*sawStop));
  }
  // No limit at all waits for the work.
  auto value = withTimeout<int>(std::numeric_limits<double>::infinity(), [](std::stop_token) {
    std::this_thread::sleep_for(50ms);
    return 3;
  });
  EXPECT_EQ(value, 3);
  EXPECT_FALSE(withTimeout<int>(1, nullptr).has_value());
}

TEST(AIEngineRespond, SendsInstructionsPromptAndSchema) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "Reisen"}}));
  auto content =
      AIEngine::respond("Wie heisst das Thema?", TopicName::guidedType(), 30, {}, scope.env());
  ASSERT_TRUE(content.has_value());
  EXPECT_EQ((*content)["name"], "Reisen");
  auto requests = scope.model().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].instructions, AIEngine::instructions);
  EXPECT_EQ(requests[0].prompt, "Wie heisst das Thema?");
  EXPECT_EQ(requests[0].type.name, "TopicName");
  EXPECT_EQ(requests[0].type.schema, TopicName::guidedType().schema);
  EXPECT_TRUE(requests[0].includeSchemaInPrompt);
  EXPECT_FALSE(AIEngine::gate().busy());
}

TEST(AIEngineRespond, NothingFailureAndLateAnswerGiveNoValue) {
  ModelScope scope;
  scope.model().then(ScriptedModel::nothing());
  scope.model().then(ScriptedModel::fail());
  scope.model().then(ScriptedModel::answer(Json{{"name", "x"}}, 60s));
  EXPECT_FALSE(AIEngine::respond("a", TopicName::guidedType(), 30, {}, scope.env()).has_value());
  EXPECT_FALSE(AIEngine::respond("b", TopicName::guidedType(), 30, {}, scope.env()).has_value());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(AIEngine::respond("c", TopicName::guidedType(), 0.2, {}, scope.env()).has_value());
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
  ASSERT_TRUE(waitForWaiters(AIEngine::gate(), 1));
  std::this_thread::sleep_for(1500ms);  // longer than the limit
  AIEngine::gate().release();
  auto content = pending.get();
  ASSERT_TRUE(content.has_value());
  EXPECT_EQ((*content)["name"], "Kochen");
}

TEST(AIEngineRespond, StoppedCallerNeverReachesTheModel) {
  ModelScope scope;
  scope.model().then(ScriptedModel::answer(Json{{"name", "x"}}));
  std::stop_source stopped;
  stopped.request_stop();
  EXPECT_FALSE(AIEngine::respond("p", TopicName::guidedType(), 30, stopped.get_token(), scope.env())
                   .has_value());
  EXPECT_TRUE(scope.model().requests().empty());
  EXPECT_FALSE(AIEngine::gate().busy());
}

}  // namespace
}  // namespace kestrova
