#include "mcp_command.h"

#include <iostream>
#include <system_error>

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <kestrova/mcp_server.h>
#include <kestrova/store.h>

namespace kestrova::cli {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> homeOf(std::string_view user, Env& env) {
  if (user.empty()) {
    if (std::optional<std::string> home = env.variable("HOME"); home && !home->empty()) {
      return home;
    }
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir) {
      return std::string(entry->pw_dir);
    }
    return std::nullopt;
  }
  const std::string name(user);
  if (const passwd* entry = ::getpwnam(name.c_str()); entry != nullptr && entry->pw_dir) {
    return std::string(entry->pw_dir);
  }
  return std::nullopt;
}

std::string expandTilde(std::string_view path, Env& env) {
  if (path.empty() || path.front() != '~') {
    return std::string(path);
  }
  const std::size_t slash = path.find('/');
  const std::string_view user =
      path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
  std::optional<std::string> home = homeOf(user, env);
  if (!home) {
    return std::string(path);
  }
  if (slash == std::string_view::npos) {
    return *home;
  }
  // "~/x" with a home of "/" must give "/x", not "//x".
  while (home->size() > 1 && home->back() == '/') {
    home->pop_back();
  }
  std::string rest(path.substr(slash));
  return *home == "/" ? rest : *home + rest;
}

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
