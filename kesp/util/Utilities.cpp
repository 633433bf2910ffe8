#include "kesp/util/Utilities.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>

#include "kesp/platform/MessageHook.h"
#include "kesp/platform/SystemCalls.h"
#include "kesp/util/NumberText.h"
#include "kesp/util/SplitPath.h"
#include "kesp/util/StringTable.h"

std::int32_t FixedNotationMaxLength = 20;

namespace {

// "e+17" becomes "e+017".
void WidenExponent(std::string& text) {
  const std::size_t e = text.find('e');
  if (e == std::string::npos) return;
  const std::size_t digits = text.size() - (e + 2);
  if (digits < 3) text.insert(e + 2, 3 - digits, '0');
}

std::string Grouped(const std::string& text) {
  const std::size_t point = text.find('.');
  const std::size_t integerEnd = point == std::string::npos ? text.size() : point;
  std::string out = text.substr(integerEnd);
  std::reverse(out.begin(), out.end());
  std::size_t count = 0;
  for (std::size_t i = integerEnd; i-- > 0; ++count) {
    if (count != 0 && count % 3 == 0 && text[i] != ' ' && text[i] != '-') out += ',';
    out += text[i];
  }
  std::reverse(out.begin(), out.end());
  return out;
}

template <class Unit>
void ToChar8(char* destination, const Unit* source, unsigned int length) {
  for (unsigned int i = 0; i < length; ++i) {
    // NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c): a wide character, not a byte
    const auto character = static_cast<std::make_unsigned_t<Unit>>(source[i]);
    if (character > 0xFF) break;
    destination[i] = static_cast<char>(static_cast<unsigned char>(character));
    if (character == 0) break;
  }
  destination[length] = 0;
}

template <class Unit>
void ToSameWidth(Unit* destination, const Unit* source, unsigned int length) {
  unsigned int i = 0;
  for (; i < length && source[i] != 0; ++i) destination[i] = source[i];
  std::fill(destination + i, destination + length + 1, Unit{0});
}

// OLE dates of 1 January 100 and 31 December 9999.
constexpr double kFirstDay = -657434;
constexpr double kLastDay = 2958465;
constexpr double kSecondsPerDay = 86400;

}  // namespace

bool FileExists(CString path) {  // NOLINT(performance-unnecessary-value-param): by value, as hosts link to it
  kesp::FileInfo info;
  const std::string name = path.ToPathBytes();
  const int result = kesp::Uninterrupted([&] { return kesp::System().Stat(name.c_str(), &info); });
  return result == 0 && info.kind != kesp::FileInfo::Kind::kFolder;
}

CString GetStringRes(int id) {
  const char16_t* const text = kesp::FindText(id);
  if (text != nullptr) return {text};
  kesp::ShowMessage(u"Error loading string.");
  return {};
}

CString FormatDouble(double value, int precision, bool noGrouping) {
  const int decimals = precision < 0 ? 6 : precision;
  std::string text = kesp::FixedNotation(value, decimals);
  if (static_cast<std::int64_t>(text.size()) > FixedNotationMaxLength) {
    text = kesp::ExponentNotation(value, decimals);
    WidenExponent(text);
  } else if (!noGrouping) {
    text = Grouped(text);
  }
  return CString::FromLatin1(text);
}

void StringToChar8(char* destination, const char16_t* source, unsigned int length) {
  ToChar8(destination, source, length);
}
void StringToChar8(char* destination, const wchar_t* source, unsigned int length) {
  ToChar8(destination, source, length);
}
void StringToChar16(char16_t* destination, const char16_t* source, unsigned int length) {
  ToSameWidth(destination, source, length);
}
void StringToChar16(char16_t* destination, const wchar_t* source, unsigned int length) {
  const CString units(source);
  ToSameWidth(destination, units.GetString(), length);
  // Don't keep half of a surrogate pair.
  const bool cut = units.Size() > length && length != 0;
  if (cut && (units.GetString()[length - 1] & 0xFC00) == 0xD800 && (units.GetString()[length] & 0xFC00) == 0xDC00) {
    destination[length - 1] = 0;
  }
}
void StringToChar16(wchar_t* destination, const wchar_t* source, unsigned int length) {
  ToSameWidth(destination, source, length);
}

namespace kesp {

PathParts SplitPath(const CString& path) {
  CString text = path;
  text.Trim();
  const int length = text.GetLength();
  const int colon = text.Find(u':');
  const int separator = std::max(text.ReverseFind(u'/'), text.ReverseFind(u'\\'));
  const int dot = text.ReverseFind(u'.');

  PathParts parts;
  int start = 0;
  if (colon >= 0) {
    parts.drive = text.Left(colon + 1);
    start = colon + 1;
  }
  if (separator >= 0) {
    parts.directory = text.Mid(start, separator - start + 1);
    start = separator + 1;
  }
  const int nameEnd = dot >= 0 ? dot - 1 : length - 1;
  if (nameEnd >= start) parts.name = text.Mid(start, nameEnd - start + 1);
  if (dot >= 0 && dot > separator) parts.extension = text.Mid(dot);
  return parts;
}

}  // namespace kesp

CString GetDir(const CString& path) {
  const kesp::PathParts parts = kesp::SplitPath(path);
  return parts.drive + parts.directory;
}

CString GetRoot(const CString& path) { return kesp::SplitPath(path).name; }

CString GetDateString(double date) {
  if (date == 0.0) return u"null";
  // A NaN fails this test. The last day of the negative dates begins a whole day before its number.
  if (date > kFirstDay - 1 && date < kLastDay + 1) {
    double days = std::trunc(date);
    const double fraction = std::fabs(date - days);
    if (std::floor(fraction * kSecondsPerDay + 0.5) >= kSecondsPerDay) days += 1;
    if (days <= kLastDay) {
      constexpr std::chrono::sys_days kEpoch = std::chrono::year{1899} / std::chrono::December / 30;
      const std::chrono::year_month_day civil{kEpoch + std::chrono::days{static_cast<int>(days)}};
      // By hand, since a search compares many dates.
      char16_t text[] = u"00/00/    ";
      const auto put = [&text](std::size_t end, unsigned number) {
        for (; number != 0; number /= 10) text[--end] = static_cast<char16_t>(u'0' + number % 10);
      };
      put(2, static_cast<unsigned>(civil.month()));
      put(5, static_cast<unsigned>(civil.day()));
      put(10, static_cast<unsigned>(static_cast<int>(civil.year())));
      return text;
    }
  }
  return u"-1/-1/  -1";
}
