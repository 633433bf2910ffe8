// One byte of a survey goes wrong, each in turn: how many records stay, to the walk, the rebuild and the salvage, is
// what the layout says.

#include "kesp/salvage/Salvage.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/MemorySystem.h"

using namespace kesp::test;

namespace {

std::uint32_t Number(const ByteVector& bytes, std::size_t at, int width) {
  std::uint32_t number = 0;
  while (width-- > 0) number = number << 8 | bytes[at + static_cast<std::size_t>(width)];
  return number;
}

// The format, by type: the newest version, the body's length in each (0 for none), and where a number stands in it that
// must be 1 to `largest`. A tag has 8 bytes, of which the last four say how many more there are.
// clang-format off
const struct { std::uint32_t newest; std::size_t length[4], checked[4]; std::uint32_t largest; } kLayouts[] = {
    {0, {}, {}, 0}, {3, {0, 34, 54, 524}, {0, 26, 46, 516}, 3}, {2, {0, 68, 108}, {}, 0}, {2, {0, 928, 4086}, {}, 0},
    {1, {4, 4}, {}, 0}, {3, {0, 138, 240, 1712}, {0, 26}, 5}, {2, {0, 256, 512}, {}, 0}, {}, {}, {2, {}, {}, 0}};
// clang-format on

// Where the records begin that a reader gets to from `at` on.
std::vector<std::size_t> Readable(const ByteVector& file, std::size_t at, bool skipDeleted) {
  std::vector<std::size_t> found;
  while (at + 14 <= file.size()) {
    const std::uint32_t type = Number(file, at, 4), version = Number(file, at + 4, 2),
                        length = Number(file, at + 10, 4);
    const std::size_t body = at + 14;
    if (length == 0 || static_cast<std::uint32_t>(body + length) > file.size()) break;
    if ((skipDeleted && (file[at + 6] & 1) != 0) || type == 7 || type == 8 || type >= 15) {
      at = body + length;
      continue;
    }
    if (type >= std::size(kLayouts) || version > kLayouts[type].newest) break;  // none, or refused
    const auto& layout = kLayouts[type];
    std::size_t size = layout.length[version];
    if (type == 9 && body + 8 <= file.size()) size = std::size_t{8} + Number(file, body + 4, 4);
    const bool isEmptyAttribute = type == 5 && version == 0;  // handed out as it was made
    if ((size == 0 && !isEmptyAttribute) || body + size > file.size()) break;
    const std::size_t checked = layout.checked[version];
    if (checked != 0 && Number(file, body + checked, 2) - 1 >= layout.largest) break;
    found.push_back(at);
    at = body + size;
  }
  return found;
}

TEST(DamagedBytes, CostTheRecordsThatTheLayoutSays) {
  ByteVector feature2 = FeatureBody3(), attribute3(1712), attribute2(240);
  feature2.erase(feature2.begin() + 46, feature2.begin() + 516);
  attribute2[46] = attribute3[516] = 2;
  std::vector<ByteVector> records = {Record(3, 2, 0, ByteVector(4086)),  Record(1, 2, 0, feature2),
                                     Record(200, 1, 0, Hex("01 02 03")), Record(5, 2, 0, attribute2),
                                     Record(5, 3, 0, attribute3),        EndOf(8, 5)};
  for (const Stored& stored : EveryClass()) records.push_back(stored.Bytes());
  ByteVector file = FileHeader();
  for (const ByteVector& record : records) Append(file, record);
  MemorySystem system;
  const auto copied = [&] { return Readable(system.At("b"), kFirst, false).size(); };
  std::size_t changes = 0;
  for (std::size_t at = 0; at < file.size(); ++at) {
    const std::uint8_t was = file[at], flipped = was ^ 0xFF;
    for (const std::uint8_t to : {flipped, std::uint8_t{0}}) {
      if (to == was) continue;
      SCOPED_TRACE(testing::Message() << "byte " << at << " from " << +was << " to " << +to);
      ++changes;
      file[at] = to;
      system.Put("a", file);
      const std::uint32_t first = 48 + Number(file, 44, 4);
      CKespDataFile damaged;
      ASSERT_EQ(damaged.OpenReadOnly("a"), at >= 42 && first <= file.size());
      if (!damaged.IsOpen()) continue;
      std::size_t count = 0, start = kFirst, salvaged = 0;
      damaged.SeekToFirstRecord();
      try {
        while (const std::unique_ptr<CKespRecord> record{damaged.ReadNextRecord(false)}) ++count;
      } catch (const CFileException&) {  // of a feature of version 1
      }
      EXPECT_EQ(count, Readable(file, first, false).size());
      const auto readable = Readable(file, kFirst, true);
      EXPECT_TRUE(damaged.CopyVerify("b", 2) && copied() == readable.size());
      // The salvage loses the record with the damage at most, and not when readers take it.
      for (const ByteVector& record : records) {
        const bool isHit = at >= start && at < start + record.size();
        const bool isLive = Number(record, 0, 4) < 10 && (record[6] & 1) == 0;
        salvaged += isHit ? std::ranges::binary_search(readable, start) : isLive;
        start += record.size();
      }
      kesp::SalvageReport report;
      EXPECT_TRUE(kesp::Salvage(damaged, "b", 0, report) && copied() == report.kept);
      EXPECT_EQ(report.kept, salvaged);
    }
    file[at] = was;
  }
  std::printf("%zu changes of single bytes\n", changes);
}

}  // namespace
