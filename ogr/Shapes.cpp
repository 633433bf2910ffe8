#include "ogr/Shapes.h"

#include <cmath>
#include <limits>

namespace kesp::ogr {
namespace {

class Shaping {
 public:
  Shaping(MultiGeometries multi, std::string& why) : m_multi(multi), m_why(why) {}

  bool Add(const OGRGeometry& geometry) {
    switch (wkbFlatten(geometry.getGeometryType())) {
      case wkbPoint:
        return AddVertex(NewShape(geometry, KESP_FEATURE_POINT), *geometry.toPoint());
      case wkbLineString:
        return AddVertices(NewShape(geometry, KESP_FEATURE_LINE), *geometry.toLineString());
      case wkbPolygon:
        return AddPolygon(*geometry.toPolygon());
      case wkbMultiPoint:
        if (m_multi == MultiGeometries::kManyPoints) return AddManyPoints(*geometry.toMultiPoint());
        [[fallthrough]];
      case wkbMultiLineString:
      case wkbMultiPolygon:
        return AddParts(*geometry.toGeometryCollection());
      default:
        return Refuse(std::string("a feature can't be a ") + OGRGeometryTypeToName(geometry.getGeometryType()));
    }
  }
  std::vector<Shape> Take() { return std::move(m_shapes); }

 private:
  bool Refuse(const std::string& why) {
    m_why = why;
    return false;
  }
  Shape& NewShape(const OGRGeometry& geometry, KESP_FEATURE_TYPE kind) {
    Shape& shape = m_shapes.emplace_back();
    shape.kind = kind;
    shape.hasZ = geometry.Is3D() != 0;
    shape.hasTime = geometry.IsMeasured() != 0;
    return shape;
  }

  bool AddPolygon(const OGRPolygon& polygon) {
    if (polygon.getNumInteriorRings() != 0) return Refuse("an area can't have holes");
    return AddVertices(NewShape(polygon, KESP_FEATURE_AREA), *polygon.getExteriorRing());
  }
  bool AddManyPoints(const OGRMultiPoint& points) {
    Shape& shape = NewShape(points, KESP_FEATURE_POINT);
    for (const OGRPoint* const point : points) {
      if (point->IsEmpty() == FALSE && !AddVertex(shape, *point)) return false;
    }
    return true;
  }
  bool AddParts(const OGRGeometryCollection& parts) {
    if (m_multi != MultiGeometries::kSplit && parts.getNumGeometries() > 1) {
      return Refuse("a feature has one part, and this geometry has " + std::to_string(parts.getNumGeometries()) +
                    "; the layer creation option SPLIT_MULTI=YES makes a feature of each");
    }
    bool isGood = true;
    for (const OGRGeometry* const part : parts) isGood = isGood && (part->IsEmpty() != FALSE || Add(*part));
    return isGood;
  }

  bool AddVertices(Shape& shape, const OGRSimpleCurve& curve) {
    shape.vertices.reserve(static_cast<std::size_t>(curve.getNumPoints()));
    OGRPoint point;
    for (int i = 0; i < curve.getNumPoints(); ++i) {
      curve.getPoint(i, &point);
      if (!AddVertex(shape, point)) return false;
    }
    return true;
  }
  bool AddVertex(Shape& shape, const OGRPoint& point) {
    const double z = shape.hasZ ? point.getZ() : 0;
    if (!std::isfinite(point.getX()) || !std::isfinite(point.getY()) || !std::isfinite(z)) {
      return Refuse("a coordinate is not a finite number");
    }
    const double m = shape.hasTime ? point.getM() : 0;
    const bool isTime = m >= 0 && m <= std::numeric_limits<std::int32_t>::max() && m == std::floor(m);
    if (!isTime && !std::isnan(m)) {
      return Refuse("an M of " + std::to_string(m) + " is no time: whole seconds from 1970 to 19 January 2038");
    }
    shape.vertices.push_back({point.getX(), point.getY(), z, isTime ? static_cast<std::int32_t>(m) : 0});
    return true;
  }

  MultiGeometries m_multi;
  std::string& m_why;
  std::vector<Shape> m_shapes;
};

}  // namespace

std::optional<std::vector<Shape>> ShapesOf(const OGRGeometry* geometry, MultiGeometries multi, std::string& why) {
  if (geometry == nullptr || geometry->IsEmpty() != FALSE) {
    why = "a feature needs a geometry that is not empty";
    return std::nullopt;
  }
  Shaping shaping(multi, why);
  if (!shaping.Add(*geometry)) return std::nullopt;
  return shaping.Take();
}

void OpenRing(Shape& shape) {
  if (shape.kind != KESP_FEATURE_AREA || shape.vertices.size() < 2) return;
  const Vertex& first = shape.vertices.front();
  const Vertex& last = shape.vertices.back();
  if (first.x == last.x && first.y == last.y && first.z == last.z && first.time == last.time) shape.vertices.pop_back();
}

}  // namespace kesp::ogr
