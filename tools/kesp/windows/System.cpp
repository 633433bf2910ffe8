#include "tools/kesp/System.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <random>

#include <shellapi.h>

#include "kesp/platform/String.h"
#include "kesp/platform/windows/Errors.h"
#include "kesp/platform/windows/Paths.h"

namespace kesp::tool {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// What ending the tool takes away. Kept for good, since the system calls TakeAwayAndEnd in a thread of its own.
struct Made {
  std::wstring path;
  BY_HANDLE_FILE_INFORMATION identity{};
};
Made* madeSoFar = nullptr;
std::atomic<bool> hasEnded{false};

bool Identify(HANDLE file, BY_HANDLE_FILE_INFORMATION& identity) noexcept {
  return ::GetFileType(file) == FILE_TYPE_DISK && ::GetFileInformationByHandle(file, &identity) != 0;
}

// A file that is open can't be removed, and the library has it open, somewhere below in the main thread. So its handle
// is looked for among those of the process, which ends now anyway.
BOOL WINAPI TakeAwayAndEnd(DWORD /*event*/) {
  constexpr std::uintptr_t kMostHandles = 4096;  // handles are small multiples of 4
  const BY_HANDLE_FILE_INFORMATION& wanted = madeSoFar->identity;
  hasEnded = true;
  for (std::uintptr_t value = 4; value < 4 * kMostHandles; value += 4) {
    HANDLE const handle = reinterpret_cast<HANDLE>(value);  // NOLINT(performance-no-int-to-ptr)
    BY_HANDLE_FILE_INFORMATION found{};
    if (Identify(handle, found) && found.nFileIndexLow == wanted.nFileIndexLow &&
        found.nFileIndexHigh == wanted.nFileIndexHigh && found.dwVolumeSerialNumber == wanted.dwVolumeSerialNumber) {
      ::CloseHandle(handle);
    }
  }
  ::DeleteFileW(madeSoFar->path.c_str());
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(STATUS_CONTROL_C_EXIT));
  return TRUE;
}

bool Fail(const std::wstring& path) noexcept {
  errno = ErrorOfPath(path);
  return false;
}

HANDLE HandleOf(Stream stream) noexcept {
  return ::GetStdHandle(stream == Stream::kOutput ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

UINT codePageBefore = 0;

}  // namespace

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  int count = 0;
  LPWSTR* const wide = ::CommandLineToArgvW(::GetCommandLineW(), &count);
  if (wide == nullptr) return {argv, argv + argc};
  std::vector<std::string> arguments;
  for (int i = 0; i < count; ++i) arguments.push_back(CString(wide[i]).ToUtf8());
  ::LocalFree(wide);
  return arguments;
}

void PrepareStreams() {
  for (FILE* const stream : {stdin, stdout, stderr}) (void)::_setmode(::_fileno(stream), _O_BINARY);
  codePageBefore = ::GetConsoleOutputCP();
  if (codePageBefore == 0 || codePageBefore == CP_UTF8) return;
  ::SetConsoleOutputCP(CP_UTF8);
  (void)std::atexit([] { ::SetConsoleOutputCP(codePageBefore); });
}

bool IsTerminal(Stream stream) noexcept {
  DWORD mode = 0;
  return ::GetConsoleMode(HandleOf(stream), &mode) != 0;
}

std::ptrdiff_t WriteSome(Stream stream, const char* bytes, std::size_t count) noexcept {
  DWORD written = 0;
  if (::WriteFile(HandleOf(stream), bytes, static_cast<DWORD>(count), &written, nullptr) == 0)
    return FailWithLastError();
  return static_cast<std::ptrdiff_t>(written);
}

std::filesystem::path PathOf(const std::string& path) {
  const CString text = CString::FromPathBytes(path);
  return std::wstring(text.View().begin(), text.View().end());
}
std::string BytesOf(const std::filesystem::path& path) { return CString(path.c_str()).ToPathBytes(); }

PathInfo Look(const std::string& path) {
  const std::wstring name = SystemPath(path.c_str());
  HANDLE const file = ::CreateFileW(name.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    (void)Fail(name);
    return {errno == ENOENT ? PathInfo::Kind::kMissing : PathInfo::Kind::kUnknown};
  }
  BY_HANDLE_FILE_INFORMATION info{};
  const bool isOnDisk = Identify(file, info);
  ::CloseHandle(file);
  if (!isOnDisk) return {PathInfo::Kind::kOther};
  if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return {PathInfo::Kind::kFolder};
  return {PathInfo::Kind::kFile, std::uint64_t{info.nFileSizeHigh} << 32 | info.nFileSizeLow};
}

std::string FollowLinks(const std::string& path) {
  const std::wstring name = SystemPath(path.c_str());
  const DWORD attributes = ::GetFileAttributesW(name.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return path;
  HANDLE const file = ::CreateFileW(name.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (file == INVALID_HANDLE_VALUE) return Fail(name), std::string();
  constexpr DWORD kLongest = 32768;
  std::wstring place(kLongest, L'\0');
  place.resize(::GetFinalPathNameByHandleW(file, place.data(), kLongest, FILE_NAME_NORMALIZED));
  if (place.empty()) (void)FailWithLastError();
  ::CloseHandle(file);
  return CString(place.c_str()).ToPathBytes();
}

std::intptr_t Hold(const std::string& path, bool& isWritten) {
  const std::wstring name = SystemPath(path.c_str());
  HANDLE const file = ::CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
  isWritten = file == INVALID_HANDLE_VALUE && ::GetLastError() == ERROR_SHARING_VIOLATION;
  return reinterpret_cast<std::intptr_t>(file);
}

void LetGo(std::intptr_t held) noexcept {
  HANDLE const file = reinterpret_cast<HANDLE>(held);  // NOLINT(performance-no-int-to-ptr)
  if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
}

// New files inherit the permissions of their folder.
std::string MakeFile(const std::string& folder, std::string_view stem, const std::string& /*like*/) {
  constexpr int kTries = 100;
  std::random_device random;
  for (int i = 0; i < kTries; ++i) {
    std::array<char, 9> ending{};
    (void)std::snprintf(ending.data(), ending.size(), "%08x", random());
    const std::string made = BytesOf(PathOf(folder) / PathOf(std::string(stem).append(ending.data())));
    const std::wstring name = SystemPath(made.c_str());
    HANDLE const file = ::CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
      ::CloseHandle(file);
      return made;
    }
    if (::GetLastError() != ERROR_FILE_EXISTS) return Fail(name), std::string();
  }
  errno = EEXIST;
  return {};
}

bool Rename(const std::string& from, const std::string& to, bool replaces) {
  const std::wstring source = SystemPath(from.c_str());
  const std::wstring destination = SystemPath(to.c_str());
  const DWORD flags = MOVEFILE_WRITE_THROUGH | (replaces ? MOVEFILE_REPLACE_EXISTING : 0);
  return ::MoveFileExW(source.c_str(), destination.c_str(), flags) != 0 || Fail(destination);
}

bool ReplacesOpenFiles() noexcept { return false; }

void RemoveFile(const std::string& path) noexcept try {
  ::DeleteFileW(SystemPath(path.c_str()).c_str());
} catch (const std::bad_alloc&) {
  // It stays.
}

void PauseIfEnded() noexcept {
  while (hasEnded) ::Sleep(INFINITE);
}

void TakeAwayWhenEnded(const std::string& path) {
  auto* const made = new Made{SystemPath(path.c_str())};
  HANDLE const file =
      ::CreateFileW(made->path.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  const bool isKnown = file != INVALID_HANDLE_VALUE && Identify(file, made->identity);
  if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
  const bool isFirst = madeSoFar == nullptr;
  if (!isKnown) return;
  madeSoFar = made;
  if (isFirst) ::SetConsoleCtrlHandler(TakeAwayAndEnd, TRUE);
}

}  // namespace kesp::tool
