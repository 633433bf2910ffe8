#include "kesp/records/KespNote.h"

#include "kesp/format/HeaderNotes.h"
#include "kesp/format/RecordKinds.h"
#include "kesp/records/BodyIo.h"
#include "kesp/records/VersionTables.h"

namespace {}  // namespace

unsigned long CKespNote::GetLength(unsigned short version) {
  return kesp::BodyLengthOf(KESP_RECORD_NOTE, OwnVersionIfZero(version));
}

bool CKespNote::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  try {
    if (m_recordVersion != 2) return ReadOldVersions(file);
    kesp::ReadBody(file, *this, kesp::kNoteVersion2, KESP_ERROR_EOF);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespNote::ReadOldVersions(CFile& file) {
  if (m_recordVersion != 1) return false;
  kesp::ReadBody(file, *this, kesp::kNoteVersion1, KESP_ERROR_EOF);
  return true;
}

bool CKespNote::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  const unsigned short resolved = OwnVersionIfZero(version);
  try {
    if (resolved != 2) return WriteOldVersions(file, resolved);
    kesp::WriteBody(file, *this, kesp::kNoteVersion2);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespNote::WriteOldVersions(CFile& file, unsigned short version) {
  if (version != 1) return false;
  kesp::WriteBody(file, *this, kesp::kNoteVersion1);
  return true;
}

bool CKespNote::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const note = dynamic_cast<const CKespNote*>(other);
  return note != nullptr &&
         note->NoteText.View().substr(0, kesp::kNoteTagLength) == NoteText.View().substr(0, kesp::kNoteTagLength);
}

unsigned short CKespNote::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionUpTo2(kespVersion);
}

bool CKespNote::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  return kesp::MinimumKespVersionUpTo2(kespVersion, OwnVersionIfZero(recordVersion));
}
