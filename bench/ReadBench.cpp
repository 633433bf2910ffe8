// What does it cost to make every record of a file into an object, compared with reading the bytes alone? And is the
// cost per record the same in a short file and in a long one?
//
// The files are in the page cache, so nothing waits for a device. The clock is the processor time.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Survey.h"

namespace {

using bench::FileOf;
using bench::kBlock;
using bench::kBytesEach;
using bench::kRecordsEach;
using bench::Walk;

void ReadPlain(const std::string& path) {
  static std::vector<char> block(kBlock);
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) throw std::runtime_error("can't open " + path);
  while (::read(fd, block.data(), block.size()) > 0) benchmark::ClobberMemory();
  ::close(fd);
}

// "times_plain": the time of the walk divided by that of the plain read. Each iteration runs both once.
void WalkAgainstPlainRead(benchmark::State& state) {
  const long features = state.range(0) * 1000 * 1000 / kBytesEach;
  const std::string& path = FileOf(features);
  Walk(path, features);
  ReadPlain(path);
  std::vector<double> ratios;
  for (auto _ : state) {
    const double plain = bench::CpuSeconds([&] { ReadPlain(path); });
    const double walk = bench::CpuSeconds([&] { Walk(path, features); });
    ratios.push_back(walk / plain);
    state.SetIterationTime(walk);
  }
  state.counters["times_plain"] = bench::Median(ratios);
  state.SetBytesProcessed(state.iterations() * features * kBytesEach);
  state.SetItemsProcessed(state.iterations() * features * kRecordsEach);
}
BENCHMARK(WalkAgainstPlainRead)
    ->ArgName("MB")
    ->Arg(200)
    ->Iterations(15)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// "long_to_short": the time per record among two million divided by that among twenty thousand. The long file is walked
// first in each iteration, so that the processor's caches hold nothing of the short one.
void TimePerRecord(benchmark::State& state) {
  const long shortFile = 20 * 1000 / kRecordsEach;
  const long longFile = 2000 * 1000 / kRecordsEach;
  Walk(FileOf(shortFile), shortFile);
  Walk(FileOf(longFile), longFile);
  std::vector<double> ratios;
  for (auto _ : state) {
    const double inLong = bench::CpuSeconds([&] { Walk(FileOf(longFile), longFile); }) / longFile;
    const double inShort = bench::CpuSeconds([&] { Walk(FileOf(shortFile), shortFile); }) / shortFile;
    ratios.push_back(inLong / inShort);
    state.SetIterationTime(inLong / kRecordsEach);
  }
  state.counters["long_to_short"] = bench::Median(ratios);
}
BENCHMARK(TimePerRecord)->Iterations(7)->UseManualTime()->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
