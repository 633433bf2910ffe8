#include "kesp/platform/ObjectPool.h"

#include <sys/mman.h>
#include <sys/single_threaded.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <new>

#include "kesp/platform/Exception.h"

namespace kesp {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif
#else
constexpr bool kPooled = true;
#endif

constexpr std::size_t kChunkSize = std::size_t{2} << 20;  // and its alignment: a block finds its chunk by its address
constexpr std::size_t kFirstChunkSize = std::size_t{64} << 10;  // of the first chunk of each size of block
// Sizes that are a multiple of 16 are aligned to 16, others to 8: no type needs more than its size allows.
constexpr std::size_t kGranule = 8;
constexpr std::size_t kSizes = kLargestPooledBlock / kGranule;

struct FreeBlock {
  FreeBlock* next;
};

// At the start of every chunk.
struct Chunk {
  std::size_t size;   // bytes mapped
  FreeBlock* free;    // blocks that were given back
  std::byte* fresh;   // from here on no block was handed out yet
  std::size_t live;   // blocks in use
  std::size_t which;  // of the sizes
  Chunk* previous;    // among the chunks of this size that have room
  Chunk* next;
  bool listed;
};
constexpr std::size_t kHeaderSize = 64;
constexpr std::size_t kMostSpareChunks = 64;  // 128 MiB
static_assert(sizeof(Chunk) <= kHeaderSize);
static_assert(kHeaderSize % kGranule == 0);

// Chunks of one size that have room; the first is the one in use.
struct SizeClass {
  Chunk* withRoom = nullptr;
  bool hadFirst = false;
};

struct Pool {
  std::mutex mutex;
  std::array<SizeClass, kSizes> sizes;
  Chunk* spare = nullptr;  // empty ones, by `next`
  std::size_t spareCount = 0;
};

// Never destroyed: records may outlive every other static object.
Pool& ThePool() {
  static Pool* const pool = new Pool;
  return *pool;
}

// As long as the process has one thread there is nobody to lock out.
class MaybeLock {
 public:
  explicit MaybeLock(std::mutex& mutex) : m_mutex(__libc_single_threaded != 0 ? nullptr : &mutex) {
    if (m_mutex != nullptr) m_mutex->lock();
  }
  ~MaybeLock() {
    if (m_mutex != nullptr) m_mutex->unlock();
  }
  MaybeLock(const MaybeLock&) = delete;
  MaybeLock& operator=(const MaybeLock&) = delete;

 private:
  std::mutex* m_mutex;
};

Chunk* NewChunk(void* place, std::size_t size, std::size_t which) {
  return new (place)
      Chunk{size, nullptr, static_cast<std::byte*>(place) + kHeaderSize, 0, which, nullptr, nullptr, false};
}

Chunk* MapChunk(std::size_t size, std::size_t which) {
  // More than that, of which an aligned part is kept.
  void* const raw = ::mmap(nullptr, 2 * kChunkSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  auto* const begin = static_cast<std::byte*>(raw);
  const std::size_t lead = (kChunkSize - reinterpret_cast<std::uintptr_t>(begin) % kChunkSize) % kChunkSize;
  if (lead != 0) ::munmap(begin, lead);
  std::byte* const aligned = begin + lead;
  ::munmap(aligned + size, 2 * kChunkSize - lead - size);
  if (size == kChunkSize) ::madvise(aligned, size, MADV_HUGEPAGE);  // a wish: without it the pages are small
  return NewChunk(aligned, size, which);
}

Chunk* TakeChunk(Pool& pool, std::size_t which) {
  SizeClass& sizeClass = pool.sizes[which];
  if (!sizeClass.hadFirst) {
    sizeClass.hadFirst = true;
    return MapChunk(kFirstChunkSize, which);
  }
  if (pool.spare == nullptr) return MapChunk(kChunkSize, which);
  Chunk* const chunk = pool.spare;
  pool.spare = chunk->next;
  --pool.spareCount;
  return NewChunk(chunk, kChunkSize, which);
}

// Some empty chunks are kept for the next data set. Their pages, but for the first, are the system's to take back
// whenever it wants them.
void GiveChunkBack(Pool& pool, Chunk* chunk) {
  if (chunk->size != kChunkSize || pool.spareCount == kMostSpareChunks) {
    ::munmap(chunk, chunk->size);
    return;
  }
  constexpr std::size_t kSmallestPage = 4096;
  ::madvise(reinterpret_cast<std::byte*>(chunk) + kSmallestPage, kChunkSize - kSmallestPage, MADV_FREE);
  chunk->next = pool.spare;
  pool.spare = chunk;
  ++pool.spareCount;
}

void PushFront(SizeClass& sizeClass, Chunk* chunk) {
  chunk->previous = nullptr;
  chunk->next = sizeClass.withRoom;
  if (chunk->next != nullptr) chunk->next->previous = chunk;
  sizeClass.withRoom = chunk;
  chunk->listed = true;
}

void Unlist(SizeClass& sizeClass, Chunk* chunk) {
  (chunk->previous != nullptr ? chunk->previous->next : sizeClass.withRoom) = chunk->next;
  if (chunk->next != nullptr) chunk->next->previous = chunk->previous;
  chunk->listed = false;
}

}  // namespace

void* PoolAllocate(std::size_t size) {
  if (!kPooled || size > kLargestPooledBlock || size == 0) {
    void* const block = ::operator new(size, std::nothrow);
    if (block == nullptr) throw CMemoryException();
    return block;
  }
  const std::size_t which = (size - 1) / kGranule;
  const std::size_t blockSize = (which + 1) * kGranule;
  Pool& pool = ThePool();
  const MaybeLock lock(pool.mutex);
  SizeClass& sizeClass = pool.sizes[which];
  Chunk* chunk = sizeClass.withRoom;
  if (chunk == nullptr) {
    chunk = TakeChunk(pool, which);
    if (chunk == nullptr) throw CMemoryException();
    PushFront(sizeClass, chunk);
  }
  ++chunk->live;
  void* block = chunk->free;
  if (block != nullptr) {
    chunk->free = chunk->free->next;
    __builtin_prefetch(chunk->free, 1);
  } else {
    block = chunk->fresh;
    chunk->fresh += blockSize;
    __builtin_prefetch(chunk->fresh + blockSize, 1);
  }
  const auto used = static_cast<std::size_t>(chunk->fresh - reinterpret_cast<std::byte*>(chunk));
  if (chunk->free == nullptr && used + blockSize > chunk->size) Unlist(sizeClass, chunk);
  return block;
}

void PoolFree(void* block, std::size_t size) noexcept {
  if (!kPooled || size > kLargestPooledBlock || size == 0) {
    ::operator delete(block);
    return;
  }
  auto* const chunk = reinterpret_cast<Chunk*>(reinterpret_cast<std::uintptr_t>(block) & ~(kChunkSize - 1));
  Pool& pool = ThePool();
  const MaybeLock lock(pool.mutex);
  // cppcheck-suppress constVariable
  SizeClass& sizeClass = pool.sizes[chunk->which];
  chunk->free = new (block) FreeBlock{chunk->free};
  --chunk->live;
  if (!chunk->listed) PushFront(sizeClass, chunk);
  if (chunk->live == 0 && (chunk->next != nullptr || chunk->previous != nullptr)) {
    Unlist(sizeClass, chunk);
    GiveChunkBack(pool, chunk);
  }
}

}  // namespace kesp
