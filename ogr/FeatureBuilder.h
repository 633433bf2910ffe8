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

#include "ogr/ArrowRows.h"
#include "ogr/Box.h"
#include "ogr/Crs.h"
#include "ogr/Schema.h"
#include "ogr/Survey.h"
#include "ogr/Vertices.h"

class OGRPoint;
class OGRSimpleCurve;

namespace kesp::ogr {

class FeatureBuilder {
 public:
  // Borrows all of them. `crs` may be null.
  FeatureBuilder(SurveyFile& file, const Survey& survey, const LayerPlan& layer, const Schema& schema,
                 ColorOrder colors, OGRFeatureDefn& definition, OGRSpatialReference* crs);

  // Reads the records of the feature whose record `cursor` has just returned, and leaves the cursor after them. The
  // feature has its fields, but those that aren't needed, and its style, but no geometry.
  std::unique_ptr<OGRFeature> Collect(const RecordView& record, Cursor& cursor);
  // Of the collected feature's points; empty if it has none.
  const Box& Bounds() const noexcept { return m_bounds; }
  void AddGeometry(OGRFeature& feature) const;
  // Does both for columns.
  void AddRow(const RecordView& record, Cursor& cursor, ArrowRows& rows);
  // A filter may ask for fields that are ignored.
  void NeedIgnoredFields(bool needs) noexcept { m_needsIgnored = needs; }

  static OGRwkbGeometryType GeometryType(const LayerPlan& layer) noexcept;

 private:
  using Vertex = MeasuredVertex;
  struct Further {
    std::string name, value, subValue;
  };
  // `Row` is an OGRFeature or ArrowRows.
  template <class Row>
  void CollectInto(Row& row, const RecordView& record, Cursor& cursor);
  template <class Row>
  void ReadRun(std::uint32_t number, Cursor& cursor, Row& row);
  template <class Row>
  void ReadStragglers(std::uint32_t number, std::uint64_t position, Row& row);
  void TakePoint(const RecordView& record);
  void TakePoint(const PointView& point);
  void TakePoints(std::uint32_t number, const PointRun& run);
  template <class Row>
  void TakeAttribute(const RecordView& record, Row& row);
  void AddFurther(const AttributeView& attribute);
  std::string FurtherText() const;
  bool IsEdited(std::uint32_t number, GIntBig fid) const;
  bool IsWanted(int field) const { return m_needsIgnored || m_definition.GetFieldDefn(field)->IsIgnored() == FALSE; }
  std::unique_ptr<OGRGeometry> MakeGeometry() const;
  // How many vertices the geometry has, with the one that closes the ring of an area.
  std::size_t CountOfCurve(bool close) const noexcept;
  void PutVertices(OGRSimpleCurve& curve, bool close) const;
  bool IsSinglePoint() const;
  void AddWkb(ArrowRows& rows) const;
  std::byte* PutWkb(std::byte* to, std::size_t count) const;

  const Survey& m_survey;
  const LayerPlan& m_layer;
  const Schema& m_schema;
  ColorOrder m_colors;
  OGRFeatureDefn& m_definition;
  OGRSpatialReference* m_crs;
  Cursor m_stragglers;
  std::uint32_t m_styleColor = 0;  // of m_style
  std::string m_style;
  // Of the feature that was collected last.
  Vertices m_vertices;
  std::vector<Further> m_further;
  std::vector<std::uint64_t> m_lastWith;  // by attribute code, the last feature that had it, as m_feature was then
  std::uint64_t m_feature = 0;
  bool m_needsIgnored = false;
  Box m_bounds;
  std::uint32_t m_ownFlags = 0, m_allFlags = 0;
  std::string m_buffer;
};

}  // namespace kesp::ogr
