// Geometries of OGR as the points of features.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <ogr_geometry.h>

#include "kesp/records/KespFeature.h"

namespace kesp::ogr {

struct Vertex {
  double x, y, z;
  std::int32_t time;  // seconds since 1970, 0 for none
};

// What one feature can have. The vertices of an area are its ring as it was given, so usually closed.
struct Shape {
  KESP_FEATURE_TYPE kind = KESP_FEATURE_POINT;
  bool hasZ = false, hasTime = false;  // else z and time are 0
  std::vector<Vertex> vertices;
};

enum class MultiGeometries {
  kRefuse,      // but those of one part
  kManyPoints,  // the same, but a multipoint is one feature
  kSplit        // a feature for each part
};

// The shapes of a geometry. Null, with the cause in `why`, if features can't hold it as it is.
std::optional<std::vector<Shape>> ShapesOf(const OGRGeometry* geometry, MultiGeometries multi, std::string& why);

// Without the last vertex of a closed ring, unless that has a time of its own.
void OpenRing(Shape& shape);

}  // namespace kesp::ogr
