// The vertices of one feature, with their values in arrays, as OGR's curves take them at once.
#pragma once
#include <cstddef>
#include <vector>

#include <ogr_geometry.h>

namespace kesp::ogr {

struct MeasuredVertex {
  double x, y, z, m;
};

class Vertices {
 public:
  void Clear() noexcept {
    m_places.clear();
    m_heights.clear();
    m_measures.clear();
  }
  void Add(const MeasuredVertex& v) {
    m_places.emplace_back(v.x, v.y);
    m_heights.push_back(v.z);
    m_measures.push_back(v.m);
  }
  bool IsEmpty() const noexcept { return m_places.empty(); }
  std::size_t Size() const noexcept { return m_places.size(); }
  // Below Size().
  MeasuredVertex operator[](std::size_t i) const noexcept {
    return {m_places[i].x, m_places[i].y, m_heights[i], m_measures[i]};
  }
  void CopyTo(OGRSimpleCurve& curve) const {
    curve.setPoints(static_cast<int>(Size()), m_places.data(), m_heights.data(), m_measures.data());
  }

 private:
  std::vector<OGRRawPoint> m_places;
  std::vector<double> m_heights, m_measures;
};

}  // namespace kesp::ogr
