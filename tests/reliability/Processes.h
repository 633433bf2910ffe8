// Processes that share a file, and records that tell whether they are whole.
#pragma once
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>

#include "kesp/records/KespTag.h"
#include "tests/recordfile/Survey.h"

// Ends a child, whose exit status is the line.
#define NEED(condition) \
  if (!(condition)) ::_exit(__LINE__)

namespace kesp::test {

// What the processes know of one file.
struct Board {
  static constexpr std::uint32_t kMost = 10'000;
  std::atomic<std::uint32_t> appended;  // records that are acknowledged
  std::atomic<std::uint32_t> writers, refused, reads, copies;
  std::atomic<bool> done;
  std::array<std::uint32_t, kMost> position;
  std::array<std::atomic<std::uint8_t>, kMost> edited;  // 1 when begun, 2 when acknowledged

  static Board& Make() {  // in memory that forked children share, for good
    void* const at = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *(at == MAP_FAILED ? throw std::bad_alloc() : new (at) Board{});
  }
  void Clear() { new (this) Board{}; }
};

// Record `n`: a tag of one of many sizes, its bytes all telling n, or a feature end.
inline std::unique_ptr<CKespRecord> Numbered(std::uint32_t n) {
  if (n % 3 != 0) return std::make_unique<CKespFeatureEnd>(EndRecord(n));
  auto tag = std::make_unique<CKespTag>();
  const ByteVector data(n * 7919 % 20'000, static_cast<std::uint8_t>(n));
  tag->Set(KESP_TAG_BLOB, "n", data.data(), static_cast<unsigned long>(data.size()));
  return tag;
}
inline bool IsWhole(const CKespRecord& record, std::uint32_t n) {
  const std::unique_ptr<CKespRecord> expected = Numbered(n);
  if (record.m_recordType != expected->m_recordType) return false;
  if (n % 3 != 0) return static_cast<const CKespFeatureEnd&>(record).FeatureNumber == n;
  const auto &a = static_cast<const CKespTag&>(record), &b = static_cast<const CKespTag&>(*expected);
  return a.m_dataLength == b.m_dataLength && std::equal(a.m_pData, a.m_pData + a.m_dataLength, b.m_pData);
}

// In a child: appends the next record and edits an earlier one.
inline void AppendAndEdit(CKespDataFile& file, Board& board) {
  const std::uint32_t n = board.appended, other = n * 31 % (n + 1);
  const auto record = Numbered(n);
  NEED(file.AppendRecord(record.get(), 0));
  board.position[n] = record->m_filePosition;
  board.appended = n + 1;
  if (other % 3 == 0) return;
  board.edited[other] = std::max<std::uint8_t>(board.edited[other], 1);
  auto end = EndRecord(other);
  NEED(file.Seek(board.position[other]) && file.UpdateRecord(&end, 8, true));
  board.edited[other] = 2;
}

}  // namespace kesp::test
