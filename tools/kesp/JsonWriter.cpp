#include "tools/kesp/JsonWriter.h"

#include <array>
#include <charconv>
#include <cmath>

namespace kesp::tool {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr std::size_t kLongestNumber = 32;
constexpr std::size_t kLongestUnit = 6;  // \u0000

// `to` has room for kLongestNumber. Answers how many characters there are.
std::size_t FormatFinite(double value, char* to) {
  char* end = std::to_chars(to, to + kLongestNumber - 2, value).ptr;
  if (std::string_view(to, static_cast<std::size_t>(end - to)).find_first_of(".e") == std::string_view::npos) {
    *end++ = '.';
    *end++ = '0';
  }
  return static_cast<std::size_t>(end - to);
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
  m_out.Put('"');
  for (const char16_t unit : units) {
    char* const to = m_out.Room(kLongestUnit);
    if (unit >= 0x20 && unit < 0x7F && unit != u'"' && unit != u'\\') {
      *to = static_cast<char>(unit);
      m_out.Took(1);
    } else {
      to[0] = '\\';
      to[1] = 'u';
      for (int i = 0; i < 4; ++i) to[2 + i] = kHexDigits[unit >> (12 - 4 * i) & 0xF];
      m_out.Took(kLongestUnit);
    }
  }
  m_out.Put('"');
}

void JsonWriter::Text(std::string_view ascii) { Text(std::u16string(ascii.begin(), ascii.end())); }

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

void JsonWriter::Hex(std::span<const std::uint8_t> bytes) {
  Separate();
  m_out.Put('"');
  for (const std::uint8_t byte : bytes) {
    char* const to = m_out.Room(2);
    to[0] = kHexDigits[byte >> 4];
    to[1] = kHexDigits[byte & 0xF];
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
