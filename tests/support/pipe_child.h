// PipeChild: a program on pipes (standard error discarded), for tests that play a misbehaving
// client. One thread may write while another reads.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrova::testing {

class PipeChild {
 public:
  // env(1) sets `extraEnv` ("NAME=value") and becomes the program, keeping its process id.
  PipeChild(std::vector<std::string> argv, const std::vector<std::string>& extraEnv = {}) {
    ::signal(SIGPIPE, SIG_IGN);  // a child that stops reading gives an error, not our end
    argv.insert(argv.begin(), extraEnv.begin(), extraEnv.end());
    argv.insert(argv.begin(), "/usr/bin/env");
    std::vector<char*> argp(argv.size() + 1, nullptr);
    std::transform(argv.begin(), argv.end(), argp.begin(), [](std::string& s) { return s.data(); });
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe failed");
    if ((pid_ = ::fork()) == 0) {
      ::dup2(in[0], 0), ::dup2(out[1], 1), ::dup2(::open("/dev/null", O_WRONLY), 2);
      ::signal(SIGPIPE, SIG_DFL);
      ::execv(argp[0], argp.data());
      ::_exit(127);
    }
    ::close(in[0]), ::close(out[1]);
    in_ = in[1], out_ = out[0];
    if (pid_ < 0)
      throw std::runtime_error("fork failed");
  }
  ~PipeChild() {
    closeInput(), closeOutput();
    if (pid_ > 0 && !status_)
      ::kill(pid_, SIGKILL), ::waitpid(pid_, nullptr, 0);
  }
  PipeChild(const PipeChild&) = delete;
  PipeChild& operator=(const PipeChild&) = delete;

  pid_t pid() const { return pid_; }

  // Writes all of `bytes` to the child's standard input; false when the child no longer reads.
  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::write(in_, bytes.data(), bytes.size());
      if (n <= 0 && errno != EINTR)
        return false;
      bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    return true;
  }

  // The next line of the child's standard output without its newline; no value at its end.
  std::optional<std::string> readLine() {
    std::size_t newline;
    while ((newline = buffer_.find('\n', scanned_)) == std::string::npos) {
      scanned_ = buffer_.size();
      char chunk[1 << 16];
      const ssize_t n = ::read(out_, chunk, sizeof chunk);
      if (n <= 0 && errno != EINTR)
        return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    std::string line = buffer_.substr(0, newline);
    buffer_.erase(0, newline + 1);
    scanned_ = 0;
    return line;
  }

  void closeInput() { ::close(std::exchange(in_, -1)); }
  void closeOutput() { ::close(std::exchange(out_, -1)); }

  // The wait status, or no value if the child still runs after `limit`.
  std::optional<int> waitFor(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    for (int status = 0; !status_; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      if (::waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = status;
      else if (std::chrono::steady_clock::now() >= until)
        break;
    }
    return status_;
  }

  // The child's peak resident memory in kB (VmHWM), while it runs; 0 if it cannot be read.
  long peakResidentKb() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("VmHWM:", 0) != 0) {
    }
    return line.rfind("VmHWM:", 0) == 0 ? std::stol(line.substr(6)) : 0;
  }

 private:
  int pid_ = -1, in_ = -1, out_ = -1;
  std::string buffer_;
  std::size_t scanned_ = 0;
  std::optional<int> status_;
};

}  // namespace kestrova::testing
