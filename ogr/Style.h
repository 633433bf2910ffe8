// Colours of features as OGR style strings.
#pragma once
#include <cstdint>
#include <string>

#include "kesp/records/KespFeature.h"
#include "ogr/Options.h"

namespace kesp::ogr {

// Empty for colour 0, which is what a feature has that nobody gave a colour.
std::string StyleOf(KESP_FEATURE_TYPE kind, std::uint32_t color, ColorOrder order);
// The first colour in a style string; 0 if there is none.
std::uint32_t ColorIn(const std::string& style, ColorOrder order);

}  // namespace kesp::ogr
