#include "kesp/memory/ObjectPool.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "kesp/platform/Exception.h"
#include "kesp/platform/Locks.h"
#include "kesp/platform/Pages.h"

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

constexpr std::size_t kRegionSize = std::size_t{2} << 20;  // also its alignment: that of a huge page
constexpr std::size_t kSpanSize = std::size_t{64} << 10;   // also its alignment: a block's address gives its span
constexpr std::uint32_t kAllSpans = 0xFFFFFFFF;
static_assert(kRegionSize / kSpanSize == 32);
// Sizes that are a multiple of 16 are aligned to 16, others to 8: no type needs more than its size allows.
constexpr std::size_t kGranule = 8;
constexpr std::size_t kSizes = kLargestPooledBlock / kGranule;
constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kRunSize = std::size_t{16} << 10;  // what a thread takes from a span at once
constexpr bool kWide = sizeof(void*) >= 8;               // addresses are plentiful
constexpr std::size_t kMostSpareRegions = kWide ? 64 : 16;
constexpr std::size_t kReadyRegions = 4;  // what PoolPrepare keeps ready
constexpr std::size_t kFetchedAhead = 4;  // blocks
constexpr std::size_t kMostRegionsAtOnce = !kUnmapsParts ? 1 : kWide ? 16 : 4;

struct FreeBlock {
  FreeBlock* next;
};

// Links a region or a span into the list of those with room.
template <class T>
struct Links {
  T* previous = nullptr;
  T* next = nullptr;
};

template <class T>
void PushFront(T*& first, T* item) {
  item->links = {nullptr, first};
  if (first != nullptr) first->links.previous = item;
  first = item;
}
template <class T>
void Unlink(T*& first, T* item) {
  (item->links.previous != nullptr ? item->links.previous->links.next : first) = item->links.next;
  if (item->links.next != nullptr) item->links.next->links.previous = item->links.previous;
}

// At the start of every region, before the Span of its first span.
struct alignas(kCacheLine) Region {
  std::uint32_t freeSpans;  // one bit for each span
  Links<Region> links;      // in the list while a span is free
  Region* previousInUse;
  Region* nextInUse;
};

// At the start of every span that is in use.
struct alignas(kCacheLine) Span {
  FreeBlock* free;      // blocks that were freed
  std::byte* fresh;     // no block from here on was handed out yet
  std::uint32_t live;   // blocks in use, or in a thread's stock
  std::uint32_t which;  // index of the block size
  Links<Span> links;    // in the list while there is room
  bool listed;
};
static_assert(sizeof(Region) == kCacheLine && sizeof(Span) == kCacheLine);

std::size_t BlockSize(std::size_t which) { return (which + 1) * kGranule; }

// Guarded by g_poolLock.
struct Pool {
  std::array<Span*, kSizes> withRoom{};  // for each size; the first is the one in use
  Region* regions = nullptr;             // those with a free span
};

// Never destroyed: records may outlive every other static object.
static_assert(std::is_trivially_destructible_v<Pool>);
constinit Pool g_pool;

template <class T>
T* StartOf(void* inside, std::size_t size) {
  return reinterpret_cast<T*>(reinterpret_cast<std::uintptr_t>(inside) & ~(size - 1));
}

std::byte* EndOf(Span* span) { return StartOf<std::byte>(span, kSpanSize) + kSpanSize; }

Span* SpanOf(void* block) {
  auto* const start = StartOf<std::byte>(block, kSpanSize);
  const bool firstOfRegion = reinterpret_cast<std::uintptr_t>(start) % kRegionSize == 0;
  return reinterpret_cast<Span*>(firstOfRegion ? start + sizeof(Region) : start);
}

// A list of blocks of one span that move to a thread or back.
struct Blocks {
  FreeBlock* first = nullptr;
  FreeBlock* last = nullptr;  // valid while count is not 0
  std::uint32_t count = 0;

  void Push(void* block) noexcept {
    first = new (block) FreeBlock{first};
    if (count++ == 0) last = first;
  }
  void* Pop() noexcept {
    FreeBlock* const block = first;
    first = block->next;
    --count;
    return block;
  }
};

// The blocks of one size that a thread can hand out, and those that it has freed.
struct Stock {
  FreeBlock* free = nullptr;  // the free blocks of a run
  std::byte* fresh = nullptr;
  std::byte* freshEnd = nullptr;
  Blocks freed;
  void* freedSpan = nullptr;  // the start of the span of the blocks in `freed`, if there are any
};

std::atomic<int> g_smallToCome{0};  // how many more regions get small pages because a huge one was slow to come

// Brings in all pages of a region at once. Returns false where that fails.
bool MakePages(void* region) noexcept {
  using Clock = std::chrono::steady_clock;
  constexpr Clock::duration kSlow = std::chrono::milliseconds(1);  // a huge page that is at hand takes far less
  constexpr int kSmallRegions = 64;                                // 128 MiB; trying again after that costs little
  const bool huge = g_smallToCome.load(std::memory_order_relaxed) <= 0;
  const Clock::time_point start = Clock::now();
  if (!FillPages(region, kRegionSize, huge)) return false;
  if (!huge) {
    --g_smallToCome;
  } else if (Clock::now() - start > kSlow) {
    g_smallToCome = kSmallRegions;
  }
  return true;
}

// Hands out regions and takes back empty ones. Pages are brought in, and address space is mapped and unmapped, without
// the lock: other threads wait only for changes to the lists.
class Regions {
 public:
  // Returns null when there is no memory.
  Region* Acquire() noexcept {
    bool isFirst = false;
    {
      const std::lock_guard lock(g_regionsLock);
      if (m_spare != nullptr) return Begin(PopSpare());
      isFirst = !std::exchange(m_hadFirst, true);
    }
    void* const fresh = CutFresh();
    if (fresh == nullptr) return nullptr;
    if (!isFirst) (void)MakePages(fresh);
    const std::lock_guard lock(g_regionsLock);
    return Begin(fresh);
  }
  // Some regions are kept for the next data set. The system may take back all of their pages but the first.
  void Release(Region* region) noexcept {
    constexpr std::size_t kSmallestPage = 4096;
    {
      const std::lock_guard lock(g_regionsLock);
      (region->previousInUse != nullptr ? region->previousInUse->nextInUse : m_inUse) = region->nextInUse;
      if (region->nextInUse != nullptr) region->nextInUse->previousInUse = region->previousInUse;
    }
    LetGoPages(reinterpret_cast<std::byte*>(region) + kSmallestPage, kRegionSize - kSmallestPage);
    {
      const std::lock_guard lock(g_regionsLock);
      if (m_spareCount < kMostSpareRegions) return PushSpare(region);
    }
    UnmapPages(region, kRegionSize);
  }
  bool Prepare() noexcept {
    {
      const std::lock_guard lock(g_regionsLock);
      if (m_spareCount >= kReadyRegions) return false;
    }
    void* const fresh = CutFresh();
    if (fresh == nullptr) return false;
    const bool ready = MakePages(fresh);
    const std::lock_guard lock(g_regionsLock);
    PushSpare(new (fresh) Region{});
    return ready;
  }
  // Whether the block is in one of the regions in use.
  bool Have(void* block) noexcept {
    const auto* const wanted = StartOf<Region>(block, kRegionSize);
    const std::lock_guard lock(g_regionsLock);
    const Region* region = m_inUse;
    while (region != nullptr && region != wanted) region = region->nextInUse;
    return region != nullptr;
  }

 private:
  // The caller of these holds the lock.
  Region* Begin(void* place) noexcept {
    auto* const region = new (place) Region{kAllSpans, {}, nullptr, m_inUse};
    if (m_inUse != nullptr) m_inUse->previousInUse = region;
    return m_inUse = region;
  }
  void PushSpare(Region* region) noexcept {
    region->links.next = m_spare;
    m_spare = region;
    ++m_spareCount;
  }
  void* PopSpare() noexcept {
    Region* const region = m_spare;
    m_spare = region->links.next;
    --m_spareCount;
    return region;
  }
  // Returns address space for a region, or null. It is mapped in ever larger pieces: while pages are being brought in,
  // the system lets no thread change the process's memory map.
  void* CutFresh() noexcept {
    std::size_t atOnce = 1;
    {
      const std::lock_guard lock(g_regionsLock);
      if (m_fresh != m_freshEnd) return std::exchange(m_fresh, m_fresh + kRegionSize);
      atOnce = m_atOnce;
    }
    std::byte* piece = Map(atOnce);
    if (piece == nullptr && atOnce > 1) piece = Map(atOnce = 1);
    if (piece == nullptr) return nullptr;
    {
      const std::lock_guard lock(g_regionsLock);
      m_atOnce = std::min(2 * atOnce, kMostRegionsAtOnce);
      if (m_fresh == m_freshEnd) {
        m_fresh = piece + kRegionSize;
        m_freshEnd = piece + atOnce * kRegionSize;
        return piece;
      }
    }
    // Another thread mapped some meanwhile.
    if (atOnce > 1) UnmapPages(piece + kRegionSize, (atOnce - 1) * kRegionSize);
    return piece;
  }
  static std::byte* Map(std::size_t regions) noexcept {
    return static_cast<std::byte*>(MapPages(regions * kRegionSize, kRegionSize));
  }

  Region* m_inUse = nullptr;
  Region* m_spare = nullptr;  // empty regions, linked by `links.next`
  std::size_t m_spareCount = 0;
  std::byte* m_fresh = nullptr;  // mapped but not yet handed out, up to m_freshEnd
  std::byte* m_freshEnd = nullptr;
  std::size_t m_atOnce = 1;
  bool m_hadFirst = false;
};
static_assert(std::is_trivially_destructible_v<Regions>);
constinit Regions g_regions;

// Takes a span for blocks of one size from a region with a free span; null if there is no such region. The caller holds
// the lock.
Span* BeginSpan(std::size_t which) noexcept {
  Region* const region = g_pool.regions;
  if (region == nullptr) return nullptr;
  const int index = std::countr_zero(region->freeSpans);
  region->freeSpans &= region->freeSpans - 1;
  if (region->freeSpans == 0) Unlink(g_pool.regions, region);
  std::byte* const place = reinterpret_cast<std::byte*>(region) + static_cast<std::size_t>(index) * kSpanSize;
  std::byte* const head = index == 0 ? place + sizeof(Region) : place;
  auto* const span = new (head) Span{nullptr, head + sizeof(Span), 0, static_cast<std::uint32_t>(which), {}, true};
  PushFront(g_pool.withRoom[which], span);
  return span;
}

// Returns the region if that was its last span in use; the caller gives the region back once it has released the lock.
Region* EndSpan(Span* span) noexcept {
  auto* const region = StartOf<Region>(span, kRegionSize);
  if (region->freeSpans == 0) PushFront(g_pool.regions, region);
  region->freeSpans |= 1U << (reinterpret_cast<std::uintptr_t>(span) % kRegionSize / kSpanSize);
  if (region->freeSpans != kAllSpans) return nullptr;
  Unlink(g_pool.regions, region);
  return region;
}

// Takes up to `most` bytes of blocks for the stock, and at least one block. Returns the bytes taken; 0 if there is no
// memory.
std::size_t StockUp(std::size_t which, std::size_t most, Stock& stock) noexcept {
  const std::size_t blockSize = BlockSize(which);
  std::unique_lock lock(g_poolLock);
  Span* span = g_pool.withRoom[which];
  while (span == nullptr && (span = BeginSpan(which)) == nullptr) {
    lock.unlock();
    Region* const region = g_regions.Acquire();
    if (region == nullptr) return 0;
    lock.lock();
    PushFront(g_pool.regions, region);
    span = g_pool.withRoom[which];
  }
  std::byte* const end = EndOf(span);
  std::size_t count = 0;
  if (span->free != nullptr && most > blockSize) {
    // All freed blocks: those ever handed out, less those in use.
    const std::byte* const first = reinterpret_cast<std::byte*>(span) + sizeof(Span);
    count = static_cast<std::size_t>(span->fresh - first) / blockSize - span->live;
    stock.free = std::exchange(span->free, nullptr);
  } else if (span->free != nullptr) {
    count = 1;
    stock.free = std::exchange(span->free, span->free->next);
    stock.free->next = nullptr;
  } else {
    count =
        std::min(std::max<std::size_t>(most / blockSize, 1), static_cast<std::size_t>(end - span->fresh) / blockSize);
    stock.fresh = span->fresh;
    stock.freshEnd = span->fresh += count * blockSize;
  }
  span->live += static_cast<std::uint32_t>(count);
  if (span->free == nullptr && span->fresh + blockSize > end) {
    Unlink(g_pool.withRoom[which], span);
    span->listed = false;
  }
  return count * blockSize;
}

void GiveBack(Blocks& blocks) noexcept {
  Span* const span = SpanOf(blocks.first);
  Region* emptied = nullptr;
  {
    const std::lock_guard lock(g_poolLock);
    Span*& first = g_pool.withRoom[span->which];
    blocks.last->next = span->free;
    span->free = blocks.first;
    span->live -= blocks.count;
    if (!span->listed) {
      PushFront(first, span);
      span->listed = true;
    }
    // One span of each size stays, so that allocating and freeing one block in turn stays cheap.
    if (span->live == 0 && (span->links.next != nullptr || span->links.previous != nullptr)) {
      Unlink(first, span);
      emptied = EndSpan(span);
    }
  }
  blocks = {};
  if (emptied != nullptr) g_regions.Release(emptied);
}

struct ThreadStocks {
  std::array<Stock, kSizes> stocks{};
  std::int64_t bytesHeld = 0;

  void GiveBackFreed(std::size_t which) noexcept {
    Blocks& freed = stocks[which].freed;
    bytesHeld -= static_cast<std::int64_t>(freed.count * BlockSize(which));
    kesp::GiveBack(freed);
  }
};

// Read for each block, so its place is fixed when the library is loaded, where the C library allows that. Null before
// the thread's first block, while the thread ends, and if there was no memory for it.
#if KESP_HAS_SPARE_STATIC_TLS
#define KESP_FIXED_PLACE [[gnu::tls_model("initial-exec")]]
#else
#define KESP_FIXED_PLACE
#endif
KESP_FIXED_PLACE thread_local ThreadStocks* t_stocks = nullptr;
KESP_FIXED_PLACE thread_local bool t_stocksMade = false;

// Gives a thread's stocks back when it ends. Blocks that other destructors free later go back to the pool at once.
void EndStocks(void* ended) {
  t_stocks = nullptr;
  const std::unique_ptr<ThreadStocks> own(static_cast<ThreadStocks*>(ended));
  for (std::size_t which = 0; which < kSizes; ++which) {
    Stock& stock = own->stocks[which];
    if (stock.freed.count != 0) GiveBack(stock.freed);
    Blocks rest;
    while (stock.free != nullptr) rest.Push(std::exchange(stock.free, stock.free->next));
    if (rest.count != 0) GiveBack(rest);
    for (; stock.fresh != stock.freshEnd; stock.fresh += BlockSize(which)) rest.Push(stock.fresh);
    if (rest.count != 0) GiveBack(rest);
  }
}

// Returns null if there is no memory. Uses a key: a thread_local object that can't be registered would end the process.
ThreadStocks* MakeStocks() noexcept {
  static pthread_key_t key{};
  static const bool hasKey = (StayLoaded(), ::pthread_key_create(&key, EndStocks) == 0);
  if (!hasKey) return nullptr;
  auto stocks = std::unique_ptr<ThreadStocks>(new (std::nothrow) ThreadStocks);
  if (stocks == nullptr || ::pthread_setspecific(key, stocks.get()) != 0) return nullptr;
  return stocks.release();
}

ThreadStocks* Stocks() noexcept {
  if (!t_stocksMade) {
    t_stocksMade = true;
    t_stocks = MakeStocks();
  }
  return t_stocks;
}

[[gnu::noinline]] void* AllocateFromHeap(std::size_t size) {
  void* const block = ::operator new(size, std::nothrow);
  if (block == nullptr) throw CMemoryException();
  return block;
}

// Takes a block from a new run or, in a thread without a stock, a single block from the pool.
[[gnu::noinline]] void* AllocateFromNewRun(std::size_t which) {
  ThreadStocks* const mine = Stocks();
  Stock single;
  Stock& stock = mine != nullptr ? mine->stocks[which] : single;
  const std::size_t taken = StockUp(which, mine != nullptr ? kRunSize : BlockSize(which), stock);
  if (taken == 0) throw CMemoryException();
  if (mine != nullptr) mine->bytesHeld += static_cast<std::int64_t>(taken);
  if (stock.free != nullptr) return std::exchange(stock.free, stock.free->next);
  return std::exchange(stock.fresh, stock.fresh + BlockSize(which));
}

// PoolFree of the first block from another span.
[[gnu::noinline]] void FreeElsewhere(void* block, std::size_t which) noexcept {
  ThreadStocks* const mine = Stocks();
  if (mine == nullptr) {
    Blocks single;
    single.Push(block);
    return GiveBack(single);
  }
  Stock& stock = mine->stocks[which];
  if (stock.freed.count != 0) mine->GiveBackFreed(which);
  stock.freedSpan = StartOf<void>(block, kSpanSize);
  stock.freed.Push(block);
}

}  // namespace

void* PoolAllocate(std::size_t size) {
  if (!kPooled || size > kLargestPooledBlock || size == 0) return AllocateFromHeap(size);
  const std::size_t which = (size - 1) / kGranule;
  if (t_stocks == nullptr) return AllocateFromNewRun(which);
  Stock& stock = t_stocks->stocks[which];
  if (stock.freed.count != 0) return stock.freed.Pop();
  if (stock.free != nullptr) return std::exchange(stock.free, stock.free->next);
  if (stock.fresh == stock.freshEnd) return AllocateFromNewRun(which);
  const std::size_t blockSize = BlockSize(which);
  void* const block = std::exchange(stock.fresh, stock.fresh + blockSize);
  // Most of the cost of a record is filling memory that is in no cache, so prefetch a whole block a few blocks ahead.
  const std::byte* const coming = stock.fresh + kFetchedAhead * blockSize;
  for (std::size_t line = 0; line < blockSize; line += kCacheLine) __builtin_prefetch(coming + line, 1);
  return block;
}

void PoolFree(void* block, std::size_t size) noexcept {
  if (!kPooled || size > kLargestPooledBlock || size == 0) {
    ::operator delete(block);
    return;
  }
  const std::size_t which = (size - 1) / kGranule;
  if (t_stocks == nullptr) return FreeElsewhere(block, which);
  Stock& stock = t_stocks->stocks[which];
  if (stock.freedSpan != StartOf<void>(block, kSpanSize)) return FreeElsewhere(block, which);
  stock.freed.Push(block);
}

void PoolFreeUnsized(void* block) noexcept {
  if (!kPooled || !g_regions.Have(block)) {
    ::operator delete(block);
    return;
  }
  PoolFree(block, BlockSize(SpanOf(block)->which));
}

bool PoolPrepare() noexcept { return kPooled && g_regions.Prepare(); }

std::int64_t PoolBytesHeld() noexcept { return t_stocks != nullptr ? t_stocks->bytesHeld : 0; }

}  // namespace kesp
