// Memory to read files into, aligned to a page.
//
// The system copies several times as fast when source and destination have the same offset in a cache line. So a reader
// puts the byte at file offset n at an offset equal to n modulo kLine.
// Errors: none; an empty object means that there was no memory.
#pragma once
#include <cstddef>
#include <new>

namespace kesp {

class AlignedBytes {
 public:
  static constexpr std::size_t kLine = 64;

  explicit AlignedBytes(std::size_t size) noexcept
      : m_data(static_cast<std::byte*>(::operator new(size, kPage, std::nothrow))) {}
  ~AlignedBytes() { ::operator delete(m_data, kPage); }
  AlignedBytes(const AlignedBytes&) = delete;
  AlignedBytes& operator=(const AlignedBytes&) = delete;

  std::byte* Data() const noexcept { return m_data; }
  explicit operator bool() const noexcept { return m_data != nullptr; }

 private:
  static constexpr std::align_val_t kPage{4096};
  std::byte* const m_data;
};

}  // namespace kesp
