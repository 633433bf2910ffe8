#include "ogr/Summary.h"

#include <optional>
#include <tuple>

#include "kesp/dataset/KespFile.h"
#include "kesp/format/RecordView.h"
#include "ogr/NumberSet.h"

namespace kesp::ogr {
namespace {

// A data set's index is walked bucket by bucket; in a bucket, the newest feature comes first.
constexpr std::uint32_t BucketOf(std::uint32_t number) noexcept { return number / 16 % 17; }

class Summary {
 public:
  Summary() {
    // Times that no point has: what an empty data set gives.
    std::uint32_t points = 0;
    std::uint32_t features = 0;
    CBoundingBox extent;
    CTime first;
    CTime last;
    CString text;
    CKespFile().GetKespDataSummary(points, features, extent, first, last, text);
    m_first = first.GetTime();
    m_last = last.GetTime();
  }

  // False if the number of a feature is there again: then only some of the points count.
  bool Take(const RecordView& record) {
    if (record.Type() == KESP_RECORD_FEATURE) {
      const std::uint32_t number = record.AsFeature().FeatureNumber();
      if (m_features.Has(number)) return false;
      m_features.Add(number);
      ++m_featureCount;
    } else if (record.Type() == KESP_RECORD_POINT && m_features.Has(record.AsPoint().FeatureNumber())) {
      TakePoint(record.AsPoint());
    }
    return true;
  }

  void PutInto(CKespTavoHeader& header) const {
    header.FeatureCount = m_featureCount;
    header.PointCount = m_pointCount;
    m_extent.Get(header.DataExtent1, header.DataExtent2, header.DataExtent3, header.DataExtent4);
    header.LastPointText = m_lastText;
    if (m_pointCount == 0) return;
    header.FirstPointTime = static_cast<std::uint32_t>(m_first);
    header.LastPointTime = static_cast<std::uint32_t>(m_last);
  }

 private:
  void TakePoint(const PointView& point) {
    ++m_pointCount;
    m_extent.Include(point.CoordX(), point.CoordY());
    const std::int32_t time = point.PointTime();
    if (time < m_first) m_first = time;
    if (time < m_last || (time == m_last && !ComesBefore(point.FeatureNumber()))) return;
    m_last = time;
    m_lastFeature = point.FeatureNumber();
    point.PointText().CopyTo(m_lastText);
  }
  bool ComesBefore(std::uint32_t feature) const noexcept {
    return m_lastFeature && feature != *m_lastFeature && BucketOf(feature) <= BucketOf(*m_lastFeature);
  }

  NumberSet m_features;
  std::uint32_t m_featureCount = 0, m_pointCount = 0;
  CBoundingBox m_extent;
  std::int64_t m_first = 0, m_last = 0;
  std::optional<std::uint32_t> m_lastFeature;
  CString m_lastText;
};

void PutSummaryOf(const CKespFile& survey, CKespTavoHeader& header) {
  CBoundingBox extent;
  CTime first;
  CTime last;
  survey.GetKespDataSummary(header.PointCount, header.FeatureCount, extent, first, last, header.LastPointText);
  extent.Get(header.DataExtent1, header.DataExtent2, header.DataExtent3, header.DataExtent4);
  if (header.PointCount == 0) return;
  header.FirstPointTime = static_cast<std::uint32_t>(first.GetTime());
  header.LastPointTime = static_cast<std::uint32_t>(last.GetTime());
}

}  // namespace

bool Summarize(CKespDataFile& file, CKespTavoHeader& header) {
  Summary summary;
  if (!file.SeekToFirstRecord()) return false;
  file.ReadAhead();
  for (RecordView record; file.ReadNextView(record, true);) {
    if (summary.Take(record)) continue;
    CKespFile survey;
    CString message;
    if (survey.OpenKespReadOnly(file.m_path, message) != ERR_NONE || survey.ReadKespFile(false) != ERR_NONE)
      return false;
    PutSummaryOf(survey, header);
    return true;
  }
  summary.PutInto(header);
  return file.GetError() == KESP_ERROR_NORMAL_EOF;
}

}  // namespace kesp::ogr
