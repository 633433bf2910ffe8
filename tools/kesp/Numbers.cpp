#include "tools/kesp/Numbers.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <system_error>

namespace kesp::tool {

std::optional<double> ParseNumber(std::string_view text) {
  double value = 0;
#if KESP_HAS_DOUBLE_FROM_CHARS
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  const bool isWhole = error == std::errc() && stop == end;
#else
  // The tool keeps the C locale. The other spellings that strtod takes have letters, spaces or a plus in front.
  const std::string number(text);
  char* stop = nullptr;
  value = std::strtod(number.c_str(), &stop);
  const bool isWhole = !text.empty() && text.front() != '+' && stop == number.c_str() + number.size() &&
                       text.find_first_not_of("0123456789.eE+-") == std::string_view::npos;
#endif
  return isWhole && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

}  // namespace kesp::tool
