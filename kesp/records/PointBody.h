// The bodies of a point, described for reading, writing and counting (see kesp/util/Fields.h).
//
// Apart from the class's source, since points are most of what a file holds: the container reads them without a detour.
#pragma once
#include "kesp/records/KespPoint.h"
#include "kesp/util/Fields.h"

namespace kesp {

constexpr auto kPointPosition = [](auto& v, auto& p) {
  v.U32(p.PointTime);
  v.F64(p.CoordY);
  v.F64(p.CoordX);
  v.F64(p.CoordZ);
  v.F64(p.GpsValue);
  v.U16(p.SignalStatus);
};
constexpr auto kPointVersion1 = [](auto& v, auto& p) {
  v.U32(p.FeatureNumber);        // 0
  v.U32(p.PointNumber);          // 4
  v.Text8(p.PointText, 22, 20);  // 8
  kPointPosition(v, p);          // 30
};
constexpr auto kPointVersion2 = [](auto& v, auto& p) {
  v.U32(p.FeatureNumber);     // 0
  v.U32(p.PointNumber);       // 4
  v.Text16(p.PointText, 21);  // 8
  kPointPosition(v, p);       // 50
  v.U16(p.GpsNumber);         // 88, behind the status although it stands before it in memory
  v.U16(p.HasOffset);         // 90
  v.F64(p.Offset1);           // 92
  v.F64(p.Offset2);           // 100
};
constexpr std::size_t kPointVersion2Length = 108;

}  // namespace kesp
