// A layer that is being made: its features can be written, and can be read after the file was opened again.
#pragma once
#include "ogr/FeatureWriter.h"
#include "ogr/Layer.h"

namespace kesp::ogr {

class NewLayer final : public Layer {
 public:
  NewLayer(Dataset& dataset, const std::string& name, OGRwkbGeometryType geometryType,
           FeatureWriter::Settings settings);

  void ResetReading() override {}
  OGRFeature* GetNextFeature() override;
  OGRErr CreateField(OGRFieldDefn* field, int approximates) override;
  int TestCapability(const char* capability) override;

 protected:
  OGRErr Create(OGRFeature& feature) override;
  GIntBig Count() const override { return m_count; }
  const Box* Bounds() const override { return &m_box; }
  bool CanAdd() const override { return true; }

 private:
  FeatureWriter m_writer;
  std::vector<FieldTarget> m_targets;
  GIntBig m_count = 0;
  Box m_box;
};

}  // namespace kesp::ogr
