// One measured position of a feature: a vertex of a line or area, or the place of a point feature.
//
// Version 1 has no GpsNumber and no offset: writing it loses them; reading it sets GpsNumber to 0 and leaves the offset
// unchanged. A SignalStatus above 10 becomes 10 when version 1 is read; version 2 takes any 16-bit value.
#pragma once
#include <cstdint>

#include "kesp/platform/String.h"
#include "kesp/records/KespRecord.h"

// GPS signal status, 0 to 10; a version-2 body may hold any 16-bit value. The string table has eleven status texts
// (33066 to 33076); the host decides which text belongs to which value.
enum KESP_SIGNAL_STATUS : std::uint32_t {
  KESP_SIGNAL_STATUS_0 = 0,
  KESP_SIGNAL_STATUS_1,
  KESP_SIGNAL_STATUS_2,
  KESP_SIGNAL_STATUS_3,
  KESP_SIGNAL_STATUS_4,
  KESP_SIGNAL_STATUS_5,
  KESP_SIGNAL_STATUS_6,
  KESP_SIGNAL_STATUS_7,
  KESP_SIGNAL_STATUS_8,
  KESP_SIGNAL_STATUS_9,
  KESP_SIGNAL_STATUS_10
};

class KESP_EXPORT CKespPoint : public CKespRecord {
 public:
  CKespPoint() noexcept : CKespRecord(KESP_RECORD_POINT, 2) {}

  unsigned long GetFeatureNumber() const noexcept { return FeatureNumber; }
  // The second and third arguments are ignored; a feature has the same signature.
  bool SetFeatureNumber(unsigned long featureNumber, unsigned long = 0, bool = false) noexcept;
  void SetOffset(double first, double second) noexcept;
  // Stores both values in any case; returns true when an offset is set.
  bool GetOffset(double& first, double& second) const noexcept;

  unsigned long GetLength(unsigned short version) override;  // 68 or 108; 0 for an unknown version
  bool Read(CFile& file) override;
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;
  bool IsSameKespRecord(CKespRecord* other) override;  // a point with both numbers equal
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  std::uint32_t PointNumber = 0;
  CString PointText;           // at most 20 characters are written
  std::int32_t PointTime = 0;  // seconds since 1970 UTC
  // The feature that the point belongs to. The member is here and not last so that a point takes 128 bytes, two cache
  // lines.
  std::uint32_t FeatureNumber = 0;
  double CoordY = 0;  // north
  double CoordX = 0;  // east
  double CoordZ = 0;  // height
  double GpsValue = 0;
  std::int32_t GpsNumber = 0;                              // the low 16 bits on disk, read as unsigned
  KESP_SIGNAL_STATUS SignalStatus = KESP_SIGNAL_STATUS_0;  // the low 16 bits on disk
  static constexpr std::uint32_t kHighestOldStatus = 10;   // the highest that reading version 1 returns
  double Offset1 = 0;
  double Offset2 = 0;
  std::uint16_t HasOffset = 0;  // 1 if the offset is set

 protected:
  bool ReadOldVersions(CFile& file);
  bool WriteOldVersions(CFile& file, unsigned short version);
};
