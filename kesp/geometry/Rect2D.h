// A rectangle of four doubles, all 0 by default. The member order is the order in which a rectangle tag stores them.
#pragma once
#include "kesp/geometry/Point2D.h"

struct CRect2D {
  constexpr CRect2D() noexcept = default;
  constexpr CRect2D(double left, double bottom, double right, double top) noexcept
      : minX(left), minY(bottom), maxX(right), maxY(top) {}
  // Whether the point is inside; all four edges count as inside, a NaN does not.
  constexpr bool PtInRect(const CPoint2D& point) const noexcept {
    return point.x >= minX && point.x <= maxX && point.y >= minY && point.y <= maxY;
  }
  friend constexpr bool operator==(const CRect2D&, const CRect2D&) noexcept = default;

  double minX = 0;
  double minY = 0;
  double maxX = 0;
  double maxY = 0;
};
