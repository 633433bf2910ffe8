// Paths for the system's functions. Not installed.
#pragma once
#include <string>

namespace kesp {

// `path` is UTF-8, with three bytes for each surrogate that is not part of a pair. The result leads to the same place
// and may have any length that a path of the system can have, 32767 units.
std::wstring SystemPath(const char* path);

// The errno value for the system's last error, with which a function failed on this path.
int ErrorOfPath(const std::wstring& path) noexcept;

}  // namespace kesp
