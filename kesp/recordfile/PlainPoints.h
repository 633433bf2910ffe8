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

// Whether the bytes are the record header of such a point. There must be kRecordHeaderSize of them.
inline bool IsPlainPoint(const std::byte* bytes) noexcept {
  static const std::array<std::byte, kRecordHeaderSize> kHeader =
      EncodeRecordHeader({KESP_RECORD_POINT, kNewestPoint, 0, kPlainPointBody});
  return std::memcmp(bytes, kHeader.data(), kHeader.size()) == 0;
}

}  // namespace kesp
