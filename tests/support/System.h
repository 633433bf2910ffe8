// What tests ask of the system itself, beside the library's calls.
#pragma once
#include <cstdint>
#include <ctime>
#include <filesystem>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kesp::test {

constexpr std::time_t kLongAgo = 1'000'000'000;
struct Times {
  std::time_t read, modified;
};

#ifdef _WIN32
constexpr bool kSyncsFolders = false, kKeepsTimeOfReading = false, kKeepsOthersFromWriting = true;

// Somebody else who has the file open for writing and lets nobody else write.
class Held {
 public:
  explicit Held(const std::filesystem::path& path)
      : m_file(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                             nullptr)) {}
  ~Held() { ::CloseHandle(m_file); }

 private:
  HANDLE const m_file;
};

inline std::ptrdiff_t OpenDescriptors() {
  DWORD count = 0;
  ::GetProcessHandleCount(::GetCurrentProcess(), &count);
  return static_cast<std::ptrdiff_t>(count);
}

constexpr std::int64_t kTicks = 10'000'000, kFirstTick = 11'644'473'600 * kTicks;  // from 1601 to 1970
inline void SetLongAgo(const std::filesystem::path& path) {
  const auto ticks = static_cast<std::uint64_t>(kLongAgo * kTicks + kFirstTick);
  const FILETIME then{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  HANDLE const file = ::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, 7, nullptr, OPEN_EXISTING, 0, nullptr);
  ::SetFileTime(file, nullptr, &then, &then);
  ::CloseHandle(file);
}
inline Times TimesOf(const std::filesystem::path& path) {
  WIN32_FILE_ATTRIBUTE_DATA found{};
  ::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &found);
  const auto seconds = [](const FILETIME& at) {
    return static_cast<std::time_t>((((std::int64_t{at.dwHighDateTime} << 32) | at.dwLowDateTime) - kFirstTick) /
                                    kTicks);
  };
  return {seconds(found.ftLastAccessTime), seconds(found.ftLastWriteTime)};
}
#else
constexpr bool kSyncsFolders = true, kKeepsTimeOfReading = true, kKeepsOthersFromWriting = false;

class Held {
 public:
  explicit Held(const std::filesystem::path& path) : m_file(::open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    ::flock(m_file, LOCK_EX);
  }
  ~Held() { ::close(m_file); }

 private:
  const int m_file;
};

inline std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

inline void SetLongAgo(const std::filesystem::path& path) {
  const timespec times[2] = {{kLongAgo, 0}, {kLongAgo, 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}
inline Times TimesOf(const std::filesystem::path& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return {info.st_atime, info.st_mtime};
}
#endif

}  // namespace kesp::test
