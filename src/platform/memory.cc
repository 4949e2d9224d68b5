#include <kestrova/memory.h>

#include "posix_io.h"

#if defined(KESTROVA_LINUX_CALLS) && defined(__GLIBC__) && \
    (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
#include <malloc.h>
#define KESTROVA_GLIBC_TRIM 1
#endif

namespace kestrova {

void giveBackFreedMemory([[maybe_unused]] std::size_t keepBytes) {
#if defined(KESTROVA_GLIBC_TRIM)
  if (::mallinfo2().fordblks > keepBytes) {
    ::malloc_trim(0);
  }
#endif
}

}  // namespace kestrova
