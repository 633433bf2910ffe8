// How every sub-command opens a file and tells the person what is wrong.
#pragma once
#include <string>
#include <string_view>

#include "kesp/kesp.h"

namespace kesp::tool {

// Opens for looking only. When it can't, complains with the reason and answers false; the code is in file.GetError().
bool OpenForReading(CKespDataFile& file, const std::string& path);

// "kesp: PATH: what" on standard error; without a path, "kesp: what".
void Complain(std::string_view path, std::string_view what);

}  // namespace kesp::tool
