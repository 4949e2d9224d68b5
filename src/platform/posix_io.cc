#include "posix_io.h"

#include <cerrno>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrova::posix {
namespace {

#if !defined(KESTROVA_LINUX_CALLS)
// Not atomic with the creation: a fork and exec on another thread in between would inherit the
// descriptor. The children Kestrova starts get only the descriptors it hands them on purpose.
bool closeOnExec(int fd) {
  const int flags = ::fcntl(fd, F_GETFD);
  return flags >= 0 && ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

bool closeBothOnExec(int fds[2]) {
  if (closeOnExec(fds[0]) && closeOnExec(fds[1])) {
    return true;
  }
  const int error = errno;
  ::close(fds[0]);
  ::close(fds[1]);
  errno = error;
  return false;
}
#endif

}  // namespace

bool openPipe(int fds[2]) {
#if defined(KESTROVA_LINUX_CALLS)
  return ::pipe2(fds, O_CLOEXEC) == 0;
#else
  return ::pipe(fds) == 0 && closeBothOnExec(fds);
#endif
}

bool openSocketPair(int fds[2]) {
#if defined(KESTROVA_LINUX_CALLS)
  return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0;
#else
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0 || !closeBothOnExec(fds)) {
    return false;
  }
#if defined(SO_NOSIGPIPE)
  const int on = 1;
  ::setsockopt(fds[0], SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
  ::setsockopt(fds[1], SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  return true;
#endif
}

int openStreamSocket(int family) {
#if defined(KESTROVA_LINUX_CALLS)
  return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
#else
  const int fd = ::socket(family, SOCK_STREAM, 0);
  if (fd < 0) {
    return -1;
  }
  const int flags = ::fcntl(fd, F_GETFL);
  if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0 || flags < 0 ||
      ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    ::close(fd);
    return -1;
  }
#if defined(SO_NOSIGPIPE)
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  return fd;
#endif
}

ssize_t sendWithoutSignal(int fd, const void* data, std::size_t size) {
#if defined(KESTROVA_LINUX_CALLS)
  return ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
#elif defined(SO_NOSIGPIPE)
  return ::send(fd, data, size, 0);
#else
  // Neither flag exists: hold SIGPIPE back on this thread for the call, and take the one the call
  // raised (if any) before letting signals through again, so that the process never sees it.
  sigset_t pipeOnly;
  sigset_t before;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeOnly, &before);
  const ssize_t n = ::send(fd, data, size, 0);
  const int error = errno;
  sigset_t pending;
  sigemptyset(&pending);
  if (n < 0 && error == EPIPE && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1 &&
      sigismember(&before, SIGPIPE) == 0) {
    int taken = 0;
    sigwait(&pipeOnly, &taken);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return n;
#endif
}

}  // namespace kestrova::posix
