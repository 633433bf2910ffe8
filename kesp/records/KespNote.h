// A free-text record. It belongs to no feature.
//
// In files of version 1, notes right after the header that begin with "BMC:" and "ZOM:" hold what the header has no
// room for.
#pragma once
#include "kesp/platform/String.h"
#include "kesp/records/KespRecord.h"

class KESP_EXPORT CKespNote : public CKespRecord {
 public:
  CKespNote() noexcept : CKespRecord(KESP_RECORD_NOTE, 2) {}

  unsigned long GetLength(unsigned short version) override;  // 256 or 512; 0 for an unknown version
  bool Read(CFile& file) override;
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;
  // Whether the other is a note whose text begins with the same four characters: a tagged note replaces the stored one.
  bool IsSameKespRecord(CKespRecord* other) override;
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  CString NoteText;  // at most 255 characters are written, in version 1 only those before the first above U+00FF

 protected:
  bool ReadOldVersions(CFile& file);
  bool WriteOldVersions(CFile& file, unsigned short version);
};
