#include "kesp/util/NumberText.h"

#include <charconv>
#include <cmath>
#include <string>
#include <string_view>
#include <system_error>
#if !KESP_HAS_DOUBLE_FROM_CHARS
#include <locale.h>  // NOLINT(modernize-deprecated-headers): newlocale
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): strtod_l
#endif

namespace kesp {
namespace {

std::string Digits(double value, std::chars_format format, int decimals) {
  // Fixed notation has up to 309 digits before the point, a sign and the point.
  std::string text(static_cast<std::size_t>(decimals) + 330, '\0');
  const auto result = std::to_chars(text.data(), text.data() + text.size(), value, format, decimals);
  text.resize(static_cast<std::size_t>(result.ptr - text.data()));
  return text;
}

// The value of the longest number at the start of a text that begins with a digit or a point; 0 if there is none.
#if KESP_HAS_DOUBLE_FROM_CHARS
double Magnitude(const std::string& text) {
  double value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc::result_out_of_range) return value;
  const std::string_view taken(text.data(), static_cast<std::size_t>(result.ptr - text.data()));
  return taken.find('-') != std::string_view::npos ? 0 : HUGE_VAL;  // too small or too large, by the exponent's sign
}
#else
double Magnitude(const std::string& text) {
  static const locale_t kClassic = ::newlocale(LC_ALL_MASK, "C", nullptr);
  // strtod takes hexadecimal numbers too, which begin with "0x".
  const std::size_t length = text.find_first_not_of("0123456789.eE+-");
  return ::strtod_l(text.substr(0, length).c_str(), nullptr, kClassic);
}
#endif

}  // namespace

std::string FixedNotation(double value, int decimals) { return Digits(value, std::chars_format::fixed, decimals); }

std::string ExponentNotation(double value, int decimals) {
  return Digits(value, std::chars_format::scientific, decimals);
}

double NumberFromText(std::u16string_view text) {
  std::string number;
  for (const char16_t unit : text) number += unit < 0x80 ? static_cast<char>(unit) : '?';
  number.erase(0, number.find_first_not_of(" \t\n\v\f\r"));
  const bool negative = !number.empty() && number.front() == '-';
  if (negative || (!number.empty() && number.front() == '+')) number.erase(0, 1);
  // "inf", "nan" and a second sign are not numbers here.
  if (number.empty() || (number.front() != '.' && (number.front() < '0' || number.front() > '9'))) return 0;

  const double value = Magnitude(number);
  return negative ? -value : value;
}

}  // namespace kesp
