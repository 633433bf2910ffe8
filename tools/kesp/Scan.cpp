#include "tools/kesp/Scan.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"

namespace kesp::tool {
namespace {

// Puts the features together and notes what doesn't fit.
class Assembly {
 public:
  void Add(const CKespRecord& record) {
    switch (record.m_recordType) {
      case KESP_RECORD_FEATURE:
        return AddFeature(static_cast<const CKespFeature&>(record).FeatureNumber);
      case KESP_RECORD_POINT:
        return AddPoint(static_cast<const CKespPoint&>(record));
      case KESP_RECORD_ATTRIBUTE:
        if (!m_features.contains(static_cast<const CKespAttribute&>(record).FeatureNumber)) ++m_strayAttributes;
        return;
      case KESP_RECORD_FEATURE_END:
        if (!m_features.contains(static_cast<const CKespFeatureEnd&>(record).FeatureNumber)) ++m_strayEnds;
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
    for (const auto& [number, feature] : m_features) {
      all.points += feature.points;
      if (feature.points == 0) continue;
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
    for (const auto& [number, feature] : m_features) {
      if (feature.points == 0) m_pointless.push_back(number);
    }
    std::uint64_t repeatedPoints = 0;
    std::vector<std::uint32_t> repeated = RepeatedPoints(repeatedPoints);
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
  void AddFeature(std::uint32_t number) {
    const auto [entry, isNew] = m_features.try_emplace(number);
    if (isNew) return;
    if (entry->second.points == 0) m_pointless.push_back(number);
    entry->second = {};
    m_repeated.push_back(number);
  }
  void AddPoint(const CKespPoint& point) {
    m_pointNumbers.push_back(point.PointNumber);
    if (const auto feature = m_features.find(point.FeatureNumber); feature != m_features.end()) {
      ++feature->second.points;
      feature->second.extent.Include(point.CoordX, point.CoordY);
    } else {
      ++m_strayPoints;
    }
  }
  std::vector<std::uint32_t> RepeatedPoints(std::uint64_t& count) {
    std::sort(m_pointNumbers.begin(), m_pointNumbers.end());
    std::vector<std::uint32_t> repeated;
    for (std::size_t i = 1; i < m_pointNumbers.size(); ++i) {
      const std::uint32_t number = m_pointNumbers[i];
      if (number == m_pointNumbers[i - 1] && (repeated.empty() || repeated.back() != number))
        repeated.push_back(number);
    }
    count = repeated.size();
    return repeated;
  }

  struct Feature {
    std::uint64_t points = 0;
    CBoundingBox extent;
  };

  std::unordered_map<std::uint32_t, Feature> m_features;
  std::vector<std::uint32_t> m_pointNumbers;
  std::vector<std::uint32_t> m_pointless;
  std::vector<std::uint32_t> m_repeated;
  std::uint64_t m_strayPoints = 0;
  std::uint64_t m_strayAttributes = 0;
  std::uint64_t m_strayEnds = 0;
  std::uint64_t m_headers = 0;
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

void Coverage::Include(const CKespPoint& point) {
  ++points;
  extent.Include(point.CoordX, point.CoordY);
  if (point.PointTime == 0) return;
  firstTime = std::min(firstTime, point.PointTime);
  lastTime = std::max(lastTime, point.PointTime);
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

Scan ScanFile(CKespDataFile& file) {
  Scan scan;
  Assembly assembly;
  RecordWalk walk(file, DeletedRecords::kPassOver);
  Progress progress(file.m_file.KnownLength(), Progress::OnTerminal());
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    progress.Update(walk.Offset());
    for (Tally* const tally : {&scan.records[{walk.Type(), walk.Version()}], &scan.all}) {
      ++tally->count;
      if (walk.IsDeleted()) ++tally->deleted;
    }
    if (step != RecordWalk::Step::kRecord) continue;
    const CKespRecord& record = walk.Record();
    if (record.m_recordType == KESP_RECORD_POINT) scan.coverage.Include(static_cast<const CKespPoint&>(record));
    if (record.m_recordType == KESP_RECORD_HEADER && !scan.header) {
      scan.header = std::make_unique<CKespTavoHeader>(static_cast<const CKespTavoHeader&>(record));
    }
    assembly.Add(record);
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
