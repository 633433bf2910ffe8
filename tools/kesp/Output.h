// Standard output, collected into pieces of 64 KiB.
//
//   Output out(Stream::kOutput);
//   out.Put("offset ").Put(text);
//   out.Flush();
//
// Errors: OutputError with the system's error number; what was collected by then is dropped. The destructor drops what
//   was never flushed, so that an exception on its way isn't met by a second one.
#pragma once
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <string_view>

#include "tools/kesp/System.h"

namespace kesp::tool {

class OutputError : public std::exception {
 public:
  explicit OutputError(int osError) noexcept : m_osError(osError) {}
  const char* what() const noexcept override { return "standard output can't be written"; }
  int OsError() const noexcept { return m_osError; }

 private:
  int m_osError;
};

class Output {
 public:
  explicit Output(Stream stream) : m_stream(stream), m_buffer(std::make_unique<char[]>(kCapacity)) {}
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  Output& Put(char c) {
    *Room(1) = c;
    ++m_size;
    return *this;
  }
  Output& Put(std::string_view bytes) {
    if (bytes.size() > kCapacity - m_size) return PutInPieces(bytes);
    std::memcpy(m_buffer.get() + m_size, bytes.data(), bytes.size());
    m_size += bytes.size();
    return *this;
  }
  // At least `count` bytes (256 at most) to write to; Took says how many of them were used.
  char* Room(std::size_t count) {
    if (kCapacity - m_size < count) Flush();
    return m_buffer.get() + m_size;
  }
  void Took(std::size_t count) noexcept { m_size += count; }
  void Flush();
  bool IsUsed() const noexcept { return m_isUsed || m_size != 0; }  // something was put

 private:
  Output& PutInPieces(std::string_view bytes);

  static constexpr std::size_t kCapacity = std::size_t{64} * 1024;

  Stream m_stream;
  std::unique_ptr<char[]> m_buffer;
  std::size_t m_size = 0;
  bool m_isUsed = false;
};

}  // namespace kesp::tool
