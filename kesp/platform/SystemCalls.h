// The interface for all system calls on files, so that a test can make the n-th call fail or come up short, or record
// it.
//
// Each function behaves as the call of Linux it is named after: a result below 0 means failure, with errno set. Callers
// handle interrupted and short calls. Paths are UTF-8, as CString::ToPathBytes gives them. Not installed; hosts have no
// use for it.
//
// Under Windows a descriptor is a handle of the system, which fits into an int. Its errors become errno
// values, by the names that Linux has for them (windows/Errors.h).
#pragma once
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace kesp {

// What the library needs to know of a file.
struct FileInfo {
  enum class Kind : std::uint8_t { kRegular, kFolder, kOther };
  std::uint64_t device = 0;  // with the number, identifies the file on this machine
  std::uint64_t fileNumber = 0;
  std::uint64_t length = 0;
  Kind kind = Kind::kRegular;
};

class SystemCalls {
 public:
  virtual ~SystemCalls() = default;
  // `mode` is the permissions of a new file; under Windows, what others may do while the file is open (FILE_SHARE_READ
  // and its like).
  virtual int Open(const char* path, int flags, unsigned mode);
  virtual int Close(int fd);
  virtual int Stat(const char* path, FileInfo* info);
  virtual int FileStat(int fd, FileInfo* info);
  virtual std::int64_t End(int fd);         // lseek to the end: returns the file's length for half the cost of FileStat
  virtual int Lock(int fd, int operation);  // flock; under Windows opening locks
  virtual ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset);
  virtual ssize_t Write(int fd, const void* from, std::size_t count, std::int64_t offset);
  // copy_file_range: copies in the kernel, or shares the blocks.
  virtual ssize_t CopyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset, std::size_t count);
  virtual int Truncate(int fd, std::int64_t length);
  virtual int DataSync(int fd);
  virtual int FullSync(int fd);       // for directories; not called under Windows
  virtual int TouchModified(int fd);  // sets the modification time to now, leaves the access time
  virtual int Unlink(const char* path);
  virtual ssize_t ReadLink(const char* path, char* to, std::size_t size);
  virtual void SleepMs(unsigned milliseconds);
  // Whether the device lost power since the last call. No system reports this: always false, except in tests.
  virtual bool PowerEventHappened() { return false; }
};

// The object in use. A test sets its own, and null brings the default back; not while another thread is inside the
// library.
SystemCalls& System() noexcept;
void SetSystemCalls(SystemCalls* calls) noexcept;

// Repeats the call while it fails with EINTR, and returns its result.
template <class Call>
auto Uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace kesp
