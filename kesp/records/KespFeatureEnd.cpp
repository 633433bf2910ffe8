#include "kesp/records/KespFeatureEnd.h"

#include "kesp/format/Bodies.h"
#include "kesp/records/BodyIo.h"

bool CKespFeatureEnd::SetFeatureNumber(unsigned long featureNumber, unsigned long) noexcept {
  FeatureNumber = static_cast<std::uint32_t>(featureNumber);
  return true;
}

unsigned long CKespFeatureEnd::GetLength(unsigned short /*version*/) {
  return kesp::BodyLength(*this, kesp::kFeatureEndBody);
}

bool CKespFeatureEnd::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  try {
    kesp::ReadBody(file, *this, kesp::kFeatureEndBody, KESP_ERROR_EOF);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespFeatureEnd::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short /*version*/) {
  try {
    kesp::WriteBody(file, *this, kesp::kFeatureEndBody);
    return true;
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespFeatureEnd::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const end = dynamic_cast<const CKespFeatureEnd*>(other);
  return end != nullptr && end->FeatureNumber == FeatureNumber;
}

unsigned short CKespFeatureEnd::GetRecordVersionFromKespVersion(unsigned short /*kespVersion*/) { return 1; }

bool CKespFeatureEnd::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion,
                                                             unsigned short recordVersion) {
  if (OwnVersionIfZero(recordVersion) != 1) return false;
  kespVersion = 1;
  return true;
}
