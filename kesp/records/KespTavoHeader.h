// The header record: the first record of a file, which describes the file as a whole.
//
// The library uses only the clean-close mark, the file version, the extents, the times and the counts. The texts,
// HeaderShort, SpareCount and the extension slots belong to the host; they are stored and read back unchanged, except
// that a text longer than its limit is cut when written.
//
// Bodies: version 1 has 928 bytes, version 2 has 4086; see docs/file-format.md for the offsets.
#pragma once
#include <array>
#include <cstdint>

#include "kesp/platform/String.h"
#include "kesp/records/KespRecord.h"

class KESP_EXPORT CKespTavoHeader : public CKespRecord {
 public:
  CKespTavoHeader();  // all 0 or empty, CreationTime now, KespVersion 2

  // Whether the last writer closed the file properly. Always false for a version-1 header read from a file, which has
  // no such mark.
  bool WasCleanClose() const noexcept;
  void SetCleanClose(bool clean) noexcept;

  unsigned long GetLength(unsigned short version) override;  // 928 or 4086; 0 for an unknown version
  bool Read(CFile& file) override;  // cut short: KESP_ERROR_APP_HEADER in version 2, _EOF in version 1
  // A `version` of 1 or 2 is also stored in KespVersion, before anything is written; 0 leaves that unchanged. A
  // version-1 body is written with zeros for CreationTime and HeaderShort, although Read takes them from it.
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  std::uint32_t StatusFlags;   // bit 0: closed cleanly; other bits are kept
  std::uint32_t CreationTime;  // seconds since 1970 UTC
  CString HeaderText1;         // at most 20 characters
  CString HeaderText2;         // 255
  CString HeaderText3;         // 255
  CString HeaderText4;         // 255
  std::uint16_t HeaderShort;
  CString HeaderText6;            // 255; from here on version 2 only, except HeaderText5
  CString HeaderText7;            // 255
  std::uint32_t KespVersion = 2;  // file version: 1, 2 or 3
  double ExtentMinX;              // the extent given by the host
  double ExtentMaxX;
  double ExtentMinY;
  double ExtentMaxY;
  double DataExtent1;  // extent of all points: minimum X, maximum X, minimum Y, maximum Y
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
  // Resets every member but KespVersion to its default, CreationTime to now.
  void Init();
  bool ReadOldVersions(CFile& file);
  bool WriteOldVersions(CFile& file, unsigned short version);
};
