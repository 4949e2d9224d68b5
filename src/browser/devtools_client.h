// DevToolsClient: commands to a Chromium-family browser over its DevTools WebSocket, one at a
// time, each waiting for its own reply; and the plain HTTP request that finds the WebSocket.
// Every step has a time limit, and every answer that is not what the protocol promises becomes a
// BrowserError, never a crash.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include <kestrova/browser.h>
#include <kestrova/tcp_stream.h>

namespace kestrova::devtools {

// The body of an HTTP GET of `path`; throws BrowserError (notRunning when nothing answers,
// protocol for anything but a complete 200 answer).
std::string httpGet(const std::string& host, int port, const std::string& path,
                    std::chrono::milliseconds timeout);

// One WebSocket frame as a client sends it (masked with `mask`).
std::string clientFrame(std::uint8_t opcode, std::string_view payload, std::uint32_t mask);

class Client {
 public:
  // Opens the WebSocket at `path` on host:port. Throws BrowserError.
  Client(const std::string& host, int port, const std::string& path,
         std::chrono::milliseconds timeout);

  // Sends `method` with `params` and returns the reply's "result". Throws BrowserError with the
  // browser's own message when it answers with an error.
  nlohmann::json call(const std::string& method, nlohmann::json params = nlohmann::json::object());

 private:
  // The next whole message (control frames answered or skipped on the way).
  std::string nextMessage();
  void fill();

  TcpStream stream_;
  std::chrono::milliseconds timeout_;
  std::string buffer_;
  std::int64_t nextId_ = 1;
};

// The error for an answer that does not fit the protocol.
BrowserError unexpected(const std::string& what);

}  // namespace kestrova::devtools
