#include "ogr/NewLayer.h"

#include "ogr/Dataset.h"

namespace kesp::ogr {

NewLayer::NewLayer(Dataset& dataset, const std::string& name, OGRwkbGeometryType geometryType,
                   FeatureWriter::Settings settings)
    : Layer(dataset, name, geometryType), m_writer(*dataset.Editing(), std::move(settings)) {}

OGRFeature* NewLayer::GetNextFeature() {
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: layer %s is being written: open the file again to read it", GetName());
  return nullptr;
}

OGRErr NewLayer::CreateField(OGRFieldDefn* field, int approximates) {
  OGRFieldDefn adapted(field);
  if (!AdaptType(adapted, approximates != 0)) return OGRERR_FAILURE;
  m_targets.push_back(TargetOf(adapted, *m_definition));
  m_definition->AddFieldDefn(&adapted);
  return OGRERR_NONE;
}

int NewLayer::TestCapability(const char* capability) {
  if (EQUAL(capability, OLCCreateField)) return TRUE;
  if (EQUAL(capability, OLCIgnoreFields) || EQUAL(capability, OLCFastSpatialFilter)) return FALSE;
  return Layer::TestCapability(capability);
}

OGRErr NewLayer::Create(OGRFeature& feature) {
  if (!m_writer.Write(feature, m_targets)) return OGRERR_FAILURE;
  ++m_count;
  if (feature.GetGeometryRef() == nullptr) return OGRERR_NONE;
  OGREnvelope extent;
  feature.GetGeometryRef()->getEnvelope(&extent);
  m_box.Include(extent.MinX, extent.MinY);
  m_box.Include(extent.MaxX, extent.MaxY);
  return OGRERR_NONE;
}

}  // namespace kesp::ogr
