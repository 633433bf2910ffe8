#include "tools/kesp/Opening.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace kesp::tool {
namespace {

bool IsOpenOrComplain(const CKespDataFile& file, const std::string& path) {
  if (!file.IsOpen()) Complain(path, WhyNotOpen(file));
  return file.IsOpen();
}

}  // namespace

bool OpenForReading(CKespDataFile& file, const std::string& path) {
  (void)file.OpenReadOnly(CString::FromPathBytes(path));
  return IsOpenOrComplain(file, path);
}

bool OpenForWriting(CKespDataFile& file, const std::string& path) {
  (void)file.Open(CString::FromPathBytes(path));
  return IsOpenOrComplain(file, path);
}

// A data set does not come to its container when nothing is there, and then knows no reason; the container asked by
// itself has one.

bool OpenForReading(CKespFile& file, const std::string& path) {
  CString message;
  (void)file.OpenKespReadOnly(CString::FromPathBytes(path), message);
  return file.m_pDataFile->IsOpen() || OpenForReading(*file.m_pDataFile, path);
}

bool OpenForWriting(CKespFile& file, const std::string& path) {
  CString message;
  (void)file.OpenKesp(CString::FromPathBytes(path), message);
  return file.m_pDataFile->IsOpen() || OpenForWriting(*file.m_pDataFile, path);
}

CKespFile& DatasetOfThisRun() {
  static auto* const dataset = new CKespFile;
  return *dataset;
}

std::string WhyNotOpen(const CKespDataFile& file) {
  if (file.GetSystemError() == EWOULDBLOCK) return "in use by another program";
  if (const int osError = file.GetSystemError(); osError != 0) return std::generic_category().message(osError);
  return file.GetErrorString().ToUtf8();
}

std::string WhyNotWritten(const CKespDataFile& file) {
  const int osError = file.GetSystemError() != 0 ? file.GetSystemError() : file.m_file.LastSystemError();
  return osError != 0 ? std::generic_category().message(osError) : "writing failed";
}

void Complain(std::string_view path, std::string_view what) {
  std::string line = "kesp: ";
  if (!path.empty()) line.append(path).append(": ");
  line.append(what).append("\n");
  (void)std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string Printable(const CString& text) {
  const std::u16string_view units = text.View();
  const auto isPrintable = [](char16_t unit) { return unit >= 0x20 && unit < 0x7F; };
  if (std::all_of(units.begin(), units.end(), isPrintable)) return {units.begin(), units.end()};
  std::u16string printable;
  for (std::size_t i = 0; i < units.size(); ++i) {
    const char16_t unit = units[i];
    const bool isHigh = unit >= 0xD800 && unit < 0xDC00;
    const bool isPair = isHigh && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000;
    const bool isControl = unit < 0x20 || (unit >= 0x7F && unit < 0xA0) || (unit >= 0x202A && unit <= 0x202E) ||
                           (unit >= 0x2066 && unit <= 0x2069);  // the last two turn the reading direction
    if (isPair) {
      printable += units.substr(i++, 2);
    } else if (isControl || (unit >= 0xD800 && unit < 0xE000)) {
      std::array<char, 8> escape;
      const int length = std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(unit));
      printable.append(escape.begin(), escape.begin() + length);
    } else {
      printable += unit;
    }
  }
  return CString(printable).ToUtf8();
}

}  // namespace kesp::tool
