// The layers without geometry: `notes`, `tags` and `links`.
#pragma once
#include "ogr/RecordLayer.h"

namespace kesp::ogr {

class NoteLayer final : public RecordLayer {
 public:
  static constexpr const char* kName = "notes";
  explicit NoteLayer(Dataset& dataset);
  // Only for a field that is there already, as other programs copy them.
  OGRErr CreateField(OGRFieldDefn* field, int approximates) override;

 protected:
  GIntBig Count() const override;
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
  OGRErr ICreateFeature(OGRFeature* feature) override;
  bool Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) override;
  void CountDeletion(Survey& survey) const override { --survey.notes; }
  bool CanAdd() const override { return true; }
  bool CanChange() const override { return true; }
  bool CanDelete() const override { return true; }
};

// All tags but those that are in LinkLayer.
class TagLayer final : public RecordLayer {
 public:
  static constexpr const char* kName = "tags";
  explicit TagLayer(Dataset& dataset);

 protected:
  GIntBig Count() const override;
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;

 private:
  void SetContent(OGRFeature& row, KESP_TAG kind, std::span<const std::byte> payload);
  void SetLongContent(OGRFeature& row, std::uint64_t position);
};

// The tags that link two features.
class LinkLayer final : public RecordLayer {
 public:
  static constexpr const char* kName = "links";
  static constexpr const char* kFromField = "from_feature";
  static constexpr const char* kToField = "to_feature";
  explicit LinkLayer(Dataset& dataset);

 protected:
  GIntBig Count() const override;
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
};

}  // namespace kesp::ogr
