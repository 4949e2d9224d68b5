// TcpStream: one TCP connection with time limits on every step, for talking to local services
// (a browser's DevTools port). Writes to a peer that has gone fail instead of raising SIGPIPE.
// Not thread-safe; one owner.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

class TcpStream {
 public:
  // Connects to `host` (a name or a numeric address) on `port` within `timeout`; no value when
  // nothing accepts there in time.
  static std::optional<TcpStream> connect(const std::string& host, int port,
                                          std::chrono::milliseconds timeout);

  TcpStream(TcpStream&& other) noexcept;
  TcpStream& operator=(TcpStream&& other) noexcept;
  TcpStream(const TcpStream&) = delete;
  TcpStream& operator=(const TcpStream&) = delete;
  ~TcpStream();

  // Sends all of `bytes` within `timeout`; false when the peer is gone or too slow.
  bool send(std::string_view bytes, std::chrono::milliseconds timeout);

  // Appends what arrives within `timeout` (at least one byte) to `out`: true with bytes added,
  // false at the end of the stream, on an error, or when nothing came in time.
  bool receive(std::string& out, std::chrono::milliseconds timeout);

 private:
  explicit TcpStream(int fd) : fd_(fd) {}
  int fd_ = -1;
};

}  // namespace kestrova
