// The container's walk beside one that is written anew from the format, and edits in place.
#include <memory>
#include <optional>

#include "fuzz/Reader.h"
#include "fuzz/Targets.h"

namespace kesp::fuzz {
namespace {

using test::Walked;

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
    const auto first = test::FirstRecord(input);
    CKespDataFile file;
    KESP_REQUIRE(file.OpenReadOnly("a") == first.has_value());
    if (!first) continue;
    const std::uint64_t readBefore = system.BytesRead();
    const Walked walked = WalkThrough(file, skipDeleted, [](const CKespRecord&) {});
    KESP_REQUIRE(walked == test::ReadFrom(input, *first, skipDeleted));
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
