// Which feature a record belongs to while records come by: a feature's run goes from its record to its end record or to
// the next feature. Points and attributes in it with its number are the feature's; others are stragglers, or belong to
// nothing.
#pragma once
#include <cstdint>
#include <optional>

#include "kesp/format/RecordView.h"

namespace kesp::ogr {

class Run {
 public:
  // To be called for each feature and each end record.
  void See(const RecordView& record) noexcept {
    if (record.Type() == KESP_RECORD_FEATURE) {
      m_number = record.AsFeature().FeatureNumber();
    } else if (record.Type() == KESP_RECORD_FEATURE_END && Has(record.AsFeatureEnd().FeatureNumber())) {
      m_number.reset();
    }
  }
  bool Has(std::uint32_t number) const noexcept { return m_number == number; }
  std::optional<std::uint32_t> Number() const noexcept { return m_number; }  // while a run is open

 private:
  std::optional<std::uint32_t> m_number;
};

}  // namespace kesp::ogr
