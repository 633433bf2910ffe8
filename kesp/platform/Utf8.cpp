#include "kesp/platform/Utf8.h"

#include <bit>
#include <cstring>

namespace kesp {
namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

std::uint32_t UnitAt(const std::byte* text, std::size_t index) noexcept {
  const std::byte* const at = text + 2 * index;
  return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8;
}
bool IsHigh(std::uint32_t unit) noexcept { return unit >= 0xD800 && unit < 0xDC00; }
bool IsLow(std::uint32_t unit) noexcept { return unit >= 0xDC00 && unit < 0xE000; }

// Writes units below 0x80, four at a time. Advances `i` over them, and returns true at the text's end.
bool PutPlain(char*& out, const std::byte* text, std::size_t units, std::size_t& i) noexcept {
  if constexpr (std::endian::native != std::endian::little) return false;
  constexpr std::uint64_t kOnes = 0x0001000100010001U;
  for (; units - i >= 4; i += 4, out += 4) {
    std::uint64_t four = 0;
    std::memcpy(&four, text + 2 * i, sizeof four);
    if ((four & 0xFF80 * kOnes) != 0) return false;
    // The lowest bit set here is the high bit of the first zero unit.
    const std::uint64_t zeros = (four - kOnes) & (kOnes << 15);
    four |= four >> 8;
    const auto packed = static_cast<std::uint32_t>((four & 0xFFFF) | (four >> 16 & 0xFFFF0000));
    std::memcpy(out, &packed, sizeof packed);
    if (zeros != 0) {
      out += static_cast<std::size_t>(std::countr_zero(zeros)) / 16;
      return true;
    }
  }
  return false;
}

}  // namespace

char* PutUtf8(char* out, std::uint32_t code) noexcept {
  const auto put = [&out](std::uint32_t byte) { *out++ = static_cast<char>(static_cast<unsigned char>(byte)); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  }
  return out;
}

char* PutUtf8(char* out, const std::byte* text, std::size_t units, LoneSurrogate lone) noexcept {
  for (std::size_t i = 0; i < units; ++i) {
    if (PutPlain(out, text, units, i) || i == units) return out;
    std::uint32_t code = UnitAt(text, i);
    if (code == 0) return out;
    if (IsHigh(code) && i + 1 < units && IsLow(UnitAt(text, i + 1))) {
      code = 0x10000U + ((code - 0xD800) << 10) + (UnitAt(text, ++i) - 0xDC00);
    } else if (lone == LoneSurrogate::kReplace && (IsHigh(code) || IsLow(code))) {
      code = kReplacement;
    }
    out = PutUtf8(out, code);
  }
  return out;
}

char* PutLatin1AsUtf8(char* out, const std::byte* text, std::size_t bytes) noexcept {
  for (std::size_t i = 0; i < bytes && text[i] != std::byte{0}; ++i) {
    out = PutUtf8(out, static_cast<std::uint32_t>(text[i]));
  }
  return out;
}

}  // namespace kesp
