// replay TARGET PATH...: runs a target over files, and over all files in folders, with any compiler. A failed check
// aborts; the last line before it is the name of the file.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/Targets.h"

namespace {

namespace fs = std::filesystem;

const struct {
  const char* name;
  void (*run)(kesp::fuzz::Input);
} kTargets[] = {
    {"walk", kesp::fuzz::Walk},       {"columns", kesp::fuzz::Columns}, {"dataset", kesp::fuzz::Dataset},
    {"rebuild", kesp::fuzz::Rebuild}, {"salvage", kesp::fuzz::Salvage}, {"roundtrip", kesp::fuzz::RoundTrip},
    {"tag", kesp::fuzz::Tag},
#ifdef KESP_FUZZ_OGR
    {"ogr", kesp::fuzz::Ogr},         {"ogredit", kesp::fuzz::OgrEdit},
#endif
};

}  // namespace

int main(int argc, char** argv) {
  const auto* const target = std::find_if(std::begin(kTargets), std::end(kTargets),
                                          [&](const auto& t) { return argc > 1 && std::strcmp(t.name, argv[1]) == 0; });
  if (target == std::end(kTargets)) {
    std::fprintf(stderr, "usage: %s walk|columns|dataset|rebuild|salvage|roundtrip|tag|ogr|ogredit PATH...\n", argv[0]);
    return 2;
  }
  std::vector<fs::path> paths;
  for (int i = 2; i < argc; ++i) {
    if (!fs::is_directory(argv[i]))
      paths.emplace_back(argv[i]);
    else
      std::copy(fs::directory_iterator(argv[i]), {}, std::back_inserter(paths));
  }
  if (paths.empty()) return 2;  // an empty corpus proves nothing
  std::sort(paths.begin(), paths.end());
  for (const fs::path& path : paths) {
    std::fprintf(stderr, "%s\n", path.string().c_str());
    std::ifstream in(path, std::ios::binary);
    if (!in) return 2;
    // On the heap, without a spare byte after it, so that an overrun is detected.
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    bytes.shrink_to_fit();
    target->run(bytes);
  }
  std::printf("%s: %zu inputs\n", target->name, paths.size());
}
