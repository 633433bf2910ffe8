#include "ogr/FeatureBuilder.h"

#include <cmath>
#include <utility>

#include <cpl_json.h>
#include <ogr_geometry.h>

#include "ogr/Flags.h"
#include "ogr/Style.h"
#include "ogr/Values.h"
#include "ogr/Wkb.h"

namespace kesp::ogr {
FeatureBuilder::FeatureBuilder(SurveyFile& file, const Survey& survey, const LayerPlan& layer, const Schema& schema,
                               ColorOrder colors, OGRFeatureDefn& definition, OGRSpatialReference* crs)
    : m_survey(survey),
      m_layer(layer),
      m_schema(schema),
      m_colors(colors),
      m_definition(definition),
      m_crs(crs),
      m_stragglers(file),
      m_lastWith(survey.attributes.Size()) {}

std::unique_ptr<OGRFeature> FeatureBuilder::Collect(const RecordView& record, Cursor& cursor) {
  auto feature = std::make_unique<OGRFeature>(&m_definition);
  // QGIS 3 sets OGR_STYLE ignored whenever it reads, also when it then draws by the style.
  const FeatureView view = record.AsFeature();
  if (view.Color() != std::exchange(m_styleColor, view.Color())) {
    m_style = StyleOf(m_layer.kind, view.Color(), m_colors);
  }
  if (!m_style.empty()) feature->SetStyleString(m_style.c_str());
  CollectInto(*feature, record, cursor);
  return feature;
}

void FeatureBuilder::AddRow(const RecordView& record, Cursor& cursor, ArrowRows& rows) {
  CollectInto(rows, record, cursor);
  if (!m_vertices.IsEmpty() && m_definition.IsGeometryIgnored() == FALSE) AddWkb(rows);
  rows.EndRow();
}

template <class Row>
void FeatureBuilder::CollectInto(Row& row, const RecordView& record, Cursor& cursor) {
  m_vertices.Clear();
  m_further.clear();
  m_bounds = {};
  ++m_feature;
  m_ownFlags = m_allFlags = record.Flags();
  const FeatureView view = record.AsFeature();
  const std::uint32_t number = view.FeatureNumber();
  const std::uint64_t position = record.Position();
  const GIntBig fid = m_survey.directory.FidOf(number, position);
  row.SetFID(fid);
  if (IsWanted(kNameField)) SetText(row, kNameField, view.FeatureName(), m_buffer);
  if (IsWanted(kColorField)) row.SetField(kColorField, static_cast<GIntBig>(view.Color()));
  if (IsWanted(kSymbolField)) row.SetField(kSymbolField, static_cast<int>(view.SymbolIndex()));
  ReadRun(number, cursor, row);
  ReadStragglers(number, position, row);
  if (!m_further.empty()) row.SetField(m_schema.further, FurtherText().c_str());
  if (IsWanted(kDeletedField)) row.SetField(kDeletedField, (m_ownFlags & KESP_FLAG_DELETED) != 0 ? 1 : 0);
  if (IsWanted(kEditedField)) row.SetField(kEditedField, IsEdited(number, fid) ? 1 : 0);
}

template <class Row>
void FeatureBuilder::ReadRun(std::uint32_t number, Cursor& cursor, Row& row) {
  while (const RecordView* const record = cursor.Read()) {
    switch (record->Type()) {
      case KESP_RECORD_FEATURE:
        return cursor.Unread();
      case KESP_RECORD_FEATURE_END:
        if (record->AsFeatureEnd().FeatureNumber() == number) return;
        break;
      case KESP_RECORD_POINT:
        if (record->AsPoint().FeatureNumber() == number) TakePoint(*record);
        TakePoints(number, cursor.ReadPoints());
        break;
      case KESP_RECORD_ATTRIBUTE:
        if (record->AsAttribute().FeatureNumber() == number) TakeAttribute(*record, row);
        break;
      default:
        break;
    }
  }
}

template <class Row>
void FeatureBuilder::ReadStragglers(std::uint32_t number, std::uint64_t position, Row& row) {
  for (const Directory::Straggler& straggler : m_survey.directory.StragglersOf(number, position)) {
    m_stragglers.GoTo(straggler.position);
    const RecordView* const record = m_stragglers.Read();
    if (record == nullptr) return;
    if (record->Position() != straggler.position) continue;  // it has been deleted
    if (record->Type() == KESP_RECORD_POINT) TakePoint(*record);
    if (record->Type() == KESP_RECORD_ATTRIBUTE) TakeAttribute(*record, row);
  }
}

void FeatureBuilder::TakePoint(const RecordView& record) {
  m_allFlags |= record.Flags();
  TakePoint(record.AsPoint());
}

void FeatureBuilder::TakePoints(std::uint32_t number, const PointRun& run) {
  for (std::size_t i = 0; i < run.Size(); ++i) {
    if (run[i].FeatureNumber() == number) TakePoint(run[i]);
  }
}

void FeatureBuilder::TakePoint(const PointView& point) {
  const double x = point.CoordX();
  const double y = point.CoordY();
  if (!std::isfinite(x) || !std::isfinite(y)) return;
  m_bounds.Include(x, y);
  m_vertices.Add({x, y, point.CoordZ(), MeasureOf(point)});
}

template <class Row>
void FeatureBuilder::TakeAttribute(const RecordView& record, Row& row) {
  m_allFlags |= record.Flags();
  const AttributeView attribute = record.AsAttribute();
  const std::size_t code = m_survey.attributes.Find(attribute.AttributeName());
  const Schema::AttributeField field = code < m_schema.fields.size() ? m_schema.fields[code] : Schema::AttributeField{};
  if (code < m_schema.fields.size() && code >= m_lastWith.size()) m_lastWith.resize(code + 1);
  if (field.value == Schema::kNone || std::exchange(m_lastWith[code], m_feature) == m_feature) {
    return AddFurther(attribute);
  }
  if (IsWanted(field.value)) {
    SetValue(row, field.value, m_definition.GetFieldDefn(field.value)->GetType(), attribute, m_buffer);
  }
  if (field.subValue == Schema::kNone || !IsWanted(field.subValue)) return;
  if (!attribute.SubValue().IsEmpty()) SetText(row, field.subValue, attribute.SubValue(), m_buffer);
}

void FeatureBuilder::AddFurther(const AttributeView& attribute) {
  if (m_schema.further == Schema::kNone || !IsWanted(m_schema.further)) return;
  Further& further = m_further.emplace_back();
  CopyText(attribute.AttributeName(), further.name);
  CopyValueText(attribute, further.value);
  CopyText(attribute.SubValue(), further.subValue);
}

std::string FeatureBuilder::FurtherText() const {
  CPLJSONArray list;
  for (const Further& further : m_further) {
    CPLJSONObject object;
    object.Add("name", further.name);
    object.Add("value", further.value);
    if (!further.subValue.empty()) object.Add("sub", further.subValue);
    list.Add(object);
  }
  return list.Format(CPLJSONObject::PrettyFormat::Plain);
}

bool FeatureBuilder::IsEdited(std::uint32_t number, GIntBig fid) const {
  std::uint32_t flags = m_allFlags;
  if (!m_survey.changeFlags.empty() && fid == std::int64_t{number}) {
    const auto change = m_survey.changeFlags.find(number);
    if (change != m_survey.changeFlags.end()) flags |= change->second;
  }
  return (flags & kEditedFlags) != 0;
}

OGRwkbGeometryType FeatureBuilder::GeometryType(const LayerPlan& layer) noexcept {
  if (layer.kind == KESP_FEATURE_LINE) return wkbLineStringZM;
  if (layer.kind == KESP_FEATURE_AREA) return wkbPolygonZM;
  return layer.hasSeveralPoints ? wkbMultiPointZM : wkbPointZM;
}

void FeatureBuilder::AddGeometry(OGRFeature& feature) const {
  if (m_vertices.IsEmpty()) return;
  std::unique_ptr<OGRGeometry> geometry = MakeGeometry();
  geometry->assignSpatialReference(m_crs);
  feature.SetGeometryDirectly(geometry.release());
}

std::unique_ptr<OGRGeometry> FeatureBuilder::MakeGeometry() const {
  if (m_layer.kind == KESP_FEATURE_LINE) {
    auto line = std::make_unique<OGRLineString>();
    PutVertices(*line, false);
    return line;
  }
  if (m_layer.kind == KESP_FEATURE_AREA) {
    auto ring = std::make_unique<OGRLinearRing>();
    PutVertices(*ring, true);
    auto area = std::make_unique<OGRPolygon>();
    area->addRingDirectly(ring.release());
    return area;
  }
  const auto makePoint = [](const Vertex& v) { return std::make_unique<OGRPoint>(v.x, v.y, v.z, v.m); };
  if (IsSinglePoint()) return makePoint(m_vertices[0]);
  auto points = std::make_unique<OGRMultiPoint>();
  for (std::size_t i = 0; i < m_vertices.Size(); ++i) {
    points->addGeometryDirectly(makePoint(m_vertices[i]).release());
  }
  return points;
}

bool FeatureBuilder::IsSinglePoint() const {
  return wkbFlatten(m_definition.GetGeomType()) == wkbPoint && m_vertices.Size() == 1;
}

std::size_t FeatureBuilder::CountOfCurve(bool close) const noexcept {
  const Vertex first = m_vertices[0];
  const Vertex last = m_vertices[m_vertices.Size() - 1];
  const bool isClosed = m_vertices.Size() > 1 && first.x == last.x && first.y == last.y && first.z == last.z;
  return m_vertices.Size() + (close && !isClosed ? 1 : 0);
}

void FeatureBuilder::PutVertices(OGRSimpleCurve& curve, bool close) const {
  m_vertices.CopyTo(curve);
  const Vertex first = m_vertices[0];
  if (CountOfCurve(close) != m_vertices.Size()) curve.addPoint(first.x, first.y, first.z, first.m);
}

std::byte* FeatureBuilder::PutWkb(std::byte* to, std::size_t count) const {
  for (std::size_t i = 0; i < count; ++i) {
    const Vertex v = m_vertices[i < m_vertices.Size() ? i : 0];
    to = PutWkbVertex(to, v.x, v.y, v.z, v.m);
  }
  return to;
}

void FeatureBuilder::AddWkb(ArrowRows& rows) const {
  if (IsSinglePoint()) {
    (void)PutWkb(PutWkbHead(rows.AddGeometry(kWkbHead + kWkbVertex), wkbPoint), 1);
    return;
  }
  if (m_layer.kind == KESP_FEATURE_LINE || m_layer.kind == KESP_FEATURE_AREA) {
    const bool isArea = m_layer.kind == KESP_FEATURE_AREA;
    const std::size_t count = CountOfCurve(isArea);
    const std::size_t rings = isArea ? kWkbCount : 0;
    std::byte* to = rows.AddGeometry(kWkbHead + rings + kWkbCount + count * kWkbVertex);
    to = PutWkbHead(to, isArea ? wkbPolygon : wkbLineString);
    if (isArea) to = PutWkbCount(to, 1);
    (void)PutWkb(PutWkbCount(to, count), count);
    return;
  }
  std::byte* to = rows.AddGeometry(kWkbHead + kWkbCount + m_vertices.Size() * (kWkbHead + kWkbVertex));
  to = PutWkbCount(PutWkbHead(to, wkbMultiPoint), m_vertices.Size());
  for (std::size_t i = 0; i < m_vertices.Size(); ++i) {
    const Vertex v = m_vertices[i];
    to = PutWkbVertex(PutWkbHead(to, wkbPoint), v.x, v.y, v.z, v.m);
  }
}

}  // namespace kesp::ogr
