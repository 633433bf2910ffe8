#include "ogr/FieldValues.h"

#include <bit>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <ogr_geometry.h>

namespace kesp::ogr {
namespace {

std::vector<unsigned char> BytesOf(const OGRGeometry* geometry) {
  if (geometry == nullptr) return {};
  std::vector<unsigned char> bytes(static_cast<std::size_t>(geometry->WkbSize()));
  geometry->exportToWkb(wkbNDR, bytes.data(), wkbVariantIso);
  return bytes;
}

}  // namespace

bool HasSameValue(const OGRFeature& a, const OGRFeature& b, int field) {
  const bool has = a.IsFieldSetAndNotNull(field);
  if (has != b.IsFieldSetAndNotNull(field)) return false;
  if (!has) return true;
  const OGRField* const one = a.GetRawFieldRef(field);
  const OGRField* const other = b.GetRawFieldRef(field);
  switch (a.GetFieldDefnRef(field)->GetType()) {
    case OFTInteger:
      return one->Integer == other->Integer;
    case OFTInteger64:
      return one->Integer64 == other->Integer64;
    case OFTReal:
      return std::bit_cast<std::uint64_t>(one->Real) == std::bit_cast<std::uint64_t>(other->Real);
    default:
      return std::strcmp(a.GetFieldAsString(field), b.GetFieldAsString(field)) == 0;
  }
}

bool IsSameElsewhere(const OGRFeature& value, const OGRFeature& other, int field) {
  if (!value.IsFieldSetAndNotNull(field) || !other.IsFieldSetAndNotNull(field)) return false;
  const OGRFieldType type = value.GetFieldDefnRef(field)->GetType();
  if (type == OFTReal) {
    const std::string text = value.GetFieldAsString(field);  // both use one buffer
    return text == other.GetFieldAsString(field);
  }
  if (type != OFTDateTime) return false;
  const auto& a = value.GetRawFieldRef(field)->Date;
  const auto& b = other.GetRawFieldRef(field)->Date;
  return std::tie(a.Year, a.Month, a.Day, a.Hour, a.Minute, a.Second) ==
         std::tie(b.Year, b.Month, b.Day, b.Hour, b.Minute, b.Second);
}

bool HasSameGeometry(const OGRFeature& a, const OGRFeature& b) {
  return BytesOf(a.GetGeometryRef()) == BytesOf(b.GetGeometryRef());
}

}  // namespace kesp::ogr
