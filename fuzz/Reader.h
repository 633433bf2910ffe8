// An independent reader of records, written from docs/file-format.md. The library must give the same result on every
// input.
#pragma once
#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kesp/recordfile/KespDataFile.h"

namespace kesp::test {

inline std::uint32_t Number(std::span<const std::uint8_t> bytes, std::uint64_t at, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = width; i-- > 0;) value = value << 8 | bytes[static_cast<std::size_t>(at + i)];
  return value;
}

struct Walked {
  std::vector<std::uint32_t> positions;
  KESP_ERROR_TYPE error = KESP_ERROR_NONE;
  bool raised = false;  // a version-1 feature that is cut short
  bool operator==(const Walked&) const = default;
};

// Offset of the first record; nothing when the file header is refused.
inline std::optional<std::uint32_t> FirstRecord(std::span<const std::uint8_t> file) {
  static const char kSignature[] = "Corvanthe Survey Devices -- Kesp Data File";
  if (file.size() < 50 || !std::equal(kSignature, kSignature + 42, file.begin())) return {};
  const std::uint32_t at = 48 + Number(file, 44, 4);
  return at > file.size() ? std::nullopt : std::optional(at);
}

// What a reader gets from offset `at` on.
inline Walked ReadFrom(std::span<const std::uint8_t> file, std::uint64_t at, bool skipDeleted) {
  Walked walked;
  const auto end = [&](KESP_ERROR_TYPE error) {
    walked.error = error;
    return walked;
  };
  for (;;) {
    const std::uint64_t left = at < file.size() ? file.size() - at : 0;
    if (left == 0) return end(KESP_ERROR_NORMAL_EOF);
    if (left < 14) return end(KESP_ERROR_EOF);
    const auto header = file.subspan(static_cast<std::size_t>(at), 14);
    const std::uint32_t type = Number(header, 0, 4);
    const std::uint32_t version = Number(header, 4, 2);
    const std::uint32_t flags = Number(header, 6, 4);
    const std::uint32_t length = Number(header, 10, 4);
    const auto start = static_cast<std::uint32_t>(at);
    at += 14;
    if (length == 0 || static_cast<std::uint32_t>(at + length) > file.size()) return end(KESP_ERROR_RECORD_HEADER);
    if ((flags & 1) != 0 && skipDeleted) {
      at += length;
      continue;
    }
    if (type == 0) return end(KESP_ERROR_RECORD_TYPE);
    if (type >= 10 && type <= 14) return end(KESP_ERROR_UNICODE);
    if (type == 7 || type == 8 || type >= 15) {
      at += length;
      continue;
    }
    static constexpr std::uint32_t kBody[10][4] = {
        {}, {0, 34, 54, 524}, {0, 68, 108}, {0, 928, 4086}, {4, 4}, {0, 138, 240, 1712}, {0, 256, 512}, {},
        {}, {8, 8, 8}};
    static constexpr std::uint32_t kNewest[10] = {0, 3, 2, 2, 1, 3, 2, 0, 0, 2};
    if (version > kNewest[type]) return end(KESP_ERROR_VERSION);
    std::uint64_t body = kBody[type][version];
    if (version == 0 && (type == 1 || type == 2 || type == 3 || type == 6)) return end(KESP_ERROR_NONE);
    const std::uint64_t room = file.size() - at;
    if (type == 9 && room >= 8) body += Number(file, at + 4, 4);
    if (body > room) {
      walked.raised = type == 1 && version == 1;
      if (walked.raised) return walked;
      return end(type == 3 && version == 2 ? KESP_ERROR_APP_HEADER : KESP_ERROR_EOF);
    }
    if (type == 1) {
      const std::uint32_t kind = Number(file, at + (version == 1 ? 26U : version == 2 ? 46U : 516U), 2);
      if (kind < 1 || kind > 3) return end(KESP_ERROR_BAD_RECORD);
    }
    if (type == 5 && version == 1) {
      const std::uint32_t kind = Number(file, at + 26, 2);
      if (kind < 1 || kind > 5) return end(KESP_ERROR_ATTRIBUTE_TYPE);
    }
    walked.positions.push_back(start);
    at += body;
  }
}

}  // namespace kesp::test
