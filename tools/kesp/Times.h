// Times as people and programs write them: RFC 3339 in UTC.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kesp::tool {

// 2024-05-01T12:00:00Z. Times of points are in 32 bits, so that a year has four digits.
class IsoText {
 public:
  explicit IsoText(std::int64_t seconds);  // since 1970
  std::string_view View() const noexcept { return {m_text.data(), m_text.size()}; }

 private:
  void Put(std::size_t at, std::size_t digits, unsigned number);
  std::array<char, 20> m_text{'0', '0', '0', '0', '-', '0', '0', '-', '0', '0',
                              'T', '0', '0', ':', '0', '0', ':', '0', '0', 'Z'};
};

// 2024-05-01, 2024-05-01T12:00 or 2024-05-01T12:00:00, with a Z or an offset such as +02:00, or UTC without one. A day
// alone ends at its last second when it `ends` a range.
std::optional<std::int64_t> ParseTime(std::string_view text, bool ends);

}  // namespace kesp::tool
