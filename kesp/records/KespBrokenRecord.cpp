#include "kesp/records/KespBrokenRecord.h"

unsigned long CKespBrokenRecord::GetLength(unsigned short /*version*/) { return 0; }
bool CKespBrokenRecord::Read(CFile& /*file*/) { return false; }
bool CKespBrokenRecord::Write(CFile& /*file*/, unsigned long /*sourceFlag*/, unsigned short /*version*/) {
  return true;
}
bool CKespBrokenRecord::IsSameKespRecord(CKespRecord* /*other*/) { return false; }
unsigned short CKespBrokenRecord::GetRecordVersionFromKespVersion(unsigned short /*kespVersion*/) { return 2; }
bool CKespBrokenRecord::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion,
                                                               unsigned short recordVersion) {
  const unsigned short version = OwnVersionIfZero(recordVersion);
  if (version != 1 && version != 2) return false;
  kespVersion = version;
  return true;
}
