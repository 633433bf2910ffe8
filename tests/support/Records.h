// Records made of their fields, and small surveys made of them.
#pragma once
#include <bit>
#include <initializer_list>

#include "tests/support/Bytes.h"

namespace kesp::test {

constexpr std::uint32_t kFirst = 50;  // where the records of FileHeader() start

inline void Put(ByteVector& body, std::size_t offset, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i)
    body[offset + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> 8 * i);
}

// The bodies. A field has a width in bytes, or is a text of (c)haracters or of (u)nits of 16 bits, or a (d)ouble.
struct Layout {
  std::uint32_t type;
  std::uint16_t version;
  std::string_view fields;
};
// clang-format off
inline constexpr Layout kLayouts[] = {
    {1, 1, "feature 4 name 22c kind 2 color 4 symbol 2 "}, {1, 2, "feature 4 name 21u kind 2 color 4 symbol 2 "},
    {1, 3, "feature 4 name 256u kind 2 color 4 symbol 2 "},
    {2, 1, "feature 4 point 4 text 22c time 4 y 1d x 1d z 1d gps 1d signal 2 "},
    {2, 2, "feature 4 point 4 text 21u time 4 y 1d x 1d z 1d gps 1d signal 2 number 2 hasOffset 2 offset1 1d offset2 1d "},
    {3, 1, "status 4 created 4 short 2 t1 21c t2 256c t3 256c t4 256c t5 128c spare 1 "},
    {3, 2, "status 4 created 4 short 2 t1 21u t2 256u t3 256u t4 256u t5 128u t6 256u t7 256u kespVersion 4 minX 1d maxX 1d "
           "minY 1d maxY 1d data1 1d data2 1d data3 1d data4 1d points 4 features 4 spare 4 first 4 last 4 lastText 21u "
           "slot1 4 slotText1 256u slot2 4 slotText2 256u slot3 4 slotBytes3 32 slot4 4 slotBytes4 16 "},
    {4, 1, "feature 4 "},
    {5, 1, "feature 4 title 22c kind 2 string 41c sub 21c value 1d aux1 1d aux2 1d decimals 2 aux 22c "},
    {5, 2, "feature 4 title 21u kind 2 string 41u sub 21u value 1d aux1 1d aux2 1d decimals 2 aux 21u "},
    {5, 3, "feature 4 title 256u kind 2 string 256u sub 256u value 1d aux1 1d aux2 1d decimals 2 aux 64u aux3 1d aux4 1d "},
    {6, 1, "note 256c "}, {6, 2, "note 256u "}, {9, 2, "tag 4 length 4 "}};
// clang-format on

// Calls `see` with name, offset, width in bytes and letter of each field, and returns the length of the body.
template <class See>
std::size_t ForFields(std::string_view fields, See see) {
  std::size_t offset = 0, used = 0;
  for (std::size_t space = 0; (space = fields.find(' ')) != fields.npos; fields.remove_prefix(used)) {
    std::size_t width = std::stoul(std::string(fields.substr(space + 1)), &used);
    const char letter = fields[space + 1 + used];
    width *= letter == 'd' ? 8 : letter == 'u' ? 2 : 1;
    see(fields.substr(0, space), offset, width, letter);
    offset += width, used = fields.find(' ', space + 1) + 1;
  }
  return offset;
}

struct Field {
  Field(std::string_view fieldName, std::string_view value) : name(fieldName), text(value) {}
  template <class Number>
  requires std::is_arithmetic_v<Number> Field(std::string_view fieldName, Number value)
      : name(fieldName), number(static_cast<double>(value)) {}
  std::string_view name, text;
  double number = 0;
};
// A body with these fields, as far as it has them, and zeros.
inline ByteVector Body(std::uint32_t type, std::uint16_t version, std::initializer_list<Field> values) {
  const auto is = [&](const Layout& layout) { return layout.type == type && layout.version == version; };
  const std::string_view fields = std::find_if(std::begin(kLayouts), std::end(kLayouts), is)->fields;
  ByteVector body(ForFields(fields, [](auto...) {}));
  ForFields(fields, [&](std::string_view name, std::size_t offset, std::size_t width, char letter) {
    for (const Field& value : values) {
      if (value.name != name) continue;
      for (std::size_t i = 0; i < value.text.size(); ++i)
        body[offset + i * (letter == 'u' ? 2 : 1)] = static_cast<std::uint8_t>(value.text[i]);
      if (letter == 'd') Put(body, offset, std::bit_cast<std::uint64_t>(value.number), 8);
      if (letter == ' ')
        Put(body, offset, static_cast<std::uint64_t>(static_cast<std::int64_t>(value.number)), static_cast<int>(width));
    }
  });
  return body;
}

// Records of a survey. `version` is the record's.
struct Header2 {
  std::uint32_t kespVersion = 2;
  double minX = 0, maxX = 0, minY = 0, maxY = 0;
  std::uint32_t status = 0;
  ByteVector Body() const {
    return test::Body(3, 2,
                      {{"status", status},
                       {"created", 1'000'000'000},
                       {"kespVersion", kespVersion},
                       {"minX", minX},
                       {"maxX", maxX},
                       {"minY", minY},
                       {"maxY", maxY}});
  }
  operator ByteVector() const { return Record(3, 2, 0, Body()); }
};
inline ByteVector Header1() { return Record(3, 1, 0, Body(3, 1, {})); }
inline ByteVector Feature(std::uint32_t number, std::string_view name = "Oak", std::uint32_t flags = 0,
                          std::uint16_t version = 3, std::uint16_t kind = 1) {
  return Record(1, version, flags, Body(1, version, {{"feature", number}, {"name", name}, {"kind", kind}}));
}
struct At {
  std::int32_t time = 1000;
  double x = 0, y = 0;
  std::string_view text = "";
};
inline ByteVector Point(std::uint32_t feature, std::uint32_t number, At at = {}, std::uint32_t flags = 0,
                        std::uint16_t version = 2) {
  return Record(
      2, version, flags,
      Body(2, version,
           {{"feature", feature}, {"point", number}, {"time", at.time}, {"x", at.x}, {"y", at.y}, {"text", at.text}}));
}
inline ByteVector Attribute(std::uint32_t feature, std::string_view name, std::string_view text = "",
                            std::uint32_t flags = 0, std::uint16_t version = 3, double value = 0) {
  return Record(
      5, version, flags,
      Body(5, version, {{"feature", feature}, {"title", name}, {"kind", 1}, {"string", text}, {"value", value}}));
}
inline ByteVector Note(std::string_view text, std::uint32_t flags = 0, std::uint16_t version = 2) {
  return Record(6, version, flags, Body(6, version, {{"note", text}}));
}
inline ByteVector EndOf(std::uint32_t feature, std::uint32_t flags = 0) {  // 18 bytes
  return Record(4, 1, flags, Body(4, 1, {{"feature", feature}}));
}
// The block of a tag, which is also what it holds in memory.
inline ByteVector Block(std::string_view name, const ByteVector& payload) {
  ByteVector block;
  Append(block, (2 * name.size() + 5) / 4 * 4, 4);
  for (const char c : name) Append(block, static_cast<unsigned char>(c), 2);
  block.resize(4 + (2 * name.size() + 5) / 4 * 4);
  Append(block, payload.size(), 4);
  return block + payload;
}
inline ByteVector Tag(std::uint32_t kind, std::string_view name, const ByteVector& payload, std::uint32_t flags = 0) {
  const ByteVector block = Block(name, payload);
  return Record(9, 2, flags, Body(9, 2, {{"tag", kind}, {"length", block.size()}}) + block);
}
inline ByteVector Words(std::initializer_list<std::uint32_t> words) {
  ByteVector bytes;
  for (const std::uint32_t word : words) Append(bytes, word, 4);
  return bytes;
}
inline ByteVector Floats(std::initializer_list<float> values) {
  ByteVector bytes;
  for (const float value : values) Append(bytes, std::bit_cast<std::uint32_t>(value), 4);
  return bytes;
}
template <class Range = std::initializer_list<ByteVector>>
ByteVector Survey(const Range& records, std::uint16_t version = 3) {
  ByteVector bytes = FileHeader(version);
  for (const ByteVector& record : records) Append(bytes, record);
  return bytes;
}

// One of each class, all of feature 7.
inline ByteVector SampleBody(std::uint32_t type, std::uint16_t version) {
  // Kind integer, a block of 16: the name "d" in 4 bytes, a payload of 4.
  if (type == 9) return Hex("01 00*3 10 00*3 04 00*3 \"d\" 00 00 04 00*3 2a 00*3");
  return Body(type, version,
              {{"feature", 7},
               {"name", "Oak"},
               {"kind", type == 1 && version == 3 ? 2 : 1},
               {"color", 0x332211},
               {"symbol", 5},
               {"point", 3},
               {"text", "A1"},
               {"signal", 4},
               {"t1", type == 3 && version == 1 ? "Job" : ""},
               {"title", "Girth"},
               {"string", "thick"},
               {"decimals", 2},
               {"note", "rain"}});
}
inline ByteVector Sample(std::uint32_t type, std::uint16_t version, std::uint32_t flags = 0) {
  return Record(type, version, flags, SampleBody(type, version));
}
constexpr std::pair<std::uint32_t, std::uint16_t> kEveryClass[] = {{3, 1}, {1, 1}, {2, 1}, {5, 1}, {4, 1},
                                                                   {6, 1}, {9, 2}, {1, 3}, {2, 2}, {6, 2}};

inline ByteVector WithLength(ByteVector record, std::uint32_t length) {  // stated in its header
  Put(record, 10, length, 4);
  return record;
}
inline ByteVector Part(const ByteVector& bytes, std::size_t from, std::size_t to = SIZE_MAX) {
  const auto at = [&](std::size_t i) { return bytes.begin() + static_cast<std::ptrdiff_t>(std::min(i, bytes.size())); };
  return {at(from), at(to)};
}

}  // namespace kesp::test
