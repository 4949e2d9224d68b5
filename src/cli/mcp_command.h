// The `mcp` subcommand: serves the library over the Model Context Protocol on standard input and
// output until input ends. Standard output belongs to the protocol alone.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <kestrova/env.h>

namespace kestrova::cli {

struct McpOptions {
  std::optional<std::string> library;  // --library: path of library.json
};

// The library file for `--library`: a leading "~" (alone, "~/…" or "~user/…") becomes that home
// folder (for "~": env's HOME when it is set and not empty), and a relative path is made absolute
// against the current folder. A "~user" naming no known user is kept as written.
std::filesystem::path libraryPath(std::string_view argument, Env& env = Env::real());

// Runs the server over `env` until standard input ends or the client stops reading standard
// output, then returns the process exit status (0). Without --library it serves
// LibraryStore::defaultURL(env). SIGPIPE is ignored, so a closed output ends the server through a
// failed write instead of killing it.
int runMcp(const McpOptions& options, Env& env = Env::real());

}  // namespace kestrova::cli
