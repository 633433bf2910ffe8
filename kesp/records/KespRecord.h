// The base of all record classes: the common fields, and the operations with which the container sizes, reads, writes
// and compares records without knowing their classes.
//
// On disk a record is a header of 14 bytes (type, version, flags, body length; see kesp/recordfile/KespDataFile.h) and
// a body whose layout depends on its class and version.
//
// Ownership: the caller owns a record that it gets from the container, and deletes it through the virtual destructor.
// The `file` of Read and Write stays the caller's.
// Errors: Read returns false and stores the reason in m_error; m_error stays 0 when the class refuses the version or
// the file object failed. Write returns false. A feature of version 1 raises CFileException instead. Without memory for
// a text or a buffer both raise a std::bad_alloc, except that a tag's Read and Write return false.
#pragma once
#include <cstddef>
#include <cstdint>
#include <new>

#include "kesp/platform/Export.h"
#include "kesp/records/KespError.h"

class CFile;

// Written to the file: never renumber. 7 and 8 are unassigned and skipped; 10 to 14 are reserved for records with
// wide-character text and refused.
enum KESP_RECORD_TYPE : std::uint32_t {
  KESP_RECORD_NONE = 0,
  KESP_RECORD_FEATURE = 1,
  KESP_RECORD_POINT = 2,
  KESP_RECORD_HEADER = 3,
  KESP_RECORD_FEATURE_END = 4,
  KESP_RECORD_ATTRIBUTE = 5,
  KESP_RECORD_NOTE = 6,
  KESP_RECORD_TAG = 9,
  KESP_RECORD_BROKEN = 15  // a placeholder in memory, never in a file
};

// Bits of the flag word. Written to the file: never renumber.
enum KESP_FLAG : std::uint32_t {
  KESP_FLAG_DELETED = 0x0001,
  KESP_SRC_ADDED = 0x0002,     // appended after the file was first written
  KESP_SRC_DELETED = 0x0004,   // a deletion was recorded
  KESP_SRC_MODIFIED = 0x0008,  // rewritten in place
  KESP_SRC_RESTORED = 0x0010,  // a deletion was undone
  KESP_SRC_CHANGE_A = 0x0020,
  KESP_SRC_CHANGE_B = 0x0040,
  KESP_SRC_CHANGE_AB = 0x0080,  // A and B together
  // The historical forms of the marks above.
  KESP_SRC_HIST_MODIFIED = 0x0100,
  KESP_SRC_HIST_ADDED = 0x0200,
  KESP_SRC_HIST_CHANGE_B = 0x0400,
  KESP_SRC_HIST_CHANGE_A = 0x0800,
  KESP_SRC_HIST_CHANGE_AB = 0x1000
};

class KESP_EXPORT CKespRecord {
 public:
  CKespRecord() noexcept = default;
  CKespRecord(const CKespRecord& other) noexcept = default;
  CKespRecord& operator=(const CKespRecord& other) noexcept = default;
  virtual ~CKespRecord() = default;

  // Records are allocated from the library's pool. Plain new and delete still work for classes that hosts derive, even
  // those aligned to more than 16 bytes, and so does new (std::nothrow). When memory runs out, new raises
  // CMemoryException, which is a std::bad_alloc. NOLINTBEGIN(cert-dcl54-cpp,misc-new-delete-overloads): the sized
  // delete belongs to the plain new
  static void* operator new(std::size_t size);
  static void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept;
  static void* operator new(std::size_t size, std::align_val_t alignment);
  static void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& tag) noexcept;
  static void* operator new(std::size_t /*size*/, void* place) noexcept { return place; }
  static void operator delete(void* record, std::size_t size) noexcept;
  static void operator delete(void* record, std::size_t size, std::align_val_t alignment) noexcept;
  static void operator delete(void* record, const std::nothrow_t& tag) noexcept;
  static void operator delete(void* record, std::align_val_t alignment, const std::nothrow_t& tag) noexcept;
  static void operator delete(void* /*record*/, void* /*place*/) noexcept {}
  // NOLINTEND(cert-dcl54-cpp,misc-new-delete-overloads)

  // Returns the body length in bytes that Write produces for a record version; 0 means the record's own version, here
  // and below.
  virtual unsigned long GetLength(unsigned short version) = 0;
  // Reads the body at the file's position in the layout of m_recordVersion.
  virtual bool Read(CFile& file) = 0;
  // Writes the body at the file's position in the given version. The container passes the source flag; only attributes
  // use it.
  virtual bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) = 0;
  // Whether the other record is the same one, by the key of the class; the container finds a record in a file with it.
  // False for null and for classes without a key.
  virtual bool IsSameKespRecord(CKespRecord* other);
  // Returns the record version for a file version (1, 2 or 3; others count as the newest).
  virtual unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) = 0;
  // Stores the oldest file version that holds the given record version; returns false and stores nothing for an unknown
  // one.
  virtual bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) = 0;

  bool IsDeleted() const noexcept { return (m_flags & KESP_FLAG_DELETED) != 0; }
  // Marks the record deleted in memory. Unlike ClearDelete and SetSourceFlag it does not restore marks from their
  // historical forms.
  void SetDelete() noexcept;
  void ClearDelete() noexcept;
  // Adds the mark of an operation (0, 2, 4 or 8) or of a host, and reduces the flags to their canonical form.
  void SetSourceFlag(unsigned long flag) noexcept {
    if (m_flags != 0 || static_cast<std::uint32_t>(flag) != 0) ApplySourceFlag(flag);  // usually there is none
  }
  KESP_ERROR_TYPE GetError() const noexcept { return m_error; }

  KESP_RECORD_TYPE m_recordType = KESP_RECORD_NONE;
  std::uint16_t m_recordVersion = 0;          // version of the body's layout, not of the file
  KESP_ERROR_TYPE m_error = KESP_ERROR_NONE;  // of the last Read
  std::uint32_t m_filePosition = 0;           // low 32 bits of the offset of the record header
  std::uint32_t m_flags = 0;                  // KESP_FLAG bits

 protected:
  CKespRecord(KESP_RECORD_TYPE type, std::uint16_t version) noexcept : m_recordType(type), m_recordVersion(version) {}

  // Returns the argument, or the record's own version if it is 0.
  unsigned short OwnVersionIfZero(unsigned short version) const noexcept {
    return version == 0 ? m_recordVersion : version;
  }
  // Adds the mark that belongs to each historical form; the historical forms stay.
  unsigned long RestoreHistoricalFlags(unsigned long flags) const noexcept;
  // Returns the canonical form of a flag word.
  unsigned long FilterSourceFlagsForZelk(unsigned long flags) const noexcept;

 private:
  void ApplySourceFlag(unsigned long flag) noexcept;
};

namespace kesp {

// The flags that a record has after it was read: the canonical form of the flag word in its record header.
KESP_EXPORT std::uint32_t CanonicalFlags(std::uint32_t stored) noexcept;

}  // namespace kesp
