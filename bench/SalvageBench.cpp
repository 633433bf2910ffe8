// What does salvaging cost, compared with rebuilding? And is the cost per record the same in a short file and in a long
// one?
//
// The files hold points, notes and ends from a fixed seed. `damage` bytes in a thousand are overwritten, in stretches
// of about 100. The files are in a file system in memory and the clock is the processor time, so the disk has no
// influence.
#include <benchmark/benchmark.h>

#include <fstream>
#include <map>
#include <random>
#include <stdexcept>

#include "bench/Measure.h"
#include "kesp/kesp.h"
#include "kesp/recordfile/RecordHeader.h"

namespace {

void Write(CFile& file, CKespRecord& record) {
  const auto header = kesp::EncodeRecordHeader(
      {record.m_recordType, record.m_recordVersion, record.m_flags, static_cast<std::uint32_t>(record.GetLength(0))});
  file.Write(header.data(), header.size());
  if (!record.Write(file, 0, 0)) throw std::runtime_error("a record is not written");
}

const bench::ScratchFolder& Folder() {
  static const bench::ScratchFolder folder(std::filesystem::path("/dev/shm"));
  return folder;
}

// The file with that many thousand records, damaged or not; made at the first call.
const std::string& FileOf(long thousands, long damage) {
  static std::map<std::pair<long, long>, std::string> files;
  std::string& path = files[{thousands, damage}];
  if (!path.empty()) return path;
  path = Folder() / (std::to_string(thousands) + "-" + std::to_string(damage));
  CKespDataFile created;
  if (!created.Create(CString(path)) || !created.Close()) throw std::runtime_error("can't create " + path);
  CFile file(CString(path), CFile::modeReadWrite);
  file.SeekToEnd();
  CKespPoint point;
  CKespNote note;
  CKespFeatureEnd end;
  for (long i = 0; i < thousands; ++i) {
    CFile::Gather gather(file);
    for (int k = 0; k < 250; ++k) {
      point.PointNumber = static_cast<std::uint32_t>(250 * i + k);
      point.CoordX = 0.001 * k;
      end.FeatureNumber = point.PointNumber;
      note.NoteText = CString("note no. " + std::to_string(point.PointNumber));
      Write(file, point);
      Write(file, point);
      Write(file, note);
      Write(file, end);
    }
    gather.Commit();
  }
  std::mt19937_64 random(20240229);
  const std::uint64_t length = file.GetLength();
  std::array<std::uint64_t, 12> noise{};
  for (std::uint64_t n = length * static_cast<std::uint64_t>(damage) / 100'000; n != 0; --n) {
    for (auto& word : noise) word = random();
    file.Seek(static_cast<std::int64_t>(5000 + random() % (length - 6000)), CFile::begin);
    file.Write(noise.data(), sizeof noise);
  }
  return path;
}

double Salvage(const std::string& path) {
  std::filesystem::remove(Folder() / "salvaged");  // else emptying the last one would be measured
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(path))) throw std::runtime_error("can't open " + path);
  kesp::SalvageReport report;
  return bench::CpuSeconds([&] {
    if (!kesp::Salvage(file, CString(Folder() / "salvaged"), 0, report)) throw std::runtime_error("not salvaged");
  });
}

// "times_rebuild": the time of the salvage divided by that of CopyVerify over the undamaged file.
void SalvageAgainstRebuild(benchmark::State& state) {
  constexpr long kThousands = 400;
  std::vector<double> ratios;
  for (auto _ : state) {
    CKespDataFile file;
    if (!file.OpenReadOnly(CString(FileOf(kThousands, 0)))) throw std::runtime_error("can't open");
    std::filesystem::remove(Folder() / "rebuilt");
    const double rebuild = bench::CpuSeconds([&] {
      if (!file.CopyVerify(CString(Folder() / "rebuilt"), 2)) throw std::runtime_error("not rebuilt");
    });
    const double salvage = Salvage(FileOf(kThousands, state.range(0)));
    ratios.push_back(salvage / rebuild);
    state.SetIterationTime(salvage);
  }
  state.counters["times_rebuild"] = bench::Median(ratios);
}
BENCHMARK(SalvageAgainstRebuild)
    ->ArgName("damage")
    ->Arg(0)
    ->Arg(1)
    ->Arg(100)
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// "long_to_short": the time per record among 800 thousand divided by that among 20 thousand.
void TimePerRecord(benchmark::State& state) {
  std::vector<double> ratios;
  for (auto _ : state) {
    const double inLong = Salvage(FileOf(800, 10)) / 800'000;
    const double inShort = Salvage(FileOf(20, 10)) / 20'000;
    ratios.push_back(inLong / inShort);
    state.SetIterationTime(inLong);
  }
  state.counters["long_to_short"] = bench::Median(ratios);
}
BENCHMARK(TimePerRecord)->Iterations(7)->UseManualTime()->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
