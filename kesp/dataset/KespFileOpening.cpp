// Opening and closing a file.
#include <cerrno>
#include <new>
#include <utility>

#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"
#include "kesp/format/RecordView.h"
#include "kesp/platform/ByteSource.h"
#include "kesp/util/Utilities.h"

namespace {

constexpr int kMessageLimit = 255;  // of a system message, in characters

ErrorEnum NoContainer(CString& message) {
  message = u"Memory allocation failed. Free some memory and try again.";
  return ERR_MEMORY;
}

ErrorEnum OtherIsOpen(CString& message) {
  message = u"Please close the already open file.";
  return ERR_OTHER_FILE_OPEN;
}

}  // namespace

ErrorEnum CKespFile::OpenKesp(CString path, CString& message) { return OpenWith(path, message, false); }

ErrorEnum CKespFile::OpenKespReadOnly(CString path, CString& message) { return OpenWith(path, message, true); }

ErrorEnum CKespFile::OpenKespReadOnly(std::unique_ptr<kesp::ByteSource> source, CString name, CString& message) {
  return OpenGuarded(message, [&] {
    if (source == nullptr) return ERR_FILE_NOT_FOUND;
    if (m_pDataFile == nullptr) return NoContainer(message);
    if (m_pDataFile->IsOpen()) return OtherIsOpen(message);
    ThrowIfOutOfMemory(m_pDataFile->OpenReadOnly(std::move(source), name));
    return ERR_NONE;
  });
}

ErrorEnum CKespFile::OpenWith(const CString& path, CString& message, bool readOnly) {
  return OpenGuarded(message, [&] {
    const bool isOpen = m_pDataFile != nullptr && m_pDataFile->IsOpen();
    const bool isSame = isOpen && NamesOpenFile(path);
    // The name in another letter case may not exist here.
    if (!FileExists(path) && !(isSame && FileExists(m_pDataFile->m_path))) return ERR_FILE_NOT_FOUND;
    if (m_pDataFile == nullptr) return NoContainer(message);
    if (isSame) return readOnly ? ERR_NONE : MakeWritable(message);
    if (isOpen) return OtherIsOpen(message);
    ThrowIfOutOfMemory(readOnly ? m_pDataFile->OpenReadOnly(path) : m_pDataFile->Open(path));
    return ERR_NONE;
  });
}

// If the container refuses the file, it stays closed; the next operation reports that.
void CKespFile::ThrowIfOutOfMemory(bool opened) const {
  if (!opened && m_pDataFile->GetSystemError() == ENOMEM) throw CMemoryException();
}

template <class Open>
ErrorEnum CKespFile::OpenGuarded(CString& message, Open open) {
  message.Empty();
  // If there is no memory for the text, the result code must do.
  const auto say = [&message](const CException& e) {
    try {
      message = e.GetErrorMessage().Left(kMessageLimit);
    } catch (const std::bad_alloc&) {
      message.Empty();
    }
  };
  try {
    return open();
  } catch (const std::bad_alloc&) {
    say(CMemoryException());
    return OutOfMemory();
  } catch (const CFileException& e) {
    say(e);
    return ERR_FILE_EXCEPTION;
  } catch (...) {
    return ERR_UNKNOWN_EXCEPTION;
  }
}

// Whether the path is the open file's, in any letter case, unless that spelling leads to another file. The name of a
// source is not a path.
bool CKespFile::NamesOpenFile(const CString& path) const {
  if (m_pDataFile->m_file.ReadsSource() || m_pDataFile->m_path.CompareNoCase(path) != 0) return false;
  return !FileExists(path) || m_pDataFile->m_file.IsSameFile(path);
}

// Opens a read-only file again for writing: otherwise each write would be lost without an error.
ErrorEnum CKespFile::MakeWritable(CString& message) {
  if (m_pDataFile->m_file.IsWritable()) return ERR_NONE;
  const CString path = m_pDataFile->m_path;
  (void)m_pDataFile->Close();
  if (m_pDataFile->Open(path)) return ERR_NONE;
  const int osError = m_pDataFile->GetSystemError();
  // Restore it, if the system allows.
  (void)m_pDataFile->OpenReadOnly(path);
  message = CFileException(osError, path).GetErrorMessage().Left(kMessageLimit);
  return ERR_FILE_EXCEPTION;
}

ErrorEnum CKespFile::CloseKesp() {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_NONE;
  if (m_pDataFile->m_file.IsWritable()) {
    try {
      (void)SetCleanKespClose(true);
      m_pDataFile->Flush();
    } catch (...) {
      (void)m_pDataFile->Close();  // or it stays locked
      throw;
    }
  }
  (void)m_pDataFile->Close();
  return ERR_NONE;
}

ErrorEnum CKespFile::CheckFileOpenIfClosed(bool& wasOpen, CString path) {
  wasOpen = false;
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (m_pDataFile->IsOpen()) {
    wasOpen = true;
    return NamesOpenFile(path) ? ERR_NONE : ERR_OTHER_FILE_OPEN;
  }
  CString message;
  return OpenKesp(path, message);
}

ErrorEnum CKespFile::GetKespVersion(unsigned long& version) {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  if (!m_pDataFile->SeekToFirstRecord()) return ERR_SEEK_FAILED;
  kesp::RecordView first;
  if (!m_pDataFile->ReadNextView(first, true) || first.Type() != KESP_RECORD_HEADER) return ERR_READ_FAILED;
  version = first.AsHeader().KespVersion();
  return ERR_NONE;
}

ErrorEnum CKespFile::GetKespVersion(std::uint32_t& version) {
  unsigned long wide = version;
  const ErrorEnum result = GetKespVersion(wide);
  version = static_cast<std::uint32_t>(wide);
  return result;
}

ErrorEnum CKespFile::OutOfMemory() noexcept {
  if (m_pDataFile != nullptr) m_pDataFile->NoteError(ENOMEM);
  return ERR_MEMORY;
}
