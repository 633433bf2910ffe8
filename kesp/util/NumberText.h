// Numbers to text and back, the same in every locale.
#pragma once
#include <string>
#include <string_view>

namespace kesp {

// What "%.*f" and "%.*e" write in the C locale; `decimals` is at least 0.
std::string FixedNotation(double value, int decimals);
std::string ExponentNotation(double value, int decimals);

// Decimal text to a number: leading white space is skipped, the rest is taken as far as it goes on being a number, and
// what is none at all is 0. Too large is infinite.
double NumberFromText(std::u16string_view text);

}  // namespace kesp
