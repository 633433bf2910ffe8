#include "kesp/records/KespFeatureEnd.h"

#include "kesp/format/BodyIo.h"
#include "kesp/format/RecordKinds.h"

bool CKespFeatureEnd::SetFeatureNumber(unsigned long featureNumber, unsigned long) noexcept {
  FeatureNumber = static_cast<std::uint32_t>(featureNumber);
  return true;
}

// The layout is the same whatever the version.
unsigned long CKespFeatureEnd::GetLength(unsigned short /*version*/) {
  return kesp::BodyLengthOf(KESP_RECORD_FEATURE_END, 1);
}

bool CKespFeatureEnd::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  return kesp::FalseWhenFileFails([&] { return kesp::ReadBody(file, *this, kesp::kFeatureEndBodies, 1); });
}

bool CKespFeatureEnd::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short /*version*/) {
  return kesp::FalseWhenFileFails([&] { return kesp::WriteBody(file, *this, kesp::kFeatureEndBodies, 1); });
}

bool CKespFeatureEnd::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const end = dynamic_cast<const CKespFeatureEnd*>(other);
  return end != nullptr && end->FeatureNumber == FeatureNumber;
}

unsigned short CKespFeatureEnd::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionFor(KESP_RECORD_FEATURE_END, kespVersion);
}

bool CKespFeatureEnd::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion,
                                                             unsigned short recordVersion) {
  return kesp::OldestFileVersion(KESP_RECORD_FEATURE_END, OwnVersionIfZero(recordVersion), kespVersion);
}
