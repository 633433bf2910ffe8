#include "tools/kesp/Output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kesp::tool {

Output& Output::PutInPieces(std::string_view bytes) {
  while (!bytes.empty()) {
    if (m_size == kCapacity) Flush();
    const std::size_t count = std::min(bytes.size(), kCapacity - m_size);
    std::memcpy(m_buffer.get() + m_size, bytes.data(), count);
    m_size += count;
    bytes.remove_prefix(count);
  }
  return *this;
}

void Output::Flush() {
  const std::size_t size = m_size;
  m_size = 0;
  m_isUsed = m_isUsed || size != 0;
  for (std::size_t done = 0; done < size;) {
    const std::ptrdiff_t written = WriteSome(m_stream, m_buffer.get() + done, size - done);
    if (written < 0) throw OutputError(errno);
    done += static_cast<std::size_t>(written);
  }
}

}  // namespace kesp::tool
