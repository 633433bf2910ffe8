#include "kesp/records/KespAttribute.h"

#include "kesp/format/RecordKinds.h"
#include "kesp/records/BodyIo.h"
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
  try {
    switch (m_recordVersion) {
      case 1:
        return ReadVersion1(file);
      case 2:
        return ReadVersion2(file);
      case 3:
        return ReadVersion3(file);
      default:
        return true;  // unknown: accepted as empty, so that the walk continues
    }
  } catch (const CFileException&) {
    return false;
  }
}

bool CKespAttribute::ReadVersion3(CFile& file) {
  m_error = KESP_ERROR_NONE;
  if (m_recordVersion != 3) return ReadVersion2(file);
  kesp::ReadBody(file, *this, kesp::kAttributeVersion3, KESP_ERROR_EOF);
  if (!IsKnownKind()) AttributeKind = KESP_ATTRIBUTE_NUMERIC;
  return true;
}

bool CKespAttribute::ReadVersion2(CFile& file) {
  m_error = KESP_ERROR_NONE;
  if (m_recordVersion != 2) return ReadVersion1(file);
  kesp::ReadBody(file, *this, kesp::kAttributeVersion2, KESP_ERROR_EOF);
  if (!IsKnownKind()) AttributeKind = KESP_ATTRIBUTE_NUMERIC;
  return true;
}

bool CKespAttribute::ReadVersion1(CFile& file) {
  if (m_recordVersion != 1) return false;
  kesp::ReadBody(file, *this, kesp::kAttributeVersion1, KESP_ERROR_EOF);
  // Version 1 refuses an unknown kind, later versions repair it: hosts detect damage in old files by this error.
  if (!IsKnownKind()) m_error = KESP_ERROR_ATTRIBUTE_TYPE;
  return m_error == KESP_ERROR_NONE;
}

bool CKespAttribute::IsKnownKind() const noexcept {
  return AttributeKind >= KESP_ATTRIBUTE_STRING && AttributeKind <= KESP_ATTRIBUTE_OTHER;
}

bool CKespAttribute::Write(CFile& file, unsigned long sourceFlag, unsigned short version) {
  try {
    switch (version) {
      case 1:
        return WriteVersion1(file, sourceFlag, version);
      case 2:
        return WriteVersion2(file, sourceFlag, version);
      default:
        return WriteVersion3(file, sourceFlag, version);
    }
  } catch (const CFileException&) {
    return false;
  }
}

// Both newer writers apply the source flag before they pass an older version on. So a version-2 write that goes through
// both applies it twice, and one that ends in version 1 at least once.
bool CKespAttribute::WriteVersion3(CFile& file, unsigned long sourceFlag, unsigned short version) {
  const unsigned short resolved = OwnVersionIfZero(version);
  SetSourceFlag(sourceFlag);
  if (resolved == 2) return WriteVersion2(file, sourceFlag, 2);
  if (resolved != 3) return WriteVersion1(file, sourceFlag, resolved);
  kesp::WriteBody(file, *this, kesp::kAttributeVersion3);
  return true;
}

bool CKespAttribute::WriteVersion2(CFile& file, unsigned long sourceFlag, unsigned short version) {
  const unsigned short resolved = OwnVersionIfZero(version);
  SetSourceFlag(sourceFlag);
  if (resolved == 3) return WriteVersion3(file, sourceFlag, resolved);
  if (resolved != 2) return WriteVersion1(file, sourceFlag, resolved);
  kesp::WriteBody(file, *this, kesp::kAttributeVersion2);
  return true;
}

bool CKespAttribute::WriteVersion1(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  if (version != 1) return false;
  kesp::WriteBody(file, *this, kesp::kAttributeVersion1);
  return true;
}

bool CKespAttribute::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const attribute = dynamic_cast<const CKespAttribute*>(other);
  return attribute != nullptr && attribute->FeatureNumber == FeatureNumber && attribute->AttributeName == AttributeName;
}

unsigned short CKespAttribute::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kespVersion == 1 ? 1 : 3;
}

bool CKespAttribute::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  const unsigned short version = OwnVersionIfZero(recordVersion);
  if (version < 1 || version > 3) return false;
  kespVersion = version;
  return true;
}
