// Starting helper programs as child processes without a shell: argv is passed as it is, so no
// value in it is ever interpreted by a shell. Used by the script runner and the process launcher.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::process {

// The absolute path of `program`: itself when it contains a slash (and is executable), otherwise
// the first executable file of that name in the folders of PATH. No value when there is none.
std::optional<std::string> findExecutable(std::string_view program);

struct ChildResult {
  bool started = false;   // false: the program could not be started
  bool timedOut = false;  // killed after the time limit
  int exitStatus = -1;    // exit status; -1 when killed by a signal or not started
  std::string out;        // standard output, at most `maxOutput` bytes
  std::string err;        // standard error, at most `maxOutput` bytes
};

// Runs `executable` with `argv` (argv[0] included), writes `input` to its standard input and
// closes it, collects its output and waits for it to end. After `timeout` the child is killed.
// Output beyond `maxOutput` bytes per stream is read and dropped. Never throws for a failing child;
// a child that closes its input early simply gets less of it.
ChildResult runChild(const std::string& executable, const std::vector<std::string>& argv,
                     std::string_view input, std::chrono::milliseconds timeout,
                     std::size_t maxOutput = 64u << 20);

// Starts `executable` with standard input and output on /dev/null and waits for it at most
// `wait`. Returns the exit status; 0 when it is still running at that point (it is then reaped
// in the background); no value when it could not be started or was killed by a signal.
std::optional<int> launch(const std::string& executable, const std::vector<std::string>& argv,
                          std::chrono::milliseconds wait);

}  // namespace kestrova::process
