// A filter that tells whether a feature, an attribute or a single value is what a host's user looks for.
//
//   CKespSearch search(L"oak");  // the wanted value; CKespSearch(10, 20) for a range of numbers
//   search.SetSearchOptions(SEARCH_POINT_FEATURES | SEARCH_IGNORE_CASE | SEARCH_PARTIAL_MATCH);
//   search.FeatureNameFilterAdd(L"Tree");
//   search.SetAttributeNameFilter(L"Species");
//   if (search.Validate(feature)) Show(feature);
//
// A feature passes when all of this holds:
//   type       its type's option is set; a type other than point, line and area passes always
//   name       it equals one of m_featureNames, letter case always minded; an empty list takes every name
//   points     one point meets the text, the time range and the area, as far as they are asked for
//   attribute  one attribute of the wanted name has the wanted value; not asked for with SEARCH_VALUE_NONE
// The name, time, area and value setters touch no option: SEARCH_TIME_RANGE and SEARCH_IN_AREA are the caller's to set.
//
// Texts are compared unit by unit; SEARCH_IGNORE_CASE folds a to z only, whatever the locale. Asking allocates nothing,
// and so doesn't fail; only a long text that is not yet a CString must become one first.
//
// Kept on purpose, since hosts' stored searches would find other features without it:
// - A feature without any point passes the point test, one without any attribute the attribute test: there is nothing
//   that contradicts.
// - Once a point has the wanted text, every later point of the feature counts as having it, so that a text on the
//   first vertex finds a line by the time and place of the others.
// - Inverting turns round single value tests, nothing else. A feature passes an inverted search when one candidate
//   attribute differs from the wanted value, a menu attribute when either of its two texts does. Two empty texts match
//   even then.
// - FeatureNameRemove removes what differs from its argument; see there.
// - A feature's test with none of the three type options set first sets all three for good.
//
// Ownership: the filter owns copies of all it is given and keeps no pointer to what it is asked about.
// Errors: only lack of memory, in what copies a text: CMemoryException, or std::bad_alloc when the list of names can't
// grow; the filter is then as it was.
// Since a feature's test may write m_searchOptions, one filter must not be asked by two threads at once.
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

// Which value test applies.
enum KESP_SEARCH_VALUE : std::int32_t {
  SEARCH_VALUE_NUMBER = 1,  // m_lowValue to m_highValue
  SEARCH_VALUE_TEXT = 2,    // m_searchText
  SEARCH_VALUE_NONE = 3     // every value will do
};

// Bits of m_searchOptions.
enum KESP_SEARCH_OPTION : std::int32_t {
  SEARCH_POINT_FEATURES = 0x01,
  SEARCH_LINE_FEATURES = 0x02,
  SEARCH_AREA_FEATURES = 0x04,
  SEARCH_IGNORE_CASE = 0x08,    // for point texts, attribute names and text values; never for feature names
  SEARCH_PARTIAL_MATCH = 0x10,  // point texts and text values need only contain the wanted text
  SEARCH_TIME_RANGE = 0x20,     // a point must lie in the time range
  SEARCH_IN_AREA = 0x40         // a point must lie in m_area
};

class KESP_EXPORT CKespSearch {
 public:
  // A disabled filter without a value test: it takes everything until it is enabled.
  CKespSearch() noexcept = default;
  // An enabled one, as after Set with the same arguments.
  CKespSearch(double first, double second) noexcept : m_enabled(true) { Set(first, second); }
  explicit CKespSearch(const CString& text) : m_enabled(true) { Set(text); }

  // Asks for a number from the smaller to the larger of the two, both included. With a NaN among them both bounds
  // become the second one.
  void Set(double first, double second) noexcept;
  // Asks for a text.
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
  void SetAttributeNameFilter(const CString& name) { m_attributeNameFilter = name; }  // empty for every name
  void SetPointNameFilter(const CString& text) { m_pointNameFilter = text; }          // empty for no test
  void FeatureNameFilterAdd(const CString& name) { m_featureNames.push_back(name); }  // a second time too
  // Removes the first entry that is NOT the name, letter case minded: from [A, B], the argument A removes B. True when
  // an entry went or the list was empty. Hosts narrow their lists to a name by this; one that removed the name itself
  // would leave them with the opposite.
  bool FeatureNameRemove(const CString& name);
  bool FeatureNameClearAll() noexcept;  // always true

  bool IsASearchAll() const noexcept { return m_featureNames.empty(); }
  bool IsAllAttributeSearch() const noexcept { return m_attributeNameFilter.IsEmpty(); }
  // These two answer whether or not the filter is enabled. There is no partial match of names.
  bool IsFeatureIncluded(const CString& name) const noexcept;
  bool IsAttributeIncluded(const CString& name) const noexcept;

  // Whether a value is the wanted one. A disabled filter and SEARCH_VALUE_NONE take every value; otherwise a number
  // fails a search for a text and the other way round, inverted or not. A NaN lies in every range.
  bool Validate(double value) const noexcept;
  bool Validate(const CString& text) const noexcept { return ValidateText(text.View()); }
  // Whole numbers, so that a plain 0 is one and not a null pointer. Twice, since a filter that is not const would
  // choose a feature otherwise.
  template <std::integral Number>
  bool Validate(Number value) noexcept {
    return Validate(static_cast<double>(value));
  }
  template <std::integral Number>
  bool Validate(Number value) const noexcept {
    return Validate(static_cast<double>(value));
  }
  // The same for an attribute's value, its name aside: the number of a numeric one, the text of a string, the date as
  // GetAsFormatedString has it, either text of a menu. Other kinds and null fail where a value is asked for.
  bool Validate(const CKespAttribute* attribute) const;
  // Whether the feature passes. A disabled filter takes every feature, null too; an enabled one refuses null. Without
  // any of the three types in the options it takes all types, and unless it is const it keeps that in the options:
  // hosts that show them rely on it.
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
  bool Has(KESP_SEARCH_OPTION option) const noexcept { return (m_searchOptions & option) != 0; }
  bool ValidateText(std::u16string_view text) const noexcept;
  bool TextsEqual(std::u16string_view text, std::u16string_view wanted) const noexcept;   // folded where asked for
  bool TextMatches(std::u16string_view text, std::u16string_view wanted) const noexcept;  // partially too
  bool IsTypeIncluded(std::uint32_t type) const noexcept;
  bool PassesPointTest(const CKespFeature& feature) const noexcept;
  bool PassesAttributeTest(const CKespFeature& feature) const;
};
