// Changes of a store: what fits, what is appended, and what is amended in place.
#include <algorithm>

#include "kesp/format/RecordView.h"
#include "python/src/Errors.h"
#include "python/src/Store.h"

namespace kesp::python {
namespace {

constexpr std::size_t kShortText = 20, kOldValue = 40, kLongText = 255;  // units

constexpr std::uint16_t kNewestFeature = 3, kNewestPoint = 2, kNewestAttribute = 3, kNewestNote = 2, kNewestTag = 2;

void Apply(const FeatureValue& value, CKespFeature& record) {
  record.FeatureName = value.name;
  record.FeatureType = value.type;
  record.Color = value.color;
  record.SymbolIndex = value.symbol;
}
void Apply(const PointValue& value, CKespPoint& record) {
  record.CoordX = value.x;
  record.CoordY = value.y;
  record.CoordZ = value.z;
  record.PointTime = value.time;
  record.PointText = value.text;
  record.SignalStatus = static_cast<KESP_SIGNAL_STATUS>(value.status);
  record.GpsValue = value.gpsValue;
  record.GpsNumber = value.gpsNumber;
}
// The name of an attribute that is there stays as it is spelt.
void Apply(const AttributeValue& value, CKespAttribute& record) {
  record.AttributeKind = value.kind;
  record.TextValue = value.text;
  record.SubValue = value.sub;
  record.Value = value.number;
  if (value.decimals) record.Decimals = *value.decimals;
}

}  // namespace

// --- What fits -------------------------------------------------------------------------------------------------------

CString Store::Fit(const CString& text, std::size_t most, LongText longText, const char* what) const {
  const std::u16string_view units = text.View();
  const std::size_t zero = units.find(u'\0');
  const bool isLatin1 = m_version != 1 || std::ranges::all_of(units, [](char16_t unit) { return unit <= 0xFF; });
  if (units.size() <= most && zero == std::u16string_view::npos && isLatin1) return text;
  if (longText == LongText::kRefuse) {
    RaiseDoesNotFit(std::string(what) + " has at most " + std::to_string(most) + " UTF-16 units" +
                        (m_version == 1 ? " of Latin-1" : "") + " and no zero in a file of version " +
                        std::to_string(m_version),
                    m_path);
  }
  std::u16string cut(units.substr(0, std::min({units.size(), zero, most})));
  const bool splitsPair = cut.size() < units.size() && !cut.empty() && (cut.back() & 0xFC00) == 0xD800;
  if (splitsPair) cut.pop_back();
  if (!isLatin1)
    std::ranges::replace_if(
        cut, [](char16_t unit) { return unit > 0xFF; }, u'?');
  const std::u16string_view kept = cut;
  return kept;
}

FeatureValue Store::Fit(const FeatureValue& value, LongText longText) const {
  FeatureValue fitting = value;
  fitting.name = Fit(value.name, m_version < 3 ? kShortText : kLongText, longText, "a feature's name");
  return fitting;
}

PointValue Store::Fit(const PointValue& value, LongText longText) const {
  PointValue fitting = value;
  fitting.text = Fit(value.text, kShortText, longText, "a point's text");
  return fitting;
}

AttributeValue Store::Fit(const AttributeValue& value, LongText longText) const {
  AttributeValue fitting = value;
  const bool isNew = m_version >= 3;
  fitting.name = Fit(value.name, isNew ? kLongText : kShortText, longText, "an attribute's name");
  fitting.text = Fit(value.text, isNew ? kLongText : kOldValue, longText, "an attribute's text");
  fitting.sub = Fit(value.sub, isNew ? kLongText : kShortText, longText, "a menu's second text");
  return fitting;
}

template <class Record, class Edit>
void Store::CheckFits(std::uint16_t version, const char* what, const Edit& change) const {
  Record blank;
  blank.m_recordVersion = version;
  Record probe(blank);
  change(probe);
  bool fits = CKespDataFile::CanAmend(blank, probe);
  if constexpr (std::is_same_v<Record, CKespPoint>) {
    fits = fits && (version != 1 || probe.SignalStatus <= CKespPoint::kHighestOldStatus);
  }
  if (fits) return;
  RaiseDoesNotFit("a value of " + std::string(what) + " can't be stored in its record, which has version " +
                      std::to_string(version),
                  m_path);
}

// --- Records in the file ---------------------------------------------------------------------------------------------

std::unique_ptr<CKespRecord> Store::ReadAt(std::uint32_t position, bool& isSteppable) {
  m_writer.m_file.Seek(position, CFile::begin);
  RecordView view;
  if (!m_writer.ReadNextView(view, false)) return nullptr;
  const std::uint32_t stated = view.StatedLength();
  m_writer.m_file.Seek(position, CFile::begin);
  std::unique_ptr<CKespRecord> record(m_writer.ReadNextRecord(false));
  isSteppable = record && record->GetLength(0) == stated;
  return record;
}

Store::Amendment& Store::AmendmentOf(const CKespRecord& record) {
  const auto found = m_amendments.find(record.m_filePosition);
  if (found != m_amendments.end()) return found->second;
  bool isSteppable = false;
  Amendment amendment{ReadAt(record.m_filePosition, isSteppable), ReadAt(record.m_filePosition, isSteppable)};
  if (!amendment.before || !amendment.after || amendment.after->m_recordType != record.m_recordType) {
    RaiseError(m_writer.GetError(), "the record can't be read any more", m_path, record.m_filePosition);
  }
  return m_amendments.emplace(record.m_filePosition, std::move(amendment)).first->second;
}

template <class Record, class Edit>
void Store::Alter(Record& record, const char* what, const Edit& change) {
  CheckFits<Record>(record.m_recordVersion, what, change);
  if (record.m_filePosition != 0) {
    CKespRecord& after = *AmendmentOf(record).after;
    change(dynamic_cast<Record&>(after));
    if (m_mode == Mode::kEdit) after.SetSourceFlag(KESP_SRC_MODIFIED);
    if (m_mode == Mode::kEdit) record.SetSourceFlag(KESP_SRC_MODIFIED);
  }
  change(record);
}

// A reader steps over a deleted record by the length in its header.
void Store::CheckSteppable(const CKespRecord& record) {
  if (record.m_filePosition == 0) return;
  bool isSteppable = false;
  (void)ReadAt(record.m_filePosition, isSteppable);
  if (isSteppable) return;
  RaiseError(KESP_ERROR_RECORD_HEADER,
             "the record states a length that is not its own, so it can't be marked as deleted; kesp.repair writes a "
             "file where it can",
             m_path, record.m_filePosition);
}

void Store::MarkDeleted(const CKespRecord& record) {
  if (record.m_filePosition == 0) {
    m_dropped.insert(&record);
    return;
  }
  CKespRecord& after = *AmendmentOf(record).after;
  after.SetDelete();
  after.SetSourceFlag(KESP_SRC_DELETED);
}

// --- Features --------------------------------------------------------------------------------------------------------

void Store::Keep(CKespFeature& feature, std::size_t index) {
  if (!m_keptFeatures.contains(index)) m_keptFeatures.emplace(index, std::make_shared<CKespFeature>(feature));
}

std::uint32_t Store::ChooseNumber(std::optional<std::uint32_t> wanted) const {
  if (!wanted && m_nextFeature > 0xFFFFFFFF) {
    RaiseDoesNotFit("the highest feature number is taken, so the feature must be given one", m_path);
  }
  const std::uint32_t number = wanted.value_or(static_cast<std::uint32_t>(m_nextFeature));
  if (FindNumber(number)) RaiseDoesNotFit("there is a feature " + std::to_string(number) + " already", m_path);
  return number;
}

std::unique_ptr<CKespPoint> Store::NewPoint(const PointValue& value) {
  auto point = std::make_unique<CKespPoint>();
  point->m_recordVersion = VersionOf(kNewestPoint);
  CheckFits<CKespPoint>(point->m_recordVersion, "a point", [&](CKespPoint& p) { Apply(value, p); });
  Apply(value, *point);
  return point;
}

std::unique_ptr<CKespAttribute> Store::NewAttribute(const AttributeValue& value) const {
  auto attribute = std::make_unique<CKespAttribute>();
  attribute->m_recordVersion = VersionOf(kNewestAttribute);
  Apply(value, *attribute);
  attribute->AttributeName = value.name;
  return attribute;
}

std::size_t Store::AddFeature(std::optional<std::uint32_t> number, const FeatureValue& value,
                              const std::vector<PointValue>& points, const std::vector<AttributeValue>& attributes,
                              LongText longText) {
  CheckWritable();
  auto feature = std::make_shared<CKespFeature>();
  feature->m_recordVersion = VersionOf(kNewestFeature);
  feature->FeatureNumber = ChooseNumber(number);
  Apply(Fit(value, longText), *feature);
  std::uint64_t nextPoint = m_nextPoint;
  if (nextPoint + points.size() > 0xFFFFFFFF) RaiseDoesNotFit("there are no free point numbers", m_path);
  for (const PointValue& point : points) {
    CKespPoint* const made = NewPoint(Fit(point, longText)).release();
    feature->AddPoint(made);
    made->FeatureNumber = feature->FeatureNumber;
    made->PointNumber = static_cast<std::uint32_t>(nextPoint++);
  }
  for (const AttributeValue& attribute : attributes) {
    CKespAttribute* const made = NewAttribute(Fit(attribute, longText)).release();
    feature->AddAttribute(made);
    made->FeatureNumber = feature->FeatureNumber;
  }
  auto end = std::make_unique<CKespFeatureEnd>();
  end->FeatureNumber = feature->FeatureNumber;
  feature->SetFeatureEnd(end.release());

  m_nextPoint = nextPoint;
  m_nextFeature = std::max(m_nextFeature, feature->FeatureNumber + std::uint64_t{1});
  Append(*feature);
  for (int i = 0; i < feature->GetNumAttributes(); ++i) Append(*feature->GetAttribute(i));
  for (int i = 0; i < feature->GetNumPoints(); ++i) Append(*feature->GetPoint(i));
  Append(*feature->GetFeatureEnd());
  m_byNumber[feature->FeatureNumber] = m_features.size();
  m_features.push_back({std::move(feature)});
  return m_features.size() - 1;
}

void Store::ChangeFeature(std::size_t index, const FeatureValue& value, LongText longText) {
  CKespFeature& feature = Feature(index);
  CheckWritable();
  const FeatureValue fitting = Fit(value, longText);
  Keep(feature, index);
  Alter(feature, "a feature", [&](CKespFeature& record) { Apply(fitting, record); });
}

void Store::SetPoints(std::size_t index, const std::vector<PointValue>& points, LongText longText) {
  CKespFeature& feature = Feature(index);
  CheckWritable();
  std::vector<PointValue> fitting;
  fitting.reserve(points.size());
  for (const PointValue& point : points) fitting.push_back(Fit(point, longText));
  const auto old = static_cast<std::size_t>(feature.GetNumPoints());
  const std::size_t common = std::min(old, fitting.size());
  std::vector<std::unique_ptr<CKespPoint>> added;
  for (std::size_t i = common; i < fitting.size(); ++i) added.push_back(NewPoint(fitting[i]));
  for (std::size_t i = 0; i < common; ++i) {
    CheckFits<CKespPoint>(feature.GetPoint(static_cast<int>(i))->m_recordVersion, "a point",
                          [&](CKespPoint& point) { Apply(fitting[i], point); });
  }
  for (std::size_t i = common; i < old; ++i) CheckSteppable(*feature.GetPoint(static_cast<int>(i)));
  Keep(feature, index);
  for (std::size_t i = 0; i < common; ++i) {
    Alter(*feature.GetPoint(static_cast<int>(i)), "a point", [&](CKespPoint& point) { Apply(fitting[i], point); });
  }
  for (std::size_t i = old; i > common; --i) {
    MarkDeleted(*feature.GetPoint(static_cast<int>(i) - 1));
    m_graveyard.emplace_back(feature.RemovePoint(static_cast<int>(i) - 1));
  }
  for (auto& point : added) {
    point->FeatureNumber = feature.FeatureNumber;
    point->PointNumber = static_cast<std::uint32_t>(m_nextPoint++);
    Append(*point);
    feature.AddPoint(point.release());
  }
}

void Store::SetAttributes(std::size_t index, const std::vector<AttributeValue>& values, OtherAttributes others,
                          LongText longText) {
  CKespFeature& feature = Feature(index);
  CheckWritable();
  std::vector<std::pair<CKespAttribute*, AttributeValue>> changed;
  std::vector<std::unique_ptr<CKespAttribute>> added;
  for (const AttributeValue& value : values) {
    const AttributeValue fitting = Fit(value, longText);
    CKespAttribute* const there = feature.GetAttribute(fitting.name);
    if (there == nullptr) {
      added.push_back(NewAttribute(fitting));
      continue;
    }
    CheckFits<CKespAttribute>(there->m_recordVersion, "an attribute", [&](CKespAttribute& a) { Apply(fitting, a); });
    if (there->m_filePosition != 0) (void)AmendmentOf(*there);
    changed.emplace_back(there, fitting);
  }
  std::vector<CKespAttribute*> removed;
  for (int i = 0; others == OtherAttributes::kRemove && i < feature.GetNumAttributes(); ++i) {
    const CString& name = feature.GetAttribute(i)->AttributeName;
    const auto isSet = [&](const AttributeValue& value) { return value.name.CompareNoCase(name) == 0; };
    if (std::ranges::none_of(values, isSet)) removed.push_back(feature.GetAttribute(i));
  }
  for (const CKespAttribute* const attribute : removed) CheckSteppable(*attribute);

  Keep(feature, index);
  for (const auto& [attribute, value] : changed) {
    const AttributeValue& fitting = value;
    Alter(*attribute, "an attribute", [&](CKespAttribute& record) { Apply(fitting, record); });
  }
  for (auto& attribute : added) {
    attribute->FeatureNumber = feature.FeatureNumber;
    Append(*attribute);
    feature.AddAttribute(attribute.release());
  }
  Remove(feature, removed);
}

void Store::Remove(CKespFeature& feature, const std::vector<CKespAttribute*>& attributes) {
  for (int i = feature.GetNumAttributes() - 1; i >= 0; --i) {
    if (std::ranges::find(attributes, feature.GetAttribute(i)) == attributes.end()) continue;
    MarkDeleted(*feature.GetAttribute(i));
    m_graveyard.emplace_back(feature.RemoveAttribute(i));
  }
}

void Store::RemoveAttribute(std::size_t index, const CString& name) {
  CKespFeature& feature = Feature(index);
  CheckWritable();
  std::vector<CKespAttribute*> removed;
  for (int i = 0; i < feature.GetNumAttributes(); ++i) {
    if (feature.GetAttribute(i)->AttributeName.CompareNoCase(name) == 0) removed.push_back(feature.GetAttribute(i));
  }
  if (removed.empty()) throw py::key_error(name.ToUtf8());
  for (const CKespAttribute* const attribute : removed) CheckSteppable(*attribute);
  Keep(feature, index);
  Remove(feature, removed);
}

void Store::DeleteFeature(std::size_t index) {
  CKespFeature& feature = Feature(index);
  CheckWritable();
  std::vector<CKespRecord*> records;
  records.reserve(static_cast<std::size_t>(feature.GetNumAttributes()) +
                  static_cast<std::size_t>(feature.GetNumPoints()) + 2);
  for (int i = 0; i < feature.GetNumAttributes(); ++i) records.push_back(feature.GetAttribute(i));
  for (int i = 0; i < feature.GetNumPoints(); ++i) records.push_back(feature.GetPoint(i));
  if (feature.GetFeatureEnd() != nullptr) records.push_back(feature.GetFeatureEnd());
  records.push_back(&feature);
  for (const CKespRecord* const record : records) CheckSteppable(*record);
  for (const CKespRecord* const record : records) MarkDeleted(*record);
  m_features[index].isGone = true;
  m_goneFeatures.push_back(index);
}

// --- Notes, tags, header ---------------------------------------------------------------------------------------------

std::size_t Store::AddNote(const CString& text, LongText longText) {
  CheckWritable();
  auto note = std::make_shared<CKespNote>();
  note->m_recordVersion = VersionOf(kNewestNote);
  note->NoteText = Fit(text, kLongText, longText, "a note");
  Append(*note);
  m_notes.push_back({std::move(note)});
  return m_notes.size() - 1;
}

void Store::ChangeNote(std::size_t index, const CString& text, LongText longText) {
  CKespNote& note = Note(index);
  CheckWritable();
  const CString fitting = Fit(text, kLongText, longText, "a note");
  m_keptNotes.try_emplace(index, note.NoteText);
  Alter(note, "a note", [&](CKespNote& record) { record.NoteText = fitting; });
}

void Store::DeleteNote(std::size_t index) {
  CKespNote& note = Note(index);
  CheckWritable();
  CheckSteppable(note);
  MarkDeleted(note);
  m_notes[index].isGone = true;
  m_goneNotes.push_back(index);
}

std::size_t Store::AddTag(std::uint32_t kind, const CString& name, const std::string& payload) {
  CheckWritable();
  auto tag = std::make_shared<CKespTag>();
  tag->m_recordVersion = VersionOf(kNewestTag);
  tag->Set(static_cast<KESP_TAG>(kind), name, payload.data(), payload.size());
  Append(*tag);
  m_tags.push_back({std::move(tag)});
  return m_tags.size() - 1;
}

void Store::DeleteTag(std::size_t index) {
  CKespTag& tag = Tag(index);
  CheckWritable();
  CheckSteppable(tag);
  MarkDeleted(tag);
  m_tags[index].isGone = true;
  m_goneTags.push_back(index);
}

void Store::ChangeHeader(const std::vector<std::pair<std::string, CString>>& texts, LongText longText) {
  CheckWritable();
  if (!m_header) throw py::value_error("the survey has no header record");
  const auto member = [](CKespTavoHeader& header, const std::string& name) -> CString& {
    if (name == "HeaderText1") return header.HeaderText1;
    if (name == "HeaderText2") return header.HeaderText2;
    if (name == "HeaderText3") return header.HeaderText3;
    if (name == "HeaderText4") return header.HeaderText4;
    if (name == "HeaderText5") return header.HeaderText5;
    if (name == "HeaderText6") return header.HeaderText6;
    if (name == "HeaderText7") return header.HeaderText7;
    throw py::value_error("HeaderText1 to HeaderText7 can be set, not " + name);
  };
  std::vector<std::pair<std::string, CString>> fitting;
  for (const auto& [name, text] : texts) {
    const std::size_t most = name == "HeaderText1" ? kShortText : name == "HeaderText5" ? 127 : kLongText;
    fitting.emplace_back(name, Fit(text, most, longText, name.c_str()));
  }
  auto kept = std::make_unique<CKespTavoHeader>(*m_header);
  Alter(*m_header, "the header", [&](CKespTavoHeader& header) {
    for (const auto& [name, text] : fitting) member(header, name) = text;
  });
  if (!m_keptHeader) m_keptHeader = std::move(kept);
}

}  // namespace kesp::python
