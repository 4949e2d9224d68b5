// ProcessLauncher: starts helper programs (the platform's "open" commands) on behalf of the core.
// It sits behind an interface so that tests can record what would have been started instead of
// opening a browser. Env::processLauncher() gives it (env.h); the real one keeps no state and is
// thread-safe.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

class ProcessLauncher {
 public:
  virtual ~ProcessLauncher() = default;

  // Starts argv[0] (looked up on PATH) with the remaining arguments, without a shell, with
  // standard input and output connected to /dev/null. Waits for it to end, at most `wait`; a
  // program still running then is left to run (and reaped when it ends) and counts as exit
  // status 0. Returns the exit status, or no value when the program cannot be started (not found,
  // not executable, killed by a signal).
  virtual std::optional<int> run(const std::vector<std::string>& argv,
                                 std::chrono::milliseconds wait = std::chrono::seconds(15)) = 0;
};

}  // namespace kestrova
