// The string type of the whole interface: a growable string of 16-bit units.
//
//   CString name(L"Oak");            // also u"Oak", or "Oak" in UTF-8
//   name += u"/Red";
//   std::string utf8 = name.ToUtf8();
//
// The units are usually UTF-16, but any sequence is kept as it is: lone surrogates, non-characters and zero units
// survive a round trip through a record field or through UTF-8. Comparison goes unit by unit; case folding affects A to
// Z only, whatever the locale.
//
// Texts of up to 11 units (7 where pointers have 32 bits) are stored inside the object and allocate nothing.
//
// Errors: CMemoryException when a longer text can't be allocated; the text is then unchanged. Unless a function says
// otherwise, positions and counts are in units and are clamped to the text.
#pragma once
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kesp/platform/Export.h"

class KESP_EXPORT CString {
 private:
  // The last two bytes tell long texts from short ones, so they belong to no other member: they would be the top of a
  // wider one on a little-endian machine, its low end on a big-endian one.
  struct Long {
    char16_t* data;
    std::size_t size;
    std::uint32_t capacity;  // units, without the terminating zero
    std::uint16_t unused;
    char16_t mark;
  };

 public:
  static constexpr std::size_t kInline = sizeof(Long) / sizeof(char16_t) - 1;  // units that fit into the object

  CString() noexcept { SetSmallLength(0); }
  CString(const char* utf8);  // null is an empty text, here and below
  CString(const wchar_t* text);
  CString(const char16_t* text);
  CString(const std::string& utf8);
  CString(std::u16string_view units);
  CString(const char16_t* units, std::size_t count);
  CString(const CString& other);
  CString(CString&& other) noexcept;
  CString& operator=(const CString& other);
  CString& operator=(CString&& other) noexcept;
  ~CString() {
    if (IsLong()) Release();
  }

  // Conversion from and to UTF-8. A byte that is not valid UTF-8 becomes the unit 0xDC00 + byte. A lone surrogate is
  // written as the three bytes that UTF-8 would give its number, and those are read back as that surrogate.
  static CString FromUtf8(std::string_view utf8);
  std::string ToUtf8() const;
  // The same for file names, which may be any bytes: a name converted to a CString and back is unchanged. Under Windows
  // they are UTF-16, and these do the same as the two above.
  static CString FromPathBytes(std::string_view bytes);
  std::string ToPathBytes() const;
  // Each byte becomes the character of the same value.
  static CString FromLatin1(std::string_view bytes);

  // Replaces the text with `count` units. They may be part of this text.
  void Assign(const char16_t* units, std::size_t count);
  // Resizes to `count` units and returns a pointer to them; the caller writes their values.
  char16_t* Resize(std::size_t count) {
    if (count > Capacity()) Grow(count);
    SetLength(count);
    return Data();
  }

  int GetLength() const noexcept { return static_cast<int>(Size()); }
  std::size_t Size() const noexcept { return IsLong() ? m_long.size : kInline - m_small[kInline]; }
  bool IsEmpty() const noexcept { return Size() == 0; }
  void Empty() noexcept {
    if (IsLong()) Release();
    SetSmallLength(0);
  }
  // The units, followed by a zero; valid until the text changes.
  const char16_t* GetString() const noexcept { return IsLong() ? m_long.data : m_small; }
  std::u16string_view View() const noexcept { return {GetString(), Size()}; }
  // The unit at `index`, from 0 to GetLength(), not checked; the last is the zero after the text.
  char16_t operator[](int index) const noexcept { return GetString()[index]; }
  char16_t GetAt(int index) const noexcept { return GetString()[index]; }
  void SetAt(int index, char16_t unit) noexcept { Data()[index] = unit; }

  CString& operator+=(const CString& other);
  CString& operator+=(char16_t unit);
  friend CString operator+(const CString& a, const CString& b) {
    CString sum(a);
    sum += b;
    return sum;
  }

  // Returns less than 0, 0 or greater than 0. NoCase folds A to Z to lower case on both sides first.
  int Compare(const CString& other) const noexcept;
  int CompareNoCase(const CString& other) const noexcept;
  friend bool operator==(const CString& a, const CString& b) noexcept { return a.View() == b.View(); }
  friend std::strong_ordering operator<=>(const CString& a, const CString& b) noexcept { return a.Compare(b) <=> 0; }

  // Position of the first occurrence at or after `start`, -1 if there is none. An empty text is found at `start`.
  int Find(const CString& wanted, int start = 0) const noexcept;
  int Find(char16_t unit, int start = 0) const noexcept;
  int ReverseFind(char16_t unit) const noexcept;

  CString Left(int count) const;
  CString Right(int count) const;
  CString Mid(int first) const;
  CString Mid(int first, int count) const;
  CString& MakeUpper() noexcept;  // a to z only
  CString& MakeLower() noexcept;  // A to Z only
  CString& Trim();                // white space at both ends, of all of Unicode's basic plane

 private:
  static constexpr char16_t kLongMark = 0x8000;  // set in the last unit; a short text has kInline - length there
  static constexpr std::size_t kMaxLength = 0x3FFFFFFF;  // units

  static_assert(sizeof(Long) == (sizeof(char16_t*) == 8 ? 24 : 16));
  static_assert(offsetof(Long, mark) == kInline * sizeof(char16_t));

  bool IsLong() const noexcept { return (m_small[kInline] & kLongMark) != 0; }
  char16_t* Data() noexcept { return IsLong() ? m_long.data : m_small; }
  void SetSmallLength(std::size_t length) noexcept {
    if (length > kInline) __builtin_unreachable();
    m_small[length] = 0;
    m_small[kInline] = static_cast<char16_t>(kInline - length);  // 0 if full: the terminating zero
  }
  void SetLength(std::size_t length) noexcept {
    if (IsLong()) {
      m_long.size = length;
      m_long.data[length] = 0;
    } else {
      SetSmallLength(length);
    }
  }
  std::size_t Capacity() const noexcept { return IsLong() ? m_long.capacity : kInline; }
  void Decode(std::string_view bytes, bool surrogatesPass);
  void Grow(std::size_t capacity);  // keeps the text
  void Release() noexcept;

  union {
    char16_t m_small[kInline + 1];
    Long m_long;
  };
};
