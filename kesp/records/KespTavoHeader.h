// The header record: the first record of every file, describing the file as a whole.
//
// The library gives a meaning only to the clean-close mark, the file version, the extents, the times and the counts;
// the texts, HeaderShort, SpareCount and the extension slots are the host's, stored and read back exactly. A text
// longer than its limit is cut when written.
//
// Bodies: version 1 has 928 bytes, version 2 has 4086; see docs/file-format.md for the offsets.
#pragma once
#include <array>
#include <cstdint>

#include "kesp/platform/String.h"
#include "kesp/records/KespRecord.h"

class KESP_EXPORT CKespTavoHeader : public CKespRecord {
 public:
  CKespTavoHeader();  // everything 0 or empty, CreationTime now, KespVersion 2

  // Whether the last writer closed the file properly. Never so for a version-1 header, which can't say it.
  bool WasCleanClose() const noexcept;
  void SetCleanClose(bool clean) noexcept;

  unsigned long GetLength(unsigned short version) override;  // 928 or 4086; 0 for an unknown version
  bool Read(CFile& file) override;  // a cut version-2 body leaves KESP_ERROR_APP_HEADER, a version-1 one KESP_ERROR_EOF
  // An explicit version of 1 or 2 is also recorded in KespVersion before anything is written; 0 leaves it alone. A
  // version-1 body has zeros for CreationTime and HeaderShort although its reader takes them.
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  std::uint32_t StatusFlags;   // bit 0: closed cleanly; the others are kept
  std::uint32_t CreationTime;  // seconds since 1970 UTC
  CString HeaderText1;         // at most 20 characters
  CString HeaderText2;         // 255
  CString HeaderText3;         // 255
  CString HeaderText4;         // 255
  std::uint16_t HeaderShort;
  CString HeaderText6;            // 255; version 2 only, like all that follows but HeaderText5
  CString HeaderText7;            // 255
  std::uint32_t KespVersion = 2;  // of the file: 1, 2 or 3
  double ExtentMinX;              // the extent given by the host
  double ExtentMaxX;
  double ExtentMinY;
  double ExtentMaxY;
  double DataExtent1;  // of all points: minimum and maximum X, minimum and maximum Y
  double DataExtent2;
  double DataExtent3;
  double DataExtent4;
  std::uint32_t FirstPointTime;  // seconds since 1970 UTC, low 32 bits
  std::uint32_t LastPointTime;
  CString LastPointText;  // 20 characters
  std::uint32_t PointCount;
  std::uint32_t FeatureCount;
  std::uint32_t SpareCount;
  std::uint32_t SlotWord1;
  std::uint32_t SlotWord2;
  std::uint32_t SlotWord3;
  std::uint32_t SlotWord4;
  CString SlotText1;  // 255
  CString SlotText2;  // 255
  std::array<std::uint8_t, 32> SlotBytes3;
  std::array<std::uint8_t, 16> SlotBytes4;
  CString HeaderText5;  // 127

 protected:
  // Every member but KespVersion back to its default, CreationTime to now.
  void Init();
  bool ReadOldVersions(CFile& file);
  bool WriteOldVersions(CFile& file, unsigned short version);
};
