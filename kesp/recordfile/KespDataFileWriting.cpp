// Putting records into an open file: appending, overwriting, updating and marking deleted.
#include <memory>

#include "kesp/platform/SystemCalls.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/RecordHeader.h"

namespace {

constexpr unsigned kPowerEventWaitMs = 5000;
constexpr unsigned short kOwnVersion = 0;  // of the record: what Write and GetLength take 0 for

void WriteRecordHeader(CFile& file, CKespRecord& record, unsigned short version, unsigned long length) {
  const auto header =
      kesp::EncodeRecordHeader({record.m_recordType, version, record.m_flags, static_cast<std::uint32_t>(length)});
  file.Write(header.data(), header.size());
}

}  // namespace

bool CKespDataFile::AppendRecord(CKespRecord* record, unsigned long sourceFlag) {
  return Append(record, sourceFlag, kOwnVersion);
}

bool CKespDataFile::AppendRecordVersion1(CKespRecord* record, unsigned long sourceFlag) {
  return Append(record, sourceFlag, 1);
}

bool CKespDataFile::AppendRecordVersion2(CKespRecord* record, unsigned long sourceFlag) {
  return Append(record, sourceFlag, 2);
}

void CKespDataFile::ReopenAfterPowerEvent() {
  const bool writable = m_file.IsWritable();
  m_file.Abort();
  kesp::System().SleepMs(kPowerEventWaitMs);
  // What comes of it shows in the next step, which needs the file.
  CFileException failure(CFileException::none, m_path);
  const unsigned openFlags =
      writable ? CFile::modeReadWrite | CFile::shareDenyWrite : CFile::modeRead | CFile::shareDenyNone;
  if (!m_file.Open(m_path, openFlags, &failure)) NoteFailure(failure);
}

void CKespDataFile::TakeBackTornRecord() {
  if (!m_tornFrom) return;
  m_file.SetLength(*m_tornFrom);
  m_tornFrom.reset();
}

// The record's header and body in one write, and on the disk. `begun` becomes true once something may be in the file.
bool CKespDataFile::WriteWhole(CKespRecord& record, unsigned long sourceFlag, unsigned short bodyVersion, bool& begun) {
  CFile::Gather gather(m_file);
  // Version and length are the record's own whatever version the body is written in.
  WriteRecordHeader(m_file, record, record.m_recordVersion, record.GetLength(kOwnVersion));
  if (!record.Write(m_file, sourceFlag, bodyVersion)) return false;
  begun = true;
  gather.Commit();
  return Flush();
}

bool CKespDataFile::Append(CKespRecord* record, unsigned long sourceFlag, unsigned short bodyVersion) {
  if (!IsOpen() || record == nullptr) return false;
  std::uint64_t start = 0;
  bool begun = false;
  try {
    if (DidPowerEventHappen()) ReopenAfterPowerEvent();
    TakeBackTornRecord();
    start = m_file.SeekToEnd();
    record->m_filePosition = static_cast<std::uint32_t>(start);
    if (bodyVersion == kOwnVersion) record->SetSourceFlag(sourceFlag);
    if (record->m_recordType == KESP_RECORD_BROKEN) return true;
    while (WriteWhole(*record, sourceFlag, bodyVersion, begun)) {
      if (!DidPowerEventHappen()) {
        // The last byte is looked at once more, which leaves the file at its end.
        m_file.Seek(-1, CFile::current);
        (void)m_file.ReadView(1);
        return true;
      }
      ReopenAfterPowerEvent();
      m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
    }
    // A record that can't write itself: as a rule nothing of it has reached the file.
    begun = begun || m_file.GetLength() > start;
  } catch (const CFileException& e) {
    NoteFailure(e);
  } catch (const std::exception&) {
    // Out of memory: answered like a failed write.
  }
  if (begun) {
    // Taken back, so that a later record does not stand behind half a one, where no reader would find it.
    m_tornFrom = start;
    try {
      TakeBackTornRecord();
    } catch (const CFileException&) {
      // The system won't have it now; a reader stops at the partial record.
    }
  }
  return false;
}

bool CKespDataFile::OverwriteRecord(CKespRecord* record, unsigned long sourceFlag) {
  if (!IsOpen() || record == nullptr) return false;
  try {
    kesp::RecordHeader found;
    const std::uint64_t start = m_file.GetPosition();
    kesp::FieldReader reader(m_file.ReadView(6));
    reader.U32(found.type);
    reader.U16(found.version);
    if (reader.Failed()) throw CFileException(CFileException::endOfFile, m_path);
    if (found.type != record->m_recordType || found.version > record->m_recordVersion) return false;

    m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
    record->SetSourceFlag(sourceFlag);
    CFile::Gather gather(m_file);
    WriteRecordHeader(m_file, *record, found.version, record->GetLength(found.version));
    if (!record->Write(m_file, sourceFlag, found.version)) return false;  // the record there stays as it is
    gather.Commit();
    return true;
  } catch (const CFileException& e) {
    NoteFailure(e);
    return false;
  }
}

bool CKespDataFile::CopyRecord(CKespRecord* record, unsigned long position) {
  if (!IsOpen() || record == nullptr) return false;
  m_file.Seek(static_cast<std::uint32_t>(position), CFile::begin);
  return OverwriteRecord(record, KESP_SRC_ADDED);
}

bool CKespDataFile::UpdateRecord(CKespRecord* record, unsigned long sourceFlag, bool continueSearch) {
  if (!IsOpen() || record == nullptr) return false;
  try {
    if (!continueSearch && !SeekToFirstRecord()) return false;
    std::uint32_t position = 0;
    for (;;) {
      const std::unique_ptr<CKespRecord> found(ReadNextRecord(position, false));
      if (!found) return continueSearch && UpdateRecord(record, sourceFlag, false);
      if (found->IsSameKespRecord(record)) break;
    }
    m_file.Seek(position, CFile::begin);
    if (!OverwriteRecord(record, sourceFlag)) return false;
    m_file.Seek(position, CFile::begin);
    return true;
  } catch (const CFileException& e) {
    NoteFailure(e);
    return false;
  }
}

bool CKespDataFile::DeleteRecord(unsigned long position, KESP_RECORD_TYPE type) {
  if (!IsOpen()) return false;
  const std::unique_ptr<CKespRecord> record(ReadNextRecord(position != 0));
  if (!record) return false;
  if (type != KESP_RECORD_NONE && type != record->m_recordType) return false;
  m_file.Seek(static_cast<std::uint32_t>(position), CFile::begin);
  record->SetDelete();
  return OverwriteRecord(record.get(), KESP_SRC_DELETED);
}
