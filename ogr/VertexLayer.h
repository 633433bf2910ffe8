// The layer `vertices`: a row for each point that belongs to a feature.
#pragma once
#include "kesp/records/KespPoint.h"
#include "ogr/RecordLayer.h"

namespace kesp::ogr {

class VertexLayer final : public RecordLayer {
 public:
  static constexpr const char* kName = "vertices";
  static constexpr const char* kStatusDomain = "vertices.status";

  explicit VertexLayer(Dataset& dataset);

 protected:
  GIntBig Count() const override;
  const Box* Bounds() const override;
  bool IsIndexed() const override { return true; }
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
  bool IsOutside(const RecordView& record) const override;
  bool CanChange() const override { return true; }
  bool Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) override;
  std::uint64_t SkipFrom(std::uint64_t position) override;

 private:
  bool PutValue(CKespPoint& point, const OGRFeature& now, int field) const;
  bool PutPlace(CKespPoint& point, const OGRFeature& now);
};

}  // namespace kesp::ogr
