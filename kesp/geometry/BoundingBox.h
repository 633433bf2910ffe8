// An extent that grows with the points put into it.
//
//   CBoundingBox box;
//   for (const CPoint2D& p : points) box.Include(p.x, p.y);
//   if (box.IsValid()) Zoom(box.MinX(), box.MaxX(), box.MinY(), box.MaxY());
//
// A box is valid when both minima are at most their maxima and all four are finite. A new, reset or invalidated box is
// invalid. An invalid box returns four zeros, so that no infinity gets into a file.
#pragma once
#include <cmath>
#include <limits>

class CBoundingBox {
 public:
  CBoundingBox() noexcept = default;
  CBoundingBox(double minX, double maxX, double minY, double maxY) noexcept { Set(minX, maxX, minY, maxY); }

  void Reset() noexcept { *this = CBoundingBox(); }
  void Invalidate() noexcept { Reset(); }
  bool IsValid() const noexcept {
    return m_minX <= m_maxX && m_minY <= m_maxY && std::isfinite(m_minX) && std::isfinite(m_maxX) &&
           std::isfinite(m_minY) && std::isfinite(m_maxY);
  }
  void Set(double minX, double maxX, double minY, double maxY) noexcept {
    m_minX = minX;
    m_maxX = maxX;
    m_minY = minY;
    m_maxY = maxY;
  }
  void Get(double& minX, double& maxX, double& minY, double& maxY) const noexcept {
    minX = MinX();
    maxX = MaxX();
    minY = MinY();
    maxY = MaxY();
  }
  // Extends the box to the point. A point that is not finite changes nothing; an invalid box becomes the point.
  void Include(double x, double y) noexcept {
    if (!std::isfinite(x) || !std::isfinite(y)) return;
    if (!IsValid()) {
      Set(x, x, y, y);
      return;
    }
    m_minX = x < m_minX ? x : m_minX;
    m_maxX = x > m_maxX ? x : m_maxX;
    m_minY = y < m_minY ? y : m_minY;
    m_maxY = y > m_maxY ? y : m_maxY;
  }
  double MinX() const noexcept { return IsValid() ? m_minX : 0; }
  double MaxX() const noexcept { return IsValid() ? m_maxX : 0; }
  double MinY() const noexcept { return IsValid() ? m_minY : 0; }
  double MaxY() const noexcept { return IsValid() ? m_maxY : 0; }

 private:
  double m_minX = std::numeric_limits<double>::infinity();
  double m_maxX = -std::numeric_limits<double>::infinity();
  double m_minY = std::numeric_limits<double>::infinity();
  double m_maxY = -std::numeric_limits<double>::infinity();
};
