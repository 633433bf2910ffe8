// What does a copy cost beside the system's own `cp`, in the same folder?
//
// Each pair is one after the other over the same cached file of 256 MiB; the destination is deleted before each. Both
// are measured by the time that passes, since the system does the work. Copy is on the disk when it answers; `cp` is
// given the same with `sync` on the file it made, and without.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "bench/Measure.h"
#include "kesp/kesp.h"

namespace {

constexpr long kMiB = 256;

const bench::ScratchFolder& Folder(bool inMemory) {
  static const bench::ScratchFolder disk(std::filesystem::path("/var/tmp"));
  static const bench::ScratchFolder memory(std::filesystem::path("/dev/shm"));
  return inMemory ? memory : disk;
}

const std::string& Source(bool inMemory) {
  static std::string paths[2];
  std::string& path = paths[inMemory ? 1 : 0];
  if (!path.empty()) return path;
  path = Folder(inMemory) / "source";
  CKespDataFile created;
  if (!created.Create(CString(path)) || !created.Close()) throw std::runtime_error("can't create " + path);
  std::ofstream out(path, std::ios::binary | std::ios::app);
  std::string block(1 << 20, 'x');
  for (long i = 0; i < kMiB; ++i) {
    for (std::size_t k = 0; k < block.size(); k += 64) block[k] = static_cast<char>(i + static_cast<long>(k / 64));
    out << block;
  }
  out.close();
  ::sync();
  return path;
}

void Run(const std::string& command) {
  if (::system(command.c_str()) != 0) throw std::runtime_error(command);
}

// "times_cp": how many times as long as cp the copy takes.
void CopyAgainstCp(benchmark::State& state) {
  const bool inMemory = state.range(0) != 0;
  const bool synced = state.range(1) != 0;
  const std::string& source = Source(inMemory);
  const std::string copy = Folder(inMemory) / "copy";
  std::vector<double> ratios;
  for (auto _ : state) {
    const double plain =
        bench::Seconds([&] { Run("cp " + source + " " + copy + (synced ? " && sync " + copy : std::string())); });
    ::unlink(copy.c_str());
    CKespDataFile file;
    if (!file.OpenReadOnly(CString(source))) throw std::runtime_error("can't open " + source);
    const double own = bench::Seconds([&] {
      if (!file.Copy(CString(copy))) throw std::runtime_error("not copied");
    });
    ::unlink(copy.c_str());
    ratios.push_back(own / plain);
    state.SetIterationTime(own);
  }
  state.counters["times_cp"] = bench::Median(ratios);
  state.SetBytesProcessed(state.iterations() * kMiB << 20);
}
BENCHMARK(CopyAgainstCp)
    ->ArgNames({"in_memory", "cp_synced"})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({0, 1})
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
