#include "ogr/Tags.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

#include <cpl_conv.h>
#include <cpl_string.h>

#include "kesp/util/Fields.h"
#include "ogr/Utf8Text.h"

namespace kesp::ogr {
namespace {

// How the payload of each kind is laid out: (i)nteger, (u)nsigned, (f)loat, (d)ouble, (n)umber of a point as a float,
// (k) an integer as a float; or (t)ext.
struct TagKind {
  const char* name;
  std::string_view layout;
};
constexpr TagKind kKinds[] = {
    {"blob", ""},          {"integer", "i"},         {"double", "d"},       {"string", "t"},      {"point", "ddd"},
    {"rectangle", "dddd"}, {"color", "u"},           {"gps_mark", "uuuu"},  {"file_link", "u"},   {"quality", "nffff"},
    {"link", "uuuuuu"},    {"quality_ex", "nffffk"}, {"pos_error", "nfff"}, {"named_flag", "uu"},
};

std::size_t WidthOf(char letter) { return letter == 'd' ? 8 : 4; }

std::uint32_t WordAt(std::span<const std::byte> payload, std::size_t index) {
  return LoadLittle<std::uint32_t>(payload.data() + 4 * index);
}

// What doesn't fit is 0, as everywhere in this format.
std::string WholeText(float value, double least, double most) {
  const double whole = std::trunc(double{value});
  return whole >= least && whole <= most ? std::to_string(static_cast<std::int64_t>(whole)) : "0";
}

std::string NumberText(char letter, const std::byte* at) {
  if (letter == 'd') return CPLSPrintf("%.17g", std::bit_cast<double>(LoadLittle<std::uint64_t>(at)));
  const auto word = LoadLittle<std::uint32_t>(at);
  const auto value = std::bit_cast<float>(word);
  switch (letter) {
    case 'i':
      return std::to_string(static_cast<std::int32_t>(word));
    case 'u':
      return std::to_string(word);
    case 'n':
      return WholeText(value, 0, 4294967295.0);
    case 'k':
      return WholeText(value, -2147483648.0, 2147483647.0);
    default:
      return CPLSPrintf("%.9g", double{value});
  }
}

template <class Number>
void Put(Number number, std::vector<std::byte>& payload) {
  for (std::size_t i = 0; i < sizeof number; ++i) payload.push_back(static_cast<std::byte>(number >> 8 * i));
}

template <class Number>
bool PutInteger(std::string_view text, std::vector<std::byte>& payload) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  Put(static_cast<std::uint32_t>(number), payload);
  return true;
}

bool PutNumber(char letter, const std::string& text, std::vector<std::byte>& payload) {
  if (letter == 'i') return PutInteger<std::int32_t>(text, payload);
  if (letter == 'u') return PutInteger<std::uint32_t>(text, payload);
  char* end = nullptr;
  const double number = CPLStrtod(text.c_str(), &end);
  if (text.empty() || *end != '\0') return false;
  if (letter == 'd') {
    Put(std::bit_cast<std::uint64_t>(number), payload);
    return true;
  }
  const auto value = static_cast<float>(number);
  const auto bits = std::bit_cast<std::uint32_t>(value);
  Put(bits, payload);
  const bool isWhole = letter == 'n' || letter == 'k';
  const double least = letter == 'n' ? 0 : -2147483648.0;
  const double most = letter == 'n' ? 4294967295.0 : 2147483647.0;
  return isWhole ? WholeText(value, least, most) == text : std::isinf(value) == std::isinf(number);
}

std::vector<std::byte> TextPayload(const CString& text) {
  std::vector<std::byte> payload;
  for (const char16_t unit : text.View()) Put(static_cast<std::uint16_t>(unit), payload);
  Put(std::uint16_t{0}, payload);
  return payload;
}

}  // namespace

std::optional<LinkValues> LinkOf(const TagView& tag) {
  if (tag.Type() != KESP_TAG_FEATURE_LINK) return std::nullopt;
  const auto payload = tag.Payload();
  if (!payload || payload->size() < sizeof(LinkValues)) return std::nullopt;
  return LinkValues{WordAt(*payload, 0), WordAt(*payload, 1), WordAt(*payload, 2),
                    WordAt(*payload, 3), WordAt(*payload, 4), WordAt(*payload, 5)};
}

std::optional<std::pair<std::uint32_t, std::uint32_t>> ChangeFlagsOf(const TagView& tag) {
  if (tag.Type() != KESP_TAG_NAMED_FLAG) return std::nullopt;
  const auto sameLetter = [](char16_t a, char16_t b) {
    return a == b || (a < 0x80 && b < 0x80 && (a | 0x20) == (b | 0x20) && (a | 0x20) >= 'a' && (a | 0x20) <= 'z');
  };
  const auto name = tag.Name();
  if (!name || !name->Equals(u"FeatureChanges", sameLetter)) return std::nullopt;
  const auto payload = tag.Payload();
  if (!payload || payload->size() < 8) return std::pair{0U, 0U};
  return std::pair{WordAt(*payload, 0), WordAt(*payload, 1)};
}

const char* TagKindName(KESP_TAG kind) { return kind < std::size(kKinds) ? kKinds[kind].name : "unknown"; }

std::optional<std::string> TagValueText(KESP_TAG kind, std::span<const std::byte> payload) {
  if (kind == KESP_TAG_BLOB || kind >= std::size(kKinds)) return std::nullopt;
  const std::string_view layout = kKinds[kind].layout;
  if (layout == "t") {
    if (payload.size() < 2) return std::nullopt;
    return Utf8Of(TextView(payload.data(), payload.size() / 2, true));
  }
  std::size_t width = 0;
  for (const char letter : layout) width += WidthOf(letter);
  if (payload.size() < width) return std::nullopt;
  std::string text;
  const std::byte* at = payload.data();
  for (const char letter : layout) {
    if (!text.empty()) text += ' ';
    text += NumberText(letter, at);
    at += WidthOf(letter);
  }
  return text;
}

void PutWord(std::uint32_t word, std::vector<std::byte>& payload) { Put(word, payload); }

std::optional<KESP_TAG> TagKindOf(std::string_view name) {
  const auto* const kind =
      std::find_if(std::begin(kKinds), std::end(kKinds), [&](const auto& k) { return k.name == name; });
  if (kind == std::end(kKinds)) return std::nullopt;
  return KESP_TAG{static_cast<std::uint32_t>(kind - kKinds)};
}

std::optional<std::vector<std::byte>> TagPayloadOf(KESP_TAG kind, const std::string& text) {
  if (kind == KESP_TAG_BLOB || kind >= std::size(kKinds)) return std::nullopt;
  const std::string_view layout = kKinds[kind].layout;
  if (layout == "t") return TextPayload(CString::FromUtf8(text));
  const CPLStringList numbers(CSLTokenizeString2(text.c_str(), " ", 0));
  if (static_cast<std::size_t>(numbers.size()) != layout.size()) return std::nullopt;
  std::vector<std::byte> payload;
  for (int i = 0; i < numbers.size(); ++i) {
    if (!PutNumber(layout[static_cast<std::size_t>(i)], numbers[i], payload)) return std::nullopt;
  }
  return payload;
}

}  // namespace kesp::ogr
