// A layer whose rows are single records: vertices, notes, tags, links. The FID is the offset of the record in the file.
#pragma once
#include <memory>

#include "ogr/Box.h"
#include "ogr/Editor.h"
#include "ogr/Flags.h"
#include "ogr/Layer.h"
#include "ogr/Run.h"

namespace kesp::ogr {

class RecordLayer : public Layer {
 public:
  void ResetReading() override;
  OGRFeature* GetNextFeature() override;
  OGRFeature* GetFeature(GIntBig fid) override;
  OGRErr DeleteFeature(GIntBig fid) override;

 protected:
  OGRErr ISetFeature(OGRFeature* feature) override;
  RecordLayer(Dataset& dataset, const std::string& name, OGRwkbGeometryType geometryType);

  // Whether the record is a row. `run` is the feature whose records come by.
  virtual bool IsRow(const RecordView& record, const Run& run) const = 0;
  // The row, with its FID. `record` is not valid afterwards.
  virtual std::unique_ptr<OGRFeature> MakeRow(const RecordView& record) = 0;
  // Whether the row can be outside the spatial filter and need not be made.
  virtual bool IsOutside(const RecordView& /*record*/) const { return false; }
  // Puts the values of a row that are not what they were into the record. False, with an error, if it can't have them.
  virtual bool Change(CKespRecord& /*record*/, const OGRFeature& /*before*/, const OGRFeature& /*now*/) {
    return false;
  }
  virtual void CountDeletion(Survey& /*survey*/) const {}
  virtual void AfterDeletion(const CKespRecord& /*record*/) {}
  // Where to go on, when the walk is at a feature.
  virtual std::uint64_t SkipFrom(std::uint64_t position) { return position; }
  bool IsWanted(int field) const {
    return m_poAttrQuery != nullptr || m_definition->GetFieldDefn(field)->IsIgnored() == FALSE;
  }
  // The record of the next row, but for the filters that need the row itself. Null at the end.
  const RecordView* NextRow();
  // Sets the fields for the flags, which come last. The row is an OGRFeature or ArrowRows.
  template <class Row>
  void SetFlags(Row& row, std::uint32_t flags) const {
    const int edited = m_definition->GetFieldCount() - 1;
    row.SetField(edited - 1, (flags & KESP_FLAG_DELETED) != 0 ? 1 : 0);
    row.SetField(edited, (flags & kEditedFlags) != 0 ? 1 : 0);
  }
  void AddFlagFields() const;
  // Only a field that is there already can be created, as other programs copy fields.
  OGRErr AcceptOwnField(const OGRFieldDefn& field) const;
  static void Mark(CKespRecord& record, bool isDeleted);
  // Marks a new record by the fields for flags, and appends it. Sets the FID.
  OGRErr Add(std::unique_ptr<CKespRecord> record, OGRFeature& row) const;
  int AddField(const char* name, OGRFieldType type, OGRFieldSubType subtype = OFSTNone) const;

  std::string m_buffer;

 private:
  bool PassesFilters(OGRFeature& row);
  bool Skip(const RecordView& feature);
  // Reads the record twice, for an Amendment.
  bool ReadForChange(GIntBig fid, Amendments& amendments);

  Cursor m_cursor, m_random;
  Run m_run;
  bool m_hasBegun = false;
  std::uint64_t m_readingEnd = 0;  // the length of the file when the reading began
};

}  // namespace kesp::ogr
