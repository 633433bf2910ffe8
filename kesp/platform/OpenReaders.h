// A list of the files that objects of this process have open read-only.
//
// Such an object takes no lock, so that nobody waits for it; a lock therefore can't keep others from emptying the file.
// Within the process this list does: code that is about to empty a file checks it first.
//
//   const OpenReader reader(info.st_dev, info.st_ino);
// true while `reader` exists
//
// Thread-safe. Nothing allocates or raises. Not installed.
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
  OpenReader** m_link = nullptr;  // the pointer that points to this object
  const std::uint64_t m_device;
  const std::uint64_t m_fileNumber;
};

}  // namespace kesp
