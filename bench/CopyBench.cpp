// What does a copy cost, compared with the system's own `cp` in the same folder?
//
// Each pair copies the same cached file of 256 MiB, one after the other; the order alternates, and the destination is
// deleted before each copy. In memory the clock is the processor time of a process that copies. On a disk it is the
// time that passes; there `cp` is followed by `sync` of its copy, since ours is on the disk when it returns.
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

bool Copy(const std::string& source, const std::string& copy) {
  CKespDataFile file;
  return file.OpenReadOnly(CString(source)) && file.Copy(CString(copy));
}

// "times_cp": the time of the copy divided by that of cp.
void CopyAgainstCp(benchmark::State& state) {
  const bool inMemory = state.range(0) != 0;
  const std::string& source = Source(inMemory);
  const std::string copy = Folder(inMemory) / "copy";
  const auto own = [&] {
    if (inMemory) return bench::ChildCpuSeconds([&] { return Copy(source, copy); });
    return bench::Seconds([&] {
      if (!Copy(source, copy)) throw std::runtime_error("not copied");
    });
  };
  const auto theirs = [&] {
    if (inMemory) return bench::ChildCpuSeconds([&] { return bench::Become("cp", source.c_str(), copy.c_str()); });
    const std::string command = "cp " + source + " " + copy + " && sync " + copy;
    return bench::Seconds([&] {
      if (::system(command.c_str()) != 0) throw std::runtime_error(command);
    });
  };
  std::vector<double> ratios;
  bool isOwnFirst = false;
  for (auto _ : state) {
    double seconds[2];
    for (const bool isOwn : {isOwnFirst, !isOwnFirst}) {
      seconds[isOwn ? 1 : 0] = isOwn ? own() : theirs();
      ::unlink(copy.c_str());
    }
    isOwnFirst = !isOwnFirst;
    ratios.push_back(seconds[1] / seconds[0]);
    state.SetIterationTime(seconds[1]);
  }
  state.counters["times_cp"] = bench::Median(ratios);
  state.SetBytesProcessed(state.iterations() * kMiB << 20);
}
BENCHMARK(CopyAgainstCp)
    ->ArgName("in_memory")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(10)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
