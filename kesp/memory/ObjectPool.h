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
// Each thread has a stock: of each size, a run of up to 16 KiB of a span that nobody else hands out of, and the blocks
// that it freed last, as long as they are of one span. Only getting a run and giving such blocks back takes the pool's
// lock, for a moment, so that threads hardly meet. Any thread may free what another allocated. A thread's stock goes
// back when the thread ends.
//
// Errors: CMemoryException.
#pragma once
#include <cstddef>
#include <cstdint>

#include "kesp/platform/Exception.h"
#include "kesp/platform/Export.h"

namespace kesp {

constexpr std::size_t kLargestPooledBlock = 1024;

KESP_EXPORT void* PoolAllocate(std::size_t size);
// `size` is what the block was allocated with.
KESP_EXPORT void PoolFree(void* block, std::size_t size) noexcept;
// The same for a caller who does not know the size; takes time.
KESP_EXPORT void PoolFreeUnsized(void* block) noexcept;

// Makes a piece of memory ready before it is asked for, so that those who ask need not wait while the system clears it.
// False when enough is ready already, or when there is none to be had.
bool PoolPrepare() noexcept;

// Bytes of the runs that this thread took, less what it gave back, which others may have taken: only differences mean
// something. Always 0 in a build for the address sanitizer.
std::int64_t PoolBytesHeld() noexcept;

}  // namespace kesp
