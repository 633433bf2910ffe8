// What the library throws, by value, where something can't be answered with a result.
//
// The operations of the container and of the data set catch these themselves; they reach a host only where a
// header says so, and from direct use of CFile, CString and the collections.
#pragma once
#include <exception>
#include <string>
#include <utility>

#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

class KESP_EXPORT CException : public std::exception {
 public:
  explicit CException(std::string text) : m_text(std::move(text)) {}
  const char* what() const noexcept override { return m_text.c_str(); }  // UTF-8
  CString GetErrorMessage() const { return CString::FromUtf8(m_text); }

 private:
  std::string m_text;
};

class KESP_EXPORT CMemoryException : public CException {
 public:
  CMemoryException() : CException("Out of memory") {}
};

// An index outside a collection.
class KESP_EXPORT CInvalidArgException : public CException {
 public:
  CInvalidArgException() : CException("Invalid argument") {}
};

// A file operation that failed: why, and what the system said.
class KESP_EXPORT CFileException : public CException {
 public:
  enum Cause {
    none,
    genericException,
    fileNotFound,
    badPath,  // a part of the path is missing or not a directory
    tooManyOpenFiles,
    accessDenied,  // also: writing to a file that was opened for reading
    invalidFile,   // the file object holds no open file, or the path names something that is not a file
    badSeek,       // a position before the start of the file
    hardIO,
    sharingViolation,  // somebody else holds the file and denies what was asked for
    diskFull,
    endOfFile,
  };

  // The cause is derived from the system's error number; `path` goes into the message.
  CFileException(int osError, const CString& path);
  CFileException(Cause cause, int osError, const CString& path);
  CFileException(Cause cause, const CString& path) : CFileException(cause, 0, path) {}

  Cause m_cause;
  int m_lOsError;  // errno, 0 when the system was not asked
  CString m_strFileName;
};
