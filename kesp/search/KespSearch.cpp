#include "kesp/search/KespSearch.h"

#include <algorithm>
#include <array>
#include <utility>

#include "kesp/format/RecordView.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/search/FeatureTest.h"
#include "kesp/util/Utilities.h"

namespace {

constexpr std::int32_t kAllTypes = SEARCH_POINT_FEATURES | SEARCH_LINE_FEATURES | SEARCH_AREA_FEATURES;

char16_t Folded(char16_t unit) noexcept {
  return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - (u'a' - u'A')) : unit;
}

constexpr auto kSameFolded = [](char16_t a, char16_t b) noexcept { return Folded(a) == Folded(b); };

bool IsEmpty(std::u16string_view text) noexcept { return text.empty(); }
bool IsEmpty(const kesp::TextView& text) noexcept { return text.IsEmpty(); }

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

template <class Text>
bool CKespSearch::IsNameIncluded(const Text& name) const noexcept {
  return m_featureNames.empty() || std::any_of(m_featureNames.begin(), m_featureNames.end(),
                                               [&](const CString& entry) { return name == entry.View(); });
}
// For FeatureTest.
template bool CKespSearch::IsNameIncluded(const std::u16string_view& name) const noexcept;
template bool CKespSearch::IsNameIncluded(const kesp::TextView& name) const noexcept;

template <class Text>
bool CKespSearch::IsAttributeNameIncluded(const Text& name) const noexcept {
  return m_attributeNameFilter.IsEmpty() || TextsEqual(name, m_attributeNameFilter.View());
}

bool CKespSearch::IsFeatureIncluded(const CString& name) const noexcept { return IsNameIncluded(name.View()); }

bool CKespSearch::IsAttributeIncluded(const CString& name) const noexcept {
  return IsAttributeNameIncluded(name.View());
}

bool CKespSearch::IsAttributeIncluded(const kesp::TextView& name) const noexcept {
  return IsAttributeNameIncluded(name);
}

bool CKespSearch::Validate(double value) const noexcept {
  if (!m_enabled || m_valueKind == SEARCH_VALUE_NONE) return true;
  if (m_valueKind != SEARCH_VALUE_NUMBER) return false;
  const bool matches = !(value < m_lowValue) && !(value > m_highValue);  // a NaN passes both
  return matches != m_inverted;
}

bool CKespSearch::Validate(const CString& text) const noexcept { return ValidateText(text.View()); }

bool CKespSearch::Validate(const kesp::TextView& text) const noexcept { return ValidateText(text); }

bool CKespSearch::Validate(const CKespAttribute* attribute) const {
  if (!m_enabled || m_valueKind == SEARCH_VALUE_NONE) return true;
  if (attribute == nullptr) return false;
  return ValidateValue(attribute->AttributeKind, attribute->Value, attribute->TextValue.View(),
                       attribute->SubValue.View());
}

bool CKespSearch::Validate(const kesp::AttributeView& attribute) const noexcept {
  return ValidateValue(attribute.AttributeKind(), attribute.Value(), attribute.TextValue(), attribute.SubValue());
}

template <class Text>
bool CKespSearch::ValidateValue(std::int32_t kind, double value, const Text& text, const Text& sub) const noexcept {
  if (!m_enabled || m_valueKind == SEARCH_VALUE_NONE) return true;
  switch (kind) {
    case KESP_ATTRIBUTE_STRING:
      return ValidateText(text);
    case KESP_ATTRIBUTE_NUMERIC:
      return Validate(value);
    case KESP_ATTRIBUTE_MENU:
      return ValidateText(text) || ValidateText(sub);
    case KESP_ATTRIBUTE_DATE:
      return Validate(GetDateString(value));  // at most ten units, so it allocates nothing
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
  const kesp::FeatureTest test(*this);
  kesp::FeatureTest::State state = test.Start(feature->FeatureType, feature->FeatureName.View());
  if (state.IsRefused()) return false;
  for (const CKespPoint* const point : feature->m_pointList) {
    if (!state.AsksForPoint()) break;
    test.Add(state, point);
  }
  if (!state.Passes()) return false;
  for (const CKespAttribute* const attribute : feature->m_attributeList) {
    if (!state.AsksForAttribute()) break;
    test.Add(state, attribute);
  }
  return state.Passes();
}

template <class Text>
bool CKespSearch::ValidateText(const Text& text) const noexcept {
  if (!m_enabled || m_valueKind == SEARCH_VALUE_NONE) return true;
  if (m_valueKind != SEARCH_VALUE_TEXT) return false;
  if (IsEmpty(text) && m_searchText.IsEmpty()) return true;
  return TextMatches(text, m_searchText.View()) != m_inverted;
}

bool CKespSearch::TextsEqual(std::u16string_view text, std::u16string_view wanted) const noexcept {
  if (!Has(SEARCH_IGNORE_CASE)) return text == wanted;
  return std::equal(text.begin(), text.end(), wanted.begin(), wanted.end(), kSameFolded);
}

bool CKespSearch::TextsEqual(const kesp::TextView& text, std::u16string_view wanted) const noexcept {
  return Has(SEARCH_IGNORE_CASE) ? text.Equals(wanted, kSameFolded) : text == wanted;
}

bool CKespSearch::TextMatches(const kesp::TextView& text, std::u16string_view wanted) const noexcept {
  if (!Has(SEARCH_PARTIAL_MATCH)) return TextsEqual(text, wanted);
  std::array<char16_t, kesp::TextView::kMostUnits> room;
  return TextMatches(text.CopyTo(room), wanted);
}

bool CKespSearch::TextMatches(std::u16string_view text, std::u16string_view wanted) const noexcept {
  if (!Has(SEARCH_PARTIAL_MATCH)) return TextsEqual(text, wanted);
  if (!Has(SEARCH_IGNORE_CASE)) return text.find(wanted) != std::u16string_view::npos;
  return wanted.empty() ||
         std::search(text.begin(), text.end(), wanted.begin(), wanted.end(), kSameFolded) != text.end();
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
