#include "kesp/dataset/KespMap.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <utility>
#include <vector>

#include "kesp/memory/BlockList.h"
#include "kesp/memory/PlaceTable.h"

namespace kesp {
namespace {

constexpr std::uint32_t kBuckets = 17;
constexpr std::uint32_t kNone = 0xFFFFFFFF;
constexpr std::uint32_t kFree = 0xFFFFFFFE;  // `previous` of an entry that is in no chain
constexpr std::size_t kGroup = 8;            // neighbouring keys share a group of slots, one cache line

std::uint64_t MakeSeed() noexcept {
  // Without a source of randomness the maps still work, but are predictable.
  try {
    std::random_device device;
    return std::uint64_t{device()} << 32 | device();
  } catch (const std::exception&) {
    return 0x9E3779B97F4A7C15U;
  }
}

// The seed of the process. Not a function-local static: another thread may be initializing it when the process forks.
std::uint64_t Seed() noexcept {
  static constinit std::atomic<std::uint64_t> seed{0};
  std::uint64_t known = seed.load(std::memory_order_relaxed);
  if (known != 0) return known;
  const std::uint64_t made = MakeSeed() | 1;
  return seed.compare_exchange_strong(known, made) ? made : known;
}

std::uint32_t HashWord(std::uint64_t key) { return static_cast<std::uint32_t>(key); }
std::uint32_t BucketOf(std::uint64_t key) { return (HashWord(key) >> 4) % kBuckets; }

}  // namespace

// The chains of the buckets are only for iterating. Keys are found through an open-addressed table of slots; a seed for
// each process keeps a hostile file from choosing keys that collide there.
struct MapOfWords::State {
  struct Slot {
    std::uint32_t at = kNone;    // index in entries
    std::uint32_t hashWord = 0;  // of the key: most other keys fail here
  };
  // Packed: there may be millions.
  struct Noted {
    std::uint32_t key;
    std::array<std::byte, 8> value;
  };
  static_assert(sizeof(Noted) == 12);

  std::uint64_t Mixed(std::uint64_t word) const noexcept {
    std::uint64_t z = word + seed;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
  }
  std::size_t Home(std::uint64_t key) const noexcept {
    return static_cast<std::size_t>(Mixed(key / kGroup) * kGroup + key % kGroup) & (slots.size() - 1);
  }
  // Returns the key's slot, or the empty slot where it would go. There is always an empty slot.
  std::size_t SlotOf(std::uint64_t key) const noexcept {
    const std::size_t mask = slots.size() - 1;
    std::size_t slot = Home(key);
    while (slots[slot].at != kNone && !(slots[slot].hashWord == HashWord(key) && entries[slots[slot].at].key == key)) {
      slot = (slot + 1) & mask;
    }
    return slot;
  }
  void Rehash(std::size_t size) {
    slots.assign(size, Slot{});
    for (std::uint32_t at = 0; at < entries.Size(); ++at) {
      if (entries[at].previous == kFree) continue;
      slots[SlotOf(entries[at].key)] = {at, HashWord(entries[at].key)};
    }
  }
  std::uint64_t ValueAt(std::uint32_t at) const noexcept {
    std::uint64_t value = 0;
    std::memcpy(&value, entries[at].value, sizeof value);
    return value;
  }
  // cppcheck-suppress constParameter
  void Replace(Entry& entry, std::uint64_t value) noexcept {
    if (std::memcmp(entry.value, &value, sizeof value) == 0) return;
    std::memcpy(entry.value, &value, sizeof value);
    byValue.reset();
  }
  void IndexValues() noexcept {
    try {
      byValue = std::make_unique<PlaceTable>(count + count / 4 + kGroup);  // with room for new entries
      for (std::uint32_t at = 0; at < entries.Size(); ++at) {
        if (entries[at].previous != kFree) byValue->Enter(ValueAt(at), at);
      }
    } catch (const std::bad_alloc&) {
      // Then there is none, and all entries are searched.
    }
  }
  // Adds a new key and returns null; for a known key returns its entry, with the old value.
  Entry* Enter(std::uint64_t key, std::uint64_t value) {
    if (2 * (count + 1) > slots.size()) Rehash(std::max<std::size_t>(2 * slots.size(), kGroup));
    const std::size_t slot = SlotOf(key);
    if (slots[slot].at != kNone) return &entries[slots[slot].at];
    std::uint32_t at = firstFree;
    if (at != kNone) {
      firstFree = entries[at].next;
    } else {
      at = static_cast<std::uint32_t>(entries.Size());
      entries.Append(Entry{});
    }
    std::uint32_t& head = heads[BucketOf(key)];
    Entry& entry = entries[at];
    entry.key = key;
    std::memcpy(entry.value, &value, sizeof value);
    entry.previous = kNone;
    entry.next = head;
    if (head != kNone) entries[head].previous = at;
    head = at;
    slots[slot] = {at, HashWord(key)};
    ++count;
    if (byValue && !byValue->Enter(value, at)) byValue.reset();
    return nullptr;
  }
  void EnterNoted() {
    std::size_t size = std::max<std::size_t>(slots.size(), kGroup);
    while (size < 2 * (count + noted.Size() + 1)) size *= 2;
    if (size != slots.size()) Rehash(size);
    // Entering the same again changes nothing, so they are dropped only after all are in.
    for (std::size_t i = 0; i < noted.Size(); ++i) {
      std::uint64_t value = 0;
      std::memcpy(&value, noted[i].value.data(), sizeof value);
      if (Entry* const known = Enter(noted[i].key, value)) Replace(*known, value);
    }
    noted.Clear();
  }
  // Moves back the slots that were pushed past the one that is now empty.
  void CloseGap(std::size_t gap) noexcept {
    const std::size_t mask = slots.size() - 1;
    for (std::size_t slot = (gap + 1) & mask; slots[slot].at != kNone; slot = (slot + 1) & mask) {
      const std::size_t home = Home(entries[slots[slot].at].key);
      if (((slot - home) & mask) >= ((slot - gap) & mask)) {
        slots[gap] = slots[slot];
        gap = slot;
      }
    }
    slots[gap] = Slot{};
  }
  const Entry* FirstFrom(std::uint32_t bucket) const noexcept {
    while (bucket < kBuckets && heads[bucket] == kNone) ++bucket;
    return bucket < kBuckets ? &entries[heads[bucket]] : nullptr;
  }

  BlockList<Noted> noted;
  BlockList<Entry> entries;
  std::vector<Slot> slots;  // the size is a power of 2; at most half are used
  std::array<std::uint32_t, kBuckets> heads = [] {
    std::array<std::uint32_t, kBuckets> none{};
    none.fill(kNone);
    return none;
  }();
  std::uint32_t firstFree = kNone;
  std::size_t count = 0;
  std::unique_ptr<PlaceTable> byValue;  // places in entries; null until a value is looked up
  const std::uint64_t seed = Seed();
};

MapOfWords::MapOfWords() : m_state(std::make_unique<State>()) {}
MapOfWords::~MapOfWords() = default;

const MapOfWords::Entry* MapOfWords::First() const {
  Settle();
  return m_state->FirstFrom(0);
}

const MapOfWords::Entry* MapOfWords::After(const Entry* entry) const noexcept {
  return entry->next != kNone ? &m_state->entries[entry->next] : m_state->FirstFrom(BucketOf(entry->key) + 1);
}

std::size_t MapOfWords::Count() const {
  Settle();
  return m_state->count;
}

bool MapOfWords::IsEmpty() const noexcept { return m_state->count == 0 && m_state->noted.Size() == 0; }

const MapOfWords::Entry* MapOfWords::Find(std::uint64_t key) const {
  Settle();
  if (m_state->count == 0) return nullptr;
  const std::uint32_t at = m_state->slots[m_state->SlotOf(key)].at;
  return at == kNone ? nullptr : &m_state->entries[at];
}

const MapOfWords::Entry* MapOfWords::FindValue(std::uint64_t value) const {
  Settle();
  State& state = *m_state;
  const auto holds = [&](std::uint32_t at) {
    return state.entries[at].previous != kFree && state.ValueAt(at) == value;
  };
  if (!state.byValue) state.IndexValues();
  std::uint32_t at = 0;
  if (state.byValue) {
    at = state.byValue->Find(value, holds);
  } else {
    while (at < state.entries.Size() && !holds(at)) ++at;
  }
  return at < state.entries.Size() ? &state.entries[at] : nullptr;
}

bool MapOfWords::SetAt(std::uint64_t key, std::uint64_t value, std::uint64_t& before) {
  Settle();
  Entry* const known = m_state->Enter(key, value);
  if (known == nullptr) return false;
  std::memcpy(&before, known->value, sizeof before);
  m_state->Replace(*known, value);
  return true;
}

void MapOfWords::Note(std::uint32_t key, std::uint64_t value) {
  State::Noted noted{key, {}};
  std::memcpy(noted.value.data(), &value, sizeof value);
  m_state->noted.Append(noted);
}

void MapOfWords::Settle() const {
  if (m_state->noted.Size() != 0) m_state->EnterNoted();
}

bool MapOfWords::RemoveKey(std::uint64_t key) {
  Settle();
  if (m_state->count == 0) return false;
  State& state = *m_state;
  const std::size_t slot = state.SlotOf(key);
  const std::uint32_t at = state.slots[slot].at;
  if (at == kNone) return false;
  Entry& entry = state.entries[at];
  (entry.previous != kNone ? state.entries[entry.previous].next : state.heads[BucketOf(key)]) = entry.next;
  if (entry.next != kNone) state.entries[entry.next].previous = entry.previous;
  entry.previous = kFree;
  entry.next = state.firstFree;
  state.firstFree = at;
  --state.count;
  state.CloseGap(slot);
  return true;
}

void MapOfWords::RemoveAll() noexcept {
  m_state->noted.Clear();
  m_state->entries.Clear();
  std::vector<State::Slot>().swap(m_state->slots);
  m_state->byValue.reset();
  m_state->heads.fill(kNone);
  m_state->firstFree = kNone;
  m_state->count = 0;
}

}  // namespace kesp
