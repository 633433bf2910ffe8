#include "kesp/platform/OpenReaders.h"

#include <mutex>

#include "kesp/platform/Locks.h"

namespace kesp {
namespace {

OpenReader* g_firstReader = nullptr;  // guarded by g_openReadersLock

}  // namespace

OpenReader::OpenReader(std::uint64_t device, std::uint64_t fileNumber) noexcept
    : m_device(device), m_fileNumber(fileNumber) {
  const std::lock_guard lock(g_openReadersLock);
  m_next = g_firstReader;   // NOLINT(cppcoreguidelines-prefer-member-initializer): under the lock
  m_link = &g_firstReader;  // NOLINT(cppcoreguidelines-prefer-member-initializer): as above
  if (g_firstReader != nullptr) g_firstReader->m_link = &m_next;
  g_firstReader = this;
}

OpenReader::~OpenReader() {
  const std::lock_guard lock(g_openReadersLock);
  *m_link = m_next;
  if (m_next != nullptr) m_next->m_link = m_link;
}

bool OpenReader::Reads(std::uint64_t device, std::uint64_t fileNumber) noexcept {
  const std::lock_guard lock(g_openReadersLock);
  for (const OpenReader* reader = g_firstReader; reader != nullptr; reader = reader->m_next) {
    if (reader->m_device == device && reader->m_fileNumber == fileNumber) return true;
  }
  return false;
}

}  // namespace kesp
