// Reads a file from some place on to its end with a second thread, ahead of the one who takes the bytes.
//
// While one thread makes objects of what was read, the system copies what comes next out of its page cache on another
// processor. Who has nothing to do helps: the taker reads a block himself where he would have to wait, and the thread
// makes memory ready for objects that will be kept (see PoolPrepare). It pays for files of many megabytes.
//
// Blocks come in the order of the file and follow one another. The end of the file, and a failed read, end them: Next
// then answers none, and whoever wants more reads on for himself, and meets the end or the failure.
//
// A child that the process forks meanwhile has no such thread: there it ends at once, and the child reads for itself.
// No signal of the host's is handled in the thread. A host that wants no thread of the library's switches it off.
//
// Ownership: borrows the descriptor, which must stay open as long as the object lives. A block is valid until the one
// behind the next is taken. Errors: std::bad_alloc from the constructor, without the memory or without a thread. Not
// installed.
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

namespace kesp {

class BlockReader {
 public:
  // Whether there may be such a thread at all, for the whole process. Any thread may say so.
  static void Allow(bool allowed) noexcept;
  // Whether there may be one, and it and this thread can run at the same time. Two that take turns are slower than one.
  static bool IsWorthwhile() noexcept;
  // In front of each block there are `roomInFront` bytes for what is left of the one before.
  BlockReader(int fd, std::uint64_t offset, std::size_t roomInFront, bool objectsAreKept);
  ~BlockReader();
  BlockReader(const BlockReader&) = delete;
  BlockReader& operator=(const BlockReader&) = delete;

  // Waits for the next block; empty at the end.
  std::span<std::byte> Next();
  // Where in the file the next block begins.
  std::uint64_t NextOffset() const noexcept { return OffsetOf(m_given.load(std::memory_order_relaxed)); }

 private:
  static constexpr std::size_t kBlockSize = std::size_t{128} << 10;
  static constexpr std::size_t kBlocks = 10;
  static constexpr std::size_t kPage = 4096;
  // The block given last is being looked at, and the rest of the one before is being moved in front of it.
  static constexpr std::size_t kMostAhead = kBlocks - 2;

  static void* RunThread(void* self);
  void Run();
  std::optional<std::size_t> Claim() noexcept;
  std::size_t ReadBlock(std::size_t number) noexcept;
  bool IsRead(std::size_t number) const noexcept {
    return m_read[number % kBlocks].load(std::memory_order_acquire) > number;
  }
  // All but the first begin at a page of the file.
  std::uint64_t OffsetOf(std::size_t number) const noexcept {
    return number == 0 ? m_offset : m_offset - m_offset % kPage + number * kBlockSize;
  }
  // Its place in memory is at the same offset in a page as the bytes have in the file.
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

  // Blocks are numbered as they come. Whoever claims one reads it into its slot, and notes there its size, and then
  // its number and 1.
  std::array<std::size_t, kBlocks> m_sizes{};
  std::array<std::atomic<std::size_t>, kBlocks> m_read{};
  std::atomic<std::size_t> m_claimed{0};
  std::atomic<std::size_t> m_given{0};
  std::atomic<bool> m_stop{false};
  bool m_ended = false;  // the taker has had the last block

  pthread_t m_thread{};
};

}  // namespace kesp
