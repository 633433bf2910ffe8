// Encodes UTF-16 as UTF-8. Not installed.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kesp {

constexpr std::size_t kMostUtf8PerUnit = 3;  // bytes; a pair of surrogates takes 4

// What becomes of a surrogate that is not part of a pair.
enum class LoneSurrogate : std::uint8_t {
  kKeep,    // encoded like any other unit: not valid UTF-8, but it can be turned back into the same text
  kReplace  // U+FFFD
};

// Writes the code point as up to four bytes and returns the place after them.
char* PutUtf8(char* out, std::uint32_t code) noexcept;

// Writes the UTF-16 text that starts at `text` (little-endian, at any address) and ends before its first zero unit or
// after `units` units. Returns the place after the last byte. There must be room for kMostUtf8PerUnit * units bytes,
// all of which may be overwritten.
char* PutUtf8(char* out, const std::byte* text, std::size_t units, LoneSurrogate lone) noexcept;

// The same for a text of 8-bit characters, each of which is the character of the same value. Each takes up to 2 bytes.
char* PutLatin1AsUtf8(char* out, const std::byte* text, std::size_t bytes) noexcept;

}  // namespace kesp
