// McpProcess: a running `kestrova-cli mcp` driven line by line over pipes, as a client drives it.
#pragma once

#include <string>
#include <vector>

#include "support/pipe_child.h"

namespace kestrova::testing {

class McpProcess {
 public:
  McpProcess(const std::string& cli, const std::vector<std::string>& args)
      : child_([&] {
          std::vector<std::string> all{cli};
          all.insert(all.end(), args.begin(), args.end());
          return all;
        }()) {}

  // Sends `line` with a newline and returns the reply line without its newline; "" when the
  // process ended without answering.
  std::string request(const std::string& line) {
    return child_.write(line + "\n") ? child_.readLine().value_or("") : "";
  }

 private:
  PipeChild child_;
};

}  // namespace kestrova::testing
