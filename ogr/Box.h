// Boxes around coordinates.
#pragma once
#include <cmath>
#include <limits>

namespace kesp::ogr {

struct Box {
  double minX = std::numeric_limits<double>::infinity(), minY = minX;
  double maxX = -minX, maxY = -minX;

  bool IsEmpty() const noexcept { return !(minX <= maxX); }
  // Both finite.
  void Include(double x, double y) noexcept {
    minX = x < minX ? x : minX;
    minY = y < minY ? y : minY;
    maxX = x > maxX ? x : maxX;
    maxY = y > maxY ? y : maxY;
  }
};

// Half as wide, and rounded outwards.
struct FloatBox {
  float minX = std::numeric_limits<float>::infinity(), minY = minX;
  float maxX = -minX, maxY = -minX;

  bool IsEmpty() const noexcept { return !(minX <= maxX); }
  void Include(const FloatBox& other) noexcept {
    minX = other.minX < minX ? other.minX : minX;
    minY = other.minY < minY ? other.minY : minY;
    maxX = other.maxX > maxX ? other.maxX : maxX;
    maxY = other.maxY > maxY ? other.maxY : maxY;
  }
  void Include(const Box& other) noexcept {
    if (!other.IsEmpty()) Include(FloatBox{Down(other.minX), Down(other.minY), Up(other.maxX), Up(other.maxY)});
  }
  bool Touches(const Box& other) const noexcept {
    return double{minX} <= other.maxX && double{maxX} >= other.minX && double{minY} <= other.maxY &&
           double{maxY} >= other.minY;
  }

 private:
  static float Down(double value) noexcept {
    const auto nearest = static_cast<float>(value);
    return double{nearest} <= value ? nearest : std::nextafter(nearest, -std::numeric_limits<float>::infinity());
  }
  static float Up(double value) noexcept { return -Down(-value); }
};

}  // namespace kesp::ogr
