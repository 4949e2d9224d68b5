// MCPServer: the library as a Model Context Protocol server. An AI assistant (Claude Desktop,
// Claude Code) talks JSON-RPC 2.0 to it, one message per line, over standard input and output,
// and uses its tools to list, read and annotate the saved tabs.
//
// Every tool call works on the document library.json holds at that moment: the server keeps the
// last document it loaded or saved and uses it while the file is exactly that version (see
// LibraryCache), and loads the file afresh as soon as anything changed it. A tool that changes a
// tab writes the whole document back at once. So a desktop application and the server can share
// one file, each sees the other's change at its very next call, and the last writer wins. What
// searches derive from the kept document (SearchCache) is kept with it.
//
// Not thread-safe: one thread reads, handles and answers the requests strictly in order.
#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <kestrova/library_cache.h>
#include <kestrova/search_index.h>
#include <kestrova/store.h>

namespace kestrova {

class Embedder;

class MCPServer {
 public:
  // The protocol version offered when the client names none.
  static constexpr std::string_view protocolVersion = "2025-06-18";

  // The server works on `store` for its whole life.
  explicit MCPServer(LibraryStore store);

  // Serves `in` until it ends: each line goes through handle(), and each reply is written to
  // `out` with a newline and flushed before the next line is read. Nothing else is ever written.
  // Returns true at the end of input, false when writing a reply failed (the client closed its
  // end); the server stops then rather than read requests it can no longer answer.
  bool run(std::istream& in, std::ostream& out);

  // One input line in, one reply line (without newline) out; no value for a blank line and for a
  // notification (a message without an "id" key). Never throws: a line that is not a JSON object
  // gets the -32700 parse error with id null, an unknown method -32601, and a reply that cannot
  // be written the fixed -32603 line. Invalid UTF-8 is read as U+FFFD.
  std::optional<std::string> handle(std::string_view line);

  // The client configuration for this server: eight lines of JSON without a final newline, with
  // `cliPath` inserted verbatim (not escaped) as the command.
  static std::string claudeConfigSnippet(std::string_view cliPath);

  // The tools offered by "tools/list", in order: name, description and input schema of each.
  static const nlohmann::json& toolDefinitions();

  // The result of "tools/call" for tool `name` with the call's `arguments` (an object), on the
  // document the file holds now. Failures are results with "isError" true and a German message,
  // never exceptions. Arguments of the wrong JSON type count as missing; an integer argument may
  // also be given as a number with an integral value (3.0), while a fractional or out-of-range one
  // counts as missing and its default applies.
  nlohmann::json callTool(std::string_view name, const nlohmann::json& arguments);

 private:
  nlohmann::json dispatch(const std::string& method, const nlohmann::json& params);

  // The document between calls, and what searches derived from it; the latter is dropped
  // whenever the former is.
  LibraryCache library_;
  SearchCache searchCache_;
  // Made on the first search, with semantic vectors allowed, and kept for the server's life.
  std::shared_ptr<Embedder> embedder_;
};

}  // namespace kestrova
