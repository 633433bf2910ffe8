#include "ogr/RecordLayer.h"

#include <utility>

#include "ogr/Dataset.h"
#include "ogr/Flags.h"

namespace kesp::ogr {

RecordLayer::RecordLayer(Dataset& dataset, const std::string& name, OGRwkbGeometryType geometryType)
    : Layer(dataset, name, geometryType), m_cursor(dataset.File()), m_random(dataset.File()) {}

int RecordLayer::AddField(const char* name, OGRFieldType type, OGRFieldSubType subtype) const {
  OGRFieldDefn field(name, type);
  field.SetSubType(subtype);
  m_definition->AddFieldDefn(&field);
  return m_definition->GetFieldCount() - 1;
}

void RecordLayer::AddFlagFields() const {
  AddField("deleted", OFTInteger, OFSTBoolean);
  AddField("edited", OFTInteger, OFSTBoolean);
}

void RecordLayer::SetFlags(OGRFeature& row, std::uint32_t flags) const {
  const int edited = m_definition->GetFieldCount() - 1;
  row.SetField(edited - 1, (flags & KESP_FLAG_DELETED) != 0 ? 1 : 0);
  row.SetField(edited, (flags & kEditedFlags) != 0 ? 1 : 0);
}

void RecordLayer::ResetReading() {
  m_cursor.GoToFirst();
  m_run = {};
}

bool RecordLayer::Skip(const RecordView& feature) {
  const std::uint64_t position = feature.Position();
  const std::uint64_t next = SkipFrom(position);
  if (next == position) return false;
  m_cursor.GoTo(next);
  return true;
}

OGRFeature* RecordLayer::GetNextFeature() {
  while (const RecordView* const record = m_cursor.Read()) {
    if (record->Type() == KESP_RECORD_FEATURE && Skip(*record)) continue;
    m_run.See(*record);
    if (!IsRow(*record, m_run)) continue;
    if (m_poFilterGeom != nullptr && IsOutside(*record)) continue;
    std::unique_ptr<OGRFeature> row = MakeRow(*record);
    if (PassesFilters(*row)) return WithoutIgnored(std::move(row)).release();
  }
  ReportEnd(m_cursor.End());
  return nullptr;
}

bool RecordLayer::PassesFilters(OGRFeature& row) {
  if (m_poFilterGeom != nullptr && Bounds() != nullptr && FilterGeometry(row.GetGeometryRef()) == 0) return false;
  return m_poAttrQuery == nullptr || m_poAttrQuery->Evaluate(&row) != 0;
}

// Filters may need what is ignored, and most fields cost less than asking whether they are wanted.
std::unique_ptr<OGRFeature> RecordLayer::WithoutIgnored(std::unique_ptr<OGRFeature> row) const {
  for (int field = 0; field < m_definition->GetFieldCount(); ++field) {
    if (!IsWanted(field)) row->UnsetField(field);
  }
  if (m_definition->IsGeometryIgnored() != 0) row->SetGeometryDirectly(nullptr);
  return row;
}

// A position is only good if a walk comes by there: anything may be in the body of a record.
OGRFeature* RecordLayer::GetFeature(GIntBig fid) {
  if (fid < 0) return nullptr;
  const auto wanted = static_cast<std::uint64_t>(fid);
  const Directory& directory = m_dataset.Contents().directory;
  if (const auto entry = directory.At(wanted)) {
    m_random.GoTo(directory.Entries()[*entry].position);
  } else {
    m_random.GoToFirst();
  }
  Run run;
  while (const RecordView* const record = m_random.Read()) {
    if (record->Position() > wanted) return nullptr;
    run.See(*record);
    if (record->Position() != wanted) continue;
    return IsRow(*record, run) ? WithoutIgnored(MakeRow(*record)).release() : nullptr;
  }
  return nullptr;
}

}  // namespace kesp::ogr
