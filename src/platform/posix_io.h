// Descriptor calls that differ between Linux, macOS and other POSIX systems. Linux has atomic
// close-on-exec flags and a per-call "no SIGPIPE"; macOS has a per-socket one; a plain POSIX system
// has neither, and the portable fallbacks below stand in. Building with KESTROVA_PORTABLE_POSIX
// takes the fallbacks on Linux too, so that they are compiled and tested here.
#pragma once

#include <cstddef>

#include <sys/types.h>

#if defined(__linux__) && !defined(KESTROVA_PORTABLE_POSIX)
#define KESTROVA_LINUX_CALLS 1
#endif

namespace kestrova::posix {

// A pipe whose two ends close on exec. False (and nothing open) on failure.
bool openPipe(int fds[2]);

// A connected pair of stream sockets whose ends close on exec, and on which a write to a peer that
// has gone away fails with EPIPE instead of raising SIGPIPE. False (and nothing open) on failure.
bool openSocketPair(int fds[2]);

// A non-blocking stream socket of `family` that closes on exec and never raises SIGPIPE (with
// sendWithoutSignal); -1 on failure.
int openStreamSocket(int family);
// send() on a non-blocking socket of openSocketPair without raising SIGPIPE: -1 with errno EPIPE
// when the peer has gone, EAGAIN when it is full.
ssize_t sendWithoutSignal(int fd, const void* data, std::size_t size);

}  // namespace kestrova::posix
