// A position in the plane.
#pragma once

struct CPoint2D {
  constexpr CPoint2D() noexcept = default;
  constexpr CPoint2D(double px, double py) noexcept : x(px), y(py) {}
  friend constexpr bool operator==(const CPoint2D&, const CPoint2D&) noexcept = default;

  double x = 0;
  double y = 0;
};
