#include "kesp/platform/Exception.h"

#include <cerrno>
#include <string>
#include <system_error>

namespace {

CFileException::Cause CauseOf(int osError) {
  switch (osError) {
    case 0:
      return CFileException::none;
    case ENOENT:
      return CFileException::fileNotFound;
    case ENOTDIR:
    case ENAMETOOLONG:
    case ELOOP:
      return CFileException::badPath;
    case EMFILE:
    case ENFILE:
      return CFileException::tooManyOpenFiles;
    case EACCES:
    case EPERM:
    case EROFS:
      return CFileException::accessDenied;
    case EBADF:
    case EISDIR:
      return CFileException::invalidFile;
    case EWOULDBLOCK:
      return CFileException::sharingViolation;
    case ENOSPC:
#ifdef EDQUOT  // not every system has quotas
    case EDQUOT:
#endif
    case EFBIG:
      return CFileException::diskFull;
    case EIO:
      return CFileException::hardIO;
    default:
      return CFileException::genericException;
  }
}

const char* TextOf(CFileException::Cause cause) {
  switch (cause) {
    case CFileException::invalidFile:
      return "Not an open file, or not a regular file";
    case CFileException::badSeek:
      return "Seek before the start of the file";
    case CFileException::sharingViolation:
      return "The file is in use";
    case CFileException::endOfFile:
      return "End of file";
    case CFileException::accessDenied:
      return "The file is open for reading only";
    default:
      return "File error";
  }
}

std::string MessageOf(CFileException::Cause cause, int osError, const CString& path) {
  std::string text = path.ToPathBytes();
  if (!text.empty()) text += ": ";
  const bool saysMore =
      cause == CFileException::sharingViolation || (cause == CFileException::accessDenied && osError == EBADF);
  text += osError != 0 && !saysMore ? std::generic_category().message(osError) : TextOf(cause);
  return text;
}

}  // namespace

CFileException::CFileException(int osError, const CString& path) noexcept
    : CFileException(CauseOf(osError), osError, path) {}

CFileException::CFileException(Cause cause, int osError, const CString& path) noexcept
    : m_cause(cause), m_lOsError(osError) {
  try {
    m_text = MessageOf(cause, osError, path);
    m_strFileName = path;
  } catch (const std::exception&) {
    // The cause is kept; only the path and the message are lost.
  }
}
