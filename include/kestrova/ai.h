// The pieces every use of the language model goes through: AIStatus (may the model be used in this
// run, and a line for the user about it), AIEngine (the shared instructions and the one gate all
// model requests pass), SerialGate (one request at a time, first come, first served) and
// withTimeout (bounds one request in time and turns every failure into no value). A failed, late or
// empty answer is never an error for the user: the caller takes its keyword path.
#pragma once

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <kestrova/env.h>
#include <kestrova/language_model.h>

namespace kestrova {

// Thrown by a model operation to say that the model gave no usable answer (for example an empty
// summary). withTimeout turns it into no value; it never reaches a user.
class TimeoutError : public std::runtime_error {
 public:
  TimeoutError() : std::runtime_error("Das Sprachmodell hat keine brauchbare Antwort gegeben.") {}
};

namespace AIStatus {

// Whether the model is switched off for this run of the process. Read once, on first use, from the
// real environment (forceOffFromEnvironment()). The self-test's no-AI flag raises it before any
// model work starts. Thread-safe.
bool forceOff();
void setForceOff(bool value);

// True when KESTROVA_NO_AI is present in `env` now, whatever its value (an empty value too).
// forceOff() caches this once for the real environment.
bool forceOffFromEnvironment(Env& env = Env::real());

// False when forceOff(); otherwise whether env's model reports itself available. Asks the model
// afresh on every call.
bool isAvailable(Env& env = Env::real());

// One line for the user about the state of env's model, for example
// "Apple Intelligence: für diesen Lauf ausgeschaltet".
std::string description(Env& env = Env::real());
// The line for a given state; description() is describe(forceOff(), <model's availability>).
std::string describe(bool forcedOff, ModelAvailability availability);

}  // namespace AIStatus

// Lets one holder at a time through, strictly in the order callers arrived at acquire(). A release
// hands the gate straight to the longest waiting caller, so a caller arriving at that moment cannot
// overtake the queue. There is no time limit on waiting and a waiter cannot be cancelled.
// Thread-safe; not copyable.
class SerialGate {
 public:
  SerialGate() = default;
  SerialGate(const SerialGate&) = delete;
  SerialGate& operator=(const SerialGate&) = delete;

  // Returns once the caller holds the gate.
  void acquire();
  // Passes the gate to the next waiter, or frees it. Must be called once by the holder; a release
  // of a free gate does nothing.
  void release();

  // Runs `operation` while holding the gate and releases it whether the operation returns or
  // throws; returns its value or rethrows its exception.
  template <class Operation>
  auto run(Operation&& operation) -> decltype(operation());

  // Whether some caller holds the gate, and how many wait for it (for tests and diagnostics).
  bool busy() const;
  std::size_t waiting() const;

 private:
  struct Waiter {
    bool admitted = false;
    std::condition_variable wake;
  };

  mutable std::mutex mutex_;
  bool busy_ = false;
  std::deque<Waiter*> waiters_;  // first in, first out; each lives on its caller's stack
};

namespace AIEngine {

// The system instructions of every model session.
inline constexpr std::string_view instructions =
    "Du bist ein Helfer in einer Mac-App, die gespeicherte Browser-Tabs ordnet. Antworte immer auf "
    "Deutsch mit Schweizer Schreibweise (ss statt ß), kurz, sachlich und ohne Floskeln.";

// The one gate of the process that every model request takes, created on first use.
SerialGate& gate();

// One model request the way every caller makes it: waits for gate() (not counted against the
// limit), then under withTimeout(seconds) asks env.languageModel() for one record of `type`
// in a fresh session with `instructions`, the schema in the prompt and default options; releases
// the gate in every case. No value when the model gave none, failed, was too late or `stop` was
// requested (a request whose caller already stopped never reaches the model). Does not look at
// AIStatus: callers decide whether to ask at all. The request holds on to the model it got, so a
// request left running at the limit may outlive `env`.
std::optional<Json> respond(const std::string& prompt, const GuidedType& type, double seconds,
                            std::stop_token stop = {}, Env& env = Env::real());

}  // namespace AIEngine

// Runs `work` on a worker thread and waits at most `seconds` for it. Returns its value when it
// returns in time; no value as soon as it throws (any exception), when the limit passes first, or
// when `stop` (the caller's own cancellation) is requested first. In the last two cases the work is
// asked to stop through its std::stop_token and is left to finish on its own: withTimeout returns
// at the limit whether or not the work has stopped yet, so the work must not refer to anything of
// the caller's that may die before it ends (capture by value). A negative or NaN limit counts as 0;
// an infinite limit waits for the work. Never throws; if no thread can be started, gives no value.
template <class T>
std::optional<T> withTimeout(double seconds, std::function<T(std::stop_token)> work,
                             std::stop_token stop = {});

// ---- implementation of the templates ----

template <class Operation>
auto SerialGate::run(Operation&& operation) -> decltype(operation()) {
  acquire();
  struct Releaser {
    SerialGate* gate;
    ~Releaser() { gate->release(); }
  } releaser{this};
  return operation();
}

namespace detail {

// What the caller of withTimeout and its worker share; the worker may outlive the caller.
template <class T>
struct TimedWork {
  std::mutex mutex;
  std::condition_variable_any finished;
  bool done = false;
  std::optional<T> value;
  std::stop_source stopper;
};

// The limit as a deadline; no value for "wait for ever".
std::optional<std::chrono::steady_clock::time_point> deadlineAfter(double seconds);

}  // namespace detail

template <class T>
std::optional<T> withTimeout(double seconds, std::function<T(std::stop_token)> work,
                             std::stop_token stop) {
  if (!work || stop.stop_requested()) {
    return std::nullopt;
  }
  const auto deadline = detail::deadlineAfter(seconds);
  auto shared = std::make_shared<detail::TimedWork<T>>();
  try {
    std::thread([shared, work = std::move(work)]() mutable {
      std::optional<T> result;
      try {
        result.emplace(work(shared->stopper.get_token()));
      } catch (...) {
        result.reset();  // any failure means "no usable answer"
      }
      std::lock_guard lock(shared->mutex);
      shared->value = std::move(result);
      shared->done = true;
      shared->finished.notify_all();
    }).detach();
  } catch (...) {
    return std::nullopt;
  }

  std::unique_lock lock(shared->mutex);
  const auto isDone = [&shared] { return shared->done; };
  bool done = false;
  if (deadline) {
    done = shared->finished.wait_until(lock, stop, *deadline, isDone);
  } else {
    done = shared->finished.wait(lock, stop, isDone);
  }
  if (done) {
    return std::move(shared->value);
  }
  lock.unlock();
  shared->stopper.request_stop();
  return std::nullopt;
}

}  // namespace kestrova
