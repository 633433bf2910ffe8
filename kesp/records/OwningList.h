// An ordered list that owns what its entries point to: a feature's points and its attributes.
//
//   for (const CKespPoint* point : feature.m_pointList) Show(*point);
//
// 24 bytes when empty, since there are two in each of a survey's features. Asking by position takes constant time, and
// so does removing at either end; adding does on the average, and removing elsewhere moves the shorter side. A long
// list grows in place where the system can, without copying. Entries may be null.
//
// Errors: CMemoryException from push_back; the list is then as it was, and the entry is still the caller's.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "kesp/platform/Export.h"

namespace kesp {

// The storage of such lists: room for `capacity` pointers, of which the first `used` move over from the old storage,
// which goes. Raises CMemoryException, and the old storage is then as it was.
KESP_EXPORT void* GrowPointers(void* old, std::size_t oldCapacity, std::size_t used, std::size_t capacity);
KESP_EXPORT void FreePointers(void* storage, std::size_t capacity) noexcept;

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
  }

  std::size_t size() const noexcept { return m_size; }
  bool empty() const noexcept { return m_size == 0; }
  Item* operator[](std::size_t at) const noexcept { return begin()[at]; }
  Item* front() const noexcept { return *begin(); }
  Item* back() const noexcept { return begin()[m_size - 1]; }
  Item* const* begin() const noexcept { return m_storage + m_front; }
  Item* const* end() const noexcept { return begin() + m_size; }

  // Takes the item over.
  void push_back(Item* item) {
    if (m_front + m_size == m_capacity) MakeRoom();
    m_storage[m_front + m_size++] = item;
  }
  void reserve(std::size_t capacity) {
    if (capacity > m_capacity - m_front) Grow(capacity);
  }
  // Takes the entry out and hands it back to the caller.
  Item* release(std::size_t at) noexcept {
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
  // Deletes all items, from the first on.
  void clear() noexcept {
    for (Item* const item : *this) delete item;
    FreePointers(m_storage, m_capacity);
    m_storage = nullptr;
    m_front = m_size = m_capacity = 0;
  }

 private:
  static constexpr std::size_t kFirstRoom = 4;

  // At the end: where at least half of the storage is free at its front, that is used again.
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
  std::uint32_t m_front = 0;  // entries that were released before the first
  std::uint32_t m_size = 0;
  std::uint32_t m_capacity = 0;
};

}  // namespace kesp
