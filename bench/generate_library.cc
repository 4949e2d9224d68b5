// generate_library TABS PATH [SEED]: writes a generated library document to PATH.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <kestrova/store.h>

#include "library_generator.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "Aufruf: generate_library TABS PFAD [SEED]\n");
    return 64;
  }
  const auto tabs = static_cast<std::size_t>(std::strtoull(argv[1], nullptr, 10));
  const std::uint64_t seed = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
  try {
    kestrova::LibraryStore(argv[2]).save(kestrova::bench::generateLibrary(tabs, seed));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
