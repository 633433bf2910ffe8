// The values of tags.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kesp/format/RecordView.h"

namespace kesp::ogr {

// A link between two features.
struct LinkValues {
  std::uint32_t fromFeature, fromQualifier, toFeature, toQualifier, value, spare;
};
// Null if the tag is no link or can't be decoded.
std::optional<LinkValues> LinkOf(const TagView& tag);

// Feature number and flags, if the tag carries flags for a feature.
std::optional<std::pair<std::uint32_t, std::uint32_t>> ChangeFlagsOf(const TagView& tag);

const char* TagKindName(KESP_TAG kind);
// The value of a tag as a text: a text itself, or numbers with blanks between them. Null if the kind is unknown or a
// blob, or if the payload is too short; then there are only bytes.
std::optional<std::string> TagValueText(KESP_TAG kind, std::span<const std::byte> payload);

// Appends 4 bytes, as tags have them.
void PutWord(std::uint32_t word, std::vector<std::byte>& payload);
// The kind of that name; null if there is none.
std::optional<KESP_TAG> TagKindOf(std::string_view name);
// The payload that TagValueText would show so. Null if the text has not the numbers of this kind, or one that can't be
// stored as it is.
std::optional<std::vector<std::byte>> TagPayloadOf(KESP_TAG kind, const std::string& text);

}  // namespace kesp::ogr
