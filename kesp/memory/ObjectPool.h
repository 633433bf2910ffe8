// The memory pool for records and their texts: many small blocks of few sizes, allocated and freed together.
//
// Blocks come from regions of 2 MiB. The pages of a region are brought in before its first block is used, since
// touching a page for the first time costs far more than filling it. One huge page is cheapest, except on a virtual
// machine whose host must first find the memory; if a huge page was slow to come, the next regions use small pages
// where the system leaves the choice. The very first region also uses small pages, brought in on first touch, for
// programs that need little.
// A region is cut into spans of 64 KiB, each for blocks of one size, so that many sizes waste little. When the last
// block of a region is freed, the region is kept for the next data set. Up to 128 MiB of such regions are kept (32 MiB
// where pointers have 32 bits), and the system may take back their pages; beyond that a region is unmapped. Blocks
// larger than kLargestPooledBlock bytes come from the ordinary heap. In a build with the address sanitizer all blocks
// do, so that it sees the bounds of each.
//
// Each thread has a stock for each size: a run of up to 16 KiB of a span, which no other thread allocates from, and the
// blocks that it freed last, as long as they are in one span. Only getting a run and giving such blocks back takes the
// pool's lock, briefly, so threads hardly contend. Any thread may free what another allocated. A thread's stock is
// returned when the thread ends.
//
// Errors: CMemoryException from PoolAllocate.
#pragma once
#include <cstddef>
#include <cstdint>

#include "kesp/platform/Exception.h"
#include "kesp/platform/Export.h"

namespace kesp {

constexpr std::size_t kLargestPooledBlock = 1024;

KESP_EXPORT void* PoolAllocate(std::size_t size);
// `size` is the size in bytes that the block was allocated with.
KESP_EXPORT void PoolFree(void* block, std::size_t size) noexcept;
// For a caller that doesn't know the size; slow.
KESP_EXPORT void PoolFreeUnsized(void* block) noexcept;

// Prepares a region before it is needed, so that no thread waits while the system clears it. Returns false when enough
// is prepared already, or when there is no memory.
bool PoolPrepare() noexcept;

// Bytes of the runs that this thread took, less those that it gave back. Other threads may have taken these, so only
// differences are meaningful. Always 0 in a build with the address sanitizer.
std::int64_t PoolBytesHeld() noexcept;

}  // namespace kesp
