#include "ogr/RecordLayer.h"

#include <utility>

#include "ogr/Dataset.h"
#include "ogr/FieldValues.h"

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

void RecordLayer::ResetReading() {
  m_cursor.GoToFirst();
  m_run = {};
  m_hasBegun = false;
}

bool RecordLayer::Skip(const RecordView& feature) {
  const std::uint64_t position = feature.Position();
  const std::uint64_t next = SkipFrom(position);
  if (next == position) return false;
  m_cursor.GoTo(next);
  return true;
}

const RecordView* RecordLayer::NextRow() {
  if (!std::exchange(m_hasBegun, true)) {
    m_dataset.CatchUp();
    m_readingEnd = m_dataset.File().Length();
  }
  while (const RecordView* const record = m_cursor.Read()) {
    if (record->Position() >= m_readingEnd) return nullptr;  // appended by a program that changes what it reads
    if (record->Type() == KESP_RECORD_FEATURE && Skip(*record)) continue;
    m_run.See(*record);
    if (!IsRow(*record, m_run)) continue;
    if (m_poFilterGeom == nullptr || !IsOutside(*record)) return record;
  }
  ReportEnd(m_cursor.End());
  return nullptr;
}

// Most fields of a row cost less than asking whether they are wanted.
OGRFeature* RecordLayer::GetNextFeature() {
  while (const RecordView* const record = NextRow()) {
    std::unique_ptr<OGRFeature> row = MakeRow(*record);
    if (!PassesFilters(*row)) continue;
    UnsetIgnored(*row);
    return row.release();
  }
  return nullptr;
}

bool RecordLayer::PassesFilters(OGRFeature& row) {
  if (m_poFilterGeom != nullptr && Bounds() != nullptr && FilterGeometry(row.GetGeometryRef()) == 0) return false;
  return m_poAttrQuery == nullptr || m_poAttrQuery->Evaluate(&row) != 0;
}

// A position is only good if a walk comes by there: anything may be in the body of a record.
OGRFeature* RecordLayer::GetFeature(GIntBig fid) {
  m_dataset.CatchUp();
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
    if (!IsRow(*record, run)) return nullptr;
    std::unique_ptr<OGRFeature> row = MakeRow(*record);
    UnsetIgnored(*row);
    return row.release();
  }
  return nullptr;
}

bool RecordLayer::ReadForChange(GIntBig fid, Amendments& amendments) {
  Amendment amendment;
  for (auto* const record : {&amendment.before, &amendment.after}) {
    *record = m_random.ReadObject(static_cast<std::uint64_t>(fid));
    if (*record == nullptr) return false;
  }
  amendments.push_back(std::move(amendment));
  return true;
}

void RecordLayer::Mark(CKespRecord& record, bool isDeleted) {
  if (isDeleted == record.IsDeleted()) return;
  if (!isDeleted) return record.ClearDelete();
  record.SetDelete();
  record.SetSourceFlag(KESP_SRC_DELETED);
}

OGRErr RecordLayer::AcceptOwnField(const OGRFieldDefn& field) const {
  if (m_definition->GetFieldIndex(field.GetNameRef()) >= 0) return OGRERR_NONE;
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: %s can't have a field %s", GetDescription(), field.GetNameRef());
  return OGRERR_FAILURE;
}

OGRErr RecordLayer::Add(std::unique_ptr<CKespRecord> record, OGRFeature& row) const {
  Editor& editor = *m_dataset.Editing();
  const auto isMarked = [&row](int field) {
    return row.IsFieldSetAndNotNull(field) && row.GetFieldAsInteger(field) != 0;
  };
  const int edited = m_definition->GetFieldCount() - 1;
  if (isMarked(edited)) record->SetSourceFlag(KESP_SRC_MODIFIED);
  if (isMarked(edited - 1)) record->SetDelete();
  row.SetFID(static_cast<GIntBig>(editor.NextPosition()));
  Records records;
  records.push_back(std::move(record));
  return editor.Append(std::move(records)) ? OGRERR_NONE : OGRERR_FAILURE;
}

OGRErr RecordLayer::ISetFeature(OGRFeature* feature) {
  if (m_dataset.Editing() == nullptr || !CanChange()) return OGRERR_UNSUPPORTED_OPERATION;
  const std::unique_ptr<OGRFeature> before(GetFeature(feature->GetFID()));
  Amendments amendments;
  if (before == nullptr) return OGRERR_NON_EXISTING_FEATURE;
  if (!ReadForChange(feature->GetFID(), amendments)) return OGRERR_FAILURE;
  const int deleted = m_definition->GetFieldCount() - 2;
  bool isSame = m_definition->IsGeometryIgnored() != 0 || HasSameGeometry(*before, *feature);
  for (int field = 0; field <= deleted; ++field) isSame = isSame && HasSameValue(*before, *feature, field);
  if (isSame) return OGRERR_NONE;
  CKespRecord& record = *amendments.front().after;
  record.SetSourceFlag(KESP_SRC_MODIFIED);
  if (!Change(record, *before, *feature)) return OGRERR_FAILURE;
  const bool isMarked = CanDelete() && !HasSameValue(*before, *feature, deleted);
  if (isMarked) Mark(record, feature->GetFieldAsInteger(deleted) != 0);
  if (!m_dataset.Editing()->Amend(amendments)) return OGRERR_FAILURE;
  if (isMarked && !m_dataset.File().IncludesDeleted()) CountDeletion(m_dataset.Editable());
  return OGRERR_NONE;
}

OGRErr RecordLayer::DeleteFeature(GIntBig fid) {
  if (m_dataset.Editing() == nullptr || !CanDelete()) return OGRERR_UNSUPPORTED_OPERATION;
  const std::unique_ptr<OGRFeature> before(GetFeature(fid));
  Amendments amendments;
  if (before == nullptr) return OGRERR_NON_EXISTING_FEATURE;
  if (!ReadForChange(fid, amendments)) return OGRERR_FAILURE;
  Mark(*amendments.front().after, true);
  if (!m_dataset.Editing()->Amend(amendments)) return OGRERR_FAILURE;
  AfterDeletion(*amendments.front().after);
  if (!m_dataset.File().IncludesDeleted()) CountDeletion(m_dataset.Editable());
  return OGRERR_NONE;
}

}  // namespace kesp::ogr
