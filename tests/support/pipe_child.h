// PipeChild: a program on pipes (standard error discarded), for tests that play a misbehaving
// client. One thread may write while another reads.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace kestrova::testing {

class PipeChild {
 public:
  // `extraEnv` entries ("NAME=value") replace or extend this process's environment.
  PipeChild(std::vector<std::string> argv, const std::vector<std::string>& extraEnv = {}) {
    // A child that stops reading must give this process an error, not end it.
    ::signal(SIGPIPE, SIG_IGN);
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe failed");
    std::vector<std::string> env = extraEnv;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string name(*e, std::strcspn(*e, "=") + 1);
      if (std::none_of(extraEnv.begin(), extraEnv.end(),
                       [&](const std::string& x) { return x.rfind(name, 0) == 0; }))
        env.push_back(*e);
    }
    std::vector<char*> argp, envp;
    for (auto [from, to] : {std::pair{&argv, &argp}, std::pair{&env, &envp}}) {
      for (std::string& s : *from)
        to->push_back(s.data());
      to->push_back(nullptr);
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      ::dup2(::open("/dev/null", O_WRONLY), 2);
      ::signal(SIGPIPE, SIG_DFL);
      ::execve(argp[0], argp.data(), envp.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    in_ = in[1];
    out_ = out[0];
    if (pid_ < 0)
      throw std::runtime_error("fork failed");
  }

  ~PipeChild() {
    closeInput();
    closeOutput();
    if (pid_ > 0 && !status_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
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
    for (std::size_t newline; (newline = buffer_.find('\n', scanned_)) == std::string::npos;) {
      scanned_ = buffer_.size();
      char chunk[1 << 16];
      const ssize_t n = ::read(out_, chunk, sizeof chunk);
      if (n <= 0 && errno != EINTR)
        return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    const std::size_t newline = buffer_.find('\n', scanned_);
    std::string line = buffer_.substr(0, newline);
    buffer_.erase(0, newline + 1);
    scanned_ = 0;
    return line;
  }

  void closeInput() { closeFd(in_); }
  void closeOutput() { closeFd(out_); }

  // The wait status, or no value if the child still runs after `limit`.
  std::optional<int> waitFor(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    for (int status = 0; !status_; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = status;
      } else if (std::chrono::steady_clock::now() >= until) {
        break;
      }
    }
    return status_;
  }

  // The child's peak resident memory in kB (VmHWM), while it runs; 0 if it cannot be read.
  long peakResidentKb() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmHWM:", 0) == 0)
        return std::stol(line.substr(6));
    }
    return 0;
  }

 private:
  static void closeFd(int& fd) {
    if (fd >= 0)
      ::close(fd);
    fd = -1;
  }
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1;
  std::string buffer_;
  std::size_t scanned_ = 0;
  std::optional<int> status_;
};

}  // namespace kestrova::testing
