// The record container: one object owns one open Kesp data file, walks its records and puts records into it.
//
//   CKespDataFile file;
//   if (!file.OpenReadOnly(L"survey.kesp")) return Complain(file.GetErrorString());
//   file.SeekToFirstRecord();
//   while (std::unique_ptr<CKespRecord> record{file.ReadNextRecord(true)}) Show(*record);
//   if (file.GetError() != KESP_ERROR_NORMAL_EOF) Complain(file.GetErrorString());
//
// On disk (little-endian, unsigned):
//
//   0   42  signature, without a terminator
//   42   2  file version: 1, 2 or 3
//   44   4  header length: bytes from offset 48 to the first record; 2 in a file made by Create
//   48   2  header word, kept and not interpreted
//   48 + header length: the records, each of them
//     0   4  record type         6   4  flags (KESP_FLAG)
//     4   2  record version     10   4  body length, at least 1
//     14     body
//
// Records never move. A deletion is a flag rewritten in place; an append is on the disk when it returns true. Positions
// and lengths are handed out as the low 32 bits of 64-bit ones.
//
// Sharing: while a file is open for writing, other processes and objects may read it and not write it.
//
// Ownership: records that are read belong to the caller, who deletes them; records that are written stay the caller's.
//
// Errors: the operations return false, null or 0xFFFFFFFF. Those that read leave the reason in m_error, which each of
//   them resets first; those that write don't touch it. GetSystemError has what the system reported, whichever
//   operation met it: ENOMEM when memory ran out, and EINVAL when a record could not be written (a null, a tag without
//   content, a record version that its class does not know). So after some appends all of them are on the disk if it is
//   still 0. A walk that memory or the system ends leaves m_error 0. Exceptions stay inside, except where an operation
//   says so.
//
// A failed append leaves the file as it was, if the system lets it be cut back; else a part of a record may be left at
// the end, where a reader finds "EOF Error" or "Corrupt Record Header". After a failed sync nothing more is written
// until the file is opened again: no later success may hide what was lost.
//
// One thread at a time for one object; objects in different threads don't disturb each other. A child that the process
// forks may read on with what is open, and closes it without taking the parent's lock away; it must not write.
// Open and Create want a closed object and fail on an open one, which keeps its file.
#pragma once
#include <array>
#include <cerrno>
#include <concepts>
#include <cstdint>
#include <new>
#include <optional>

#include "kesp/platform/Export.h"
#include "kesp/platform/File.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespError.h"
#include "kesp/records/KespRecord.h"

namespace kesp {
class StoreReader;
struct RecordHeader;
}  // namespace kesp

class CKespPoint;

class KESP_EXPORT CKespDataFile {
 public:
  CKespDataFile();
  // Closes the file without a flush and without touching its times.
  virtual ~CKespDataFile();
  CKespDataFile(const CKespDataFile&) = delete;
  CKespDataFile& operator=(const CKespDataFile&) = delete;

  // Opens an existing file for reading and writing and checks its header. False leaves the object closed, with the
  // reason in m_error: KESP_ERROR_OPEN, _SIGNATURE, _FILE_HEADER, _EOF, or 0 when reading failed. A null path is
  // answered with false alone. Positions the file at offset 50; SeekToFirstRecord goes to the records.
  bool Open(const wchar_t* path);
  bool Open(const CString& path);
  // The same read-only: takes no lock and never writes, so that the file's bytes and times stay as they are. Every
  // write on the object then fails.
  bool OpenReadOnly(const wchar_t* path);
  bool OpenReadOnly(const CString& path);
  // Creates the file with m_version and m_headerWord, or empties the one that exists, unless somebody holds it open for
  // writing. Leaves m_error alone, also when it fails.
  bool Create(const wchar_t* path);
  bool Create(const CString& path);
  bool Close();  // true when nothing was open
  bool IsOpen() const noexcept { return m_file.IsOpen(); }

  bool Seek(unsigned long position);
  // In a file that is open read-only the walk then reads what is in the file now, whatever another process has changed
  // since the last one.
  bool SeekToFirstRecord();
  unsigned long GetLength();    // 0xFFFFFFFF on failure
  unsigned long GetPosition();  // 0xFFFFFFFF on failure

  KESP_ERROR_TYPE GetError() const noexcept { return m_error; }
  CString GetErrorString() const;
  // The system's error number (errno) of the first failure since the file was opened or created; 0 without one.
  int GetSystemError() const noexcept { return m_systemError; }
  // How many appends have returned false since the file was opened or created.
  std::uint32_t GetFailedAppends() const noexcept { return m_failedAppends; }
  // Whether the last error is one that CopyVerify can leave behind: 2, 4, 5 or 6.
  bool CanAttemptRepair() const noexcept;

  // Kept for hosts; no operation asks for it.
  void SetFlush(bool enabled) noexcept { m_flushEnabled = enabled; }
  // Everything on the disk, and the modification time set to now. A failure of the system is raised (CFileException).
  // On a file that is open for reading only there is nothing to do.
  bool Flush();
  void UpdateLastModifiedStatus() noexcept;
  // The hook by which an append would learn that the device lost power meanwhile. Always false.
  bool DidPowerEventHappen();

  // For a walk over all that follows: until the file ends, a thread of the library's own reads ahead, which takes a
  // third to a half of a long walk's time away. It ends when the file is written to, closed, or read elsewhere; no
  // signal of the host's is handled in it, and a child that the host forks goes on without it. For a caller that keeps
  // the records it makes memory ready, too. Best effort: nothing happens where less than 4 MiB are left, or without a
  // second processor.
  void ReadAhead(bool recordsAreKept = false) noexcept;
  // Whether the library may have such threads at all, here and in a data set; true at first. For the whole process.
  static void AllowReadAhead(bool allowed) noexcept;
  // Reads the 14 bytes of a record header and leaves the file at the body. All outputs are 0 where nothing was read.
  bool ReadNextRecordHeader(KESP_RECORD_TYPE& type, unsigned short& version, unsigned long& flags,
                            unsigned long& length);
  bool ReadNextRecordHeader(KESP_RECORD_TYPE& type, unsigned short& version, std::uint32_t& flags,
                            std::uint32_t& length);
  // The next record, or null at the end (m_error is then KESP_ERROR_NORMAL_EOF) and at damage. `position` becomes the
  // offset of the last record header looked at. Records of unassigned and unknown types are stepped over, and so are
  // deleted ones when they are to be skipped. The flags pass the filter of CKespRecord::SetSourceFlag.
  // Nothing finds a way past damage: the walk ends there, and the file stays where it was met.
  // Raises CFileException when a version-1 feature body is cut short.
  [[nodiscard]] CKespRecord* ReadNextRecord(unsigned long& position, bool skipDeleted);
  [[nodiscard]] CKespRecord* ReadNextRecord(std::uint32_t& position, bool skipDeleted);
  [[nodiscard]] CKespRecord* ReadNextRecord(bool skipDeleted);
  // A position without the other argument would pass for true.
  template <std::integral Number>
  requires(!std::same_as<Number, bool>) CKespRecord* ReadNextRecord(Number) = delete;

  // Whether the file ends where a record ends, so that what is appended is found: walks over the record headers, and
  // leaves the file's position as it is. False at damage, after a part of a record, where a length leads past the end,
  // and when the system fails; GetError then says what ended the walk.
  [[nodiscard]] bool EndsWhole();

  // Appends and returns true once the record is on the disk. m_filePosition of the record becomes its place, and a
  // tag's m_dataPosition 0, so that a tag taken over from another file is not taken for one of this. The source flag is
  // put into the record: 0 for a new file, 2 for an existing one. A CKespBrokenRecord is passed over with true. A
  // record whose body has no length, as one of an unknown version, is refused: no reader would get past its header.
  [[nodiscard]] bool AppendRecord(CKespRecord* record, unsigned long sourceFlag);
  // The same with the body in record version 1 or 2 and the flags as they are. The record header still gives the
  // record's own version and length: the caller sets m_recordVersion to fit, nothing is converted.
  [[nodiscard]] bool AppendRecordVersion1(CKespRecord* record, unsigned long sourceFlag);
  [[nodiscard]] bool AppendRecordVersion2(CKespRecord* record, unsigned long sourceFlag);
  // Writes over the record at the file's position, in the record version that it has there. False, and nothing
  // written, for another type, or when the version there is newer than the record's, or is 0 (a tag excepted: no other
  // body has such a version). Not flushed, and the lengths are not compared: the record must be as long as the one it
  // replaces.
  [[nodiscard]] bool OverwriteRecord(CKespRecord* record, unsigned long sourceFlag);
  // OverwriteRecord at `position` with source flag 2. A failed seek is raised.
  [[nodiscard]] bool CopyRecord(CKespRecord* record, unsigned long position);
  // Finds the record that is the same as this one, from the file's position on and then from the first record, or from
  // the first record at once, and overwrites it. The file then is at its header.
  [[nodiscard]] bool UpdateRecord(CKespRecord* record, unsigned long sourceFlag, bool continueSearch);
  // Reads the record at the file's position (not at `position`; a `position` other than 0 also passes over deleted
  // records), marks it deleted and writes it at `position`. `type` is the type it must have, or 0. Where the record
  // read is not the one at `position`, it must be as long as that one, or nothing is written. A failed read or seek is
  // raised.
  [[nodiscard]] bool DeleteRecord(unsigned long position, KESP_RECORD_TYPE type);
  template <std::integral Number>
  [[nodiscard]] bool DeleteRecord(unsigned long position, Number type) {
    return DeleteRecord(position, static_cast<KESP_RECORD_TYPE>(type));
  }

  // Copies the open file byte by byte to a file that is created, or emptied if it exists. False when the destination
  // can't be opened, is held by somebody, or is this file itself: nothing has changed then. False, and the destination
  // deleted, when reading or writing fails or no file is open.
  [[nodiscard]] bool Copy(const wchar_t* destination);
  [[nodiscard]] bool Copy(const CString& destination);
  // Rebuilds the open file in file version 1 or 2 (0 and others count as 2): writes every record that reads back and is
  // not deleted, up to the first damage. True whatever ended the walk; GetError tells what did, KESP_ERROR_NORMAL_EOF
  // when all was copied. False when the destination can't be opened, is held by somebody or is this file itself, when a
  // record can't be written (its error is in GetError, the destination stays as far as it got), and when the system
  // failed or memory ran out (GetError then is not what ended the walk, and GetSystemError has the reason).
  // The file header is copied unchanged, with the file version of the source; the records are taken to begin at offset
  // 50. In the copy of a version-2 file the record headers of features and attributes have the length of a version-2
  // body, and version-3 bodies follow: readers read bodies by their layout.
  [[nodiscard]] bool CopyVerify(const CString& destination, unsigned short kespVersion);
  // Closes this object, opens `source` in it so that nobody else may, without a look at its header, and rebuilds it.
  // The source stays open.
  [[nodiscard]] bool CopyVerify(const CString& source, const CString& destination, unsigned short kespVersion);

  CString m_path;               // of the file opened last
  std::uint16_t m_version = 1;  // file version, what Create writes
  std::uint16_t m_headerWord = 0;
  CFile m_file;
  bool m_flushEnabled = true;
  std::uint32_t m_firstRecordOffset = 0;
  KESP_ERROR_TYPE m_error = KESP_ERROR_NONE;
  std::array<CString, 13> m_errorStrings;  // by error code
  int m_systemError = 0;

 private:
  friend class CKespFile;
  friend class kesp::StoreReader;
  enum class Update { kDone, kNotFound, kFailed };

  bool OpenWith(const CString& path, unsigned openFlags);
  bool CreateWith(const CString& path, unsigned openFlags);
  bool ReadFileHeader();
  bool ReadHeader(kesp::RecordHeader& header);
  CKespPoint* TakePlainPoint();
  // ReadNextRecord with the whole position.
  CKespRecord* ReadNext(std::uint64_t& position, bool skipDeleted);
  [[gnu::noinline]] CKespRecord* ReadAnyRecord(std::uint64_t& position, bool skipDeleted);
  bool Rebuild(const CString& destination, unsigned short kespVersion);
  bool Append(CKespRecord* record, unsigned long sourceFlag, unsigned short bodyVersion);
  bool AppendWhole(CKespRecord& record, unsigned long sourceFlag, unsigned short bodyVersion);
  bool WriteWhole(CKespRecord& record, unsigned long sourceFlag, unsigned short bodyVersion, bool& begun);
  bool WriteBody(CKespRecord& record, unsigned long sourceFlag, unsigned short bodyVersion);
  bool Overwrite(CKespRecord& record, unsigned long sourceFlag);
  bool WalkOverHeaders();
  bool IsAsLongAsHere(CKespRecord& record);
  // Looks from the file's position on, and then, if that is wanted, from the first record.
  Update FindAndOverwrite(CKespRecord& record, unsigned long sourceFlag, bool continueSearch);
  void ReopenAfterPowerEvent();
  void TakeBackTornRecord();
  void NoteFailure(const CFileException& failure) noexcept { NoteError(failure.m_lOsError); }
  void NoteError(int osError) noexcept;
  void ForgetFailures() noexcept;
  // What the operation returns; false, with the reason noted, when it raises a file error or runs out of memory.
  template <class Operation>
  bool Guarded(Operation operation) {
    try {
      return operation();
    } catch (const CFileException& e) {
      NoteFailure(e);
    } catch (const std::bad_alloc&) {
      NoteError(ENOMEM);
    }
    return false;
  }

  std::uint32_t m_failedAppends = 0;
  std::uint32_t m_failures = 0;   // of the system, of memory and of records to be written, so far
  bool m_ranOutOfMemory = false;  // in the last ReadNextRecord
  // Where half a record begins that a failed append could not take back. The next append tries again first, so that
  // it does not put its record where no reader gets to.
  std::optional<std::uint64_t> m_tornFrom;
};
