// Writes JSON in plain ASCII as it comes, keeping nothing but the place in the text.
//
//   JsonWriter json(out);
//   json.BeginObject();
//   json.Key("name").Text(u"Oak");
//   json.Key("values").BeginArray();
//   json.Number(0.5);
//   json.EndArray();
//   json.EndObject();
//
// It is our own because names, texts and paths may hold lone surrogates, which well-kept JSON libraries refuse or
// replace. Here every 16-bit unit of a text is kept: what is not printable ASCII is written as its own escape, half a
// surrogate pair too. A double reads back to the same double; NaN and the infinities, for which JSON has no number, are
// texts. The caller sees to it that keys are in objects and that brackets match.
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tools/kesp/Output.h"

namespace kesp::tool {

class JsonWriter {
 public:
  explicit JsonWriter(Output& out) noexcept : m_out(out) {}

  void BeginObject() { Open('{'); }
  void EndObject() { Close('}'); }
  void BeginArray() { Open('['); }
  void EndArray() { Close(']'); }
  JsonWriter& Key(std::string_view asciiName);

  void Text(std::u16string_view units);
  void Text(std::string_view ascii);
  void Number(std::int64_t value);
  void Number(double value);
  void Bool(bool value) { Literal(value ? "true" : "false"); }
  void Null() { Literal("null"); }
  // Two lower-case digits a byte, in quotes.
  void Hex(std::span<const std::byte> bytes);
  void EndLine();  // after a whole document

 private:
  void Open(char bracket);
  void Close(char bracket);
  void Literal(std::string_view text);
  void Separate();

  Output& m_out;
  bool m_afterValue = false;
};

// The shortest decimal digits that read back to the same double, with ".0" after integral ones; or "NaN", "Infinity",
// "-Infinity".
std::string ShortestText(double value);

}  // namespace kesp::tool
