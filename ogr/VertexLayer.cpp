#include "ogr/VertexLayer.h"

#include <cmath>

#include <ogr_geometry.h>

#include "ogr/ArrowRows.h"
#include "ogr/Dataset.h"
#include "ogr/FieldValues.h"
#include "ogr/Shapes.h"
#include "ogr/Values.h"
#include "ogr/Wkb.h"

namespace kesp::ogr {

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
  if (dataset.Editing() != nullptr) m_writer.emplace(dataset, *this);
}

OGRErr VertexLayer::CreateField(OGRFieldDefn* field, int /*approximates*/) { return AcceptOwnField(*field); }

OGRErr VertexLayer::Create(OGRFeature& feature) { return m_writer->Write(feature) ? OGRERR_NONE : OGRERR_FAILURE; }

void VertexLayer::AfterDeletion(const CKespRecord& record) {
  const auto& point = static_cast<const CKespPoint&>(record);
  m_writer->NoteDeletion(point.FeatureNumber, point.PointNumber);
}

void VertexLayer::AfterRollback() {
  ResetReading();
  if (m_writer) m_writer->Forget();
}

void VertexLayer::CountDeletion(Survey& survey) const {
  --survey.points;
  survey.isEdited = true;
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

template <class Row>
void VertexLayer::Fill(Row& row, const RecordView& record) {
  const PointView point = record.AsPoint();
  row.SetFID(static_cast<GIntBig>(record.Position()));
  row.SetField(kFeatureNumber, static_cast<GIntBig>(point.FeatureNumber()));
  row.SetField(kPointNumber, static_cast<GIntBig>(point.PointNumber()));
  if (IsWanted(kText)) SetText(row, kText, point.PointText(), m_buffer);
  if (IsWanted(kTime)) SetTime(row, kTime, point.PointTime());
  row.SetField(kZ, point.CoordZ());
  row.SetField(kStatus, static_cast<int>(point.SignalStatus()));
  row.SetField(kGpsValue, point.GpsValue());
  row.SetField(kGpsNumber, static_cast<int>(point.GpsNumber()));
  row.SetField(kHasOffset, point.HasOffset() != 0 ? 1 : 0);
  row.SetField(kOffset1, point.Offset1());
  row.SetField(kOffset2, point.Offset2());
  SetFlags(row, record.Flags());
}

std::unique_ptr<OGRFeature> VertexLayer::MakeRow(const RecordView& record) {
  auto row = std::make_unique<OGRFeature>(m_definition);
  Fill(*row, record);
  if (m_definition->IsGeometryIgnored() != FALSE && m_poFilterGeom == nullptr && m_poAttrQuery == nullptr) return row;
  const PointView point = record.AsPoint();
  const double x = point.CoordX();
  const double y = point.CoordY();
  if (!std::isfinite(x) || !std::isfinite(y)) return row;
  auto geometry = std::make_unique<OGRPoint>(x, y, point.CoordZ(), MeasureOf(point));
  geometry->assignSpatialReference(m_dataset.CoordinateSystem());
  row->SetGeometryDirectly(geometry.release());
  return row;
}

bool VertexLayer::AddNextRow(ArrowRows& rows) {
  const RecordView* const record = NextRow();
  if (record == nullptr) return false;
  Fill(rows, *record);
  const PointView point = record->AsPoint();
  const double x = point.CoordX();
  const double y = point.CoordY();
  if (m_definition->IsGeometryIgnored() == FALSE && std::isfinite(x) && std::isfinite(y)) {
    std::byte* const wkb = PutWkbHead(rows.AddGeometry(kWkbHead + kWkbVertex), wkbPoint);
    (void)PutWkbVertex(wkb, x, y, point.CoordZ(), MeasureOf(point));
  }
  rows.EndRow();
  return true;
}

// The place first: it decides which time and height are right.
bool VertexLayer::Change(CKespRecord& record, const OGRFeature& before, const OGRFeature& now) {
  auto& point = static_cast<CKespPoint&>(record);
  const bool hasMoved = m_definition->IsGeometryIgnored() == 0 && !HasSameGeometry(before, now);
  if (hasMoved && !PutPlace(point, now)) return false;
  for (int field = 0; field < kDeleted; ++field) {
    if (!HasSameValue(before, now, field) && !PutValue(point, now, field)) return false;
  }
  return true;
}

bool VertexLayer::PutValue(CKespPoint& point, const OGRFeature& row, int field) const {
  const auto number = [&](GIntBig most) -> std::optional<std::uint32_t> {
    const GIntBig value = row.GetFieldAsInteger64(field);
    if (value < 0 || value > most) return std::nullopt;
    return static_cast<std::uint32_t>(value);
  };
  constexpr GIntBig kMost16 = 0xFFFF;
  constexpr GIntBig kMost32 = 0xFFFFFFFF;
  switch (field) {
    case kPointNumber:
      if (const auto value = number(kMost32)) return point.PointNumber = *value, true;
      break;
    case kText:
      point.PointText = CString::FromUtf8(row.GetFieldAsString(field));
      return true;
    case kTime:
      if (TimeIn(row, field) == point.PointTime) return true;
      break;
    case kZ:
      if (row.GetFieldAsDouble(field) == point.CoordZ) return true;
      break;
    case kGpsValue:
      point.GpsValue = row.GetFieldAsDouble(field);
      return true;
    case kOffset1:
      point.Offset1 = row.GetFieldAsDouble(field);
      return true;
    case kOffset2:
      point.Offset2 = row.GetFieldAsDouble(field);
      return true;
    case kStatus:
      if (const auto status = number(point.m_recordVersion == 1 ? CKespPoint::kHighestOldStatus : kMost16))
        return point.SignalStatus = KESP_SIGNAL_STATUS{*status}, true;
      break;
    case kGpsNumber:
      if (const auto value = number(kMost16)) return point.GpsNumber = static_cast<std::int32_t>(*value), true;
      break;
    case kHasOffset:
      if (const auto value = number(1)) return point.HasOffset = static_cast<std::uint16_t>(*value), true;
      break;
    case kDeleted:
      Mark(point, row.GetFieldAsInteger(field) != 0);
      return true;
    default:
      break;
  }
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: %s of a vertex can't be changed to %s%s",
           m_definition->GetFieldDefn(field)->GetNameRef(), row.GetFieldAsString(field),
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
