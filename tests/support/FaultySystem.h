// Makes the n-th system call of the library fail, come up short, or be counted. With n counted up from 1, the run has
// passed untouched when it is not Struck().
#pragma once
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "kesp/platform/SystemCalls.h"

namespace kesp::test {

// Spares the disk where what is on it is not at stake.
struct IdleDisk : SystemCalls {
  IdleDisk() { SetSystemCalls(this); }
  ~IdleDisk() override { SetSystemCalls(nullptr); }
  int DataSync(int) override { return 0; }
  int FullSync(int) override { return 0; }
};

// Fails the reads that reach a place in the file, so often; any thread may read.
class BadSpot : public IdleDisk {
 public:
  BadSpot(std::int64_t place, int times) : m_place(place), m_times(times) {}
  ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset) override {
    if (offset > m_place || offset + static_cast<std::int64_t>(count) <= m_place || m_times-- <= 0)
      return SystemCalls::Read(fd, to, count, offset);
    errno = EIO;
    return -1;
  }

 private:
  const std::int64_t m_place;
  std::atomic<int> m_times;
};

class FaultySystem : public IdleDisk {
 public:
  enum class Fault : char {
    Error = 'E',        // the call fails with EIO
    Full = 'F',         // calls that take room on the disk fail with ENOSPC, others work
    Interrupted = 'I',  // the call fails with EINTR once; the caller is to try again
    Short = 'S',        // a read or write moves half of what was asked, others work
    Torn = 'T',         // a write moves half, and the disk is full for the next write and for cutting the file back
  };

  // Counts only: nothing fails.
  FaultySystem() = default;
  // Fails call number `at` (from 1), and all that follow it when `forGood`.
  FaultySystem(int at, Fault fault, bool forGood = false) : m_at(at), m_fault(fault), m_forGood(forGood) {}

  bool Struck() const { return m_at != 0 && Calls() >= m_at; }
  int Calls() const { return static_cast<int>(m_names.size()); }
  int Calls(const std::string& name) const {
    return static_cast<int>(std::count(m_names.begin(), m_names.end(), name));
  }
  const std::vector<std::string>& Names() const { return m_names; }  // of the calls so far
  std::string powerEvents;  // that happen when asked: '1' for an event, '0' for none; none when used up
  unsigned sleptMs = 0;

  int Open(const char* path, int flags, unsigned mode) override {
    return Fails("open", kRoom) ? -1 : SystemCalls::Open(path, flags, mode);
  }
  int Close(int fd) override {
    // The descriptor goes even when the call reports a failure.
    const int result = SystemCalls::Close(fd);
    return Fails("close") ? -1 : result;
  }
  int Stat(const char* path, FileInfo* info) override { return Fails("stat") ? -1 : SystemCalls::Stat(path, info); }
  int FileStat(int fd, FileInfo* info) override { return Fails("fstat") ? -1 : SystemCalls::FileStat(fd, info); }
  std::int64_t End(int fd) override { return Fails("lseek") ? -1 : SystemCalls::End(fd); }
  int Lock(int fd, int operation) override { return Fails("flock") ? -1 : SystemCalls::Lock(fd, operation); }
  ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset) override {
    return Fails("read") ? -1 : SystemCalls::Read(fd, to, Moved(count), offset);
  }
  ssize_t Write(int fd, const void* from, std::size_t count, std::int64_t offset) override {
    return Fails("write", kRoom | kMoves) ? -1 : SystemCalls::Write(fd, from, Moved(count), offset);
  }
  ssize_t CopyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset, std::size_t count) override {
    if (Fails("copy_file_range", kRoom | kMoves)) return -1;
    return SystemCalls::CopyRange(from, fromOffset, to, toOffset, Moved(count));
  }
  int Truncate(int fd, std::int64_t length) override {
    return Fails("truncate", kRoom | kCuts) ? -1 : SystemCalls::Truncate(fd, length);
  }
  int DataSync(int fd) override { return Fails("fdatasync", kRoom) ? -1 : IdleDisk::DataSync(fd); }
  int FullSync(int fd) override { return Fails("fsync", kRoom) ? -1 : IdleDisk::FullSync(fd); }
  int TouchModified(int fd) override { return Fails("futimens") ? -1 : SystemCalls::TouchModified(fd); }
  int Unlink(const char* path) override { return Fails("unlink") ? -1 : SystemCalls::Unlink(path); }
  ssize_t ReadLink(const char* path, char* to, std::size_t size) override {
    return Fails("readlink") ? -1 : SystemCalls::ReadLink(path, to, size);
  }
  void SleepMs(unsigned milliseconds) override { sleptMs += milliseconds; }
  bool PowerEventHappened() override {
    const bool happened = !powerEvents.empty() && powerEvents.front() == '1';
    if (!powerEvents.empty()) powerEvents.erase(0, 1);
    return happened;
  }

 private:
  static constexpr unsigned kRoom = 1;   // takes room on the disk
  static constexpr unsigned kMoves = 2;  // and moves bytes there
  static constexpr unsigned kCuts = 4;   // or cuts a file

  bool Fails(const char* name, unsigned kind = 0) {
    m_names.emplace_back(name);
    const bool first = Calls() == m_at, now = first || (m_forGood && Struck());
    m_short = (m_fault == Fault::Short && now) || (m_fault == Fault::Torn && first);
    if (!Struck() || m_fault == Fault::Short) return false;
    errno = m_fault == Fault::Error ? EIO : m_fault == Fault::Interrupted ? EINTR : ENOSPC;
    if (m_fault == Fault::Error) return now;
    if (m_fault == Fault::Full) return now && (kind & kRoom) != 0;
    if (m_fault == Fault::Interrupted) return first;
    return !first && (m_forGood || ((kind & (kMoves | kCuts)) != 0 && m_tornAlready.insert(kind).second));
  }
  std::size_t Moved(std::size_t count) const { return m_short ? (count + 1) / 2 : count; }

  int m_at = 0;
  Fault m_fault = Fault::Error;
  bool m_forGood = false;
  bool m_short = false;
  std::set<unsigned> m_tornAlready;  // the kinds of call that failed after half a write
  std::vector<std::string> m_names;
};

}  // namespace kesp::test
