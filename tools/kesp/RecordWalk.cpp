#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {
namespace {

// Types that the container passes over without reading them; 0 and the wide-character ones it refuses.
bool IsSteppedOver(KESP_RECORD_TYPE type) {
  constexpr std::uint32_t kFirstRefused = 10;
  constexpr std::uint32_t kLastRefused = 14;
  return TypeName(type) == nullptr && type != KESP_RECORD_NONE && (type < kFirstRefused || type > kLastRefused);
}

}  // namespace

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

RecordWalk::RecordWalk(CKespDataFile& file, DeletedRecords deleted) : m_file(file), m_deleted(deleted) {
  m_file.SeekToFirstRecord();
}

RecordWalk::Step RecordWalk::Next() {
  m_record.reset();
  try {
    m_offset = m_file.m_file.GetPosition();
    if (!m_file.ReadNextRecordHeader(m_type, m_version, m_flags, m_length)) {
      return EndWith(m_file.GetError(), m_file.GetSystemError());
    }
    if ((IsDeleted() && m_deleted == DeletedRecords::kPassOver) || IsSteppedOver(m_type)) {
      m_passedOver = m_offset;
      m_file.m_file.Seek(m_length, CFile::current);
      return Step::kPassedOver;
    }
    // Back to the header, which is still in the file's buffer. The file object seeks in 64 bits, the container in 32.
    m_file.m_file.Seek(static_cast<std::int64_t>(m_offset), CFile::begin);
    m_record.reset(m_file.ReadNextRecord(false));
    if (!m_record) return EndWith(m_file.GetError(), m_file.GetSystemError());
    if (!m_hasFirst) m_beginsWithHeader = m_type == KESP_RECORD_HEADER;
    m_hasFirst = true;
    return Step::kRecord;
  } catch (const CFileException& e) {
    // A version-1 feature body that is cut short is raised where the others leave a code.
    return EndWith(e.m_cause == CFileException::endOfFile ? KESP_ERROR_EOF : KESP_ERROR_NONE, e.m_lOsError);
  }
}

RecordWalk::Step RecordWalk::EndWith(KESP_ERROR_TYPE error, int systemError) {
  m_end.error = error;
  m_end.message = m_file.m_errorStrings[error];
  m_end.offset = m_offset;
  if (error == KESP_ERROR_NONE && systemError != 0) {
    m_end.cause = Verdict::Cause::kUnreadable;
    m_end.systemError = systemError;
  } else if (error != KESP_ERROR_NORMAL_EOF) {
    m_end.cause = Verdict::Cause::kDamaged;
  } else if (m_offset > m_file.m_file.KnownLength()) {
    m_end.cause = Verdict::Cause::kPastEnd;
    m_end.offset = m_passedOver;
  } else if (!m_beginsWithHeader) {
    m_end.cause = Verdict::Cause::kNoHeader;
    m_end.offset = m_file.m_firstRecordOffset;
  }
  return Step::kEnd;
}

}  // namespace kesp::tool
