// Reads a file from an offset to its end on a second thread, ahead of the thread that takes the bytes.
//
// While one thread makes objects from the bytes, the other reads the next blocks on another processor. Whichever thread
// is idle helps: the caller reads a block itself rather than wait; the second thread prepares memory for objects that
// will be kept (see PoolPrepare), and does work that the caller offers. It pays for files of many megabytes.
//
// Blocks come in file order without gaps. The end of the file or a failed read ends them: Next then returns an empty
// span. A caller that wants more reads the file itself, and meets the end or the failure there.
//
// A forked child has no such thread: there Next returns an empty span, and the child reads the file itself. The thread
// blocks all signals. A host that wants no thread of the library can disallow it.
//
// Ownership: borrows the descriptor, which must stay open during the object's lifetime. A block stays valid while the
// next one is taken, until the one after that. Errors: the constructor throws std::bad_alloc if there is no memory or
// no thread. Not installed.
#pragma once
#include <pthread.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kesp/memory/AlignedBytes.h"
#include "kesp/platform/Task.h"

namespace kesp {

class BlockReader {
 public:
  // Allows or disallows such threads for the whole process. Any thread may call it.
  static void Allow(bool allowed) noexcept;
  // Whether threads are allowed and there is a second processor. On one processor two threads that take turns are
  // slower than one.
  static bool IsWorthwhile() noexcept;
  // In front of each block are `roomInFront` bytes for the unread rest of the block before.
  BlockReader(int fd, std::uint64_t offset, std::size_t roomInFront, bool objectsAreKept);
  ~BlockReader();
  BlockReader(const BlockReader&) = delete;
  BlockReader& operator=(const BlockReader&) = delete;

  // Waits for the next block and returns it; empty at the end.
  std::span<std::byte> Next();
  // Offers work to the second thread, in place of what was offered before: it does the work if it comes by in time.
  void Offer(Task& task) noexcept { m_offered.store(&task, std::memory_order_release); }
  // File offset of the next block.
  std::uint64_t NextOffset() const noexcept { return OffsetOf(m_given.load(std::memory_order_relaxed)); }

 private:
  static constexpr std::size_t kBlockSize = std::size_t{128} << 10;
  static constexpr std::size_t kBlocks = 10;
  static constexpr std::size_t kPage = 4096;
  // Two slots are in use: the caller reads the last block, and moves the rest of the one before in front of it.
  static constexpr std::size_t kMostAhead = kBlocks - 2;

  static void* RunThread(void* self);
  void Run();
  std::optional<std::size_t> Claim() noexcept;
  std::size_t ReadBlock(std::size_t number) noexcept;
  bool IsRead(std::size_t number) const noexcept {
    return m_read[number % kBlocks].load(std::memory_order_acquire) > number;
  }
  // All but the first block begin at a page boundary of the file.
  std::uint64_t OffsetOf(std::size_t number) const noexcept {
    return number == 0 ? m_offset : m_offset - m_offset % kPage + number * kBlockSize;
  }
  // Memory and file have the same offset within a page.
  std::span<std::byte> Block(std::size_t number) const noexcept {
    std::byte* const slot = m_memory.Data() + number % kBlocks * (m_roomInFront + kBlockSize) + m_roomInFront;
    return {slot + OffsetOf(number) % kPage, static_cast<std::size_t>(OffsetOf(number + 1) - OffsetOf(number))};
  }

  const int m_fd;
  const pid_t m_process;
  const std::uint64_t m_offset;
  const std::size_t m_roomInFront;
  const bool m_objectsAreKept;
  const AlignedBytes m_memory;

  // Blocks are numbered in file order. The thread that claims one reads it into its slot, stores the size, and then
  // stores the number plus 1 in m_read.
  std::array<std::size_t, kBlocks> m_sizes{};
  std::array<std::atomic<std::size_t>, kBlocks> m_read{};
  std::atomic<std::size_t> m_claimed{0};
  std::atomic<std::size_t> m_given{0};
  std::atomic<bool> m_stop{false};
  std::atomic<Task*> m_offered{nullptr};
  bool m_ended = false;  // the caller has had the last block

  pthread_t m_thread{};
};

}  // namespace kesp
