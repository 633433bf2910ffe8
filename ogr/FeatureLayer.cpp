#include "ogr/FeatureLayer.h"

#include <algorithm>
#include <utility>

#include "ogr/Dataset.h"

namespace kesp::ogr {

FeatureLayer::FeatureLayer(Dataset& dataset, const std::string& name, const LayerPlan& plan)
    : Layer(dataset, name, FeatureBuilder::GeometryType(plan)),
      m_survey(dataset.Contents()),
      m_plan(plan),
      m_schema(MakeSchema(m_survey, plan, *m_definition)),
      m_builder(dataset.File(), m_survey, plan, m_schema, dataset.Colors(), *m_definition, dataset.CoordinateSystem()),
      m_cursor(dataset.File()),
      m_random(dataset.File()) {
  if (dataset.Editing() != nullptr) MakeWriter();
}

int FeatureLayer::TestCapability(const char* capability) {
  if (EQUAL(capability, OLCCreateField) || EQUAL(capability, OLCUpsertFeature)) return m_writer ? TRUE : FALSE;
  if (!EQUAL(capability, OLCFastSetNextByIndex)) return Layer::TestCapability(capability);
  return IsFiltered() || m_survey.isEdited || m_survey.directory.IsMerged() ? FALSE : TRUE;
}

void FeatureLayer::ResetReading() {
  m_nextEntry = 0;
  m_left = 0;
  m_hasBegun = false;
  m_lastRead = 0;
  m_moved.clear();
}

OGRErr FeatureLayer::SetAttributeFilter(const char* query) {
  const OGRErr result = OGRLayer::SetAttributeFilter(query);
  m_nameFilter.Set(m_poAttrQuery, m_survey, m_definition->GetFieldCount());
  m_builder.NeedIgnoredFields(m_poAttrQuery != nullptr);
  return result;
}

bool FeatureLayer::MayHaveMine(const Entry& entry, bool filtered) const {
  if ((entry.kinds & Entry::BitOf(m_plan.kind)) == 0) return false;
  if (filtered && m_poFilterGeom != nullptr && !entry.box.Touches(FilterBox())) return false;
  if (entry.name == Entry::kMixedNames) return true;
  if (filtered && !m_nameFilter.MayPass(entry.name)) return false;
  return m_survey.LayerOf(m_plan.kind, entry.name) == m_plan.index;
}

bool FeatureLayer::EnterNextEntry() {
  const std::span<const Entry> entries = m_survey.directory.Entries();
  while (m_nextEntry < entries.size()) {
    const Entry& entry = entries[m_nextEntry++];
    if (!MayHaveMine(entry, true)) continue;
    const bool isStart = !std::exchange(m_hasBegun, true);
    m_cursor.GoTo(entry.position, isStart && !IsFiltered() ? Cursor::Wants::kAll : Cursor::Wants::kSome);
    m_left = entry.count;
    m_entryEnd = m_survey.directory.EndOf(m_nextEntry - 1);
    return true;
  }
  return false;
}

// The record of the next feature in entries that may have features of this layer.
const RecordView* FeatureLayer::NextRecord() {
  for (;;) {
    if (m_left == 0 && !EnterNextEntry()) return nullptr;
    const RecordView* const record = m_cursor.Read();
    if (record == nullptr) {
      m_left = 0;
      m_nextEntry = m_survey.directory.Entries().size();
      return nullptr;
    }
    if (record->Type() != KESP_RECORD_FEATURE) continue;
    if (record->Position() < m_entryEnd) {
      --m_left;
      return record;
    }
    // Features of the entry, and of those after it up to this record, have been deleted.
    m_left = 0;
    m_nextEntry = std::max(m_nextEntry, m_survey.directory.At(record->Position()).value_or(0));
  }
}

bool FeatureLayer::IsMine(const RecordView& record) const {
  const FeatureView feature = record.AsFeature();
  if (feature.FeatureType() != m_plan.kind) return false;
  if (m_survey.split == LayerSplit::kByKind) return true;
  return m_survey.LayerOf(m_plan.kind, m_survey.NameCodeOf(feature.FeatureName())) == m_plan.index;
}

bool FeatureLayer::IsOfReading(const RecordView& record) {
  return record.Position() < m_readingEnd || m_moved.erase(record.AsFeature().FeatureNumber()) != 0;
}

const RecordView* FeatureLayer::NextOfMine() {
  if (!m_hasBegun) {
    m_dataset.CatchUp();
    m_readingEnd = m_dataset.File().Length();
  }
  while (const RecordView* const record = NextRecord()) {
    if (!IsMine(*record) || !IsOfReading(*record)) continue;
    m_lastRead = record->Position();
    return record;
  }
  ReportEnd(m_cursor.End());
  return nullptr;
}

OGRFeature* FeatureLayer::GetNextFeature() {
  while (const RecordView* const record = NextOfMine()) {
    if (std::unique_ptr<OGRFeature> feature = Filtered(*record)) return feature.release();
  }
  return nullptr;
}

bool FeatureLayer::AddNextRow(ArrowRows& rows) {
  const RecordView* const record = NextOfMine();
  if (record == nullptr) return false;
  m_builder.AddRow(*record, m_cursor, rows);
  return true;
}

std::unique_ptr<OGRFeature> FeatureLayer::Filtered(const RecordView& record) {
  std::unique_ptr<OGRFeature> feature = m_builder.Collect(record, m_cursor);
  const Box& bounds = m_builder.Bounds();
  const Box wanted = FilterBox();
  if (m_poFilterGeom != nullptr && (bounds.IsEmpty() || bounds.minX > wanted.maxX || bounds.maxX < wanted.minX ||
                                    bounds.minY > wanted.maxY || bounds.maxY < wanted.minY)) {
    return nullptr;
  }
  const bool isByFields = m_poAttrQuery != nullptr && !m_nameFilter.AsksForGeometry();
  if (isByFields && m_poAttrQuery->Evaluate(feature.get()) == 0) return nullptr;
  feature = Finish(std::move(feature));
  if (m_poFilterGeom != nullptr && FilterGeometry(feature->GetGeometryRef()) == 0) return nullptr;
  if (m_poAttrQuery != nullptr && !isByFields && m_poAttrQuery->Evaluate(feature.get()) == 0) return nullptr;
  if (IsFiltered()) UnsetIgnored(*feature);
  return feature;
}

std::unique_ptr<OGRFeature> FeatureLayer::Finish(std::unique_ptr<OGRFeature> feature) {
  const bool isNeeded = m_poFilterGeom != nullptr || m_nameFilter.AsksForGeometry();
  if (isNeeded || m_definition->IsGeometryIgnored() == FALSE) m_builder.AddGeometry(*feature);
  return feature;
}

OGRFeature* FeatureLayer::GetFeature(GIntBig fid) {
  const RecordView* const record = Find(fid);
  if (record == nullptr) return nullptr;
  std::unique_ptr<OGRFeature> feature = m_builder.Collect(*record, m_random);
  if (m_definition->IsGeometryIgnored() == FALSE) m_builder.AddGeometry(*feature);
  if (IsFiltered()) UnsetIgnored(*feature);
  return feature.release();
}

const RecordView* FeatureLayer::Find(GIntBig fid) {
  m_dataset.CatchUp();
  if (fid < 0) return nullptr;
  const bool isPosition = fid >= Directory::kFirstPosition;
  const Directory& directory = m_survey.directory;
  const auto at = isPosition ? directory.At(static_cast<std::uint64_t>(fid - Directory::kFirstPosition))
                             : directory.Find(static_cast<std::uint32_t>(fid));
  if (!at) return nullptr;
  const Entry& entry = directory.Entries()[*at];
  if (!MayHaveMine(entry, false)) return nullptr;
  m_random.GoTo(entry.position);
  for (std::uint32_t left = entry.count; left != 0;) {
    const RecordView* const record = m_random.Read();
    if (record == nullptr || record->Position() >= directory.EndOf(*at)) return nullptr;
    if (record->Type() != KESP_RECORD_FEATURE) continue;
    --left;
    if (directory.FidOf(record->AsFeature().FeatureNumber(), record->Position()) != fid) continue;
    return IsMine(*record) ? record : nullptr;
  }
  return nullptr;
}

OGRErr FeatureLayer::SetNextByIndex(GIntBig index) {
  m_dataset.CatchUp();
  if (TestCapability(OLCFastSetNextByIndex) == 0) return OGRLayer::SetNextByIndex(index);
  if (index < 0 || index >= Count()) return OGRERR_FAILURE;
  ResetReading();
  const std::span<const Entry> entries = m_survey.directory.Entries();
  for (GIntBig left = index;; ++m_nextEntry) {
    if (!MayHaveMine(entries[m_nextEntry], false)) continue;
    if (left-- == 0) return OGRERR_NONE;
  }
}

}  // namespace kesp::ogr
