// One named value that describes a feature: a text, a number, a choice from a menu, or a date.
//
// The host decides what the auxiliary members and the appearance blocks mean. The library copies them, and writes those
// that a body has a field for: AuxNumber1, AuxNumber2 and AuxText in each version, AuxNumber3 and AuxNumber4 in version
// 3 only, AuxWords, AuxFlag and the appearance blocks never.
//
// Texts are cut to the widths of the version written: name 20, 20, 255 characters in versions 1, 2, 3; TextValue 40,
// 40, 255; SubValue 20, 20, 255; AuxText 20, 20, 63.
//
// Errors: Read of a version-1 body with a kind outside 1 to 5 fills all fields, but returns false with
// KESP_ERROR_ATTRIBUTE_TYPE. In versions 2 and 3 such a kind becomes numeric without an error. Read accepts a record of
// an unknown version and reads nothing.
#pragma once
#include <array>
#include <cstdint>

#include "kesp/platform/String.h"
#include "kesp/records/AttributeAppearance.h"
#include "kesp/records/KespRecord.h"

// Kinds of value. Written to the file: never renumber.
enum KESP_ATTRIBUTE_KIND : std::int32_t {
  KESP_ATTRIBUTE_STRING = 1,   // TextValue
  KESP_ATTRIBUTE_NUMERIC = 2,  // Value, shown with Decimals places
  KESP_ATTRIBUTE_MENU = 3,     // TextValue, and SubValue for a second level
  KESP_ATTRIBUTE_DATE = 4,     // Value: days since 30 December 1899, 0 for no date
  KESP_ATTRIBUTE_OTHER = 5     // no text form
};

class KESP_EXPORT CKespAttribute : public CKespRecord {
 public:
  CKespAttribute() noexcept : CKespRecord(KESP_RECORD_ATTRIBUTE, 3) {}

  unsigned long GetFeatureNumber() const noexcept { return FeatureNumber; }
  bool SetFeatureNumber(unsigned long featureNumber, unsigned long = 0) noexcept;  // the second argument is ignored
  // Whether both hold the same value: TextValue, SubValue and Value. Names and kinds don't matter.
  bool IsEqual(const CKespAttribute& other) const noexcept;
  bool HasFormPosition() const noexcept { return FormAppearance.HasPosition(); }
  // Returns the value as display text. The integer part of a number is grouped unless `noGrouping`.
  CString GetAsFormatedString(bool noGrouping) const;

  unsigned long GetLength(unsigned short version) override;  // 138, 240 or 1712; 0 for an unknown version
  bool Read(CFile& file) override;
  // Writing version 2 or 3 applies the source flag to this record once more; writing version 1 does not.
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;
  bool IsSameKespRecord(CKespRecord* other) override;  // an attribute of the same feature and exactly the same name
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  std::array<std::uint32_t, 2> AuxWords{};
  CString AttributeName;
  std::int32_t AttributeKind = KESP_ATTRIBUTE_STRING;  // KESP_ATTRIBUTE_KIND; the low 16 bits on disk
  CString TextValue;
  CString SubValue;
  double AuxNumber1 = 0;
  double AuxNumber2 = 0;
  std::uint16_t Decimals = 0;
  CString AuxText;
  bool AuxFlag = false;
  double Value = 0;
  double AuxNumber3 = 0;
  double AuxNumber4 = 0;
  CAttributeAppearance FormAppearance;
  CAttributeAppearance SecondAppearance;
  std::uint32_t FeatureNumber = 0;

 protected:
  bool ReadVersion1(CFile& file);
  bool ReadVersion2(CFile& file);
  bool ReadVersion3(CFile& file);
  bool WriteVersion1(CFile& file, unsigned long sourceFlag, unsigned short version);
  bool WriteVersion2(CFile& file, unsigned long sourceFlag, unsigned short version);
  bool WriteVersion3(CFile& file, unsigned long sourceFlag, unsigned short version);

 private:
  // Reads the body; returns false if m_recordVersion is greater than `newest`, or unknown.
  bool ReadUpTo(unsigned newest, CFile& file);
};
