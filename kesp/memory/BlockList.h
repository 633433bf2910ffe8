// A growing array whose entries never move: blocks of 1024 bytes from the library's pool, indexed by position.
//
// For lists of millions of pointers: growing copies no entries and leaves no half-used memory, and the pool's memory
// comes in huge pages where it can. An empty list owns no memory.
//
// Errors: Append raises CMemoryException or std::bad_alloc, and then changes nothing.
#pragma once
#include <algorithm>
#include <cstddef>
#include <type_traits>
#include <vector>

#include "kesp/memory/ObjectPool.h"

namespace kesp {

template <class T>
class BlockList {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

 public:
  BlockList() noexcept = default;
  ~BlockList() { Clear(); }
  BlockList(const BlockList&) = delete;
  BlockList& operator=(const BlockList&) = delete;

  std::size_t Size() const noexcept { return m_size; }
  T& operator[](std::size_t at) noexcept { return m_blocks[at / kPerBlock][at % kPerBlock]; }
  const T& operator[](std::size_t at) const noexcept { return m_blocks[at / kPerBlock][at % kPerBlock]; }

  void Append(const T& entry) {
    if (m_next == m_end) AddBlock();
    *m_next++ = entry;
    ++m_size;
  }
  // Drops the entries at `size` and after.
  void Truncate(std::size_t size) noexcept {
    m_size = std::min(m_size, size);
    const std::size_t used = (m_size + kPerBlock - 1) / kPerBlock;
    while (m_blocks.size() > used) {
      PoolFree(m_blocks.back(), kPerBlock * sizeof(T));
      m_blocks.pop_back();
    }
    m_end = m_blocks.empty() ? nullptr : m_blocks.back() + kPerBlock;
    m_next = m_end == nullptr ? nullptr : m_end - (used * kPerBlock - m_size);
  }
  // Drops all entries and frees the memory.
  void Clear() noexcept {
    Truncate(0);
    std::vector<T*>().swap(m_blocks);
  }

 private:
  static constexpr std::size_t kPerBlock = kLargestPooledBlock / sizeof(T);

  void AddBlock() {
    m_blocks.push_back(nullptr);
    try {
      m_next = m_blocks.back() = static_cast<T*>(PoolAllocate(kPerBlock * sizeof(T)));
    } catch (...) {
      m_blocks.pop_back();
      throw;
    }
    m_end = m_next + kPerBlock;
  }

  std::vector<T*> m_blocks;
  std::size_t m_size = 0;
  T* m_next = nullptr;  // where the next entry goes, in the last block
  T* m_end = nullptr;   // the end of the last block
};

}  // namespace kesp
