#include "kesp/records/KespTavoHeader.h"

#include "kesp/format/BodyIo.h"
#include "kesp/format/RecordKinds.h"
#include "kesp/platform/Time.h"

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
  return kesp::FalseWhenFileFails([&] {
    if (m_recordVersion == 1) return ReadOldVersions(file);
    return kesp::ReadBody(file, *this, kesp::kHeaderBodies, m_recordVersion, KESP_ERROR_APP_HEADER);
  });
}

bool CKespTavoHeader::ReadOldVersions(CFile& file) {
  if (m_recordVersion != 1) return false;
  KespVersion = 1;
  return kesp::ReadBody(file, *this, kesp::kHeaderBodies, 1);
}

bool CKespTavoHeader::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  if (version == 1 || version == 2) KespVersion = version;
  return kesp::FalseWhenFileFails(
      [&] { return kesp::WriteBody(file, *this, kesp::kHeaderBodiesAsWritten, OwnVersionIfZero(version)); });
}

bool CKespTavoHeader::WriteOldVersions(CFile& file, unsigned short version) {
  return version == 1 && kesp::WriteBody(file, *this, kesp::kHeaderBodiesAsWritten, version);
}

unsigned short CKespTavoHeader::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionFor(KESP_RECORD_HEADER, kespVersion);
}

bool CKespTavoHeader::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion,
                                                             unsigned short recordVersion) {
  return kesp::OldestFileVersion(KESP_RECORD_HEADER, OwnVersionIfZero(recordVersion), kespVersion);
}
