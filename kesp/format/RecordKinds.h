// What a reader does with each record type, which versions a type has, and how long its bodies are.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

#include "kesp/format/Bodies.h"
#include "kesp/records/KespRecord.h"
#include "kesp/util/Fields.h"

namespace kesp {

enum class RecordUse : std::uint8_t {
  kRead,        // made into an object
  kPassedOver,  // skipped by its length, so a new kind of record can be added
  kRefused      // ends the walk
};

struct RecordKind {
  std::uint32_t type;
  const char* name;
  RecordUse use;
  std::uint16_t newest;  // record version; the oldest is 1. 0 for types that are not read
  // Body length in bytes, by record version; 0 for no such version, and for a tag, whose body is 8 bytes and its block.
  std::array<std::uint16_t, 4> length;
};

// Calls `use` with the description of a body of fixed length and returns true; returns false without a call when there
// is none.
template <class Use>
constexpr bool WithBody(std::uint32_t type, unsigned version, Use use) {
  switch (type) {
    case KESP_RECORD_FEATURE:
      return WithVersion(kFeatureBodies, version, use);
    case KESP_RECORD_POINT:
      return WithVersion(kPointBodies, version, use);
    case KESP_RECORD_HEADER:
      return WithVersion(kHeaderBodies, version, use);
    case KESP_RECORD_FEATURE_END:
      return WithVersion(kFeatureEndBodies, version, use);
    case KESP_RECORD_ATTRIBUTE:
      return WithVersion(kAttributeBodies, version, use);
    case KESP_RECORD_NOTE:
      return WithVersion(kNoteBodies, version, use);
    default:
      return false;
  }
}

// The width of a body in bytes.
template <class Describe>
constexpr std::size_t BodyWidth(Describe describe) {
  constexpr BodyFields kFields{};
  FieldCounter counter;
  describe(counter, kFields);
  return counter.Length();
}

namespace detail {

constexpr RecordKind ReadKind(std::uint32_t type, const char* name, std::uint16_t newest) {
  RecordKind kind{type, name, RecordUse::kRead, newest, {}};
  for (unsigned v = 1; v <= newest; ++v) {
    WithBody(type, v, [&](auto describe) { kind.length[v] = static_cast<std::uint16_t>(BodyWidth(describe)); });
  }
  return kind;
}
constexpr RecordKind OtherKind(std::uint32_t type, const char* name, RecordUse use) { return {type, name, use, 0, {}}; }

}  // namespace detail

// Indexed by type. All higher types are unknown and treated as the last one.
constexpr std::array<RecordKind, 17> kRecordKinds{
    detail::OtherKind(KESP_RECORD_NONE, "none", RecordUse::kRefused),
    detail::ReadKind(KESP_RECORD_FEATURE, "feature", 3),
    detail::ReadKind(KESP_RECORD_POINT, "point", 2),
    detail::ReadKind(KESP_RECORD_HEADER, "header", 2),
    detail::ReadKind(KESP_RECORD_FEATURE_END, "feature end", 1),
    detail::ReadKind(KESP_RECORD_ATTRIBUTE, "attribute", 3),
    detail::ReadKind(KESP_RECORD_NOTE, "note", 2),
    detail::OtherKind(7, "unassigned", RecordUse::kPassedOver),
    detail::OtherKind(8, "unassigned", RecordUse::kPassedOver),
    detail::ReadKind(KESP_RECORD_TAG, "tag", 2),
    // Reserved for records with wide-character text: refused rather than misread.
    detail::OtherKind(10, "wide", RecordUse::kRefused),
    detail::OtherKind(11, "wide", RecordUse::kRefused),
    detail::OtherKind(12, "wide", RecordUse::kRefused),
    detail::OtherKind(13, "wide", RecordUse::kRefused),
    detail::OtherKind(14, "wide", RecordUse::kRefused),
    detail::OtherKind(KESP_RECORD_BROKEN, "broken", RecordUse::kPassedOver),
    detail::OtherKind(16, "unknown", RecordUse::kPassedOver),
};

static_assert([] {
  for (std::size_t i = 0; i < kRecordKinds.size(); ++i) {
    if (kRecordKinds[i].type != i) return false;
  }
  return true;
}());

constexpr const RecordKind& KindOfRecord(std::uint32_t type) {
  return kRecordKinds[type < kRecordKinds.size() ? type : kRecordKinds.size() - 1];
}
constexpr std::size_t BodyLengthOf(std::uint32_t type, std::uint16_t version) {
  const RecordKind& kind = KindOfRecord(type);
  return version <= kind.newest ? kind.length[version] : 0;
}

}  // namespace kesp
