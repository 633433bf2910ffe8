// Copies whole files byte by byte, and rebuilds them record by record, which also repairs damaged ones.
#include <memory>
#include <utility>

#include "kesp/recordfile/FileHeader.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/RebuiltFile.h"

namespace {

constexpr std::size_t kCopyBlock = std::size_t{1024} * 1024;
constexpr unsigned short kNewestVersionOfCopy = 2;

// For a file rebuilt in version 1 or 2: the record version that belongs to the file version, and the flags unchanged.
// The length is that of record version `kespVersion`: for features and attributes of file version 2 it is shorter than
// the body. Readers go by the body's layout.
kesp::RecordHeader HeaderInCopy(CKespRecord& record, unsigned short kespVersion) {
  return {record.m_recordType, record.GetRecordVersionFromKespVersion(kespVersion), record.m_flags,
          static_cast<std::uint32_t>(record.GetLength(kespVersion))};
}

}  // namespace

bool CKespDataFile::Copy(const wchar_t* destination) { return destination != nullptr && Copy(CString(destination)); }

bool CKespDataFile::Copy(const CString& destination) {
  CFile out;
  bool isOpen = false;
  const bool good = Guarded([&] {
    // Don't rely on the lock: some file systems have none.
    if (m_file.IsSameFile(destination)) return false;
    CFileException failure(CFileException::none, destination);
    isOpen = out.Open(destination, CFile::modeCreate | CFile::modeWrite | CFile::shareDenyWrite, &failure);
    if (!isOpen) {
      NoteFailure(failure);
      return false;
    }
    m_file.SeekToBegin();
    m_file.Flush();
    const std::uint64_t length = m_file.GetLength();
    out.CopyFrom(m_file, kCopyBlock);
    out.Flush();
    if (out.GetLength() < length) return false;
    out.Close();
    return true;
  });
  if (good || !isOpen) return good;
  // Emptied as well, in case the file has other names.
  (void)Guarded([&] {
    if (out.IsOpen()) out.SetLength(0);
    return true;
  });
  out.Abort();
  return Guarded([&] {
    CFile::Remove(destination);
    return false;
  });
}

bool CKespDataFile::CopyVerify(const CString& destination, unsigned short kespVersion) {
  if (!IsOpen()) return false;
  // Earlier failures don't count for this walk.
  const int earlierFailure = std::exchange(m_systemError, 0);
  const bool good = Guarded([&] { return !m_file.IsSameFile(destination) && Rebuild(destination, kespVersion); });
  if (earlierFailure != 0) m_systemError = earlierFailure;
  return good;
}

bool CKespDataFile::Rebuild(const CString& destination, unsigned short kespVersion) {
  if (kespVersion == 0 || kespVersion > kNewestVersionOfCopy) kespVersion = kNewestVersionOfCopy;
  m_file.Flush();
  kesp::RebuiltFile out(destination);
  bool refused = false;
  const bool walked = Guarded([&] {
    // The header is copied unchanged, whatever version is asked for; the records follow it. An application header
    // between the two is not copied.
    m_file.SeekToBegin();
    out.PutFileHeader(m_file.ReadView(kesp::kFileHeaderSize));

    m_error = KESP_ERROR_NONE;
    // A walk that ends without a code, as when a class refuses a body for its version, also ends the rebuild.
    while (const std::unique_ptr<CKespRecord> record{ReadNextRecord(true)}) {
      refused = !out.Put(HeaderInCopy(*record, kespVersion), *record);
      if (refused) m_error = record->GetError();
      if (refused) return false;
    }
    return true;
  });
  if (refused) {
    if (out.SystemError() != 0) NoteError(out.SystemError());
    out.Leave();
    return false;
  }
  const KESP_ERROR_TYPE walkEnd = std::exchange(m_error, KESP_ERROR_NONE);
  out.Finish();  // what was read is kept, whatever ended the walk
  if (!walked) return false;
  m_error = walkEnd;  // only when the whole copy is on the disk
  // m_error has what ended the walk, except for a failure of the system: the rest may be readable another time.
  return m_error != KESP_ERROR_NONE || m_systemError == 0;
}

bool CKespDataFile::CopyVerify(const CString& source, const CString& destination, unsigned short kespVersion) {
  // `source` may be this object's m_path, which changes.
  CString path;
  if (!Guarded([&] { return path = source, true; })) return false;
  (void)Close();
  ForgetFailures();
  CFileException failure(CFileException::none, path);
  if (m_file.Open(path, CFile::modeReadWrite | CFile::shareExclusive, &failure)) {
    return CopyVerify(destination, kespVersion);
  }
  NoteFailure(failure);
  return false;
}
