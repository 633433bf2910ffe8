// Makes OGR features of the records of a file.
//
//   while (const RecordView* record = cursor.Read()) {
//     if (record->Type() != KESP_RECORD_FEATURE) continue;
//     const std::unique_ptr<OGRFeature> feature = builder.Collect(*record, cursor);
//     if (Wanted(*feature, builder.Bounds())) builder.AddGeometry(*feature);
//   }
//
// So a filter can refuse a feature before its geometry is made.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include <ogr_feature.h>

#include "ogr/Box.h"
#include "ogr/Crs.h"
#include "ogr/Schema.h"
#include "ogr/Survey.h"

class OGRPoint;
class OGRSimpleCurve;

namespace kesp::ogr {

class FeatureBuilder {
 public:
  // Borrows all of them. `crs` may be null.
  FeatureBuilder(SurveyFile& file, const Survey& survey, const LayerPlan& layer, const Schema& schema,
                 ColorOrder colors, OGRFeatureDefn& definition, OGRSpatialReference* crs);

  // Reads the records of the feature whose record `cursor` has just returned, and leaves the cursor after them. The
  // feature has its fields, but those that are ignored, and its style, but no geometry.
  std::unique_ptr<OGRFeature> Collect(const RecordView& record, Cursor& cursor);
  // Of the collected feature's points; empty if it has none.
  const Box& Bounds() const noexcept { return m_bounds; }
  void AddGeometry(OGRFeature& feature) const;

  static OGRwkbGeometryType GeometryType(const LayerPlan& layer) noexcept;

 private:
  struct Vertex {
    double x, y, z, m;
  };
  struct Further {
    std::string name, value, subValue;
  };
  void ReadRun(std::uint32_t number, Cursor& cursor, OGRFeature& feature);
  void ReadStragglers(std::uint32_t number, std::uint64_t position, OGRFeature& feature);
  void TakePoint(const RecordView& record);
  void TakeAttribute(const RecordView& record, OGRFeature& feature);
  void AddFurther(const AttributeView& attribute);
  void SetFurther(OGRFeature& feature) const;
  void SetFlags(std::uint32_t number, OGRFeature& feature) const;
  bool IsWanted(int field) const { return m_definition.GetFieldDefn(field)->IsIgnored() == FALSE; }
  std::unique_ptr<OGRGeometry> MakeGeometry() const;
  void PutVertices(OGRSimpleCurve& curve, bool close) const;

  const Survey& m_survey;
  const LayerPlan& m_layer;
  const Schema& m_schema;
  ColorOrder m_colors;
  OGRFeatureDefn& m_definition;
  OGRSpatialReference* m_crs;
  Cursor m_stragglers;
  // Of the feature that was collected last.
  std::vector<Vertex> m_vertices;
  std::vector<Further> m_further;
  std::vector<std::uint64_t> m_lastWith;  // by attribute code, the last feature that had it, as m_feature was then
  std::uint64_t m_feature = 0;
  Box m_bounds;
  std::uint32_t m_ownFlags = 0, m_allFlags = 0;
  std::string m_buffer;
};

}  // namespace kesp::ogr
