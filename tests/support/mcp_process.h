// McpProcess: a running `kestrova-cli mcp` driven line by line over pipes, as a client drives it.
// Used by integration tests and benchmarks. Not thread-safe.
#pragma once

#include <string>
#include <vector>

#include "support/pipe_child.h"

namespace kestrova::testing {

class McpProcess {
 public:
  // Starts `cli` with `args` (for example {"mcp", "--library", path}); standard error is
  // discarded. Throws std::runtime_error when the process cannot be started.
  McpProcess(const std::string& cli, const std::vector<std::string>& args)
      : child_(with(cli, args)) {}

  // Sends `line` with a newline and returns the reply line without its newline; "" when the
  // process ended without answering.
  std::string request(const std::string& line) {
    return child_.write(line + "\n") ? child_.readLine().value_or("") : "";
  }

 private:
  static std::vector<std::string> with(const std::string& cli, std::vector<std::string> args) {
    args.insert(args.begin(), cli);
    return args;
  }
  PipeChild child_;
};

}  // namespace kestrova::testing
