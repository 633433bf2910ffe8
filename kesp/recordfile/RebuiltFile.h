// The file that a rebuild puts its records into: created anew, record after record, in file version 1 or 2.
//
//   RebuiltFile out(destination, kespVersion);
//   out.PutFileHeader(bytes);
//   while (...) if (!out.Put(*record)) ...  // the record can't be written; its GetError() tells
//   out.Finish();
//
// Records are written in pieces of 64 KiB; what waits for its piece is lost without Finish.
//
// Ownership: borrows the records. The object closes its file, which stays where it is.
// Errors: CFileException from every operation.
#pragma once
#include <cstddef>
#include <optional>
#include <span>

#include "kesp/platform/File.h"
#include "kesp/records/KespRecord.h"

namespace kesp {

class RebuiltFile {
 public:
  // Creates the file, or empties the one that exists once nobody else can write to it. A version of 0 or above 2 is 2.
  RebuiltFile(const CString& path, unsigned short kespVersion);
  RebuiltFile(const RebuiltFile&) = delete;
  RebuiltFile& operator=(const RebuiltFile&) = delete;

  void PutFileHeader(std::span<const std::byte> bytes) { m_file.Write(bytes.data(), bytes.size()); }
  // Header and body in the record version that belongs to the file version, the flags as they are. The length in the
  // header is that of record version `kespVersion`: for features and attributes of file version 2 it is shorter than
  // the body. Readers go by the body's layout.
  bool Put(CKespRecord& record);
  // Why a record was refused, where memory was the reason (ENOMEM); 0 otherwise.
  int SystemError() const noexcept { return m_file.LastSystemError(); }
  // On the disk, and closed.
  void Finish();
  // Closed as far as it got, on the disk or not.
  void Leave();

 private:
  CFile m_file;
  std::optional<CFile::Gather> m_gather;
  unsigned short m_kespVersion;
  std::size_t m_pending = 0;  // bytes that wait to be written
};

}  // namespace kesp
