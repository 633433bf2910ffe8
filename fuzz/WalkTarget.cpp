// The container's walk, compared with an independent reader and with the walk that returns views; and edits in place.
#include <memory>
#include <optional>

#include "fuzz/Reader.h"
#include "fuzz/Targets.h"
#include "tests/support/MemorySource.h"
#include "tests/support/Views.h"

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

// In the whole file, and in one that counts as shorter. The views are of a source of the host's, which returns few
// bytes at a time. The input's size says whether objects are among the views.
void CompareViews(CKespDataFile& file, bool skipDeleted, const Bytes& bytes) {
  constexpr std::size_t kMostAtOnce = 999;
  const std::size_t size = bytes.size();
  CKespDataFile viewed;
  KESP_REQUIRE(viewed.OpenReadOnly(std::make_unique<test::MemorySource>(bytes, kMostAtOnce), "a"));
  for (const std::size_t limit : {size, size / 2}) {
    for (CKespDataFile* each : {&file, &viewed}) {
      each->LimitLength(limit);
      KESP_REQUIRE(each->SeekToFirstRecord());
    }
    const std::string difference = test::DifferenceOfWalks(file, viewed, skipDeleted, size % 2 == 0 ? 0 : 0x0F0F5555);
    Require(difference.empty(), difference.c_str(), __FILE__, __LINE__);
  }
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
    // Reading ahead is allowed; reading the same bytes again and again is not.
    KESP_REQUIRE(system.BytesRead() - readBefore <= 4 * input.size() + 4096);
    CompareViews(file, skipDeleted, bytes);
    KESP_REQUIRE(system.BytesRead() - readBefore <= 5 * (4 * input.size() + 4096));
  }
  KESP_REQUIRE(system.At("a") == bytes);

  // The walk stays the same when each record is written over itself, and when every other one is marked deleted.
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
    // Not for a record that is already deleted: DeleteRecord would read the next one and write it over this one.
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
      // A version-1 feature that is cut short.
    }
  }
}

}  // namespace kesp::fuzz
