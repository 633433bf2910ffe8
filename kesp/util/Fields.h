// Reads record fields from memory and writes them: the visitors that a body description is written against, so that
// reading, writing, length and validity can't drift apart. The descriptions are in kesp/format/Bodies.h.
//
//   template <class Visitor, class Record>
//   void DescribeVersion1(Visitor& v, Record& r) {
//     v.U32(r.FeatureNumber);    // offset 0
//     v.Text8(r.FeatureName, 22);
//   }
//
// Numbers are little-endian and packed: 4 bytes may start at an odd offset. A member wider than its field is cut to the
// field's width when written, and extended with zeros when read.
#pragma once
#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <type_traits>

#include "kesp/platform/String.h"

namespace kesp {

// What a file can hold of a value of the interface, whose `unsigned long` may have 64 bits.
inline std::uint32_t Low32(unsigned long value) noexcept { return static_cast<std::uint32_t>(value); }

// Loads a `T` from its little-endian bytes, and stores it.
template <class T>
T LoadLittle(const std::byte* from) noexcept {
  static_assert(std::is_unsigned_v<T>);
  T value{};
  std::memcpy(&value, from, sizeof value);
  if constexpr (std::endian::native == std::endian::big) {
    T swapped{};
    for (std::size_t i = 0; i < sizeof(T); ++i) swapped = static_cast<T>(swapped << 8 | (value >> 8 * i & 0xFF));
    value = swapped;
  }
  return value;
}
template <class T>
void StoreLittle(std::byte* to, T value) noexcept {
  static_assert(std::is_unsigned_v<T>);
  if constexpr (std::endian::native == std::endian::big) {
    for (std::size_t i = 0; i < sizeof(T); ++i) to[i] = static_cast<std::byte>(value >> 8 * i & 0xFF);
  } else {
    std::memcpy(to, &value, sizeof value);
  }
}

// The number of units before the first zero unit, at most `units`.
inline std::size_t TextLength16(const std::byte* from, std::size_t units) noexcept {
  std::size_t length = 0;
  if constexpr (std::endian::native == std::endian::little) {
    constexpr std::uint64_t kOnes = 0x0001000100010001U;
    for (; length + 4 <= units; length += 4) {
      const auto four = LoadLittle<std::uint64_t>(from + 2 * length);
      // The lowest bit set here is the high bit of the first zero unit.
      const std::uint64_t zeros = (four - kOnes) & ~four & (kOnes << 15);
      if (zeros != 0) return length + static_cast<std::size_t>(std::countr_zero(zeros)) / 16;
    }
  }
  while (length < units && LoadLittle<std::uint16_t>(from + 2 * length) != 0) ++length;
  return length;
}
// Sets `text` to the `units` code units at `from`, up to the first zero unit.
inline void LoadText16(CString& text, const std::byte* from, std::size_t units) {
  if (units == 0 || LoadLittle<std::uint16_t>(from) == 0) return text.Empty();  // the usual case
  const std::size_t length = TextLength16(from, units);
  char16_t* const out = text.Resize(length);
  if constexpr (std::endian::native == std::endian::little) {
    // A short text is copied with the bytes after it, zero included: a copy of fixed length is two moves.
    if (length <= CString::kInline && units > CString::kInline) {
      std::memcpy(out, from, 2 * CString::kInline);
    } else {
      std::memcpy(out, from, 2 * length);
    }
  } else {
    for (std::size_t i = 0; i < length; ++i) out[i] = LoadLittle<std::uint16_t>(from + 2 * i);
  }
}
inline void StoreUnits(std::byte* to, const char16_t* from, std::size_t units) noexcept {
  for (std::size_t i = 0; i < units; ++i) StoreLittle<std::uint16_t>(to + 2 * i, from[i]);
}

// Reads fields. Borrows the bytes, which must outlive the reader. A field cut short by the end is left unchanged, and
// so is each later one; Failed() then returns true. A caller that has compared the length with that of the whole
// description uses the unchecked reader, which skips the check of each field and never fails.
template <bool kChecked>
class BasicFieldReader {
 public:
  explicit BasicFieldReader(std::span<const std::byte> bytes) noexcept : m_bytes(bytes) {}

  template <class T>
  void U16(T& field) noexcept {
    if (const std::byte* at = Take(2)) field = static_cast<T>(LoadLittle<std::uint16_t>(at));
  }
  // One of a few values; the record's own Read checks it.
  template <class T>
  void Choice16(T& field, std::uint16_t /*least*/, std::uint16_t /*most*/) noexcept {
    U16(field);
  }
  template <class T>
  void U32(T& field) noexcept {
    if (const std::byte* at = Take(4)) field = static_cast<T>(LoadLittle<std::uint32_t>(at));
  }
  void F64(double& field) noexcept {  // any bit pattern, NaNs too
    if (const std::byte* at = Take(8)) {
      // Copied as bytes: on 32-bit x86 a function returns a double in a register that changes signalling NaNs.
      const auto bits = LoadLittle<std::uint64_t>(at);
      std::memcpy(&field, &bits, sizeof field);
    }
  }
  // `units` code units, 2 * units bytes. The text ends at the first zero unit or at the end of the field.
  void Text16(CString& field, std::size_t units) {
    if (const std::byte* at = Take(2 * units)) LoadText16(field, at, units);
  }
  // `bytes` 8-bit characters; each becomes the character of the same value. The text ends at the first zero or at the
  // end of the field. `most`, the characters that a writer fills, does not matter here.
  void Text8(CString& field, std::size_t bytes, std::size_t /*most*/ = 0) {
    const std::byte* const at = Take(bytes);
    if (at == nullptr) return;
    const auto* const text = reinterpret_cast<const char*>(at);
    field = CString::FromLatin1({text, static_cast<std::size_t>(std::find(text, text + bytes, '\0') - text)});
  }
  void Raw(std::span<std::uint8_t> field) noexcept {
    if (const std::byte* at = Take(field.size())) std::memcpy(field.data(), at, field.size());
  }
  // Bytes without a meaning.
  void Skip(std::size_t bytes) noexcept { (void)Take(bytes); }

  std::size_t Offset() const noexcept { return m_offset; }
  [[nodiscard]] bool Failed() const noexcept { return m_failed; }

 private:
  const std::byte* Take(std::size_t width) noexcept {
    if constexpr (kChecked) {
      if (m_failed || m_bytes.size() - m_offset < width) {
        m_failed = true;
        return nullptr;
      }
    }
    const std::byte* const at = m_bytes.data() + m_offset;
    if (at == nullptr) __builtin_unreachable();  // saves a test for each field
    m_offset += width;
    return at;
  }

  std::span<const std::byte> m_bytes;
  std::size_t m_offset = 0;
  bool m_failed = false;
};
using FieldReader = BasicFieldReader<true>;
using UncheckedFieldReader = BasicFieldReader<false>;

// Writes fields into a zeroed buffer of the body's length, so that the rest of a text and skipped bytes are zero. A
// text is cut to one unit less than its field, which keeps a terminating zero, and ends at a zero inside.
class FieldWriter {
 public:
  explicit FieldWriter(std::byte* zeroed) noexcept : m_at(zeroed) {}

  template <class T>
  void U16(const T& field) noexcept {
    StoreLittle(m_at, static_cast<std::uint16_t>(field));
    m_at += 2;
  }
  template <class T>
  void Choice16(const T& field, std::uint16_t /*least*/, std::uint16_t /*most*/) noexcept {
    U16(field);
  }
  template <class T>
  void U32(const T& field) noexcept {
    StoreLittle(m_at, static_cast<std::uint32_t>(field));
    m_at += 4;
  }
  void F64(const double& field) noexcept {
    StoreLittle(m_at, std::bit_cast<std::uint64_t>(field));
    m_at += 8;
  }
  void Text16(const CString& field, std::size_t units) noexcept {
    const char16_t* const text = field.GetString();
    std::size_t length = 0;
    while (length < units - 1 && text[length] != 0) ++length;
    StoreUnits(m_at, text, length);
    m_at += 2 * units;
  }
  // A character above U+00FF ends the text. `most` limits the characters where a field keeps more than one spare byte.
  void Text8(const CString& field, std::size_t bytes) noexcept { Text8(field, bytes, bytes - 1); }
  void Text8(const CString& field, std::size_t bytes, std::size_t most) noexcept {
    const char16_t* const text = field.GetString();
    for (std::size_t i = 0; i < most && text[i] != 0 && text[i] <= 0xFF; ++i) {
      m_at[i] = static_cast<std::byte>(text[i]);
    }
    m_at += bytes;
  }
  void Raw(std::span<const std::uint8_t> field) noexcept {
    std::memcpy(m_at, field.data(), field.size());
    m_at += field.size();
  }
  void Skip(std::size_t bytes) noexcept { m_at += bytes; }

 private:
  std::byte* m_at;
};

// Adds up the widths of the fields, in bytes.
class FieldCounter {
 public:
  template <class T>
  constexpr void U16(const T&) noexcept {
    m_length += 2;
  }
  template <class T>
  constexpr void Choice16(const T&, std::uint16_t, std::uint16_t) noexcept {
    m_length += 2;
  }
  template <class T>
  constexpr void U32(const T&) noexcept {
    m_length += 4;
  }
  template <class T>
  constexpr void F64(const T&) noexcept {
    m_length += 8;
  }
  template <class T>
  constexpr void Text16(const T&, std::size_t units) noexcept {
    m_length += 2 * units;
  }
  template <class T>
  constexpr void Text8(const T&, std::size_t bytes, std::size_t = 0) noexcept {
    m_length += bytes;
  }
  constexpr void Raw(std::span<const std::uint8_t> field) noexcept { m_length += field.size(); }
  constexpr void Skip(std::size_t bytes) noexcept { m_length += bytes; }

  constexpr std::size_t Length() const noexcept { return m_length; }

 private:
  std::size_t m_length = 0;
};

// Lists the fields of a record in the order of a description: where each is in the body, its value, and whether the
// field can hold that. Borrows the record.
class FieldList {
 public:
  struct Field {
    bool HasValueOf(const Field& other) const noexcept {
      if (text != nullptr) return *text == *other.text;
      return number == other.number && std::equal(bytes.begin(), bytes.end(), other.bytes.begin(), other.bytes.end());
    }

    std::size_t offset = 0;         // in the body, in bytes
    std::size_t width = 0;          // bytes
    bool fits = true;               // reading the field gives the value back
    const CString* text = nullptr;  // or
    std::span<const std::uint8_t> bytes;
    std::uint64_t number = 0;  // as stored
  };

  template <class T>
  void U16(const T& field) noexcept {
    const auto stored = static_cast<std::uint16_t>(field);
    PutNumber(2, stored, static_cast<T>(stored) == field);
  }
  template <class T>
  void Choice16(const T& field, std::uint16_t least, std::uint16_t most) noexcept {
    const auto value = static_cast<std::int64_t>(field);
    PutNumber(2, static_cast<std::uint16_t>(field), value >= least && value <= most);
  }
  template <class T>
  void U32(const T& field) noexcept {
    const auto stored = static_cast<std::uint32_t>(field);
    PutNumber(4, stored, static_cast<T>(stored) == field);
  }
  void F64(const double& field) noexcept { PutNumber(8, std::bit_cast<std::uint64_t>(field), true); }
  void Text16(const CString& field, std::size_t units) noexcept {
    PutText(2 * units, field, units - 1, std::numeric_limits<char16_t>::max());
  }
  void Text8(const CString& field, std::size_t bytes) noexcept { Text8(field, bytes, bytes - 1); }
  void Text8(const CString& field, std::size_t bytes, std::size_t most) noexcept { PutText(bytes, field, most, 0xFF); }
  void Raw(std::span<const std::uint8_t> field) noexcept { Put({m_length, field.size(), true, nullptr, field, 0}); }
  void Skip(std::size_t bytes) noexcept { m_length += bytes; }

  std::span<const Field> Fields() const noexcept { return std::span(m_fields).first(m_count); }
  std::size_t Length() const noexcept { return m_length; }  // of the body

 private:
  static constexpr std::size_t kMostFields = 48;

  void Put(const Field& field) noexcept {
    assert(m_count < kMostFields);
    m_fields[m_count++] = field;
    m_length += field.width;
  }
  void PutNumber(std::size_t width, std::uint64_t stored, bool fits) noexcept {
    Put({m_length, width, fits, nullptr, {}, stored});
  }
  void PutText(std::size_t width, const CString& field, std::size_t most, char16_t greatest) noexcept {
    const std::u16string_view text = field.View();
    const bool fits = text.size() <= most && std::all_of(text.begin(), text.end(), [greatest](char16_t unit) {
                        return unit != 0 && unit <= greatest;
                      });
    Put({m_length, width, fits, &field, {}, 0});
  }

  std::array<Field, kMostFields> m_fields;
  std::size_t m_count = 0;
  std::size_t m_length = 0;
};

// Checks whether bytes can be a body that a writer made: texts end inside their fields with zeros after the end,
// numbers are finite, and a field of few values has one of them. Stores no value. Borrows the bytes, which must have
// the body's length.
class FieldChecker {
 public:
  explicit FieldChecker(std::span<const std::byte> body) noexcept : m_at(body.data()) {}

  template <class T>
  void U16(const T&) noexcept {
    Skip(2);
  }
  template <class T>
  void Choice16(const T&, std::uint16_t least, std::uint16_t most) noexcept {
    const auto value = LoadLittle<std::uint16_t>(m_at);
    m_isPossible = m_isPossible && value >= least && value <= most;
    Skip(2);
  }
  template <class T>
  void U32(const T&) noexcept {
    Skip(4);
  }
  template <class T>
  void F64(const T&) noexcept {
    m_isPossible = m_isPossible && std::isfinite(std::bit_cast<double>(LoadLittle<std::uint64_t>(m_at)));
    Skip(8);
  }
  template <class T>
  void Text16(const T&, std::size_t units) noexcept {
    EndsInZeros(2 * units, 2 * TextLength16(m_at, units));
  }
  template <class T>
  void Text8(const T&, std::size_t bytes, std::size_t = 0) noexcept {
    EndsInZeros(bytes, static_cast<std::size_t>(std::find(m_at, m_at + bytes, std::byte{0}) - m_at));
  }
  void Raw(std::span<const std::uint8_t> field) noexcept { Skip(field.size()); }
  void Skip(std::size_t bytes) noexcept { m_at += bytes; }

  [[nodiscard]] bool IsPossible() const noexcept { return m_isPossible; }

 private:
  void EndsInZeros(std::size_t width, std::size_t end) noexcept {
    m_isPossible = m_isPossible && end < width &&
                   std::all_of(m_at + end, m_at + width, [](std::byte b) { return b == std::byte{0}; });
    Skip(width);
  }

  const std::byte* m_at;
  bool m_isPossible = true;
};

}  // namespace kesp
