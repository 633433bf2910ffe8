// The binary file through which everything is read and written.
//
//   CFile file(L"survey.kesp", CFile::modeReadWrite | CFile::shareDenyWrite);
//   file.Seek(50, CFile::begin);
//   std::uint32_t type = 0;
//   if (file.Read(&type, sizeof type) != sizeof type) ...  // the end of the file
//
// Positions and lengths are 64-bit byte counts. Reading goes through a buffer of up to 1 MiB that grows with
// sequential reading; writing goes to the system at once (see Gather) and the buffer follows it, so what was written
// through this object is what it reads. A read at the end of the file asks the system again each time: what another
// process appended meanwhile is found.
//
// Sharing is kept by an advisory lock on the whole file, taken when it is opened and before anything is truncated; it
// ends with Close or with the process. A child that the process forks has no part in it: what the child closes stays
// locked, and what the parent closes is free although the child still has the descriptor. A file system that has no
// such locks (ENOLCK, EOPNOTSUPP) is used without. Plain readers are never in the way, but for one thing: a file that
// an object of this process reads is not emptied. An object is used by one thread at a time.
//
// Errors: CFileException, and CMemoryException or another std::bad_alloc without the memory for a buffer, except where
// an operation says otherwise. The position then is where the failure came.
// A failed sync is final: what the system lost at that moment a later Flush can't bring back, so every later Write and
// Flush raises hardIO until the file is opened anew. Only a directory that could not be opened is tried again.
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

// Tells a file from every other of the machine, by whatever name it is opened, as long as it exists.
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
    shareExclusive = 0x0010,  // both take the lock for this object alone: nobody else may deny or write, while
    shareDenyWrite = 0x0020,  // readers that ask for no lock go on reading
    shareDenyNone = 0x0040,   // no restriction; to write still fails while somebody else denies it
    modeCreate = 0x1000,      // creates the file; one that exists is emptied, once the lock is held
    modeNew = 0x2000,         // creates the file; fails with EEXIST when something has its name
  };
  enum SeekPosition { begin = 0, current = 1, end = 2 };

  CFile() noexcept;
  // Opens; raises CFileException when Open would answer false.
  CFile(const CString& path, unsigned openFlags);
  // Closes without a flush; what closing reports is lost.
  virtual ~CFile();
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;

  // False when the file can't be opened, is not a regular file, or is held by somebody who denies it; `error` then
  // receives the reason (ENOMEM without memory). An object that is open already is closed first. Raises nothing.
  bool Open(const CString& path, unsigned openFlags, CFileException* error = nullptr);
  bool IsOpen() const noexcept { return m_fd >= 0; }
  bool IsWritable() const noexcept { return m_writable; }
  // Closes; nothing on a closed object. The object is closed even when this raises.
  void Close();
  // Close without raising.
  void Abort() noexcept;

  // Reads up to `count` bytes and answers how many there were; fewer only at the end of the file.
  std::size_t Read(void* to, std::size_t count);
  // The same without copying: the bytes stay in the read buffer and are valid until the next operation of this
  // object. `count` is at most kMaxView.
  static constexpr std::size_t kMaxView = 64 * 1024;
  std::span<const std::byte> ReadView(std::size_t count) {
    const std::uint64_t offset = m_position - m_bufferStart;  // huge when the position is before the buffer
    if (offset <= m_bufferSize && count <= m_bufferSize - offset && m_gathered.empty()) {
      const std::byte* const bytes = m_data + offset;
      m_position += count;
      return {bytes, count};
    }
    return ReadViewSlow(count);
  }
  // Has another thread read ahead from here on, until the file ends or is written to, or reading goes on far from where
  // it was. A wish, for those who are about to read many megabytes in a row; without the means for it nothing happens.
  // Where what is made of the bytes will be kept, memory is made ready for it too.
  void StartBlockReader(bool objectsAreKept = false) noexcept;
  void EndBlockReader() noexcept;  // nothing when it has ended
  // The same for those who are done with less: the next `count` bytes where they stand in the buffer already, without
  // taking them, or null. Skip takes them then.
  const std::byte* Buffered(std::size_t count) const noexcept {
    const std::uint64_t offset = m_position - m_bufferStart;
    const bool there = offset <= m_bufferSize && count <= m_bufferSize - offset && m_gathered.empty();
    return there ? m_data + offset : nullptr;
  }
  void Skip(std::size_t count) noexcept { m_position += count; }
  // On a file that is open for reading: what was read before is read again, since somebody else may have written to
  // the file. One that is open for writing is nobody else's to write.
  void ReadAgain();
  // Writes all of it or raises. Past the end, the gap reads as zeros.
  void Write(const void* from, std::size_t count);

  // Answers the new position. It may lie behind the end of the file.
  std::uint64_t Seek(std::int64_t offset, SeekPosition from);
  void SeekToBegin() { Seek(0, begin); }
  std::uint64_t SeekToEnd() { return Seek(0, end); }
  std::uint64_t GetPosition() const {
    if (m_fd < 0) RequireOpen();
    return m_position;
  }
  std::uint64_t GetLength();
  void SetLength(std::uint64_t length);
  // Whether the file reaches at least to `position`. Asks the system only when the length last seen is below that,
  // which makes it cheap enough to be asked for every record.
  bool ReachesTo(std::uint64_t position);
  // The length as last seen, without asking the system.
  std::uint64_t KnownLength() const noexcept { return m_length; }
  const CString& GetFilePath() const noexcept { return m_path; }
  kesp::FileIdentity Identity() const noexcept { return m_identity; }  // zeros on a closed object

  // On the disk, with all that is needed to find it again: returns when the device has it. Nothing on a file that is
  // open for reading.
  void Flush();
  // The modification time becomes now; a failure is ignored.
  void TouchModified() noexcept;
  // Whether the path leads to the very file that is open, by whatever name or link. Also when the system can't say,
  // since those who ask are about to empty what is there. False on a closed object.
  bool IsSameFile(const CString& path) const;
  // Writes all that the source holds from its position on, and leaves the source at its end. The system moves the bytes
  // where it can; else they are read and written, `blockSize` at a time at the most.
  void CopyFrom(CFile& source, std::size_t blockSize);
  // The system's error number of the last failure since the file was opened or failures were forgotten, also where a
  // record swallowed the exception; 0 without one.
  int LastSystemError() const noexcept { return m_lastSystemError; }
  // For a record that swallows an exception: memory ran out (ENOMEM).
  void NoteOutOfMemory() noexcept;
  void ForgetSystemError() noexcept { m_lastSystemError = 0; }
  // Deletes a file by its path.
  static void Remove(const CString& path);

  // While one of these lives, writes are collected, and go to the system as one write when it is committed; anything
  // but Write commits too. Destroyed uncommitted, it drops what it holds, and the position is where it began.
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
  static constexpr std::size_t kFirstRead = 4 * 1024;  // what a read somewhere new asks for; doubled while it goes on

  bool TryOpen(const CString& path, unsigned openFlags, CFileException* error);
  bool AcquireLock(int operation);
  int CloseDescriptor() noexcept;
  [[noreturn]] void Raise(int osError);
  void RequireOpen() const;
  void CommitGathered();
  void WriteOut(const std::byte* from, std::size_t count, std::uint64_t position);
  std::size_t ReadSystem(std::byte* to, std::size_t least, std::size_t most, std::uint64_t position);
  std::span<const std::byte> ReadViewSlow(std::size_t count);
  bool MakeBuffer() noexcept;
  std::byte* PlaceInBuffer(std::uint64_t position) const noexcept;
  void FillBuffer(std::size_t count);
  bool FillFromBlockReader(std::size_t count);
  void UpdateBuffer(const std::byte* from, std::size_t count, std::uint64_t position) noexcept;
  void SyncDirectory();
  std::string DirectoryOfFile() const;
  void Reset() noexcept;

  int m_fd = -1;
  pid_t m_lockedBy = 0;  // the process that took the lock; 0 without one
  bool m_writable = false;
  bool m_gathering = false;
  bool m_syncFailed = false;
  int m_lastSystemError = 0;
  std::unique_ptr<kesp::OpenReader> m_reader;  // of a file that is open read-only
  kesp::FileIdentity m_identity;
  bool m_directoryUnsynced = false;  // the file may be new, and its directory was not yet told to keep it
  CString m_path;
  std::uint64_t m_position = 0;
  std::uint64_t m_length = 0;                    // as last seen
  std::unique_ptr<kesp::AlignedBytes> m_buffer;  // null until something is read or written
  std::unique_ptr<kesp::BlockReader> m_blockReader;
  std::byte* m_data = nullptr;      // the buffer, or what was read ahead last
  std::uint64_t m_bufferStart = 0;  // where in the file the first byte of it stands
  std::size_t m_bufferSize = 0;     // bytes in it
  std::size_t m_nextRead = kFirstRead;
  std::vector<std::byte> m_gathered;
  std::uint64_t m_gatherStart = 0;
};
