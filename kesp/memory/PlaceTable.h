// A hash table from values to their places in a sequence that the caller has: 4 bytes a slot, at most half of them in
// use. For finding entries of a long list by what they are, usually pointers.
//
//   PlaceTable table(2 * list.size());
//   for (std::uint32_t i = 0; i < list.size(); ++i) table.Enter(list[i], i);
//   const std::uint32_t place = table.Find(value, [&](std::uint32_t at) { return list[at] == value; });
//
// Entries are not removed: Find asks the caller, so an entry that no longer holds is passed over. Many entries of one
// value make a long chain, so values should seldom repeat.
//
// Errors: the constructor raises std::bad_alloc.
#pragma once
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kesp {

class PlaceTable {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  explicit PlaceTable(std::size_t capacity) : m_slots(std::bit_ceil(2 * capacity + 2), kNone), m_left(capacity) {}

  // Returns false when the table is full.
  bool Enter(std::uint64_t value, std::uint32_t place) noexcept {
    if (m_left == 0) return false;
    --m_left;
    std::size_t slot = Home(value);
    while (m_slots[slot] != kNone) slot = Next(slot);
    m_slots[slot] = place;
    return true;
  }
  // Returns the place of the value that was entered first among those for which `holds(place)` is true, or kNone.
  template <class Holds>
  std::uint32_t Find(std::uint64_t value, Holds holds) const noexcept {
    std::size_t slot = Home(value);
    while (m_slots[slot] != kNone && !holds(m_slots[slot])) slot = Next(slot);
    return m_slots[slot];
  }

 private:
  std::size_t Home(std::uint64_t value) const noexcept {
    return static_cast<std::size_t>((value * 0x9E3779B97F4A7C15U) >> 20) & (m_slots.size() - 1);
  }
  std::size_t Next(std::size_t slot) const noexcept { return (slot + 1) & (m_slots.size() - 1); }

  std::vector<std::uint32_t> m_slots;  // the size is a power of 2
  std::size_t m_left;                  // entries that still fit
};

}  // namespace kesp
