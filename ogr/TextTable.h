// Codes for texts, found by their UTF-16 units without making a text.
#pragma once
#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kesp/format/RecordView.h"
#include "kesp/util/Fields.h"
#include "ogr/Utf8Text.h"

namespace kesp::ogr {

enum class LetterCase { kMatters, kIgnored };  // of A to Z

class TextTable {
 public:
  TextTable(std::size_t most, LetterCase letterCase) : m_most(most), m_letterCase(letterCase) {}

  static constexpr std::size_t kNone = ~std::size_t{0};
  // The code of a text, which is how many others came before it; kNone if it is not there and the table is full.
  std::size_t Add(const TextView& text) {
    if (const std::size_t next = Predicted(text); next != kNone) return next;
    Units units;
    const std::u16string_view spelling = text.CopyTo(units);
    const std::uint32_t hash = HashOf(spelling);
    const std::size_t found = Find(spelling, hash);
    if (found != kNone || Size() == m_most) return found;
    (m_units += spelling) += u'\0';
    m_ends.push_back(static_cast<std::uint32_t>(m_units.size()));
    m_next.push_back(Size() - 1);
    if (2 * Size() > m_slots.size()) Grow();
    Put({hash, static_cast<std::uint32_t>(Size())});
    return Size() - 1;
  }
  std::size_t Find(const TextView& text) const {
    if (const std::size_t next = Predicted(text); next != kNone) return next;
    Units units;
    const std::u16string_view spelling = text.CopyTo(units);
    return Find(spelling, HashOf(spelling));
  }
  std::size_t Size() const noexcept { return m_ends.size(); }
  // The same for texts that differ only in the case of A to Z, or that are the same as valid UTF-8.
  static std::uint32_t HashOf(std::u16string_view text) noexcept {
    constexpr char16_t kReplacement = 0xFFFD;
    Units folded;
    std::transform(text.begin(), text.end(), folded.begin(),
                   [](char16_t unit) { return (unit & 0xF800) == 0xD800 ? kReplacement : Lower(unit); });
    return static_cast<std::uint32_t>(std::hash<std::u16string_view>()({folded.data(), text.size()}));
  }
  static std::uint32_t HashOf(const TextView& text) noexcept {
    Units units;
    return HashOf(text.CopyTo(units));
  }
  // In UTF-8, as first added.
  std::string operator[](std::size_t code) const {
    const std::u16string_view spelling = Spelling(code);
    std::vector<std::byte> bytes(2 * spelling.size());
    for (std::size_t i = 0; i < spelling.size(); ++i) StoreLittle(&bytes[2 * i], std::uint16_t{spelling[i]});
    return Utf8Of(TextView(bytes.data(), spelling.size(), true));
  }

 private:
  using Units = std::array<char16_t, TextView::kMostUnits>;
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t next = 0;  // the code plus one; 0 if the slot is free
  };

  static char16_t Lower(char16_t unit) noexcept {
    return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
  }
  std::u16string_view Spelling(std::size_t code) const noexcept {
    const std::size_t begin = code == 0 ? 0 : m_ends[code - 1];
    return {m_units.data() + begin, m_ends[code] - begin - 1};
  }
  bool IsSame(std::u16string_view a, std::u16string_view b) const noexcept {
    if (m_letterCase == LetterCase::kMatters) return a == b;
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char16_t x, char16_t y) { return Lower(x) == Lower(y); });
  }

  std::size_t Find(std::u16string_view text, std::uint32_t hash) const noexcept {
    if (m_slots.empty()) return kNone;
    for (std::size_t i = hash & (m_slots.size() - 1);; i = (i + 1) & (m_slots.size() - 1)) {
      const Slot& slot = m_slots[i];
      if (slot.next == 0) return kNone;
      const std::size_t code = slot.next - 1;
      if (slot.hash != hash || !IsSame(Spelling(code), text)) continue;
      if (m_last != kNone) m_next[m_last] = code;
      return m_last = code;
    }
  }
  // There is a free slot.
  void Put(Slot slot) noexcept {
    std::size_t i = slot.hash & (m_slots.size() - 1);
    while (m_slots[i].next != 0) i = (i + 1) & (m_slots.size() - 1);
    m_slots[i] = slot;
  }
  // At most half of the slots are taken.
  void Grow() {
    constexpr std::size_t kLeast = 64;
    const std::vector<Slot> old = std::move(m_slots);
    m_slots.assign(std::max(kLeast, 2 * old.size()), Slot{});
    for (const Slot& slot : old) {
      if (slot.next != 0) Put(slot);
    }
  }

  std::size_t Predicted(const TextView& text) const noexcept {
    if (m_last == kNone || !IsSpelt(text, m_next[m_last])) return kNone;
    return m_last = m_next[m_last];
  }
  // Whether the text is one that is there, in the letter case in which it was added.
  bool IsSpelt(const TextView& text, std::size_t code) const noexcept {
    const std::u16string_view spelling = Spelling(code);
    const std::span<const std::byte> field = text.Field();
    const std::size_t bytes = 2 * (spelling.size() + 1);  // with its zero
    return std::endian::native == std::endian::little && text.IsWide() && bytes <= field.size() &&
           std::memcmp(field.data(), spelling.data(), bytes) == 0;
  }

  std::size_t m_most;
  LetterCase m_letterCase;
  std::u16string m_units;             // of all texts, a zero after each
  std::vector<std::uint32_t> m_ends;  // by code, after the zero
  std::vector<Slot> m_slots;          // a power of two of them
  // Features have their attributes mostly in the same order. So the text that came after the last one is tried first.
  mutable std::size_t m_last = kNone;
  mutable std::vector<std::size_t> m_next;
};

}  // namespace kesp::ogr
