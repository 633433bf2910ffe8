// What does making every record of a file into an object cost, beside reading the same bytes and looking at none of
// them? And does a record cost the same in a short file and in a long one?
//
// The files hold surveyed features of 16 records each (a feature, 4 attributes, 10 points, an end; 8680 bytes), and are
// in the page cache when the clock runs, which is the processor's: nothing waits for a device.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>

#include "bench/Measure.h"
#include "kesp/kesp.h"
#include "kesp/recordfile/RecordHeader.h"

namespace {

constexpr long kRecordsEach = 16;
constexpr long kBytesEach = 8680;
constexpr long kBlock = 1 << 20;  // bytes

// Features as a surveyor leaves them; the same ones in every run.
class Surveyor {
 public:
  explicit Surveyor(CFile& file) : m_file(file) {}

  void WriteFeature(std::uint32_t number) {
    CKespFeature feature;
    feature.FeatureNumber = number;
    feature.FeatureName = CString(std::string(OneOf(kThings)) + " no. " + std::to_string(number));
    feature.FeatureType = KESP_FEATURE_LINE;
    Write(feature);
    WriteAttribute(number, KESP_ATTRIBUTE_STRING, u"observation", Sentence(), 0);
    WriteAttribute(number, KESP_ATTRIBUTE_NUMERIC, u"girth_cm", {}, Between(5, 400));
    WriteAttribute(number, KESP_ATTRIBUTE_DATE, u"inspected", {}, 43000 + number % 2000);
    WriteAttribute(number, KESP_ATTRIBUTE_MENU, u"state", OneOf(kStates), 0);
    CKespPoint point;
    point.FeatureNumber = number;
    point.CoordX = Between(6, 15);
    point.CoordY = Between(47, 55);
    for (point.PointNumber = 0; point.PointNumber < 10; ++point.PointNumber) {
      point.PointTime = static_cast<std::int32_t>(1600000000 + 10 * number + point.PointNumber);
      point.CoordX += Between(-1e-5, 1e-5);
      point.CoordY += Between(-1e-5, 1e-5);
      point.CoordZ = Between(100, 101);
      point.SignalStatus = KESP_SIGNAL_STATUS_9;
      Write(point);
    }
    CKespFeatureEnd end;
    end.FeatureNumber = number;
    Write(end);
  }

 private:
  using Words = std::array<const char*, 8>;
  static constexpr Words kThings{"Maple", "Hedge", "Boundary stone", "Drain", "Gate", "Lamp", "Kerb", "Footpath"};
  static constexpr Words kStates{"sound",   "to be watched",    "hollow",  "felled in spring",
                                 "leaning", "behind the fence", "unclear", "mended last year"};
  static constexpr Words kPhrases{"bark damaged", "roots lift the paving", "second stem", "too close to the road",
                                  "ivy",          "seen from the gate",    "ask owner",   "Höhe geschätzt"};

  const char* OneOf(const Words& words) { return words[m_random() % words.size()]; }
  double Between(double low, double high) { return low + (high - low) * 0x1p-32 * static_cast<double>(m_random()); }
  std::string Sentence() {
    std::string text = OneOf(kPhrases);
    for (auto more = m_random() % 3; more != 0; --more) text += std::string(", ") + OneOf(kPhrases);
    return text;
  }
  void WriteAttribute(std::uint32_t number, KESP_ATTRIBUTE_KIND kind, const char16_t* name, const std::string& text,
                      double value) {
    CKespAttribute attribute;
    attribute.FeatureNumber = number;
    attribute.AttributeKind = kind;
    attribute.AttributeName = name;
    attribute.TextValue = text;
    attribute.Value = value;
    Write(attribute);
  }
  // Straight through the file object: an append waits for the disk, and this file is only read.
  void Write(CKespRecord& record) {
    const auto header = kesp::EncodeRecordHeader(
        {record.m_recordType, record.m_recordVersion, record.m_flags, static_cast<std::uint32_t>(record.GetLength(0))});
    m_file.Write(header.data(), header.size());
    if (!record.Write(m_file, 0, 0)) throw std::runtime_error("a record is not written");
  }

  CFile& m_file;
  std::mt19937 m_random{20240229};
};

// The file of that many features, made when it is first asked for.
const std::string& FileOf(long features) {
  static const bench::ScratchFolder folder;
  static std::map<long, std::string> files;
  std::string& path = files[features];
  if (!path.empty()) return path;
  path = folder / std::to_string(features);
  CKespDataFile created;
  created.m_version = 3;
  if (!created.Create(CString(path)) || !created.Close()) throw std::runtime_error("can't create " + path);
  CFile file(CString(path), CFile::modeReadWrite);
  file.SeekToEnd();
  Surveyor surveyor(file);
  // In long writes, which leave the page cache in large pieces: the plain read is never faster than then.
  for (long i = 0; i < features;) {
    CFile::Gather gather(file);
    for (const long end = std::min(features, i + kBlock / kBytesEach); i < end;) {
      surveyor.WriteFeature(static_cast<std::uint32_t>(++i));
    }
    gather.Commit();
  }
  file.Flush();  // or the system would be writing it out while the clock runs
  return path;
}

// Every object is made and deleted.
void Walk(const std::string& path, long features) {
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(path)) || !file.SeekToFirstRecord()) throw std::runtime_error("can't open " + path);
  long records = 0;
  while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(true)}) ++records;
  if (file.GetError() != KESP_ERROR_NORMAL_EOF || records != features * kRecordsEach) {
    throw std::runtime_error("the walk over " + path + " went wrong");
  }
}

void ReadPlain(const std::string& path) {
  static std::vector<char> block(kBlock);
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) throw std::runtime_error("can't open " + path);
  while (::read(fd, block.data(), block.size()) > 0) benchmark::ClobberMemory();
  ::close(fd);
}

// "times_plain": how many times as long as the plain read the walk takes; both are run once in each iteration.
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

// "long_to_short": the time of a record among two million against one among twenty thousand. The long file is walked
// first in each iteration: the processor's caches hold nothing of the short one then.
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
