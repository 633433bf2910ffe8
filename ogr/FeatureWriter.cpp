#include "ogr/FeatureWriter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include <cpl_error.h>
#include <cpl_json.h>

#include "ogr/Style.h"

namespace kesp::ogr {
namespace {

constexpr std::uint16_t kDefaultSymbol = 34;
constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD, for half a surrogate pair

std::string WhatDoesNotFit(const CKespRecord& record) {
  if (const auto* const attribute = dynamic_cast<const CKespAttribute*>(&record)) {
    return "the name or the value of " + attribute->AttributeName.ToUtf8();
  }
  return record.m_recordType == KESP_RECORD_FEATURE ? "the name of the feature" : "a value";
}

// An empty record of the same class and version.
template <class Record>
bool FitsAs(const CKespRecord& record) {
  Record blank;
  blank.m_recordVersion = record.m_recordVersion;
  return CKespDataFile::CanAmend(blank, record);
}

}  // namespace

void SetNumbers(const Records& records, std::uint32_t feature, std::uint64_t firstPoint) {
  for (const auto& record : records) {
    if (auto* const own = dynamic_cast<CKespFeature*>(record.get())) {
      own->FeatureNumber = feature;
    } else if (auto* const attribute = dynamic_cast<CKespAttribute*>(record.get())) {
      attribute->FeatureNumber = feature;
    } else if (auto* const end = dynamic_cast<CKespFeatureEnd*>(record.get())) {
      end->FeatureNumber = feature;
    } else if (auto* const point = dynamic_cast<CKespPoint*>(record.get())) {
      point->FeatureNumber = feature;
      if (point->PointNumber == 0) point->PointNumber = static_cast<std::uint32_t>(firstPoint++);
    }
  }
}

int FieldOf(const OGRFeature& feature, const std::vector<FieldTarget>& targets, Role role, int mainField) {
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (targets[i].role != role || targets[i].mainField != mainField) continue;
    if (feature.IsFieldSetAndNotNull(static_cast<int>(i))) return static_cast<int>(i);
  }
  return Schema::kNone;
}

bool FeatureWriter::Refuse(const std::string& why) const {
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: layer %s: %s", m_settings.layer.c_str(), why.c_str());
  return false;
}

bool FeatureWriter::Fits(const CKespRecord& record) {
  const bool fits = record.m_recordType == KESP_RECORD_FEATURE     ? FitsAs<CKespFeature>(record)
                    : record.m_recordType == KESP_RECORD_ATTRIBUTE ? FitsAs<CKespAttribute>(record)
                                                                   : FitsAs<CKespPoint>(record);
  if (fits) return true;
  const bool isNewest = m_editor.FileVersion() > 2;
  return Refuse(WhatDoesNotFit(record) + " can't be stored in a file of version " +
                std::to_string(m_editor.FileVersion()) + ": names have at most " + (isNewest ? "255" : "20") +
                " characters and texts " + (isNewest ? "255" : "40") +
                (m_editor.FileVersion() == 1 ? ", all of Latin-1" : ""));
}

std::optional<std::vector<Shape>> FeatureWriter::Shapes(const OGRFeature& feature) {
  std::string why;
  std::optional<std::vector<Shape>> shapes = ShapesOf(feature.GetGeometryRef(), m_settings.multi, why);
  if (shapes && m_settings.kind && shapes->front().kind != *m_settings.kind) {
    why = std::string("a ") + OGRGeometryTypeToName(feature.GetGeometryRef()->getGeometryType()) +
          " is of another kind than the features of this layer";
    shapes.reset();
  }
  if (!shapes) Refuse(why);
  return shapes;
}

bool FeatureWriter::PutNumber(const OGRFeature& feature, int field, std::uint32_t most, std::uint32_t& number) const {
  const GIntBig value = feature.GetFieldAsInteger64(field);
  if (value < 0 || value > GIntBig{most}) {
    return Refuse(std::string(feature.GetFieldDefnRef(field)->GetNameRef()) + " must be from 0 to " +
                  std::to_string(most));
  }
  number = static_cast<std::uint32_t>(value);
  return true;
}

bool FeatureWriter::PutOwn(CKespFeature& record, const OGRFeature& feature, const std::vector<FieldTarget>& targets,
                           Own wanted) {
  const int name = FieldOf(feature, targets, Role::kName);
  const int color = FieldOf(feature, targets, Role::kColor);
  const int symbol = FieldOf(feature, targets, Role::kSymbol);
  if (wanted.name) {
    const std::string text = name != Schema::kNone ? feature.GetFieldAsString(name) : m_settings.name;
    if (m_settings.isNameFixed && text != m_settings.name) {
      return Refuse("has features of one name, which is not " + text);
    }
    if (m_settings.isNameFixed && text.find(kReplacement) != std::string::npos) {
      return Refuse("has features of a name that is no Unicode text");
    }
    record.FeatureName = CString::FromUtf8(text);
  }
  if (wanted.color && color != Schema::kNone) {
    if (!PutNumber(feature, color, std::numeric_limits<std::uint32_t>::max(), record.Color)) return false;
  } else if (wanted.color && feature.GetStyleString() != nullptr) {
    record.Color = ColorIn(feature.GetStyleString(), m_settings.colors);
  }
  std::uint32_t number = record.SymbolIndex;
  if (wanted.symbol && symbol != Schema::kNone &&
      !PutNumber(feature, symbol, std::numeric_limits<std::uint16_t>::max(), number)) {
    return false;
  }
  record.SymbolIndex = static_cast<std::uint16_t>(number);
  return true;
}

std::unique_ptr<CKespPoint> FeatureWriter::NewPoint(const Vertex& vertex) const {
  auto point = std::make_unique<CKespPoint>();
  point->m_recordVersion = m_editor.RecordVersion(point->m_recordVersion);
  point->CoordX = vertex.x;
  point->CoordY = vertex.y;
  point->CoordZ = vertex.z;
  point->PointTime = vertex.time;
  return point;
}

std::unique_ptr<CKespAttribute> FeatureWriter::NewAttribute(const OGRFeature& feature, int field,
                                                            const std::vector<FieldTarget>& targets) {
  const FieldTarget& target = targets[static_cast<std::size_t>(field)];
  auto attribute = std::make_unique<CKespAttribute>();
  attribute->m_recordVersion = m_editor.RecordVersion(attribute->m_recordVersion);
  attribute->AttributeName = target.name;
  attribute->AttributeKind = target.kind;
  const int sub = FieldOf(feature, targets, Role::kSubValue, field);
  if (sub != Schema::kNone) attribute->SubValue = CString::FromUtf8(feature.GetFieldAsString(sub));
  std::string why;
  if (feature.IsFieldSetAndNotNull(field) && !PutValue(*attribute, feature, field, why)) {
    Refuse(std::string("field ") + feature.GetFieldDefnRef(field)->GetNameRef() + ": " + why);
    return nullptr;
  }
  return Fits(*attribute) ? std::move(attribute) : nullptr;
}

bool FeatureWriter::AddAttributes(const OGRFeature& feature, const std::vector<FieldTarget>& targets,
                                  Records& records) {
  for (int field = 0; field < static_cast<int>(targets.size()); ++field) {
    if (targets[static_cast<std::size_t>(field)].role != Role::kAttribute) continue;
    const bool hasSubValue = FieldOf(feature, targets, Role::kSubValue, field) != Schema::kNone;
    if (!feature.IsFieldSetAndNotNull(field) && !hasSubValue) continue;
    std::unique_ptr<CKespAttribute> attribute = NewAttribute(feature, field, targets);
    if (attribute == nullptr) return false;
    records.push_back(std::move(attribute));
  }
  const int further = FieldOf(feature, targets, Role::kFurther);
  return further == Schema::kNone || AddFurther(feature.GetFieldAsString(further), records);
}

// Their kinds are not in the field, so they become texts.
bool FeatureWriter::AddFurther(const char* json, Records& records) {
  CPLJSONDocument document;
  if (!document.LoadMemory(json) || document.GetRoot().GetType() != CPLJSONObject::Type::Array) {
    return Refuse("further_attributes is no JSON array");
  }
  for (const CPLJSONObject& object : document.GetRoot().ToArray()) {
    auto attribute = std::make_unique<CKespAttribute>();
    attribute->m_recordVersion = m_editor.RecordVersion(attribute->m_recordVersion);
    attribute->AttributeName = CString::FromUtf8(object.GetString("name"));
    attribute->TextValue = CString::FromUtf8(object.GetString("value"));
    attribute->SubValue = CString::FromUtf8(object.GetString("sub"));
    if (!attribute->SubValue.IsEmpty()) attribute->AttributeKind = KESP_ATTRIBUTE_MENU;
    if (!Fits(*attribute)) return false;
    records.push_back(std::move(attribute));
  }
  return true;
}

void FeatureWriter::Mark(const OGRFeature& feature, const std::vector<FieldTarget>& targets, const Records& records) {
  const int deleted = FieldOf(feature, targets, Role::kDeleted);
  const int edited = FieldOf(feature, targets, Role::kEdited);
  const bool isDeleted = deleted != Schema::kNone && feature.GetFieldAsInteger(deleted) != 0;
  const bool isEdited = edited != Schema::kNone && feature.GetFieldAsInteger(edited) != 0;
  if (isEdited) records.front()->SetSourceFlag(KESP_SRC_MODIFIED);
  if (isDeleted) {
    for (const auto& record : records) record->SetDelete();
  }
}

bool FeatureWriter::AddRecords(const Shape& shape, const OGRFeature& feature, const std::vector<FieldTarget>& targets,
                               Records& records) {
  auto own = std::make_unique<CKespFeature>();
  own->m_recordVersion = m_editor.RecordVersion(own->m_recordVersion);
  own->FeatureType = shape.kind;
  own->SymbolIndex = kDefaultSymbol;
  if (!PutOwn(*own, feature, targets, Own()) || !Fits(*own)) return false;
  records.push_back(std::move(own));
  if (!AddAttributes(feature, targets, records)) return false;
  for (const Vertex& vertex : shape.vertices) records.push_back(NewPoint(vertex));
  records.push_back(std::make_unique<CKespFeatureEnd>());
  Mark(feature, targets, records);
  return true;
}

bool FeatureWriter::ChooseNumber(const OGRFeature& feature, const std::vector<FieldTarget>& targets,
                                 std::uint64_t& number) {
  const int field = FieldOf(feature, targets, Role::kNumber);
  GIntBig wanted = m_settings.takesFids ? feature.GetFID() : OGRNullFID;
  if (wanted == OGRNullFID && field != Schema::kNone) wanted = feature.GetFieldAsInteger64(field);
  number = wanted != OGRNullFID ? static_cast<std::uint64_t>(wanted) : m_editor.NextFeature();
  if (wanted == OGRNullFID) return true;
  if (wanted < 0 || number > std::numeric_limits<std::uint32_t>::max()) {
    return Refuse("the FID " + std::to_string(wanted) + " is no feature number, which has 32 bits");
  }
  return m_editor.IsFree(static_cast<std::uint32_t>(number)) ||
         Refuse("the number " + std::to_string(number) + " is that of another feature");
}

bool FeatureWriter::Write(OGRFeature& feature, const std::vector<FieldTarget>& targets) {
  std::optional<std::vector<Shape>> shapes;
  if (feature.GetGeometryRef() == nullptr && m_settings.kind) {
    shapes.emplace(1).front().kind = *m_settings.kind;  // a feature without points
  } else {
    shapes = Shapes(feature);
  }
  std::uint64_t first = 0;
  if (!shapes || !ChooseNumber(feature, targets, first)) return false;
  Records all;
  std::uint64_t number = first;
  std::uint64_t point = m_editor.NextPoint();
  for (Shape& shape : *shapes) {
    OpenRing(shape);
    Records records;
    if (!AddRecords(shape, feature, targets, records)) return false;
    const std::uint64_t afterPoints = point + shape.vertices.size();
    if (std::max(number, afterPoints - 1) > std::numeric_limits<std::uint32_t>::max()) {
      return Refuse("no numbers of 32 bits are left");
    }
    SetNumbers(records, static_cast<std::uint32_t>(number), point);
    std::move(records.begin(), records.end(), std::back_inserter(all));
    point = afterPoints;
    number = std::max(m_editor.NextFeature(), number + 1);
  }
  if (!m_editor.Append(std::move(all))) return false;
  feature.SetFID(static_cast<GIntBig>(first));
  return true;
}

}  // namespace kesp::ogr
