#include "ogr/TableLayers.h"

#include <algorithm>
#include <memory>

#include "kesp/records/KespNote.h"
#include "kesp/records/KespTag.h"
#include "ogr/Dataset.h"
#include "ogr/FieldValues.h"
#include "ogr/Tags.h"
#include "ogr/Utf8Text.h"
#include "ogr/Values.h"

namespace kesp::ogr {
namespace {

enum NoteField : int { kNoteText };
enum TagField : int { kTagKind, kTagKindName, kTagName, kTagValue, kTagData };
enum LinkField : int { kFrom, kFromQualifier, kTo, kToQualifier, kLinkValue, kSpare };

std::unique_ptr<OGRFeature> NewRow(OGRFeatureDefn* definition, const RecordView& record) {
  auto row = std::make_unique<OGRFeature>(definition);
  row->SetFID(static_cast<GIntBig>(record.Position()));
  return row;
}

}  // namespace

NoteLayer::NoteLayer(Dataset& dataset) : RecordLayer(dataset, kName, wkbNone) {
  AddField("text", OFTString);
  AddFlagFields();
}

GIntBig NoteLayer::Count() const {
  const Survey& survey = m_dataset.Contents();
  return static_cast<GIntBig>(survey.notes - survey.consumedNotes.size());
}

bool NoteLayer::IsRow(const RecordView& record, const Run& /*run*/) const {
  if (record.Type() != KESP_RECORD_NOTE) return false;
  const auto& consumed = m_dataset.Contents().consumedNotes;
  return std::find(consumed.begin(), consumed.end(), record.Position()) == consumed.end();
}

std::unique_ptr<OGRFeature> NoteLayer::MakeRow(const RecordView& record) {
  std::unique_ptr<OGRFeature> row = NewRow(m_definition, record);
  SetText(*row, kNoteText, record.AsNote().NoteText(), m_buffer);
  SetFlags(*row, record.Flags());
  return row;
}

OGRErr NoteLayer::CreateField(OGRFieldDefn* field, int /*approximates*/) {
  if (m_definition->GetFieldIndex(field->GetNameRef()) >= 0) return OGRERR_NONE;
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: notes can't have a field %s", field->GetNameRef());
  return OGRERR_FAILURE;
}

OGRErr NoteLayer::ICreateFeature(OGRFeature* feature) {
  Editor* const editor = m_dataset.Editing();
  if (editor == nullptr) return OGRERR_UNSUPPORTED_OPERATION;
  CKespNote blank;
  blank.m_recordVersion = editor->RecordVersion(blank.m_recordVersion);
  auto note = std::make_unique<CKespNote>(blank);
  note->NoteText = CString::FromUtf8(feature->GetFieldAsString(kNoteText));
  if (!CKespDataFile::CanAmend(blank, *note)) {
    CPLError(CE_Failure, CPLE_NotSupported, "Kesp: a note has at most 255 characters%s",
             editor->FileVersion() == 1 ? ", all of Latin-1" : "");
    return OGRERR_FAILURE;
  }
  const int edited = m_definition->GetFieldCount() - 1;
  if (feature->IsFieldSetAndNotNull(edited) && feature->GetFieldAsInteger(edited) != 0) {
    note->SetSourceFlag(KESP_SRC_MODIFIED);
  }
  if (feature->IsFieldSetAndNotNull(edited - 1) && feature->GetFieldAsInteger(edited - 1) != 0) note->SetDelete();
  Records records;
  records.push_back(std::move(note));
  return editor->Append(std::move(records)) ? OGRERR_NONE : OGRERR_FAILURE;
}

bool NoteLayer::Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) {
  auto& note = static_cast<CKespNote&>(record);
  if (!HasSameValue(before, now, kNoteText)) note.NoteText = CString::FromUtf8(now.GetFieldAsString(kNoteText));
  return true;
}

TagLayer::TagLayer(Dataset& dataset) : RecordLayer(dataset, kName, wkbNone) {
  AddField("kind", OFTInteger64);
  AddField("kind_name", OFTString);
  AddField("name", OFTString);
  AddField("value", OFTString);
  AddField("data", OFTBinary);
  AddFlagFields();
}

GIntBig TagLayer::Count() const { return static_cast<GIntBig>(m_dataset.Contents().tags); }

bool TagLayer::IsRow(const RecordView& record, const Run& /*run*/) const {
  return record.Type() == KESP_RECORD_TAG && !LinkOf(record.AsTag());
}

std::unique_ptr<OGRFeature> TagLayer::MakeRow(const RecordView& record) {
  std::unique_ptr<OGRFeature> row = NewRow(m_definition, record);
  const TagView tag = record.AsTag();
  row->SetField(kTagKind, static_cast<GIntBig>(tag.Type()));
  row->SetField(kTagKindName, TagKindName(tag.Type()));
  SetFlags(*row, record.Flags());
  if (!tag.IsWhole()) {
    SetLongContent(*row, record.Position());
    return row;
  }
  if (const auto name = tag.Name()) SetText(*row, kTagName, *name, m_buffer);
  if (const auto payload = tag.Payload()) SetContent(*row, tag.Type(), *payload);
  return row;
}

void TagLayer::SetContent(OGRFeature& row, KESP_TAG kind, std::span<const std::byte> payload) {
  if (const auto text = TagValueText(kind, payload)) {
    row.SetField(kTagValue, text->c_str());
  } else if (IsWanted(kTagData)) {
    row.SetField(kTagData, static_cast<int>(payload.size()), payload.data());
  }
}

// Of a long block a view has only the first part.
void TagLayer::SetLongContent(OGRFeature& row, std::uint64_t position) {
  if (!IsWanted(kTagName) && !IsWanted(kTagValue) && !IsWanted(kTagData)) return;
  Cursor cursor(m_dataset.File());
  const std::unique_ptr<CKespRecord> record = cursor.ReadObject(position);
  const auto* const tag = dynamic_cast<const CKespTag*>(record.get());
  if (tag == nullptr) return;
  const TagParts parts = PartsOf(*tag);
  if (parts.name) {
    const auto* const units = reinterpret_cast<const std::byte*>(parts.name->GetString());
    SetText(row, kTagName, TextView(units, parts.name->Size(), true), m_buffer);
  }
  if (parts.payload) SetContent(row, tag->GetType(), *parts.payload);
}

LinkLayer::LinkLayer(Dataset& dataset) : RecordLayer(dataset, kName, wkbNone) {
  for (const char* const name : {kFromField, "from_qualifier", kToField, "to_qualifier", "value", "spare"}) {
    AddField(name, OFTInteger64);
  }
  AddFlagFields();
}

GIntBig LinkLayer::Count() const { return static_cast<GIntBig>(m_dataset.Contents().links); }

bool LinkLayer::IsRow(const RecordView& record, const Run& /*run*/) const {
  return record.Type() == KESP_RECORD_TAG && LinkOf(record.AsTag());
}

std::unique_ptr<OGRFeature> LinkLayer::MakeRow(const RecordView& record) {
  std::unique_ptr<OGRFeature> row = NewRow(m_definition, record);
  if (const std::optional<LinkValues> link = LinkOf(record.AsTag())) {
    row->SetField(kFrom, static_cast<GIntBig>(link->fromFeature));
    row->SetField(kFromQualifier, static_cast<GIntBig>(link->fromQualifier));
    row->SetField(kTo, static_cast<GIntBig>(link->toFeature));
    row->SetField(kToQualifier, static_cast<GIntBig>(link->toQualifier));
    row->SetField(kLinkValue, static_cast<GIntBig>(link->value));
    row->SetField(kSpare, static_cast<GIntBig>(link->spare));
  }
  SetFlags(*row, record.Flags());
  return row;
}

}  // namespace kesp::ogr
