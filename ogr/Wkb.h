// Geometries with Z and M as WKB, little-endian, with the type codes of ISO 19125.
#pragma once
#include <bit>
#include <cstddef>
#include <cstdint>

#include <ogr_core.h>

#include "kesp/util/Fields.h"

namespace kesp::ogr {

constexpr std::size_t kWkbHead = 5;  // byte order and type
constexpr std::size_t kWkbCount = 4;
constexpr std::size_t kWkbVertex = 4 * sizeof(double);

// Each returns the place after what it has put.
inline std::byte* PutWkbCount(std::byte* to, std::size_t count) noexcept {
  StoreLittle(to, static_cast<std::uint32_t>(count));
  return to + kWkbCount;
}
inline std::byte* PutWkbHead(std::byte* to, OGRwkbGeometryType flat) noexcept {
  constexpr std::uint32_t kZM = 3000;
  *to = std::byte{wkbNDR};
  StoreLittle(to + 1, kZM + static_cast<std::uint32_t>(flat));
  return to + kWkbHead;
}
inline std::byte* PutWkbVertex(std::byte* to, double x, double y, double z, double m) noexcept {
  for (const double value : {x, y, z, m}) {
    StoreLittle(to, std::bit_cast<std::uint64_t>(value));
    to += sizeof value;
  }
  return to;
}

}  // namespace kesp::ogr
