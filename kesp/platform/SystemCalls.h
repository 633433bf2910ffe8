// Every call to the system that concerns files goes through this one interface, so that a test can make the n-th
// of them fail, come up short, or be recorded.
//
// Each function behaves as the call it is named after: a result below 0 means failure, with errno set. CFile deals
// with interrupted and short calls. Not installed; hosts have no use for it.
#pragma once
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

struct stat;

namespace kesp {

class SystemCalls {
 public:
  virtual ~SystemCalls() = default;
  virtual int Open(const char* path, int flags, unsigned mode);
  virtual int Close(int fd);
  virtual int Stat(const char* path, struct stat* info);
  virtual int FileStat(int fd, struct stat* info);
  virtual std::int64_t End(int fd);         // lseek to the end: a file's length for half the price of FileStat
  virtual int Lock(int fd, int operation);  // flock
  virtual ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset);
  virtual ssize_t Write(int fd, const void* from, std::size_t count, std::int64_t offset);
  // copy_file_range: the system moves the bytes itself, or shares them.
  virtual ssize_t CopyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset, std::size_t count);
  virtual int Truncate(int fd, std::int64_t length);
  virtual int DataSync(int fd);
  virtual int FullSync(int fd);       // for directories
  virtual int TouchModified(int fd);  // the modification time becomes now, the access time stays
  virtual int Unlink(const char* path);
  virtual ssize_t ReadLink(const char* path, char* to, std::size_t size);
  virtual void SleepMs(unsigned milliseconds);
  // Whether the device lost power since it was last asked. No system says so: always false.
  virtual bool PowerEventHappened() { return false; }
};

// The one in use. A test puts its own in place and takes it out again by passing null; not while another thread is
// inside the library.
SystemCalls& System() noexcept;
void SetSystemCalls(SystemCalls* calls) noexcept;

// What a call answers once no signal interrupts it any more.
template <class Call>
auto Uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace kesp
