// Which files the objects of this process have open for reading only.
//
// Such an object takes no lock, so that nobody ever waits for it, and a lock can't keep a file from being emptied while
// it is read. Within a process this does: who is about to empty a file asks first.
//
//   OpenReader reader;
//   reader.Enter(info.st_dev, info.st_ino);
//   ... OpenReader::Reads(info.st_dev, info.st_ino) ...  // true
//   reader.Leave();
//
// Any thread may call these. Nothing is allocated, and nothing raised.
#pragma once
#include <cstdint>

#include "kesp/platform/Export.h"

namespace kesp {

class KESP_EXPORT OpenReader {
 public:
  OpenReader() noexcept = default;
  ~OpenReader() { Leave(); }
  OpenReader(const OpenReader&) = delete;
  OpenReader& operator=(const OpenReader&) = delete;

  // Not one that has entered already.
  void Enter(std::uint64_t device, std::uint64_t fileNumber) noexcept;
  // Nothing for one that never entered.
  void Leave() noexcept;
  static bool Reads(std::uint64_t device, std::uint64_t fileNumber) noexcept;

 private:
  OpenReader* m_next = nullptr;
  OpenReader** m_link = nullptr;  // what points here; null while outside
  std::uint64_t m_device = 0;
  std::uint64_t m_fileNumber = 0;
};

}  // namespace kesp
