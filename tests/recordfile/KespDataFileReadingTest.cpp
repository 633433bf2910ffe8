#include <memory>

#include "kesp/platform/Exception.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureEnd.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/Views.h"

using namespace kesp::test;

namespace {

class KespDataFileReading : public OneFile {};

// One record of any kind in front of a feature end, with a body that suits tags, or ends.
TEST_F(KespDataFileReading, StopsOrGoesOnByTypeAndVersion) {
  std::vector<std::uint32_t> types = {200, 0xFFFFFFFF};
  for (std::uint32_t type = 0; type <= 17; ++type) types.push_back(type);
  for (const std::uint32_t type : types) {
    for (const std::uint16_t version : std::initializer_list<std::uint16_t>{0, 1, 2, 3, 4, 9, 0xFFFF}) {
      for (const auto& [flags, skipDeleted] : {std::pair{0u, true}, {1u, false}, {5u, true}}) {
        SCOPED_TRACE(testing::Message() << type << " v" << version << " flags " << flags << skipDeleted);
        const ByteVector records =
            Record(type, version, flags, type == 9 ? SampleBody(9, 2) : SampleBody(4, 1)) + EndOf(8);
        const Walked expected = ReadFrom(FileHeader() + records, kFirst, skipDeleted);
        Open(records, true);
        EXPECT_EQ(WalkOn(file, skipDeleted), expected);
        // Refused from its header, a record leaves the file at its body.
        const bool isRefused = expected.positions.empty() && expected.error > KESP_ERROR_EOF;
        EXPECT_TRUE(!isRefused || type == 3 || file.GetPosition() == kFirst + 14) << file.GetPosition();
        CKespDataFile viewed;
        ASSERT_TRUE(viewed.OpenReadOnly(Text(path)) && viewed.SeekToFirstRecord() && file.SeekToFirstRecord());
        EXPECT_EQ(DifferenceOfWalks(file, viewed, skipDeleted), "");
      }
    }
  }
  Open(Record(200, 9, 0, SampleBody(4, 1)) + EndOf(7, 0x0A), true);
  std::uint32_t position = 0;
  const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(position, true));
  EXPECT_EQ(std::tuple(position, record->m_flags), std::tuple(68u, 0x202u)) << "filtered";
}

TEST_F(KespDataFileReading, ChecksTheLengthAgainstTheFile) {
  const Walked refused{{}, KESP_ERROR_RECORD_HEADER}, clean{{}, KESP_ERROR_NORMAL_EOF};
  // The file ends 18 bytes after the header. A sum beyond 32 bits wraps: the walk ends cleanly after the end.
  // clang-format off
  const struct { std::uint32_t length; Walked expected; unsigned long position; } rows[] = {
      {18, clean, 82}, {19, refused, 64}, {0, refused, 64}, {0x80000000, refused, 64}, {0xFFFFFFFF - 64, refused, 64},
      {0xFFFFFFFF - 63, clean, 0}, {0xFFFFFFFF, clean, 63}};
  // clang-format on
  for (const auto& row : rows) {
    Open(WithLength(Record(200, 1, 0, {}), row.length) + EndOf(8), true);
    EXPECT_EQ(WalkOn(file), row.expected) << row.length;
    EXPECT_EQ(file.GetPosition(), row.position) << row.length;
  }
}

TEST_F(KespDataFileReading, ReturnsTheHeaderFieldsThatAreWhole) {
  const ByteVector header = Hex("06 00 00 00 02 01 03 02 00 80 04 00 00 00");
  for (std::size_t size = 0; size <= header.size(); ++size) {
    Open(Part(header, 0, size), true);
    auto type = KESP_RECORD_TAG;
    unsigned short version = 9;
    unsigned long flags = 9, length = 9;
    EXPECT_FALSE(file.ReadNextRecordHeader(type, version, flags, length));
    const KESP_ERROR_TYPE error = size < 14 ? KESP_ERROR_EOF : KESP_ERROR_RECORD_HEADER;
    EXPECT_EQ(file.GetError(), size == 0 ? KESP_ERROR_NORMAL_EOF : error);
    EXPECT_EQ(std::tuple(type, version, flags, length),
              std::tuple(size < 4 ? 0u : 6u, size < 6 ? 0 : 0x102, size < 10 ? 0 : 0x80000203, size < 14 ? 0u : 4u))
        << size;
  }
}

// The length in the header is right for the file and too small for the class.
TEST_F(KespDataFileReading, RaisesOverAnOldFeatureThatIsCutShort) {
  Open(Record(1, 1, 0, Part(SampleBody(1, 1), 0, 33)));
  unsigned long position = 0;
  EXPECT_THROW((void)file.ReadNextRecord(position, false), CFileException);
  EXPECT_EQ(position, kFirst);
  CKespFeature feature;
  EXPECT_FALSE(file.UpdateRecord(&feature, 8, false));
  ASSERT_TRUE(file.SeekToFirstRecord());
  EXPECT_THROW((void)file.DeleteRecord(kFirst, 0), CFileException);
  EXPECT_EQ(file.GetSystemError(), 0);  // a short file is no failure of the system
}

TEST_F(KespDataFileReading, KeepsPositionsInThirtyTwoBitsBeyondFourGigabytes) {
  constexpr std::uint64_t kFour = std::uint64_t{1} << 32;
  const auto header = [](std::uint32_t length) { return WithLength(Record(200, 1, 0, {}), length); };
  // The length of the second record wraps: it ends at 4 GiB and 500.
  Put(Record(200, 1, 0, ByteVector(536)) + header(static_cast<std::uint32_t>(500 - 614)));
  std::filesystem::resize_file(path, kFour + 1000);
  PutAt(kFour + 500, EndOf(7));
  ASSERT_TRUE(file.Open(Text(path)));
  EXPECT_EQ(file.GetLength(), 1000u);
  EXPECT_EQ(WalkOn(file), (Walked{{500}, KESP_ERROR_RECORD_HEADER}));  // then come zeros
  EXPECT_EQ(file.GetPosition(), 500u + 18 + 14);
  auto appended = EndRecord(8);
  ASSERT_TRUE(file.AppendRecord(&appended, 0));
  EXPECT_EQ(std::tuple(appended.m_filePosition, file.GetLength()), std::tuple(1000u, 1018ul));
  EXPECT_EQ(file.m_file.Seek(-18, CFile::end), kFour + 1000);
  EXPECT_EQ(WalkOn(file), (Walked{{1000}, KESP_ERROR_NORMAL_EOF}));
  // A body may end at the low 32 bits of the file's length and no further, however long the file is.
  for (const std::uint32_t length : {954u, 955u}) {
    file.Close();
    PutAt(kFirst, header(length));
    std::uint32_t position = 0;
    ASSERT_TRUE(file.OpenReadOnly(Text(path)));
    EXPECT_EQ(file.ReadNextRecord(position, false), nullptr);
    EXPECT_EQ(position, length == 954 ? 1018u : 50u);
  }
}

TEST_F(KespDataFileReading, SeesWhatAnotherProcessChangedSinceTheLastWalk) {
  Open(EndOf(1) + EndOf(2), true);
  EXPECT_EQ(WalkOn(file, true).positions.size(), 2u);
  WriteFile(path, FileHeader() + EndOf(1, 5) + EndOf(2) + EndOf(3));
  ASSERT_TRUE(file.SeekToFirstRecord());
  EXPECT_EQ(WalkOn(file, true), (Walked{{68, 86}, KESP_ERROR_NORMAL_EOF}));
  ASSERT_TRUE(file.Seek(kFirst + 1));
  EXPECT_TRUE(file.EndsWhole());
  EXPECT_EQ(file.GetPosition(), kFirst + 1) << "it stays where it is";
  file.Close();
  EXPECT_FALSE(file.EndsWhole());
}

// A number would pass for true.
template <class Argument>
concept CanBeRead = requires(CKespDataFile& file, Argument argument) {
  file.ReadNextRecord(argument);
};
static_assert(CanBeRead<bool> && !CanBeRead<int> && !CanBeRead<unsigned long>);

}  // namespace
