// Where the features of a file are: what a first walk finds, so that later ones read only what they need.
//
// An entry has the place of a feature, its number, its name, its kind, and a box around it. When there are
// kMostEntries, neighbours are merged in pairs, and an entry is for several features in a row. So memory doesn't grow
// with the file as long as numbers ascend, as they do in files that were written in one go. From the first feature on
// whose number doesn't, each has an entry of its own, since only then it can be found by its number.
//
// The records of a feature usually follow it, up to its end record: its run (see Run.h). A point or an attribute
// elsewhere is a straggler. The directory has a list of those that belong to a feature.
//
// Positions are offsets in the file, which has less than 4 GiB.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kesp/records/KespFeature.h"
#include "ogr/Box.h"
#include "ogr/NumberSet.h"

namespace kesp::ogr {

struct Entry {
  FloatBox box;
  std::uint32_t position;  // of the first feature
  std::uint32_t number;    // of the first feature
  std::uint32_t count;     // of features that were not deleted since
  std::uint16_t name;      // see Survey::NameCodeOf; kMixedNames if they differ
  std::uint16_t kinds;     // a bit for each KESP_FEATURE_TYPE

  static constexpr std::uint16_t kMixedNames = 0xFFFE;
  static constexpr std::uint16_t BitOf(KESP_FEATURE_TYPE kind) noexcept {
    return static_cast<std::uint16_t>(1U << static_cast<unsigned>(kind));
  }
};
static_assert(sizeof(Entry) == 32);

class Directory {
 public:
  static constexpr std::size_t kMostEntries = std::size_t{1} << 20;
  // A feature whose number a later one has is found by its position plus this, beyond all numbers.
  static constexpr std::int64_t kFirstPosition = std::int64_t{1} << 32;

  explicit Directory(std::size_t mostEntries = kMostEntries) noexcept : m_mostEntries(mostEntries) {}

  // The first walk.

  void Add(std::uint32_t position, std::uint32_t number, std::uint16_t name, KESP_FEATURE_TYPE kind);
  // The entry of the last feature with this number so far.
  std::optional<std::size_t> Find(std::uint32_t number) const;
  void Grow(std::size_t entry, const Box& box) { m_entries[entry].box.Include(box); }
  void AddStraggler(std::uint32_t number, std::uint32_t position) { m_stragglers.push_back({number, position}); }
  // Ends a walk: the first one, or one over what was appended. Features that are added after the first have entries of
  // their own.
  void Finish();
  // Becomes empty again.
  void Forget() { *this = Directory(m_mostEntries); }

  // Later.

  std::span<const Entry> Entries() const noexcept { return m_entries; }
  bool IsMerged() const noexcept { return m_perEntry != 1; }
  // Where the features of an entry end: the position of the next entry, or UINT64_MAX.
  std::uint64_t EndOf(std::size_t entry) const noexcept {
    return entry + 1 < m_entries.size() ? m_entries[entry + 1].position : UINT64_MAX;
  }
  // A feature has been deleted. Find still finds its entry, but its number is free if no later feature has it.
  void Drop(std::uint32_t number, std::uint64_t position) {
    --m_entries[*At(position)].count;
    if (NextWithNumber(number, position) == UINT64_MAX) m_gone.insert(number);
  }
  bool IsGone(std::uint32_t number) const { return m_gone.contains(number); }
  // The name of one of its features has changed.
  void ForgetName(std::size_t entry) noexcept { m_entries[entry].name = Entry::kMixedNames; }
  // The entry in which a position lies; null before the first.
  std::optional<std::size_t> At(std::uint64_t position) const noexcept;
  // If numbers repeat, the later feature has the number from its place on. Where the next one with the number of a
  // feature is, or UINT64_MAX.
  std::uint64_t NextWithNumber(std::uint32_t number, std::uint64_t position) const noexcept;
  // The number of a feature, or, if a later one has the same number, 2^32 + its position.
  std::int64_t FidOf(std::uint32_t number, std::uint64_t position) const noexcept;
  bool HasRepeats() const noexcept { return !m_repeats.empty(); }

  struct Straggler {
    std::uint32_t number;  // of the feature
    std::uint32_t position;
    friend auto operator<=>(const Straggler&, const Straggler&) = default;
  };
  // The stragglers of a feature in file order.
  std::span<const Straggler> StragglersOf(std::uint32_t number, std::uint64_t position) const noexcept;
  bool IsStraggler(std::uint32_t number, std::uint64_t position) const noexcept;
  // Whether there is a straggler in [from, to).
  bool HasStragglers(std::uint64_t from, std::uint64_t to) const noexcept;

 private:
  void AddEntry(const Entry& entry);
  bool MergeIntoLast(const Entry& entry);
  void MergePairs();
  static void Merge(Entry& into, const Entry& from) noexcept;

  std::size_t m_mostEntries;
  bool m_isFinished = false;
  std::vector<Entry> m_entries;
  std::size_t m_ascending = 0;   // the numbers of so many entries ascend; those after them are in m_others
  std::uint32_t m_perEntry = 1;  // features, in these entries
  std::uint32_t m_lastNumber = 0;
  NumberSet m_numbers;                                        // of the ascending entries, once they are merged
  std::unordered_map<std::uint32_t, std::uint32_t> m_others;  // number to entry
  std::unordered_set<std::uint32_t> m_gone;                   // numbers of features that were dropped
  std::vector<Straggler> m_repeats;                           // features whose number was there before; sorted
  std::vector<Straggler> m_stragglers;                        // by number and position, after Finish
  std::vector<std::uint32_t> m_places;                        // of the stragglers, in file order
};

}  // namespace kesp::ogr
