#include "kesp/records/KespPoint.h"

#include "kesp/records/BodyIo.h"
#include "kesp/records/VersionTables.h"

namespace {

constexpr std::uint32_t kHighestOldStatus = 10;  // what a version-1 body can hand on

constexpr auto kPosition = [](auto& v, auto& p) {
  v.U32(p.PointTime);
  v.F64(p.CoordY);
  v.F64(p.CoordX);
  v.F64(p.CoordZ);
  v.F64(p.GpsValue);
  v.U16(p.SignalStatus);
};
constexpr auto kVersion1 = [](auto& v, auto& p) {
  v.U32(p.FeatureNumber);        // 0
  v.U32(p.PointNumber);          // 4
  v.Text8(p.PointText, 22, 20);  // 8
  kPosition(v, p);               // 30
};
constexpr auto kVersion2 = [](auto& v, auto& p) {
  v.U32(p.FeatureNumber);     // 0
  v.U32(p.PointNumber);       // 4
  v.Text16(p.PointText, 21);  // 8
  kPosition(v, p);            // 50
  v.U16(p.GpsNumber);         // 88, behind the status although it stands before it in memory
  v.U16(p.HasOffset);         // 90
  v.F64(p.Offset1);           // 92
  v.F64(p.Offset2);           // 100
};

}  // namespace

bool CKespPoint::SetFeatureNumber(unsigned long featureNumber, unsigned long, bool) noexcept {
  FeatureNumber = static_cast<std::uint32_t>(featureNumber);
  return true;
}

void CKespPoint::SetOffset(double first, double second) noexcept {
  Offset1 = first;
  Offset2 = second;
  HasOffset = 1;
}

bool CKespPoint::GetOffset(double& first, double& second) const noexcept {
  first = Offset1;
  second = Offset2;
  return HasOffset == 1;
}

unsigned long CKespPoint::GetLength(unsigned short version) {
  switch (OwnVersionIfZero(version)) {
    case 1:
      return kesp::BodyLength(*this, kVersion1);
    case 2:
      return kesp::BodyLength(*this, kVersion2);
    default:
      return 0;
  }
}

bool CKespPoint::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  try {
    if (m_recordVersion != 2) return ReadOldVersions(file);
    kesp::ReadBody(file, *this, kVersion2, KESP_ERROR_EOF);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespPoint::ReadOldVersions(CFile& file) {
  if (m_recordVersion != 1) return false;
  kesp::ReadBody(file, *this, kVersion1, KESP_ERROR_EOF);
  if (SignalStatus > kHighestOldStatus) SignalStatus = KESP_SIGNAL_STATUS_10;
  GpsNumber = 0;
  return true;
}

bool CKespPoint::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  const unsigned short resolved = OwnVersionIfZero(version);
  try {
    if (resolved != 2) return WriteOldVersions(file, resolved);
    kesp::WriteBody(file, *this, kVersion2);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespPoint::WriteOldVersions(CFile& file, unsigned short version) {
  if (version != 1) return false;
  kesp::WriteBody(file, *this, kVersion1);
  return true;
}

bool CKespPoint::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const point = dynamic_cast<const CKespPoint*>(other);
  return point != nullptr && point->FeatureNumber == FeatureNumber && point->PointNumber == PointNumber;
}

unsigned short CKespPoint::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionUpTo2(kespVersion);
}

bool CKespPoint::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  return kesp::MinimumKespVersionUpTo2(kespVersion, OwnVersionIfZero(recordVersion));
}
