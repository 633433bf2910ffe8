#include "ogr/VertexLayer.h"

#include <cmath>

#include <ogr_geometry.h>

#include "ogr/Dataset.h"
#include "ogr/FieldValues.h"
#include "ogr/Shapes.h"
#include "ogr/Values.h"

namespace kesp::ogr {
namespace {

enum Field : int {
  kFeatureNumber,
  kPointNumber,
  kText,
  kTime,
  kZ,
  kStatus,
  kGpsValue,
  kGpsNumber,
  kHasOffset,
  kOffset1,
  kOffset2
};

}  // namespace

VertexLayer::VertexLayer(Dataset& dataset) : RecordLayer(dataset, kName, wkbPointZM) {
  AddField("feature_number", OFTInteger64);
  AddField("point_number", OFTInteger64);
  AddField("text", OFTString);
  AddField("time", OFTDateTime);
  AddField("z", OFTReal);
  const int status = AddField("status", OFTInteger);
  m_definition->GetFieldDefn(status)->SetDomainName(kStatusDomain);
  AddField("gps_value", OFTReal);
  AddField("gps_number", OFTInteger);
  AddField("has_offset", OFTInteger, OFSTBoolean);
  AddField("offset_1", OFTReal);
  AddField("offset_2", OFTReal);
  AddFlagFields();
}

GIntBig VertexLayer::Count() const { return static_cast<GIntBig>(m_dataset.Contents().points); }

const Box* VertexLayer::Bounds() const { return &m_dataset.Contents().box; }

bool VertexLayer::IsRow(const RecordView& record, const Run& run) const {
  if (record.Type() != KESP_RECORD_POINT) return false;
  const std::uint32_t number = record.AsPoint().FeatureNumber();
  return run.Has(number) || m_dataset.Contents().directory.IsStraggler(number, record.Position());
}

bool VertexLayer::IsOutside(const RecordView& record) const {
  const PointView point = record.AsPoint();
  const double x = point.CoordX();
  const double y = point.CoordY();
  const Box wanted = FilterBox();
  return !(x >= wanted.minX && x <= wanted.maxX && y >= wanted.minY && y <= wanted.maxY);
}

// Past the features that are outside the spatial filter, unless points of others are among their records.
std::uint64_t VertexLayer::SkipFrom(std::uint64_t position) {
  const Directory& directory = m_dataset.Contents().directory;
  const auto at = directory.At(position);
  if (m_poFilterGeom == nullptr || !at) return position;
  const std::span<const Entry> entries = directory.Entries();
  if (entries[*at].position != position) return position;
  const Box wanted = FilterBox();
  for (std::size_t i = *at; i < entries.size(); ++i) {
    const bool isNeeded = i + 1 == entries.size() || entries[i].box.Touches(wanted) ||
                          directory.HasStragglers(entries[i].position, directory.EndOf(i));
    if (isNeeded) return entries[i].position;
  }
  return position;
}

std::unique_ptr<OGRFeature> VertexLayer::MakeRow(const RecordView& record) {
  auto row = std::make_unique<OGRFeature>(m_definition);
  const PointView point = record.AsPoint();
  row->SetFID(static_cast<GIntBig>(record.Position()));
  row->SetField(kFeatureNumber, static_cast<GIntBig>(point.FeatureNumber()));
  row->SetField(kPointNumber, static_cast<GIntBig>(point.PointNumber()));
  if (IsWanted(kText)) SetText(*row, kText, point.PointText(), m_buffer);
  if (IsWanted(kTime)) SetTime(*row, kTime, point.PointTime());
  row->SetField(kZ, point.CoordZ());
  row->SetField(kStatus, static_cast<int>(point.SignalStatus()));
  row->SetField(kGpsValue, point.GpsValue());
  row->SetField(kGpsNumber, static_cast<int>(point.GpsNumber()));
  row->SetField(kHasOffset, point.HasOffset() != 0 ? 1 : 0);
  row->SetField(kOffset1, point.Offset1());
  row->SetField(kOffset2, point.Offset2());
  SetFlags(*row, record.Flags());
  const double x = point.CoordX();
  const double y = point.CoordY();
  if (m_definition->IsGeometryIgnored() != FALSE && m_poFilterGeom == nullptr) return row;
  if (!std::isfinite(x) || !std::isfinite(y)) return row;
  auto geometry = std::make_unique<OGRPoint>(x, y, point.CoordZ(), MeasureOf(point));
  geometry->assignSpatialReference(m_dataset.CoordinateSystem());
  row->SetGeometryDirectly(geometry.release());
  return row;
}

bool VertexLayer::Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) {
  auto& point = static_cast<CKespPoint&>(record);
  for (int field = 0; field < m_definition->GetFieldCount() - 1; ++field) {
    if (!HasSameValue(before, now, field) && !PutValue(point, now, field)) return false;
  }
  return m_definition->IsGeometryIgnored() != 0 || HasSameGeometry(before, now) || PutPlace(point, now);
}

bool VertexLayer::PutValue(CKespPoint& point, const OGRFeature& now, int field) const {
  const auto number = [&](GIntBig most) -> std::optional<std::uint16_t> {
    const GIntBig value = now.GetFieldAsInteger64(field);
    if (value < 0 || value > most) return std::nullopt;
    return static_cast<std::uint16_t>(value);
  };
  constexpr GIntBig kMost16 = 0xFFFF;
  constexpr GIntBig kMostStatus = 10;
  switch (field) {
    case kText:
      point.PointText = CString::FromUtf8(now.GetFieldAsString(field));
      return true;
    case kGpsValue:
      point.GpsValue = now.GetFieldAsDouble(field);
      return true;
    case kOffset1:
      point.Offset1 = now.GetFieldAsDouble(field);
      return true;
    case kOffset2:
      point.Offset2 = now.GetFieldAsDouble(field);
      return true;
    case kStatus:
      if (const auto status = number(kMostStatus)) return point.SignalStatus = KESP_SIGNAL_STATUS{*status}, true;
      break;
    case kGpsNumber:
      if (const auto value = number(kMost16)) return point.GpsNumber = *value, true;
      break;
    case kHasOffset:
      if (const auto value = number(1)) return point.HasOffset = *value, true;
      break;
    default:
      break;
  }
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: %s of a vertex can't be changed to %s%s",
           m_definition->GetFieldDefn(field)->GetNameRef(), now.GetFieldAsString(field),
           field == kTime || field == kZ ? ": change its geometry" : "");
  return false;
}

bool VertexLayer::PutPlace(CKespPoint& point, const OGRFeature& now) {
  std::string why;
  const auto shapes = ShapesOf(now.GetGeometryRef(), MultiGeometries::kRefuse, why);
  if (!shapes || shapes->front().kind != KESP_FEATURE_POINT) {
    CPLError(CE_Failure, CPLE_NotSupported, "Kesp: the geometry of a vertex: %s", shapes ? "no point" : why.c_str());
    return false;
  }
  const Shape& shape = shapes->front();
  const Vertex& vertex = shape.vertices.front();
  point.CoordX = vertex.x;
  point.CoordY = vertex.y;
  if (shape.hasZ) point.CoordZ = vertex.z;
  if (shape.hasTime) point.PointTime = vertex.time;
  Survey& survey = m_dataset.Editable();
  survey.isEdited = true;
  // Of the feature, wherever the point's record is.
  Box box;
  box.Include(vertex.x, vertex.y);
  const auto owner = survey.directory.IsStraggler(point.FeatureNumber, point.m_filePosition)
                         ? survey.directory.Find(point.FeatureNumber)
                         : survey.directory.At(point.m_filePosition);
  if (owner) survey.directory.Grow(*owner, box);
  return true;
}

}  // namespace kesp::ogr
