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

constexpr GIntBig kMostNumber = 0xFFFFFFFF;

bool Refuse(const std::string& why) {
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: %s", why.c_str());
  return false;
}

std::optional<KESP_TAG> KindIn(const OGRFeature& row) {
  if (!row.IsFieldSetAndNotNull(kTagKind)) return TagKindOf(row.GetFieldAsString(kTagKindName));
  const GIntBig kind = row.GetFieldAsInteger64(kTagKind);
  if (kind < 0 || kind > kMostNumber) return std::nullopt;
  return KESP_TAG{static_cast<std::uint32_t>(kind)};
}

bool HasSameFields(const OGRFeature& a, const OGRFeature& b, int last) {
  for (int field = 0; field <= last; ++field) {
    if (!HasSameValue(a, b, field)) return false;
  }
  return true;
}

std::unique_ptr<OGRFeature> NewRow(OGRFeatureDefn* definition, const RecordView& record) {
  auto row = std::make_unique<OGRFeature>(definition);
  row->SetFID(static_cast<GIntBig>(record.Position()));
  return row;
}

}  // namespace

OGRErr TableLayer::CreateField(OGRFieldDefn* field, int /*approximates*/) { return AcceptOwnField(*field); }

std::unique_ptr<CKespTag> TableLayer::NewTag() const {
  auto tag = std::make_unique<CKespTag>();
  tag->m_recordVersion = m_dataset.Editing()->RecordVersion(tag->m_recordVersion);
  return tag;
}

NoteLayer::NoteLayer(Dataset& dataset) : TableLayer(dataset, kName) {
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

OGRErr NoteLayer::Create(OGRFeature& feature) {
  const Editor& editor = *m_dataset.Editing();
  CKespNote blank;
  blank.m_recordVersion = editor.RecordVersion(blank.m_recordVersion);
  auto note = std::make_unique<CKespNote>(blank);
  note->NoteText = CString::FromUtf8(feature.GetFieldAsString(kNoteText));
  if (!CKespDataFile::CanAmend(blank, *note)) {
    CPLError(CE_Failure, CPLE_NotSupported, "Kesp: a note has at most 255 characters%s",
             editor.FileVersion() == 1 ? ", all of Latin-1" : "");
    return OGRERR_FAILURE;
  }
  return Add(std::move(note), feature);
}

bool NoteLayer::Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) {
  auto& note = static_cast<CKespNote&>(record);
  if (!HasSameValue(before, now, kNoteText)) note.NoteText = CString::FromUtf8(now.GetFieldAsString(kNoteText));
  return true;
}

TagLayer::TagLayer(Dataset& dataset) : TableLayer(dataset, kName) {
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

// The kind decides what the value can be. Without a value the bytes are taken as they are.
bool TagLayer::Put(const OGRFeature& row, CKespTag& tag) {
  const std::optional<KESP_TAG> kind = KindIn(row);
  if (!kind) return Refuse("a tag needs a kind, or the name of one");
  const CString name = CString::FromUtf8(row.GetFieldAsString(kTagName));
  const std::string value = row.GetFieldAsString(kTagValue);
  const bool hasValue = !value.empty() || (*kind == KESP_TAG_STRING && row.IsFieldSetAndNotNull(kTagValue));
  if (!hasValue) {
    int size = 0;
    const GByte* const data = row.IsFieldSetAndNotNull(kTagData) ? row.GetFieldAsBinary(kTagData, &size) : nullptr;
    return tag.Set(*kind, name, data, static_cast<unsigned long>(size));
  }
  const auto payload = TagPayloadOf(*kind, value);
  if (!payload)
    return Refuse(std::string("a tag of the kind ") + TagKindName(*kind) + " can't have the value " + value);
  return tag.Set(*kind, name, payload->data(), payload->size());
}

OGRErr TagLayer::Create(OGRFeature& feature) {
  std::unique_ptr<CKespTag> tag = NewTag();
  return Put(feature, *tag) ? Add(std::move(tag), feature) : OGRERR_FAILURE;
}

bool TagLayer::Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) {
  return HasSameFields(before, now, kTagData) || Put(now, static_cast<CKespTag&>(record));
}

LinkLayer::LinkLayer(Dataset& dataset) : TableLayer(dataset, kName) {
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

bool LinkLayer::Put(const OGRFeature& row, CKespTag& tag) const {
  std::vector<std::byte> payload;
  for (int field = 0; field <= kSpare; ++field) {
    const GIntBig number = row.GetFieldAsInteger64(field);
    const bool isMissing = (field == kFrom || field == kTo) && !row.IsFieldSetAndNotNull(field);
    if (isMissing || number < 0 || number > kMostNumber) {
      return Refuse(std::string(m_definition->GetFieldDefn(field)->GetNameRef()) + " of a link must be from 0 to " +
                    std::to_string(kMostNumber));
    }
    PutWord(static_cast<std::uint32_t>(number), payload);
  }
  return tag.Set(KESP_TAG_FEATURE_LINK, PartsOf(tag).name.value_or(CString()), payload.data(), payload.size());
}

OGRErr LinkLayer::Create(OGRFeature& feature) {
  std::unique_ptr<CKespTag> tag = NewTag();
  return Put(feature, *tag) ? Add(std::move(tag), feature) : OGRERR_FAILURE;
}

bool LinkLayer::Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) {
  return HasSameFields(before, now, kSpare) || Put(now, static_cast<CKespTag&>(record));
}

}  // namespace kesp::ogr
