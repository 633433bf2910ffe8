// The layer `vertices`: a row for each point that belongs to a feature.
#pragma once
#include <optional>

#include "kesp/records/KespPoint.h"
#include "ogr/RecordLayer.h"
#include "ogr/VertexWriter.h"

namespace kesp::ogr {

class VertexLayer final : public RecordLayer {
 public:
  static constexpr const char* kName = "vertices";
  static constexpr const char* kStatusDomain = "vertices.status";

  enum Field : int {
    kFeatureNumber,
    kPointNumber,
    kText,
    kTime,
    kZ,
    kStatus,
    kGpsValue,
    kGpsNumber,
    kHasOffset,
    kOffset1,
    kOffset2,
    kDeleted,
    kEdited
  };

  explicit VertexLayer(Dataset& dataset);
  OGRErr CreateField(OGRFieldDefn* field, int approximates) override;
  void AfterRollback() override;
  // Puts the value of a field into the point. False, with an error, if it can't have it. Time and height must be those
  // that the point has.
  bool PutValue(CKespPoint& point, const OGRFeature& row, int field) const;

 protected:
  GIntBig Count() const override;
  const Box* Bounds() const override;
  bool IsIndexed() const override { return true; }
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
  bool IsOutside(const RecordView& record) const override;
  bool CanMakeColumns() const override { return true; }
  bool AddNextRow(ArrowRows& rows) override;
  bool CanAdd() const override { return true; }
  bool CanChange() const override { return true; }
  bool CanDelete() const override { return true; }
  OGRErr Create(OGRFeature& feature) override;
  void CountDeletion(Survey& survey) const override;
  void AfterDeletion(const CKespRecord& record) override;
  bool Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) override;
  std::uint64_t SkipFrom(std::uint64_t position) override;

 private:
  // The row is an OGRFeature or ArrowRows.
  template <class Row>
  void Fill(Row& row, const RecordView& record);
  bool PutPlace(CKespPoint& point, const OGRFeature& now);

  std::optional<VertexWriter> m_writer;
};

}  // namespace kesp::ogr
