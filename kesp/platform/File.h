// The binary file that the library reads and writes its data through.
//
//   CFile file(L"survey.kesp", CFile::modeReadWrite | CFile::shareDenyWrite);
//   file.Seek(50, CFile::begin);
//   std::uint32_t type = 0;
//   if (file.Read(&type, sizeof type) != sizeof type) ...  // the end of the file
//
// Positions and lengths are 64-bit byte counts. Reads go through a buffer of up to 1 MiB; the amount read at once grows
// while reading is sequential. Writes go to the system at once (but see Gather) and update the buffer, so an object
// reads what it wrote. A read at the end of the file asks the system again each time, so it finds what another process
// has appended.
//
// Sharing uses an advisory lock (flock) on the whole file. Opening takes it, before anything is truncated; Close or the
// end of the process releases it. A forked child does not share it: if the child closes the file, the parent's lock
// remains; if the parent closes it, the lock is released although the child still has the descriptor. On a file system
// without such locks (ENOLCK, EOPNOTSUPP) the file is opened without one. An object that only reads takes no lock by
// default and blocks nobody, with one exception: a file that an object of this process has open read-only can't be
// emptied. One thread at a time may use an object.
//
// Under Windows the system itself keeps others, of whatever program, from what is denied, from the opening on:
// shareDenyWrite lets others read, but not write, delete or rename the file; two that only read may both deny writing.
// shareExclusive keeps readers out too, and fails while somebody reads. Nothing is denied without these flags; a reader
// then shares the file with everybody, unless that one wants it alone.
//
// Opened from a ByteSource, the object reads what the host gives it: read-only, with the length that the source had
// when it was opened, and with the same buffer.
//
// Errors: CFileException; CMemoryException or another std::bad_alloc when there is no memory for a buffer; an operation
// that differs says so. After a failed write the position is where that write began, though part of it may be in the
// file. After a failed read it is somewhere between where the read began and where it failed.
// A failed sync is final. A later sync can't bring back what the system lost, so every later write and Flush raises
// hardIO until the file is opened again. One case is tried again: a directory that could not be opened.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kesp/platform/Exception.h"
#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

namespace kesp {
class AlignedBytes;
class OpenReader;
class BlockReader;
class ByteSource;
class Task;

// Identifies a file on this machine, whatever name it is opened by, as long as it exists; or, within this process, a
// source that was opened.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t fileNumber = 0;
  friend bool operator==(const FileIdentity&, const FileIdentity&) noexcept = default;
};
}  // namespace kesp

class KESP_EXPORT CFile {
 public:
  enum OpenFlags : unsigned {
    modeRead = 0x0000,
    modeWrite = 0x0001,
    modeReadWrite = 0x0002,
    shareExclusive = 0x0010,  // both take the lock exclusively: no other object can lock the file, so
    shareDenyWrite = 0x0020,  // no other can write to it; readers that take no lock go on reading
    shareDenyNone = 0x0040,   // others may write too; opening to write fails while another object denies it
    modeCreate = 0x1000,      // creates the file, or empties an existing one, after the lock is taken
    modeNew = 0x2000,         // creates the file; fails with EEXIST if the name exists
  };
  enum SeekPosition { begin = 0, current = 1, end = 2 };

  CFile() noexcept;
  // Opens the file, and raises CFileException where Open would return false.
  CFile(const CString& path, unsigned openFlags);
  // Closes without a flush, as Abort does; an error from closing is lost.
  virtual ~CFile();
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;

  // Returns false when the file can't be opened, is not a regular file, or is locked by another object in a way that
  // conflicts. `error` then receives the reason (ENOMEM when memory ran out). An object that is already open is closed
  // first. Raises nothing.
  bool Open(const CString& path, unsigned openFlags, CFileException* error = nullptr);
  // Opens a source read-only (see kesp/platform/ByteSource.h). `name` is what GetFilePath and messages say; it need not
  // be a path. The object owns the source from now on, also when this returns false: for a null, and when the source
  // can't tell its length.
  bool Open(std::unique_ptr<kesp::ByteSource> source, const CString& name, CFileException* error = nullptr);
  bool IsOpen() const noexcept { return m_fd >= 0 || m_source != nullptr; }
  bool ReadsSource() const noexcept { return m_source != nullptr; }
  bool IsWritable() const noexcept { return m_writable; }
  // Closes the file; does nothing on a closed object. The object is closed even when this raises.
  void Close();
  // Closes without raising; writes that are still gathered are dropped.
  void Abort() noexcept;

  // Reads up to `count` bytes and returns how many were read; fewer than `count` only at the end of the file.
  std::size_t Read(void* to, std::size_t count);
  // Reads without copying: returns a view of the read buffer, shorter than `count` only at the end of the file. The
  // view is valid until the next operation on this object. `count` is at most kMaxView; a larger one may raise
  // CInvalidArgException.
  static constexpr std::size_t kMaxView = 64 * 1024;
  std::span<const std::byte> ReadView(std::size_t count) {
    const std::uint64_t offset = m_position - m_bufferStart;  // huge if the position is before the buffer
    if (offset <= m_bufferSize && count <= m_bufferSize - offset && m_gathered.empty()) {
      const std::byte* const bytes = m_data + offset;
      m_position += count;
      return {bytes, count};
    }
    return ReadViewSlow(count);
  }
  // Starts a thread that reads ahead from the current position. It ends at the end of the file, with a write, or when
  // reading continues far from there. Best effort, for a caller about to read many megabytes in a row: without a second
  // processor, memory or a thread, nothing happens. `objectsAreKept`: the caller keeps the objects that it makes from
  // the bytes, so the thread prepares memory for them too. A source is never read ahead.
  void StartBlockReader(bool objectsAreKept = false) noexcept;
  void EndBlockReader() noexcept;  // does nothing when it has ended
  // Offers work to that thread (see kesp/platform/Task.h); false if there is none. EndBlockReader must be called before
  // the task is destroyed.
  bool OfferWork(kesp::Task& task) noexcept;
  // Peeks: returns the next `count` bytes if the buffer already holds them, else null. The position does not move; Skip
  // moves it.
  const std::byte* Buffered(std::size_t count) const noexcept {
    const std::uint64_t offset = m_position - m_bufferStart;
    const bool there = offset <= m_bufferSize && count <= m_bufferSize - offset && m_gathered.empty();
    return there ? m_data + offset : nullptr;
  }
  // All bytes from the position on that the buffer holds; may be none.
  std::span<const std::byte> Buffered() const noexcept {
    const std::uint64_t offset = m_position - m_bufferStart;
    if (offset >= m_bufferSize || !m_gathered.empty()) return {};
    return {m_data + offset, m_bufferSize - static_cast<std::size_t>(offset)};
  }
  void Skip(std::uint64_t count) noexcept { m_position += count; }
  // Drops the buffer of a file that is open read-only, since another process may have written to it; the next read goes
  // to the system. Does nothing on a file that is open for writing, and on a source.
  void ReadAgain();
  // Writes all `count` bytes or raises. A write after the end leaves a gap that reads as zeros.
  void Write(const void* from, std::size_t count);

  // Returns the new position, which may be after the end of the file. Raises badSeek for one before the start.
  std::uint64_t Seek(std::int64_t offset, SeekPosition from);
  void SeekToBegin() { Seek(0, begin); }
  std::uint64_t SeekToEnd() { return Seek(0, end); }
  std::uint64_t GetPosition() const {
    if (!IsOpen()) RequireOpen();
    return m_position;
  }
  std::uint64_t GetLength();
  void SetLength(std::uint64_t length);
  // Whether the file is at least `position` bytes long. Asks the system only when the last known length is less, so it
  // is cheap enough to call for every record.
  bool ReachesTo(std::uint64_t position);
  // The last known length in bytes; does not ask the system.
  std::uint64_t KnownLength() const noexcept { return m_length; }
  const CString& GetFilePath() const noexcept { return m_path; }
  kesp::FileIdentity Identity() const noexcept { return m_identity; }  // zeros on a closed object

  // The least offset at which this object has written or truncated the file since it was opened or SetChangedFrom was
  // called: what is before it is as it was then. 0 after opening.
  static constexpr std::uint64_t kUnchanged = ~std::uint64_t{0};
  std::uint64_t ChangedFrom() const noexcept { return m_changedFrom; }
  void SetChangedFrom(std::uint64_t offset) noexcept { m_changedFrom = offset; }

  // Returns once the data, the length and a new file's directory entry are on the disk. Does nothing on a file that is
  // open read-only.
  void Flush();
  // Sets the modification time to now; a failure is ignored.
  void TouchModified() noexcept;
  // Whether `path` leads to the file that is open here, by whatever name or link. Also true when the system can't tell,
  // because callers ask before they empty the file at `path`. False on a closed object and for a source.
  bool IsSameFile(const CString& path) const;
  // Copies all of the source from its position on to this file's position, and leaves the source at its end. The system
  // copies where it can; otherwise the bytes are read and written, up to `blockSize` bytes at a time.
  void CopyFrom(CFile& source, std::size_t blockSize);
  // The errno value of the last failure since the file was opened or ForgetSystemError was called; 0 if there was none.
  // It is kept even when a record caught the exception.
  int LastSystemError() const noexcept { return m_lastSystemError; }
  // For a record that catches an exception: notes that memory ran out (ENOMEM).
  void NoteOutOfMemory() noexcept;
  void ForgetSystemError() noexcept { m_lastSystemError = 0; }
  static void Remove(const CString& path);

  // Collects the writes made during its lifetime; Commit sends them to the system as one write. Reading, seeking,
  // GetLength, SetLength, Flush, CopyFrom and Close commit first. Destroyed without a commit, it drops what it holds
  // and moves the position back to where the writes began.
  class KESP_EXPORT Gather {
   public:
    explicit Gather(CFile& file);
    ~Gather();
    Gather(const Gather&) = delete;
    Gather& operator=(const Gather&) = delete;
    void Commit();

   private:
    CFile& m_file;
  };

 private:
  static constexpr std::size_t kBufferSize = 1024 * 1024;
  static constexpr std::size_t kFirstRead = 4 * 1024;  // a new place's first read; doubled in sequence

  bool TryOpen(const CString& path, unsigned openFlags, CFileException* error);
  bool TryOpen(std::unique_ptr<kesp::ByteSource> source, const CString& name);
  bool AcquireLock(unsigned openFlags);
  int CloseDescriptor() noexcept;
  [[noreturn]] void Raise(int osError);
  void RequireOpen() const;
  void CommitGathered();
  void WriteOut(const std::byte* from, std::size_t count, std::uint64_t position);
  std::size_t ReadSystem(std::byte* to, std::size_t least, std::size_t most, std::uint64_t position);
  std::size_t ReadSource(std::byte* to, std::size_t least, std::size_t most, std::uint64_t position);
  std::span<const std::byte> ReadViewSlow(std::size_t count);
  bool MakeBuffer() noexcept;
  std::byte* PlaceInBuffer(std::uint64_t position) const noexcept;
  void FillBuffer(std::size_t count);
  bool FillFromBlockReader(std::size_t count);
  void UpdateBuffer(const std::byte* from, std::size_t count, std::uint64_t position) noexcept;
  void SyncDirectory();
  void Reset() noexcept;

  int m_fd = -1;  // also when a source is open
  std::unique_ptr<kesp::ByteSource> m_source;
  pid_t m_lockedBy = 0;  // the process that took the lock; 0 if there is none
  bool m_writable = false;
  bool m_gathering = false;
  bool m_syncFailed = false;
  int m_lastSystemError = 0;
  std::unique_ptr<kesp::OpenReader> m_reader;  // only for a file that is open read-only
  kesp::FileIdentity m_identity;
  bool m_directoryUnsynced = false;  // the file may be new, and its directory has not been synced
  CString m_path;
  std::uint64_t m_position = 0;
  std::uint64_t m_length = 0;                    // the last known length
  std::unique_ptr<kesp::AlignedBytes> m_buffer;  // null until something is read or written
  std::unique_ptr<kesp::BlockReader> m_blockReader;
  std::byte* m_data = nullptr;      // into the buffer, or into the last block read ahead
  std::uint64_t m_bufferStart = 0;  // file offset of the first byte at m_data
  std::size_t m_bufferSize = 0;     // bytes at m_data
  std::size_t m_nextRead = kFirstRead;
  std::uint64_t m_changedFrom = 0;
  std::vector<std::byte> m_gathered;
  std::uint64_t m_gatherStart = 0;
};
