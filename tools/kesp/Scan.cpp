#include "tools/kesp/Scan.h"

#include <algorithm>

#include "kesp/dataset/KespMap.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"

namespace kesp::tool {
namespace {

// Numbers, kept as runs of consecutive ones, as most files have them.
class Numbers {
 public:
  void Add(std::uint32_t number) {
    if (!m_runs.empty() && m_runs.back().last + std::uint64_t{1} == number) {
      m_runs.back().last = number;
    } else {
      m_runs.push_back({number, number});
    }
  }
  // How many numbers were added more than once; the first Finding::kMostNumbers of them go into `repeated`.
  std::uint64_t CountRepeated(std::vector<std::uint32_t>& repeated) {
    std::sort(m_runs.begin(), m_runs.end(), [](const Run& a, const Run& b) { return a.first < b.first; });
    std::uint64_t count = 0;
    std::uint64_t afterAll = 0;       // after the last number of the runs before
    std::uint64_t afterRepeated = 0;  // after the last one that was counted
    for (const Run& run : m_runs) {
      const std::uint64_t end = std::min(afterAll, run.last + std::uint64_t{1});
      for (std::uint64_t n = std::max<std::uint64_t>(run.first, afterRepeated); n < end; ++n) {
        if (repeated.size() == Finding::kMostNumbers) break;
        repeated.push_back(static_cast<std::uint32_t>(n));
      }
      const std::uint64_t from = std::max<std::uint64_t>(run.first, afterRepeated);
      count += from < end ? end - from : 0;
      afterRepeated = std::max(afterRepeated, end);
      afterAll = std::max(afterAll, run.last + std::uint64_t{1});
    }
    return count;
  }

 private:
  struct Run {
    std::uint32_t first;
    std::uint32_t last;
  };
  std::vector<Run> m_runs;
};

// Puts the features together and notes what doesn't fit.
class Assembly {
 public:
  void Add(const RecordView& record) {
    switch (record.Type()) {
      case KESP_RECORD_FEATURE:
        return AddFeature(record.AsFeature().FeatureNumber());
      case KESP_RECORD_POINT:
        return AddPoint(record.AsPoint());
      case KESP_RECORD_ATTRIBUTE:
        if (FeatureOf(record.AsAttribute().FeatureNumber()) == nullptr) ++m_strayAttributes;
        return;
      case KESP_RECORD_FEATURE_END:
        if (FeatureOf(record.AsFeatureEnd().FeatureNumber()) == nullptr) ++m_strayEnds;
        return;
      case KESP_RECORD_HEADER:
        ++m_headers;
        return;
      default:
        return;
    }
  }

  std::uint64_t Features() const noexcept { return m_features.size(); }
  // Of the points of those features.
  Coverage FeatureCoverage() const {
    Coverage all;
    for (const Feature& feature : m_features) {
      all.points += feature.points;
      if (!feature.extent.IsValid()) continue;
      all.extent.Include(feature.extent.MinX(), feature.extent.MinY());
      all.extent.Include(feature.extent.MaxX(), feature.extent.MaxY());
    }
    return all;
  }

  std::vector<Finding> Findings() {
    std::vector<Finding> findings;
    const auto add = [&](const char* code, std::uint64_t count, const char* what, const char* then,
                         std::vector<std::uint32_t> numbers = {}) {
      if (count == 0) return;
      std::sort(numbers.begin(), numbers.end());
      if (numbers.size() > Finding::kMostNumbers) numbers.resize(Finding::kMostNumbers);
      findings.push_back({code, count, std::move(numbers), Counted(count, what) + then, false});
    };
    for (const Feature& feature : m_features) {
      if (feature.points == 0) m_pointless.push_back(feature.number);
    }
    std::vector<std::uint32_t> repeated;
    const std::uint64_t repeatedPoints = m_pointNumbers.CountRepeated(repeated);
    add("featuresWithoutPoints", m_pointless.size(), "feature", " without points", m_pointless);
    add("featureNumbersUsedAgain", m_repeated.size(), "feature",
        " with the number of an earlier one, which it replaces", m_repeated);
    add("pointNumbersUsedAgain", repeatedPoints, "point number", " used more than once", std::move(repeated));
    constexpr const char* kStray = " whose feature does not come before it";
    add("pointsWithoutFeature", m_strayPoints, "point", kStray);
    add("attributesWithoutFeature", m_strayAttributes, "attribute", kStray);
    add("endsWithoutFeature", m_strayEnds, "feature end", kStray);
    add("extraHeaders", m_headers > 1 ? m_headers - 1 : 0, "header record", " after the first");
    return findings;
  }

 private:
  struct Feature {
    std::uint32_t number;
    std::uint64_t points = 0;
    CBoundingBox extent;
  };

  void AddFeature(std::uint32_t number) {
    if (Feature* const earlier = FeatureOf(number)) {
      if (earlier->points == 0) m_pointless.push_back(number);
      *earlier = {number, 0, {}};
      m_repeated.push_back(number);
      return;
    }
    m_last = m_features.size();
    m_features.push_back({number, 0, {}});
    m_byNumber.SetAt(number, static_cast<std::uint32_t>(m_last));
  }
  void AddPoint(const PointView& point) {
    m_pointNumbers.Add(point.PointNumber());
    if (Feature* const feature = FeatureOf(point.FeatureNumber())) {
      ++feature->points;
      feature->extent.Include(point.CoordX(), point.CoordY());
    } else {
      ++m_strayPoints;
    }
  }
  // Null if there is none. Records usually follow their feature.
  Feature* FeatureOf(std::uint32_t number) {
    if (m_features.empty()) return nullptr;
    if (m_features[m_last].number == number) return &m_features[m_last];
    const std::uint32_t* const index = m_byNumber.Find(number);
    if (index == nullptr) return nullptr;
    m_last = *index;
    return &m_features[m_last];
  }

  std::vector<Feature> m_features;  // each number once
  KespMap<std::uint32_t, std::uint32_t> m_byNumber;
  std::size_t m_last = 0;  // index of the feature that was used last
  Numbers m_pointNumbers;
  std::vector<std::uint32_t> m_pointless;
  std::vector<std::uint32_t> m_repeated;
  std::uint64_t m_strayPoints = 0;
  std::uint64_t m_strayAttributes = 0;
  std::uint64_t m_strayEnds = 0;
  std::uint64_t m_headers = 0;
};

// Counts the records of each kind. Records of a kind usually follow each other.
class Tallies {
 public:
  explicit Tallies(Scan& scan) noexcept : m_scan(scan) {}

  void Add(const RecordView& record) {
    const std::pair<std::uint32_t, std::uint16_t> kind(record.Type(), record.Version());
    if (m_last == nullptr || kind != m_lastKind) m_last = &m_scan.records[m_lastKind = kind];
    for (Tally* const tally : {m_last, &m_scan.all}) {
      ++tally->count;
      if (record.IsDeleted()) ++tally->deleted;
    }
  }

 private:
  Scan& m_scan;
  std::pair<std::uint32_t, std::uint16_t> m_lastKind;
  Tally* m_last = nullptr;
};

void CompareHeader(Scan& scan, const CBoundingBox& extent) {
  if (!scan.header || scan.header->m_recordVersion < 2) return;
  const CKespTavoHeader& header = *scan.header;
  const auto compare = [&](const char* code, const char* what, std::uint64_t says, std::uint64_t holds) {
    if (says == holds) return;
    scan.findings.push_back(
        {code, 1, {}, "the header counts " + Counted(says, what) + ", the file holds " + std::to_string(holds), false});
  };
  compare("headerFeatureCount", "feature", header.FeatureCount, scan.features);
  compare("headerPointCount", "point", header.PointCount, scan.featurePoints);
  double minX = 0;
  double maxX = 0;
  double minY = 0;
  double maxY = 0;
  extent.Get(minX, maxX, minY, maxY);
  if (header.DataExtent1 != minX || header.DataExtent2 != maxX || header.DataExtent3 != minY ||
      header.DataExtent4 != maxY) {
    scan.findings.push_back({"headerExtent", 1, {}, "the extent in the header is not that of the points", false});
  }
}

void AddRemarks(Scan& scan) {
  std::uint64_t old = 0;
  for (const auto& [kind, tally] : scan.records) {
    const bool hasOlder =
        kind.first != KESP_RECORD_FEATURE_END && TypeName(static_cast<KESP_RECORD_TYPE>(kind.first)) != nullptr;
    if (hasOlder && kind.second == 1) old += tally.count;
  }
  if (old != 0) {
    scan.findings.push_back(
        {"recordsOfVersion1", old, {}, Counted(old, "record") + " of version 1, with 8-bit texts", true});
  }
  if (scan.ClosedCleanly() == false) {
    scan.findings.push_back({"notClosedCleanly", 1, {}, "the header is not marked as closed cleanly", true});
  }
}

}  // namespace

void Coverage::Include(const PointView& point) {
  ++points;
  extent.Include(point.CoordX(), point.CoordY());
  const std::int32_t time = point.PointTime();
  if (time == 0) return;
  firstTime = std::min(firstTime, time);
  lastTime = std::max(lastTime, time);
}

std::optional<std::int64_t> Coverage::FirstTime() const {
  if (firstTime > lastTime) return std::nullopt;
  return firstTime;
}
std::optional<std::int64_t> Coverage::LastTime() const {
  if (firstTime > lastTime) return std::nullopt;
  return lastTime;
}

std::optional<bool> Scan::ClosedCleanly() const {
  if (!header || header->m_recordVersion < 2) return std::nullopt;
  return header->WasCleanClose();
}

Scan ScanFile(CKespDataFile& file, ShowsProgress showsProgress) {
  Scan scan;
  Assembly assembly;
  Tallies tallies(scan);
  RecordWalk walk(file, DeletedRecords::kPassOver);
  Progress progress(file.m_file.KnownLength(), showsProgress == ShowsProgress::kYes && Progress::OnTerminal());
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    const RecordView& record = walk.View();
    progress.Update(record.Position());
    tallies.Add(record);
    if (step != RecordWalk::Step::kRecord) continue;
    if (record.Type() == KESP_RECORD_POINT) scan.coverage.Include(record.AsPoint());
    assembly.Add(record);
    if (record.Type() == KESP_RECORD_HEADER && !scan.header) {
      scan.header.reset(static_cast<CKespTavoHeader*>(walk.TakeRecord().release()));
    }
  }
  scan.end = walk.End();
  scan.features = assembly.Features();
  const Coverage ofFeatures = assembly.FeatureCoverage();
  scan.featurePoints = ofFeatures.points;
  scan.findings = assembly.Findings();
  CompareHeader(scan, ofFeatures.extent);
  AddRemarks(scan);
  return scan;
}

Scan OpenAndScan(CKespDataFile& file, const std::string& path) {
  const auto refused = OpenForReading(file, path);
  if (!refused) return ScanFile(file);
  Scan scan;
  scan.end = *refused;
  return scan;
}

}  // namespace kesp::tool
