// Writes records to an open file: appends, overwrites, and marks them deleted.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <span>
#include <vector>

#include "kesp/format/RecordChanges.h"
#include "kesp/platform/SystemCalls.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/RecordHeader.h"
#include "kesp/recordfile/StoredBody.h"
#include "kesp/records/KespTag.h"

namespace {

constexpr unsigned kPowerEventWaitMs = 5000;
constexpr unsigned short kOwnVersion = 0;  // Write and GetLength take 0 for the record's own version

void WriteRecordHeader(CFile& file, CKespRecord& record, unsigned short version, unsigned long length) {
  const auto header =
      kesp::EncodeRecordHeader({record.m_recordType, version, record.m_flags, static_cast<std::uint32_t>(length)});
  file.Write(header.data(), header.size());
}

struct Range {
  std::size_t from;
  // cppcheck-suppress unusedStructMember
  std::size_t to;  // not included; not greater than `from` when the range is empty
};

// Puts the flags of the header and the changes into a record as it is in the file. Returns from the first byte that
// changes to the last, for one write: what lies between goes back as it was read.
Range Patch(std::span<std::byte> record, const kesp::RecordHeader& header, const kesp::RecordChanges& changes) {
  Range range{record.size(), 0};
  const auto put = [&](std::size_t at, std::span<const std::byte> bytes) {
    std::copy(bytes.begin(), bytes.end(), record.subspan(at).begin());
    range = {std::min(range.from, at), at + bytes.size()};
  };
  const auto encoded = kesp::EncodeRecordHeader(header);
  if (!std::equal(encoded.begin(), encoded.end(), record.begin())) {
    put(kesp::kFlagsOffset, std::span(encoded).subspan(kesp::kFlagsOffset, sizeof header.flags));
  }
  for (const auto& [offset, width] : changes.fields) {
    put(kesp::kRecordHeaderSize + offset, std::span(changes.body).subspan(offset, width));
  }
  return range;
}

}  // namespace

bool CKespDataFile::AppendRecord(CKespRecord* record, unsigned long sourceFlag) {
  return Append({&record, 1}, sourceFlag, kOwnVersion);
}

bool CKespDataFile::AppendRecords(CKespRecord* const* records, std::size_t count, unsigned long sourceFlag) {
  return Append({records, count}, sourceFlag, kOwnVersion);
}

bool CKespDataFile::AppendRecordVersion1(CKespRecord* record, unsigned long sourceFlag) {
  return Append({&record, 1}, sourceFlag, 1);
}

bool CKespDataFile::AppendRecordVersion2(CKespRecord* record, unsigned long sourceFlag) {
  return Append({&record, 1}, sourceFlag, 2);
}

void CKespDataFile::ReopenAfterPowerEvent() {
  if (m_file.ReadsSource()) return;  // its name leads to no file, or to another one
  const bool writable = m_file.IsWritable();
  m_file.Abort();
  kesp::System().SleepMs(kPowerEventWaitMs);
  // A failure shows in the next step, which needs the file.
  CFileException failure(CFileException::none, m_path);
  const unsigned openFlags =
      writable ? CFile::modeReadWrite | CFile::shareDenyWrite : CFile::modeRead | CFile::shareDenyNone;
  if (!m_file.Open(m_path, openFlags, &failure)) NoteFailure(failure);
}

void CKespDataFile::CutBackTornRecord() {
  if (!m_tornFrom) return;
  m_file.SetLength(*m_tornFrom);
  m_tornFrom.reset();
}

// Notes a refusal by the record as a failure, so that the record does not pass for written.
bool CKespDataFile::WriteBody(CKespRecord& record, unsigned long sourceFlag, unsigned short bodyVersion) {
  m_file.ForgetSystemError();
  if (kesp::WriteStoredBody(record, m_file, sourceFlag, bodyVersion)) return true;
  NoteError(m_file.LastSystemError() != 0 ? m_file.LastSystemError() : EINVAL);
  return false;
}

// Writes headers and bodies, in pieces of 64 KiB or of one record if that is more, and syncs. `begun` becomes true once
// something may be in the file.
bool CKespDataFile::WriteWhole(Records records, unsigned long sourceFlag, unsigned short bodyVersion, bool& begun) {
  constexpr std::uint64_t kPiece = std::uint64_t{64} * 1024;
  CFile::Gather gather(m_file);
  std::uint64_t written = m_file.GetPosition();
  for (CKespRecord* const record : records) {
    const std::uint64_t start = m_file.GetPosition();
    record->m_filePosition = static_cast<std::uint32_t>(start);
    if (record->m_recordType == KESP_RECORD_BROKEN) continue;
    if (start - written >= kPiece) {
      begun = true;
      gather.Commit();
      written = start;
    }
    // Version and length are the record's own, whatever version the body is written in.
    WriteRecordHeader(m_file, *record, record->m_recordVersion, record->GetLength(kOwnVersion));
    if (!WriteBody(*record, sourceFlag, bodyVersion)) return false;
  }
  if (m_file.GetPosition() == written && !begun) return true;  // there is nothing to write
  begun = true;
  gather.Commit();
  return Flush();
}

bool CKespDataFile::Append(Records records, unsigned long sourceFlag, unsigned short bodyVersion) {
  if (!IsOpen()) return false;
  if (Guarded([&] { return AppendWhole(records, sourceFlag, bodyVersion); })) return true;
  ++m_failedAppends;
  return false;
}

// Truncates unless all reaches the disk: a record appended after a partial one is unreachable.
class CKespDataFile::PendingAppend {
 public:
  PendingAppend(CKespDataFile& file, std::uint64_t from) : m_file(file), m_from(from) {}
  ~PendingAppend() {
    // A record that can't write itself has usually put nothing into the file.
    if (isWhole || !(begun || m_file.m_file.KnownLength() > m_from)) return;
    m_file.m_tornFrom = m_from;
    // The system may refuse; a reader stops at the partial record.
    (void)m_file.Guarded([this] { return m_file.CutBackTornRecord(), true; });
  }
  PendingAppend(const PendingAppend&) = delete;
  PendingAppend& operator=(const PendingAppend&) = delete;
  bool begun = false;
  bool isWhole = false;

 private:
  CKespDataFile& m_file;
  const std::uint64_t m_from;
};

// Returns false when one of them can't be written.
bool CKespDataFile::Prepare(Records records, unsigned long sourceFlag, unsigned short bodyVersion) {
  for (CKespRecord* const record : records) {
    if (record == nullptr) return false;
    if (auto* const tag = dynamic_cast<CKespTag*>(record)) tag->m_dataPosition = 0;
    if (bodyVersion == kOwnVersion) record->SetSourceFlag(sourceFlag);
    if (record->m_recordType != KESP_RECORD_BROKEN && record->GetLength(kOwnVersion) == 0) return false;
  }
  return true;
}

bool CKespDataFile::AppendWhole(Records records, unsigned long sourceFlag, unsigned short bodyVersion) {
  if (!Prepare(records, sourceFlag, bodyVersion)) {
    NoteError(EINVAL);
    return false;
  }
  if (DidPowerEventHappen()) ReopenAfterPowerEvent();
  CutBackTornRecord();
  const std::uint64_t start = m_file.SeekToEnd();
  PendingAppend pending(*this, start);
  while (WriteWhole(records, sourceFlag, bodyVersion, pending.begun)) {
    if (!pending.begun) return true;
    if (!DidPowerEventHappen()) {
      // Reads the last byte again, which leaves the file at its end.
      m_file.Seek(-1, CFile::current);
      (void)m_file.ReadView(1);
      pending.isWhole = true;
      return true;
    }
    ReopenAfterPowerEvent();
    m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
  }
  return false;
}

bool CKespDataFile::OverwriteRecord(CKespRecord* record, unsigned long sourceFlag) {
  return IsOpen() && record != nullptr && Guarded([&] { return Overwrite(*record, sourceFlag); });
}

bool CKespDataFile::Overwrite(CKespRecord& record, unsigned long sourceFlag) {
  kesp::RecordHeader found;
  const std::uint64_t start = m_file.GetPosition();
  kesp::FieldReader reader(m_file.ReadView(6));
  reader.U32(found.type);
  reader.U16(found.version);
  if (reader.Failed()) throw CFileException(CFileException::endOfFile, m_path);
  if (found.type != record.m_recordType || found.version > record.m_recordVersion) return false;
  // An attribute of version 0 has no body there: writing one would overwrite the next record.
  if (found.version == 0 && found.type != KESP_RECORD_TAG) return false;

  m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
  record.SetSourceFlag(sourceFlag);
  CFile::Gather gather(m_file);
  WriteRecordHeader(m_file, record, found.version, record.GetLength(found.version));
  if (!WriteBody(record, sourceFlag, found.version)) return false;  // the record there stays unchanged
  gather.Commit();
  return true;
}

bool CKespDataFile::AmendRecord(const CKespRecord& before, const CKespRecord& after) {
  return IsOpen() && Guarded([&] { return Amend(before, after); });
}

bool CKespDataFile::CanAmend(const CKespRecord& before, const CKespRecord& after) {
  return after.m_recordVersion == before.m_recordVersion && kesp::ChangesOf(before, after).has_value();
}

bool CKespDataFile::Amend(const CKespRecord& before, const CKespRecord& after) {
  if (after.m_recordType != before.m_recordType || after.m_recordVersion != before.m_recordVersion) return false;
  const auto changes = kesp::ChangesOf(before, after);
  if (!changes) {
    NoteError(EINVAL);
    return false;
  }
  m_file.Seek(before.m_filePosition, CFile::begin);
  std::vector<std::byte> record(kesp::kRecordHeaderSize + changes->body.size());
  if (m_file.Read(record.data(), record.size()) != record.size()) {
    throw CFileException(CFileException::endOfFile, m_path);
  }
  m_file.Seek(before.m_filePosition, CFile::begin);
  kesp::RecordHeader header;
  kesp::FieldReader reader(record);
  kesp::DescribeRecordHeader(reader, header);
  if (header.type != before.m_recordType || header.version != before.m_recordVersion) return false;

  if (after.m_flags != before.m_flags) header.flags = after.m_flags;
  const auto [from, to] = Patch(record, header, *changes);
  if (from >= to) return true;
  m_file.Seek(static_cast<std::int64_t>(before.m_filePosition + from), CFile::begin);
  m_file.Write(record.data() + from, to - from);
  m_file.Seek(before.m_filePosition, CFile::begin);
  return true;
}

bool CKespDataFile::CopyRecord(CKespRecord* record, unsigned long position) {
  if (!IsOpen() || record == nullptr) return false;
  m_file.Seek(static_cast<std::uint32_t>(position), CFile::begin);
  return OverwriteRecord(record, KESP_SRC_ADDED);
}

bool CKespDataFile::DeleteRecord(unsigned long position, KESP_RECORD_TYPE type) {
  if (!IsOpen()) return false;
  std::uint64_t foundAt = 0;
  const std::unique_ptr<CKespRecord> record(ReadNext(foundAt, position != 0));
  if (!record) return false;
  if (type != KESP_RECORD_NONE && type != record->m_recordType) return false;
  const auto wanted = static_cast<std::uint32_t>(position);
  const bool isThere = static_cast<std::uint32_t>(foundAt) == wanted;
  m_file.Seek(static_cast<std::int64_t>(isThere ? foundAt : wanted), CFile::begin);
  if (!isThere && !Guarded([&] { return IsAsLongAsHere(*record); })) return false;
  record->SetDelete();
  return OverwriteRecord(record.get(), KESP_SRC_DELETED);
}

// Whether the record at the file's position has a body as long as this one would have in its place. Keeps the position.
bool CKespDataFile::IsAsLongAsHere(CKespRecord& record) {
  const std::uint64_t start = m_file.GetPosition();
  kesp::RecordHeader here;
  kesp::FieldReader reader(m_file.ReadView(kesp::kRecordHeaderSize));
  kesp::DescribeRecordHeader(reader, here);
  m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
  return !reader.Failed() && here.length == record.GetLength(here.version);
}
