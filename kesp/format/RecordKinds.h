// What a reader does with each record type, which versions a type has, and how long its bodies are.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "kesp/format/Bodies.h"
#include "kesp/records/KespRecord.h"
#include "kesp/util/Fields.h"

namespace kesp {

enum class RecordUse : std::uint8_t {
  kRead,        // made into an object
  kPassedOver,  // skipped by its length, so a new kind of record can be added
  kRefused      // ends the walk
};

constexpr std::size_t kMostVersions = 8;  // of a record type

struct RecordKind {
  std::uint32_t type;
  const char* name;
  RecordUse use;
  std::uint16_t newest;  // record version; the oldest is 1. 0 for types that are not read
  // By record version; 0 for no such version. A tag's length is 0 too, since its body is 8 bytes and its block.
  std::array<std::uint16_t, kMostVersions + 1> oldestFile;  // the oldest file version that holds it
  std::array<std::uint16_t, kMostVersions + 1> length;      // of the body in bytes
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

namespace detail {

// `oldestFile` has the oldest file version for each record version, from 1 on.
template <class... Bodies, std::size_t kVersions>
constexpr RecordKind ReadKind(std::uint32_t type, const char* name, const std::tuple<Bodies...>& bodies,
                              const std::uint16_t (&oldestFile)[kVersions]) {
  static_assert(kVersions == sizeof...(Bodies));
  RecordKind kind{type, name, RecordUse::kRead, NewestOf(bodies), {}, {}};
  for (unsigned v = 1; v <= kind.newest; ++v) {
    kind.oldestFile[v] = oldestFile[v - 1];
    WithVersion(bodies, v, [&](auto body) { kind.length[v] = static_cast<std::uint16_t>(BodyWidth(body)); });
  }
  return kind;
}
constexpr RecordKind TagKind() { return {KESP_RECORD_TAG, "tag", RecordUse::kRead, 2, {0, 1, 2}, {}}; }
constexpr RecordKind OtherKind(std::uint32_t type, const char* name, RecordUse use) {
  return {type, name, use, 0, {}, {}};
}

}  // namespace detail

// Indexed by type. All higher types are unknown and treated as the last one.
constexpr std::array<RecordKind, 17> kRecordKinds{
    detail::OtherKind(KESP_RECORD_NONE, "none", RecordUse::kRefused),
    detail::ReadKind(KESP_RECORD_FEATURE, "feature", kFeatureBodies, {1, 2, 2}),
    detail::ReadKind(KESP_RECORD_POINT, "point", kPointBodies, {1, 2}),
    detail::ReadKind(KESP_RECORD_HEADER, "header", kHeaderBodies, {1, 2}),
    detail::ReadKind(KESP_RECORD_FEATURE_END, "feature end", kFeatureEndBodies, {1}),
    detail::ReadKind(KESP_RECORD_ATTRIBUTE, "attribute", kAttributeBodies, {1, 2, 3}),
    detail::ReadKind(KESP_RECORD_NOTE, "note", kNoteBodies, {1, 2}),
    detail::OtherKind(7, "unassigned", RecordUse::kPassedOver),
    detail::OtherKind(8, "unassigned", RecordUse::kPassedOver),
    detail::TagKind(),
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
constexpr std::uint32_t BodyLengthOf(std::uint32_t type, std::uint16_t version) {
  const RecordKind& kind = KindOfRecord(type);
  return version <= kind.newest ? static_cast<std::uint32_t>(kind.length[version]) : 0;
}
// The record version for a file of the given version.
constexpr std::uint16_t RecordVersionFor(std::uint32_t type, std::uint16_t fileVersion) {
  return fileVersion == 1 ? 1 : KindOfRecord(type).newest;
}
// Stores the oldest file version that holds the given record version; returns false and stores nothing for an unknown
// one.
constexpr bool OldestFileVersion(std::uint32_t type, std::uint16_t recordVersion, unsigned short& fileVersion) {
  const RecordKind& kind = KindOfRecord(type);
  if (recordVersion == 0 || recordVersion > kind.newest) return false;
  fileVersion = kind.oldestFile[recordVersion];
  return true;
}

}  // namespace kesp
