#include "ogr/VertexWriter.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <cpl_error.h>

#include "ogr/Dataset.h"
#include "ogr/FeatureRecords.h"
#include "ogr/Shapes.h"
#include "ogr/Values.h"
#include "ogr/VertexLayer.h"

namespace kesp::ogr {
namespace {

bool Refuse(const std::string& why) {
  CPLError(CE_Failure, CPLE_NotSupported, "Kesp: layer %s: %s", VertexLayer::kName, why.c_str());
  return false;
}

bool TakeNumber(const OGRFeature& row, int field, std::uint32_t& number) {
  const GIntBig value = row.GetFieldAsInteger64(field);
  if (value < 0 || value > GIntBig{std::numeric_limits<std::uint32_t>::max()}) {
    return Refuse(std::string(row.GetFieldDefnRef(field)->GetNameRef()) + " " + std::to_string(value) +
                  " is no number of 32 bits");
  }
  number = static_cast<std::uint32_t>(value);
  return true;
}

// What a row and its point have in several places: the first that is not 0. False if they differ by more than the 15
// digits with which other formats write numbers.
template <class Number>
bool TakeSame(const char* what, std::initializer_list<Number> values, Number& same) {
  constexpr double kLargestDifference = 1e-14;
  same = 0;
  for (const Number value : values) {
    if (same == 0) same = value;
    const auto difference = std::fabs(static_cast<double>(value) - static_cast<double>(same));
    if (value == 0 || difference <= kLargestDifference * std::fabs(static_cast<double>(same))) continue;
    return Refuse(std::string("the ") + what + " is both " + std::to_string(same) + " and " + std::to_string(value) +
                  " in the fields, the geometry, and that of the feature");
  }
  return true;
}

}  // namespace

VertexWriter::VertexWriter(Dataset& dataset, const VertexLayer& layer)
    : m_dataset(dataset), m_layer(layer), m_cursor(dataset.File(), Cursor::Deleted::kAll) {}

bool VertexWriter::Write(OGRFeature& row) {
  std::uint32_t feature = 0;
  std::uint64_t position = 0;
  if (!FindFeature(row, feature, position)) return false;
  if (!row.IsFieldSetAndNotNull(VertexLayer::kPointNumber)) return Append(row, feature);
  std::uint32_t point = 0;
  if (!TakeNumber(row, VertexLayer::kPointNumber, point)) return false;
  if (m_deleted.contains({feature, point})) return Append(row, feature) && m_deleted.erase({feature, point}) != 0;
  if (position < m_dataset.Editing()->LengthBefore()) {
    return Refuse("feature " + std::to_string(feature) +
                  " has its points already: change them by their FIDs, or add one without a point_number");
  }
  const std::uint64_t place = NextPoint(feature, position);
  return place != kNone ? Complete(row, place) : Append(row, feature);
}

bool VertexWriter::FindFeature(const OGRFeature& row, std::uint32_t& number, std::uint64_t& position) {
  if (!row.IsFieldSetAndNotNull(VertexLayer::kFeatureNumber)) return Refuse("a vertex needs a feature_number");
  if (!TakeNumber(row, VertexLayer::kFeatureNumber, number)) return false;
  const Directory& directory = m_dataset.Contents().directory;
  std::optional<std::size_t> entry = directory.Find(number);
  if (!entry) {
    m_dataset.CatchUp();
    entry = directory.Find(number);
  }
  if (!entry || directory.IsGone(number)) {
    return Refuse("there is no feature " + std::to_string(number) + ": features must be written before their vertices");
  }
  position = directory.Entries()[*entry].position;
  return true;
}

// Of a feature that has an entry of its own in the directory, as all have that were added.
std::uint64_t VertexWriter::NextPoint(std::uint32_t feature, std::uint64_t position) {
  std::uint64_t& last = m_last.try_emplace(feature, position).first->second;
  if (last == kNone) return kNone;
  last = std::max(last, position);
  m_cursor.GoTo(last);
  while (const RecordView* const record = m_cursor.Read()) {
    if (record->Position() == last) continue;
    if (record->Type() == KESP_RECORD_FEATURE) break;
    if (record->Type() == KESP_RECORD_FEATURE_END && record->AsFeatureEnd().FeatureNumber() == feature) break;
    const bool isPoint = record->Type() == KESP_RECORD_POINT && record->AsPoint().FeatureNumber() == feature;
    if (isPoint) return last = record->Position();
  }
  return last = kNone;
}

bool VertexWriter::Complete(OGRFeature& row, std::uint64_t position) {
  const std::unique_ptr<CKespRecord> record = m_cursor.ReadObject(position);
  const auto* const point = dynamic_cast<const CKespPoint*>(record.get());
  if (point == nullptr) return Refuse("a point can't be read any more");
  Amendments amendments;
  const bool isGood = AddAmendment(*point, amendments, [&](CKespPoint& changed) { return Fill(changed, row); }) &&
                      m_dataset.Editing()->Amend(amendments);
  if (isGood) row.SetFID(static_cast<GIntBig>(position));
  return isGood;
}

bool VertexWriter::Append(OGRFeature& row, std::uint32_t feature) {
  Editor& editor = *m_dataset.Editing();
  if (editor.NextPoint() > std::numeric_limits<std::uint32_t>::max()) return Refuse("no numbers of 32 bits are left");
  CKespPoint blank;
  blank.m_recordVersion = editor.RecordVersion(blank.m_recordVersion);
  auto point = std::make_unique<CKespPoint>(blank);
  point->FeatureNumber = feature;
  point->PointNumber = static_cast<std::uint32_t>(editor.NextPoint());
  if (!Fill(*point, row)) return false;
  if (!CKespDataFile::CanAmend(blank, *point)) {
    return Refuse("a value can't be stored in a file of version " + std::to_string(editor.FileVersion()));
  }
  row.SetFID(static_cast<GIntBig>(editor.NextPosition()));
  Records records;
  records.push_back(std::move(point));
  return editor.Append(std::move(records));
}

// A point that the feature has got keeps its place.
bool VertexWriter::Fill(CKespPoint& point, const OGRFeature& row) const {
  std::string why;
  const auto shapes = ShapesOf(row.GetGeometryRef(), MultiGeometries::kRefuse, why);
  if (!shapes || shapes->front().kind != KESP_FEATURE_POINT) return Refuse(shapes ? "a vertex must be a point" : why);
  const Vertex& vertex = shapes->front().vertices.front();
  if (point.m_filePosition != 0 && (point.CoordX != vertex.x || point.CoordY != vertex.y)) {
    return Refuse("the next vertex of feature " + std::to_string(point.FeatureNumber) +
                  " is elsewhere: all its vertices must come in their order");
  }
  point.CoordX = vertex.x;
  point.CoordY = vertex.y;
  const auto has = [&row](int field) { return row.IsFieldSetAndNotNull(field); };
  const double z = has(VertexLayer::kZ) ? row.GetFieldAsDouble(VertexLayer::kZ) : 0;
  const std::optional<std::int32_t> time = TimeIn(row, VertexLayer::kTime);
  if (!time) {
    return Refuse(std::string("the time ") + row.GetFieldAsString(VertexLayer::kTime) +
                  " is not one of whole seconds from 1970 to 19 January 2038");
  }
  if (!TakeSame("height", {vertex.z, point.CoordZ, z}, point.CoordZ)) return false;
  if (!TakeSame("time", {vertex.time, point.PointTime, *time}, point.PointTime)) return false;
  for (int field = 0; field < VertexLayer::kEdited; ++field) {
    const bool isPlace =
        field == VertexLayer::kFeatureNumber || field == VertexLayer::kTime || field == VertexLayer::kZ;
    if (!isPlace && has(field) && !m_layer.PutValue(point, row, field)) return false;
  }
  if (has(VertexLayer::kEdited) && row.GetFieldAsInteger(VertexLayer::kEdited) != 0) {
    point.SetSourceFlag(KESP_SRC_MODIFIED);
  }
  return true;
}

}  // namespace kesp::ogr
