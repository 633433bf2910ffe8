// What does it cost to see every record of a file, as an object or as a view, compared with reading the bytes alone?
// And is the cost per record the same in a short file and in a long one?
//
// The files are in the page cache, so nothing waits for a device. The clock is the processor time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Survey.h"
#include "kesp/format/RecordView.h"

namespace {

using bench::FileOf;
using bench::kBlock;
using bench::kBytesEach;
using bench::kRecordsEach;
using bench::ReadPlain;
using bench::Walk;

// Looks at the header of each record.
void WalkOverViews(const std::string& path, long features) {
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(path)) || !file.SeekToFirstRecord()) throw std::runtime_error("can't open " + path);
  long records = 0;
  std::uint32_t types = 0;
  for (kesp::RecordView record; file.ReadNextView(record, true); ++records) types += record.Type();
  benchmark::DoNotOptimize(types);
  if (file.GetError() != KESP_ERROR_NORMAL_EOF || records != features * kRecordsEach + 1) {
    throw std::runtime_error("the walk over " + path + " went wrong");
  }
}

// All columns, in batches.
void ReadInBatches(const std::string& path, long features) {
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(path))) throw std::runtime_error("can't open " + path);
  std::size_t rows = 0;
  const bool whole = kesp::ReadColumns(file, {}, [&](kesp::Columns& batch) {
    rows += batch.points.rows + batch.features.rows + batch.attributes.rows;
    return true;
  });
  if (!whole || rows != static_cast<std::size_t>(features * (kRecordsEach - 1))) {
    throw std::runtime_error("reading the columns of " + path + " went wrong");
  }
}

// The features whose box has a point in common with a hundredth of the survey's area: from opening the file on, and
// without an index.
void FindInBox(const std::string& path, long features) {
  constexpr double kWest = 10;
  constexpr double kSouth = 50;
  constexpr double kEast = kWest + 0.9;
  constexpr double kNorth = kSouth + 0.8;
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(path))) throw std::runtime_error("can't open " + path);
  kesp::ColumnChoice choice;
  choice.points = choice.attributes = 0;
  choice.features = kesp::kFeatureNumber | kesp::kFeatureBox;
  long found = 0;
  const bool whole = kesp::ReadColumns(file, choice, [&](kesp::Columns& batch) {
    const kesp::FeatureColumns& all = batch.features;
    for (std::size_t i = 0; i < all.rows; ++i) {
      found += all.minX[i] <= kEast && all.maxX[i] >= kWest && all.minY[i] <= kNorth && all.maxY[i] >= kSouth ? 1 : 0;
    }
    return true;
  });
  if (!whole || found < features / 200 || found > features / 50) throw std::runtime_error("not a hundredth was found");
}

// "times_plain": the time of the walk divided by that of the plain read. Each iteration runs both once.
template <class WalkOver>
void AgainstPlainRead(benchmark::State& state, WalkOver walkOver) {
  const long features = state.range(0) * 1000 * 1000 / kBytesEach;
  const std::string& path = FileOf(features);
  walkOver(path, features);
  ReadPlain(path);
  std::vector<double> ratios;
  for (auto _ : state) {
    const double plain = bench::CpuSeconds([&] { ReadPlain(path); });
    const double walk = bench::CpuSeconds([&] { walkOver(path, features); });
    ratios.push_back(walk / plain);
    state.SetIterationTime(walk);
  }
  state.counters["times_plain"] = bench::Median(ratios);
  state.SetBytesProcessed(state.iterations() * features * kBytesEach);
  state.SetItemsProcessed(state.iterations() * features * kRecordsEach);
}
void ObjectsAgainstPlainRead(benchmark::State& state) { AgainstPlainRead(state, Walk); }
void ViewsAgainstPlainRead(benchmark::State& state) { AgainstPlainRead(state, WalkOverViews); }
BENCHMARK(ObjectsAgainstPlainRead)
    ->ArgName("MB")
    ->Arg(200)
    ->Iterations(15)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
void ColumnsAgainstPlainRead(benchmark::State& state) { AgainstPlainRead(state, ReadInBatches); }
void BoxAgainstPlainRead(benchmark::State& state) { AgainstPlainRead(state, FindInBox); }
BENCHMARK(ViewsAgainstPlainRead)
    ->ArgName("MB")
    ->Arg(200)
    ->Iterations(15)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK(ColumnsAgainstPlainRead)
    ->ArgName("MB")
    ->Arg(200)
    ->Iterations(15)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BoxAgainstPlainRead)->ArgName("MB")->Arg(700)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

// "mebibytes": how much the process grows while a file is read, at most.
template <class WalkOver>
void Memory(benchmark::State& state, WalkOver walkOver) {
  const long features = state.range(0) * 1000 * 1000 / kBytesEach;
  const std::string& path = FileOf(features);
  double most = 0;
  for (auto _ : state) most = std::max(most, bench::GrowthInChild([&] { walkOver(path, features); }));
  state.counters["mebibytes"] = most;
}
void MemoryOfViews(benchmark::State& state) { Memory(state, WalkOverViews); }
void MemoryOfBatches(benchmark::State& state) { Memory(state, ReadInBatches); }
BENCHMARK(MemoryOfViews)->ArgName("MB")->Arg(200)->Arg(700)->Iterations(1);
BENCHMARK(MemoryOfBatches)->ArgName("MB")->Arg(200)->Arg(700)->Iterations(1);

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
