// A layer of point, line or area features. The FID is the feature's number (see Directory::FidOf).
//
// Editing.cpp has what changes features.
#pragma once
#include <memory>
#include <set>

#include "ogr/FeatureBuilder.h"
#include "ogr/FeatureRecords.h"
#include "ogr/FeatureWriter.h"
#include "ogr/Layer.h"
#include "ogr/NameFilter.h"

namespace kesp::ogr {

class Changes;

class FeatureLayer final : public Layer {
 public:
  FeatureLayer(Dataset& dataset, const std::string& name, const LayerPlan& plan);

  const char* GetFIDColumn() override { return kFidColumn; }
  void ResetReading() override;
  OGRFeature* GetNextFeature() override;
  OGRFeature* GetFeature(GIntBig fid) override;
  OGRErr SetNextByIndex(GIntBig index) override;
  OGRErr SetAttributeFilter(const char* query) override;
  int TestCapability(const char* capability) override;
  OGRErr CreateField(OGRFieldDefn* field, int approximates) override;
  OGRErr DeleteFeature(GIntBig fid) override;

 protected:
  OGRErr Create(OGRFeature& feature) override;
  OGRErr ISetFeature(OGRFeature* feature) override;
  OGRErr IUpsertFeature(OGRFeature* feature) override;
  // A field that a program creates may have a type that columns here don't have.
  bool CanMakeColumns() const override { return !m_hasCreatedFields; }
  bool AddNextRow(ArrowRows& rows) override;
  bool CanAdd() const override { return true; }
  bool CanChange() const override { return true; }
  bool CanDelete() const override { return true; }
  GIntBig Count() const override { return static_cast<GIntBig>(m_plan.features); }
  const Box* Bounds() const override { return &m_plan.box; }
  bool IsIndexed() const override { return true; }

 private:
  bool MayHaveMine(const Entry& entry, bool filtered) const;
  bool EnterNextEntry();
  const RecordView* NextRecord();
  // Of this layer. Null at the end.
  const RecordView* NextOfMine();
  bool IsMine(const RecordView& record) const;
  // Whether it was there when the reading began, at this place or at another, or has been read already.
  bool IsOfReading(const RecordView& record);
  std::unique_ptr<OGRFeature> Filtered(const RecordView& record);
  std::unique_ptr<OGRFeature> Finish(std::unique_ptr<OGRFeature> feature);
  // Leaves the cursor after the record. Null if the feature is not in this layer.
  const RecordView* Find(GIntBig fid);
  void MakeWriter();
  bool Amend(std::uint64_t position, const Changes& changes);
  bool Replace(const FeatureRecords& old, Changes& changes);
  bool Mark(GIntBig fid, Marking marking);
  bool MarkRecords(const FeatureRecords& records, Marking marking);

  const Survey& m_survey;
  const LayerPlan& m_plan;
  std::optional<FeatureWriter> m_writer;  // if the data set is open for changes
  std::vector<FieldTarget> m_targets;     // of the fields
  Schema m_schema;
  NameFilter m_nameFilter;
  FeatureBuilder m_builder;
  Cursor m_cursor, m_random;
  std::size_t m_nextEntry = 0;
  bool m_hasBegun = false;
  bool m_hasCreatedFields = false;
  std::uint64_t m_entryEnd = 0;  // of the entry before
  std::uint32_t m_left = 0;      // features of the entry before, still to be read
  // A reading gives each feature once that was there when it began, so that a program may change what it reads.
  std::uint64_t m_readingEnd = 0;   // the length of the file when it began
  std::uint64_t m_lastRead = 0;     // position of the feature read last
  std::set<std::uint32_t> m_moved;  // features still to be read that have been appended anew
};

}  // namespace kesp::ogr
