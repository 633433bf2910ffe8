#include "kesp/platform/BlockReader.h"

#include <unistd.h>

#include <cerrno>
#include <new>
#include <thread>

#include "kesp/memory/ObjectPool.h"
#include "kesp/platform/SystemCalls.h"
#include "kesp/platform/Threads.h"

namespace kesp {
namespace {

std::atomic<bool> g_allowed{true};

// Waits until `mustWait(number)` is false. Usually the other thread is quick, and waking up would take longer, so this
// spins first and sleeps only if that takes too long.
template <class MustWait>
void WaitWhile(const std::atomic<std::size_t>& number, MustWait mustWait) noexcept {
  constexpr int kLooks = 1000;
  for (int look = 0; look < kLooks; ++look) {
    if (!mustWait(number.load(std::memory_order_acquire))) return;
    std::this_thread::yield();
  }
  for (;;) {
    const std::size_t seen = number.load(std::memory_order_acquire);
    if (!mustWait(seen)) return;
    number.wait(seen, std::memory_order_acquire);
  }
}

}  // namespace

void BlockReader::Allow(bool allowed) noexcept { g_allowed = allowed; }

bool BlockReader::IsWorthwhile() noexcept { return g_allowed && HasSecondProcessor(); }

BlockReader::BlockReader(int fd, std::uint64_t offset, std::size_t roomInFront, bool objectsAreKept)
    : m_fd(fd),
      m_process(::getpid()),
      m_offset(offset),
      m_roomInFront(roomInFront),
      m_objectsAreKept(objectsAreKept),
      m_memory(kBlocks * (roomInFront + kBlockSize)) {
  if (!m_memory) throw std::bad_alloc();
  if (!StartThread(m_thread, RunThread, this)) throw std::bad_alloc();
}

BlockReader::~BlockReader() {
  if (::getpid() != m_process) return;  // a forked child has no such thread
  m_stop = true;
  m_given += kBlocks;  // makes room, which wakes a thread that waits for it
  m_given.notify_one();
  ::pthread_join(m_thread, nullptr);
}

void* BlockReader::RunThread(void* self) {
  static_cast<BlockReader*>(self)->Run();
  return nullptr;
}

// Claims the next block that no thread is reading, if there is room for one.
std::optional<std::size_t> BlockReader::Claim() noexcept {
  std::size_t number = m_claimed.load(std::memory_order_relaxed);
  while (number < m_given.load(std::memory_order_acquire) + kMostAhead) {
    if (m_claimed.compare_exchange_weak(number, number + 1, std::memory_order_acq_rel)) return number;
  }
  return std::nullopt;
}

std::span<std::byte> BlockReader::Next() {
  if (m_ended || ::getpid() != m_process) return {};
  const std::size_t number = m_given.load(std::memory_order_relaxed);
  while (!IsRead(number)) {
    if (const std::optional<std::size_t> other = Claim()) {
      (void)ReadBlock(*other);
    } else {
      WaitWhile(m_read[number % kBlocks], [number](std::size_t read) { return read <= number; });
    }
  }
  const std::span<std::byte> whole = Block(number);
  const std::span<std::byte> block = whole.first(m_sizes[number % kBlocks]);
  m_ended = block.size() < whole.size();  // the last: the caller's next read finds more data or the error
  if (block.empty()) return {};
  m_given.store(number + 1, std::memory_order_release);
  // Waking a thread is slow, so wait until there is room for several blocks.
  if (m_claimed.load(std::memory_order_relaxed) - number <= kMostAhead / 2) m_given.notify_one();
  return block;
}

void BlockReader::Run() {
  while (!m_stop) {
    if (Task* const task = m_offered.exchange(nullptr, std::memory_order_acq_rel)) {
      task->TryRun();
      continue;
    }
    const std::optional<std::size_t> number = Claim();
    if (number) {
      if (ReadBlock(*number) < Block(*number).size()) return;
      continue;
    }
    if (m_objectsAreKept && PoolPrepare()) continue;
    const std::size_t claimed = m_claimed.load(std::memory_order_relaxed);
    WaitWhile(m_given, [this, claimed](std::size_t given) {
      return claimed >= given + kMostAhead && m_offered.load(std::memory_order_relaxed) == nullptr;
    });
  }
}

// Returns the number of bytes read: less than a full block at the end of the file or when reading fails.
std::size_t BlockReader::ReadBlock(std::size_t number) noexcept {
  const std::span<std::byte> to = Block(number);
  std::size_t total = 0;
  while (total < to.size()) {
    const ssize_t got =
        System().Read(m_fd, to.data() + total, to.size() - total, static_cast<std::int64_t>(OffsetOf(number) + total));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    total += static_cast<std::size_t>(got);
  }
  m_sizes[number % kBlocks] = total;
  m_read[number % kBlocks].store(number + 1, std::memory_order_release);
  m_read[number % kBlocks].notify_one();
  return total;
}

}  // namespace kesp
