// A file in memory that is read through the host's interface, with what a source may do wrong. It is used by the thread
// that made it, or the test ends.
#pragma once
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "kesp/platform/ByteSource.h"
#include "tests/support/Bytes.h"

namespace kesp::test {

class MemorySource : public ByteSource {
 public:
  // Called before each call with its number, from 1; may throw.
  using Fault = std::function<void(int)>;
  explicit MemorySource(ByteVector bytes, std::size_t mostAtOnce = ~std::size_t{0}, Fault fault = {})
      : m_bytes(std::move(bytes)), m_mostAtOnce(mostAtOnce), m_fault(std::move(fault)) {}
  ~MemorySource() override { RequireOwnThread(); }

  std::uint64_t Length() override {
    Count();
    return m_bytes.size();
  }
  std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
    Count();
    if (count == 0 || offset > m_bytes.size() || count > m_bytes.size() - offset) std::abort();
    const std::size_t moved = std::min(count, m_mostAtOnce);
    std::memcpy(to, m_bytes.data() + offset, moved);
    return moved;
  }

 private:
  void RequireOwnThread() const {
    if (std::this_thread::get_id() != m_thread) std::abort();
  }
  void Count() {
    RequireOwnThread();
    ++m_calls;
    if (m_fault) m_fault(m_calls);
  }
  const ByteVector m_bytes;
  const std::size_t m_mostAtOnce;
  const Fault m_fault;
  const std::thread::id m_thread = std::this_thread::get_id();
  int m_calls = 0;
};

}  // namespace kesp::test
