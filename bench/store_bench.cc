// store_bench [LIBRARY|TABS...]: load and save of libraries against their floors, in one run.
// Each argument is a library file (bench/run passes the ones it generated) or a number of tabs to
// generate into a temporary folder.
//   load floor: read the file's bytes and parse them with simdjson (the fastest reader here);
//   save floor: write the same bytes the same way (temporary file, fsync, rename).
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <simdjson.h>
#include <stdlib.h>

#include <kestrova/store.h>

#include "bench_timer.h"
#include "library_codec.h"
#include "library_generator.h"

namespace {

using namespace kestrova;

void measure(const std::string& argument, const std::filesystem::path& folder) {
  std::filesystem::path file = argument;
  if (!std::filesystem::is_regular_file(file)) {
    file = folder / ("library-" + argument + ".json");
    LibraryStore(file).save(bench::generateLibrary(std::strtoull(argument.c_str(), nullptr, 10)));
  }
  const LibraryStore store(file);
  const LibraryData data = store.load();
  const std::size_t tabs = data.tabs.size();
  const std::string bytes = codec::encodeLibrary(data);
  const int runs = tabs >= 40000 ? 3 : (tabs >= 10000 ? 5 : 11);

  simdjson::dom::parser parser;
  const double floorLoad = bench::medianMs(runs, [&] {
    auto text = Env::real().fileSystem().readFile(file);
    simdjson::dom::element root;
    if (parser.parse(text->data(), text->size(), false).get(root) != simdjson::SUCCESS) {
      std::abort();
    }
  });
  const double load = bench::medianMs(runs, [&] {
    if (store.load().tabs.size() != tabs) {
      std::abort();
    }
  });
  const std::filesystem::path other = folder / "floor.json";
  const double floorSave =
      bench::medianMs(runs, [&] { Env::real().fileSystem().writeFileAtomically(other, bytes); });
  const std::filesystem::path copy = folder / "save.json";
  const LibraryStore target(copy);
  const double save = bench::medianMs(runs, [&] { target.save(data); });

  std::printf(
      "%7zu tabs %7.1f MB | load %8.1f ms  floor %8.1f ms  ratio %4.2fx | save %8.1f ms"
      "  floor %8.1f ms  ratio %4.2fx\n",
      tabs, static_cast<double>(bytes.size()) / 1e6, load, floorLoad, load / floorLoad, save,
      floorSave, save / floorSave);
  const std::string size = bench::format("%zu tabs", tabs);
  bench::report({"load", size, bench::format("%.1f ms", load),
                 bench::format("%.1f ms read+simdjson", floorLoad),
                 bench::ratioText(load, floorLoad)});
  bench::report({"save", size, bench::format("%.1f ms", save),
                 bench::format("%.1f ms write+fsync+rename", floorSave),
                 bench::ratioText(save, floorSave)});
  std::filesystem::remove(other);
  std::filesystem::remove(copy);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> libraries(argv + 1, argv + argc);
  if (libraries.empty()) {
    libraries = {"1000", "10000"};
  }
  std::string pattern = (std::filesystem::temp_directory_path() / "kestrova-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    return 1;
  }
  std::printf("store: load and save against reading+parsing and writing the same bytes\n");
  for (const std::string& library : libraries) {
    measure(library, pattern);
  }
  std::filesystem::remove_all(pattern);
  return 0;
}
