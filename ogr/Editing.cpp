// How features of a layer are added, changed and deleted.
//
// A changed value, and a vertex that has moved, are written over the old ones. What a record can't take in its place,
// another number of vertices or a further attribute, makes the feature anew: it is appended under its number, and then
// its old records are marked as deleted.
#include <cmath>
#include <utility>

#include "ogr/Dataset.h"
#include "ogr/FeatureLayer.h"
#include "ogr/FieldValues.h"

namespace kesp::ogr {
namespace {

bool IsAt(const CKespPoint& point, const Vertex& vertex) {
  return point.CoordX == vertex.x && point.CoordY == vertex.y && point.CoordZ == vertex.z;
}

}  // namespace

// What is different in a feature.
class Changes {
 public:
  Changes(FeatureWriter& writer, const std::vector<FieldTarget>& targets, const FeatureRecords& records,
          const OGRFeature& before, const OGRFeature& now)
      : m_writer(writer), m_targets(targets), m_records(records), m_before(before), m_now(now) {}

  bool Collect(bool withGeometry) {
    for (int field = 0; field < static_cast<int>(m_targets.size()); ++field) {
      const FieldTarget& target = m_targets[static_cast<std::size_t>(field)];
      if (target.role == Role::kFurther && Differs(field)) {
        return m_writer.Refuse("further_attributes can't be changed");
      }
      if (target.role == Role::kAttribute && !CollectAttribute(field)) return false;
    }
    if (!CollectOwn()) return false;
    return !withGeometry || HasSameGeometry(m_before, m_now) || CollectGeometry();
  }

  Amendments amendments;
  Records added;                                // attributes
  std::optional<std::vector<Vertex>> vertices;  // if there are more or fewer than before
  Box box;                                      // of vertices that have moved
  bool hasOtherName = false;

 private:
  bool Differs(int field) const { return !HasSameValue(m_before, m_now, field); }

  int SubFieldOf(int field) const {
    for (std::size_t i = 0; i < m_targets.size(); ++i) {
      if (m_targets[i].role == Role::kSubValue && m_targets[i].mainField == field) return static_cast<int>(i);
    }
    return Schema::kNone;
  }

  std::vector<const CKespAttribute*> FindAll(const CString& name) const {
    std::vector<const CKespAttribute*> found;
    for (const auto& attribute : m_records.attributes) {
      if (attribute->AttributeName.CompareNoCase(name) == 0) found.push_back(attribute.get());
    }
    return found;
  }

  bool CollectAttribute(int field) {
    const int sub = SubFieldOf(field);
    const bool hasOtherSub = sub != Schema::kNone && Differs(sub);
    if (!Differs(field) && !hasOtherSub) return true;
    const bool hasValue =
        m_now.IsFieldSetAndNotNull(field) || (sub != Schema::kNone && m_now.IsFieldSetAndNotNull(sub));
    const std::vector<const CKespAttribute*> found = FindAll(m_targets[static_cast<std::size_t>(field)].name);
    if (found.empty()) return !hasValue || Add(field);
    if (!hasValue) return Remove(found, field);
    return AddAmendment(*found.front(), amendments, [&](CKespAttribute& changed) {
      if (changed.IsDeleted() && !m_records.feature->IsDeleted()) changed.ClearDelete();
      if (hasOtherSub) changed.SubValue = CString::FromUtf8(m_now.GetFieldAsString(sub));
      changed.SetSourceFlag(KESP_SRC_MODIFIED);
      return (!Differs(field) || Put(changed, field)) && m_writer.Fits(changed);
    });
  }

  bool RefuseField(int field, const std::string& why) {
    return m_writer.Refuse(m_now.GetFieldDefnRef(field)->GetNameRef() + (": " + why));
  }

  bool Remove(const std::vector<const CKespAttribute*>& found, int field) {
    if (found.size() > 1) return RefuseField(field, "can't be null, one of further_attributes would take its place");
    return AddAmendment(*found.front(), amendments, [](CKespAttribute& gone) {
      gone.SetDelete();
      gone.SetSourceFlag(KESP_SRC_DELETED);
      return true;
    });
  }

  // A null, beside a sub-value, becomes an empty text.
  bool Put(CKespAttribute& changed, int field) {
    const bool isText = m_now.GetFieldDefnRef(field)->GetType() == OFTString;
    if (!isText && !m_now.IsFieldSetAndNotNull(field)) return RefuseField(field, "can't be null beside a sub-value");
    std::string why;
    return PutValue(changed, m_now, field, why) || RefuseField(field, why);
  }

  bool Add(int field) {
    std::unique_ptr<CKespAttribute> attribute = m_writer.NewAttribute(m_now, field, m_targets);
    if (attribute == nullptr) return false;
    added.push_back(std::move(attribute));
    return true;
  }

  bool CollectOwn() {
    const FeatureWriter::Own wanted{Differs(kNameField), Differs(kColorField), Differs(kSymbolField)};
    if (!wanted.name && !wanted.color && !wanted.symbol) return true;
    hasOtherName = wanted.name;
    return AddAmendment(*m_records.feature, amendments, [&](CKespFeature& changed) {
      changed.SetSourceFlag(KESP_SRC_MODIFIED);
      return m_writer.PutOwn(changed, m_now, m_targets, wanted) && m_writer.Fits(changed);
    });
  }

  bool CollectGeometry() {
    std::optional<std::vector<Shape>> shapes = m_writer.Shapes(m_now);
    if (!shapes) return false;
    Shape& shape = shapes->front();
    std::vector<const CKespPoint*> shown;  // others are in no geometry
    for (const auto& point : m_records.points) {
      if (std::isfinite(point->CoordX) && std::isfinite(point->CoordY)) shown.push_back(point.get());
    }
    // A ring may be stored with or without a point that closes it.
    const bool storesClosing =
        shown.size() > 1 && IsAt(*shown.front(), {shown.back()->CoordX, shown.back()->CoordY, shown.back()->CoordZ, 0});
    if (!storesClosing || shape.vertices.size() != shown.size()) OpenRing(shape);
    if (shape.vertices.size() != shown.size()) {
      vertices = std::move(shape.vertices);
      return true;
    }
    for (std::size_t i = 0; i < shown.size(); ++i) Move(*shown[i], shape.vertices[i], shape);
    return true;
  }

  void Move(const CKespPoint& point, const Vertex& vertex, const Shape& shape) {
    const bool isMoved = AddAmendment(point, amendments, [&](CKespPoint& moved) {
      moved.CoordX = vertex.x;
      moved.CoordY = vertex.y;
      if (shape.hasZ) moved.CoordZ = vertex.z;
      if (shape.hasTime) moved.PointTime = vertex.time;
      const bool isOther =
          !IsAt(point, {moved.CoordX, moved.CoordY, moved.CoordZ, 0}) || moved.PointTime != point.PointTime;
      if (isOther) moved.SetSourceFlag(KESP_SRC_MODIFIED);
      return isOther;
    });
    if (isMoved) box.Include(vertex.x, vertex.y);
  }

  FeatureWriter& m_writer;
  const std::vector<FieldTarget>& m_targets;
  const FeatureRecords& m_records;
  const OGRFeature& m_before;
  const OGRFeature& m_now;
};

namespace {

// A record as it will be; null if it will be gone.
template <class Record>
std::unique_ptr<Record> After(const Record& record, const Amendments& amendments) {
  const CKespRecord* after = &record;
  for (const Amendment& amendment : amendments) {
    if (amendment.before->m_filePosition == record.m_filePosition) after = amendment.after.get();
  }
  if (after->IsDeleted()) return nullptr;
  return std::make_unique<Record>(static_cast<const Record&>(*after));
}

// The points of vertices: those at the beginning and the end that are where they were keep what else they have.
void AddPoints(const FeatureWriter& writer, const FeatureRecords& old, const std::vector<Vertex>& vertices,
               Records& records) {
  const auto& points = old.points;
  const std::size_t most = std::min(points.size(), vertices.size());
  std::size_t first = 0;
  std::size_t last = 0;
  while (first < most && IsAt(*points[first], vertices[first])) ++first;
  while (last < most - first && IsAt(*points[points.size() - 1 - last], vertices[vertices.size() - 1 - last])) ++last;
  for (std::size_t i = 0; i < vertices.size(); ++i) {
    const bool isKept = i < first || i >= vertices.size() - last;
    std::unique_ptr<CKespPoint> point =
        isKept ? std::make_unique<CKespPoint>(*points[i < first ? i : points.size() - (vertices.size() - i)])
               : writer.NewPoint(vertices[i]);
    point->PointTime = vertices[i].time;
    records.push_back(std::move(point));
  }
}

}  // namespace

void FeatureLayer::MakeWriter() {
  FeatureWriter::Settings settings;
  settings.layer = GetName();
  settings.kind = m_plan.kind;
  const bool isMulti = wkbFlatten(m_definition->GetGeomType()) == wkbMultiPoint;
  settings.multi = isMulti ? MultiGeometries::kManyPoints : MultiGeometries::kRefuse;
  settings.isNameFixed = m_plan.name.has_value();
  if (m_plan.name) settings.name = m_survey.names[*m_plan.name];
  settings.colors = m_dataset.Colors();
  m_writer.emplace(*m_dataset.Editing(), std::move(settings));
  m_targets = TargetsOf(m_schema, m_survey.attributes, *m_definition);
}

OGRErr FeatureLayer::CreateField(OGRFieldDefn* field, int approximates) {
  OGRFieldDefn adapted(field);
  if (!m_writer || !AdaptType(adapted, approximates != 0)) return OGRERR_FAILURE;
  const FieldTarget target = TargetOf(adapted, *m_definition);
  const bool isSub = target.role == Role::kSubValue;
  if ((!isSub && target.role != Role::kAttribute) || m_definition->GetFieldIndex(adapted.GetNameRef()) >= 0) {
    m_writer->Refuse(std::string("has a field ") + adapted.GetNameRef() + " already, or can't have one");
    return OGRERR_FAILURE;
  }
  const auto member = isSub ? &Schema::AttributeField::subValue : &Schema::AttributeField::value;
  const CString& name = isSub ? m_targets[static_cast<std::size_t>(target.mainField)].name : target.name;
  const std::size_t code = m_dataset.Editable().attributes.AddName(name);
  if (code != Attributes::kNone && code >= m_schema.fields.size()) m_schema.fields.resize(code + 1);
  if (code == Attributes::kNone || m_schema.fields[code].*member != Schema::kNone) {
    m_writer->Refuse(std::string("can't have another attribute ") + adapted.GetNameRef());
    return OGRERR_FAILURE;
  }
  m_schema.fields[code].*member = m_definition->GetFieldCount();
  m_definition->AddFieldDefn(&adapted);
  m_hasCreatedFields = true;
  m_targets.push_back(target);
  return OGRERR_NONE;
}

OGRErr FeatureLayer::Create(OGRFeature& feature) {
  return m_writer->Write(feature, m_targets) ? OGRERR_NONE : OGRERR_FAILURE;
}

OGRErr FeatureLayer::ISetFeature(OGRFeature* feature) {
  if (!m_writer) return OGRERR_UNSUPPORTED_OPERATION;
  const GIntBig fid = feature->GetFID();
  const RecordView* const record = Find(fid);
  if (record == nullptr) return OGRERR_NON_EXISTING_FEATURE;
  const std::uint64_t position = record->Position();
  const std::unique_ptr<OGRFeature> before = m_builder.Collect(*record, m_random);
  m_builder.AddGeometry(*before);
  if (IsFiltered()) UnsetIgnored(*before);
  std::optional<FeatureRecords> records = ReadRecords(m_dataset.File(), m_survey.directory, position);
  if (!records) return OGRERR_FAILURE;
  Changes changes(*m_writer, m_targets, *records, *before, *feature);
  if (!changes.Collect(m_definition->IsGeometryIgnored() == 0)) return OGRERR_FAILURE;

  const bool isDeleted = records->feature->IsDeleted();
  const bool isToBeDeleted =
      HasSameValue(*before, *feature, kDeletedField) ? isDeleted : feature->GetFieldAsInteger(kDeletedField) != 0;
  const bool isReplaced = !changes.added.empty() || changes.vertices;
  if ((isReplaced && isDeleted) || ((isReplaced || isToBeDeleted != isDeleted) && fid >= Directory::kFirstPosition)) {
    m_writer->Refuse("feature " + std::to_string(fid) + " is deleted, or another one has its number");
    return OGRERR_FAILURE;
  }
  Amendments marks;
  if (isReplaced || (isToBeDeleted && !isDeleted)) AddMarks(*records, Marking::kDelete, marks);
  if (!m_dataset.Editing()->CanAmend(marks)) return OGRERR_FAILURE;  // before anything is written
  if (!(isReplaced ? Replace(*records, changes) : Amend(position, changes))) return OGRERR_FAILURE;
  if (isToBeDeleted == isDeleted) return OGRERR_NONE;
  return Mark(fid, isToBeDeleted ? Marking::kDelete : Marking::kRestore) ? OGRERR_NONE : OGRERR_FAILURE;
}

// For features that come back from another format. What it has no field for stays.
OGRErr FeatureLayer::IUpsertFeature(OGRFeature* feature) {
  const std::unique_ptr<OGRFeature> before(GetFeature(feature->GetFID()));
  if (before == nullptr) return CreateFeature(feature);
  for (int field = 0; field < m_definition->GetFieldCount(); ++field) {
    if (!before->IsFieldSetAndNotNull(field)) continue;
    const bool stays = feature->IsFieldSet(field) == FALSE || IsSameElsewhere(*before, *feature, field);
    if (stays) feature->SetField(field, before->GetRawFieldRef(field));
  }
  return SetFeature(feature);
}

bool FeatureLayer::Amend(std::uint64_t position, const Changes& changes) {
  if (!m_dataset.Editing()->Amend(changes.amendments)) return false;
  Survey& survey = m_dataset.Editable();
  const std::size_t entry = *survey.directory.At(position);
  if (changes.hasOtherName) survey.directory.ForgetName(entry);
  if (changes.box.IsEmpty()) return true;
  survey.isEdited = true;
  survey.directory.Grow(entry, changes.box);
  return true;
}

bool FeatureLayer::Replace(const FeatureRecords& old, Changes& changes) {
  Records records;
  records.push_back(After(*old.feature, changes.amendments));
  for (const auto& attribute : old.attributes) {
    if (auto after = After(*attribute, changes.amendments)) records.push_back(std::move(after));
  }
  std::move(changes.added.begin(), changes.added.end(), std::back_inserter(records));
  if (changes.vertices) {
    AddPoints(*m_writer, old, *changes.vertices, records);
  } else {
    for (const auto& point : old.points) {
      if (auto after = After(*point, changes.amendments)) records.push_back(std::move(after));
    }
  }
  records.push_back(std::make_unique<CKespFeatureEnd>());
  Editor& editor = *m_dataset.Editing();
  SetNumbers(records, old.feature->FeatureNumber, editor.NextPoint());
  if (!editor.Append(std::move(records)) || !editor.Flush()) return false;
  m_dataset.CatchUp();
  const std::uint32_t position = old.feature->m_filePosition;
  if (m_hasBegun && position > m_lastRead && position < m_readingEnd) m_moved.insert(old.feature->FeatureNumber);
  return MarkRecords(old, Marking::kDelete);
}

bool FeatureLayer::MarkRecords(const FeatureRecords& records, Marking marking) {
  Amendments amendments;
  AddMarks(records, marking, amendments);
  if (!m_dataset.Editing()->Amend(amendments)) return false;
  Survey& survey = m_dataset.Editable();
  survey.isEdited = true;
  if (m_dataset.File().IncludesDeleted()) return true;
  --survey.layers[m_plan.index].features;
  survey.directory.Drop(records.feature->FeatureNumber, records.feature->m_filePosition);
  survey.points -= records.points.size();
  return true;
}

bool FeatureLayer::Mark(GIntBig fid, Marking marking) {
  const RecordView* const record = Find(fid);
  if (record == nullptr) return false;
  const auto records = ReadRecords(m_dataset.File(), m_survey.directory, record->Position());
  return records && MarkRecords(*records, marking);
}

OGRErr FeatureLayer::DeleteFeature(GIntBig fid) {
  if (!m_writer) return OGRERR_UNSUPPORTED_OPERATION;
  if (Find(fid) == nullptr) return OGRERR_NON_EXISTING_FEATURE;
  return Mark(fid, Marking::kDelete) ? OGRERR_NONE : OGRERR_FAILURE;
}

}  // namespace kesp::ogr
