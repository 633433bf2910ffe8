// A rectangle of four signed 32-bit values, all 0 by default. They are neither ordered nor checked.
#pragma once
#include <cstdint>

struct CRect {
  constexpr CRect() noexcept = default;
  constexpr CRect(std::int32_t l, std::int32_t t, std::int32_t r, std::int32_t b) noexcept
      : left(l), top(t), right(r), bottom(b) {}
  constexpr void SetRectEmpty() noexcept { *this = CRect(); }
  friend constexpr bool operator==(const CRect&, const CRect&) noexcept = default;

  std::int32_t left = 0;
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
};
