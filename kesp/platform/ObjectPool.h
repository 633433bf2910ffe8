// Memory for records and their texts: many small blocks of few sizes, made and dropped together.
//
// Blocks come out of regions of 2 MiB whose pages are there before the first block is: a page touched for the first
// time costs far more than what is put into it. A huge page is cheapest, except on a virtual machine whose host must
// find the memory first; where one was slow to come, the next regions are of small pages, where the system leaves the
// choice. The first region is of small ones that come when they are touched, for those who have little. A region is cut
// into spans of 64 KiB, each for blocks of one size, so that many sizes waste little. When the last block of a region
// is freed it is kept for the next data set, up to 128 MiB of them, as memory that the system may take back when it
// wants it; beyond that it is unmapped. Blocks over kLargestPooledBlock bytes come from the ordinary heap, and so does
// everything in a build for the address sanitizer, which then sees each block's bounds.
//
// What a thread freed last of each size stays with it until it ends, and keeps the region that it is in.
//
// Any thread may allocate and free. Errors: CMemoryException.
#pragma once
#include <cstddef>
#include <cstdint>
#include <limits>

#include "kesp/platform/Exception.h"
#include "kesp/platform/Export.h"

namespace kesp {

constexpr std::size_t kLargestPooledBlock = 1024;

KESP_EXPORT void* PoolAllocate(std::size_t size);
// `size` is what the block was allocated with.
KESP_EXPORT void PoolFree(void* block, std::size_t size) noexcept;

// Makes a piece of memory ready before it is asked for, so that those who ask need not wait while the system clears it.
// False when enough is ready already, or when there is none to be had.
bool PoolPrepare() noexcept;

// Bytes of the spans that this thread took, less those that it gave back, which others may have taken: only differences
// mean something. Always 0 in a build for the address sanitizer.
std::int64_t PoolBytesTaken() noexcept;

struct KeptBlocks;

// Whoever makes or deletes millions of blocks locks the pool once, and not for each. Other threads' blocks wait
// meanwhile, so it must not last: PoolPause lets go of the lock for as long as something else is waited for.
class PoolSession {
 public:
  PoolSession();
  ~PoolSession();
  PoolSession(const PoolSession&) = delete;
  PoolSession& operator=(const PoolSession&) = delete;

 private:
  const bool m_nested;
  KeptBlocks* m_kept = nullptr;
};
class PoolPause {
 public:
  PoolPause();
  ~PoolPause();
  PoolPause(const PoolPause&) = delete;
  PoolPause& operator=(const PoolPause&) = delete;

 private:
  const bool m_inSession;
};

// For containers whose storage is small as a rule.
template <class T>
struct PoolAllocator {
  using value_type = T;
  PoolAllocator() noexcept = default;
  template <class U>
  PoolAllocator(const PoolAllocator<U>&) noexcept {}
  T* allocate(std::size_t count) {
    if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw CMemoryException();
    return static_cast<T*>(PoolAllocate(count * sizeof(T)));
  }
  void deallocate(T* block, std::size_t count) noexcept { PoolFree(block, count * sizeof(T)); }
  friend bool operator==(const PoolAllocator&, const PoolAllocator&) noexcept { return true; }
};

}  // namespace kesp
