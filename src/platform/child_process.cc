#include "child_process.h"

#include "posix_io.h"

#include <cstdlib>
#include <thread>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace kestrova::process {
namespace {

bool isExecutableFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// Closes a descriptor once, at the end of its scope or earlier by hand.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

std::vector<char*> makeArgv(const std::vector<std::string>& argv) {
  std::vector<char*> out;
  out.reserve(argv.size() + 1);
  for (const std::string& arg : argv) {
    out.push_back(const_cast<char*>(arg.c_str()));
  }
  out.push_back(nullptr);
  return out;
}

// Waits for `pid`, retrying after signals; returns the raw status or -1.
int waitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return status;
}

int exitStatusOf(int status) {
  if (status >= 0 && WIFEXITED(status)) {
    return WEXITSTATUS(status);
  }
  return -1;
}

void readAvailable(Fd& fd, std::string& into, std::size_t maxOutput) {
  char buffer[16384];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n > 0) {
      std::size_t room = into.size() < maxOutput ? maxOutput - into.size() : 0;
      into.append(buffer, std::min(room, static_cast<std::size_t>(n)));
      continue;
    }
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return;
    }
    fd.reset();  // end of stream or a hard error
    return;
  }
}

}  // namespace

std::optional<std::string> findExecutable(std::string_view program) {
  if (program.empty()) {
    return std::nullopt;
  }
  std::string name(program);
  if (name.find('/') != std::string::npos) {
    return isExecutableFile(name) ? std::optional(name) : std::nullopt;
  }
  const char* env = std::getenv("PATH");
  std::string path = env != nullptr ? env : "/usr/bin:/bin";
  std::size_t start = 0;
  for (;;) {
    std::size_t colon = path.find(':', start);
    std::string dir = path.substr(start, colon == std::string::npos ? colon : colon - start);
    std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + name;
    if (isExecutableFile(candidate)) {
      return candidate;
    }
    if (colon == std::string::npos) {
      return std::nullopt;
    }
    start = colon + 1;
  }
}

ChildResult runChild(const std::string& executable, const std::vector<std::string>& argv,
                     std::string_view input, std::chrono::milliseconds timeout,
                     std::size_t maxOutput) {
  ChildResult result;
  // Standard input is a socket so that writing to a child that stopped reading gives EPIPE
  // instead of a process-wide SIGPIPE.
  int inPair[2];
  int outPipe[2];
  int errPipe[2];
  if (!posix::openSocketPair(inPair)) {
    return result;
  }
  Fd inParent(inPair[0]);
  Fd inChild(inPair[1]);
  if (!posix::openPipe(outPipe)) {
    return result;
  }
  Fd outParent(outPipe[0]);
  Fd outChild(outPipe[1]);
  if (!posix::openPipe(errPipe)) {
    return result;
  }
  Fd errParent(errPipe[0]);
  Fd errChild(errPipe[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, inChild.get(), 0);
  posix_spawn_file_actions_adddup2(&actions, outChild.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, errChild.get(), 2);
  std::vector<char*> args = makeArgv(argv);
  pid_t pid = 0;
  int rc = ::posix_spawn(&pid, executable.c_str(), &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    return result;
  }
  result.started = true;
  inChild.reset();
  outChild.reset();
  errChild.reset();
  for (int fd : {inParent.get(), outParent.get(), errParent.get()}) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  if (input.empty()) {
    inParent.reset();
  }

  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::size_t written = 0;
  while (outParent.get() >= 0 || errParent.get() >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ::kill(pid, SIGKILL);
      result.timedOut = true;
      break;
    }
    pollfd fds[3];
    nfds_t count = 0;
    for (int fd : {outParent.get(), errParent.get()}) {
      if (fd >= 0) {
        fds[count++] = pollfd{fd, POLLIN, 0};
      }
    }
    if (inParent.get() >= 0) {
      fds[count++] = pollfd{inParent.get(), POLLOUT, 0};
    }
    int ready = ::poll(fds, count, static_cast<int>(std::min<long long>(left.count(), 1000)));
    if (ready < 0 && errno != EINTR) {
      ::kill(pid, SIGKILL);
      break;
    }
    if (inParent.get() >= 0) {
      ssize_t n = posix::sendWithoutSignal(inParent.get(), input.data() + written,
                                           input.size() - written);
      if (n > 0) {
        written += static_cast<std::size_t>(n);
      } else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        inParent.reset();  // the child does not read any more
      }
      if (written >= input.size()) {
        inParent.reset();
      }
    }
    if (outParent.get() >= 0) {
      readAvailable(outParent, result.out, maxOutput);
    }
    if (errParent.get() >= 0) {
      readAvailable(errParent, result.err, maxOutput);
    }
  }
  inParent.reset();
  outParent.reset();
  errParent.reset();
  if (!result.timedOut) {
    // The output is closed; the child may still linger a little while, bounded by the limit.
    for (;;) {
      int status = 0;
      pid_t done = ::waitpid(pid, &status, WNOHANG);
      if (done == pid) {
        result.exitStatus = exitStatusOf(status);
        return result;
      }
      if (done < 0 && errno != EINTR) {
        return result;
      }
      if (std::chrono::steady_clock::now() >= deadline) {
        ::kill(pid, SIGKILL);
        result.timedOut = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  waitFor(pid);
  return result;
}

std::optional<int> launch(const std::string& executable, const std::vector<std::string>& argv,
                          std::chrono::milliseconds wait) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args = makeArgv(argv);
  pid_t pid = 0;
  int rc = ::posix_spawn(&pid, executable.c_str(), &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    return std::nullopt;
  }
  auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    int status = 0;
    pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) {
      int code = exitStatusOf(status);
      return code >= 0 ? std::optional(code) : std::nullopt;
    }
    if (done < 0 && errno != EINTR) {
      return std::nullopt;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      // Some openers stay until the browser they started quits; leave it running.
      std::thread([pid] { waitFor(pid); }).detach();
      return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace kestrova::process
