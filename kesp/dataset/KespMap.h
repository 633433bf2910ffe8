// The hash map of the data set. Its iteration order is a promise, since summaries, validation and hosts follow it: 17
// buckets from first to last, the bucket of a key being its hash word shifted right by 4, modulo 17; in a bucket the
// newest key comes first; setting a key that is there replaces its value in place.
//
//   for (const auto& entry : file.m_featureIndex) Show(entry.key, *entry.value);
//
// The chains of the buckets are for iterating only. Finding, adding and removing go through an index beside them
// and take constant time however the keys fall into the buckets; a seed of the process's own keeps a hostile file from
// choosing keys that collide there. Values are copied; what they point to is not owned.
//
// Entries that come in great numbers and may never be asked for can be noted first (Note), for half the memory and a
// fraction of the time; the first other operation enters them.
//
// Removing the entry an iterator stands on makes it invalid, nothing else does but RemoveAll.
// Errors: std::bad_alloc and CMemoryException from SetAt, Note and Settle, and from every operation behind a Note that
// was not settled. What the map held it still holds.
#pragma once
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "kesp/dataset/BlockList.h"
#include "kesp/platform/Export.h"

namespace kesp {

KESP_EXPORT std::uint64_t ProcessSeed() noexcept;

template <class Key, class Value>
class KespMap {
 public:
  static constexpr std::uint32_t kBuckets = 17;

  struct Entry {
    Key key{};
    Value value{};
    std::uint32_t previous = kNone;  // in the chain of its bucket
    std::uint32_t next = kNone;
  };

  class Iterator {
   public:
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    Iterator(const KespMap* map, std::uint32_t bucket) : m_map(map), m_bucket(bucket) { FindFilledBucket(); }
    const Entry& operator*() const { return m_map->m_entries[m_at]; }
    const Entry* operator->() const { return &m_map->m_entries[m_at]; }
    Iterator& operator++() {
      m_at = m_map->m_entries[m_at].next;
      if (m_at == kNone) {
        ++m_bucket;
        FindFilledBucket();
      }
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    bool operator==(const Iterator& other) const { return m_at == other.m_at; }

   private:
    void FindFilledBucket() {
      m_at = kNone;
      for (; m_bucket < kBuckets; ++m_bucket) {
        if ((m_at = m_map->m_heads[m_bucket]) != kNone) return;
      }
    }
    const KespMap* m_map = nullptr;
    std::uint32_t m_bucket = kBuckets;
    std::uint32_t m_at = kNone;
  };

  KespMap() { m_heads.fill(kNone); }
  KespMap(const KespMap&) = delete;
  KespMap& operator=(const KespMap&) = delete;

  Iterator begin() const {
    Settle();
    return {this, 0};
  }
  Iterator end() const { return {this, kBuckets}; }
  int GetCount() const {
    Settle();
    return static_cast<int>(m_count);
  }
  bool IsEmpty() const noexcept { return m_count == 0 && m_noted.Size() == 0; }

  // False, and nothing stored, when the key is not there.
  bool Lookup(const Key& key, Value& value) const {
    const Value* const found = Find(key);
    if (found == nullptr) return false;
    value = *found;
    return true;
  }
  // Null when the key is not there; valid until the next change.
  const Value* Find(const Key& key) const {
    Settle();
    if (m_count == 0) return nullptr;
    const std::uint32_t at = m_slots[SlotOf(key)].at;
    return at == kNone ? nullptr : &m_entries[at].value;
  }
  // Answers the value that was replaced; a default one for a new key.
  Value SetAt(const Key& key, const Value& value) {
    Settle();
    return Enter(key, value);
  }
  // SetAt, put off until something else is asked of the map.
  void Note(const Key& key, const Value& value) {
    Noted noted;
    std::memcpy(noted.bytes.data(), &key, sizeof key);
    std::memcpy(noted.bytes.data() + sizeof key, &value, sizeof value);
    m_noted.Append(noted);
  }
  // Enters what was noted. Every other operation does so first.
  void Settle() const {
    // What is noted belongs to the map already. NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
    if (m_noted.Size() != 0) const_cast<KespMap*>(this)->EnterNoted();
  }
  // False when the key is not there.
  bool RemoveKey(const Key& key) {
    Settle();
    if (m_count == 0) return false;
    const std::size_t slot = SlotOf(key);
    const std::uint32_t at = m_slots[slot].at;
    if (at == kNone) return false;
    Entry& entry = m_entries[at];
    (entry.previous != kNone ? m_entries[entry.previous].next : m_heads[BucketOf(key)]) = entry.next;
    if (entry.next != kNone) m_entries[entry.next].previous = entry.previous;
    entry = Entry{};
    entry.previous = kFree;
    entry.next = m_firstFree;
    m_firstFree = at;
    --m_count;
    CloseGap(slot);
    return true;
  }
  // Gives the memory back.
  void RemoveAll() noexcept {
    m_noted.Clear();
    m_entries.Clear();
    std::vector<Slot>().swap(m_slots);
    m_heads.fill(kNone);
    m_firstFree = kNone;
    m_count = 0;
  }

 private:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;
  static constexpr std::uint32_t kFree = 0xFFFFFFFE;  // in `previous` of an entry that is in no chain
  static constexpr std::size_t kGroup = 8;  // neighbouring keys share a group of slots, which fills a cache line

  struct Slot {
    std::uint32_t at = kNone;    // in m_entries
    std::uint32_t hashWord = 0;  // of the key, so that another key is told without a look at its entry
  };

  // Packed, since there may be millions.
  static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>);
  struct Noted {
    std::array<std::byte, sizeof(Key) + sizeof(Value)> bytes;
  };

  void EnterNoted() {
    std::size_t size = std::max<std::size_t>(m_slots.size(), kGroup);
    while (size < 2 * (m_count + m_noted.Size() + 1)) size *= 2;
    if (size != m_slots.size()) Rehash(size);
    // Entering the same again changes nothing, so they are dropped when all are in.
    for (std::size_t i = 0; i < m_noted.Size(); ++i) {
      Key key;
      Value value;
      std::memcpy(&key, m_noted[i].bytes.data(), sizeof key);
      std::memcpy(&value, m_noted[i].bytes.data() + sizeof key, sizeof value);
      Enter(key, value);
    }
    m_noted.Clear();
  }
  Value Enter(const Key& key, const Value& value) {
    if (2 * (m_count + 1) > m_slots.size()) Rehash(std::max<std::size_t>(2 * m_slots.size(), kGroup));
    const std::size_t slot = SlotOf(key);
    FetchAhead(key);
    if (m_slots[slot].at != kNone) return std::exchange(m_entries[m_slots[slot].at].value, value);
    std::uint32_t at = m_firstFree;
    if (at != kNone) {
      m_firstFree = m_entries[at].next;
    } else {
      at = static_cast<std::uint32_t>(m_entries.Size());
      m_entries.Append(Entry{});
    }
    std::uint32_t& head = m_heads[BucketOf(key)];
    m_entries[at] = {key, value, kNone, head};
    if (head != kNone) m_entries[head].previous = at;
    head = at;
    m_slots[slot] = {at, HashWord(key)};
    ++m_count;
    return Value{};
  }

  static std::uint32_t HashWord(const Key& key) noexcept { return static_cast<std::uint32_t>(key); }
  static std::uint32_t BucketOf(const Key& key) noexcept { return (HashWord(key) >> 4) % kBuckets; }
  std::uint64_t Mixed(std::uint64_t word) const noexcept {
    std::uint64_t z = word + m_seed;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
  }
  // Keys that are more than their hash word add the rest.
  std::uint64_t Spread(std::uint32_t key) const noexcept { return Mixed(key / kGroup) * kGroup + key % kGroup; }
  template <class Composite>
  std::uint64_t Spread(const Composite& key) const noexcept {
    return Mixed(std::uint64_t{key.FirstPart} << 32 | key.SecondPart);
  }
  std::size_t Home(const Key& key) const noexcept { return Spread(key) & (m_slots.size() - 1); }
  // Numbers are given one after another as a rule: has the next group of slots fetched while this one is filled.
  void FetchAhead(std::uint32_t key) const noexcept {
    if (key % kGroup == 0)
      __builtin_prefetch(&m_slots[Spread(static_cast<std::uint32_t>(key + kGroup)) & (m_slots.size() - 1)], 1);
  }
  template <class Composite>
  void FetchAhead(const Composite&) const noexcept {}
  // The key's slot, or the empty one where it would go. There is always an empty one.
  std::size_t SlotOf(const Key& key) const noexcept {
    const std::size_t mask = m_slots.size() - 1;
    std::size_t slot = Home(key);
    while (m_slots[slot].at != kNone &&
           !(m_slots[slot].hashWord == HashWord(key) && m_entries[m_slots[slot].at].key == key)) {
      slot = (slot + 1) & mask;
    }
    return slot;
  }
  void Rehash(std::size_t size) {
    m_slots.assign(size, Slot{});
    for (std::uint32_t at = 0; at < m_entries.Size(); ++at) {
      if (m_entries[at].previous == kFree) continue;
      m_slots[SlotOf(m_entries[at].key)] = {at, HashWord(m_entries[at].key)};
    }
  }
  // Moves back what had been pushed past the slot that became empty.
  void CloseGap(std::size_t gap) noexcept {
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t slot = (gap + 1) & mask; m_slots[slot].at != kNone; slot = (slot + 1) & mask) {
      const std::size_t home = Home(m_entries[m_slots[slot].at].key);
      if (((slot - home) & mask) >= ((slot - gap) & mask)) {
        m_slots[gap] = m_slots[slot];
        gap = slot;
      }
    }
    m_slots[gap] = Slot{};
  }

  BlockList<Noted> m_noted;
  BlockList<Entry> m_entries;
  std::vector<Slot> m_slots;  // the size is a power of 2, at most half of them are used
  std::array<std::uint32_t, kBuckets> m_heads{};
  std::uint32_t m_firstFree = kNone;
  std::size_t m_count = 0;
  const std::uint64_t m_seed = ProcessSeed();
};

}  // namespace kesp
