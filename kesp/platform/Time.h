// A point in time: signed 64-bit seconds since 1 January 1970 UTC.
#pragma once
#include <compare>
#include <cstdint>

#include "kesp/platform/Export.h"

#ifdef _WIN32
#undef GetCurrentTime  // <windows.h> has a macro of this name; include it before this header
#endif

class KESP_EXPORT CTime {
 public:
  constexpr CTime() noexcept = default;
  constexpr CTime(std::int64_t seconds) noexcept : m_seconds(seconds) {}
  static CTime GetCurrentTime() noexcept;

  constexpr std::int64_t GetTime() const noexcept { return m_seconds; }
  friend constexpr auto operator<=>(const CTime&, const CTime&) noexcept = default;

 private:
  std::int64_t m_seconds = 0;
};
