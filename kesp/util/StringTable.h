// The library's texts by ID. Hosts load them with GetStringRes; the IDs are part of the interface and are never
// reassigned.
#pragma once

namespace kesp {

// Names of the feature types 1 to 3: the ID is kFirstFeatureTypeText + type - 1.
constexpr int kFirstFeatureTypeText = 348;
// Messages of the error codes 0 to 12: the ID is kFirstErrorText + code.
constexpr int kFirstErrorText = 33053;
// Eleven texts for GPS signal statuses. The host decides which status has which text.
constexpr int kFirstSignalStatusText = 33066;
// A warning for hosts without wide-character texts; "%s" is replaced with the path.
constexpr int kWideCharacterWarningText = 33077;

// Returns null when no text has this ID.
const char16_t* FindText(int id) noexcept;

}  // namespace kesp
