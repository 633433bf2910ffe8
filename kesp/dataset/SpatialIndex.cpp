#include "kesp/dataset/SpatialIndex.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>
#include <utility>

namespace kesp {
namespace {

constexpr std::size_t kPerNode = 16;

CRect2D BoxOf(const CPoint2D& point) { return {point.x, point.y, point.x, point.y}; }
const CRect2D& BoxOf(const CRect2D& box) { return box; }

// Halved first: the sum of two finite numbers may not be finite.
double MiddleX(const CPoint2D& point) { return point.x; }
double MiddleY(const CPoint2D& point) { return point.y; }
double MiddleX(const CRect2D& box) { return box.minX / 2 + box.maxX / 2; }
double MiddleY(const CRect2D& box) { return box.minY / 2 + box.maxY / 2; }

CRect2D Around(const CRect2D& a, const CRect2D& b) {
  return {std::min(a.minX, b.minX), std::min(a.minY, b.minY), std::max(a.maxX, b.maxX), std::max(a.maxY, b.maxY)};
}

bool Touch(const CRect2D& a, const CRect2D& b) {
  return a.minX <= b.maxX && a.maxX >= b.minX && a.minY <= b.maxY && a.maxY >= b.minY;
}

bool Contains(const CRect2D& outer, const CRect2D& inner) {
  return outer.PtInRect({inner.minX, inner.minY}) && outer.PtInRect({inner.maxX, inner.maxY});
}

template <class Shape>
void SortIntoTiles(std::vector<Placed<Shape>>& entries) {
  const auto byX = [](const auto& a, const auto& b) { return MiddleX(a.shape) < MiddleX(b.shape); };
  const auto byY = [](const auto& a, const auto& b) { return MiddleY(a.shape) < MiddleY(b.shape); };
  const auto tiles = static_cast<double>(entries.size()) / kPerNode;
  const std::size_t slice = kPerNode * static_cast<std::size_t>(std::ceil(std::sqrt(tiles)));
  std::sort(entries.begin(), entries.end(), byX);
  for (auto at = entries.begin(); at != entries.end();) {
    const auto left = static_cast<std::size_t>(entries.end() - at);
    const auto end = at + static_cast<std::ptrdiff_t>(std::min(slice, left));
    std::sort(at, end, byY);
    at = end;
  }
}

// Returns the boxes around `per` neighbours each.
template <class Boxes, class ToBox>
std::vector<CRect2D> Group(const Boxes& below, std::size_t per, ToBox toBox) {
  std::vector<CRect2D> boxes;
  boxes.reserve((below.size() + per - 1) / per);
  for (std::size_t i = 0; i < below.size(); ++i) {
    const CRect2D box = toBox(below[i]);
    if (i % per == 0) {
      boxes.push_back(box);
    } else {
      boxes.back() = Around(boxes.back(), box);
    }
  }
  return boxes;
}

// A few numbers are sorted. Many are marked in a bit for each number between the least and the greatest: at most 16
// words for each, which takes a tenth of the time.
void SortPlaces(std::vector<std::uint32_t>& places) {
  if (places.empty()) return;
  constexpr std::size_t kBits = 64;
  const auto [least, greatest] = std::minmax_element(places.begin(), places.end());
  const std::uint32_t first = *least;
  const std::size_t range = *greatest - first + std::size_t{1};
  if (range / kBits > 16 * places.size()) {
    std::sort(places.begin(), places.end());
    return;
  }
  std::vector<std::uint64_t> marks((range + kBits - 1) / kBits);
  for (const std::uint32_t place : places) {
    marks[(place - first) / kBits] |= std::uint64_t{1} << (place - first) % kBits;
  }
  auto to = places.begin();
  for (std::size_t word = 0; word < marks.size(); ++word) {
    for (std::uint64_t bits = marks[word]; bits != 0; bits &= bits - 1) {
      *to++ = static_cast<std::uint32_t>(first + word * kBits + static_cast<std::size_t>(std::countr_zero(bits)));
    }
  }
}

}  // namespace

struct SpatialIndex::Search {
  const CRect2D& rect;
  const Test& isIn;
  std::vector<std::uint32_t> found;
};

SpatialIndex::SpatialIndex(std::vector<Placed<CPoint2D>> points) : m_perLowestBox(kPerNode) { Build(points); }

SpatialIndex::SpatialIndex(std::vector<Placed<CRect2D>> boxes) : m_perLowestBox(1) { Build(boxes); }

template <class Shape>
void SpatialIndex::Build(std::vector<Placed<Shape>>& entries) {
  SortIntoTiles(entries);
  m_places.reserve(entries.size());
  for (const auto& entry : entries) m_places.push_back(entry.place);
  m_levels.push_back(Group(entries, m_perLowestBox, [](const auto& entry) { return BoxOf(entry.shape); }));
  while (m_levels.back().size() > 1) {
    m_levels.push_back(Group(m_levels.back(), kPerNode, [](const CRect2D& box) { return box; }));
  }
}

std::vector<std::uint32_t> SpatialIndex::PlacesIn(const CRect2D& rect, const Test& isIn) const {
  Search search{rect, isIn, {}};
  const bool isRect = rect.minX <= rect.maxX && rect.minY <= rect.maxY;
  if (isRect && !m_places.empty()) Visit(search, m_levels.size() - 1, 0);
  SortPlaces(search.found);
  return std::move(search.found);
}

// A node's entries are neighbours in m_places.
void SpatialIndex::Visit(Search& search, std::size_t level, std::size_t node) const {
  const CRect2D& box = m_levels[level][node];
  if (!Touch(box, search.rect)) return;
  if (level > 0 && !Contains(search.rect, box)) {
    const std::size_t end = std::min((node + 1) * kPerNode, m_levels[level - 1].size());
    for (std::size_t child = node * kPerNode; child < end; ++child) Visit(search, level - 1, child);
    return;
  }
  std::size_t entries = m_perLowestBox;
  for (std::size_t i = 0; i < level; ++i) entries *= kPerNode;
  const auto first = m_places.begin() + static_cast<std::ptrdiff_t>(node * entries);
  const auto last = m_places.begin() + static_cast<std::ptrdiff_t>(std::min((node + 1) * entries, m_places.size()));
  if (m_perLowestBox == 1 || Contains(search.rect, box)) {
    search.found.insert(search.found.end(), first, last);
  } else {
    std::copy_if(first, last, std::back_inserter(search.found), search.isIn);
  }
}

}  // namespace kesp
