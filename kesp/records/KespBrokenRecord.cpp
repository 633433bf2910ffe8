#include "kesp/records/KespBrokenRecord.h"

#include "kesp/records/VersionTables.h"

unsigned long CKespBrokenRecord::GetLength(unsigned short /*version*/) { return 0; }
bool CKespBrokenRecord::Read(CFile& /*file*/) { return false; }
bool CKespBrokenRecord::Write(CFile& /*file*/, unsigned long /*sourceFlag*/, unsigned short /*version*/) {
  return true;
}
bool CKespBrokenRecord::IsSameKespRecord(CKespRecord* /*other*/) { return false; }
unsigned short CKespBrokenRecord::GetRecordVersionFromKespVersion(unsigned short /*kespVersion*/) { return 2; }
bool CKespBrokenRecord::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion,
                                                               unsigned short recordVersion) {
  return kesp::MinimumKespVersionUpTo2(kespVersion, OwnVersionIfZero(recordVersion));
}
