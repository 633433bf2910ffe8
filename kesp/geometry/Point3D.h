// A position with a height.
#pragma once

struct CPoint3D {
  constexpr CPoint3D() noexcept = default;
  constexpr CPoint3D(double px, double py, double pz) noexcept : x(px), y(py), z(pz) {}
  friend constexpr bool operator==(const CPoint3D&, const CPoint3D&) noexcept = default;

  double x = 0;
  double y = 0;
  double z = 0;
};
