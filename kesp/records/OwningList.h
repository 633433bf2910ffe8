// An ordered list that owns what its entries point to: a feature's points and its attributes.
//
//   for (const CKespPoint* point : feature.m_pointList) Show(*point);
//
// 24 bytes when empty, since each feature has two. Access by index takes constant time, and so does removing at either
// end; adding does on average. Removing elsewhere moves the entries on the shorter side. A long list grows in place
// where the system can. Entries may be null.
//
// Errors: push_back raises CMemoryException; the list is then unchanged, and the caller still owns the entry.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "kesp/platform/Export.h"

namespace kesp {

// Allocates storage for `capacity` pointers, moves the first `used` from the old storage and frees that. Raises
// CMemoryException; the old storage is then unchanged.
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

  // Takes ownership of the item.
  void push_back(Item* item) {
    if (m_front + m_size == m_capacity) MakeRoom();
    m_storage[m_front + m_size++] = item;
  }
  void reserve(std::size_t capacity) {
    if (capacity > m_capacity - m_front) Grow(capacity);
  }
  // Removes the entry and returns it; the caller owns it then.
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
  // Deletes all items, the first one first.
  void clear() noexcept {
    for (Item* const item : *this) delete item;
    FreePointers(m_storage, m_capacity);
    m_storage = nullptr;
    m_front = m_size = m_capacity = 0;
  }

 private:
  static constexpr std::size_t kFirstRoom = 4;

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
};

}  // namespace kesp
