// An ordered list that owns what its entries point to: a feature's points and its attributes.
//
//   for (const CKespPoint* point : feature.m_pointList) Show(*point);
//
// 16 bytes when empty, and small ones take their memory out of the library's pool, since there is a list or two in each
// of a survey's features. Asking by position takes constant time; adding does on the average. A long list grows in
// place where the system can, without copying. Entries may be null.
//
// Errors: CMemoryException from push_back; the list is then as it was, and the entry is still the caller's.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <utility>

#include "kesp/platform/Exception.h"
#include "kesp/platform/ObjectPool.h"

namespace kesp {

template <class Item>
class OwningList {
 public:
  using value_type = Item*;

  OwningList() noexcept = default;
  ~OwningList() { clear(); }
  OwningList(const OwningList&) = delete;
  OwningList& operator=(const OwningList&) = delete;

  std::size_t size() const noexcept { return m_size; }
  bool empty() const noexcept { return m_size == 0; }
  Item* operator[](std::size_t at) const noexcept { return m_items[at]; }
  Item* front() const noexcept { return m_items[0]; }
  Item* back() const noexcept { return m_items[m_size - 1]; }
  Item* const* begin() const noexcept { return m_items; }
  Item* const* end() const noexcept { return m_items + m_size; }

  // Takes the item over.
  void push_back(Item* item) {
    if (m_size == m_capacity) Grow(m_capacity == 0 ? kFirstRoom : std::size_t{2} * m_capacity);
    m_items[m_size++] = item;
  }
  void reserve(std::size_t capacity) {
    if (capacity > m_capacity) Grow(capacity);
  }
  // Takes the entry out and hands it back to the caller.
  Item* release(std::size_t at) noexcept {
    Item* const item = m_items[at];
    std::copy(m_items + at + 1, m_items + m_size, m_items + at);
    --m_size;
    return item;
  }
  // Deletes all items, from the first on.
  void clear() noexcept {
    // Whoever drops a whole survey waits for memory and nothing else: the items to come are fetched meanwhile.
    constexpr std::size_t kAhead = 8;
    constexpr std::size_t kCacheLine = 64;
    for (std::size_t i = 0; i < m_size; ++i) {
      if (i + kAhead < m_size && m_items[i + kAhead] != nullptr) {
        const auto* const coming = reinterpret_cast<const std::byte*>(m_items[i + kAhead]);
        __builtin_prefetch(coming, 1);
        if constexpr (sizeof(Item) > kCacheLine) __builtin_prefetch(coming + kCacheLine, 1);
      }
      delete m_items[i];
    }
    FreeStorage();
    m_items = nullptr;
    m_size = m_capacity = 0;
  }

 private:
  static constexpr std::size_t kFirstRoom = 4;
  static constexpr std::size_t kMostPooled = kLargestPooledBlock / sizeof(Item*);

  void Grow(std::size_t capacity) {
    if (capacity > std::numeric_limits<std::uint32_t>::max()) throw CMemoryException();
    const std::size_t bytes = capacity * sizeof(Item*);
    Item** items = nullptr;
    if (capacity <= kMostPooled) {
      items = static_cast<Item**>(PoolAllocate(bytes));
    } else {
      const bool pooled = m_capacity <= kMostPooled;
      // Only realloc grows in place. NOLINTNEXTLINE(cppcoreguidelines-no-malloc)
      items = static_cast<Item**>(pooled ? std::malloc(bytes) : std::realloc(m_items, bytes));
      if (items == nullptr) throw CMemoryException();
      if (!pooled) m_items = items;
    }
    if (items != m_items) {
      std::copy_n(m_items, m_size, items);
      FreeStorage();
      m_items = items;
    }
    m_capacity = static_cast<std::uint32_t>(capacity);
  }
  void FreeStorage() noexcept {
    if (m_capacity > kMostPooled) {
      std::free(m_items);  // NOLINT(cppcoreguidelines-no-malloc): see Grow
    } else if (m_capacity != 0) {
      PoolFree(m_items, m_capacity * sizeof(Item*));
    }
  }

  Item** m_items = nullptr;
  std::uint32_t m_size = 0;
  std::uint32_t m_capacity = 0;
};

}  // namespace kesp
