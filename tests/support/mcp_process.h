// McpProcess: a running `kestrova-cli mcp` driven line by line over pipes, as a client drives it.
// Used by integration tests and benchmarks. Not thread-safe.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrova::testing {

class McpProcess {
 public:
  // Starts `cli` with `args` (for example {"mcp", "--library", path}); standard error is
  // discarded. Throws std::runtime_error when the process cannot be started.
  McpProcess(const std::string& cli, const std::vector<std::string>& args) {
    int in[2];
    int out[2];
    if (::pipe(in) != 0) {
      throw std::runtime_error("pipe failed");
    }
    if (::pipe(out) != 0) {
      ::close(in[0]);
      ::close(in[1]);
      throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> all{cli};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) {
      argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      for (int fd : {in[0], in[1], out[0], out[1]}) {
        ::close(fd);
      }
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (pid_ < 0) {
      ::close(in[1]);
      ::close(out[0]);
      throw std::runtime_error("fork failed");
    }
    in_ = in[1];
    out_ = out[0];
  }

  ~McpProcess() {
    if (in_ >= 0) {
      ::close(in_);
    }
    if (out_ >= 0) {
      ::close(out_);
    }
    if (pid_ > 0) {
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }

  McpProcess(const McpProcess&) = delete;
  McpProcess& operator=(const McpProcess&) = delete;

  // Sends `line` with a newline and returns the reply line without its newline; "" when the
  // process ended without answering.
  std::string request(const std::string& line) {
    const std::string bytes = line + "\n";
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::write(in_, bytes.data() + done, bytes.size() - done);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return "";
      }
      done += static_cast<std::size_t>(n);
    }
    for (;;) {
      const std::size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        std::string reply = buffer_.substr(0, newline);
        buffer_.erase(0, newline + 1);
        return reply;
      }
      char chunk[65536];
      const ssize_t n = ::read(out_, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return "";
      }
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string buffer_;
};

}  // namespace kestrova::testing
