// The `info` command: which AI tiers this machine offers, and where the library lives.
#pragma once

#include <ostream>

namespace kestrova::cli {

// Prints three lines: the language model's state, "Embedder: " and the kind of an embedder with
// semantic vectors allowed, "Bibliothek: " and the library's default path. Reads and writes
// nothing else (the library file need not exist) and never loads the language model. Returns the
// process exit status, 0.
int runInfo(std::ostream& out);

}  // namespace kestrova::cli
