#include "kesp/search/FeatureTest.h"

#include "kesp/format/RecordView.h"
#include "kesp/geometry/Point2D.h"
#include "kesp/search/KespSearch.h"

namespace kesp {

template <class Text>
FeatureTest::State FeatureTest::StartWith(std::uint32_t type, const Text& name) const noexcept {
  State state;
  state.m_bits = 0;
  if (!m_search.m_enabled) return state;
  if (!m_search.IsTypeIncluded(type) || !m_search.IsNameIncluded(name)) state.Set(State::kIsRefused);
  const bool asksForText = !m_search.m_pointNameFilter.IsEmpty();
  if (!asksForText) state.Set(State::kHasPointText);
  if (asksForText || m_search.Has(SEARCH_TIME_RANGE) || m_search.Has(SEARCH_IN_AREA)) state.Set(State::kAsksForPoint);
  if (m_search.m_valueKind != SEARCH_VALUE_NONE) state.Set(State::kAsksForAttribute);
  return state;
}

FeatureTest::State FeatureTest::Start(const FeatureView& feature) const noexcept {
  return StartWith(feature.FeatureType(), feature.FeatureName());
}

FeatureTest::State FeatureTest::Start(std::uint32_t type, std::u16string_view name) const noexcept {
  return StartWith(type, name);
}

template <class Text>
bool FeatureTest::HasAll(State& state, const Text& text, std::int32_t time, double x, double y) const noexcept {
  // Stays after the first point that has the text.
  if (!state.Has(State::kHasPointText)) {
    if (!m_search.TextMatches(text, m_search.m_pointNameFilter.View())) return false;
    state.Set(State::kHasPointText);
  }
  if (m_search.Has(SEARCH_TIME_RANGE) && (CTime(time) < m_search.m_startTime || CTime(time) > m_search.m_endTime)) {
    return false;
  }
  return !m_search.Has(SEARCH_IN_AREA) || m_search.m_area.PtInRect(CPoint2D(x, y));
}

void FeatureTest::Test(State& state, const PointView& point) const noexcept {
  if (HasAll(state, point.PointText(), point.PointTime(), point.CoordX(), point.CoordY())) {
    state.Clear(State::kAsksForPoint);
  }
}

void FeatureTest::Add(State& state, const CKespPoint* point) const noexcept {
  state.Set(State::kHasPoints);
  if (!state.AsksForPoint() || point == nullptr) return;
  if (HasAll(state, point->PointText.View(), point->PointTime, point->CoordX, point->CoordY)) {
    state.Clear(State::kAsksForPoint);
  }
}

void FeatureTest::Test(State& state, const AttributeView& attribute) const noexcept {
  if (m_search.IsAttributeIncluded(attribute.AttributeName()) && m_search.Validate(attribute)) {
    state.Clear(State::kAsksForAttribute);
  }
}

void FeatureTest::Add(State& state, const CKespAttribute* attribute) const noexcept {
  state.Set(State::kHasAttributes);
  if (!state.AsksForAttribute() || attribute == nullptr) return;
  if (m_search.IsAttributeIncluded(attribute->AttributeName) && m_search.Validate(attribute)) {
    state.Clear(State::kAsksForAttribute);
  }
}

}  // namespace kesp
