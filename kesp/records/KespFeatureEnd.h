// Marks the end of a feature in the file with the feature's number. The body has the same 4 bytes in every version.
#pragma once
#include <cstdint>

#include "kesp/records/KespRecord.h"

class KESP_EXPORT CKespFeatureEnd : public CKespRecord {
 public:
  CKespFeatureEnd() noexcept : CKespRecord(KESP_RECORD_FEATURE_END, 1) {}

  unsigned long GetFeatureNumber() const noexcept { return FeatureNumber; }
  bool SetFeatureNumber(unsigned long featureNumber, unsigned long = 0) noexcept;  // the second argument is ignored

  unsigned long GetLength(unsigned short version) override;
  bool Read(CFile& file) override;
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;
  bool IsSameKespRecord(CKespRecord* other) override;  // an end with the same number
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  std::uint32_t FeatureNumber = 0;
};
