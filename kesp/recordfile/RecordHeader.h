// The 14 bytes before each record body. Offsets and widths are part of the format: never change them.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

#include "kesp/util/Fields.h"

namespace kesp {

constexpr std::size_t kRecordHeaderSize = 14;
constexpr std::size_t kFlagsOffset = 6;
struct RecordHeaderPlaces {  // offsets
  static constexpr std::size_t kType = 0;
  static constexpr std::size_t kVersion = 4;
  static constexpr std::size_t kFlags = 6;
  static constexpr std::size_t kLength = 10;
};

struct RecordHeader {
  std::uint32_t type = 0;
  std::uint16_t version = 0;
  std::uint32_t flags = 0;
  std::uint32_t length = 0;  // of the body
};

template <class Visitor, class Header>
void DescribeRecordHeader(Visitor& v, Header& header) {
  v.U32(header.type);     // 0
  v.U16(header.version);  // 4
  v.U32(header.flags);    // 6
  v.U32(header.length);   // 10
}

inline std::array<std::byte, kRecordHeaderSize> EncodeRecordHeader(const RecordHeader& header) noexcept {
  std::array<std::byte, kRecordHeaderSize> bytes;
  FieldWriter writer(bytes.data());
  DescribeRecordHeader(writer, header);
  return bytes;
}

}  // namespace kesp
