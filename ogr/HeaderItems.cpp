#include "ogr/HeaderItems.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include <cpl_conv.h>
#include <cpl_port.h>
#include <cpl_string.h>

namespace kesp::ogr {
namespace {

struct Text {
  const char* key;
  CString CKespTavoHeader::*member;
};
constexpr Text kTexts[] = {
    {"HEADER_TEXT_1", &CKespTavoHeader::HeaderText1}, {"HEADER_TEXT_2", &CKespTavoHeader::HeaderText2},
    {"HEADER_TEXT_3", &CKespTavoHeader::HeaderText3}, {"HEADER_TEXT_4", &CKespTavoHeader::HeaderText4},
    {"HEADER_TEXT_5", &CKespTavoHeader::HeaderText5}, {"HEADER_TEXT_6", &CKespTavoHeader::HeaderText6},
    {"HEADER_TEXT_7", &CKespTavoHeader::HeaderText7}, {"SLOT_TEXT_1", &CKespTavoHeader::SlotText1},
    {"SLOT_TEXT_2", &CKespTavoHeader::SlotText2}};

bool PutExtent(CKespTavoHeader& header, const char* value) {
  const CPLStringList parts(CSLTokenizeString2(value, ",", 0));
  if (parts.size() != 4) return false;
  const double minX = CPLAtof(parts[0]);
  const double minY = CPLAtof(parts[1]);
  const double maxX = CPLAtof(parts[2]);
  const double maxY = CPLAtof(parts[3]);
  if (!std::isfinite(maxX - minX) || !std::isfinite(maxY - minY)) return false;
  header.ExtentMinX = minX;
  header.ExtentMinY = minY;
  header.ExtentMaxX = maxX;
  header.ExtentMaxY = maxY;
  return true;
}

}  // namespace

HeaderItem PutHeaderItem(CKespTavoHeader& header, const char* key, const char* value) {
  for (const Text& text : kTexts) {
    if (!EQUAL(text.key, key)) continue;
    header.*text.member = CString::FromUtf8(value != nullptr ? value : "");
    return HeaderItem::kPut;
  }
  if (value == nullptr) return HeaderItem::kOther;
  if (EQUAL(key, "EXTENT")) return PutExtent(header, value) ? HeaderItem::kPut : HeaderItem::kBad;
  if (!EQUAL(key, "HEADER_SHORT")) return HeaderItem::kOther;
  const long number = std::strtol(value, nullptr, 10);
  if (number < 0 || number > std::numeric_limits<std::uint16_t>::max()) return HeaderItem::kBad;
  header.HeaderShort = static_cast<std::uint16_t>(number);
  return HeaderItem::kPut;
}

}  // namespace kesp::ogr
