#include "tools/kesp/Wanted.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <string_view>

#include "tools/kesp/Console.h"
#include "tools/kesp/Numbers.h"
#include "tools/kesp/Times.h"

namespace kesp::tool {
namespace {

// A finite number; one that is left out is `otherwise`, where that is given.
bool ReadNumber(std::string_view text, std::optional<double> otherwise, double& number) {
  if (text.empty() && otherwise) {
    number = *otherwise;
    return true;
  }
  const std::optional<double> parsed = ParseNumber(text);
  number = parsed.value_or(0);
  return parsed.has_value();
}

// LOW:HIGH, LOW: or :HIGH.
bool ReadRange(std::string_view text, std::array<double, 2>& bounds) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || text == ":") return false;
  constexpr double kMost = std::numeric_limits<double>::max();
  return ReadNumber(text.substr(0, colon), -kMost, bounds[0]) && ReadNumber(text.substr(colon + 1), kMost, bounds[1]);
}

bool ReadArea(std::string_view text, std::array<double, 4>& edges) {
  for (std::size_t i = 0; i < edges.size(); ++i) {
    const std::size_t comma = i + 1 < edges.size() ? text.find(',') : text.size();
    if (comma == std::string_view::npos || !ReadNumber(text.substr(0, comma), std::nullopt, edges[i])) return false;
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  return true;
}

bool Wrong(const std::string& what) {
  Complain({}, what + "; try kesp help find");
  return false;
}

}  // namespace

bool Wanted::Configure(const FindOptions& options) {
  int bits = 0;
  for (const std::string& type : options.types) {
    bits |= type == "point" ? SEARCH_POINT_FEATURES : type == "line" ? SEARCH_LINE_FEATURES : SEARCH_AREA_FEATURES;
  }
  if (options.ignoreCase) bits |= SEARCH_IGNORE_CASE;
  if (options.partial) bits |= SEARCH_PARTIAL_MATCH;
  for (const std::string& name : options.names) m_names.emplace_back(CString::FromUtf8(name)).SetSearchOptions(bits);
  if (options.pointText) m_search.SetPointNameFilter(CString::FromUtf8(*options.pointText));
  if (options.attribute) {
    m_search.SetAttributeNameFilter(CString::FromUtf8(*options.attribute));
    m_wantsNamelessAttribute = m_search.IsAllAttributeSearch();
  }
  if (options.value) m_search.Set(CString::FromUtf8(*options.value));
  if (options.range) {
    std::array<double, 2> bounds{};
    if (!ReadRange(*options.range, bounds)) return Wrong("--range takes LOW:HIGH, LOW: or :HIGH");
    m_search.Set(bounds[0], bounds[1]);
  }
  if (options.invert && !options.value && !options.range) return Wrong("--invert goes with --value or --range");
  if (!SetTimes(options, bits)) return false;
  if (options.area) {
    std::array<double, 4> edges{};
    if (!ReadArea(*options.area, edges)) return Wrong("--area takes MINX,MINY,MAXX,MAXY");
    m_search.SetAreaFilter(CRect2D(edges[0], edges[1], edges[2], edges[3]));
    bits |= SEARCH_IN_AREA;
  }
  m_search.SetSearchOptions(bits);
  m_search.SetInverted(options.invert);
  m_search.Enable(true);
  m_wantsPoints = !options.includeEmpty && (options.pointText || options.from || options.to || options.area);
  m_wantsAttribute = !options.includeEmpty && (options.attribute || options.value || options.range);
  return true;
}

bool Wanted::SetTimes(const FindOptions& options, int& bits) {
  if (!options.from && !options.to) return true;
  const auto from = options.from ? ParseTime(*options.from, false) : std::numeric_limits<std::int64_t>::min();
  const auto to = options.to ? ParseTime(*options.to, true) : std::numeric_limits<std::int64_t>::max();
  if (!from || !to) return Wrong("a time looks like 2024-05-01T12:00:00Z, 2024-05-01T14:00+02:00 or 2024-05-01");
  m_search.SetTimeRangeFilter(CTime(*from), CTime(*to));
  bits |= SEARCH_TIME_RANGE;
  return true;
}

bool Wanted::HasName(const FeatureView& feature) const {
  return m_names.empty() || std::any_of(m_names.begin(), m_names.end(),
                                        [&](const CKespSearch& name) { return name.Validate(feature.FeatureName()); });
}

bool Wanted::IsAttribute(const AttributeView& attribute) const noexcept {
  if (m_wantsNamelessAttribute) return attribute.AttributeName().IsEmpty();
  return m_search.IsAttributeIncluded(attribute.AttributeName());
}

}  // namespace kesp::tool
