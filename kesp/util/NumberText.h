// Converts numbers to text and back, the same in every locale.
#pragma once
#include <string>
#include <string_view>

namespace kesp {

// The same as "%.*f" and "%.*e" in the C locale; `decimals` is at least 0.
std::string FixedNotation(double value, int decimals);
std::string ExponentNotation(double value, int decimals);

// Converts decimal text to a number. Skips leading white space and stops at the first character that doesn't belong to
// the number. Returns 0 if there is no number, and infinity of its sign if it is too large.
double NumberFromText(std::u16string_view text);

}  // namespace kesp
