// Writes rows that are added to the layer `vertices`.
//
// A row without a point number adds a point to its feature: it becomes the last one, and its record comes after the
// feature's end. A row with a number is a point that the feature has got: the n-th such row of a feature that was
// written since the file was opened gives its number, text and values to the feature's n-th point, which must be at
// the same place. That completes features that were copied with their geometry only. Rows after the last point add
// points, too.
//
// Errors: reported to GDAL; the result is then false, and nothing is written.
#pragma once
#include <cstdint>
#include <set>
#include <unordered_map>
#include <utility>

#include <ogr_feature.h>

#include "ogr/SurveyFile.h"

class CKespPoint;

namespace kesp::ogr {

class Dataset;
class VertexLayer;

class VertexWriter {
 public:
  VertexWriter(Dataset& dataset, const VertexLayer& layer);

  // Sets the FID.
  bool Write(OGRFeature& row);
  // The point of a row has been deleted: a row with its number may come back.
  void NoteDeletion(std::uint32_t feature, std::uint32_t point) { m_deleted.insert({feature, point}); }
  // What was written or deleted may be as it was before.
  void Forget() noexcept {
    m_last.clear();
    m_deleted.clear();
  }

 private:
  bool FindFeature(const OGRFeature& row, std::uint32_t& number, std::uint64_t& position);
  std::uint64_t NextPoint(std::uint32_t feature, std::uint64_t position);
  bool Complete(OGRFeature& row, std::uint64_t position);
  bool Append(OGRFeature& row, std::uint32_t feature);
  bool Fill(CKespPoint& point, const OGRFeature& row) const;

  static constexpr std::uint64_t kNone = UINT64_MAX;
  Dataset& m_dataset;
  const VertexLayer& m_layer;
  Cursor m_cursor;
  std::unordered_map<std::uint32_t, std::uint64_t> m_last;      // by feature, the place of the point of its last row
  std::set<std::pair<std::uint32_t, std::uint32_t>> m_deleted;  // feature and point
};

}  // namespace kesp::ogr
