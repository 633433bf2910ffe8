#include "kesp/records/KespTavoHeader.h"

#include "kesp/platform/Time.h"
#include "kesp/records/BodyIo.h"
#include "kesp/records/VersionTables.h"

namespace {

constexpr std::uint32_t kCleanClose = 1;  // in StatusFlags

constexpr auto kTexts1 = [](auto& v, auto& h) {
  v.Text8(h.HeaderText1, 21);   // 10
  v.Text8(h.HeaderText2, 256);  // 31
  v.Text8(h.HeaderText3, 256);  // 287
  v.Text8(h.HeaderText4, 256);  // 543
  v.Text8(h.HeaderText5, 128);  // 799
  v.Skip(1);                    // 927
};
// The two directions differ: what a reader takes from the first ten bytes a writer leaves zero, so that an old file's
// time survives reading and a new one claims none.
constexpr auto kReadVersion1 = [](auto& v, auto& h) {
  v.Skip(4);              // 0
  v.U32(h.CreationTime);  // 4
  v.U16(h.HeaderShort);   // 8
  kTexts1(v, h);
};
constexpr auto kWriteVersion1 = [](auto& v, auto& h) {
  v.Skip(10);
  kTexts1(v, h);
};

constexpr auto kVersion2 = [](auto& v, auto& h) {
  v.U32(h.StatusFlags);           // 0
  v.U32(h.CreationTime);          // 4
  v.U16(h.HeaderShort);           // 8
  v.Text16(h.HeaderText1, 21);    // 10
  v.Text16(h.HeaderText2, 256);   // 52
  v.Text16(h.HeaderText3, 256);   // 564
  v.Text16(h.HeaderText4, 256);   // 1076
  v.Text16(h.HeaderText5, 128);   // 1588
  v.Text16(h.HeaderText6, 256);   // 1844
  v.Text16(h.HeaderText7, 256);   // 2356
  v.U32(h.KespVersion);           // 2868
  v.F64(h.ExtentMinX);            // 2872
  v.F64(h.ExtentMaxX);            // 2880
  v.F64(h.ExtentMinY);            // 2888
  v.F64(h.ExtentMaxY);            // 2896
  v.F64(h.DataExtent1);           // 2904
  v.F64(h.DataExtent2);           // 2912
  v.F64(h.DataExtent3);           // 2920
  v.F64(h.DataExtent4);           // 2928
  v.U32(h.PointCount);            // 2936
  v.U32(h.FeatureCount);          // 2940
  v.U32(h.SpareCount);            // 2944
  v.U32(h.FirstPointTime);        // 2948
  v.U32(h.LastPointTime);         // 2952
  v.Text16(h.LastPointText, 21);  // 2956
  v.U32(h.SlotWord1);             // 2998
  v.Text16(h.SlotText1, 256);     // 3002
  v.U32(h.SlotWord2);             // 3514
  v.Text16(h.SlotText2, 256);     // 3518
  v.U32(h.SlotWord3);             // 4030
  v.Raw(h.SlotBytes3);            // 4034
  v.U32(h.SlotWord4);             // 4066
  v.Raw(h.SlotBytes4);            // 4070
};

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
  switch (OwnVersionIfZero(version)) {
    case 1:
      return kesp::BodyLength(*this, kWriteVersion1);
    case 2:
      return kesp::BodyLength(*this, kVersion2);
    default:
      return 0;
  }
}

bool CKespTavoHeader::Read(CFile& file) {
  Init();
  m_error = KESP_ERROR_NONE;
  try {
    if (m_recordVersion != 2) return ReadOldVersions(file);
    kesp::ReadBody(file, *this, kVersion2, KESP_ERROR_APP_HEADER);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespTavoHeader::ReadOldVersions(CFile& file) {
  if (m_recordVersion != 1) return false;
  KespVersion = 1;
  kesp::ReadBody(file, *this, kReadVersion1, KESP_ERROR_EOF);
  return true;
}

bool CKespTavoHeader::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  if (version == 1 || version == 2) KespVersion = version;
  const unsigned short resolved = OwnVersionIfZero(version);
  try {
    if (resolved != 2) return WriteOldVersions(file, resolved);
    kesp::WriteBody(file, *this, kVersion2);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespTavoHeader::WriteOldVersions(CFile& file, unsigned short version) {
  if (version != 1) return false;
  kesp::WriteBody(file, *this, kWriteVersion1);
  return true;
}

unsigned short CKespTavoHeader::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionUpTo2(kespVersion);
}

bool CKespTavoHeader::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion,
                                                             unsigned short recordVersion) {
  return kesp::MinimumKespVersionUpTo2(kespVersion, OwnVersionIfZero(recordVersion));
}
