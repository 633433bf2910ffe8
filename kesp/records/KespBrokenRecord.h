// A placeholder for a record that could not be read, so that a list can keep its place. The library makes none; the
// append operations skip it and return true.
#pragma once
#include "kesp/records/KespRecord.h"

class KESP_EXPORT CKespBrokenRecord : public CKespRecord {
 public:
  CKespBrokenRecord() noexcept : CKespRecord(KESP_RECORD_BROKEN, 0) {}

  unsigned long GetLength(unsigned short version) override;                            // 0
  bool Read(CFile& file) override;                                                     // false, reads nothing
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;  // true, writes nothing
  bool IsSameKespRecord(CKespRecord* other) override;                                  // false
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;
  KESP_ERROR_TYPE GetError() const noexcept { return m_error; }
};
