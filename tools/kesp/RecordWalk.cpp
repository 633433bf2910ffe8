#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {

const char* TypeName(KESP_RECORD_TYPE type) noexcept {
  switch (type) {
    case KESP_RECORD_HEADER:
      return "header";
    case KESP_RECORD_FEATURE:
      return "feature";
    case KESP_RECORD_POINT:
      return "point";
    case KESP_RECORD_ATTRIBUTE:
      return "attribute";
    case KESP_RECORD_FEATURE_END:
      return "featureEnd";
    case KESP_RECORD_NOTE:
      return "note";
    case KESP_RECORD_TAG:
      return "tag";
    default:
      return nullptr;
  }
}

RecordWalk::RecordWalk(CKespDataFile& file, DeletedRecords deleted, std::uint64_t start, SecondThread secondThread)
    : m_file(file), m_deleted(deleted) {
  if (start == 0) {
    m_file.SeekToFirstRecord();
    if (secondThread == SecondThread::kReadsAhead) m_file.ReadAhead();
    return;
  }
  m_file.m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
  m_firstType = KESP_RECORD_HEADER;
}

CKespRecord* RecordWalk::Record() {
  if (m_record || m_hasEnded) return m_record.get();
  try {
    // Back to the header, which is still in the file's buffer. The file object seeks in 64 bits, the container in 32.
    m_file.m_file.Seek(static_cast<std::int64_t>(m_view.Position()), CFile::begin);
    m_record.reset(m_file.ReadNextRecord(false));
    if (!m_record) EndWith(m_file.GetError(), m_file.GetSystemError());
  } catch (const CFileException& e) {
    EndWith(e);
  }
  return m_record.get();
}

std::unique_ptr<CKespRecord> RecordWalk::TakeRecord() {
  (void)Record();
  return std::move(m_record);
}

// A view passes over most of a long tag. A file is only whole if all of it can be read.
bool RecordWalk::ReadAll() {
  if (Record() == nullptr) return false;
  m_file.m_file.Seek(static_cast<std::int64_t>(m_view.Position()), CFile::begin);
  if (m_file.ReadNextView(m_view, false)) return true;
  EndWith(m_file.GetError(), m_file.GetSystemError());
  return false;
}

void RecordWalk::EndWith(const CFileException& failure) {
  // A version-1 feature body that is cut short is raised where the others leave a code.
  EndWith(failure.m_cause == CFileException::endOfFile ? KESP_ERROR_EOF : KESP_ERROR_NONE, failure.m_lOsError);
}

void RecordWalk::EndWith(KESP_ERROR_TYPE error, int systemError) {
  if (std::exchange(m_hasEnded, true)) return;
  m_file.m_file.EndBlockReader();
  m_end.error = error;
  m_end.message = m_file.m_errorStrings[error];
  m_end.offset = m_view.Position();
  if (error == KESP_ERROR_NONE && systemError != 0) {
    m_end.cause = Verdict::Cause::kUnreadable;
    m_end.systemError = systemError;
  } else if (error != KESP_ERROR_NORMAL_EOF) {
    m_end.cause = Verdict::Cause::kDamaged;
  } else if (m_view.Position() > m_file.m_file.KnownLength()) {
    m_end.cause = Verdict::Cause::kPastEnd;
    m_end.offset = m_passedOver;
  } else if (m_firstType != KESP_RECORD_HEADER) {
    m_end.cause = Verdict::Cause::kNoHeader;
    m_end.offset = m_file.m_firstRecordOffset;
  }
}

}  // namespace kesp::tool
