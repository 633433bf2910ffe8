// How CFile opens files, which differs between systems. CFile::AcquireLock, CloseDescriptor and SyncDirectory are with
// it. Not installed.
#pragma once
#include "kesp/platform/File.h"

namespace kesp {

inline bool IsWritableBy(unsigned openFlags) noexcept {
  return (openFlags & (CFile::modeWrite | CFile::modeReadWrite)) != 0;
}
// The descriptor, or -1 with the reason in errno. `created` is whether the file is new. An existing file keeps its
// bytes. Opens folders too if the system does; the caller refuses them.
int OpenFile(const char* path, unsigned openFlags, bool& created);

}  // namespace kesp
