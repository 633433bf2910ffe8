// An ordered list that owns what its entries point to: a feature's points and its attributes.
//
//   for (const CKespPoint* point : feature.m_pointList) Show(*point);
//
// 32 bytes when empty, since each feature has two. Access by index takes constant time, and so does removing at either
// end; adding does on average. Removing elsewhere moves the entries on the shorter side. A long list grows in place
// where the system can. Entries may be null.
//
// After a few dozen searches and removals, a long list no longer searches or moves anything. It notes the removals, and
// the next walk or addition closes the holes. Until then searching, removing and access by index take the logarithm of
// the length. The notes take about 20 bytes for each entry.
//
// Errors: push_back raises CMemoryException; the list is then unchanged, and the caller still owns the entry.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "kesp/platform/Export.h"

namespace kesp {

class PlaceTable;

// Allocates storage for `capacity` pointers, moves the first `used` from the old storage and frees that. Raises
// CMemoryException; the old storage is then unchanged.
KESP_EXPORT void* GrowPointers(void* old, std::size_t oldCapacity, std::size_t used, std::size_t capacity);
KESP_EXPORT void FreePointers(void* storage, std::size_t capacity) noexcept;

// Which entries were removed from a list whose storage still has them. A place counts all entries, an index those left.
class KESP_EXPORT Removals {
 public:
  // For a list of that many entries, which are then entered in order. Raises std::bad_alloc.
  explicit Removals(std::size_t count);
  ~Removals();
  Removals(const Removals&) = delete;
  Removals& operator=(const Removals&) = delete;
  void Enter(const void* item) noexcept;

  std::size_t Places() const noexcept { return m_items.size(); }
  void Remove(std::size_t place) noexcept;
  bool IsRemoved(std::size_t place) const noexcept;
  std::size_t PlaceOf(std::size_t index) const noexcept;
  // Returns the index of an item that is not null; `none` if it is not there.
  std::size_t IndexOf(const void* item, std::size_t none) const noexcept;

 private:
  std::vector<std::uint64_t> m_left;  // a bit for each place
  std::vector<std::uint32_t> m_sums;  // of the bits in these words, as a Fenwick tree
  std::vector<const void*> m_items;
  std::unique_ptr<PlaceTable> m_table;
};

template <class Item>
class OwningList {
 public:
  using value_type = Item*;

  OwningList() noexcept = default;
  ~OwningList() { clear(); }
  OwningList(const OwningList&) = delete;
  OwningList& operator=(const OwningList&) = delete;
  OwningList(OwningList&& other) noexcept { swap(other); }
  OwningList& operator=(OwningList&& other) noexcept {
    OwningList moved(std::move(other));
    swap(moved);
    return *this;
  }
  void swap(OwningList& other) noexcept {
    std::swap(m_storage, other.m_storage);
    std::swap(m_front, other.m_front);
    std::swap(m_size, other.m_size);
    std::swap(m_capacity, other.m_capacity);
    std::swap(m_searches, other.m_searches);
    m_removals.swap(other.m_removals);
  }

  std::size_t size() const noexcept { return m_size; }
  bool empty() const noexcept { return m_size == 0; }
  Item* operator[](std::size_t at) const noexcept { return m_storage[PlaceOf(at)]; }
  Item* front() const noexcept { return (*this)[0]; }
  Item* back() const noexcept { return (*this)[m_size - 1]; }
  Item* const* begin() const noexcept {
    CloseHoles();
    return m_storage + m_front;
  }
  Item* const* end() const noexcept { return begin() + m_size; }
  // Returns size() if the item is not there.
  std::size_t IndexOf(const Item* item) const noexcept {
    if (item != nullptr && NotesRemovals()) return m_removals->IndexOf(item, m_size);
    return static_cast<std::size_t>(std::find(begin(), end(), item) - begin());
  }

  // Takes ownership of the item.
  void push_back(Item* item) {
    CloseHoles();
    if (m_front + m_size == m_capacity) MakeRoom();
    m_storage[m_front + m_size++] = item;
  }
  void reserve(std::size_t capacity) {
    CloseHoles();
    if (capacity > m_capacity - m_front) Grow(capacity);
  }
  // Removes the entry and returns it; the caller owns it then.
  Item* release(std::size_t at) noexcept {
    const bool isAtEnd = at == 0 || at + 1 == m_size;
    if (m_removals != nullptr || (!isAtEnd && NotesRemovals())) {
      const std::size_t place = m_removals->PlaceOf(at);
      m_removals->Remove(place);
      --m_size;
      return m_storage[m_front + place];
    }
    Item** const items = m_storage + m_front;
    Item* const item = items[at];
    --m_size;
    if (at < m_size / 2) {
      std::copy_backward(items, items + at, items + at + 1);
      ++m_front;
    } else {
      std::copy(items + at + 1, items + m_size + 1, items + at);
    }
    return item;
  }
  // Deletes all items, the first one first.
  void clear() noexcept {
    for (Item* const item : *this) delete item;
    FreePointers(m_storage, m_capacity);
    m_storage = nullptr;
    m_front = m_size = m_capacity = 0;
  }

 private:
  static constexpr std::size_t kFirstRoom = 4;
  static constexpr std::size_t kLong = 512;  // searching or moving less takes no longer than noting
  static constexpr std::uint32_t kOften = 32;

  std::size_t PlaceOf(std::size_t at) const noexcept {
    return m_front + (m_removals != nullptr ? m_removals->PlaceOf(at) : at);
  }
  // Whether removals are noted. Begins with that when a long list has been searched or moved often enough to pay for
  // it.
  bool NotesRemovals() const noexcept {
    if (m_removals != nullptr) return true;
    if (m_size < kLong || ++m_searches < kOften) return false;
    m_searches = 0;
    try {
      m_removals = std::make_unique<Removals>(m_size);
    } catch (const std::bad_alloc&) {
      return false;
    }
    for (std::size_t i = 0; i < m_size; ++i) m_removals->Enter(m_storage[m_front + i]);
    return true;
  }
  void CloseHoles() const noexcept {
    if (m_removals == nullptr) return;
    Item** const items = m_storage + m_front;
    std::size_t kept = 0;
    for (std::size_t place = 0; place < m_removals->Places(); ++place) {
      if (!m_removals->IsRemoved(place)) items[kept++] = items[place];
    }
    m_removals.reset();
  }

  // Called when the storage is full at the end. If more than half of it is free at the front, reuses that.
  void MakeRoom() {
    if (m_front > m_size) return MoveToFront();
    Grow(m_capacity == 0 ? kFirstRoom : std::size_t{2} * m_capacity);
  }
  void MoveToFront() noexcept {
    std::copy_n(m_storage + m_front, m_size, m_storage);
    m_front = 0;
  }
  void Grow(std::size_t capacity) {
    MoveToFront();
    m_storage = static_cast<Item**>(GrowPointers(m_storage, m_capacity, m_size, capacity));
    m_capacity = static_cast<std::uint32_t>(capacity);
  }

  Item** m_storage = nullptr;
  std::uint32_t m_front = 0;  // free entries before the first
  std::uint32_t m_size = 0;
  std::uint32_t m_capacity = 0;
  mutable std::uint32_t m_searches = 0;          // of the middle, in a long list
  mutable std::unique_ptr<Removals> m_removals;  // null while there are no holes
};

}  // namespace kesp
