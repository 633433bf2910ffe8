#include "kesp/records/KespPoint.h"

#include "kesp/format/BodyIo.h"
#include "kesp/format/RecordKinds.h"

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
  return kesp::FalseWhenFileFails([&] {
    if (m_recordVersion == 1) return ReadOldVersions(file);
    return kesp::ReadBody(file, *this, kesp::kPointBodies, m_recordVersion);
  });
}

bool CKespPoint::ReadOldVersions(CFile& file) {
  if (m_recordVersion != 1) return false;
  kesp::ReadBody(file, *this, kesp::kPointBodies, 1);
  if (SignalStatus > kHighestOldStatus) SignalStatus = KESP_SIGNAL_STATUS_10;
  GpsNumber = 0;
  return true;
}

bool CKespPoint::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  return kesp::FalseWhenFileFails(
      [&] { return kesp::WriteBody(file, *this, kesp::kPointBodies, OwnVersionIfZero(version)); });
}

bool CKespPoint::WriteOldVersions(CFile& file, unsigned short version) {
  return version == 1 && kesp::WriteBody(file, *this, kesp::kPointBodies, version);
}

bool CKespPoint::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const point = dynamic_cast<const CKespPoint*>(other);
  return point != nullptr && point->FeatureNumber == FeatureNumber && point->PointNumber == PointNumber;
}

unsigned short CKespPoint::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionFor(KESP_RECORD_POINT, kespVersion);
}

bool CKespPoint::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  return kesp::OldestFileVersion(KESP_RECORD_POINT, OwnVersionIfZero(recordVersion), kespVersion);
}
