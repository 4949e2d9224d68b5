// PipeChild: a program started with pipes on its standard input and output (standard error is
// discarded), for tests that play a client which misbehaves: closes a pipe half way, sends huge
// lines, or floods the program with requests. Not thread-safe, except that one thread may write
// while another reads.
#pragma once

#include <cerrno>
#include <chrono>
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
  // Starts `argv[0]` with `argv`; `extraEnv` entries ("NAME=value") replace or extend this
  // process's environment. Throws std::runtime_error when the program cannot be started.
  PipeChild(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {}) {
    // A child that stops reading must give this process an error, not end it.
    ::signal(SIGPIPE, SIG_IGN);
    int in[2];
    int out[2];
#if defined(__linux__)
    const bool opened = ::pipe2(in, O_CLOEXEC) == 0 && ::pipe2(out, O_CLOEXEC) == 0;
#else
    const bool opened = ::pipe(in) == 0 && ::pipe(out) == 0 &&
                        ::fcntl(in[0], F_SETFD, FD_CLOEXEC) == 0 &&
                        ::fcntl(in[1], F_SETFD, FD_CLOEXEC) == 0 &&
                        ::fcntl(out[0], F_SETFD, FD_CLOEXEC) == 0 &&
                        ::fcntl(out[1], F_SETFD, FD_CLOEXEC) == 0;
#endif
    if (!opened) {
      throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> args = argv;
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string entry = *e;
      bool replaced = false;
      for (const std::string& extra : extraEnv) {
        replaced |= entry.substr(0, entry.find('=') + 1) == extra.substr(0, extra.find('=') + 1);
      }
      if (!replaced) {
        env.push_back(entry);
      }
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> argp;
    std::vector<char*> envp;
    for (std::string& a : args) {
      argp.push_back(a.data());
    }
    argp.push_back(nullptr);
    for (std::string& e : env) {
      envp.push_back(e.data());
    }
    envp.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      const int devNull = ::open("/dev/null", O_WRONLY);
      ::dup2(devNull, 2);
      ::signal(SIGPIPE, SIG_DFL);
      ::execve(argp[0], argp.data(), envp.data());
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

  ~PipeChild() {
    closeInput();
    closeOutput();
    if (pid_ > 0 && !status_) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }

  PipeChild(const PipeChild&) = delete;
  PipeChild& operator=(const PipeChild&) = delete;

  pid_t pid() const { return pid_; }

  // Writes all of `bytes` to the child's standard input; false when the child no longer reads.
  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::write(in_, bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return false;
      }
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
  }

  // The next line of the child's standard output without its newline; no value at its end.
  std::optional<std::string> readLine() {
    for (;;) {
      const std::size_t newline = buffer_.find('\n', scanned_);
      if (newline != std::string::npos) {
        std::string line = buffer_.substr(0, newline);
        buffer_.erase(0, newline + 1);
        scanned_ = 0;
        return line;
      }
      scanned_ = buffer_.size();
      char chunk[1 << 16];
      const ssize_t n = ::read(out_, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return std::nullopt;
      }
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

  void closeInput() {
    if (in_ >= 0) {
      ::close(in_);
      in_ = -1;
    }
  }
  void closeOutput() {
    if (out_ >= 0) {
      ::close(out_);
      out_ = -1;
    }
  }

  // Waits up to `limit` for the child to end and returns its wait status; no value if it is
  // still running then (it is killed when the PipeChild goes).
  std::optional<int> waitFor(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!status_) {
      int status = 0;
      const pid_t done = ::waitpid(pid_, &status, WNOHANG);
      if (done == pid_) {
        status_ = status;
        break;
      }
      if (std::chrono::steady_clock::now() >= until) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return status_;
  }

  // The child's peak resident memory in kB (VmHWM), while it runs; 0 if it cannot be read.
  long peakResidentKb() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("VmHWM:", 0) == 0) {
        return std::stol(line.substr(6));
      }
    }
    return 0;
  }

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string buffer_;
  std::size_t scanned_ = 0;
  std::optional<int> status_;
};

}  // namespace kestrova::testing
