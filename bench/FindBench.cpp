// What does `kesp find` cost, compared with reading the survey into a data set, and with reading its bytes alone?
//
// All three run one after the other over the same cached file, each in its own process. The clock is the processor time
// of that process. With `taskset -c 0` nothing is read ahead. The environment variable KESP_BENCH_MB is the length of
// the file in megabytes; the default is 200.
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

// "times_read": the time of the search divided by that of reading into a data set. "times_plain": divided by that of
// the plain read.
template <class... Words>
void Find(benchmark::State& state, const Words&... words) {
  const std::string& path = Survey();
  std::vector<double> timesRead;
  std::vector<double> timesPlain;
  for (auto _ : state) {
    const double read = bench::ChildCpuSeconds([&] { return Read(path); });
    const double plain = bench::ChildCpuSeconds([&] { return bench::ReadPlain(path), true; });
    const double found =
        bench::ChildCpuSeconds([&] { return bench::Become(KESP_TOOL, "find", path.c_str(), words...); });
    timesRead.push_back(found / read);
    timesPlain.push_back(found / plain);
    state.SetIterationTime(found);
  }
  state.counters["times_read"] = bench::Median(timesRead);
  state.counters["times_plain"] = bench::Median(timesPlain);
}

void ByName(benchmark::State& state) { Find(state, "--name", "Gate no. 7"); }
void ByArea(benchmark::State& state) { Find(state, "--area", "7,48,7.1,48.1", "--json"); }
void ByValue(benchmark::State& state) {
  Find(state, "--attribute", "state", "--value", "HOLLOW", "--ignore-case", "--partial");
}
void ByValueAsJson(benchmark::State& state) {
  Find(state, "--attribute", "state", "--value", "HOLLOW", "--ignore-case", "--partial", "--json");
}
void All(benchmark::State& state) { Find(state); }
BENCHMARK(ByName)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ByArea)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ByValue)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ByValueAsJson)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(All)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
