#include "ogr/Directory.h"

#include <algorithm>
#include <utility>

namespace kesp::ogr {

void Directory::Add(std::uint32_t position, std::uint32_t number, std::uint16_t name, KESP_FEATURE_TYPE kind) {
  const Entry entry{{}, position, number, 1, name, Entry::BitOf(kind)};
  m_gone.erase(number);
  const bool ascends =
      !m_isFinished && (m_entries.empty() || (m_ascending == m_entries.size() && number > m_lastNumber));
  if (ascends) {
    m_lastNumber = number;
    AddEntry(entry);
    m_ascending = m_entries.size();
    return;
  }
  if (Find(number)) {
    const Straggler repeat{number, position};
    m_repeats.insert(m_isFinished ? std::upper_bound(m_repeats.begin(), m_repeats.end(), repeat) : m_repeats.end(),
                     repeat);
  }
  m_others.insert_or_assign(number, static_cast<std::uint32_t>(m_entries.size()));
  m_entries.push_back(entry);
}

void Directory::AddEntry(const Entry& entry) {
  if (IsMerged()) m_numbers.Add(entry.number);
  if (MergeIntoLast(entry)) return;
  if (m_entries.size() >= m_mostEntries) {
    if (!IsMerged()) {
      for (const Entry& single : m_entries) m_numbers.Add(single.number);
      m_numbers.Add(entry.number);
    }
    MergePairs();
    if (MergeIntoLast(entry)) return;
  }
  m_entries.push_back(entry);
}

bool Directory::MergeIntoLast(const Entry& entry) {
  if (m_entries.empty() || m_entries.back().count >= m_perEntry) return false;
  Merge(m_entries.back(), entry);
  return true;
}

void Directory::MergePairs() {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < m_entries.size(); i += 2) {
    m_entries[kept] = m_entries[i];
    if (i + 1 < m_entries.size()) Merge(m_entries[kept], m_entries[i + 1]);
    ++kept;
  }
  m_entries.resize(kept);
  m_perEntry *= 2;
}

void Directory::Merge(Entry& into, const Entry& from) noexcept {
  into.box.Include(from.box);
  into.count += from.count;
  into.kinds |= from.kinds;
  if (into.name != from.name) into.name = Entry::kMixedNames;
}

std::optional<std::size_t> Directory::Find(std::uint32_t number) const {
  if (const auto found = m_others.find(number); found != m_others.end()) return found->second;
  const auto end = m_entries.begin() + static_cast<std::ptrdiff_t>(m_ascending);
  auto after = std::upper_bound(m_entries.begin(), end, number,
                                [](std::uint32_t wanted, const Entry& entry) { return wanted < entry.number; });
  if (after == m_entries.begin()) return std::nullopt;
  --after;
  const bool isThere = IsMerged() ? m_numbers.Has(number) : after->number == number;
  if (!isThere) return std::nullopt;
  return static_cast<std::size_t>(after - m_entries.begin());
}

void Directory::Finish() {
  if (!std::exchange(m_isFinished, true)) std::sort(m_repeats.begin(), m_repeats.end());
  if (m_places.size() == m_stragglers.size()) return;
  const auto added = m_stragglers.begin() + static_cast<std::ptrdiff_t>(m_places.size());
  m_places.reserve(m_stragglers.size());
  for (auto straggler = added; straggler != m_stragglers.end(); ++straggler) m_places.push_back(straggler->position);
  std::sort(added, m_stragglers.end());
  std::inplace_merge(m_stragglers.begin(), added, m_stragglers.end());
}

std::optional<std::size_t> Directory::At(std::uint64_t position) const noexcept {
  const auto after = std::upper_bound(m_entries.begin(), m_entries.end(), position,
                                      [](std::uint64_t wanted, const Entry& entry) { return wanted < entry.position; });
  if (after == m_entries.begin()) return std::nullopt;
  return static_cast<std::size_t>(after - m_entries.begin()) - 1;
}

std::uint64_t Directory::NextWithNumber(std::uint32_t number, std::uint64_t position) const noexcept {
  const Straggler here{number, static_cast<std::uint32_t>(position)};
  const auto next = std::upper_bound(m_repeats.begin(), m_repeats.end(), here);
  return next != m_repeats.end() && next->number == number ? next->position : UINT64_MAX;
}

std::int64_t Directory::FidOf(std::uint32_t number, std::uint64_t position) const noexcept {
  const bool isLast = NextWithNumber(number, position) == UINT64_MAX;
  return isLast ? std::int64_t{number} : kFirstPosition + static_cast<std::int64_t>(position);
}

std::span<const Directory::Straggler> Directory::StragglersOf(std::uint32_t number,
                                                              std::uint64_t position) const noexcept {
  if (m_stragglers.empty()) return {};
  const auto end = static_cast<std::uint32_t>(std::min<std::uint64_t>(NextWithNumber(number, position), UINT32_MAX));
  const Straggler from{number, static_cast<std::uint32_t>(position)};
  const auto first = std::lower_bound(m_stragglers.begin(), m_stragglers.end(), from);
  const auto last = std::lower_bound(first, m_stragglers.end(), Straggler{number, end});
  return {first, last};
}

bool Directory::IsStraggler(std::uint32_t number, std::uint64_t position) const noexcept {
  const Straggler wanted{number, static_cast<std::uint32_t>(position)};
  return std::binary_search(m_stragglers.begin(), m_stragglers.end(), wanted);
}

bool Directory::HasStragglers(std::uint64_t from, std::uint64_t to) const noexcept {
  const auto first = std::lower_bound(m_places.begin(), m_places.end(), from);
  return first != m_places.end() && *first < to;
}

}  // namespace kesp::ogr
