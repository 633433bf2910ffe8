#include "kesp/platform/OpenFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <new>
#include <string>

#include "kesp/platform/SystemCalls.h"

namespace kesp {
namespace {

constexpr unsigned kNewFileMode = 0666;  // before the process's umask

int OpenRetrying(const char* path, int flags) {
  return Uninterrupted([&] { return System().Open(path, flags, kNewFileMode); });
}

// 0 when no lock is wanted.
int LockOperation(unsigned openFlags) {
  if ((openFlags & (CFile::shareDenyWrite | CFile::shareExclusive)) != 0) return LOCK_EX;
  // A writer that denies nothing shares the file with others like it, and fails while someone denies writing.
  return IsWritableBy(openFlags) ? LOCK_SH : 0;
}

// The directory that the file is in now, even if the working directory has changed or the path goes through links. If
// the system doesn't tell, the directory in the path.
std::string DirectoryOf(int fd, const std::string& path) {
  std::string place(PATH_MAX, '\0');
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t size = Uninterrupted([&] { return System().ReadLink(self.c_str(), place.data(), place.size()); });
  const bool isKnown = size > 0 && static_cast<std::size_t>(size) < place.size() && place.front() == '/';
  const std::string name = isKnown ? place.substr(0, static_cast<std::size_t>(size)) : path;
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? "." : name.substr(0, slash + 1);
}

}  // namespace

int OpenFile(const char* path, unsigned openFlags, bool& created) {
  const bool writable = IsWritableBy(openFlags);
  // Non-blocking, so that opening a pipe in the file's place doesn't hang. Always opened for reading too: the buffer
  // needs it.
  const int flags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (writable ? O_RDWR : O_RDONLY);
  const bool mustBeNew = (openFlags & CFile::modeNew) != 0;
  if (mustBeNew || (openFlags & CFile::modeCreate) != 0) {
    int fd = OpenRetrying(path, flags | O_CREAT | O_EXCL);
    created = fd >= 0;
    // No O_TRUNC: the lock comes first.
    if (fd < 0 && errno == EEXIST && !mustBeNew) fd = OpenRetrying(path, flags | O_CREAT);
    return fd;
  }
  created = false;
  // Only the file's owner may use O_NOATIME.
  const int fd = writable ? -1 : OpenRetrying(path, flags | O_NOATIME);
  return fd >= 0 ? fd : OpenRetrying(path, flags);
}

}  // namespace kesp

// Also true when no lock is needed or the file system has none. If false, errno has the reason.
bool CFile::AcquireLock(unsigned openFlags) {
  const int operation = kesp::LockOperation(openFlags);
  if (operation == 0) return true;
  if (kesp::Uninterrupted([&] { return kesp::System().Lock(m_fd, operation | LOCK_NB); }) == 0) {
    m_lockedBy = ::getpid();
    return true;
  }
  return errno == ENOLCK || errno == EOPNOTSUPP;
}

// Returns an errno value, 0 for success.
int CFile::CloseDescriptor() noexcept {
  if (m_fd < 0) return 0;
  // A forked child that has not called exec still has the descriptor, and with it the lock, so release the lock
  // explicitly. In the child itself the lock is the parent's: leave it.
  if (m_lockedBy != 0 && m_lockedBy == ::getpid()) (void)kesp::System().Lock(m_fd, LOCK_UN);
  // No retry after EINTR: the descriptor is already closed.
  return kesp::System().Close(m_fd) != 0 && errno != EINTR ? errno : 0;
}

// After a power cut a new file is only found if its directory was synced. Some file systems can't sync a directory, and
// some directories can't be opened or have moved: these errors are ignored, since nothing is known to be lost. If there
// was no descriptor or memory for it, the next flush tries again.
void CFile::SyncDirectory() {
  std::string directory;
  try {
    directory = kesp::DirectoryOf(m_fd, m_path.ToPathBytes());
  } catch (const std::bad_alloc&) {
    Raise(ENOMEM);
  }
  const int fd = kesp::OpenRetrying(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 && errno != EACCES && errno != EPERM && errno != ENOENT && errno != ENOTDIR) Raise(errno);
  m_directoryUnsynced = false;
  if (fd < 0) return;
  const int result = kesp::Uninterrupted([&] { return kesp::System().FullSync(fd); });
  const int reason = errno;
  kesp::System().Close(fd);
  if (result != 0 && (reason == EIO || reason == ENOSPC || reason == EDQUOT)) {
    m_syncFailed = true;
    Raise(reason);
  }
}
