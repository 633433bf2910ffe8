#include "kesp/search/KespSearch.h"

#include <algorithm>
#include <utility>

#include "kesp/geometry/Point2D.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespPoint.h"

namespace {

constexpr std::int32_t kAllTypes = SEARCH_POINT_FEATURES | SEARCH_LINE_FEATURES | SEARCH_AREA_FEATURES;

char16_t Folded(char16_t unit) noexcept {
  return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - (u'a' - u'A')) : unit;
}

bool SameFolded(char16_t a, char16_t b) noexcept { return Folded(a) == Folded(b); }

}  // namespace

void CKespSearch::Set(double first, double second) noexcept {
  m_valueKind = SEARCH_VALUE_NUMBER;
  // A NaN compares false, which makes both bounds the second argument.
  m_lowValue = first < second ? first : second;
  m_highValue = first > second ? first : second;
}

void CKespSearch::Set(const CString& text) {
  m_searchText = text;
  m_valueKind = SEARCH_VALUE_TEXT;
}

void CKespSearch::SetTimeRangeFilter(const CTime& start, const CTime& end) noexcept {
  m_startTime = start;
  m_endTime = end;
}

bool CKespSearch::FeatureNameRemove(const CString& name) {
  if (m_featureNames.empty()) return true;
  const auto other =
      std::find_if(m_featureNames.begin(), m_featureNames.end(), [&](const CString& entry) { return entry != name; });
  if (other == m_featureNames.end()) return false;
  m_featureNames.erase(other);
  return true;
}

bool CKespSearch::FeatureNameClearAll() noexcept {
  m_featureNames.clear();
  return true;
}

bool CKespSearch::IsFeatureIncluded(const CString& name) const noexcept {
  return m_featureNames.empty() ||
         std::find(m_featureNames.begin(), m_featureNames.end(), name) != m_featureNames.end();
}

bool CKespSearch::IsAttributeIncluded(const CString& name) const noexcept {
  return m_attributeNameFilter.IsEmpty() || TextsEqual(name.View(), m_attributeNameFilter.View());
}

bool CKespSearch::Validate(double value) const noexcept {
  if (!m_enabled || m_valueKind == SEARCH_VALUE_NONE) return true;
  if (m_valueKind != SEARCH_VALUE_NUMBER) return false;
  const bool matches = !(value < m_lowValue) && !(value > m_highValue);  // a NaN passes both
  return matches != m_inverted;
}

bool CKespSearch::Validate(const CKespAttribute* attribute) const {
  if (!m_enabled || m_valueKind == SEARCH_VALUE_NONE) return true;
  if (attribute == nullptr) return false;
  switch (attribute->AttributeKind) {
    case KESP_ATTRIBUTE_STRING:
      return ValidateText(attribute->TextValue.View());
    case KESP_ATTRIBUTE_NUMERIC:
      return Validate(attribute->Value);
    case KESP_ATTRIBUTE_MENU:
      return ValidateText(attribute->TextValue.View()) || ValidateText(attribute->SubValue.View());
    case KESP_ATTRIBUTE_DATE:
      return Validate(attribute->GetAsFormatedString(true));  // at most ten units, so it allocates nothing
    default:
      return false;
  }
}

bool CKespSearch::Validate(const CKespFeature* feature) {
  if (m_enabled && feature != nullptr && (m_searchOptions & kAllTypes) == 0) m_searchOptions |= kAllTypes;
  return std::as_const(*this).Validate(feature);
}

bool CKespSearch::Validate(const CKespFeature* feature) const {
  if (!m_enabled) return true;
  if (feature == nullptr) return false;
  return IsTypeIncluded(feature->FeatureType) && IsFeatureIncluded(feature->FeatureName) && PassesPointTest(*feature) &&
         PassesAttributeTest(*feature);
}

bool CKespSearch::ValidateText(std::u16string_view text) const noexcept {
  if (!m_enabled || m_valueKind == SEARCH_VALUE_NONE) return true;
  if (m_valueKind != SEARCH_VALUE_TEXT) return false;
  if (text.empty() && m_searchText.IsEmpty()) return true;
  return TextMatches(text, m_searchText.View()) != m_inverted;
}

bool CKespSearch::TextsEqual(std::u16string_view text, std::u16string_view wanted) const noexcept {
  if (!Has(SEARCH_IGNORE_CASE)) return text == wanted;
  return std::equal(text.begin(), text.end(), wanted.begin(), wanted.end(), SameFolded);
}

bool CKespSearch::TextMatches(std::u16string_view text, std::u16string_view wanted) const noexcept {
  if (!Has(SEARCH_PARTIAL_MATCH)) return TextsEqual(text, wanted);
  if (!Has(SEARCH_IGNORE_CASE)) return text.find(wanted) != std::u16string_view::npos;
  return wanted.empty() ||
         std::search(text.begin(), text.end(), wanted.begin(), wanted.end(), SameFolded) != text.end();
}

bool CKespSearch::IsTypeIncluded(std::uint32_t type) const noexcept {
  if ((m_searchOptions & kAllTypes) == 0) return true;
  switch (type) {
    case KESP_FEATURE_POINT:
      return Has(SEARCH_POINT_FEATURES);
    case KESP_FEATURE_LINE:
      return Has(SEARCH_LINE_FEATURES);
    case KESP_FEATURE_AREA:
      return Has(SEARCH_AREA_FEATURES);
    default:
      return true;
  }
}

bool CKespSearch::PassesPointTest(const CKespFeature& feature) const noexcept {
  if (m_pointNameFilter.IsEmpty() && !Has(SEARCH_TIME_RANGE) && !Has(SEARCH_IN_AREA)) return true;
  bool nameMatched = m_pointNameFilter.IsEmpty();  // stays true after the first point that has the text
  for (const auto& point : feature.m_pointList) {
    if (point == nullptr) continue;
    nameMatched = nameMatched || TextMatches(point->PointText.View(), m_pointNameFilter.View());
    if (!nameMatched) continue;
    const CTime time(point->PointTime);
    if (Has(SEARCH_TIME_RANGE) && (time < m_startTime || time > m_endTime)) continue;
    if (Has(SEARCH_IN_AREA) && !m_area.PtInRect(CPoint2D(point->CoordX, point->CoordY))) continue;
    return true;
  }
  return feature.m_pointList.empty();
}

bool CKespSearch::PassesAttributeTest(const CKespFeature& feature) const {
  if (m_valueKind == SEARCH_VALUE_NONE) return true;
  for (const auto& attribute : feature.m_attributeList) {
    if (attribute != nullptr && IsAttributeIncluded(attribute->AttributeName) && Validate(attribute)) return true;
  }
  return feature.m_attributeList.empty();
}
