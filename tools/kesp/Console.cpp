#include "tools/kesp/Console.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "tools/kesp/System.h"

namespace kesp::tool {
namespace {

std::string lastComplaint;
bool namesPath = false;

}  // namespace

void Complain(std::string_view path, std::string_view what) {
  PauseIfEnded();
  // Advice follows without a path.
  if (!path.empty() || !namesPath) lastComplaint = what;
  namesPath = namesPath || !path.empty();
  std::string line = "kesp: ";
  if (!path.empty()) line.append(PrintablePath(path)).append(": ");
  line.append(what).append("\n");
  (void)std::fwrite(line.data(), 1, line.size(), stderr);
}

const std::string& LastComplaint() { return lastComplaint; }

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

std::string PrintablePath(std::string_view path) { return Printable(CString::FromPathBytes(path)); }

std::string Counted(std::uint64_t count, std::string_view what) {
  return std::to_string(count) + " " + std::string(what) + (count == 1 ? "" : "s");
}

bool HasColours() {
  const char* const no = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): nothing here sets one
  return (no == nullptr || *no == 0) && IsTerminal(Stream::kOutput);
}

std::string Coloured(std::string_view text, Colour colour) {
  static const bool hasColours = HasColours();
  if (!hasColours) return std::string(text);
  return (colour == Colour::kGood ? "\033[32m" : "\033[31m") + std::string(text) + "\033[0m";
}

}  // namespace kesp::tool
