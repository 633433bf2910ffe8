#include "kesp/platform/OpenFile.h"

#include <fcntl.h>
#include <windows.h>

#include <cerrno>

#include "kesp/platform/SystemCalls.h"

namespace kesp {
namespace {

// What others may do while the file is open. The system keeps to it, also for programs that don't use this library.
unsigned SharedWithOthers(unsigned openFlags) {
  if ((openFlags & CFile::shareExclusive) != 0) return 0;
  if ((openFlags & CFile::shareDenyWrite) != 0) return FILE_SHARE_READ;
  return FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
}

}  // namespace

int OpenFile(const char* path, unsigned openFlags, bool& created) {
  const int flags = IsWritableBy(openFlags) ? O_RDWR : O_RDONLY;
  const unsigned shared = SharedWithOthers(openFlags);
  const bool mustBeNew = (openFlags & CFile::modeNew) != 0;
  created = false;
  const auto open = [&](int how) { return Uninterrupted([&] { return System().Open(path, flags | how, shared); }); };
  if (!mustBeNew && (openFlags & CFile::modeCreate) == 0) return open(0);
  int fd = open(O_CREAT | O_EXCL);
  created = fd >= 0;
  if (fd < 0 && errno == EEXIST && !mustBeNew) fd = open(O_CREAT);
  return fd;
}

}  // namespace kesp

bool CFile::AcquireLock(unsigned /*openFlags*/) { return true; }  // opening did it

// Returns an errno value, 0 for success.
int CFile::CloseDescriptor() noexcept {
  if (m_fd < 0) return 0;
  return kesp::System().Close(m_fd) != 0 && errno != EINTR ? errno : 0;
}

// The file system writes its own log of new files. Folders can't be synced here.
void CFile::SyncDirectory() { m_directoryUnsynced = false; }
