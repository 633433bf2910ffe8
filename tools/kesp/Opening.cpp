#include "tools/kesp/Opening.h"

#include <cstdio>
#include <system_error>

namespace kesp::tool {

bool OpenForReading(CKespDataFile& file, const std::string& path) {
  if (file.OpenReadOnly(CString::FromPathBytes(path))) return true;
  if (const int osError = file.GetSystemError(); osError != 0) {
    Complain(path, std::generic_category().message(osError));
  } else {
    Complain(path, file.GetErrorString().ToUtf8());
  }
  return false;
}

void Complain(std::string_view path, std::string_view what) {
  std::string line = "kesp: ";
  if (!path.empty()) line.append(path).append(": ");
  line.append(what).append("\n");
  (void)std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace kesp::tool
