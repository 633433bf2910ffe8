#include "kesp/platform/OpenReaders.h"

#include <mutex>

namespace kesp {
namespace {

std::mutex mutex;
OpenReader* first = nullptr;

}  // namespace

void OpenReader::Enter(std::uint64_t device, std::uint64_t fileNumber) noexcept {
  const std::lock_guard lock(mutex);
  m_device = device;
  m_fileNumber = fileNumber;
  m_next = first;
  m_link = &first;
  if (first != nullptr) first->m_link = &m_next;
  first = this;
}

void OpenReader::Leave() noexcept {
  if (m_link == nullptr) return;
  const std::lock_guard lock(mutex);
  *m_link = m_next;
  if (m_next != nullptr) m_next->m_link = m_link;
  m_link = nullptr;
}

bool OpenReader::Reads(std::uint64_t device, std::uint64_t fileNumber) noexcept {
  const std::lock_guard lock(mutex);
  for (const OpenReader* reader = first; reader != nullptr; reader = reader->m_next) {
    if (reader->m_device == device && reader->m_fileNumber == fileNumber) return true;
  }
  return false;
}

}  // namespace kesp
