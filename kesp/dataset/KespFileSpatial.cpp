// Queries by place: what lies in a rectangle.
#include <cmath>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"

namespace {

std::optional<CPoint2D> PlaceOf(const CKespPoint& point) {
  if (!std::isfinite(point.CoordX) || !std::isfinite(point.CoordY)) return {};
  return CPoint2D(point.CoordX, point.CoordY);
}

std::optional<CRect2D> BoxOf(const CKespFeature& feature) {
  CBoundingBox box;
  for (const CKespPoint* point : feature.m_pointList) {
    if (point != nullptr) box.Include(point->CoordX, point->CoordY);
  }
  if (!box.IsValid()) return {};
  return CRect2D(box.MinX(), box.MinY(), box.MaxX(), box.MaxY());
}

// Returns the index of all records of the class for which `shapeOf` has a shape; builds it if the list is another one
// than before.
template <class Record, class Shape>
const kesp::SpatialIndex& UpToDate(kesp::IndexOfList& known, const kesp::RecordList& list, KESP_RECORD_TYPE type,
                                   std::optional<Shape> (*shapeOf)(const Record&)) {
  if (known.index && known.arrangement == list.Arrangement()) return *known.index;
  known.index.reset();
  std::vector<kesp::Placed<Shape>> placed;
  for (std::size_t place = 0; place < list.Places(); ++place) {
    const CKespRecord* const record = list.At(place);
    if (record == nullptr || record->m_recordType != type) continue;
    const auto shape = shapeOf(static_cast<const Record&>(*record));
    if (shape) placed.push_back({*shape, static_cast<std::uint32_t>(place)});
  }
  known.index.emplace(std::move(placed));
  known.arrangement = list.Arrangement();
  return *known.index;
}

// A record that was removed from the list since the index was built has left a null.
template <class Record>
Record** HandOut(const kesp::RecordList& list, const std::vector<std::uint32_t>& places, int& count, ErrorEnum& error) {
  auto* const array = new Record*[places.size()];
  count = 0;
  for (const std::uint32_t place : places) {
    if (CKespRecord* const record = list.At(place)) array[count++] = static_cast<Record*>(record);
  }
  error = count == 0 ? ERR_NOT_FOUND : ERR_NONE;
  return array;
}

}  // namespace

CKespFeature** CKespFile::GetFeaturesInRect(const CRect2D& rect, int& count, ErrorEnum& error) const {
  const kesp::SpatialIndex& index = UpToDate(m_own->featuresByPlace, m_recordList, KESP_RECORD_FEATURE, BoxOf);
  return HandOut<CKespFeature>(m_recordList, index.PlacesIn(rect), count, error);
}

CKespPoint** CKespFile::GetPointsInRect(const CRect2D& rect, int& count, ErrorEnum& error) const {
  const kesp::SpatialIndex& index = UpToDate(m_own->pointsByPlace, m_recordList, KESP_RECORD_POINT, PlaceOf);
  const auto isIn = [&](std::uint32_t place) {
    const auto* const point = static_cast<const CKespPoint*>(m_recordList.At(place));
    return point != nullptr && rect.PtInRect({point->CoordX, point->CoordY});
  };
  return HandOut<CKespPoint>(m_recordList, index.PlacesIn(rect, isIn), count, error);
}

void CKespFile::ForgetSpatialIndex() noexcept {
  m_own->pointsByPlace.index.reset();
  m_own->featuresByPlace.index.reset();
}
