// The layers without geometry: `notes`, `tags` and `links`.
#pragma once
#include "kesp/records/KespTag.h"
#include "ogr/RecordLayer.h"

namespace kesp::ogr {

// What the three have in common.
class TableLayer : public RecordLayer {
 public:
  OGRErr CreateField(OGRFieldDefn* field, int approximates) override;

 protected:
  TableLayer(Dataset& dataset, const char* name) : RecordLayer(dataset, name, wkbNone) {}
  // An empty tag of the version that tags have in the file.
  std::unique_ptr<CKespTag> NewTag() const;
  bool CanAdd() const override { return true; }
  bool CanChange() const override { return true; }
  bool CanDelete() const override { return true; }
};

class NoteLayer final : public TableLayer {
 public:
  static constexpr const char* kName = "notes";
  explicit NoteLayer(Dataset& dataset);

 protected:
  GIntBig Count() const override;
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
  OGRErr Create(OGRFeature& feature) override;
  bool Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) override;
  void CountDeletion(Survey& survey) const override { --survey.notes; }
};

// All tags but those that are in LinkLayer.
class TagLayer final : public TableLayer {
 public:
  static constexpr const char* kName = "tags";
  explicit TagLayer(Dataset& dataset);

 protected:
  GIntBig Count() const override;
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
  OGRErr Create(OGRFeature& feature) override;
  bool Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) override;
  void CountDeletion(Survey& survey) const override { --survey.tags; }

 private:
  static bool Put(const OGRFeature& row, CKespTag& tag);
  void SetContent(OGRFeature& row, KESP_TAG kind, std::span<const std::byte> payload);
  void SetLongContent(OGRFeature& row, std::uint64_t position);
};

// The tags that link two features.
class LinkLayer final : public TableLayer {
 public:
  static constexpr const char* kName = "links";
  static constexpr const char* kFromField = "from_feature";
  static constexpr const char* kToField = "to_feature";
  explicit LinkLayer(Dataset& dataset);

 protected:
  GIntBig Count() const override;
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
  OGRErr Create(OGRFeature& feature) override;
  bool Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) override;
  void CountDeletion(Survey& survey) const override { --survey.links; }

 private:
  bool Put(const OGRFeature& row, CKespTag& tag) const;
};

}  // namespace kesp::ogr
