// Files in memory instead of the system's: a target runs thousands of times a second, and what it reads can be counted.
// No times, permissions or locks; a file that was not made can't be opened.
#pragma once
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "kesp/platform/SystemCalls.h"
#include "tests/support/Bytes.h"

namespace kesp::test {

class MemorySystem : public SystemCalls {
 public:
  MemorySystem() { SetSystemCalls(this); }
  ~MemorySystem() override { SetSystemCalls(nullptr); }

  void Put(const std::string& path, ByteVector bytes) {
    m_files[path] = std::make_shared<ByteVector>(std::move(bytes));
  }
  const ByteVector& At(const std::string& path) const { return *m_files.at(path); }
  std::uint64_t BytesRead() const { return m_bytesRead; }

  int Open(const char* path, int flags, unsigned /*mode*/) override {
    const auto found = m_files.find(path);
    if (found == m_files.end() && (flags & O_CREAT) == 0) return Fail(ENOENT);
    if (found != m_files.end() && (flags & O_EXCL) != 0) return Fail(EEXIST);
    if (found == m_files.end()) Put(path, {});
    m_open[m_nextDescriptor] = m_files.at(path);
    return m_nextDescriptor++;
  }
  int Close(int fd) override { return m_open.erase(fd) == 1 ? 0 : Fail(EBADF); }
  int Stat(const char* path, FileInfo* info) override {
    const auto found = m_files.find(path);
    return found == m_files.end() ? Fail(ENOENT) : Describe(*found->second, info);
  }
  int FileStat(int fd, FileInfo* info) override { return Describe(*m_open.at(fd), info); }
  std::int64_t End(int fd) override { return static_cast<std::int64_t>(m_open.at(fd)->size()); }
  int Lock(int /*fd*/, int /*operation*/) override { return 0; }
  ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset) override {
    const ByteVector& bytes = *m_open.at(fd);
    const auto start = static_cast<std::uint64_t>(offset);
    const std::uint64_t left = start < bytes.size() ? bytes.size() - start : 0;
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(count, left));
    if (size != 0) std::memcpy(to, bytes.data() + start, size);
    m_bytesRead += size;
    return static_cast<ssize_t>(size);
  }
  ssize_t Write(int fd, const void* from, std::size_t count, std::int64_t offset) override {
    if (static_cast<std::uint64_t>(offset) + count > kLargestFile) return Fail(EFBIG);
    const std::size_t end = static_cast<std::size_t>(offset) + count;
    ByteVector& bytes = *m_open.at(fd);
    if (bytes.size() < end) bytes.resize(end);
    std::memcpy(bytes.data() + offset, from, count);
    return static_cast<ssize_t>(count);
  }
  ssize_t CopyRange(int, std::int64_t, int, std::int64_t, std::size_t) override { return Fail(EXDEV); }
  int Truncate(int fd, std::int64_t length) override {
    if (length > static_cast<std::int64_t>(kLargestFile)) return Fail(EFBIG);
    m_open.at(fd)->resize(static_cast<std::size_t>(length));
    return 0;
  }
  int DataSync(int) override { return 0; }
  int FullSync(int) override { return 0; }
  int TouchModified(int) override { return 0; }
  int Unlink(const char* path) override { return m_files.erase(path) == 1 ? 0 : Fail(ENOENT); }

 private:
  static constexpr std::size_t kLargestFile = std::size_t{64} << 20;

  static int Fail(int error) {
    errno = error;
    return -1;
  }
  static int Describe(const ByteVector& bytes, FileInfo* info) {
    *info = {0, reinterpret_cast<std::uintptr_t>(&bytes), bytes.size(), FileInfo::Kind::kRegular};
    return 0;
  }

  std::map<std::string, std::shared_ptr<ByteVector>> m_files;
  std::map<int, std::shared_ptr<ByteVector>> m_open;
  int m_nextDescriptor = 1000;
  std::uint64_t m_bytesRead = 0;
};

}  // namespace kesp::test
