#include "python/src/Finding.h"

#include <algorithm>

#include "kesp/search/KespSearch.h"
#include "python/src/Text.h"

namespace kesp::python {
namespace {

constexpr int kAllTypes = SEARCH_POINT_FEATURES | SEARCH_LINE_FEATURES | SEARCH_AREA_FEATURES;

int TextOptions(const py::dict& asked) {
  return (asked["ignore_case"].cast<bool>() ? SEARCH_IGNORE_CASE : 0) |
         (asked["partial"].cast<bool>() ? SEARCH_PARTIAL_MATCH : 0);
}

// What is asked of the feature itself and of its points.
CKespSearch PointSearch(const py::dict& asked, bool& needsPoints) {
  CKespSearch search;
  search.Enable(true);
  int options = asked["types"].cast<int>() | TextOptions(asked);
  for (const py::handle name : asked["names"]) search.FeatureNameFilterAdd(FromStr(name));
  if (const py::object rect = asked["rect"]; !rect.is_none()) {
    const auto [minX, minY, maxX, maxY] = rect.cast<std::tuple<double, double, double, double>>();
    search.SetAreaFilter(CRect2D(minX, minY, maxX, maxY));
    options |= SEARCH_IN_AREA;
  }
  if (const py::object times = asked["times"]; !times.is_none()) {
    const auto [first, last] = times.cast<std::pair<std::int64_t, std::int64_t>>();
    search.SetTimeRangeFilter(CTime(first), CTime(last));
    options |= SEARCH_TIME_RANGE;
  }
  const py::object text = asked["text"];
  if (!text.is_none()) search.SetPointNameFilter(FromStr(text));
  needsPoints = !text.is_none() || (options & (SEARCH_IN_AREA | SEARCH_TIME_RANGE)) != 0;
  search.SetSearchOptions(options);
  return search;
}

std::vector<CKespSearch> AttributeSearches(const py::dict& asked) {
  std::vector<CKespSearch> searches;
  for (const py::handle item : asked["where"]) {
    const auto condition = item.cast<py::tuple>();
    CKespSearch& search = searches.emplace_back();
    search.Enable(true);
    search.SetSearchOptions(kAllTypes | TextOptions(asked));
    search.SetAttributeNameFilter(FromStr(condition[0]));
    if (condition.size() == 3) {
      search.Set(condition[1].cast<double>(), condition[2].cast<double>());
    } else {
      search.Set(FromStr(condition[1]));
    }
  }
  return searches;
}

}  // namespace

std::vector<std::size_t> Find(const Store& store, const py::dict& asked) {
  store.Check();
  bool needsPoints = false;
  const CKespSearch points = PointSearch(asked, needsPoints);
  const std::vector<CKespSearch> attributes = AttributeSearches(asked);
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < store.Features().size(); ++i) {
    const std::shared_ptr<CKespFeature>& feature = store.Features()[i].record;
    if (store.Features()[i].isGone || (needsPoints && feature->GetNumPoints() == 0)) continue;
    if (!attributes.empty() && feature->GetNumAttributes() == 0) continue;
    if (!points.Validate(feature.get())) continue;
    const bool passes = std::ranges::all_of(
        attributes, [tested = feature.get()](const CKespSearch& search) { return search.Validate(tested); });
    if (passes) found.push_back(i);
  }
  return found;
}

}  // namespace kesp::python
