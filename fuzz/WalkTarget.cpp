// The container's walk beside one that is written anew from the format, and edits in place.
#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

#include "fuzz/Targets.h"
#include "kesp/recordfile/KespDataFile.h"

namespace kesp::fuzz {
namespace {

std::uint32_t Number(Input bytes, std::size_t at, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = width; i-- > 0;) value = value << 8 | bytes[at + i];
  return value;
}

struct Walked {
  std::vector<std::uint32_t> positions;
  std::uint32_t error = 0;
  bool raised = false;  // a version-1 feature that is cut short
  bool operator==(const Walked&) const = default;
};

// As docs/file-format.md has it. Nothing when the file's header is refused.
std::optional<Walked> Expected(Input file, bool skipDeleted) {
  static const char kSignature[] = "Corvanthe Survey Devices -- Kesp Data File";
  if (file.size() < 50 || !std::equal(kSignature, kSignature + 42, file.begin())) return {};
  std::uint64_t at = static_cast<std::uint32_t>(48 + Number(file, 44, 4));
  if (at > file.size()) return {};
  Walked walked;
  const auto end = [&](std::uint32_t error) {
    walked.error = error;
    return walked;
  };
  for (;;) {
    const std::uint64_t left = at < file.size() ? file.size() - at : 0;
    if (left == 0) return end(KESP_ERROR_NORMAL_EOF);
    if (left < 14) return end(KESP_ERROR_EOF);
    const Input header = file.subspan(at, 14);
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

template <class See>
Walked WalkThrough(CKespDataFile& file, bool skipDeleted, See see) {
  Walked walked;
  KESP_REQUIRE(file.SeekToFirstRecord());
  try {
    std::uint32_t position = 0;
    while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(position, skipDeleted)}) {
      KESP_REQUIRE(record->m_filePosition == position);
      walked.positions.push_back(position);
      see(*record);
    }
    walked.error = file.GetError();
  } catch (const CFileException&) {
    walked.raised = true;
  }
  return walked;
}

}  // namespace

void Walk(Input input) {
  MemorySystem system;
  const Bytes bytes(input.begin(), input.end());
  system.Put("a", bytes);
  for (const bool skipDeleted : {true, false}) {
    const std::optional<Walked> expected = Expected(input, skipDeleted);
    CKespDataFile file;
    KESP_REQUIRE(file.OpenReadOnly("a") == expected.has_value());
    if (!expected) continue;
    const std::uint64_t readBefore = system.BytesRead();
    const Walked walked = WalkThrough(file, skipDeleted, [](const CKespRecord&) {});
    KESP_REQUIRE(walked == *expected);
    // Read ahead, but not again and again.
    KESP_REQUIRE(system.BytesRead() - readBefore <= 4 * input.size() + 4096);
  }
  KESP_REQUIRE(system.At("a") == bytes);

  // Each record written over itself leaves the walk as it is; so does marking every other one deleted.
  CKespDataFile file;
  if (!file.Open("a")) return;
  const Walked before = WalkThrough(file, false, [](const CKespRecord&) {});
  for (const std::uint32_t position : before.positions) {
    KESP_REQUIRE(file.Seek(position));
    const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(false));
    KESP_REQUIRE(record && file.Seek(position));
    (void)file.OverwriteRecord(record.get(), 0);
    KESP_REQUIRE(system.At("a").size() == bytes.size());
  }
  KESP_REQUIRE(WalkThrough(file, false, [](const CKespRecord&) {}) == before);
  for (std::size_t i = 0; i < before.positions.size(); i += 2) {
    KESP_REQUIRE(file.Seek(before.positions[i]));
    // One that is deleted already must not be asked for: the next one would be read, and written over it.
    const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(false));
    if (record->IsDeleted()) continue;
    KESP_REQUIRE(file.Seek(before.positions[i]));
    (void)file.DeleteRecord(before.positions[i], KESP_RECORD_NONE);
  }
  KESP_REQUIRE(WalkThrough(file, false, [](const CKespRecord&) {}) == before);
  KESP_REQUIRE(system.At("a").size() == bytes.size());
  if (input.size() > 50) {
    const std::unique_ptr<CKespRecord> none;
    (void)file.UpdateRecord(none.get(), 0, true);
    (void)file.Seek(input[input.size() - 1]);
    try {
      const std::unique_ptr<CKespRecord> any(file.ReadNextRecord(true));
      if (any) (void)file.UpdateRecord(any.get(), KESP_SRC_MODIFIED, true);
    } catch (const CFileException&) {
      // A version-1 feature again.
    }
  }
}

}  // namespace kesp::fuzz
