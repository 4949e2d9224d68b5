#include "mcp_command.h"

#include <iostream>
#include <system_error>

#include <signal.h>
#include <unistd.h>

#include <kestrova/mcp_server.h>
#include <kestrova/store.h>

namespace kestrova::cli {
namespace {

namespace fs = std::filesystem;

}  // namespace

fs::path libraryPath(std::string_view argument, Env& env) {
  fs::path path = expandTilde(argument, env);
  if (path.is_relative()) {
    std::error_code error;
    fs::path absolute = fs::absolute(path, error);
    if (!error) {
      return absolute;
    }
  }
  return path;
}

int runMcp(const McpOptions& options, Env& env) {
  ::signal(SIGPIPE, SIG_IGN);
  // Our own buffers instead of C stdio's: faster for requests of several megabytes, and every
  // reply is flushed explicitly anyway.
  std::ios::sync_with_stdio(false);
  std::cin.tie(nullptr);

  LibraryStore store(
      options.library ? libraryPath(*options.library, env) : LibraryStore::defaultURL(env), env);
  MCPServer server(std::move(store));
  server.run(std::cin, std::cout);
  return 0;
}

}  // namespace kestrova::cli
