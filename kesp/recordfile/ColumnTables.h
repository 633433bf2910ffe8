// The columns of each table with the bit that chooses them and their names: the one list that growing, clearing, moving
// rows and the export go by. Not installed.
#pragma once
#include <cstdint>

#include "kesp/recordfile/Columns.h"

namespace kesp {

// Calls use(bit, name, column of each table...) for each column. The tables are of the same type.
template <class Use, class... Tables>
void ForEachPointColumn(Use use, Tables&... t) {
  use(kPointFeatureNumber, "feature_number", t.featureNumber...);
  use(kPointNumber, "point_number", t.pointNumber...);
  use(kPointX, "x", t.x...);
  use(kPointY, "y", t.y...);
  use(kPointZ, "z", t.z...);
  use(kPointTime, "time", t.time...);
  use(kPointStatus, "status", t.status...);
  use(kPointGps, "gps_value", t.gpsValue...);
  use(kPointGps, "gps_number", t.gpsNumber...);
  use(kPointOffset, "offset1", t.offset1...);
  use(kPointOffset, "offset2", t.offset2...);
  use(kPointOffset, "has_offset", t.hasOffset...);
  use(kPointFlags, "flags", t.flags...);
  use(kPointText, "text", t.text...);
}
template <class Use, class... Tables>
void ForEachFeatureColumn(Use use, Tables&... t) {
  use(kFeatureNumber, "number", t.number...);
  use(kFeatureName, "name", t.name...);
  use(kFeatureType, "type", t.type...);
  use(kFeatureColor, "color", t.color...);
  use(kFeatureSymbol, "symbol", t.symbol...);
  use(kFeatureFlags, "flags", t.flags...);
  use(kFeaturePoints, "first_point", t.firstPoint...);
  use(kFeaturePoints, "point_count", t.pointCount...);
  use(kFeaturePoints, "is_one_run", t.isOneRun...);
  use(kFeatureBox, "min_x", t.minX...);
  use(kFeatureBox, "min_y", t.minY...);
  use(kFeatureBox, "max_x", t.maxX...);
  use(kFeatureBox, "max_y", t.maxY...);
}
template <class Use, class... Tables>
void ForEachAttributeColumn(Use use, Tables&... t) {
  use(kAttributeFeatureNumber, "feature_number", t.featureNumber...);
  use(kAttributeName, "name", t.name...);
  use(kAttributeKind, "kind", t.kind...);
  use(kAttributeText, "text", t.text...);
  use(kAttributeSubText, "sub_text", t.subText...);
  use(kAttributeNumber, "number", t.number...);
  use(kAttributeDecimals, "decimals", t.decimals...);
  use(kAttributeFlags, "flags", t.flags...);
}

template <class Use, class... Tables>
void ForEachColumn(Use use, PointColumns& table, Tables&... more) {
  ForEachPointColumn(use, table, more...);
}
template <class Use, class... Tables>
void ForEachColumn(Use use, FeatureColumns& table, Tables&... more) {
  ForEachFeatureColumn(use, table, more...);
}
template <class Use, class... Tables>
void ForEachColumn(Use use, AttributeColumns& table, Tables&... more) {
  ForEachAttributeColumn(use, table, more...);
}

}  // namespace kesp
