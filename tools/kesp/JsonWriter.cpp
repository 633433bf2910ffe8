#include "tools/kesp/JsonWriter.h"

#include <array>
#include <charconv>
#include <cmath>

namespace kesp::tool {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr std::size_t kLongestNumber = 32;
constexpr std::size_t kLongestUnit = 6;  // \u0000

// `to` has room for kLongestNumber. Returns the number of characters.
std::size_t FormatFinite(double value, char* to) {
  char* end = std::to_chars(to, to + kLongestNumber - 2, value).ptr;
  if (std::string_view(to, static_cast<std::size_t>(end - to)).find_first_of(".e") == std::string_view::npos) {
    *end++ = '.';
    *end++ = '0';
  }
  return static_cast<std::size_t>(end - to);
}

constexpr bool IsPlain(char16_t unit) noexcept { return unit >= 0x20 && unit < 0x7F && unit != u'"' && unit != u'\\'; }

// In pieces, for most are plain from end to end and take a pass without a branch.
template <class Unit>
void PutQuoted(Output& out, std::basic_string_view<Unit> units) {
  constexpr std::size_t kPiece = 32;
  out.Put('"');
  while (!units.empty()) {
    const auto piece = units.substr(0, kPiece);
    units.remove_prefix(piece.size());
    char* to = out.Room(kPiece * kLongestUnit);
    bool plain = true;
    for (std::size_t i = 0; i < piece.size(); ++i) {
      plain &= IsPlain(static_cast<char16_t>(piece[i]));
      to[i] = static_cast<char>(piece[i]);
    }
    if (plain) {
      out.Took(piece.size());
      continue;
    }
    for (const Unit unit : piece) {
      if (IsPlain(static_cast<char16_t>(unit))) {
        out.Put(static_cast<char>(unit));
        continue;
      }
      to = out.Room(kLongestUnit);
      to[0] = '\\';
      to[1] = 'u';
      for (int i = 0; i < 4; ++i) to[2 + i] = kHexDigits[static_cast<char16_t>(unit) >> (12 - 4 * i) & 0xF];
      out.Took(kLongestUnit);
    }
  }
  out.Put('"');
}

const char* NameOfNonFinite(double value) {
  if (std::isnan(value)) return "NaN";
  return value > 0 ? "Infinity" : "-Infinity";
}

}  // namespace

void JsonWriter::Separate() {
  if (m_afterValue) m_out.Put(',');
  m_afterValue = true;
}

void JsonWriter::Open(char bracket) {
  Separate();
  m_out.Put(bracket);
  m_afterValue = false;
}

void JsonWriter::Close(char bracket) {
  m_out.Put(bracket);
  m_afterValue = true;
}

void JsonWriter::Literal(std::string_view text) {
  Separate();
  m_out.Put(text);
}

JsonWriter& JsonWriter::Key(std::string_view asciiName) {
  Separate();
  m_out.Put('"').Put(asciiName).Put("\":");
  m_afterValue = false;
  return *this;
}

void JsonWriter::Text(std::u16string_view units) {
  Separate();
  PutQuoted(m_out, units);
}

void JsonWriter::Text(std::string_view ascii) {
  Separate();
  PutQuoted(m_out, ascii);
}

void JsonWriter::Number(std::int64_t value) {
  Separate();
  char* const to = m_out.Room(kLongestNumber);
  m_out.Took(static_cast<std::size_t>(std::to_chars(to, to + kLongestNumber, value).ptr - to));
}

void JsonWriter::Number(double value) {
  if (!std::isfinite(value)) return Text(std::string_view(NameOfNonFinite(value)));
  Separate();
  m_out.Took(FormatFinite(value, m_out.Room(kLongestNumber)));
}

void JsonWriter::Hex(std::span<const std::byte> bytes) {
  Separate();
  m_out.Put('"');
  for (const std::byte byte : bytes) {
    char* const to = m_out.Room(2);
    to[0] = kHexDigits[std::to_integer<std::size_t>(byte >> 4)];
    to[1] = kHexDigits[std::to_integer<std::size_t>(byte & std::byte{0xF})];
    m_out.Took(2);
  }
  m_out.Put('"');
}

void JsonWriter::EndLine() {
  m_out.Put('\n');
  m_afterValue = false;
}

std::string ShortestText(double value) {
  if (!std::isfinite(value)) return NameOfNonFinite(value);
  std::array<char, kLongestNumber> text;
  return {text.data(), FormatFinite(value, text.data())};
}

}  // namespace kesp::tool
