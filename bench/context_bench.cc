// context_bench: the context reader's cost is bounded by what it reads, not by the size of the
// configured folders. A project folder is generated with a fixed set of project files (read)
// plus a growing amount of material the reader must not touch: a hidden version-control folder,
// an application package and files three and more levels down. For each size it prints the
// reader's time and two floors: reading the same project files directly, and reading them plus
// the UTF-8 check and the 30,000-character cut that every file needs.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <stdlib.h>

#include <kestrova/context_reader.h>
#include <kestrova/unicode.h>

#include "bench_timer.h"

namespace {

namespace fs = std::filesystem;
using namespace kestrova;

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

std::string projectText(int project, std::size_t chars) {
  std::string text = "# Projekt " + std::to_string(project) + "\n";
  const std::string line = "Wir planen die Route über den Pass, prüfen Kompass und Karte. ";
  while (text.size() < chars) {
    text += line;
  }
  return text;
}

// 12 projects of 3 files (about 40 KB each, some above the 30,000-character cap), and
// `ignored` files the walk must skip.
std::vector<fs::path> build(const fs::path& root, int ignored) {
  std::vector<fs::path> read;
  for (int p = 0; p < 12; ++p) {
    const fs::path folder =
        root / ("gruppe" + std::to_string(p % 3)) / ("projekt" + std::to_string(p));
    for (const char* name : {"CLAUDE.md", "README.md", "TODO.yaml"}) {
      write(folder / name, projectText(p, 40000));
      read.push_back(folder / name);
    }
    write(folder / "notes.txt", "nicht gelesen");
  }
  for (int i = 0; i < ignored; ++i) {
    const std::string n = std::to_string(i);
    switch (i % 3) {
      case 0:
        write(root / ".git/objects" / n.substr(0, 1) / ("README.md" + n), "x");
        break;
      case 1:
        write(root / "Werkzeug.app/Contents/Resources" / (n + ".md"), "x");
        break;
      default:
        write(root / "gruppe0/projekt0/tief" / ("d" + n.substr(0, 1)) / "README.md",
              projectText(0, 100));
        write(root / "gruppe0/projekt0/tief" / ("d" + n.substr(0, 1)) / ("x" + n), "x");
        break;
    }
  }
  return read;
}

}  // namespace

int main() {
  const fs::path base = fs::temp_directory_path() / "kestrova-context-bench";
  std::printf("context reader: 12 projects, 36 project files of 40 KB\n");
  for (int ignored : {0, 3000, 30000}) {
    fs::remove_all(base);
    const std::vector<fs::path> files = build(base, ignored);
    UserContext context;
    context.folderPaths = {base.string()};
    std::size_t chars = 0;
    const double reader = bench::medianMs(15, [&] {
      chars = 0;
      for (const ProjectText& p : ContextReader::projects(context)) {
        chars += p.text.size();
      }
    });
    std::string buffer(120000, '\0');
    const double rawFloor = bench::medianMs(15, [&] {
      for (const fs::path& f : files) {
        std::ifstream in(f, std::ios::binary);
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
      }
    });
    const double textFloor = bench::medianMs(15, [&] {
      for (const fs::path& f : files) {
        std::ifstream in(f, std::ios::binary);
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        const std::string_view bytes(buffer.data(), static_cast<std::size_t>(in.gcount()));
        if (!unicode::isValidUtf8(bytes) || unicode::graphemePrefix(bytes, 30000).empty()) {
          std::abort();
        }
      }
    });
    std::printf(
        "%6d files to skip | projects() %6.2f ms | read floor %5.2f ms (%5.1fx)"
        " | read+UTF-8+cut floor %6.2f ms (%4.2fx) | %zu bytes\n",
        ignored, reader, rawFloor, reader / rawFloor, textFloor, reader / textFloor, chars);
  }
  fs::remove_all(base);
  return 0;
}
