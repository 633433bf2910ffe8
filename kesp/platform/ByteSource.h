// The bytes of a file that the host reads itself: from an archive, from memory, over a network.
//
//   class InMemory : public kesp::ByteSource {
//    public:
//     explicit InMemory(std::vector<std::byte> bytes) : m_bytes(std::move(bytes)) {}
//     std::uint64_t Length() override { return m_bytes.size(); }
//     std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
//       std::memcpy(to, m_bytes.data() + offset, count);
//       return count;
//     }
//
//    private:
//     const std::vector<std::byte> m_bytes;
//   };
//   CKespDataFile file;
//   if (!file.OpenReadOnly(std::make_unique<InMemory>(std::move(bytes)), L"survey.kesp")) ...
//
// What is opened from a source is read-only. It has no lock, no descriptor and no times, and is a file of its own: no
// path leads to it, and two sources are two files even if they read the same one. So a copy is refused only by what the
// destination itself refuses: a host must not copy onto the file that its source reads.
//
// Ownership: the object that is opened owns the source. It destroys it when it is closed or destroyed, or when opening
// fails.
//
// Threads: the functions, the destructor too, are called only by the thread that is using the object that was opened,
// within its calls, and one at a time. The library's thread that reads ahead never calls a source; ReadAhead does
// nothing. A source must not use the object that reads it.
//
// Errors: a function that fails throws. A std::system_error gives the error number (errno) that GetSystemError then
// returns, and so does a CFileException; a std::bad_alloc is ENOMEM; every other exception, and a code that is not an
// errno, is EIO. The library does not pass the exception on, and does not try again, also not after EINTR. After that,
// it may read the same bytes again in a later operation.
//
// A source that breaks these rules is a failing disk, or a file that changes while it is read: reading ends with EIO
// when the source ends before its length or says that it read more than was asked, and with what the bytes mean when
// they are others the second time.
#pragma once
#include <cstddef>
#include <cstdint>

#include "kesp/platform/Export.h"

namespace kesp {

class KESP_EXPORT ByteSource {
 public:
  ByteSource() = default;
  virtual ~ByteSource();
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  // The length in bytes, below 2^63. Asked for once, when the file is opened: it has this length until it is closed.
  virtual std::uint64_t Length() = 0;
  // Reads `count` bytes, at least 1, from `offset` on, and returns how many were read. The bytes are before the end:
  // offset + count is at most the length. If it returns fewer, it is asked for the rest; 0 is a failure.
  // A walk reads forward in pieces of 4 KiB to 1 MiB, each twice as long as the one before; a jump begins with 4 KiB
  // again.
  virtual std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) = 0;
};

}  // namespace kesp
