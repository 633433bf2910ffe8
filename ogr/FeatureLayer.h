// A layer of point, line or area features. The FID is the feature's number (see Directory::FidOf).
#pragma once
#include <memory>

#include "ogr/FeatureBuilder.h"
#include "ogr/Layer.h"
#include "ogr/NameFilter.h"

namespace kesp::ogr {

class FeatureLayer final : public Layer {
 public:
  FeatureLayer(Dataset& dataset, const std::string& name, const LayerPlan& plan);

  const char* GetFIDColumn() override { return kFidColumn; }
  void ResetReading() override;
  OGRFeature* GetNextFeature() override;
  OGRFeature* GetFeature(GIntBig fid) override;
  OGRErr SetNextByIndex(GIntBig index) override;
  OGRErr SetAttributeFilter(const char* query) override;
  int TestCapability(const char* capability) override;

 protected:
  GIntBig Count() const override { return static_cast<GIntBig>(m_plan.features); }
  const Box* Bounds() const override { return &m_plan.box; }
  bool IsIndexed() const override { return true; }

 private:
  bool MayHaveMine(const Entry& entry, bool filtered) const;
  bool EnterNextEntry();
  const RecordView* NextRecord();
  bool IsMine(const RecordView& record) const;
  std::unique_ptr<OGRFeature> Filtered(const RecordView& record);
  std::unique_ptr<OGRFeature> Finish(std::unique_ptr<OGRFeature> feature);

  const Survey& m_survey;
  const LayerPlan& m_plan;
  Schema m_schema;
  NameFilter m_nameFilter;
  FeatureBuilder m_builder;
  Cursor m_cursor, m_random;
  std::size_t m_nextEntry = 0;
  bool m_hasBegun = false;
  std::uint32_t m_left = 0;  // features of the entry before, still to be read
};

}  // namespace kesp::ogr
