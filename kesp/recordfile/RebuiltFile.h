// The file that a rebuild writes: created, or emptied, and written record by record.
//
//   RebuiltFile out(destination);
//   out.PutFileHeader(bytes);
//   while (...) if (!out.Put(header, *record)) ...  // the record can't be written; its GetError() says why
//   out.Finish();
//
// The caller chooses the version of each record and the length in its header.
//
// Records are written in blocks of 64 KiB; without Finish or Leave the last block is lost.
//
// Ownership: borrows the records. The destructor closes the file, which stays in place.
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
  // Creates the file, or empties an existing one once nobody else can write to it.
  explicit RebuiltFile(const CString& path);
  RebuiltFile(const RebuiltFile&) = delete;
  RebuiltFile& operator=(const RebuiltFile&) = delete;

  void PutFileHeader(std::span<const std::byte> bytes) { m_file.Write(bytes.data(), bytes.size()); }
  // Writes the header, and the body in the header's version. False when the record can't be written.
  bool Put(const RecordHeader& header, CKespRecord& record);
  // Writes the header, and the body unchanged.
  void Put(const RecordHeader& header, std::span<const std::byte> body);
  // ENOMEM when a record was refused for lack of memory; 0 otherwise.
  int SystemError() const noexcept { return m_file.LastSystemError(); }
  // Writes the rest, syncs and closes.
  void Finish();
  // Writes the rest and closes without a sync.
  void Leave();

 private:
  void PutHeader(const RecordHeader& header);
  void CommitFrom(std::uint64_t start);

  CFile m_file;
  std::optional<CFile::Gather> m_gather;
  std::size_t m_pending = 0;  // bytes not yet written
};

}  // namespace kesp
