#include "kesp/platform/String.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <cwchar>

#include "kesp/memory/ObjectPool.h"
#include "kesp/platform/Exception.h"
#include "kesp/platform/Utf8.h"

namespace {

#ifdef _WIN32
constexpr bool kNamesAreBytes = false;  // file names are UTF-16 themselves
#else
constexpr bool kNamesAreBytes = true;
#endif
constexpr char16_t kFirstHigh = 0xD800;
constexpr char16_t kFirstLow = 0xDC00;
constexpr char16_t kPastLow = 0xE000;

// The code point of a wide character, which is signed or not; a value outside Unicode becomes U+FFFD.
std::uint32_t CodePoint(wchar_t c) {
  const auto code = static_cast<std::uint32_t>(c);  // NOLINT(bugprone-signed-char-misuse,cert-str34-c)
  return code <= 0x10FFFF ? code : 0xFFFD;
}
bool IsHigh(char16_t unit) { return unit >= kFirstHigh && unit < kFirstLow; }
bool IsLow(char16_t unit) { return unit >= kFirstLow && unit < kPastLow; }

char16_t LowerUnit(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}
char16_t UpperUnit(char16_t unit) {
  return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - (u'a' - u'A')) : unit;
}

bool IsSpace(char16_t unit) {
  return (unit >= 0x09 && unit <= 0x0D) || unit == 0x20 || unit == 0x85 || unit == 0xA0 || unit == 0x1680 ||
         (unit >= 0x2000 && unit <= 0x200A) || unit == 0x2028 || unit == 0x2029 || unit == 0x202F || unit == 0x205F ||
         unit == 0x3000;
}

// Writes the code point as one or two units and returns the place after them.
char16_t* PutCodePoint(char16_t* out, std::uint32_t code) {
  if (code < 0x10000) {
    *out++ = static_cast<char16_t>(code);
  } else {
    *out++ = static_cast<char16_t>(kFirstHigh + ((code - 0x10000) >> 10));
    *out++ = static_cast<char16_t>(kFirstLow + ((code - 0x10000) & 0x3FF));
  }
  return out;
}

// Decodes the UTF-8 sequence at `at` into `code` and returns its length in bytes; 0 if it is invalid.
std::size_t DecodeUtf8(std::string_view text, std::size_t at, bool surrogatesPass, std::uint32_t& code) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) {
    code = first;
    return 1;
  }
  const std::size_t count = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() - at < count) return 0;
  code = first & (0x7FU >> count);
  for (std::size_t i = 1; i < count; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3FU);
  }
  if (!surrogatesPass && code >= kFirstHigh && code < kPastLow) return 0;
  const bool tooLong = (count == 3 && code < 0x800) || (count == 4 && (code < 0x10000 || code > 0x10FFFF));
  return tooLong ? 0 : count;
}

// Whether the next four units are all below 0x80.
bool IsPlain(const char16_t* units) {
  std::uint64_t four = 0;
  std::memcpy(&four, units, sizeof four);
  return (four & 0xFF80FF80FF80FF80U) == 0;
}

std::string EncodeUtf8(std::u16string_view text, bool strayBytes) {
  std::string out;
  // Encoded piece by piece, so that a text usually costs one allocation, and a short one none.
  constexpr std::size_t kPiece = 256;
  std::array<char, kPiece> piece;
  char* at = piece.data();
  for (std::size_t i = 0; i < text.size(); ++i) {
    for (; text.size() - i >= 4 && IsPlain(text.data() + i) && at <= piece.data() + kPiece - 8; i += 4, at += 4) {
      std::transform(text.data() + i, text.data() + i + 4, at, [](char16_t unit) { return static_cast<char>(unit); });
    }
    if (i == text.size()) break;
    std::uint32_t code = text[i];
    if (IsHigh(text[i]) && i + 1 < text.size() && IsLow(text[i + 1])) {
      code = 0x10000U + ((code - kFirstHigh) << 10) + (text[i + 1] - std::uint32_t{kFirstLow});
      ++i;
    }
    if (strayBytes && code >= 0xDC80 && code <= 0xDCFF) {
      *at++ = static_cast<char>(static_cast<unsigned char>(code & 0xFF));
    } else {
      at = kesp::PutUtf8(at, code);
    }
    if (at > piece.data() + kPiece - 4) {
      if (out.empty()) out.reserve(text.size());
      out.append(piece.data(), at);
      at = piece.data();
    }
  }
  out.append(piece.data(), at);
  return out;
}

}  // namespace

CString::CString(const char* utf8) : CString() {
  if (utf8 != nullptr) *this = FromUtf8(utf8);
}

CString::CString(const std::string& utf8) : CString() { *this = FromUtf8(utf8); }

CString::CString(const wchar_t* text) : CString() {
  if (text == nullptr) return;
  const std::size_t length = std::wcslen(text);
  std::size_t units = length;
  for (std::size_t i = 0; i < length; ++i) units += CodePoint(text[i]) > 0xFFFF ? 1 : 0;
  char16_t* out = Resize(units);
  for (std::size_t i = 0; i < length; ++i) out = PutCodePoint(out, CodePoint(text[i]));
}

CString::CString(const char16_t* text) : CString() {
  if (text != nullptr) Assign(text, std::char_traits<char16_t>::length(text));
}

CString::CString(std::u16string_view units) : CString() { Assign(units.data(), units.size()); }

CString::CString(const char16_t* units, std::size_t count) : CString() { Assign(units, count); }

CString::CString(const CString& other) : CString() { Assign(other.GetString(), other.Size()); }

CString::CString(CString&& other) noexcept : CString() { *this = std::move(other); }

CString& CString::operator=(const CString& other) {
  if (this != &other) Assign(other.GetString(), other.Size());
  return *this;
}

CString& CString::operator=(CString&& other) noexcept {
  if (this == &other) return *this;
  if (IsLong()) Release();
  std::memcpy(m_small, other.m_small, sizeof m_small);
  other.SetSmallLength(0);
  return *this;
}

CString CString::FromUtf8(std::string_view utf8) {
  CString text;
  text.Decode(utf8, true);
  return text;
}

CString CString::FromPathBytes(std::string_view bytes) {
  CString text;
  text.Decode(bytes, !kNamesAreBytes);
  return text;
}

void CString::Decode(std::string_view bytes, bool surrogatesPass) {
  char16_t* const begin = Resize(bytes.size());  // never more units than bytes
  char16_t* out = begin;
  for (std::size_t at = 0; at < bytes.size();) {
    std::uint32_t code = 0;
    const std::size_t count = DecodeUtf8(bytes, at, surrogatesPass, code);
    if (count == 0) code = kFirstLow + std::uint32_t{static_cast<unsigned char>(bytes[at])};
    out = PutCodePoint(out, code);
    at += std::max<std::size_t>(count, 1);
  }
  SetLength(static_cast<std::size_t>(out - begin));
}

std::string CString::ToUtf8() const { return EncodeUtf8(View(), false); }

std::string CString::ToPathBytes() const { return EncodeUtf8(View(), kNamesAreBytes); }

CString CString::FromLatin1(std::string_view bytes) {
  CString text;
  char16_t* out = text.Resize(bytes.size());
  for (const char c : bytes) *out++ = static_cast<unsigned char>(c);
  return text;
}

void CString::Assign(const char16_t* units, std::size_t count) {
  if (count <= Capacity()) {
    if (count != 0) std::memmove(Data(), units, count * sizeof(char16_t));
    SetLength(count);
    return;
  }
  CString fresh;
  fresh.Grow(count);
  std::memcpy(fresh.m_long.data, units, count * sizeof(char16_t));
  fresh.SetLength(count);
  *this = std::move(fresh);
}

CString& CString::operator+=(const CString& other) {
  const std::size_t size = Size();
  const std::size_t added = other.Size();
  if (size + added > Capacity()) Grow(std::max(size + added, std::min(2 * size, kMaxLength)));
  std::memmove(Data() + size, other.GetString(), added * sizeof(char16_t));
  SetLength(size + added);
  return *this;
}

CString& CString::operator+=(char16_t unit) { return *this += CString(&unit, 1); }

int CString::Compare(const CString& other) const noexcept { return View().compare(other.View()); }

int CString::CompareNoCase(const CString& other) const noexcept {
  const std::u16string_view a = View();
  const std::u16string_view b = other.View();
  const std::size_t shared = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < shared; ++i) {
    const char16_t x = LowerUnit(a[i]);
    const char16_t y = LowerUnit(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

int CString::Find(const CString& wanted, int start) const noexcept {
  const std::size_t at = View().find(wanted.View(), static_cast<std::size_t>(std::max(start, 0)));
  return at == std::u16string_view::npos ? -1 : static_cast<int>(at);
}

int CString::Find(char16_t unit, int start) const noexcept {
  const std::size_t at = View().find(unit, static_cast<std::size_t>(std::max(start, 0)));
  return at == std::u16string_view::npos ? -1 : static_cast<int>(at);
}

int CString::ReverseFind(char16_t unit) const noexcept {
  const std::size_t at = View().rfind(unit);
  return at == std::u16string_view::npos ? -1 : static_cast<int>(at);
}

CString CString::Left(int count) const { return Mid(0, count); }

CString CString::Right(int count) const {
  const int kept = std::clamp(count, 0, GetLength());
  return Mid(GetLength() - kept, kept);
}

CString CString::Mid(int first) const { return Mid(first, GetLength()); }

CString CString::Mid(int first, int count) const {
  const int from = std::clamp(first, 0, GetLength());
  const int kept = std::clamp(count, 0, GetLength() - from);
  return {GetString() + from, static_cast<std::size_t>(kept)};
}

CString& CString::MakeUpper() noexcept {
  std::transform(Data(), Data() + Size(), Data(), UpperUnit);
  return *this;
}

CString& CString::MakeLower() noexcept {
  std::transform(Data(), Data() + Size(), Data(), LowerUnit);
  return *this;
}

CString& CString::Trim() {
  const std::u16string_view text = View();
  std::size_t first = 0;
  std::size_t last = text.size();
  while (first < last && IsSpace(text[first])) ++first;
  while (last > first && IsSpace(text[last - 1])) --last;
  Assign(text.data() + first, last - first);
  return *this;
}

void CString::Grow(std::size_t capacity) {
  if (capacity > kMaxLength) throw CMemoryException();
  auto* const data = static_cast<char16_t*>(kesp::PoolAllocate((capacity + 1) * sizeof(char16_t)));
  const std::size_t size = Size();
  std::memcpy(data, GetString(), (size + 1) * sizeof(char16_t));
  if (IsLong()) Release();
  m_long = {data, size, static_cast<std::uint32_t>(capacity), 0, kLongMark};
}

void CString::Release() noexcept { kesp::PoolFree(m_long.data, (m_long.capacity + std::size_t{1}) * sizeof(char16_t)); }
