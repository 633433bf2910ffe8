// Which files the objects of this process have open for reading only.
//
// Such an object takes no lock, so that nobody ever waits for it, and a lock can't keep a file from being emptied while
// it is read. Within a process this does: who is about to empty a file asks first.
//
//   const OpenReader reader(info.st_dev, info.st_ino);
//   ... OpenReader::Reads(info.st_dev, info.st_ino) ...  // true as long as it lives
//
// Any thread may call these. Nothing is allocated, and nothing raised. Not installed.
#pragma once
#include <cstdint>

namespace kesp {

class OpenReader {
 public:
  OpenReader(std::uint64_t device, std::uint64_t fileNumber) noexcept;
  ~OpenReader();
  OpenReader(const OpenReader&) = delete;
  OpenReader& operator=(const OpenReader&) = delete;
  static bool Reads(std::uint64_t device, std::uint64_t fileNumber) noexcept;

 private:
  OpenReader* m_next = nullptr;
  OpenReader** m_link = nullptr;  // what points here
  const std::uint64_t m_device;
  const std::uint64_t m_fileNumber;
};

}  // namespace kesp
