// The GDAL driver beside the drivers of three other formats: the same lines, written and read through OGR.
//
//   OgrBench [FEATURES,POINTS,ATTRIBUTES ...]
//
// The formats take turns. Each reading has its own process, where no memory is in use yet, and counts what it read. It
// is timed from opening to closing; features that are kept are still held at the end. A figure is the median over the
// rounds of this driver's time divided by another format's time in the same round, so less than 1 is faster. Other work
// on the machine shows in the time that passes, and hardly in that of the processors.
//
// KESP_BENCH_ROUNDS sets how many rounds there are, 7 if it doesn't.
#include <fcntl.h>
#include <ogrsf_frmts.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <string_view>

#include "bench/Measure.h"
#include "kesp/memory/AlignedBytes.h"

namespace {

struct Case {
  long features, points, attributes;
};

struct Format {
  const char *driver, *file, *layer, *nameField;
};
constexpr std::array<Format, 4> kFormats{{{"Kesp", "lines.kesp", "lines", "feature_name"},
                                          {"GPKG", "lines.gpkg", "lines", "name"},
                                          {"ESRI Shapefile", "lines.shp", "lines", "name"},
                                          {"FlatGeobuf", "lines.fgb", "lines", "name"}}};

void Require(bool good, const std::string& what) {
  if (!good) throw std::runtime_error(what + ": " + CPLGetLastErrorMsg());
}

// Features that are the same in every run. Starts lie in a square of 10 degrees, so the box of Box() has 1 % of them.
class Lines {
 public:
  explicit Lines(const Case& shape) : m_case(shape) {}

  static std::string NameOf(long number) {
    constexpr std::array<const char*, 5> kThings{"Fence", "Water main", "Road edge", "Power line", "Hedge"};
    return std::string(kThings[static_cast<std::size_t>(number) % kThings.size()]) + ' ' + std::to_string(number);
  }
  static OGREnvelope Box() {
    OGREnvelope box;
    box.MinX = 7;
    box.MinY = 50;
    box.MaxX = 8;
    box.MaxY = 51;
    return box;
  }

  void AddFields(OGRLayer& layer, const Format& format) const {
    Add(layer, format.nameField, OFTString);
    m_firstField = layer.GetLayerDefn()->GetFieldCount();
    const bool hasMenus = std::string_view(format.driver) == "Kesp";
    for (long i = 0; i < m_case.attributes; ++i) {
      const std::string number = std::to_string(i);
      constexpr std::array kTypes{OFTString, OFTReal, OFTDate, OFTString};
      Add(layer, "field_" + number, kTypes[static_cast<std::size_t>(i % 4)], hasMenus && i % 4 == 3 ? "states" : "");
    }
    m_nameField = layer.GetLayerDefn()->GetFieldIndex(format.nameField);
  }

  void Fill(OGRFeature& feature, long number) {
    feature.SetField(m_nameField, NameOf(number).c_str());
    for (long i = 0; i < m_case.attributes; ++i) SetValue(feature, m_firstField + static_cast<int>(i), i % 4);
    auto line = std::make_unique<OGRLineString>();
    line->setNumPoints(static_cast<int>(m_case.points));
    double x = Between(0, 10);
    double y = Between(45, 55);
    for (int i = 0; i < m_case.points; ++i) {
      line->setPoint(i, x, y, Between(100, 500), 1.6e9 + static_cast<double>(number) + i);
      x += Between(-1e-5, 1e-5);
      y += Between(-1e-5, 1e-5);
    }
    feature.SetGeometryDirectly(line.release());
  }

 private:
  static void Add(OGRLayer& layer, const std::string& name, OGRFieldType type, const char* domain = "") {
    OGRFieldDefn field(name.c_str(), type);
    field.SetDomainName(domain);
    Require(layer.CreateField(&field) == OGRERR_NONE, name);
  }
  double Between(double from, double to) { return from + (to - from) * static_cast<double>(m_random()) / 0x1p64; }
  void SetValue(OGRFeature& feature, int field, long kind) {
    constexpr std::array<const char*, 4> kStates{"good", "fair", "poor", "needs repair"};
    constexpr std::array<const char*, 3> kTexts{"leaning near the fence", "replaced, check again",
                                                "wet ditch at the side"};
    if (kind == 0) feature.SetField(field, kTexts[m_random() % kTexts.size()]);
    if (kind == 1) feature.SetField(field, std::round(Between(0, 400)) / 8);
    if (kind == 2) feature.SetField(field, 2020, 1 + static_cast<int>(m_random() % 12), 1);
    if (kind == 3) feature.SetField(field, kStates[m_random() % kStates.size()]);
  }

  Case m_case;
  mutable int m_firstField = 0, m_nameField = 0;
  std::mt19937_64 m_random{7};
};

using DatasetPointer = std::unique_ptr<GDALDataset>;

void Write(const Format& format, const Case& shape, const std::string& path) {
  GDALDriver* const driver = GetGDALDriverManager()->GetDriverByName(format.driver);
  Require(driver != nullptr, format.driver);
  const DatasetPointer dataset(driver->Create(path.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
  Require(dataset != nullptr, path);
  OGRLayer* const layer = dataset->CreateLayer(format.layer, nullptr, wkbLineStringZM, nullptr);
  Require(layer != nullptr, path);
  Lines lines(shape);
  lines.AddFields(*layer, format);
  const bool hasTransactions = layer->TestCapability(OLCTransactions) != FALSE;
  if (hasTransactions) Require(layer->StartTransaction() == OGRERR_NONE, path);
  for (long number = 0; number < shape.features; ++number) {
    OGRFeature feature(layer->GetLayerDefn());
    lines.Fill(feature, number);
    Require(layer->CreateFeature(&feature) == OGRERR_NONE, path);
  }
  if (hasTransactions) Require(layer->CommitTransaction() == OGRERR_NONE, path);
}

enum class Values { kKept, kLetGo };

struct Question {
  bool byBox = false;
  std::optional<long> name;  // of the feature with this number
};

struct Counts {
  long features = 0, points = 0;
};

Counts Read(const Format& format, const std::string& path, Values values, const Question& question = {}) {
  const char* const drivers[] = {format.driver, nullptr};
  const DatasetPointer dataset(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY, drivers));
  OGRLayer* const layer = dataset != nullptr ? dataset->GetLayerByName(format.layer) : nullptr;
  Require(layer != nullptr, path);
  const OGREnvelope box = Lines::Box();
  if (question.byBox) layer->SetSpatialFilterRect(box.MinX, box.MinY, box.MaxX, box.MaxY);
  if (question.name) {
    const std::string filter = std::string(format.nameField) + " = '" + Lines::NameOf(*question.name) + '\'';
    Require(layer->SetAttributeFilter(filter.c_str()) == OGRERR_NONE, filter);
  }
  Counts counts;
  std::vector<OGRFeatureUniquePtr> kept;
  while (OGRFeatureUniquePtr feature{layer->GetNextFeature()}) {
    ++counts.features;
    counts.points += feature->GetGeometryRef()->toLineString()->getNumPoints();
    if (values == Values::kKept) kept.push_back(std::move(feature));
  }
  return counts;
}

void ReadPlainly(const std::string& path) {
  constexpr std::size_t kAtOnce = 1 << 20;
  const kesp::AlignedBytes buffer(kAtOnce);
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Require(file >= 0, path);
  while (::read(file, buffer.Data(), kAtOnce) > 0) {
  }
  ::close(file);
}

struct Cost {
  double seconds = -1;           // that pass
  double processorSeconds = -1;  // of all threads, in the system too
};

double ProcessorNow() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Of `work` in a process of its own.
template <class Work>
Cost CostInChild(Work&& work) {
  std::array<int, 2> ends{};
  Require(::pipe(ends.data()) == 0, "pipe");
  const pid_t child = ::fork();
  if (child == 0) {
    Cost cost;
    try {
      const double before = ProcessorNow();
      cost.seconds = bench::Seconds(work);
      cost.processorSeconds = ProcessorNow() - before;
    } catch (const std::exception& e) {
      (void)std::fprintf(stderr, "%s\n", e.what());
    }
    ::_exit(::write(ends[1], &cost, sizeof cost) == sizeof cost ? 0 : 1);
  }
  Cost cost;
  const bool isRead = ::read(ends[0], &cost, sizeof cost) == sizeof cost;
  ::close(ends[0]);
  ::close(ends[1]);
  Require(::waitpid(child, nullptr, 0) == child && isRead && cost.seconds >= 0, "a reading went wrong");
  return cost;
}

using Costs = std::vector<Cost>;

double MedianRatio(const Costs& ours, const Costs& others, double Cost::*clock) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i].*clock / others[i].*clock);
  return bench::Median(ratios);
}

int Rounds() {
  const char* const rounds = std::getenv("KESP_BENCH_ROUNDS");
  return rounds != nullptr ? std::max(1, std::atoi(rounds)) : 7;
}

class Comparison {
 public:
  explicit Comparison(const Case& shape) : m_case(shape) {
    for (const Format& format : kFormats) Write(format, shape, PathOf(format));
  }

  void Run() {
    std::printf("%ld lines of %ld points with %ld attributes\n", m_case.features, m_case.points, m_case.attributes);
    Beside("kept", Values::kKept, {});
    Beside("let go", Values::kLetGo, {});
    Beside("box of 1 %", Values::kLetGo, {.byBox = true, .name = {}});
    Beside("name", Values::kLetGo, {.byBox = false, .name = m_case.features / 2});
  }

 private:
  std::string PathOf(const Format& format) const { return m_folder / format.file; }

  void Check(const Counts& counts, const Question& question) const {
    const bool isAll = !question.byBox && !question.name;
    if (isAll) Require(counts.features == m_case.features && counts.points == m_case.features * m_case.points, "all");
    if (question.name) Require(counts.features == 1 && counts.points == m_case.points, "one feature of the name");
    if (question.byBox && m_case.features > 1000) {
      Require(counts.features > m_case.features / 200 && counts.features < m_case.features / 50, "1 % of the features");
    }
  }

  void Beside(const char* title, Values values, const Question& question) {
    constexpr std::size_t kPlain = kFormats.size();
    std::array<Costs, kPlain + 1> costs;
    for (int round = 0; round < Rounds(); ++round) {
      for (std::size_t i = 0; i < kFormats.size(); ++i) {
        const std::string path = PathOf(kFormats[i]);
        costs[i].push_back(CostInChild([&] { Check(Read(kFormats[i], path, values, question), question); }));
        if (i == 0) costs[kPlain].push_back(CostInChild([&] { ReadPlainly(path); }));
      }
    }
    for (const bool ofProcessor : {false, true}) {
      double Cost::*const clock = ofProcessor ? &Cost::processorSeconds : &Cost::seconds;
      std::vector<double> ours;
      for (const Cost& cost : costs[0]) ours.push_back(cost.*clock);
      std::printf("  %-10s %-9s %6.1f ms", title, ofProcessor ? "processor" : "time", 1e3 * bench::Median(ours));
      for (std::size_t i = 1; i < costs.size(); ++i) {
        std::printf(", %.2f of %s", MedianRatio(costs[0], costs[i], clock),
                    i == kPlain ? "plain read()" : kFormats[i].driver);
      }
      std::printf("\n");
    }
  }

  Case m_case;
  bench::ScratchFolder m_folder;
};

// Of a reading that lets its features go, in files of one and of ten lengths. The directory of the features grows up to
// its limit.
void CompareMemory() {
  const bench::ScratchFolder folder;
  constexpr std::array<long, 2> kFeatures{20000, 200000};
  const auto path = [&](long features) { return folder / (std::to_string(features) + ".kesp"); };
  for (const long features : kFeatures) Write(kFormats[0], {features, 10, 1}, path(features));
  for (const char* const limit : {"1048576", "10000"}) {
    CPLSetConfigOption("KESP_DIRECTORY_ENTRIES", limit);
    for (const long features : kFeatures) {
      const double grown = bench::GrowthInChild([&] { Read(kFormats[0], path(features), Values::kLetGo); });
      std::printf("Memory of reading %ld lines with at most %s entries: %.1f MiB\n", features, limit, grown);
    }
  }
}

}  // namespace

int main(int argc, char** argv) try {
  CPLSetConfigOption("GDAL_DRIVER_PATH", KESP_PLUGIN_FOLDER);
  CPLSetConfigOption("GDAL_PAM_ENABLED", "NO");
  GDALAllRegister();
  std::vector<Case> cases;
  for (int i = 1; i < argc; ++i) {
    Case& shape = cases.emplace_back();
    const int read = std::sscanf(argv[i], "%ld,%ld,%ld", &shape.features, &shape.points, &shape.attributes);
    Require(read == 3 && shape.features > 0 && shape.points > 0 && shape.attributes >= 0, argv[i]);
  }
  if (cases.empty()) cases = {{20000, 10, 4}, {200000, 10, 1}, {20, 100000, 2}};
  for (const Case& shape : cases) Comparison(shape).Run();
  if (argc == 1) CompareMemory();
  return 0;
} catch (const std::exception& e) {
  (void)std::fprintf(stderr, "%s\n", e.what());
  return 1;
}
