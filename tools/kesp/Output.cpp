#include "tools/kesp/Output.h"

#include <poll.h>
#include <unistd.h>

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
    const ssize_t written = ::write(m_descriptor, m_buffer.get() + done, size - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      // The other end of a pipe may have made it non-blocking.
      pollfd ready{m_descriptor, POLLOUT, 0};
      ::poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      throw OutputError(errno);
    }
  }
}

}  // namespace kesp::tool
