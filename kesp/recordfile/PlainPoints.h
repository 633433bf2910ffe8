// Nearly every record of a survey is a point of the newest version, without flags and with the length of its layout:
// bytes of one length that follow one another, so that a reader can take many at once.
#pragma once
#include <array>
#include <cstddef>
#include <cstring>

#include "kesp/format/RecordKinds.h"
#include "kesp/recordfile/RecordHeader.h"

namespace kesp {

constexpr std::uint16_t kNewestPoint = NewestOf(kPointBodies);
constexpr std::size_t kPlainPointBody = BodyLengthOf(KESP_RECORD_POINT, kNewestPoint);
constexpr std::size_t kPlainPointSize = kRecordHeaderSize + kPlainPointBody;  // record header and body

// Their record header: type, version, flags and length.
inline constexpr auto kPlainPointHeader = [] {
  std::array<std::byte, kRecordHeaderSize> bytes{};
  std::size_t at = 0;
  const auto put = [&](std::size_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) bytes[at++] = static_cast<std::byte>(value >> 8 * i & 0xFF);
  };
  put(KESP_RECORD_POINT, 4);
  put(kNewestPoint, 2);
  put(0, 4);
  put(kPlainPointBody, 4);
  return bytes;
}();

// Whether the bytes are such a header. There must be kRecordHeaderSize of them.
inline bool IsPlainPoint(const std::byte* bytes) noexcept {
  return std::memcmp(bytes, kPlainPointHeader.data(), kPlainPointHeader.size()) == 0;
}

}  // namespace kesp
