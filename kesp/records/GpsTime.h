// Two small values that tie GPS time marks to points.
#pragma once
#include <cstdint>

#include "kesp/platform/Export.h"

// A GPS time mark, used as a hash key. The host decides what the two parts mean.
class KESP_EXPORT CGPSTime {
 public:
  constexpr CGPSTime() noexcept = default;
  constexpr CGPSTime(std::uint32_t firstPart, std::uint32_t secondPart) noexcept
      : FirstPart(firstPart), SecondPart(secondPart) {}
  friend constexpr bool operator==(const CGPSTime&, const CGPSTime&) noexcept = default;
  // The hash word: the hash of a mark is its first part shifted right by 4.
  constexpr operator unsigned int() const noexcept { return FirstPart; }

  std::uint32_t FirstPart = 0;
  std::uint32_t SecondPart = 0;
};

// Names one point of one feature.
class KESP_EXPORT CKespFeaturePtPair {
 public:
  constexpr CKespFeaturePtPair() noexcept = default;
  constexpr CKespFeaturePtPair(std::uint32_t featureNumber, std::uint32_t pointNumber) noexcept
      : PointNumber(pointNumber), FeatureNumber(featureNumber) {}
  constexpr unsigned long GetFeatureNumber() const noexcept { return FeatureNumber; }
  // The second argument is ignored.
  constexpr bool SetFeatureNumber(unsigned long featureNumber, unsigned long = 0) noexcept {
    FeatureNumber = static_cast<std::uint32_t>(featureNumber);
    return true;
  }

  std::uint32_t PointNumber = 0;
  std::uint32_t FeatureNumber = 0;
};
