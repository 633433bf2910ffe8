// What does reading a whole survey into memory cost, compared with only walking over its file? And is the cost per
// record the same among two million as among twenty thousand: in reading, the summary, each family of queries,
// deleting? And what does a question for a rectangle cost, compared with a loop over all points?
//
// Run with GLIBC_TUNABLES=glibc.malloc.hugetlb=1. Otherwise the ratios mostly measure pages touched for the first time.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Measure.h"
#include "bench/Survey.h"

// A friend of the data set, for an operation that is private.
struct CKespFileTestAccess {
  static void DeletePoint(CKespFile& survey, CKespPoint* point) { survey.DeletePoint(point); }
};

namespace {

using bench::CpuSeconds;
using bench::FileOf;
using bench::kBytesEach;
using bench::kRecordsEach;

constexpr long kShort = 20 * 1000 / kRecordsEach;   // features
constexpr long kLong = 2000 * 1000 / kRecordsEach;  // features

// Of the area of a survey.
constexpr CRect2D kHundredth(10, 50, 10.9, 50.8);

void Open(CKespFile& survey, const std::string& path, bool readOnly) {
  CString message;
  const ErrorEnum result =
      readOnly ? survey.OpenKespReadOnly(CString(path), message) : survey.OpenKesp(CString(path), message);
  if (result != ERR_NONE) throw std::runtime_error("can't open " + path);
}

void Read(CKespFile& survey) {
  if (survey.ReadKespFile(false) != ERR_NONE) throw std::runtime_error("the survey is not read");
}

long ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

// "times_walk": the time of reading into a data set divided by that of a walk that makes and deletes every record.
// "memory_to_file": the memory that the data set then occupies, divided by the length of the file.
void ReadAgainstWalk(benchmark::State& state) {
  const long features = state.range(0) * 1000 * 1000 / kBytesEach;
  const std::string& path = FileOf(features);
  const long residentBefore = ResidentBytes();
  std::vector<double> ratios;
  double memory = 0;
  const auto once = [&] {
    // The time that passes: the processor time of this thread would leave out the second thread of the read.
    const double walk = bench::Seconds([&] { bench::Walk(path, features); });
    CKespFile survey;
    Open(survey, path, true);
    const double read = bench::Seconds([&] { Read(survey); });
    if (memory == 0) memory = static_cast<double>(ResidentBytes() - residentBefore);
    ratios.push_back(read / walk);
    state.SetIterationTime(read);
  };
  once();  // the first read also touches the memory that later ones use again
  ratios.clear();
  for (auto _ : state) once();
  state.counters["times_walk"] = bench::Median(ratios);
  state.counters["memory_to_file"] = memory / static_cast<double>(std::filesystem::file_size(path));
  state.SetItemsProcessed(state.iterations() * features * kRecordsEach);
}
BENCHMARK(ReadAgainstWalk)->ArgName("MB")->Arg(200)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

// "times_alone": the time in which two threads read two files at once, without reading ahead, divided by that of one
// alone. It is 1 when they share nothing but the memory, and 2 with one processor.
void TwoAtOnce(benchmark::State& state) {
  const long features = state.range(0) * 1000 * 1000 / kBytesEach;
  const std::string& path = FileOf(features);
  CKespDataFile::AllowReadAhead(false);
  std::vector<double> ratios;
  const auto readOne = [&] {
    CKespFile survey;
    Open(survey, path, true);
    Read(survey);
  };
  const auto once = [&] {
    const double alone = bench::Seconds(readOne);
    const double both = bench::Seconds([&] {
      std::thread other(readOne);
      readOne();
      other.join();
    });
    ratios.push_back(both / alone);
    state.SetIterationTime(both);
  };
  once();
  ratios.clear();
  for (auto _ : state) once();
  CKespDataFile::AllowReadAhead(true);
  state.counters["times_alone"] = bench::Median(ratios);
}
BENCHMARK(TwoAtOnce)->ArgName("MB")->Arg(200)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

using Surveys = std::vector<std::unique_ptr<CKespFile>>;

// Enough surveys of the file for two million records: so the processor's caches hold no more of the next short survey
// than of the rest of the long one.
Surveys OpenMany(long features) {
  Surveys surveys;
  for (long i = 0; i < kLong; i += features) {
    surveys.push_back(std::make_unique<CKespFile>());
    Open(*surveys.back(), FileOf(features), true);
  }
  return surveys;
}

double TimeOver(const Surveys& surveys, const std::function<void(CKespFile&)>& work) {
  return CpuSeconds([&] {
    for (const auto& survey : surveys) work(*survey);
  });
}

// "long_to_short": the time per record that `work` takes in a long survey, divided by that in short ones.
void TimePerRecord(benchmark::State& state, const std::function<void(CKespFile&)>& work) {
  const Surveys longOnes = OpenMany(kLong);
  const Surveys shortOnes = OpenMany(kShort);
  TimeOver(longOnes, Read);
  TimeOver(shortOnes, Read);
  std::vector<double> ratios;
  for (auto _ : state) {
    const double inLong = TimeOver(longOnes, work);
    ratios.push_back(inLong / TimeOver(shortOnes, work));
    state.SetIterationTime(inLong / (kLong * kRecordsEach));
  }
  state.counters["long_to_short"] = bench::Median(ratios);
}

// The same for reading. Each read takes new memory, part of which the pool has kept from the read before.
void ReadPerRecord(benchmark::State& state) {
  std::vector<double> ratios;
  for (auto _ : state) {
    const auto timeOf = [](long features) { return TimeOver(OpenMany(features), Read); };
    const double inLong = timeOf(kLong);
    ratios.push_back(inLong / timeOf(kShort));
    state.SetIterationTime(inLong / (kLong * kRecordsEach));
  }
  state.counters["long_to_short"] = bench::Median(ratios);
}
BENCHMARK(ReadPerRecord)->Iterations(3)->UseManualTime()->Unit(benchmark::kNanosecond);

template <class Query>
std::function<void(CKespFile&)> Running(Query query) {
  return [query](CKespFile& survey) {
    int count = 0;
    ErrorEnum error = ERR_NONE;
    const auto* const found = query(survey, count, error);
    benchmark::DoNotOptimize(found);
    delete[] found;
  };
}

const auto kRegistered = [] {
  const auto add = [](const std::string& name, const std::function<void(CKespFile&)>& work) {
    benchmark::RegisterBenchmark(("TimePerRecord/" + name).c_str(),
                                 [work](benchmark::State& state) { TimePerRecord(state, work); })
        ->Iterations(5)
        ->UseManualTime()
        ->Unit(benchmark::kNanosecond);
  };
  add("summary", [](CKespFile& survey) {
    unsigned long points = 0;
    unsigned long features = 0;
    CBoundingBox extent;
    CTime first;
    CTime last;
    CString text;
    survey.GetKespDataSummary(points, features, extent, first, last, text);
    benchmark::DoNotOptimize(points);
  });
  add("records_by_flags", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        return survey.GetRecordsWhereFlags(LOGIC_ANY, 2, count, error);
      }));
  add("features_by_type", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        return survey.GetFeaturesWhereType(LOGIC_EQUAL, KESP_FEATURE_LINE, count, error);
      }));
  add("features_by_name", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        return survey.GetFeaturesWhereName(LOGIC_ALL, u"77", count, error);
      }));
  add("features_by_number", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        return survey.GetFeaturesWhereAttribute(u"girth_cm", LOGIC_LESS, 50.0, count, error);
      }));
  add("points_in_rect", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        return survey.GetPointsInRect(kHundredth, count, error);
      }));
  add("features_in_rect", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        return survey.GetFeaturesInRect(kHundredth, count, error);
      }));
  add("index_of_points", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        survey.ForgetSpatialIndex();
        return survey.GetPointsInRect(CRect2D(), count, error);
      }));
  add("features_by_text", Running([](CKespFile& survey, int& count, ErrorEnum& error) {
        return survey.GetFeaturesWhereAttribute(u"state", LOGIC_EQUAL, CString(u"SOUND"), count, error);
      }));
  return 0;
}();

// "times_loop": the time of a question for a hundredth of the area, the index being built, divided by that of a loop
// over all points. "build_times_loop": that of building the index, divided by the same.
void PointsInRect(benchmark::State& state) {
  CKespFile survey;
  Open(survey, FileOf(kLong), true);
  Read(survey);
  const auto ask =
      Running([](CKespFile& of, int& count, ErrorEnum& error) { return of.GetPointsInRect(kHundredth, count, error); });
  const auto loop = [&] {
    int found = 0;
    for (const CKespRecord* record : survey.m_recordList) {
      if (record->m_recordType != KESP_RECORD_POINT) continue;
      const auto* const point = static_cast<const CKespPoint*>(record);
      if (kHundredth.PtInRect({point->CoordX, point->CoordY})) ++found;
    }
    benchmark::DoNotOptimize(found);
  };
  std::vector<double> ratios;
  std::vector<double> buildRatios;
  for (auto _ : state) {
    survey.ForgetSpatialIndex();
    const double build = CpuSeconds([&] { ask(survey); });
    const double asking = CpuSeconds([&] { ask(survey); });
    const double looping = CpuSeconds(loop);
    ratios.push_back(asking / looping);
    buildRatios.push_back(build / looping);
    state.SetIterationTime(asking);
  }
  state.counters["times_loop"] = bench::Median(ratios);
  state.counters["build_times_loop"] = bench::Median(buildRatios);
}
BENCHMARK(PointsInRect)->Iterations(9)->UseManualTime()->Unit(benchmark::kMicrosecond);

enum Kind { kWritten, kReadOnly, kNeverWritten };
const char* const kKinds[] = {"written", "read_only", "never_written"};

// Makes the feature's records ones that are not in the file.
void MakeNew(CKespFeature& feature) {
  constexpr std::uint32_t kUnused = 1U << 30;
  for (CKespPoint* point : feature.m_pointList) point->m_filePosition = 0, point->FeatureNumber += kUnused;
  for (CKespAttribute* attribute : feature.m_attributeList) {
    attribute->m_filePosition = 0, attribute->FeatureNumber += kUnused;
  }
}

// "long_to_short" of deleting one feature in a thousand with its 14 points and attributes, also in the file if it is
// open for writing.
void DeleteOneInAThousand(benchmark::State& state) {
  const bench::ScratchFolder folder("/dev/shm");
  const auto kind = static_cast<Kind>(state.range(0));
  const auto timeOf = [&](long features) {
    const std::string path = folder / std::to_string(features);
    std::filesystem::copy_file(FileOf(features), path, std::filesystem::copy_options::overwrite_existing);
    CKespFile survey;
    Open(survey, path, kind == kReadOnly);
    Read(survey);
    std::vector<CKespFeature*> chosen;
    for (unsigned long number = 500; number < static_cast<unsigned long>(features); number += 1000) {
      CKespFeature* feature = nullptr;
      if (survey.GetFeature(number, feature) == ERR_NONE) chosen.push_back(feature);
      if (kind == kNeverWritten) MakeNew(*chosen.back());
    }
    const double seconds = CpuSeconds([&] {
      for (CKespFeature* feature : chosen) survey.DeleteFeatureAndAssociatedRec(feature);
    });
    return seconds / static_cast<double>(chosen.size());
  };
  std::vector<double> ratios;
  for (auto _ : state) {
    const double inLong = timeOf(kLong);
    double inShort = 0;
    for (int i = 0; i < 20; ++i) inShort += timeOf(8 * kShort) / 20;  // ten features at a time
    ratios.push_back(inLong / inShort);
    state.SetIterationTime(inLong);
  }
  state.counters["long_to_short"] = bench::Median(ratios);
  state.SetLabel(kKinds[kind]);
}
BENCHMARK(DeleteOneInAThousand)
    ->DenseRange(kWritten, kNeverWritten)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// Makes a survey of one line of that many points.
void MakeLine(const std::string& path, std::uint32_t points) {
  CKespFile survey;
  const std::unique_ptr<CKespFeature> line(survey.CreateFeature("line", KESP_FEATURE_LINE, 1));
  for (std::uint32_t i = 0; i < points; ++i) line->AddPoint(survey.CreatePoint(i, "", 0, 50, 10, 100, 1));
  survey.AddTavoHeaderToWriteQueue(new CKespTavoHeader);
  survey.AddFeatureAndAssociatedRecToWriteQueue(line.get());
  if (survey.WriteNewKespFileFromQueue(CString(path)) != ERR_NONE) throw std::runtime_error("can't write " + path);
}

// "long_to_short" of deleting half the points, in random order, of one line of 100,000 points and of 100 lines of 1000.
// All of these are in memory and in turn, so that the processor's caches hold no more of the short ones.
void DeletePointsOfALine(benchmark::State& state) {
  const bench::ScratchFolder folder("/dev/shm");
  const auto kind = static_cast<Kind>(state.range(0));
  const auto timeOf = [&](std::uint32_t lines, std::uint32_t points) {
    std::vector<std::pair<CKespFile*, CKespPoint*>> chosen;
    std::vector<std::unique_ptr<CKespFile>> surveys;
    for (std::uint32_t i = 0; i < lines; ++i) {
      const std::string path = folder / std::to_string(i);
      std::filesystem::remove(path);
      MakeLine(path, points);
      CKespFile& survey = *surveys.emplace_back(std::make_unique<CKespFile>());
      Open(survey, path, kind == kReadOnly);
      Read(survey);
      survey.m_pointIndex.Settle();
      CKespFeature& line = **survey.m_featureIndex.Find(1);
      for (CKespPoint* point : line.m_pointList) {
        chosen.emplace_back(&survey, point);
        if (kind == kNeverWritten) point->m_filePosition = 0, point->PointNumber += points;
      }
    }
    std::shuffle(chosen.begin(), chosen.end(), std::mt19937());
    chosen.resize(chosen.size() / 2);
    const double seconds = CpuSeconds([&] {
      for (const auto& [survey, point] : chosen) CKespFileTestAccess::DeletePoint(*survey, point);
    });
    return seconds / static_cast<double>(chosen.size());
  };
  std::vector<double> ratios;
  for (auto _ : state) {
    const double inLong = timeOf(1, 100 * 1000);
    ratios.push_back(inLong / timeOf(100, 1000));
    state.SetIterationTime(inLong);
  }
  state.counters["long_to_short"] = bench::Median(ratios);
  state.SetLabel(kKinds[kind]);
}
BENCHMARK(DeletePointsOfALine)
    ->DenseRange(kWritten, kNeverWritten)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
