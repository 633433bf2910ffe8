#include "kesp/platform/ObjectPool.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/single_threaded.h>

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

constexpr std::size_t kRegionSize = std::size_t{2} << 20;  // and its alignment: that of a huge page
constexpr std::size_t kSpanSize = std::size_t{64} << 10;   // and its alignment: a block finds its span by its address
constexpr std::uint32_t kAllSpans = 0xFFFFFFFF;
static_assert(kRegionSize / kSpanSize == 32);
// Sizes that are a multiple of 16 are aligned to 16, others to 8: no type needs more than its size allows.
constexpr std::size_t kGranule = 8;
constexpr std::size_t kSizes = kLargestPooledBlock / kGranule;
constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kMostSpareRegions = 64;   // 128 MiB
constexpr std::size_t kReadyRegions = 4;        // what PoolPrepare keeps ready
constexpr std::size_t kFetchedAhead = 4;        // blocks
constexpr std::size_t kMostRegionsAtOnce = 16;  // of address space: 32 MiB

struct FreeBlock {
  FreeBlock* next;
};

// Links among the regions, or among the spans of one size, that have room.
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

// At the start of every region, in front of the head of its first span.
struct alignas(kCacheLine) Region {
  std::uint32_t freeSpans;  // a bit for each
  Links<Region> links;      // listed while a span is free
};

// At the start of every span that is in use.
struct alignas(kCacheLine) Span {
  FreeBlock* free;      // blocks that were given back
  std::byte* fresh;     // from here on no block was handed out yet
  std::uint32_t live;   // blocks in use
  std::uint32_t which;  // of the sizes
  Links<Span> links;    // listed while there is room
  bool listed;
};
static_assert(sizeof(Region) == kCacheLine && sizeof(Span) == kCacheLine);

}  // namespace

// What this thread freed last of each size, kept for when it asks for that size again: who walks over a file makes and
// deletes one record after another, and so neither locks the pool nor looks at a span.
struct KeptBlocks {
  std::array<void*, kSizes> last{};
};

namespace {

struct Pool {
  std::mutex mutex;
  std::array<Span*, kSizes> withRoom{};  // of each size; the first one is in use
  Region* regions = nullptr;             // with a free span
};

// Never destroyed: records may outlive every other static object.
static_assert(std::is_trivially_destructible_v<Pool>);
constinit Pool g_pool;

// Whether this thread holds the pool's lock, for a PoolSession. Looked at for every block, so its place is fixed when
// the library is loaded.
[[gnu::tls_model("initial-exec")]] thread_local bool t_inSession = false;
[[gnu::tls_model("initial-exec")]] thread_local std::int64_t t_spansTaken = 0;

// Null until the thread frees a block outside a session, when the thread ends, and as a rule in a session, which holds
// the lock already and may free a whole data set.
[[gnu::tls_model("initial-exec")]] thread_local KeptBlocks* t_kept = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local bool t_keptMade = false;

// As long as the process has one thread there is nobody to lock out.
class MaybeLock {
 public:
  explicit MaybeLock(std::mutex& mutex) : m_mutex(__libc_single_threaded != 0 || t_inSession ? nullptr : &mutex) {
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

template <class T>
T* StartOf(void* inside, std::size_t size) {
  return reinterpret_cast<T*>(reinterpret_cast<std::uintptr_t>(inside) & ~(size - 1));
}

// How many regions are still to be of small pages, since a huge one was slow to come.
std::atomic<int> g_smallToCome{0};

// Has the system bring all pages of a region at once. False when it can't: some systems can't do that at all, and leave
// it to the first touch.
bool MakePages(void* region) noexcept {
  using Clock = std::chrono::steady_clock;
  constexpr Clock::duration kSlow = std::chrono::milliseconds(1);  // several times what a huge page in memory takes
  constexpr int kSmallRegions = 64;                                // 128 MiB, after which another try hardly matters
  constexpr int kPopulateWrite = 23;                               // MADV_POPULATE_WRITE, which older headers lack
  const bool huge = g_smallToCome.load(std::memory_order_relaxed) <= 0;
  if (huge) ::madvise(region, kRegionSize, MADV_HUGEPAGE);  // a wish
  const Clock::time_point start = Clock::now();
  if (::madvise(region, kRegionSize, kPopulateWrite) != 0) return false;
  if (!huge) {
    --g_smallToCome;
  } else if (Clock::now() - start > kSlow) {
    g_smallToCome = kSmallRegions;
  }
  return true;
}

// Where regions come from, and go when they are empty. It has a lock of its own, held for moments only, so that one
// thread can make them ready while another has the pool.
class Regions {
 public:
  // Null when there is no memory.
  Region* Take() noexcept {
    void* fresh = nullptr;
    {
      const std::lock_guard lock(m_mutex);
      if (m_spare != nullptr) return PopSpare();
      fresh = CutFresh();
      if (!std::exchange(m_hadFirst, true)) return Begin(fresh);
    }
    if (fresh != nullptr) (void)MakePages(fresh);
    return Begin(fresh);
  }
  // Some are kept for the next data set. Their pages, but for the first, are the system's to take back whenever it
  // wants them.
  void Give(Region* region) noexcept {
    constexpr std::size_t kSmallestPage = 4096;
    const std::lock_guard lock(m_mutex);
    if (m_spareCount >= kMostSpareRegions) {
      ::munmap(region, kRegionSize);
      return;
    }
    ::madvise(reinterpret_cast<std::byte*>(region) + kSmallestPage, kRegionSize - kSmallestPage, MADV_FREE);
    PushSpare(region);
  }
  // See PoolPrepare.
  bool Prepare() noexcept {
    void* fresh = nullptr;
    {
      const std::lock_guard lock(m_mutex);
      if (m_spareCount >= kReadyRegions) return false;
      fresh = CutFresh();
    }
    if (fresh == nullptr) return false;
    const bool ready = MakePages(fresh);
    const std::lock_guard lock(m_mutex);
    PushSpare(Begin(fresh));
    return ready;
  }

 private:
  static Region* Begin(void* place) noexcept { return place == nullptr ? nullptr : new (place) Region{kAllSpans, {}}; }
  void PushSpare(Region* region) noexcept {
    region->links.next = m_spare;
    m_spare = region;
    ++m_spareCount;
  }
  Region* PopSpare() noexcept {
    Region* const region = m_spare;
    m_spare = region->links.next;
    --m_spareCount;
    return Begin(region);
  }
  // Address space for a region. It is asked for in ever longer pieces, since the system lets nobody change the map of
  // the process's memory while pages are being made in it.
  void* CutFresh() noexcept {
    if (m_fresh == m_freshEnd && !Map(m_atOnce) && !Map(1)) return nullptr;
    return std::exchange(m_fresh, m_fresh + kRegionSize);
  }
  bool Map(std::size_t regions) noexcept {
    // One more than that, of which an aligned part is kept.
    const std::size_t wanted = regions * kRegionSize;
    void* const raw = ::mmap(nullptr, wanted + kRegionSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return false;
    auto* const begin = static_cast<std::byte*>(raw);
    const std::size_t lead = (kRegionSize - reinterpret_cast<std::uintptr_t>(begin) % kRegionSize) % kRegionSize;
    if (lead != 0) ::munmap(begin, lead);
    m_fresh = begin + lead;
    m_freshEnd = m_fresh + wanted;
    ::munmap(m_freshEnd, kRegionSize - lead);
    m_atOnce = std::min(2 * m_atOnce, kMostRegionsAtOnce);
    return true;
  }

  std::mutex m_mutex;
  Region* m_spare = nullptr;  // empty ones, by `next`
  std::size_t m_spareCount = 0;
  std::byte* m_fresh = nullptr;  // mapped and not handed out yet, up to m_freshEnd
  std::byte* m_freshEnd = nullptr;
  std::size_t m_atOnce = 1;
  bool m_hadFirst = false;
};
static_assert(std::is_trivially_destructible_v<Regions>);
constinit Regions g_regions;

Span* TakeSpan(Pool& pool, std::size_t which) {
  if (pool.regions == nullptr) {
    Region* const fresh = g_regions.Take();
    if (fresh == nullptr) return nullptr;
    PushFront(pool.regions, fresh);
  }
  ++t_spansTaken;
  Region* const region = pool.regions;
  const int index = std::countr_zero(region->freeSpans);
  region->freeSpans &= region->freeSpans - 1;
  if (region->freeSpans == 0) Unlink(pool.regions, region);
  std::byte* place = reinterpret_cast<std::byte*>(region) + static_cast<std::size_t>(index) * kSpanSize;
  std::byte* const head = index == 0 ? place + sizeof(Region) : place;
  return new (head) Span{nullptr, head + sizeof(Span), 0, static_cast<std::uint32_t>(which), {}, false};
}

void GiveSpanBack(Pool& pool, Span* span) {
  --t_spansTaken;
  auto* const region = StartOf<Region>(span, kRegionSize);
  if (region->freeSpans == 0) PushFront(pool.regions, region);
  region->freeSpans |= 1U << (reinterpret_cast<std::uintptr_t>(span) % kRegionSize / kSpanSize);
  if (region->freeSpans != kAllSpans) return;
  Unlink(pool.regions, region);
  g_regions.Give(region);
}

Span* SpanOf(void* block) {
  auto* const start = StartOf<std::byte>(block, kSpanSize);
  const bool firstOfRegion = reinterpret_cast<std::uintptr_t>(start) % kRegionSize == 0;
  return reinterpret_cast<Span*>(firstOfRegion ? start + sizeof(Region) : start);
}

[[gnu::noinline]] void* TakeFromHeap(std::size_t size) {
  void* const block = ::operator new(size, std::nothrow);
  if (block == nullptr) throw CMemoryException();
  return block;
}

// A block out of the first span that has room, `first` among the spans of its size.
void* TakeBlockOf(Span*& first, std::size_t which) noexcept {
  const std::size_t blockSize = (which + 1) * kGranule;
  Span* const span = first;
  ++span->live;
  void* block = span->free;
  if (block != nullptr) {
    span->free = span->free->next;
    __builtin_prefetch(span->free, 1);
  } else {
    block = span->fresh;
    span->fresh += blockSize;
    // Filling memory that no cache has is most of what a record costs: some blocks before it is its turn a block is
    // fetched, all of it.
    const std::byte* const coming = span->fresh + kFetchedAhead * blockSize;
    for (std::size_t line = 0; line < blockSize; line += kCacheLine) __builtin_prefetch(coming + line, 1);
  }
  const std::byte* const end = StartOf<std::byte>(span, kSpanSize) + kSpanSize;
  if (span->free == nullptr && span->fresh + blockSize > end) {
    Unlink(first, span);
    span->listed = false;
  }
  return block;
}

[[gnu::noinline]] void* TakeBlockLocked(std::size_t which) {
  Pool& pool = g_pool;
  const MaybeLock lock(pool.mutex);
  Span*& first = pool.withRoom[which];
  if (first == nullptr) {
    Span* const span = TakeSpan(pool, which);
    if (span == nullptr) throw CMemoryException();
    PushFront(first, span);
    span->listed = true;
  }
  return TakeBlockOf(first, which);
}

void* TakeBlock(std::size_t which) {
  Span*& first = g_pool.withRoom[which];
  return t_inSession && first != nullptr ? TakeBlockOf(first, which) : TakeBlockLocked(which);
}

[[gnu::noinline]] void GiveBlockBack(void* block) noexcept {
  Span* const span = SpanOf(block);
  Pool& pool = g_pool;
  const MaybeLock lock(pool.mutex);
  Span*& first = pool.withRoom[span->which];
  span->free = new (block) FreeBlock{span->free};
  --span->live;
  if (!span->listed) {
    PushFront(first, span);
    span->listed = true;
  }
  // One of each size stays, so that a block made and freed again and again costs no more than that.
  if (span->live == 0 && (span->links.next != nullptr || span->links.previous != nullptr)) {
    Unlink(first, span);
    GiveSpanBack(pool, span);
  }
}

// Gives all of them back when the thread ends. What other destructors delete later still is not kept.
void EndKeeping(void* blocks) {
  t_kept = nullptr;
  const std::unique_ptr<KeptBlocks> kept(static_cast<KeptBlocks*>(blocks));
  for (void* const block : kept->last) {
    if (block != nullptr) GiveBlockBack(block);
  }
}

// Null without the memory. By a key, since a thread_local object that can't be registered ends the process.
KeptBlocks* BeginKeeping() noexcept {
  static pthread_key_t key{};
  static const bool hasKey = ::pthread_key_create(&key, EndKeeping) == 0;
  if (!hasKey) return nullptr;
  auto* const kept = new (std::nothrow) KeptBlocks;
  if (kept == nullptr || ::pthread_setspecific(key, kept) == 0) return kept;
  delete kept;
  return nullptr;
}

// Where PoolFree goes when it can't simply keep the block.
[[gnu::noinline]] void KeepOrGiveBack(void* block, std::size_t which) noexcept {
  if (t_inSession) return GiveBlockBack(block);
  if (!t_keptMade) {
    t_keptMade = true;
    t_kept = BeginKeeping();
  }
  if (t_kept == nullptr) return GiveBlockBack(block);
  void* const before = std::exchange(t_kept->last[which], block);
  if (before != nullptr) GiveBlockBack(before);
}

}  // namespace

void* PoolAllocate(std::size_t size) {
  if (!kPooled || size > kLargestPooledBlock || size == 0) {
    return TakeFromHeap(size);
  }
  const std::size_t which = (size - 1) / kGranule;
  if (t_kept == nullptr || t_kept->last[which] == nullptr) return TakeBlock(which);
  return std::exchange(t_kept->last[which], nullptr);
}

void PoolFree(void* block, std::size_t size) noexcept {
  if (!kPooled || size > kLargestPooledBlock || size == 0) {
    ::operator delete(block);
    return;
  }
  const std::size_t which = (size - 1) / kGranule;
  if (t_kept == nullptr || t_kept->last[which] != nullptr) return KeepOrGiveBack(block, which);
  t_kept->last[which] = block;
}

bool PoolPrepare() noexcept { return kPooled && g_regions.Prepare(); }

std::int64_t PoolBytesTaken() noexcept { return static_cast<std::int64_t>(kSpanSize) * t_spansTaken; }

PoolSession::PoolSession() : m_nested(t_inSession || !kPooled) {
  if (m_nested) return;
  g_pool.mutex.lock();
  t_inSession = true;
  m_kept = std::exchange(t_kept, nullptr);
}
PoolSession::~PoolSession() {
  if (m_nested) return;
  if (m_kept != nullptr) t_kept = m_kept;
  t_inSession = false;
  g_pool.mutex.unlock();
}

PoolPause::PoolPause() : m_inSession(t_inSession) {
  if (!m_inSession) return;
  t_inSession = false;
  g_pool.mutex.unlock();
}
PoolPause::~PoolPause() {
  if (!m_inSession) return;
  g_pool.mutex.lock();
  t_inSession = true;
}

}  // namespace kesp
