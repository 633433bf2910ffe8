// Copies of whole files: byte by byte, and rebuilt record by record, which is also the way to repair a damaged one.
#include <memory>
#include <utility>

#include "kesp/recordfile/FileHeader.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/RebuiltFile.h"

namespace {

constexpr std::size_t kCopyBlock = std::size_t{1024} * 1024;

}  // namespace

bool CKespDataFile::Copy(const wchar_t* destination) { return destination != nullptr && Copy(CString(destination)); }

bool CKespDataFile::Copy(const CString& destination) {
  // Not left to the lock, which some file systems don't know.
  if (m_file.IsSameFile(destination)) return false;
  CFile out;
  CFileException failure(CFileException::none, destination);
  if (!out.Open(destination, CFile::modeCreate | CFile::modeWrite | CFile::shareDenyWrite, &failure)) {
    NoteFailure(failure);
    return false;
  }
  const auto giveUp = [&] {
    try {
      // Emptied as well, for where the path is one of several names of the file.
      if (out.IsOpen()) out.SetLength(0);
    } catch (const CFileException&) {
      // Deleting it is what counts.
    }
    out.Abort();
    try {
      CFile::Remove(destination);
    } catch (const CFileException& e) {
      NoteFailure(e);
    }
    return false;
  };
  try {
    m_file.SeekToBegin();
    m_file.Flush();
    const std::uint64_t length = m_file.GetLength();
    out.CopyFrom(m_file, kCopyBlock);
    out.Flush();
    if (out.GetLength() < length) return giveUp();
    out.Close();
    return true;
  } catch (const CFileException& e) {
    NoteFailure(e);
    return giveUp();
  } catch (const std::exception&) {
    return giveUp();  // out of memory
  }
}

bool CKespDataFile::CopyVerify(const CString& destination, unsigned short kespVersion) {
  if (!IsOpen() || m_file.IsSameFile(destination)) return false;
  // What failed before is no failure of this walk.
  const int earlierFailure = std::exchange(m_systemError, 0);
  const bool good = Rebuild(destination, kespVersion);
  if (earlierFailure != 0) m_systemError = earlierFailure;
  return good;
}

bool CKespDataFile::Rebuild(const CString& destination, unsigned short kespVersion) {
  try {
    m_file.Flush();
    kesp::RebuiltFile out(destination, kespVersion);
    try {
      // The header goes over as it is, whatever version is asked for, and the records are taken to begin behind it:
      // an application header between the two is not copied.
      m_file.SeekToBegin();
      out.PutFileHeader(m_file.ReadView(kesp::kFileHeaderSize));

      m_error = KESP_ERROR_NONE;
      // A walk that ends without a code, as where a class refuses a body for its version, ends the rebuild too.
      while (const std::unique_ptr<CKespRecord> record{ReadNextRecord(true)}) {
        if (out.Put(*record)) continue;
        m_error = record->GetError();
        out.Leave();
        return false;
      }
      const KESP_ERROR_TYPE walkEnd = std::exchange(m_error, KESP_ERROR_NONE);
      out.Finish();
      m_error = walkEnd;  // not of a copy that isn't all on the disk
      // What ended the walk is in m_error, a failure of the system excepted: the rest might be read another time.
      return m_error != KESP_ERROR_NONE || m_systemError == 0;
    } catch (const CFileException& e) {
      NoteFailure(e);
      out.Finish();  // what was read stays
      return false;
    }
  } catch (const CFileException& e) {
    NoteFailure(e);
    return false;
  } catch (const std::exception&) {
    return false;  // out of memory
  }
}

bool CKespDataFile::CopyVerify(const CString& source, const CString& destination, unsigned short kespVersion) {
  // Which may be this file's own path, and that ends with the file.
  const CString path = source;  // NOLINT(performance-unnecessary-copy-initialization)
  (void)Close();
  m_systemError = 0;
  CFileException failure(CFileException::none, path);
  if (!m_file.Open(path, CFile::modeReadWrite | CFile::shareExclusive, &failure)) {
    NoteFailure(failure);
    return false;
  }
  return CopyVerify(destination, kespVersion);
}
