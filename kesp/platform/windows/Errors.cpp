#include "kesp/platform/windows/Errors.h"

#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace kesp {
namespace {

constexpr DWORD kDiskQuotaExceeded = 1295;  // missing in older headers

struct Pair {
  DWORD error;
  int number;
};
constexpr Pair kPairs[] = {
    {ERROR_FILE_NOT_FOUND, ENOENT},
    {ERROR_PATH_NOT_FOUND, ENOENT},
    {ERROR_INVALID_NAME, ENOENT},  // no file has such a name
    {ERROR_BAD_PATHNAME, ENOENT},
    {ERROR_BAD_NETPATH, ENOENT},
    {ERROR_BAD_NET_NAME, ENOENT},
    {ERROR_INVALID_DRIVE, ENOENT},
    {ERROR_NOT_READY, ENOENT},
    {ERROR_DIRECTORY, ENOTDIR},
    {ERROR_FILENAME_EXCED_RANGE, ENAMETOOLONG},
    {ERROR_CANT_RESOLVE_FILENAME, ELOOP},
    {ERROR_TOO_MANY_OPEN_FILES, EMFILE},
    {ERROR_NO_SYSTEM_RESOURCES, ENFILE},
    {ERROR_ACCESS_DENIED, EACCES},
    {ERROR_NETWORK_ACCESS_DENIED, EACCES},
    {ERROR_DELETE_PENDING, EACCES},
    {ERROR_PRIVILEGE_NOT_HELD, EPERM},
    {ERROR_WRITE_PROTECT, EROFS},
    {ERROR_INVALID_HANDLE, EBADF},
    {ERROR_SHARING_VIOLATION, EWOULDBLOCK},
    {ERROR_LOCK_VIOLATION, EWOULDBLOCK},
    {ERROR_USER_MAPPED_FILE, EWOULDBLOCK},
    {ERROR_FILE_EXISTS, EEXIST},
    {ERROR_ALREADY_EXISTS, EEXIST},
    {ERROR_DISK_FULL, ENOSPC},
    {ERROR_HANDLE_DISK_FULL, ENOSPC},
    {kDiskQuotaExceeded, ENOSPC},
    {ERROR_FILE_TOO_LARGE, EFBIG},
    {ERROR_NOT_ENOUGH_MEMORY, ENOMEM},
    {ERROR_OUTOFMEMORY, ENOMEM},
    {ERROR_COMMITMENT_LIMIT, ENOMEM},
    {ERROR_INVALID_PARAMETER, EINVAL},
    {ERROR_NEGATIVE_SEEK, EINVAL},
    {ERROR_INVALID_FUNCTION, EINVAL},
    {ERROR_NOT_SUPPORTED, EINVAL},
    {ERROR_BROKEN_PIPE, EPIPE},
    {ERROR_NO_DATA, EPIPE},
    {ERROR_PIPE_NOT_CONNECTED, EPIPE},
    {ERROR_NOT_SAME_DEVICE, EXDEV},
    {ERROR_DIR_NOT_EMPTY, ENOTEMPTY},
};

}  // namespace

int ErrnoOf(unsigned long error) noexcept {
  const auto* const found =
      std::find_if(std::begin(kPairs), std::end(kPairs), [error](const Pair& pair) { return pair.error == error; });
  return found != std::end(kPairs) ? found->number : EIO;
}

int FailWithLastError() noexcept {
  errno = ErrnoOf(::GetLastError());
  return -1;
}

}  // namespace kesp
