#include "ogr/Style.h"

#include <array>
#include <cstdio>
#include <utility>

namespace kesp::ogr {

std::string StyleOf(KESP_FEATURE_TYPE kind, std::uint32_t color, ColorOrder order) {
  if (color == 0) return {};
  unsigned red = color & 0xFF;
  unsigned blue = color >> 16 & 0xFF;
  const unsigned green = color >> 8 & 0xFF;
  if (order == ColorOrder::kRgb) std::swap(red, blue);
  // A filled circle. QGIS draws a symbol without an id transparently.
  const char* const symbol = "SYMBOL(id:\"ogr-sym-3\",c";
  const char* const tool = kind == KESP_FEATURE_POINT ? symbol : kind == KESP_FEATURE_LINE ? "PEN(c" : "BRUSH(fc";
  std::array<char, sizeof "SYMBOL(id:\"ogr-sym-3\",c:#rrggbb)"> style;
  (void)std::snprintf(style.data(), style.size(), "%s:#%02x%02x%02x)", tool, red, green, blue);
  return style.data();
}

std::uint32_t ColorIn(const std::string& style, ColorOrder order) {
  const std::size_t at = style.find("c:#");
  unsigned red = 0, green = 0, blue = 0;
  if (at == std::string::npos || std::sscanf(style.c_str() + at, "c:#%2x%2x%2x", &red, &green, &blue) != 3) return 0;
  if (order == ColorOrder::kRgb) std::swap(red, blue);
  return blue << 16 | green << 8 | red;
}

}  // namespace kesp::ogr
