// The file that a rebuild puts its records into: created, or emptied, and written record after record.
//
//   RebuiltFile out(destination);
//   out.PutFileHeader(bytes);
//   while (...) if (!out.Put(header, *record)) ...  // the record can't be written; its GetError() tells
//   out.Finish();
//
// Which version a record is written in, and which length its header states, is the caller's to say.
//
// Records are written in pieces of 64 KiB; what waits for its piece is lost without Finish.
//
// Ownership: borrows the records. The object closes its file, which stays where it is.
// Errors: CFileException from every operation.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kesp/platform/File.h"
#include "kesp/recordfile/RecordHeader.h"
#include "kesp/records/KespRecord.h"

namespace kesp {

class RebuiltFile {
 public:
  // Creates the file, or empties the one that exists once nobody else can write to it.
  explicit RebuiltFile(const CString& path);
  RebuiltFile(const RebuiltFile&) = delete;
  RebuiltFile& operator=(const RebuiltFile&) = delete;

  void PutFileHeader(std::span<const std::byte> bytes) { m_file.Write(bytes.data(), bytes.size()); }
  // The header, and the body in the header's version as the record's class writes it.
  bool Put(const RecordHeader& header, CKespRecord& record);
  // The header, and a body as it is.
  void Put(const RecordHeader& header, std::span<const std::byte> body);
  // Why a record was refused, where memory was the reason (ENOMEM); 0 otherwise.
  int SystemError() const noexcept { return m_file.LastSystemError(); }
  // On the disk, and closed.
  void Finish();
  // Closed as far as it got, on the disk or not.
  void Leave();

 private:
  void PutHeader(const RecordHeader& header);
  void CommitFrom(std::uint64_t start);

  CFile m_file;
  std::optional<CFile::Gather> m_gather;
  std::size_t m_pending = 0;  // bytes that wait to be written
};

}  // namespace kesp
