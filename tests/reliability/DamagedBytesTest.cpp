// One byte of a survey goes wrong, each in turn, or the file ends before it: how many records stay, to the walk, the
// rebuild and the salvage, is what the layout says.

#include <algorithm>

#include "kesp/salvage/Salvage.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/MemorySystem.h"

using namespace kesp::test;

namespace {

TEST(DamagedBytes, CostTheRecordsThatTheLayoutSays) {
  std::vector<ByteVector> records = {Sample(3, 2), Sample(1, 2), Record(200, 1, 0, Hex("01 02 03")),
                                     Sample(5, 2), Sample(5, 3), Record(9, 2, 0, Hex("05 00*3 00*4")),
                                     EndOf(8, 5)};
  for (const auto& [type, version] : kEveryClass) records.push_back(Sample(type, version));
  const ByteVector whole = Survey(records);
  MemorySystem system;
  const auto copied = [&] { return ReadFrom(system.At("b"), kFirst, false).positions.size(); };
  std::size_t changes = 0;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    const int was = whole[at];
    for (const int to : {was ^ 0xFF, 0, -1}) {  // or cut
      if (to == was) continue;
      SCOPED_TRACE(testing::Message() << "byte " << at << " from " << was << " to " << to);
      ++changes;
      ByteVector file = to < 0 ? Part(whole, 0, at) : whole;
      if (to >= 0) file[at] = static_cast<std::uint8_t>(to);
      system.Put("a", file);
      const auto first = FirstRecord(file);
      CKespDataFile damaged;
      ASSERT_EQ(damaged.OpenReadOnly("a"), first.has_value());
      if (!first) continue;
      const auto [readable, error, raised] = ReadFrom(file, kFirst, true);
      ASSERT_TRUE(damaged.SeekToFirstRecord());
      EXPECT_EQ(WalkOn(damaged), ReadFrom(file, *first, false));
      EXPECT_TRUE(damaged.CopyVerify("b", 2));
      EXPECT_EQ(damaged.GetError(), error);
      EXPECT_EQ(damaged.CanAttemptRepair(), error == 2 || (error >= 4 && error <= 6));
      EXPECT_EQ(copied(), readable.size());
      const bool isWhole = damaged.EndsWhole();
      ASSERT_TRUE(damaged.SeekToFirstRecord());
      EXPECT_EQ(isWhole, WalkOn(damaged, true).error == KESP_ERROR_NORMAL_EOF && damaged.GetPosition() == file.size());
      if (to < 0) continue;
      // The salvage loses the record with the damage at most, and not when readers take it.
      std::uint32_t start = kFirst, salvaged = 0;
      for (const ByteVector& record : records) {
        const bool isHit = at >= start && at < start + record.size();
        const bool isLive = Number(record, 0, 4) < 10 && (record[6] & 1) == 0;
        salvaged += isHit ? std::binary_search(readable.begin(), readable.end(), start) : isLive;
        start += static_cast<std::uint32_t>(record.size());
      }
      kesp::SalvageReport report;
      EXPECT_TRUE(kesp::Salvage(damaged, "b", 0, report));
      EXPECT_EQ(copied(), salvaged);
      EXPECT_EQ(report.kept, salvaged);
    }
  }
  std::printf("%zu changes of single bytes\n", changes);
}

}  // namespace
