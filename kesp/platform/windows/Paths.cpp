#include "kesp/platform/windows/Paths.h"

#include <windows.h>

#include <cerrno>

#include "kesp/platform/String.h"
#include "kesp/platform/windows/Errors.h"

namespace kesp {
namespace {

constexpr std::size_t kLongestPlain = 240;      // units; a longer path needs the prefix, and must be absolute
constexpr std::size_t kLongestComponent = 255;  // units
constexpr const wchar_t* kSeparators = L"\\/";

std::wstring Absolute(const std::wstring& path) {
  std::wstring absolute(MAX_PATH, L'\0');
  for (;;) {
    const DWORD size = ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(absolute.size()), absolute.data(), nullptr);
    const bool fits = size < absolute.size();
    absolute.resize(size);
    if (fits) return absolute;
  }
}

bool HasLongComponent(const std::wstring& path) noexcept {
  for (std::size_t start = 0; start < path.size();) {
    const std::size_t end = path.find_first_of(kSeparators, start);
    if ((end == std::wstring::npos ? path.size() : end) - start > kLongestComponent) return true;
    if (end == std::wstring::npos) return false;
    start = end + 1;
  }
  return false;
}

// Whether a part of the path before its last is there and is no folder.
bool GoesThroughFile(const std::wstring& path) noexcept try {
  std::wstring part = path;
  for (;;) {
    const std::size_t end = part.find_last_of(kSeparators);
    if (end == std::wstring::npos) return false;
    part.resize(end);
    const DWORD attributes = ::GetFileAttributesW(part.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES) return (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
  }
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

std::wstring SystemPath(const char* path) {
  const CString text = CString::FromUtf8(path);
  const std::wstring plain(text.View().begin(), text.View().end());
  const std::wstring absolute = Absolute(plain);
  const bool isSpecial = absolute.starts_with(L"\\\\?\\") || absolute.starts_with(L"\\\\.\\");
  if (absolute.size() <= kLongestPlain || isSpecial) return plain;
  return absolute.starts_with(L"\\\\") ? L"\\\\?\\UNC" + absolute.substr(1) : L"\\\\?\\" + absolute;
}

int ErrorOfPath(const std::wstring& path) noexcept {
  const DWORD error = ::GetLastError();
  switch (error) {
    case ERROR_ACCESS_DENIED: {
      const DWORD attributes = ::GetFileAttributesW(path.c_str());
      const bool isFolder = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
      return isFolder ? EISDIR : EACCES;
    }
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
    case ERROR_FILE_NOT_FOUND:
      if (HasLongComponent(path)) return ENAMETOOLONG;
      return error == ERROR_PATH_NOT_FOUND && GoesThroughFile(path) ? ENOTDIR : ENOENT;
    default:
      return ErrnoOf(error);
  }
}

}  // namespace kesp
