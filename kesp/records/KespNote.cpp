#include "kesp/records/KespNote.h"

#include "kesp/format/BodyIo.h"
#include "kesp/format/HeaderNotes.h"
#include "kesp/format/RecordKinds.h"

unsigned long CKespNote::GetLength(unsigned short version) {
  return kesp::BodyLengthOf(KESP_RECORD_NOTE, OwnVersionIfZero(version));
}

bool CKespNote::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  return kesp::FalseWhenFileFails([&] { return kesp::ReadBody(file, *this, kesp::kNoteBodies, m_recordVersion); });
}

bool CKespNote::ReadOldVersions(CFile& file) {
  return m_recordVersion == 1 && kesp::ReadBody(file, *this, kesp::kNoteBodies, 1);
}

bool CKespNote::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  return kesp::FalseWhenFileFails(
      [&] { return kesp::WriteBody(file, *this, kesp::kNoteBodies, OwnVersionIfZero(version)); });
}

bool CKespNote::WriteOldVersions(CFile& file, unsigned short version) {
  return version == 1 && kesp::WriteBody(file, *this, kesp::kNoteBodies, version);
}

bool CKespNote::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const note = dynamic_cast<const CKespNote*>(other);
  return note != nullptr &&
         note->NoteText.View().substr(0, kesp::kNoteTagLength) == NoteText.View().substr(0, kesp::kNoteTagLength);
}

unsigned short CKespNote::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionFor(KESP_RECORD_NOTE, kespVersion);
}

bool CKespNote::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  return kesp::OldestFileVersion(KESP_RECORD_NOTE, OwnVersionIfZero(recordVersion), kespVersion);
}
