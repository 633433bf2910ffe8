#include "kesp/platform/SystemCalls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kesp {
namespace {

int Describe(int result, const struct stat& from, FileInfo* info) {
  if (result != 0) return result;
  const auto kind = S_ISREG(from.st_mode)   ? FileInfo::Kind::kRegular
                    : S_ISDIR(from.st_mode) ? FileInfo::Kind::kFolder
                                            : FileInfo::Kind::kOther;
  *info = {from.st_dev, from.st_ino, static_cast<std::uint64_t>(from.st_size), kind};
  return 0;
}

}  // namespace

int SystemCalls::Open(const char* path, int flags, unsigned mode) { return ::open(path, flags, mode); }
int SystemCalls::Close(int fd) { return ::close(fd); }
int SystemCalls::Stat(const char* path, FileInfo* info) {
  struct stat found {};
  return Describe(::stat(path, &found), found, info);
}
int SystemCalls::FileStat(int fd, FileInfo* info) {
  struct stat found {};
  return Describe(::fstat(fd, &found), found, info);
}
std::int64_t SystemCalls::End(int fd) { return ::lseek(fd, 0, SEEK_END); }
int SystemCalls::Lock(int fd, int operation) { return ::flock(fd, operation); }
ssize_t SystemCalls::Read(int fd, void* to, std::size_t count, std::int64_t offset) {
  return ::pread(fd, to, count, offset);
}
ssize_t SystemCalls::Write(int fd, const void* from, std::size_t count, std::int64_t offset) {
  return ::pwrite(fd, from, count, offset);
}
ssize_t SystemCalls::CopyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset, std::size_t count) {
#if KESP_HAS_COPY_FILE_RANGE
  return ::copy_file_range(from, &fromOffset, to, &toOffset, count, 0);
#else
  (void)from, (void)fromOffset, (void)to, (void)toOffset, (void)count;
  errno = ENOSYS;
  return -1;
#endif
}
int SystemCalls::Truncate(int fd, std::int64_t length) { return ::ftruncate(fd, length); }
int SystemCalls::DataSync(int fd) { return ::fdatasync(fd); }
int SystemCalls::FullSync(int fd) { return ::fsync(fd); }
int SystemCalls::TouchModified(int fd) {
  const timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
  return ::futimens(fd, times);
}
int SystemCalls::Unlink(const char* path) { return ::unlink(path); }
ssize_t SystemCalls::ReadLink(const char* path, char* to, std::size_t size) { return ::readlink(path, to, size); }

}  // namespace kesp
