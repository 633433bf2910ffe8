#include "kesp/records/KespTavoHeader.h"

#include "kesp/format/RecordKinds.h"
#include "kesp/platform/Time.h"
#include "kesp/records/BodyIo.h"
#include "kesp/records/VersionTables.h"

namespace {

constexpr std::uint32_t kCleanClose = 1;  // in StatusFlags

}  // namespace

CKespTavoHeader::CKespTavoHeader() : CKespRecord(KESP_RECORD_HEADER, 2) { Init(); }

void CKespTavoHeader::Init() {
  StatusFlags = 0;
  CreationTime = static_cast<std::uint32_t>(CTime::GetCurrentTime().GetTime());
  for (CString* text : {&HeaderText1, &HeaderText2, &HeaderText3, &HeaderText4, &HeaderText5, &HeaderText6,
                        &HeaderText7, &LastPointText, &SlotText1, &SlotText2}) {
    text->Empty();
  }
  HeaderShort = 0;
  ExtentMinX = ExtentMaxX = ExtentMinY = ExtentMaxY = 0;
  DataExtent1 = DataExtent2 = DataExtent3 = DataExtent4 = 0;
  FirstPointTime = LastPointTime = 0;
  PointCount = FeatureCount = SpareCount = 0;
  SlotWord1 = SlotWord2 = SlotWord3 = SlotWord4 = 0;
  SlotBytes3 = {};
  SlotBytes4 = {};
}

bool CKespTavoHeader::WasCleanClose() const noexcept { return (StatusFlags & kCleanClose) != 0; }

void CKespTavoHeader::SetCleanClose(bool clean) noexcept {
  StatusFlags = clean ? StatusFlags | kCleanClose : StatusFlags & ~kCleanClose;
}

unsigned long CKespTavoHeader::GetLength(unsigned short version) {
  return kesp::BodyLengthOf(KESP_RECORD_HEADER, OwnVersionIfZero(version));
}

bool CKespTavoHeader::Read(CFile& file) {
  Init();
  m_error = KESP_ERROR_NONE;
  try {
    if (m_recordVersion != 2) return ReadOldVersions(file);
    kesp::ReadBody(file, *this, kesp::kHeaderVersion2, KESP_ERROR_APP_HEADER);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespTavoHeader::ReadOldVersions(CFile& file) {
  if (m_recordVersion != 1) return false;
  KespVersion = 1;
  kesp::ReadBody(file, *this, kesp::kHeaderVersion1, KESP_ERROR_EOF);
  return true;
}

bool CKespTavoHeader::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  if (version == 1 || version == 2) KespVersion = version;
  const unsigned short resolved = OwnVersionIfZero(version);
  try {
    if (resolved != 2) return WriteOldVersions(file, resolved);
    kesp::WriteBody(file, *this, kesp::kHeaderVersion2);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespTavoHeader::WriteOldVersions(CFile& file, unsigned short version) {
  if (version != 1) return false;
  kesp::WriteBody(file, *this, kesp::kHeaderVersion1AsWritten);
  return true;
}

unsigned short CKespTavoHeader::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionUpTo2(kespVersion);
}

bool CKespTavoHeader::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion,
                                                             unsigned short recordVersion) {
  return kesp::MinimumKespVersionUpTo2(kespVersion, OwnVersionIfZero(recordVersion));
}
