// A set of numbers: a bit for each where they are dense, and at most 100 bytes for each where they are not.
#pragma once
#include <array>
#include <cstdint>
#include <unordered_map>

namespace kesp::ogr {

class NumberSet {
 public:
  void Add(std::uint32_t number) { m_pages[number / kPage][number % kPage / 64] |= BitOf(number); }
  bool Has(std::uint32_t number) const {
    const auto page = m_pages.find(number / kPage);
    return page != m_pages.end() && (page->second[number % kPage / 64] & BitOf(number)) != 0;
  }

 private:
  static constexpr std::uint32_t kPage = 256;
  static constexpr std::uint64_t BitOf(std::uint32_t number) noexcept { return std::uint64_t{1} << number % 64; }
  std::unordered_map<std::uint32_t, std::array<std::uint64_t, kPage / 64>> m_pages;
};

}  // namespace kesp::ogr
