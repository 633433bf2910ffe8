// The layers without geometry: `notes`, `tags` and `links`.
#pragma once
#include "ogr/RecordLayer.h"

namespace kesp::ogr {

class NoteLayer final : public RecordLayer {
 public:
  static constexpr const char* kName = "notes";
  explicit NoteLayer(Dataset& dataset);

 protected:
  GIntBig Count() const override;
  bool IsRow(const RecordView& record, const Run& run) const override;
  std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) override;
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
