// What the tool says to a person.
#pragma once
#include <string>
#include <string_view>

#include "kesp/platform/String.h"

namespace kesp::tool {

// "kesp: PATH: what" on standard error; without a path, "kesp: what". A path can't steer a terminal.
void Complain(std::string_view path, std::string_view what);

// What the last complaint that named a path said, and without one what the last complaint said.
const std::string& LastComplaint();

// For a terminal: control characters, which could steer it, and lone surrogates as escapes.
std::string Printable(const CString& text);
std::string PrintablePath(std::string_view path);

// "1 point", "2 points".
std::string Counted(std::uint64_t count, std::string_view what);

// Whether standard output takes colours: a terminal, and no NO_COLOR in the environment.
bool HasColours();
enum class Colour { kGood, kBad };
// The text in that colour where there are colours.
std::string Coloured(std::string_view text, Colour colour);

}  // namespace kesp::tool
