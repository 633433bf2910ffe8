#include "kesp/records/KespPoint.h"

#include "kesp/format/RecordKinds.h"
#include "kesp/records/BodyIo.h"
#include "kesp/records/VersionTables.h"

namespace {

constexpr std::uint32_t kHighestOldStatus = 10;  // the highest that reading version 1 returns

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
  return kesp::BodyLengthOf(KESP_RECORD_POINT, OwnVersionIfZero(version));
}

bool CKespPoint::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  try {
    if (m_recordVersion != 2) return ReadOldVersions(file);
    kesp::ReadBody(file, *this, kesp::kPointVersion2, KESP_ERROR_EOF);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespPoint::ReadOldVersions(CFile& file) {
  if (m_recordVersion != 1) return false;
  kesp::ReadBody(file, *this, kesp::kPointVersion1, KESP_ERROR_EOF);
  if (SignalStatus > kHighestOldStatus) SignalStatus = KESP_SIGNAL_STATUS_10;
  GpsNumber = 0;
  return true;
}

bool CKespPoint::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  const unsigned short resolved = OwnVersionIfZero(version);
  try {
    if (resolved != 2) return WriteOldVersions(file, resolved);
    kesp::WriteBody(file, *this, kesp::kPointVersion2);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespPoint::WriteOldVersions(CFile& file, unsigned short version) {
  if (version != 1) return false;
  kesp::WriteBody(file, *this, kesp::kPointVersion1);
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
