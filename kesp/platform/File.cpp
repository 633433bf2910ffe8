#include "kesp/platform/File.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "kesp/memory/AlignedBytes.h"
#include "kesp/platform/BlockReader.h"
#include "kesp/platform/ByteSource.h"
#include "kesp/platform/OpenFile.h"
#include "kesp/platform/OpenReaders.h"
#include "kesp/platform/SystemCalls.h"

namespace {

constexpr std::size_t kCopyAtOnce = std::size_t{1} << 30;
// A read may skip up to this many bytes and still use the read-ahead.
constexpr std::uint64_t kMostSkipped = std::uint64_t{1} << 20;
constexpr std::uint64_t kLargestOffset = std::numeric_limits<std::int64_t>::max();

using kesp::Uninterrupted;

int StatRetrying(int fd, kesp::FileInfo& info) {
  return Uninterrupted([&] { return kesp::System().FileStat(fd, &info); });
}

int TruncateRetrying(int fd, std::int64_t length) {
  return Uninterrupted([&] { return kesp::System().Truncate(fd, length); });
}

// Returns false with errno set when an object of this process reads the file or the system refuses.
bool EmptyFile(int fd, const kesp::FileInfo& info) {
  if (!kesp::OpenReader::Reads(info.device, info.fileNumber)) return TruncateRetrying(fd, 0) == 0;
  errno = EWOULDBLOCK;
  return false;
}

// With the lock held: empties the file if that is asked for, else asks again for its length, since it may have grown
// until the lock was ours. False with the reason in errno.
bool SettleLength(int fd, bool toEmpty, kesp::FileInfo& info) {
  if (!toEmpty) return StatRetrying(fd, info) == 0;
  info.length = 0;
  return EmptyFile(fd, info);
}

// Each source that is opened is a file of its own, on a device that no system has.
kesp::FileIdentity NextSourceIdentity() noexcept {
  static std::atomic<std::uint64_t> opened{0};
  return {~std::uint64_t{0}, ++opened};
}

// The errno value of an exception that a source has thrown; 0 if it is not the number of an error.
int NumberOf(const std::error_code& code) {
  const std::error_condition condition = code.default_error_condition();
  return condition.category() == std::generic_category() ? condition.value() : 0;
}

// Calls the source, whose exceptions become the library's. Those that are no file error and no lack of memory are EIO.
template <class Call>
auto CallSource(const CString& name, Call call) {
  int reason = 0;
  try {
    return call();
  } catch (const std::bad_alloc&) {
    throw CMemoryException();
  } catch (const CFileException& e) {
    reason = e.m_lOsError;
  } catch (const std::system_error& e) {
    reason = NumberOf(e.code());
  } catch (...) {
    reason = 0;
  }
  throw CFileException(reason > 0 ? reason : EIO, name);
}

}  // namespace

CFile::CFile() noexcept = default;

CFile::CFile(const CString& path, unsigned openFlags) {
  CFileException error(CFileException::none, path);
  if (!Open(path, openFlags, &error)) throw CFileException(std::move(error));
}

CFile::~CFile() { Abort(); }

bool CFile::Open(const CString& path, unsigned openFlags, CFileException* error) {
  try {
    return TryOpen(path, openFlags, error);
  } catch (const std::bad_alloc&) {
    Abort();
    if (error != nullptr) *error = CFileException(ENOMEM, path);
    return false;
  }
}

bool CFile::TryOpen(const CString& path, unsigned openFlags, CFileException* error) {
  // A copy: `path` may be this object's own m_path, which Abort empties.
  const CString wanted = path;  // NOLINT(performance-unnecessary-copy-initialization)
  Abort();
  const auto fail = [&](CFileException reason) {
    if (error != nullptr) *error = std::move(reason);
    Abort();
    return false;
  };
  const std::string name = wanted.ToPathBytes();
  if (name.find('\0') != std::string::npos) {
    // The system would take the part before the zero as the name of another file.
    return fail(CFileException(CFileException::badPath, EINVAL, wanted));
  }
  bool created = false;
  m_fd = kesp::OpenFile(name.c_str(), openFlags, created);
  if (m_fd < 0) return fail(CFileException(errno, wanted));

  kesp::FileInfo info;
  if (StatRetrying(m_fd, info) != 0) return fail(CFileException(errno, wanted));
  if (info.kind != kesp::FileInfo::Kind::kRegular) {
    const bool isFolder = info.kind == kesp::FileInfo::Kind::kFolder;
    return fail(CFileException(CFileException::invalidFile, isFolder ? EISDIR : EINVAL, wanted));
  }
  const bool writable = kesp::IsWritableBy(openFlags);
  const bool create = (openFlags & (modeCreate | modeNew)) != 0;
  if (!AcquireLock(openFlags) || !SettleLength(m_fd, create && !created, info)) {
    return fail(CFileException(errno, wanted));
  }
  m_length = info.length;
  m_path = wanted;
  m_identity = {info.device, info.fileNumber};
  m_writable = writable;
  m_directoryUnsynced = create;  // even if it existed: it may have been created just before, or through a link
  if (!writable) m_reader = std::make_unique<kesp::OpenReader>(info.device, info.fileNumber);
  return true;
}

bool CFile::Open(std::unique_ptr<kesp::ByteSource> source, const CString& name, CFileException* error) {
  const auto fail = [&](CFileException reason) {
    if (error != nullptr) *error = std::move(reason);
    Abort();
    return false;
  };
  try {
    return TryOpen(std::move(source), name);
  } catch (const std::bad_alloc&) {
    return fail(CFileException(ENOMEM, name));
  } catch (CFileException& e) {
    return fail(std::move(e));
  }
}

bool CFile::TryOpen(std::unique_ptr<kesp::ByteSource> source, const CString& name) {
  // A copy: `name` may be this object's own m_path, which Abort empties.
  CString wanted = name;
  Abort();
  if (source == nullptr) throw CFileException(CFileException::invalidFile, EINVAL, wanted);
  const std::uint64_t length = CallSource(wanted, [&] { return source->Length(); });
  if (length > kLargestOffset) throw CFileException(EOVERFLOW, wanted);
  m_source = std::move(source);
  m_length = length;
  m_path = std::move(wanted);
  m_identity = NextSourceIdentity();
  return true;
}

void CFile::Close() {
  if (!IsOpen()) return;
  try {
    CommitGathered();
  } catch (...) {
    Abort();
    throw;
  }
  EndBlockReader();
  CString path = std::move(m_path);
  const int reason = CloseDescriptor();
  Reset();
  if (reason != 0) throw CFileException(reason, path);
}

void CFile::Abort() noexcept {
  EndBlockReader();
  (void)CloseDescriptor();
  Reset();
}

void CFile::Reset() noexcept {
  m_source.reset();
  m_reader.reset();
  m_identity = {};
  m_fd = -1;
  m_lockedBy = 0;
  m_lastSystemError = 0;
  m_writable = m_gathering = m_syncFailed = m_directoryUnsynced = false;
  m_path.Empty();
  m_position = m_length = m_bufferStart = m_gatherStart = m_changedFrom = 0;
  m_bufferSize = 0;
  m_buffer.reset();
  m_data = nullptr;
  m_nextRead = kFirstRead;
  m_gathered.clear();
}

std::size_t CFile::Read(void* to, std::size_t count) {
  auto* out = static_cast<std::byte*>(to);
  std::size_t total = 0;
  while (total < count) {
    if (count - total >= kBufferSize && (m_position < m_bufferStart || m_position - m_bufferStart >= m_bufferSize)) {
      // Large and not in the buffer: read straight into the caller's memory.
      RequireOpen();
      CommitGathered();
      const std::size_t got = ReadSystem(out + total, count - total, count - total, m_position);
      m_position += got;
      return total + got;
    }
    const std::size_t wanted = std::min(count - total, kMaxView);
    const std::span<const std::byte> bytes = ReadView(wanted);
    std::copy(bytes.begin(), bytes.end(), out + total);
    total += bytes.size();
    if (bytes.size() < wanted) break;
  }
  return total;
}

std::span<const std::byte> CFile::ReadViewSlow(std::size_t count) {
  RequireOpen();
  CommitGathered();
  if (count > kMaxView) throw CInvalidArgException();
  if (!m_blockReader || !FillFromBlockReader(count)) FillBuffer(count);
  const auto at = static_cast<std::size_t>(m_position - m_bufferStart);
  const std::size_t handed = std::min(count, m_bufferSize - at);
  m_position += handed;
  return {m_data + at, handed};
}

bool CFile::MakeBuffer() noexcept {
  if (m_buffer) return true;
  m_buffer.reset(new (std::nothrow) kesp::AlignedBytes(kBufferSize + kesp::AlignedBytes::kLine));
  if (!m_buffer || !*m_buffer) {
    m_buffer.reset();
    return false;
  }
  m_data = m_buffer->Data();
  return true;
}

// Where in the buffer data from this file position goes; there is room for kBufferSize bytes after it.
std::byte* CFile::PlaceInBuffer(std::uint64_t position) const noexcept {
  return m_buffer->Data() + position % kesp::AlignedBytes::kLine;
}

// Fills the buffer so that it holds `count` bytes from the current position on, or all bytes up to the end of the file.
void CFile::FillBuffer(std::size_t count) {
  if (!MakeBuffer()) throw CMemoryException();
  const bool follows = m_position >= m_bufferStart && m_position - m_bufferStart <= m_bufferSize;
  const std::size_t offset = follows ? static_cast<std::size_t>(m_position - m_bufferStart) : 0;
  const std::size_t kept = follows ? m_bufferSize - offset : 0;
  if (kept >= count && follows) return;
  // The unread rest moves to the front, to make room for the next read.
  std::byte* const front = PlaceInBuffer(m_position);
  if (kept != 0) std::memmove(front, m_data + offset, kept);
  m_data = front;
  m_bufferStart = m_position;
  m_bufferSize = kept;
  m_nextRead = follows ? std::min(2 * m_nextRead, kBufferSize) : kFirstRead;
  const std::size_t most = std::min(kBufferSize - kept, std::max(m_nextRead, count - kept));
  m_bufferSize += ReadSystem(m_data + kept, count - kept, most, m_position + kept);
}

void CFile::ReadAgain() {
  if (m_fd < 0 || m_writable) return;
  EndBlockReader();
  m_bufferSize = 0;
  (void)GetLength();
}

void CFile::StartBlockReader(bool objectsAreKept) noexcept {
  if (m_fd < 0 || m_blockReader || !kesp::BlockReader::IsWorthwhile()) return;
  try {
    const std::uint64_t buffered = m_bufferStart + m_bufferSize;
    const bool follows = m_position >= m_bufferStart && m_position <= buffered;
    m_blockReader =
        std::make_unique<kesp::BlockReader>(m_fd, follows ? buffered : m_position, kMaxView, objectsAreKept);
  } catch (const std::exception&) {
    // No memory or no thread: every read goes to the system when it is needed.
  }
}

bool CFile::OfferWork(kesp::Task& task) noexcept {
  if (m_blockReader) m_blockReader->Offer(task);
  return m_blockReader != nullptr;
}

// Like FillBuffer, but takes blocks from the block reader. Returns false when that has ended or the position is
// elsewhere; the buffer is then unchanged or empty.
bool CFile::FillFromBlockReader(std::size_t count) {
  for (;;) {
    const std::uint64_t end = m_bufferStart + m_bufferSize;
    const bool follows = m_position >= m_bufferStart && m_position <= end && end == m_blockReader->NextOffset();
    const std::size_t kept = follows ? static_cast<std::size_t>(end - m_position) : 0;
    if (follows && kept >= count) return true;
    if (!follows &&
        (m_position < m_blockReader->NextOffset() || m_position - m_blockReader->NextOffset() > kMostSkipped))
      break;
    const std::uint64_t offset = m_blockReader->NextOffset();
    const std::span<std::byte> block = m_blockReader->Next();
    if (block.empty()) break;
    // The unread rest goes in front of the new block, which has room for it.
    if (kept != 0) std::memcpy(block.data() - kept, m_data + (m_position - m_bufferStart), kept);
    m_data = block.data() - kept;
    m_bufferStart = offset - kept;
    m_bufferSize = kept + block.size();
    m_length = std::max(m_length, offset + block.size());
  }
  EndBlockReader();
  return false;
}

// The memory of the block reader is freed, so the part of its last block that is still unread is copied into the
// buffer.
void CFile::EndBlockReader() noexcept {
  if (!m_blockReader) return;
  const std::uint64_t end = m_bufferStart + m_bufferSize;
  const bool taken = !m_buffer || m_data < m_buffer->Data() || m_data > m_buffer->Data() + kesp::AlignedBytes::kLine;
  if (taken) {
    const bool isUnread = m_position >= m_bufferStart && m_position < end;
    const std::byte* const from = isUnread ? m_data + (m_position - m_bufferStart) : nullptr;
    const bool kept = isUnread && end - m_position <= kBufferSize && MakeBuffer();
    m_bufferSize = kept ? static_cast<std::size_t>(end - m_position) : 0;
    if (kept) std::memcpy(PlaceInBuffer(m_position), from, m_bufferSize);
    m_bufferStart = m_position;
    m_data = m_buffer ? PlaceInBuffer(m_position) : nullptr;
  }
  m_blockReader.reset();
}

// Reads until it has at least `least` bytes or the file ends; takes up to `most` if the system returns them.
std::size_t CFile::ReadSystem(std::byte* to, std::size_t least, std::size_t most, std::uint64_t position) {
  if (m_source) return ReadSource(to, least, most, position);
  if (position >= kLargestOffset) return 0;
  const std::uint64_t room = kLargestOffset - position;
  least = static_cast<std::size_t>(std::min<std::uint64_t>(least, room));
  most = static_cast<std::size_t>(std::min<std::uint64_t>(most, room));
  std::size_t total = 0;
  while (total < least) {
    const ssize_t got =
        kesp::System().Read(m_fd, to + total, most - total, static_cast<std::int64_t>(position + total));
    if (got < 0) {
      if (errno == EINTR) continue;
      Raise(errno);
    }
    if (got == 0) break;
    total += static_cast<std::size_t>(got);
  }
  if (total != 0) m_length = std::max(m_length, position + total);
  return total;
}

// The same from the source. Nothing after the length at opening is read: a source without an end can't make a walk
// endless.
std::size_t CFile::ReadSource(std::byte* to, std::size_t least, std::size_t most, std::uint64_t position) {
  if (position >= m_length) return 0;
  most = static_cast<std::size_t>(std::min<std::uint64_t>(most, m_length - position));
  std::size_t total = 0;
  while (total < std::min(least, most)) {
    const std::size_t wanted = most - total;
    try {
      const std::size_t got =
          CallSource(m_path, [&] { return m_source->ReadAt(position + total, to + total, wanted); });
      if (got == 0 || got > wanted) throw CFileException(EIO, m_path);
      total += got;
    } catch (const CFileException& e) {
      m_lastSystemError = e.m_lOsError;
      throw;
    }
  }
  return total;
}

void CFile::Write(const void* from, std::size_t count) {
  RequireOpen();
  if (!m_writable) throw CFileException(CFileException::accessDenied, EBADF, m_path);
  if (count == 0) return;
  const auto* const bytes = static_cast<const std::byte*>(from);
  if (m_gathering) {
    if (m_gathered.empty()) m_gatherStart = m_position;
    try {
      m_gathered.insert(m_gathered.end(), bytes, bytes + count);
    } catch (const std::exception&) {  // no memory, or more bytes than a vector can have
      throw CMemoryException();
    }
    m_position += count;
    return;
  }
  WriteOut(bytes, count, m_position);
  m_position += count;
}

void CFile::WriteOut(const std::byte* from, std::size_t count, std::uint64_t position) {
  EndBlockReader();
  if (m_syncFailed) Raise(EIO);
  if (position > kLargestOffset - count) Raise(EFBIG);
  std::size_t total = 0;
  while (total < count) {
    const ssize_t put =
        kesp::System().Write(m_fd, from + total, count - total, static_cast<std::int64_t>(position + total));
    if (put <= 0) {
      const int reason = put < 0 ? errno : ENOSPC;  // nothing written means a full device
      if (reason == EINTR) continue;
      UpdateBuffer(from, total, position);
      Raise(reason);
    }
    total += static_cast<std::size_t>(put);
    m_changedFrom = std::min(m_changedFrom, position);
  }
  UpdateBuffer(from, count, position);
}

// Updates the read buffer after a write. Overlapping bytes are replaced, adjacent bytes are added, and a write
// elsewhere replaces the whole buffer, since what was just written is likely to be read next.
void CFile::UpdateBuffer(const std::byte* from, std::size_t count, std::uint64_t position) noexcept {
  if (count == 0) return;
  m_length = std::max(m_length, position + count);
  if (!MakeBuffer()) return;
  const std::uint64_t bufferEnd = m_bufferStart + m_bufferSize;
  const bool fits = position >= m_bufferStart && position + count <= m_bufferStart + kBufferSize;
  if (m_bufferSize != 0 && position <= bufferEnd && position + count >= m_bufferStart) {
    if (fits) {
      std::memcpy(m_data + (position - m_bufferStart), from, count);
      m_bufferSize = std::max(m_bufferSize, static_cast<std::size_t>(position - m_bufferStart) + count);
      return;
    }
  }
  if (count <= kBufferSize) {
    m_data = PlaceInBuffer(position);
    std::memcpy(m_data, from, count);
    m_bufferStart = position;
    m_bufferSize = count;
  } else {
    m_bufferSize = 0;
  }
}

void CFile::CommitGathered() {
  if (m_gathered.empty()) return;
  const std::uint64_t resume = m_position;
  // Emptied first: a write that fails is not tried again.
  std::vector<std::byte> bytes;
  bytes.swap(m_gathered);
  m_position = m_gatherStart;
  WriteOut(bytes.data(), bytes.size(), m_gatherStart);
  m_position = resume;
  bytes.clear();
  m_gathered.swap(bytes);  // reuses the memory for the next record
}

std::uint64_t CFile::Seek(std::int64_t offset, SeekPosition from) {
  RequireOpen();
  CommitGathered();
  const std::uint64_t base = from == begin ? 0 : from == current ? m_position : GetLength();
  const auto distance = static_cast<std::uint64_t>(offset);  // a negative one wraps when added, as intended
  if (offset < 0 ? base < 0 - distance : base > kLargestOffset - distance) {
    throw CFileException(CFileException::badSeek, m_path);
  }
  m_position = base + distance;
  return m_position;
}

std::uint64_t CFile::GetLength() {
  RequireOpen();
  CommitGathered();
  if (m_source) return m_length;
  // lseek is fine here: nothing uses the descriptor's own position.
  const std::int64_t end = Uninterrupted([&] { return kesp::System().End(m_fd); });
  if (end < 0) Raise(errno);
  m_length = static_cast<std::uint64_t>(end);
  return m_length;
}

bool CFile::ReachesTo(std::uint64_t position) { return position <= m_length || position <= GetLength(); }

void CFile::SetLength(std::uint64_t length) {
  RequireOpen();
  CommitGathered();
  if (!m_writable) throw CFileException(CFileException::accessDenied, EBADF, m_path);
  if (length > kLargestOffset) Raise(EFBIG);
  EndBlockReader();
  if (TruncateRetrying(m_fd, static_cast<std::int64_t>(length)) != 0) Raise(errno);
  m_changedFrom = std::min({m_changedFrom, m_length, length});
  m_length = length;
  m_bufferSize = 0;
}

void CFile::Flush() {
  RequireOpen();
  CommitGathered();
  if (!m_writable) return;
  if (m_syncFailed) Raise(EIO);
  if (Uninterrupted([&] { return kesp::System().DataSync(m_fd); }) != 0) {
    const int reason = errno;
    m_syncFailed = true;
    Raise(reason);
  }
  if (m_directoryUnsynced) SyncDirectory();
}

void CFile::TouchModified() noexcept {
  if (m_fd >= 0 && m_writable) Uninterrupted([this] { return kesp::System().TouchModified(m_fd); });
}

bool CFile::IsSameFile(const CString& path) const {
  if (m_fd < 0) return false;
  kesp::FileInfo other;
  const std::string name = path.ToPathBytes();
  if (Uninterrupted([&] { return kesp::System().Stat(name.c_str(), &other); }) != 0) {
    return errno != ENOENT && errno != ENOTDIR;
  }
  return m_identity == kesp::FileIdentity{other.device, other.fileNumber};
}

void CFile::CopyFrom(CFile& source, std::size_t blockSize) {
  RequireOpen();
  source.RequireOpen();
  CommitGathered();
  source.CommitGathered();
  EndBlockReader();
  source.EndBlockReader();
  if (!m_writable) throw CFileException(CFileException::accessDenied, EBADF, m_path);
  if (m_syncFailed) Raise(EIO);
  // The system copies in the kernel where it can. If that fails for any reason, reading and writing go on from there,
  // and report the error if there is one.
  while (!source.m_source) {
    if (m_position > kLargestOffset || source.m_position > kLargestOffset) break;
    const ssize_t copied = Uninterrupted([&] {
      return kesp::System().CopyRange(source.m_fd, static_cast<std::int64_t>(source.m_position), m_fd,
                                      static_cast<std::int64_t>(m_position), kCopyAtOnce);
    });
    if (copied <= 0) break;
    m_changedFrom = std::min(m_changedFrom, m_position);
    m_position += static_cast<std::uint64_t>(copied);
    source.m_position += static_cast<std::uint64_t>(copied);
    m_length = std::max(m_length, m_position);
    source.m_length = std::max(source.m_length, source.m_position);
    m_bufferSize = 0;
  }
  const auto block = std::unique_ptr<std::byte[]>(new std::byte[blockSize]);
  while (const std::size_t count = source.Read(block.get(), blockSize)) Write(block.get(), count);
}

void CFile::Remove(const CString& path) {
  const std::string name = path.ToPathBytes();
  if (Uninterrupted([&] { return kesp::System().Unlink(name.c_str()); }) != 0) throw CFileException(errno, path);
}

void CFile::NoteOutOfMemory() noexcept { m_lastSystemError = ENOMEM; }

void CFile::Raise(int osError) {
  m_lastSystemError = osError;
  throw CFileException(osError, m_path);
}

void CFile::RequireOpen() const {
  if (!IsOpen()) throw CFileException(CFileException::invalidFile, m_path);
}

CFile::Gather::Gather(CFile& file) : m_file(file) {
  m_file.CommitGathered();
  m_file.m_gathering = true;
}

CFile::Gather::~Gather() {
  if (!m_file.m_gathered.empty()) {
    m_file.m_position = m_file.m_gatherStart;
    m_file.m_gathered.clear();
  }
  m_file.m_gathering = false;
}

void CFile::Gather::Commit() { m_file.CommitGathered(); }
