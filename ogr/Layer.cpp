#include "ogr/Layer.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include <ogr_recordbatch.h>

#include "ogr/ArrowRows.h"
#include "ogr/Dataset.h"

namespace kesp::ogr {

Layer::Layer(Dataset& dataset, const std::string& name, OGRwkbGeometryType geometryType)
    : m_dataset(dataset), m_definition(new OGRFeatureDefn(name.c_str())) {
  m_definition->Reference();
  m_definition->SetGeomType(geometryType);
  if (geometryType != wkbNone) m_definition->GetGeomFieldDefn(0)->SetSpatialRef(dataset.CoordinateSystem());
  SetDescription(name.c_str());
  // Without it, SQL cuts FIDs to 32 bits.
  if (dataset.HasWideFids()) SetMetadataItem(OLMD_FID64, "YES");
}

Layer::~Layer() { m_definition->Release(); }

GDALDataset* Layer::GetDataset() { return &m_dataset; }

OGRErr Layer::GetExtent(OGREnvelope* extent, int force) {
  m_dataset.CatchUp();
  if (m_dataset.Contents().isEdited) return OGRLayer::GetExtent(extent, force);
  const Box* const box = Bounds();
  extent->MinX = extent->MinY = extent->MaxX = extent->MaxY = 0;  // as other drivers return without geometries
  if (box == nullptr || box->IsEmpty()) return OGRERR_FAILURE;
  extent->MinX = box->minX;
  extent->MinY = box->minY;
  extent->MaxX = box->maxX;
  extent->MaxY = box->maxY;
  return OGRERR_NONE;
}

GIntBig Layer::GetFeatureCount(int force) {
  m_dataset.CatchUp();
  return IsFiltered() ? OGRLayer::GetFeatureCount(force) : Count();
}

OGRErr Layer::ICreateFeature(OGRFeature* feature) {
  if (m_dataset.Editing() == nullptr) return OGRERR_UNSUPPORTED_OPERATION;
  const GIntBig given = feature->GetFID();
  const OGRErr result = Create(*feature);
  if (m_leavesFids && given != OGRNullFID) feature->SetFID(given);
  return result;
}

OGRErr Layer::StartTransaction() { return m_dataset.StartTransaction(FALSE); }
OGRErr Layer::CommitTransaction() { return m_dataset.CommitTransaction(); }
OGRErr Layer::RollbackTransaction() { return m_dataset.RollbackTransaction(); }
OGRErr Layer::SyncToDisk() { return m_dataset.Flush() ? OGRERR_NONE : OGRERR_FAILURE; }

void Layer::UnsetIgnored(OGRFeature& feature) const {
  for (int field = 0; field < m_definition->GetFieldCount(); ++field) {
    if (m_definition->GetFieldDefn(field)->IsIgnored() != FALSE) feature.UnsetField(field);
  }
  if (m_definition->IsGeometryIgnored() != FALSE) feature.SetGeometryDirectly(nullptr);
}

int Layer::GetArrowSchema(ArrowArrayStream* stream, ArrowSchema* schema) {
  const int result = OGRLayer::GetArrowSchema(stream, schema);
  if (result == 0) RemoveDictionaries(*schema);
  return result;
}

// A consumer of the stream has only its return values, so an error comes after the rows and not with the last of them.
int Layer::GetNextArrowArray(ArrowArrayStream* stream, ArrowArray* batch) {
  m_isStreaming = true;
  const int result = MakeBatch(stream, batch);
  m_isStreaming = false;
  if (result != 0 || batch->release != nullptr) return result;
  m_hasReported = true;
  return m_dataset.ReportEnd(m_end) ? 0 : EIO;
}

int Layer::MakeBatch(ArrowArrayStream* stream, ArrowArray* batch) try {
  *batch = {};
  if (!CanMakeColumns() || IsFiltered()) {
    const int result = OGRLayer::GetNextArrowArray(stream, batch);
    if (result == 0) RemoveDictionaries(*batch);
    return result;
  }
  ArrowRows rows(*m_definition, m_aosArrowArrayStreamOptions);
  while (!rows.IsFull() && AddNextRow(rows)) {
  }
  if (rows.Size() != 0) std::move(rows).Export(*batch);
  return 0;
} catch (const std::bad_alloc&) {
  CPLError(CE_Failure, CPLE_OutOfMemory, "%s: no memory for a batch", m_dataset.GetDescription());
  return ENOMEM;
}

bool Layer::CanWrite(const char* capability) {
  const auto is = [capability](const char* name) { return EQUAL(capability, name); };
  if (m_dataset.Editing() == nullptr) return false;
  if (is(OLCSequentialWrite)) return CanAdd();
  if (is(OLCRandomWrite)) return CanChange();
  if (is(OLCDeleteFeature)) return CanDelete();
  return is(OLCTransactions);
}

bool Layer::CanRead(const char* capability) {
  const auto is = [capability](const char* name) { return EQUAL(capability, name); };
  if (is(OLCFastGetArrowStream)) return CanMakeColumns() && !IsFiltered();
  if (is(OLCFastFeatureCount)) return !IsFiltered();
  if (is(OLCRandomRead)) return IsIndexed();
  if (is(OLCFastGetExtent)) return Bounds() != nullptr && !m_dataset.Contents().isEdited;
  if (is(OLCFastSpatialFilter) || is(OLCZGeometries) || is(OLCMeasuredGeometries)) return Bounds() != nullptr;
  return is(OLCStringsAsUTF8) || is(OLCIgnoreFields);
}

int Layer::TestCapability(const char* capability) { return CanRead(capability) || CanWrite(capability) ? TRUE : FALSE; }

Box Layer::FilterBox() const noexcept {
  return {m_sFilterEnvelope.MinX, m_sFilterEnvelope.MinY, m_sFilterEnvelope.MaxX, m_sFilterEnvelope.MaxY};
}

void Layer::ReportEnd(const WalkEnd& end) {
  m_end = end;
  if (m_isStreaming || std::exchange(m_hasReported, true)) return;
  m_dataset.ReportEnd(end);
}

}  // namespace kesp::ogr
