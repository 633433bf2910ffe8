// Codes for texts, found by their UTF-16 units without making a text.
#pragma once
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kesp/format/RecordView.h"
#include "ogr/Utf8Text.h"

namespace kesp::ogr {

enum class LetterCase { kMatters, kIgnored };  // of A to Z

class TextTable {
 public:
  TextTable(std::size_t most, LetterCase letterCase) : m_most(most), m_letterCase(letterCase) {}

  static constexpr std::size_t kNone = ~std::size_t{0};
  // The code of a text, which is how many others came before it; kNone if it is not there and the table is full.
  std::size_t Add(const TextView& text) {
    const std::size_t found = Find(text);
    if (found != kNone || m_texts.size() == m_most) return found;
    Units units;
    m_codes.emplace(Key(text, units), m_texts.size());
    m_texts.push_back(Utf8Of(text));
    m_spellings.emplace_back(text.CopyTo(units)) += u'\0';
    m_next.push_back(m_texts.size() - 1);
    return m_texts.size() - 1;
  }
  std::size_t Find(const TextView& text) const {
    if (m_last != kNone && IsSpelt(text, m_next[m_last])) return m_last = m_next[m_last];
    Units units;
    const auto found = m_codes.find(Key(text, units));
    if (found == m_codes.end()) return kNone;
    if (m_last != kNone) m_next[m_last] = found->second;
    return m_last = found->second;
  }
  std::size_t Size() const noexcept { return m_texts.size(); }
  const std::string& operator[](std::size_t code) const noexcept { return m_texts[code]; }  // in UTF-8, as first added

 private:
  using Units = std::array<char16_t, TextView::kMostUnits>;
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::u16string_view text) const noexcept { return std::hash<std::u16string_view>()(text); }
  };
  std::u16string_view Key(const TextView& text, Units& units) const noexcept {
    const std::u16string_view key = text.CopyTo(units);
    if (m_letterCase == LetterCase::kMatters) return key;
    for (std::size_t i = 0; i < key.size(); ++i) {
      if (units[i] >= u'A' && units[i] <= u'Z') units[i] = static_cast<char16_t>(units[i] + (u'a' - u'A'));
    }
    return key;
  }

  // Whether the text is one that is there, in the letter case in which it was added.
  bool IsSpelt(const TextView& text, std::size_t code) const noexcept {
    const std::u16string& spelling = m_spellings[code];  // with its zero
    const std::span<const std::byte> field = text.Field();
    const std::size_t bytes = 2 * spelling.size();
    return std::endian::native == std::endian::little && text.IsWide() && bytes <= field.size() &&
           std::memcmp(field.data(), spelling.data(), bytes) == 0;
  }

  std::size_t m_most;
  LetterCase m_letterCase;
  std::unordered_map<std::u16string, std::size_t, Hash, std::equal_to<>> m_codes;
  std::vector<std::string> m_texts;
  std::vector<std::u16string> m_spellings;
  // Features have their attributes mostly in the same order. So the text that came after the last one is tried first.
  mutable std::size_t m_last = kNone;
  mutable std::vector<std::size_t> m_next;
};

}  // namespace kesp::ogr
