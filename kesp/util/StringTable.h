// The library's texts by their numbers. Hosts load them with GetStringRes; the numbers are part of the interface and
// are never reassigned.
#pragma once

namespace kesp {

// Names of the feature types 1 to 3: the number is kFirstFeatureTypeText + type - 1.
constexpr int kFirstFeatureTypeText = 348;
// Messages of the error codes 0 to 12: the number is kFirstErrorText + code.
constexpr int kFirstErrorText = 33053;
// Eleven texts for GPS signal statuses. Which status has which text is the host's to say.
constexpr int kFirstSignalStatusText = 33066;
// A warning for hosts without wide-character texts; "%s" stands for the path.
constexpr int kWideCharacterWarningText = 33077;

// Null when there is no text under the number.
const char16_t* FindText(int id) noexcept;

}  // namespace kesp
