// What the library throws, by value, where something can't be answered with a result.
//
//   try {
//     survey.AddNoteToWriteQueue(note);
//   } catch (const std::bad_alloc&) {  // a CMemoryException, or the standard library's
//     ...
//   } catch (const CException& e) {  // every other exception of the library
//     Complain(e.GetErrorMessage());
//   }
//
// The operations of the container and of the data set catch these themselves; they reach a host only where a
// header says so, and from direct use of CFile, CString and the collections.
#pragma once
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

// The common base. It is no std::exception, so that each class below is one exactly once: CMemoryException by way of
// std::bad_alloc, the others directly.
class KESP_EXPORT CException {
 public:
  CException() = default;
  CException(const CException&) = default;
  CException& operator=(const CException&) = default;
  virtual ~CException() = default;
  virtual const char* what() const noexcept = 0;  // UTF-8
  CString GetErrorMessage() const { return CString::FromUtf8(what()); }
};

// Out of memory. A handler for std::bad_alloc catches it too. Making one takes no memory.
class KESP_EXPORT CMemoryException : public CException, public std::bad_alloc {
 public:
  const char* what() const noexcept override { return "Out of memory"; }
};

// An index outside a collection, or a null where an object is wanted.
class KESP_EXPORT CInvalidArgException : public CException, public std::exception {
 public:
  const char* what() const noexcept override { return "Invalid argument"; }
};

// A file operation that failed: why, and what the system said.
class KESP_EXPORT CFileException : public CException, public std::exception {
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

  // The cause is derived from the system's error number; `path` goes into the message. Without the memory for them,
  // the path is left out, and the message says no more than that a file operation failed.
  CFileException(int osError, const CString& path) noexcept;
  CFileException(Cause cause, int osError, const CString& path) noexcept;
  CFileException(Cause cause, const CString& path) noexcept : CFileException(cause, 0, path) {}
  const char* what() const noexcept override { return m_text.empty() ? "File error" : m_text.c_str(); }

  Cause m_cause;
  int m_lOsError;  // errno, 0 when the system was not asked
  CString m_strFileName;

 private:
  std::string m_text;
};
