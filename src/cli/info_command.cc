#include "info_command.h"

#include <kestrova/ai.h>
#include <kestrova/embedder.h>
#include <kestrova/store.h>

namespace kestrova::cli {

int runInfo(std::ostream& out) {
  const Embedder embedder(/*allowSemantic=*/true);
  out << AIStatus::description() << "\n";
  out << "Embedder: " << embedder.kind() << "\n";
  out << "Bibliothek: " << LibraryStore::defaultURL().string() << "\n";
  out.flush();
  return 0;
}

}  // namespace kestrova::cli
