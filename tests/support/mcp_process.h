// McpProcess: a running `kestrova-cli mcp` driven line by line over pipes, as a client drives it.
#pragma once

#include <string>
#include <vector>

#include "support/pipe_child.h"

namespace kestrova::testing {

class McpProcess : public PipeChild {
 public:
  McpProcess(const std::string& cli, std::vector<std::string> args)
      : PipeChild((args.insert(args.begin(), cli), std::move(args))) {}

  // Sends `line` and returns the reply line; "" when the process ended without answering.
  std::string request(const std::string& line) {
    return write(line + "\n") ? readLine().value_or("") : "";
  }
};

}  // namespace kestrova::testing
