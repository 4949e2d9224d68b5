// Memory of the process: giving freed heap blocks back to the operating system.
#pragma once

#include <cstddef>

namespace kestrova {

// The allocator keeps freed blocks for reuse. When more than `keepBytes` lie free, gives them back
// to the operating system, so that a long-running process that just dropped a large document does
// not hold its pages through the next one. Only where the C library can tell and do it (glibc);
// elsewhere it does nothing. Never fails; thread-safe.
void giveBackFreedMemory(std::size_t keepBytes);

}  // namespace kestrova
