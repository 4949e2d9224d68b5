#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <kestrova/tcp_stream.h>

#include "posix_io.h"

namespace kestrova {
namespace {

using Clock = std::chrono::steady_clock;

// Waits for `events` on `fd` until `deadline`; false when the time ran out or poll failed.
bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() < 0) {
      return false;
    }
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
    if (ready > 0) {
      return true;
    }
    if (ready == 0 || errno != EINTR) {
      return false;
    }
  }
}

}  // namespace

std::optional<TcpStream> TcpStream::connect(const std::string& host, int port,
                                            std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (port <= 0 || port > 65535 ||
      ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    return std::nullopt;
  }
  std::optional<TcpStream> out;
  for (addrinfo* at = found; at != nullptr && !out; at = at->ai_next) {
    const int fd = posix::openStreamSocket(at->ai_family);
    if (fd < 0) {
      continue;
    }
    TcpStream stream(fd);
    if (::connect(fd, at->ai_addr, at->ai_addrlen) == 0) {
      out = std::move(stream);
      continue;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (errno == EINPROGRESS && waitFor(fd, POLLOUT, deadline) &&
        ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0) {
      out = std::move(stream);
    }
  }
  ::freeaddrinfo(found);
  return out;
}

TcpStream::TcpStream(TcpStream&& other) noexcept : fd_(other.fd_) {
  other.fd_ = -1;
}

TcpStream& TcpStream::operator=(TcpStream&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

TcpStream::~TcpStream() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

bool TcpStream::send(std::string_view bytes, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!bytes.empty()) {
    const ssize_t n = posix::sendWithoutSignal(fd_, bytes.data(), bytes.size());
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    } else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      return false;
    } else if (!waitFor(fd_, POLLOUT, deadline)) {
      return false;
    }
  }
  return true;
}

bool TcpStream::receive(std::string& out, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  char buffer[1 << 15];
  for (;;) {
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
    if (n > 0) {
      out.append(buffer, static_cast<std::size_t>(n));
      return true;
    }
    if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      return false;
    }
    if (!waitFor(fd_, POLLIN, deadline)) {
      return false;
    }
  }
}

}  // namespace kestrova
