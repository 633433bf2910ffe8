// A filter that checks whether a feature, an attribute or a single value is what a user searches for.
//
//   CKespSearch search(L"oak");  // the wanted value; CKespSearch(10, 20) for a range of numbers
//   search.SetSearchOptions(SEARCH_POINT_FEATURES | SEARCH_IGNORE_CASE | SEARCH_PARTIAL_MATCH);
//   search.FeatureNameFilterAdd(L"Tree");
//   search.SetAttributeNameFilter(L"Species");
//   if (search.Validate(feature)) Show(feature);
//
// kesp::FeatureTest (kesp/search/FeatureTest.h) tests features record by record, as views, without objects.
//
// A feature passes when all of this is true:
//   type       the option of its type is set; a type other than point, line and area always passes
//   name       it equals one of m_featureNames, always case-sensitive; an empty list accepts all names
//   points     one point meets the text, the time range and the area, as far as these are set
//   attribute  one attribute of the wanted name has the wanted value; not tested with SEARCH_VALUE_NONE
// The setters of name, time, area and value change no option: the caller sets SEARCH_TIME_RANGE and SEARCH_IN_AREA.
//
// Texts are compared unit by unit; SEARCH_IGNORE_CASE folds a to z only, whatever the locale. Tests allocate nothing,
// so they can't fail; only converting a long text to a CString for the call can.
//
// Kept on purpose, since stored searches of hosts depend on it:
// - A feature without any point passes the point test, and one without any attribute the attribute test.
// - Once a point has the wanted text, all later points of the feature count as having it. So a text on the first vertex
//   finds a line by the time and place of the others.
// - Inverting only inverts the tests of single values. A feature passes an inverted search when one candidate attribute
//   differs from the wanted value; a menu attribute differs when either of its two texts does. Two empty texts match
//   even then.
// - FeatureNameRemove removes an entry that differs from its argument; see there.
// - Testing a feature while none of the three type options is set first sets all three permanently.
//
// Ownership: the filter owns copies of what it is given, and keeps no pointer to what it tests.
// Errors: only out of memory, in functions that copy a text: CMemoryException, or std::bad_alloc when the list of names
// can't grow; the filter is then unchanged.
// One thread at a time may use a filter: testing a feature may write m_searchOptions.
#pragma once
#include <concepts>
#include <cstdint>
#include <string_view>
#include <vector>

#include "kesp/geometry/Rect2D.h"
#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"
#include "kesp/platform/Time.h"

class CKespAttribute;
class CKespFeature;

namespace kesp {
class AttributeView;
class FeatureTest;
class TextView;
}  // namespace kesp

// The kinds of value test.
enum KESP_SEARCH_VALUE : std::int32_t {
  SEARCH_VALUE_NUMBER = 1,  // m_lowValue to m_highValue
  SEARCH_VALUE_TEXT = 2,    // m_searchText
  SEARCH_VALUE_NONE = 3     // any value
};

// Bits of m_searchOptions.
enum KESP_SEARCH_OPTION : std::int32_t {
  SEARCH_POINT_FEATURES = 0x01,
  SEARCH_LINE_FEATURES = 0x02,
  SEARCH_AREA_FEATURES = 0x04,
  SEARCH_IGNORE_CASE = 0x08,    // point texts, attribute names and text values; not feature names
  SEARCH_PARTIAL_MATCH = 0x10,  // point texts and text values only need to contain the wanted text
  SEARCH_TIME_RANGE = 0x20,     // a point must lie in the time range
  SEARCH_IN_AREA = 0x40         // a point must lie in m_area
};

class KESP_EXPORT CKespSearch {
 public:
  // A disabled filter without a value test: it accepts everything until it is enabled.
  CKespSearch() noexcept = default;
  // An enabled filter, as after Set with the same arguments.
  CKespSearch(double first, double second) noexcept : m_enabled(true) { Set(first, second); }
  explicit CKespSearch(const CString& text) : m_enabled(true) { Set(text); }

  // Searches for a number from the smaller to the larger of the two, both included. If one of them is a NaN, both
  // bounds become the second one.
  void Set(double first, double second) noexcept;
  // Searches for a text.
  void Set(const CString& text);
  void Enable(bool enable) noexcept { m_enabled = enable; }
  bool IsEnabled() const noexcept { return m_enabled; }
  void SetInverted(bool inverted) noexcept { m_inverted = inverted; }
  bool IsInverted() const noexcept { return m_inverted; }
  void SetSearchOptions(int options) noexcept { m_searchOptions = options; }
  int GetSearchOptions() const noexcept { return m_searchOptions; }
  void SetTimeRangeFilter(const CTime& start, const CTime& end) noexcept;  // both included
  void SetEndTimeRangeFilter(const CTime& end) noexcept { m_endTime = end; }
  CTime GetStartTime() const noexcept { return m_startTime; }
  CTime GetEndTime() const noexcept { return m_endTime; }
  void SetAreaFilter(const CRect2D& area) noexcept { m_area = area; }
  void SetAttributeNameFilter(const CString& name) { m_attributeNameFilter = name; }  // empty: all names
  void SetPointNameFilter(const CString& text) { m_pointNameFilter = text; }          // empty: no test
  void FeatureNameFilterAdd(const CString& name) { m_featureNames.push_back(name); }  // duplicates are kept
  // Removes the first entry that is NOT the name, case-sensitive: from [A, B], the argument A removes B. Returns true
  // when an entry was removed or the list was empty. Hosts use this to narrow their lists to a name; removing the name
  // itself would leave them with the opposite.
  bool FeatureNameRemove(const CString& name);
  bool FeatureNameClearAll() noexcept;  // always true

  bool IsASearchAll() const noexcept { return m_featureNames.empty(); }
  bool IsAllAttributeSearch() const noexcept { return m_attributeNameFilter.IsEmpty(); }
  // These two ignore whether the filter is enabled. Names have no partial match.
  bool IsFeatureIncluded(const CString& name) const noexcept;
  bool IsAttributeIncluded(const CString& name) const noexcept;
  bool IsAttributeIncluded(const kesp::TextView& name) const noexcept;

  // Whether a value is the wanted one. A disabled filter and SEARCH_VALUE_NONE accept all values; otherwise a number
  // fails a search for a text, and a text one for a number, inverted or not. A NaN is in every range.
  bool Validate(double value) const noexcept;
  bool Validate(const CString& text) const noexcept;
  bool Validate(const kesp::TextView& text) const noexcept;
  // For integers, so that a plain 0 is a number and not a null pointer. There are two, since a non-const filter would
  // otherwise choose the overload for features.
  template <std::integral Number>
  bool Validate(Number value) noexcept {
    return Validate(static_cast<double>(value));
  }
  template <std::integral Number>
  bool Validate(Number value) const noexcept {
    return Validate(static_cast<double>(value));
  }
  // The same for an attribute's value; its name does not matter. Tests the number of a numeric attribute, the text of a
  // string, the date as GetAsFormatedString returns it, or either text of a menu. Other kinds and null fail when a
  // value is wanted.
  bool Validate(const CKespAttribute* attribute) const;
  bool Validate(const kesp::AttributeView& attribute) const noexcept;
  // Whether the feature passes. A disabled filter accepts any feature, even null; an enabled one refuses null. If none
  // of the three type options is set, all types pass, and a non-const filter keeps this in its options: hosts that show
  // them rely on it.
  bool Validate(const CKespFeature* feature);
  bool Validate(const CKespFeature* feature) const;

  CString m_searchText;
  double m_lowValue = 0;
  double m_highValue = 0;
  bool m_inverted = false;
  std::int32_t m_valueKind = SEARCH_VALUE_NONE;  // KESP_SEARCH_VALUE
  std::vector<CString> m_featureNames;
  CString m_pointNameFilter;
  CString m_attributeNameFilter;
  CTime m_startTime;
  CTime m_endTime;
  std::int32_t m_searchOptions = SEARCH_POINT_FEATURES | SEARCH_LINE_FEATURES | SEARCH_AREA_FEATURES;
  CRect2D m_area;
  bool m_enabled = false;

 private:
  friend class kesp::FeatureTest;
  bool Has(KESP_SEARCH_OPTION option) const noexcept { return (m_searchOptions & option) != 0; }
  // Texts are views of units, or of a body.
  template <class Text>
  bool ValidateText(const Text& text) const noexcept;
  template <class Text>
  bool ValidateValue(std::int32_t kind, double value, const Text& text, const Text& sub) const noexcept;
  template <class Text>
  bool IsNameIncluded(const Text& name) const noexcept;
  template <class Text>
  bool IsAttributeNameIncluded(const Text& name) const noexcept;
  bool TextsEqual(std::u16string_view text, std::u16string_view wanted) const noexcept;  // folded if the option is set
  bool TextsEqual(const kesp::TextView& text, std::u16string_view wanted) const noexcept;
  bool TextMatches(std::u16string_view text, std::u16string_view wanted) const noexcept;  // partial with the option
  bool TextMatches(const kesp::TextView& text, std::u16string_view wanted) const noexcept;
  bool IsTypeIncluded(std::uint32_t type) const noexcept;
};
