// What does `kesp find` cost, compared with opening the survey and reading it into a data set?
//
// Each pair runs one after the other over the same cached file, each in its own process. The clock is the processor
// time of that process. The environment variable KESP_BENCH_MB is the length of the file in megabytes; the default is
// 200.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "bench/Measure.h"
#include "bench/Survey.h"

namespace {

const std::string& Survey() {
  const char* const given = std::getenv("KESP_BENCH_MB");
  static const long megabytes = given != nullptr ? std::atol(given) : 200;
  return bench::FileOf(megabytes * 1'000'000 / bench::kBytesEach);
}

bool Read(const std::string& path) {
  CKespFile file;
  CString message;
  return file.OpenKespReadOnly(CString(path), message) == ERR_NONE && file.ReadKespFile(false) == ERR_NONE;
}

// "times_read": the time of the search divided by that of reading alone.
template <class... Words>
void Find(benchmark::State& state, const Words&... words) {
  const std::string& path = Survey();
  std::vector<double> ratios;
  for (auto _ : state) {
    const double read = bench::ChildCpuSeconds([&] { return Read(path); });
    const double found =
        bench::ChildCpuSeconds([&] { return bench::Become(KESP_TOOL, "find", path.c_str(), words...); });
    ratios.push_back(found / read);
    state.SetIterationTime(found);
  }
  state.counters["times_read"] = bench::Median(ratios);
}

void ByName(benchmark::State& state) { Find(state, "--name", "Gate no. 7"); }
void ByValue(benchmark::State& state) {
  Find(state, "--attribute", "state", "--value", "HOLLOW", "--ignore-case", "--partial", "--json");
}
void ByArea(benchmark::State& state) { Find(state, "--area", "7,48,7.1,48.1", "--json"); }
void All(benchmark::State& state) { Find(state); }
BENCHMARK(ByName)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ByValue)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ByArea)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(All)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
