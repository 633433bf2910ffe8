// The record container: one object owns one open Kesp data file, walks its records and writes records to it.
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
//   48 + header length: the records, each with
//     0   4  record type         6   4  flags (KESP_FLAG)
//     4   2  record version     10   4  body length, at least 1
//     14     body
//
// Records never move. A deletion rewrites a flag in place; an append is on the disk when it returns true. Positions and
// lengths are returned as the low 32 bits of 64-bit values.
//
// Sharing: while a file is open for writing, other processes and objects may read it but not write it.
//
// Ownership: the caller owns and deletes the records it reads, and keeps the records it writes.
//
// Errors: the operations return false, null or 0xFFFFFFFF. Those that read reset m_error and leave the reason there;
//   those that write don't touch it. GetSystemError has the system's error, whichever operation met it: ENOMEM when
//   memory ran out, and EINVAL when a record could not be written (a null, a tag without content, a record version that
//   its class does not know). If it is still 0 after some appends, all of them are on the disk. A walk ended by the
//   system or for lack of memory leaves m_error 0. No exception leaves an operation unless its comment says so.
//
// A failed append leaves the file as it was if the system can truncate it. Otherwise part of a record may remain at the
// end, where a reader finds "EOF Error" or "Corrupt Record Header". After a failed sync nothing more is written until
// the file is opened again: a later success must not hide the loss.
//
// One thread at a time may use an object; different objects may be used in different threads. A forked child may go on
// reading an open file, and closing it there does not release the parent's lock; the child must not write. Open and
// Create need a closed object; they fail on an open one, which keeps its file.
#pragma once
#include <array>
#include <cerrno>
#include <concepts>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>

#include "kesp/platform/Export.h"
#include "kesp/platform/File.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespError.h"
#include "kesp/records/KespRecord.h"

namespace kesp {
class ByteSource;
class ColumnReader;
class RecordPlaces;
class PointRun;
class RecordView;
class StoreReader;
struct RecordHeader;
}  // namespace kesp

class CKespPoint;

class KESP_EXPORT CKespDataFile {
 public:
  CKespDataFile();
  // Closes the file; does not flush it or touch its times.
  virtual ~CKespDataFile();
  CKespDataFile(const CKespDataFile&) = delete;
  CKespDataFile& operator=(const CKespDataFile&) = delete;

  // Opens an existing file for reading and writing and checks its header. False leaves the object closed, with the
  // reason in m_error: KESP_ERROR_OPEN, _SIGNATURE, _FILE_HEADER, _EOF, or 0 when reading failed. A null path only
  // returns false. Leaves the file at offset 50; SeekToFirstRecord goes to the records.
  bool Open(const wchar_t* path);
  bool Open(const CString& path);
  // The same, read-only: takes no lock and never writes, so the file's bytes and times stay as they are. Writes on the
  // object then fail.
  bool OpenReadOnly(const wchar_t* path);
  bool OpenReadOnly(const CString& path);
  // The same with bytes that the host reads (see kesp/platform/ByteSource.h). m_path and messages then have `name`. The
  // object owns the source from now on, also when this returns false; a null only returns false. The system's error is
  // the one that the source throws. The source is taken to have the same bytes until it is closed, so SeekToFirstRecord
  // does not read them again.
  bool OpenReadOnly(std::unique_ptr<kesp::ByteSource> source, const CString& name);
  // Creates the file with m_version and m_headerWord, or empties an existing one unless it is open for writing
  // elsewhere. Never sets m_error.
  bool Create(const wchar_t* path);
  bool Create(const CString& path);
  bool Close();  // true when nothing was open
  bool IsOpen() const noexcept { return m_file.IsOpen(); }

  bool Seek(unsigned long position);
  // A walk over a file open read-only then sees its current content, including what another process has changed since.
  bool SeekToFirstRecord();
  unsigned long GetLength();    // 0xFFFFFFFF on failure
  unsigned long GetPosition();  // 0xFFFFFFFF on failure

  KESP_ERROR_TYPE GetError() const noexcept { return m_error; }
  CString GetErrorString() const;
  // The system's error number (errno) of the first failure since the file was opened or created; 0 without one.
  int GetSystemError() const noexcept { return m_systemError; }
  // The number of appends that returned false since the file was opened or created.
  std::uint32_t GetFailedAppends() const noexcept { return m_failedAppends; }
  // Whether the last error is damage that CopyVerify can leave out: 2, 4, 5 or 6.
  bool CanAttemptRepair() const noexcept;

  // Kept for hosts; no operation uses it.
  void SetFlush(bool enabled) noexcept { m_flushEnabled = enabled; }
  // Syncs the file to the disk and sets its modification time to now. Throws CFileException when the system fails. Does
  // nothing to a file that is open read-only.
  bool Flush();
  void UpdateLastModifiedStatus() noexcept;
  // Tells an append that the device lost power in the meantime. Always false.
  bool DidPowerEventHappen();

  // For a walk over the rest of the file: a thread of the library reads ahead to the end, which saves a third to a half
  // of a long walk's time. It ends when the file is written, closed, or read elsewhere; it handles no signals of the
  // host, and a forked child goes on without it. With `recordsAreKept` it prepares memory for the records too. Best
  // effort: nothing happens when less than 4 MiB are left, there is no second processor or the file is a source.
  void ReadAhead(bool recordsAreKept = false) noexcept;
  // Whether the library may start such threads, here and in data sets. For the whole process; true by default.
  static void AllowReadAhead(bool allowed) noexcept;
  // Reads the 14 bytes of a record header and leaves the file at the body. All outputs are 0 when nothing was read.
  bool ReadNextRecordHeader(KESP_RECORD_TYPE& type, unsigned short& version, unsigned long& flags,
                            unsigned long& length);
  bool ReadNextRecordHeader(KESP_RECORD_TYPE& type, unsigned short& version, std::uint32_t& flags,
                            std::uint32_t& length);
  // The next record, or null at the end (m_error is then KESP_ERROR_NORMAL_EOF) and at damage. `position` becomes the
  // offset of the last record header read. Skips records of unassigned and unknown types, and deleted ones if asked.
  // The flags pass the filter of CKespRecord::SetSourceFlag. The walk never goes past damage: it ends there and leaves
  // the file there. Throws CFileException when a version-1 feature body is cut short.
  [[nodiscard]] CKespRecord* ReadNextRecord(unsigned long& position, bool skipDeleted);
  [[nodiscard]] CKespRecord* ReadNextRecord(std::uint32_t& position, bool skipDeleted);
  [[nodiscard]] CKespRecord* ReadNextRecord(bool skipDeleted);
  // The same walk without objects: the next record as a view of the read buffer (see kesp/format/RecordView.h), valid
  // until the next operation. Returns the same records in the same order, and ends where ReadNextRecord ends with the
  // same m_error; false where that returns null. `view` is then unchanged, but for its position. Throws where that
  // does. The part of a long tag's block that a view does not hold is passed over unread: what fails only in reading it
  // does not end this walk.
  [[nodiscard]] bool ReadNextView(kesp::RecordView& view, bool skipDeleted);
  // The same, but stops at each record that ReadNextView skips too, and returns what its header says: IsSkipped() of
  // the view is true then, and it has no body.
  [[nodiscard]] bool ReadNextStep(kesp::RecordView& view, bool skipDeleted);
  // What the next calls of ReadNextView would return, as far as it is in the read buffer and a run of points. An empty
  // run says nothing of what comes next. Views that were returned before stay valid.
  [[nodiscard]] kesp::PointRun ReadPointRun();
  // A lone position would convert to true.
  template <std::integral Number>
  requires(!std::same_as<Number, bool>) CKespRecord* ReadNextRecord(Number) = delete;

  // From now on the file counts as no longer than that: a body that goes past it is an error, as past the end. Of a
  // file longer than 4 GiB, whose positions wrap, the first part can be read so. Until the file is opened again.
  void LimitLength(std::uint64_t length) noexcept { m_lengthLimit = length; }
  std::uint64_t LengthLimit() const noexcept { return m_lengthLimit; }

  // Whether the file ends where a record ends, so that an appended record can be read. Walks over the record headers
  // and keeps the file's position. False at damage, at a partial record, for a length that goes past the end, and when
  // the system fails; GetError then says what ended the walk.
  [[nodiscard]] bool EndsWhole();

  // Appends the record and returns true once it is on the disk. Sets the record's m_filePosition, and a tag's
  // m_dataPosition to 0, so that a tag read from another file does not count as one of this file. Sets the record's
  // source flag: 0 for a new file, 2 for an existing one. Skips a CKespBrokenRecord and returns true. Refuses a record
  // whose body has no length, such as one of an unknown version: no reader would get past its header.
  [[nodiscard]] bool AppendRecord(CKespRecord* record, unsigned long sourceFlag);
  // Appends `count` records as AppendRecord does, but with one sync after the last. Returns true once all are on the
  // disk. Returns false when one can't be written; the file then is as long as before. 10,000 points take about a
  // thousandth of the time of 10,000 single appends. The caller keeps the array and the records.
  [[nodiscard]] bool AppendRecords(CKespRecord* const* records, std::size_t count, unsigned long sourceFlag);
  // AppendRecord with the body in record version 1 or 2 and the flags unchanged. The record header still gives the
  // record's own version and length: the caller sets m_recordVersion to match; nothing is converted.
  [[nodiscard]] bool AppendRecordVersion1(CKespRecord* record, unsigned long sourceFlag);
  [[nodiscard]] bool AppendRecordVersion2(CKespRecord* record, unsigned long sourceFlag);
  // Overwrites the record at the file's position, in the record version found there. Returns false and writes nothing
  // when the type differs, or when the version there is newer than the record's or is 0 (except for a tag: no other
  // body has version 0). Does not flush or compare lengths: the record must be as long as the one it replaces.
  [[nodiscard]] bool OverwriteRecord(CKespRecord* record, unsigned long sourceFlag);
  // Changes the record at before.m_filePosition: writes the fields in which `after` differs from `before`, each of them
  // whole (a text with its zeros), and the flags if they differ. All other bytes stay, also those that a reader
  // ignores. Both must have the record version that is in the file. Uses one write, and does not sync.
  //
  //   CKespNote changed(note);  // read from this file
  //   changed.NoteText = u"rain";
  //   if (file.AmendRecord(note, changed)) file.Flush();
  //
  // Returns false and writes nothing when the record there has another type or version, and when a value can't be
  // stored as it is; GetSystemError then is EINVAL: the version has no such field, a text is too long or has a zero or,
  // in version 1, a character above U+00FF, a number is too wide or not allowed, a tag's block has another length.
  // Leaves the file at the record's header.
  [[nodiscard]] bool AmendRecord(const CKespRecord& before, const CKespRecord& after);
  // Whether AmendRecord can store all values that differ. For callers that change several records or none. Does not use
  // a file. Throws std::bad_alloc.
  static bool CanAmend(const CKespRecord& before, const CKespRecord& after);
  // OverwriteRecord at `position` with source flag 2. Throws when the seek fails.
  [[nodiscard]] bool CopyRecord(CKespRecord* record, unsigned long position);
  // Finds the same record and overwrites it. Searches from the first record; with `continueSearch` from the file's
  // position, then from the first record. Leaves the file at the record's header. The search is a walk over the file;
  // after Seek(record->m_filePosition), with `continueSearch`, it usually ends with the first record.
  [[nodiscard]] bool UpdateRecord(CKespRecord* record, unsigned long sourceFlag, bool continueSearch);
  // Reads the record at the file's position (not at `position`; a `position` other than 0 also skips deleted records),
  // marks it deleted and writes it at `position`. `type` is the type it must have, or 0. If the record read is not the
  // one at `position`, it must be as long as that one, or nothing is written. Throws when a read or seek fails.
  [[nodiscard]] bool DeleteRecord(unsigned long position, KESP_RECORD_TYPE type);
  template <std::integral Number>
  [[nodiscard]] bool DeleteRecord(unsigned long position, Number type) {
    return DeleteRecord(position, static_cast<KESP_RECORD_TYPE>(type));
  }

  // Copies the open file byte by byte; creates the destination or empties an existing one. False when the destination
  // can't be opened, is in use, or is this file itself: nothing has changed then. False, and the destination deleted,
  // when reading or writing fails or no file is open.
  [[nodiscard]] bool Copy(const wchar_t* destination);
  [[nodiscard]] bool Copy(const CString& destination);
  // Rebuilds the open file in file version 1 or 2 (0 and others count as 2): writes every record that can be read and
  // is not deleted, up to the first damage. Returns true whatever ended the walk; GetError says what did,
  // KESP_ERROR_NORMAL_EOF when all was copied. False when the destination can't be opened, is in use or is this file
  // itself, when a record can't be written (GetError has its error; the destination keeps what was written), and when
  // the system failed or memory ran out (GetSystemError has the reason; GetError then is not what ended the walk).
  // Copies the first 50 bytes unchanged, with the source's file version and header length; the records follow at offset
  // 50. In a version-2 copy the record headers of features and attributes have the length of a version-2 body, but
  // version-3 bodies follow: readers read bodies by their layout.
  [[nodiscard]] bool CopyVerify(const CString& destination, unsigned short kespVersion);
  // Closes this object, opens `source` in it exclusively without checking its header, and rebuilds it. The source stays
  // open.
  [[nodiscard]] bool CopyVerify(const CString& source, const CString& destination, unsigned short kespVersion);

  CString m_path;               // of the last file opened
  std::uint16_t m_version = 1;  // file version; Create writes it
  std::uint16_t m_headerWord = 0;
  CFile m_file;
  bool m_flushEnabled = true;
  std::uint32_t m_firstRecordOffset = 0;
  KESP_ERROR_TYPE m_error = KESP_ERROR_NONE;
  std::array<CString, 13> m_errorStrings;  // by error code
  int m_systemError = 0;

 private:
  friend class CKespFile;
  friend class kesp::ColumnReader;
  friend class kesp::StoreReader;
  enum class Update { kDone, kNotFound, kFailed };
  class PendingAppend;
  static constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};

  bool OpenWith(const CString& path, unsigned openFlags);
  template <class OpenFile>
  bool OpenAs(const CString& path, OpenFile open);
  bool CreateWith(const CString& path, unsigned openFlags);
  bool ReadFileHeader();
  bool ReadHeader(kesp::RecordHeader& header);
  CKespPoint* ReadPlainPoint();
  // ReadNextRecord with a 64-bit position.
  CKespRecord* ReadNext(std::uint64_t& position, bool skipDeleted);
  [[gnu::noinline]] CKespRecord* ReadAnyRecord(std::uint64_t& position, bool skipDeleted);
  enum class Step { kRecord, kSkipped, kEnd };
  Step StepToBody(std::uint64_t& position, kesp::RecordHeader& header, bool skipDeleted);
  std::span<const std::byte> ViewPlainPoints(std::size_t most);
  enum class Skipped { kLeftOut, kReturned };
  bool ViewNext(kesp::RecordView& view, bool skipDeleted, Skipped skipped);
  bool ViewBuffered(kesp::RecordView& view);
  bool ViewBuffered(kesp::RecordView& view, std::span<const std::byte> bytes, std::size_t length);
  [[gnu::noinline]] bool ViewAnyRecord(kesp::RecordView& view, bool skipDeleted, Skipped skipped);
  bool ViewBodyOf(kesp::RecordView& view);
  bool ViewBlockOf(kesp::RecordView& view);
  CKespRecord* ReadBodyOf(std::unique_ptr<CKespRecord> record);
  bool Rebuild(const CString& destination, unsigned short kespVersion);
  using Records = std::span<CKespRecord* const>;
  bool Append(Records records, unsigned long sourceFlag, unsigned short bodyVersion);
  bool AppendWhole(Records records, unsigned long sourceFlag, unsigned short bodyVersion);
  static bool Prepare(Records records, unsigned long sourceFlag, unsigned short bodyVersion);
  bool WriteWhole(Records records, unsigned long sourceFlag, unsigned short bodyVersion, bool& begun);
  bool WriteBody(CKespRecord& record, unsigned long sourceFlag, unsigned short bodyVersion);
  bool Overwrite(CKespRecord& record, unsigned long sourceFlag);
  bool Amend(const CKespRecord& before, const CKespRecord& after);
  bool WalkOverHeaders();
  bool IsAsLongAsHere(CKespRecord& record);
  // Searches from the first record; with `continueSearch` from the file's position, then from the first record.
  Update FindAndOverwrite(CKespRecord& record, unsigned long sourceFlag, bool continueSearch);
  using ReadMember = CKespRecord* (CKespDataFile::*)(std::uint64_t& position, bool skipDeleted);
  Update WalkAndOverwrite(CKespRecord& record, unsigned long sourceFlag, ReadMember read);
  CKespRecord* ReadNextOrEnd(std::uint64_t& position, bool skipDeleted);
  Update OverwriteAt(std::uint64_t position, CKespRecord& record, unsigned long sourceFlag);
  Update FindFromItsPlaceAndOverwrite(CKespRecord& record, unsigned long sourceFlag);
  Update FindByIndexAndOverwrite(CKespRecord& record, unsigned long sourceFlag, std::uint64_t from);
  bool IndexRecords();
  void AddPlacesOfNewRecords();
  void ReopenAfterPowerEvent();
  void CutBackTornRecord();
  void NoteFailure(const CFileException& failure) noexcept { NoteError(failure.m_lOsError); }
  void NoteError(int osError) noexcept;
  void ForgetFailures() noexcept;
  // Returns what the operation returns; false, with the reason noted, when it throws a file error or runs out of
  // memory.
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

  // In 32 bits, as positions are kept.
  std::uint32_t LimitedLength(std::uint64_t length) const noexcept {
    return static_cast<std::uint32_t>(length < m_lengthLimit ? length : m_lengthLimit);
  }

  std::unique_ptr<kesp::RecordPlaces> m_places;  // null until a record to delete is not at its place
  std::uint64_t m_lengthLimit = kNoLimit;
  std::uint32_t m_failedAppends = 0;
  std::uint32_t m_failures = 0;   // failures of the system, of memory and of records to be written
  bool m_ranOutOfMemory = false;  // in the last ReadNextRecord
  // Start of a partial record that a failed append could not truncate. The next append first tries again: a record
  // appended after a partial one is unreachable.
  std::optional<std::uint64_t> m_tornFrom;
};
