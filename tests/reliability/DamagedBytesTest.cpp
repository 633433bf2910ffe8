// One byte of a survey goes wrong, each in turn, or the file ends before it: how many records stay, to the walk, the
// rebuild and the salvage, is what the layout says.

#include "kesp/salvage/Salvage.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/MemorySystem.h"

using namespace kesp::test;

namespace {

TEST(DamagedBytes, CostTheRecordsThatTheLayoutSays) {
  ByteVector feature2 = FeatureBody3(), attribute3(1712), attribute2(240);
  feature2.erase(feature2.begin() + 46, feature2.begin() + 516);
  attribute2[46] = attribute3[516] = 2;
  std::vector<ByteVector> records = {Record(3, 2, 0, ByteVector(4086)),  Record(1, 2, 0, feature2),
                                     Record(200, 1, 0, Hex("01 02 03")), Record(5, 2, 0, attribute2),
                                     Record(5, 3, 0, attribute3),        EndOf(8, 5)};
  for (const Stored& stored : EveryClass()) records.push_back(stored.Bytes());
  ByteVector whole = FileHeader();
  for (const ByteVector& record : records) Append(whole, record);
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
      const auto readable = ReadFrom(file, kFirst, true).positions;
      ASSERT_TRUE(damaged.SeekToFirstRecord());
      EXPECT_EQ(WalkOn(damaged), ReadFrom(file, *first, false));
      EXPECT_TRUE(damaged.CopyVerify("b", 2) && copied() == readable.size());
      const bool isWhole = damaged.EndsWhole();
      ASSERT_TRUE(damaged.SeekToFirstRecord());
      EXPECT_EQ(isWhole, WalkOn(damaged, true).error == KESP_ERROR_NORMAL_EOF && damaged.GetPosition() == file.size());
      if (to < 0) continue;
      // The salvage loses the record with the damage at most, and not when readers take it; but an attribute without a
      // version, which readers hand out empty, could be anything behind a record that is stepped over.
      std::uint32_t start = kFirst, salvaged = 0;
      bool wasLive = true;
      for (const ByteVector& record : records) {
        const bool isHit = at >= start && at < start + record.size();
        const bool isLive = Number(record, 0, 4) < 10 && (record[6] & 1) == 0;
        const bool isTaken =
            std::ranges::binary_search(readable, start) && (wasLive || Number(file, start + 4, 2) != 0);
        salvaged += isHit ? isTaken : isLive;
        start += static_cast<std::uint32_t>(record.size());
        wasLive = isLive;
      }
      kesp::SalvageReport report;
      EXPECT_TRUE(kesp::Salvage(damaged, "b", 0, report) && copied() == report.kept);
      EXPECT_EQ(report.kept, salvaged);
    }
  }
  std::printf("%zu changes of single bytes\n", changes);
}

}  // namespace
