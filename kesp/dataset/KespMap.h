// The hash map of the data set. Its iteration order is guaranteed, since summaries, validation and hosts depend on it.
// There are 17 buckets, visited from first to last; the bucket of a key is its hash word shifted right by 4, modulo 17.
// In a bucket the newest key comes first. Setting an existing key replaces its value in place.
//
//   for (const auto& entry : file.m_featureIndex) Show(entry.key, *entry.value);
//
// Keys are 32-bit numbers, or GPS times, whose hash word is the first part. Values are 4 or 8 bytes and are copied; the
// map does not own what they point to. Finding, adding and removing take constant time, however the keys fall into the
// buckets. So does finding a key by its value, after the first time and if values seldom repeat.
//
// An iterator becomes invalid when its entry is removed or by RemoveAll; nothing else invalidates it.
// Errors: std::bad_alloc from SetAt, Note and Settle, and from any other operation but IsEmpty and RemoveAll after a
// Note that was not yet settled. The map then still holds what it held.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "kesp/platform/Export.h"

namespace kesp {

// The common part of all maps: keys as words, whose low half is the hash word, and values as the bytes of words. The
// operations are those of KespMap.
class KESP_EXPORT MapOfWords {
 public:
  struct Entry {
    std::uint64_t key = 0;
    alignas(8) std::byte value[8]{};
    std::uint32_t previous = 0;  // index of the entry before it in its bucket's chain
    std::uint32_t next = 0;
  };

  MapOfWords();
  ~MapOfWords();
  MapOfWords(const MapOfWords&) = delete;
  MapOfWords& operator=(const MapOfWords&) = delete;

  // These visit the entries in the guaranteed order; null at the end.
  const Entry* First() const;
  const Entry* After(const Entry* entry) const noexcept;

  std::size_t Count() const;
  bool IsEmpty() const noexcept;
  const Entry* Find(std::uint64_t key) const;  // null if there is none
  const Entry* FindValue(std::uint64_t value) const;
  // Returns true if the key was there; `before` then receives its old value.
  bool SetAt(std::uint64_t key, std::uint64_t value, std::uint64_t& before);
  void Note(std::uint32_t key, std::uint64_t value);
  void Settle() const;
  bool RemoveKey(std::uint64_t key);
  void RemoveAll() noexcept;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

template <class Key, class Value>
class KespMap {
  static_assert(sizeof(Value) == 8 || sizeof(Value) == 4);
  static_assert(std::is_trivially_copyable_v<Value> && std::is_default_constructible_v<Value>);

 public:
  struct Entry {
    Key key{};
    Value value{};
  };

  // Input iterator; returns entries by value.
  class Iterator {
   public:
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    struct Arrow {
      Entry entry;
      const Entry* operator->() const { return &entry; }
    };
    Iterator() = default;
    Iterator(const MapOfWords* words, const MapOfWords::Entry* at) : m_words(words), m_at(at) {}
    Entry operator*() const { return {KeyOf(m_at->key), *ValueOf(m_at)}; }
    Arrow operator->() const { return {**this}; }
    Iterator& operator++() {
      m_at = m_words->After(m_at);
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    bool operator==(const Iterator& other) const { return m_at == other.m_at; }

   private:
    const MapOfWords* m_words = nullptr;
    const MapOfWords::Entry* m_at = nullptr;
  };

  Iterator begin() const { return {&m_words, m_words.First()}; }
  Iterator end() const { return {&m_words, nullptr}; }
  int GetCount() const { return static_cast<int>(m_words.Count()); }
  bool IsEmpty() const noexcept { return m_words.IsEmpty(); }

  // Returns false and stores nothing if the key is not there.
  bool Lookup(const Key& key, Value& value) const {
    const Value* const found = Find(key);
    if (found == nullptr) return false;
    value = *found;
    return true;
  }
  // Returns null if the key is not there; valid until the next change.
  const Value* Find(const Key& key) const { return ValueOf(m_words.Find(WordOf(key))); }
  // Stores a key that has this value. Returns false and stores nothing if there is none. The first call makes an index
  // of the values, which later changes keep up to date; without the memory for it, all entries are searched.
  bool FindKey(const Value& value, Key& key) const {
    const MapOfWords::Entry* const found = m_words.FindValue(Pack(value));
    if (found == nullptr) return false;
    key = KeyOf(found->key);
    return true;
  }
  // Returns the replaced value, or a default one for a new key.
  Value SetAt(const Key& key, const Value& value) {
    std::uint64_t before = 0;
    Value replaced{};
    if (m_words.SetAt(WordOf(key), Pack(value), before))
      std::memcpy(static_cast<void*>(&replaced), &before, sizeof replaced);
    return replaced;
  }
  // A SetAt that is delayed until another operation needs the map, for many entries that may never be looked up. It
  // takes half the memory and a fraction of the time.
  void Note(const Key& key, const Value& value) {
    static_assert(sizeof(Key) == 4);
    m_words.Note(key, Pack(value));
  }
  // Enters what was noted. The other operations but RemoveAll and IsEmpty do this first.
  void Settle() const { m_words.Settle(); }
  // Returns false if the key is not there.
  bool RemoveKey(const Key& key) { return m_words.RemoveKey(WordOf(key)); }
  // Removes all entries and frees the memory.
  void RemoveAll() noexcept { m_words.RemoveAll(); }

 private:
  // The low half of a key's word is its hash word, whatever the byte order.
  static std::uint64_t WordOf(std::uint32_t key) noexcept { return key; }
  template <class Composite>
  static std::uint64_t WordOf(const Composite& key) noexcept {
    return std::uint64_t{key.SecondPart} << 32 | key.FirstPart;
  }
  static Key KeyOf(std::uint64_t word) noexcept {
    const auto low = static_cast<std::uint32_t>(word);
    if constexpr (sizeof(Key) == 4) {
      return low;
    } else {
      return Key(low, static_cast<std::uint32_t>(word >> 32));
    }
  }
  static std::uint64_t Pack(const Value& value) noexcept {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, static_cast<const void*>(&value), sizeof value);
    return bytes;
  }
  static const Value* ValueOf(const MapOfWords::Entry* entry) noexcept {
    return entry == nullptr ? nullptr : std::launder(reinterpret_cast<const Value*>(entry->value));
  }

  MapOfWords m_words;
};

}  // namespace kesp
