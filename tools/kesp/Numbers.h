// Numbers as people type them.
#pragma once
#include <optional>
#include <string_view>

namespace kesp::tool {

// Decimal, with a point whatever the locale, and nothing before or after it; null if it is not a finite number.
std::optional<double> ParseNumber(std::string_view text);

}  // namespace kesp::tool
