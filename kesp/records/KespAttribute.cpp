#include "kesp/records/KespAttribute.h"

#include "kesp/format/BodyIo.h"
#include "kesp/format/RecordKinds.h"
#include "kesp/util/Utilities.h"

bool CKespAttribute::SetFeatureNumber(unsigned long featureNumber, unsigned long) noexcept {
  FeatureNumber = static_cast<std::uint32_t>(featureNumber);
  return true;
}

bool CKespAttribute::IsEqual(const CKespAttribute& other) const noexcept {
  return TextValue == other.TextValue && SubValue == other.SubValue && Value == other.Value;
}

CString CKespAttribute::GetAsFormatedString(bool noGrouping) const {
  switch (AttributeKind) {
    case KESP_ATTRIBUTE_STRING:
      return TextValue;
    case KESP_ATTRIBUTE_NUMERIC:
      return FormatDouble(Value, Decimals, noGrouping);
    case KESP_ATTRIBUTE_MENU:
      return SubValue.IsEmpty() ? TextValue : TextValue + u"/" + SubValue;
    case KESP_ATTRIBUTE_DATE:
      return GetDateString(Value);
    default:
      return {};
  }
}

unsigned long CKespAttribute::GetLength(unsigned short version) {
  return kesp::BodyLengthOf(KESP_RECORD_ATTRIBUTE, OwnVersionIfZero(version));
}

bool CKespAttribute::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  // Unknown: accepted as empty, so that the walk continues.
  if (m_recordVersion == 0 || m_recordVersion > kesp::NewestOf(kesp::kAttributeBodies)) return true;
  return kesp::FalseWhenFileFails([&] { return ReadUpTo(m_recordVersion, file); });
}

bool CKespAttribute::ReadVersion3(CFile& file) {
  m_error = KESP_ERROR_NONE;
  return ReadUpTo(3, file);
}

bool CKespAttribute::ReadVersion2(CFile& file) {
  m_error = KESP_ERROR_NONE;
  return ReadUpTo(2, file);
}

bool CKespAttribute::ReadVersion1(CFile& file) { return ReadUpTo(1, file); }

bool CKespAttribute::ReadUpTo(unsigned newest, CFile& file) {
  if (m_recordVersion > newest) return false;
  if (!kesp::ReadBody(file, *this, kesp::kAttributeBodies, m_recordVersion)) return false;
  if (AttributeKind < KESP_ATTRIBUTE_STRING || AttributeKind > KESP_ATTRIBUTE_OTHER) {
    // Version 1 refuses an unknown kind, later versions repair it: hosts detect damage in old files by this error.
    if (m_recordVersion == 1) {
      m_error = KESP_ERROR_ATTRIBUTE_TYPE;
    } else {
      AttributeKind = KESP_ATTRIBUTE_NUMERIC;
    }
  }
  return m_error == KESP_ERROR_NONE;
}

bool CKespAttribute::Write(CFile& file, unsigned long sourceFlag, unsigned short version) {
  return kesp::FalseWhenFileFails([&] {
    if (version == 1) return WriteVersion1(file, sourceFlag, version);
    if (version == 2) return WriteVersion2(file, sourceFlag, version);
    return WriteVersion3(file, sourceFlag, version);
  });
}

// Both newer writers apply the source flag. They apply it twice when they write the other's version: the second time
// can change the flag word again.
bool CKespAttribute::WriteVersion3(CFile& file, unsigned long sourceFlag, unsigned short version) {
  const unsigned short resolved = OwnVersionIfZero(version);
  SetSourceFlag(sourceFlag);
  if (resolved == 2) SetSourceFlag(sourceFlag);
  return kesp::WriteBody(file, *this, kesp::kAttributeBodies, resolved);
}

bool CKespAttribute::WriteVersion2(CFile& file, unsigned long sourceFlag, unsigned short version) {
  const unsigned short resolved = OwnVersionIfZero(version);
  SetSourceFlag(sourceFlag);
  if (resolved == 3) SetSourceFlag(sourceFlag);
  return kesp::WriteBody(file, *this, kesp::kAttributeBodies, resolved);
}

bool CKespAttribute::WriteVersion1(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  return version == 1 && kesp::WriteBody(file, *this, kesp::kAttributeBodies, version);
}

bool CKespAttribute::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const attribute = dynamic_cast<const CKespAttribute*>(other);
  return attribute != nullptr && attribute->FeatureNumber == FeatureNumber && attribute->AttributeName == AttributeName;
}

unsigned short CKespAttribute::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionFor(KESP_RECORD_ATTRIBUTE, kespVersion);
}

bool CKespAttribute::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  return kesp::OldestFileVersion(KESP_RECORD_ATTRIBUTE, OwnVersionIfZero(recordVersion), kespVersion);
}
