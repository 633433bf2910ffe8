#include "ogr/Style.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>
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
  constexpr std::string_view kBefore = "c:#";
  constexpr std::size_t kDigits = 6;
  const std::size_t at = style.find(kBefore);
  if (at == std::string::npos || style.size() < at + kBefore.size() + kDigits) return 0;
  const char* const digits = style.data() + at + kBefore.size();
  std::uint32_t rgb = 0;
  if (std::from_chars(digits, digits + kDigits, rgb, 16).ptr != digits + kDigits) return 0;
  if (order == ColorOrder::kRgb) return rgb;
  return (rgb & 0xFF) << 16 | (rgb & 0xFF00) | rgb >> 16;
}

}  // namespace kesp::ogr
