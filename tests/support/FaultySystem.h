// Makes the n-th system call of the library fail, come up short, or be counted.
//
//   for (int n = 1;; ++n) {
//     FaultySystem system(n, FaultySystem::Fault::Error);
//     ... run; check ...
//     if (!system.Struck()) break;   // the run passed untouched
//   }
#pragma once
#include <cerrno>
#include <map>
#include <string>

#include "kesp/platform/SystemCalls.h"

namespace kesp::test {

class FaultySystem : public SystemCalls {
 public:
  enum class Fault {
    Error,        // the call fails with EIO
    Full,         // writing calls fail with ENOSPC, others work
    Interrupted,  // the call fails with EINTR once; the caller is to try again
    Short,        // a read or write moves half of what was asked, others work
  };

  // Counts only: nothing fails.
  FaultySystem() { SetSystemCalls(this); }
  // Fails call number `at` (from 1), and all that follow it when `forGood`.
  FaultySystem(int at, Fault fault, bool forGood = false) : m_at(at), m_fault(fault), m_forGood(forGood) {
    SetSystemCalls(this);
  }
  ~FaultySystem() override { SetSystemCalls(nullptr); }

  bool Struck() const { return m_struck; }
  int Calls() const { return m_calls; }
  int Calls(const std::string& name) const { return m_byName.contains(name) ? m_byName.at(name) : 0; }
  void Reset() {
    m_calls = 0;
    m_byName.clear();
  }
  // Answers of the power-event hook, from the front; false when used up.
  std::string powerEvents;  // '1' for an event, '0' for none
  unsigned sleptMs = 0;

  int Open(const char* path, int flags, unsigned mode) override {
    return Fails("open", false) ? -1 : SystemCalls::Open(path, flags, mode);
  }
  int Close(int fd) override {
    // The descriptor goes even when the call reports a failure.
    const int result = SystemCalls::Close(fd);
    return Fails("close", false) ? -1 : result;
  }
  int Stat(const char* path, struct stat* info) override {
    return Fails("stat", false) ? -1 : SystemCalls::Stat(path, info);
  }
  int FileStat(int fd, struct stat* info) override {
    return Fails("fstat", false) ? -1 : SystemCalls::FileStat(fd, info);
  }
  std::int64_t End(int fd) override { return Fails("lseek", false) ? -1 : SystemCalls::End(fd); }
  int Lock(int fd, int operation) override { return Fails("flock", false) ? -1 : SystemCalls::Lock(fd, operation); }
  ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset) override {
    if (Fails("read", false)) return -1;
    return SystemCalls::Read(fd, to, m_short ? (count + 1) / 2 : count, offset);
  }
  ssize_t Write(int fd, const void* from, std::size_t count, std::int64_t offset) override {
    if (Fails("write", true)) return -1;
    return SystemCalls::Write(fd, from, m_short ? (count + 1) / 2 : count, offset);
  }
  ssize_t CopyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset, std::size_t count) override {
    if (Fails("copy_file_range", true)) return -1;
    return SystemCalls::CopyRange(from, fromOffset, to, toOffset, m_short ? (count + 1) / 2 : count);
  }
  int Truncate(int fd, std::int64_t length) override {
    return Fails("truncate", true) ? -1 : SystemCalls::Truncate(fd, length);
  }
  int DataSync(int fd) override { return Fails("fdatasync", true) ? -1 : SystemCalls::DataSync(fd); }
  int FullSync(int fd) override { return Fails("fsync", true) ? -1 : SystemCalls::FullSync(fd); }
  int TouchModified(int fd) override { return Fails("futimens", false) ? -1 : SystemCalls::TouchModified(fd); }
  int Unlink(const char* path) override { return Fails("unlink", false) ? -1 : SystemCalls::Unlink(path); }
  void SleepMs(unsigned milliseconds) override { sleptMs += milliseconds; }
  bool PowerEventHappened() override {
    if (powerEvents.empty()) return false;
    const bool happened = powerEvents.front() == '1';
    powerEvents.erase(0, 1);
    return happened;
  }

 private:
  bool Fails(const char* name, bool takesSpace) {
    ++m_calls;
    ++m_byName[name];
    m_short = false;
    if (m_at == 0 || (m_calls != m_at && !(m_forGood && m_calls > m_at))) return false;
    m_struck = true;
    switch (m_fault) {
      case Fault::Short:
        m_short = true;
        return false;
      case Fault::Full:
        errno = ENOSPC;
        return takesSpace;
      case Fault::Interrupted:
        errno = EINTR;
        return m_calls == m_at;
      default:
        errno = EIO;
        return true;
    }
  }

  int m_at = 0;
  Fault m_fault = Fault::Error;
  bool m_forGood = false;
  bool m_struck = false;
  bool m_short = false;
  int m_calls = 0;
  std::map<std::string, int> m_byName;
};

}  // namespace kesp::test
