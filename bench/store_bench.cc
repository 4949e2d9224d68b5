// store_bench [TABS...]: load and save of generated libraries against their floors, in one run.
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

void measure(std::size_t tabs, const std::filesystem::path& folder) {
  const std::filesystem::path file = folder / ("library-" + std::to_string(tabs) + ".json");
  const LibraryData data = bench::generateLibrary(tabs);
  const LibraryStore store(file);
  store.save(data);
  const std::string bytes = codec::encodeLibrary(data);
  const int runs = tabs >= 10000 ? 5 : 11;

  simdjson::dom::parser parser;
  const double floorLoad = bench::medianMs(runs, [&] {
    auto text = FileSystem::real().readFile(file);
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
      bench::medianMs(runs, [&] { FileSystem::real().writeFileAtomically(other, bytes); });
  const double save = bench::medianMs(runs, [&] { store.save(data); });

  std::printf(
      "%7zu tabs %7.1f MB | load %8.1f ms  floor %8.1f ms  ratio %4.2fx | save %8.1f ms"
      "  floor %8.1f ms  ratio %4.2fx\n",
      tabs, static_cast<double>(bytes.size()) / 1e6, load, floorLoad, load / floorLoad, save,
      floorSave, save / floorSave);
  std::filesystem::remove(file);
  std::filesystem::remove(other);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::size_t> sizes;
  for (int i = 1; i < argc; ++i) {
    sizes.push_back(static_cast<std::size_t>(std::strtoull(argv[i], nullptr, 10)));
  }
  if (sizes.empty()) {
    sizes = {1000, 10000};
  }
  std::string pattern = (std::filesystem::temp_directory_path() / "kestrova-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    return 1;
  }
  std::printf("store: load and save against reading+parsing and writing the same bytes\n");
  for (std::size_t tabs : sizes) {
    measure(tabs, pattern);
  }
  std::filesystem::remove_all(pattern);
  return 0;
}
