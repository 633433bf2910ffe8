// The exceptions that the library throws, by value, where a call can't report a failure by its result.
//
//   try {
//     survey.AddNoteToWriteQueue(note);
//   } catch (const std::bad_alloc&) {  // a CMemoryException, or the standard library's
//     ...
//   } catch (const CException& e) {  // every other exception of the library
//     Complain(e.GetErrorMessage());
//   }
//
// The operations of the container (CKespDataFile) and of the data set (CKespFile) catch these themselves. A host meets
// them only where a header says so, and when it uses CFile, CString and the collections directly.
#pragma once
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

// The common base. It does not derive from std::exception: each class below then has exactly one std::exception base,
// CMemoryException through std::bad_alloc, the others directly.
class KESP_EXPORT CException {
 public:
  CException() = default;
  CException(const CException&) = default;
  CException& operator=(const CException&) = default;
  virtual ~CException() = default;
  virtual const char* what() const noexcept = 0;  // UTF-8
  CString GetErrorMessage() const { return CString::FromUtf8(what()); }
};

// Out of memory. A handler for std::bad_alloc catches it too. Constructing one allocates nothing.
class KESP_EXPORT CMemoryException : public CException, public std::bad_alloc {
 public:
  const char* what() const noexcept override { return "Out of memory"; }
};

// An index outside a collection, or a null pointer where an object is needed.
class KESP_EXPORT CInvalidArgException : public CException, public std::exception {
 public:
  const char* what() const noexcept override { return "Invalid argument"; }
};

// A failed file operation: the cause, the system's error number and the file's path.
class KESP_EXPORT CFileException : public CException, public std::exception {
 public:
  enum Cause {
    none,
    genericException,
    fileNotFound,
    badPath,  // a part of the path is missing or is not a directory; or too long, or too many links
    tooManyOpenFiles,
    accessDenied,  // also a write to a file that is open read-only
    invalidFile,   // the object has no open file, or the path names something that is not a regular file
    badSeek,       // a position before the start of the file
    hardIO,
    sharingViolation,  // another object or process holds the file's lock, or reads a file that is to be emptied
    diskFull,
    endOfFile,
  };

  // The cause is derived from the system's error number, an errno value; `path` goes into the message. If memory runs
  // out here, the path is left out and the message is only "File error".
  CFileException(int osError, const CString& path) noexcept;
  CFileException(Cause cause, int osError, const CString& path) noexcept;
  CFileException(Cause cause, const CString& path) noexcept : CFileException(cause, 0, path) {}
  const char* what() const noexcept override { return m_text.empty() ? "File error" : m_text.c_str(); }

  Cause m_cause;
  int m_lOsError;  // errno; 0 if no system call failed
  CString m_strFileName;

 private:
  std::string m_text;
};
