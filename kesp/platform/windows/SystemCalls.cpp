#include "kesp/platform/SystemCalls.h"

#include <fcntl.h>
#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "kesp/platform/windows/Errors.h"
#include "kesp/platform/windows/Paths.h"

namespace kesp {
namespace {

constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;  // a call takes a count of 32 bits

// A handle has 32 bits that matter, and those of files are small.
HANDLE HandleOf(int fd) noexcept {
  return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(fd));  // NOLINT(performance-no-int-to-ptr)
}
int DescriptorOf(HANDLE handle) noexcept { return static_cast<int>(reinterpret_cast<std::intptr_t>(handle)); }

int ResultOf(BOOL good) noexcept { return good != 0 ? 0 : FailWithLastError(); }

int FailOn(const std::wstring& path) noexcept {
  errno = ErrorOfPath(path);
  return -1;
}

DWORD Disposition(int flags) noexcept {
  if ((flags & O_CREAT) == 0) return OPEN_EXISTING;
  return (flags & O_EXCL) != 0 ? CREATE_NEW : OPEN_ALWAYS;
}

OVERLAPPED At(std::int64_t offset) noexcept {
  OVERLAPPED at{};
  at.Offset = static_cast<DWORD>(offset & 0xFFFFFFFF);
  at.OffsetHigh = static_cast<DWORD>(static_cast<std::uint64_t>(offset) >> 32);
  return at;
}

DWORD Clamped(std::size_t count) noexcept { return static_cast<DWORD>(std::min(count, kMostAtOnce)); }

bool Describe(HANDLE file, FileInfo& info) noexcept {
  if (::GetFileType(file) != FILE_TYPE_DISK) {
    info = {0, 0, 0, FileInfo::Kind::kOther};
    return true;
  }
  BY_HANDLE_FILE_INFORMATION found{};
  if (::GetFileInformationByHandle(file, &found) == 0) return false;
  const auto wide = [](DWORD high, DWORD low) { return std::uint64_t{high} << 32 | low; };
  const bool isFolder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  info = {found.dwVolumeSerialNumber, wide(found.nFileIndexHigh, found.nFileIndexLow),
          wide(found.nFileSizeHigh, found.nFileSizeLow), isFolder ? FileInfo::Kind::kFolder : FileInfo::Kind::kRegular};
  return true;
}

}  // namespace

int SystemCalls::Open(const char* path, int flags, unsigned mode) {
  const std::wstring name = SystemPath(path);
  const bool writes = (flags & (O_WRONLY | O_RDWR)) != 0;
  const DWORD access = writes ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ;
  // With this flag a folder can be opened, which the caller then names as the reason.
  const DWORD attributes = FILE_ATTRIBUTE_NORMAL | (writes ? 0 : FILE_FLAG_BACKUP_SEMANTICS);
  HANDLE const file = ::CreateFileW(name.c_str(), access, mode, nullptr, Disposition(flags), attributes, nullptr);
  return file != INVALID_HANDLE_VALUE ? DescriptorOf(file) : FailOn(name);
}

int SystemCalls::Close(int fd) { return ResultOf(::CloseHandle(HandleOf(fd))); }

int SystemCalls::Stat(const char* path, FileInfo* info) {
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const std::wstring name = SystemPath(path);
  HANDLE const file = ::CreateFileW(name.c_str(), FILE_READ_ATTRIBUTES, kAll, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (file == INVALID_HANDLE_VALUE) return FailOn(name);
  const int result = ResultOf(Describe(file, *info));
  ::CloseHandle(file);
  return result;
}

int SystemCalls::FileStat(int fd, FileInfo* info) { return ResultOf(Describe(HandleOf(fd), *info)); }

std::int64_t SystemCalls::End(int fd) {
  LARGE_INTEGER size{};
  return ::GetFileSizeEx(HandleOf(fd), &size) != 0 ? size.QuadPart : FailWithLastError();
}

int SystemCalls::Lock(int /*fd*/, int /*operation*/) { return 0; }

ssize_t SystemCalls::Read(int fd, void* to, std::size_t count, std::int64_t offset) {
  OVERLAPPED at = At(offset);
  DWORD got = 0;
  if (::ReadFile(HandleOf(fd), to, Clamped(count), &got, &at) != 0) return static_cast<ssize_t>(got);
  return ::GetLastError() == ERROR_HANDLE_EOF ? 0 : FailWithLastError();
}

ssize_t SystemCalls::Write(int fd, const void* from, std::size_t count, std::int64_t offset) {
  OVERLAPPED at = At(offset);
  DWORD put = 0;
  const BOOL good = ::WriteFile(HandleOf(fd), from, Clamped(count), &put, &at);
  return good != 0 ? static_cast<ssize_t>(put) : FailWithLastError();
}

ssize_t SystemCalls::CopyRange(int /*from*/, std::int64_t /*fromOffset*/, int /*to*/, std::int64_t /*toOffset*/,
                               std::size_t /*count*/) {
  errno = ENOSYS;
  return -1;
}

int SystemCalls::Truncate(int fd, std::int64_t length) {
  FILE_END_OF_FILE_INFO end{};
  end.EndOfFile.QuadPart = length;
  return ResultOf(::SetFileInformationByHandle(HandleOf(fd), FileEndOfFileInfo, &end, sizeof end));
}

int SystemCalls::DataSync(int fd) { return ResultOf(::FlushFileBuffers(HandleOf(fd))); }

int SystemCalls::FullSync(int /*fd*/) { return 0; }

int SystemCalls::TouchModified(int fd) {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  return ResultOf(::SetFileTime(HandleOf(fd), nullptr, nullptr, &now));
}

int SystemCalls::Unlink(const char* path) {
  const std::wstring name = SystemPath(path);
  return ::DeleteFileW(name.c_str()) != 0 ? 0 : FailOn(name);
}

ssize_t SystemCalls::ReadLink(const char* /*path*/, char* /*to*/, std::size_t /*size*/) {
  errno = ENOSYS;
  return -1;
}

}  // namespace kesp
