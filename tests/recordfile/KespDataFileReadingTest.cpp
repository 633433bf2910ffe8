#include <memory>
#include <optional>

#include "kesp/platform/Exception.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureEnd.h"
#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

class KespDataFileReading : public OneFile {};

// One record in front of a feature end; or what stands there instead.
TEST_F(KespDataFileReading, StopsOrGoesOnByTypeAndVersion) {
  enum Outcome { kReturned, kPassed, kStopped };
  using Kinds = std::vector<std::pair<std::uint32_t, std::uint16_t>>;  // types and versions
  const std::tuple<Outcome, KESP_ERROR_TYPE, Kinds> rows[] = {
      {kPassed, KESP_ERROR_NORMAL_EOF, {{7, 9}, {8, 1}, {15, 0}, {16, 1}, {200, 0xFFFF}, {0xFFFFFFFF, 1}}},
      {kStopped, KESP_ERROR_RECORD_TYPE, {{0, 1}}},
      {kStopped, KESP_ERROR_UNICODE, {{10, 1}, {11, 1}, {12, 1}, {13, 1}, {14, 0}}},
      {kStopped, KESP_ERROR_VERSION, {{1, 4}, {2, 3}, {3, 3}, {4, 2}, {5, 4}, {6, 3}, {9, 3}, {6, 0xFFFF}}},
      // Version 0: a class that knows no such layout leaves no code, one without versions reads it.
      {kStopped, KESP_ERROR_NONE, {{1, 0}, {2, 0}, {3, 0}, {6, 0}}},
      {kReturned, KESP_ERROR_NORMAL_EOF, {{4, 0}, {9, 0}}}};
  for (const auto& [live, error, kinds] : rows) {
    for (const auto& [type, version] : kinds) {
      const ByteVector body = type == 9 ? TagBody() : EndBody(7);
      const auto second = static_cast<std::uint32_t>(kFirst + 14 + body.size());
      for (const auto& [flags, skipDeleted] : {std::pair{0u, true}, {1u, false}, {5u, true}}) {
        SCOPED_TRACE(testing::Message() << type << " v" << version << " flags " << flags << skipDeleted);
        const Outcome outcome = flags != 0 && skipDeleted ? kPassed : live;
        Walked expected{{}, outcome == kStopped ? error : KESP_ERROR_NORMAL_EOF};
        if (outcome == kReturned) expected.positions.push_back(kFirst);
        if (outcome != kStopped) expected.positions.push_back(second);
        Open(Record(type, version, flags, body) + EndOf(8), true);
        std::uint32_t position = 0;
        const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(position, skipDeleted));
        EXPECT_EQ(position, outcome == kPassed ? second : kFirst);
        // Refused from its header, a record leaves the file at its body.
        EXPECT_TRUE(outcome != kStopped || version == 0 || file.GetPosition() == kFirst + 14);
        EXPECT_EQ(Walk(path, skipDeleted), expected);
      }
    }
  }
  // An attribute of version 0 comes back empty and unread: the walk goes on inside its body.
  Put(Record(5, 0, 0, EndOf(8)));
  EXPECT_EQ(Walk(path), (Walked{{50, 64}, KESP_ERROR_NORMAL_EOF}));
  Open(EndOf(7, 0x0A), true);
  EXPECT_EQ(std::unique_ptr<CKespRecord>(file.ReadNextRecord(true))->m_flags, 0x202u) << "as the filter leaves them";
}

TEST_F(KespDataFileReading, ChecksTheLengthAgainstTheFile) {
  const Walked refused{{}, KESP_ERROR_RECORD_HEADER}, clean{{}, KESP_ERROR_NORMAL_EOF};
  // The file ends 18 bytes behind the header. A sum beyond 32 bits wraps: the walk ends cleanly behind the end.
  // clang-format off
  const struct { std::uint32_t length; Walked expected; unsigned long position; } rows[] = {
      {18, clean, 82}, {19, refused, 64}, {0, refused, 64}, {0x80000000, refused, 64}, {0xFFFFFFFF - 64, refused, 64},
      {0xFFFFFFFF - 63, clean, 0}, {0xFFFFFFFF, clean, 63}};
  // clang-format on
  for (const auto& row : rows) {
    Open(WithLength(Record(200, 1, 0, {}), row.length) + EndOf(8), true);
    EXPECT_TRUE(WalkOn(file) == row.expected && file.GetPosition() == row.position) << row.length;
  }
}

TEST_F(KespDataFileReading, HandsOutHeaderFieldsAsFarAsTheyGo) {
  const ByteVector header = Hex("06 00 00 00 02 01 03 02 00 80 04 00 00 00");
  for (std::size_t size = 0; size <= header.size(); ++size) {
    Open(Part(header, 0, size), true);
    auto type = KESP_RECORD_TAG;
    unsigned short version = 9;
    unsigned long flags = 9, length = 9;
    EXPECT_FALSE(file.ReadNextRecordHeader(type, version, flags, length));
    const KESP_ERROR_TYPE error = size < 14 ? KESP_ERROR_EOF : KESP_ERROR_RECORD_HEADER;
    EXPECT_EQ(file.GetError(), size == 0 ? KESP_ERROR_NORMAL_EOF : error);
    EXPECT_TRUE(type == (size < 4 ? 0 : 6) && version == (size < 6 ? 0 : 0x102)) << size;
    EXPECT_TRUE(flags == (size < 10 ? 0 : 0x80000203) && length == (size < 14 ? 0 : 4)) << size;
  }
}

// The length in the header is right for the file and too small for the class.
TEST_F(KespDataFileReading, BlamesABodyThatIsCutShort) {
  const auto cut = [](const ByteVector& body) { return Part(body, 0, body.size() - 1); };
  // clang-format off
  const std::pair<Stored, KESP_ERROR_TYPE> rows[] = {
      {{1, 3, cut(FeatureBody3())}, KESP_ERROR_EOF}, {{3, 2, ByteVector(4085)}, KESP_ERROR_APP_HEADER},
      {{2, 2, cut(PointBody2())}, KESP_ERROR_EOF}, {{9, 2, Hex("01 00*3 F0 FF FF FF 04 00*3")}, KESP_ERROR_EOF}};
  // clang-format on
  for (const auto& [record, error] : rows) {
    Put(EndOf(8) + record.Bytes());
    EXPECT_EQ(Walk(path), (Walked{{kFirst}, error})) << record.type << " v" << record.version;
  }
  // Old features raise instead; the position is handed out, and nothing leaks.
  Open(Stored{1, 1, cut(FeatureBody1())}.Bytes());
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
  const auto put = [&](std::uint64_t at, const ByteVector& what) {
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(at));
    out.write(reinterpret_cast<const char*>(what.data()), static_cast<std::streamsize>(what.size()));
  };
  // The second record ends where 32 bits begin anew: its length is one that wraps.
  Put(Record(200, 1, 0, ByteVector(536)) + header(static_cast<std::uint32_t>(500 - 614)));
  std::filesystem::resize_file(path, kFour + 1000);
  put(kFour + 500, EndOf(7));
  ASSERT_TRUE(file.Open(Text(path)));
  EXPECT_EQ(file.GetLength(), 1000u);
  EXPECT_EQ(WalkOn(file), (Walked{{500}, KESP_ERROR_RECORD_HEADER}));  // then come zeros
  EXPECT_EQ(file.GetPosition(), 500u + 18 + 14);
  auto appended = EndRecord(8);
  ASSERT_TRUE(file.AppendRecord(&appended, 0));
  EXPECT_TRUE(appended.m_filePosition == 1000 && file.GetLength() == 1018);
  EXPECT_EQ(file.m_file.Seek(-18, CFile::end), kFour + 1000);
  EXPECT_EQ(WalkOn(file), (Walked{{1000}, KESP_ERROR_NORMAL_EOF}));
  // A body may end at the low 32 bits of the file's length and no further, however long the file is.
  for (const std::uint32_t length : {954u, 955u}) {
    file.Close();
    put(kFirst, header(length));
    std::uint32_t position = 0;
    ASSERT_TRUE(file.OpenReadOnly(Text(path)));
    EXPECT_EQ(file.ReadNextRecord(position, false), nullptr);
    EXPECT_EQ(position, length == 954 ? 1018u : 50u);
  }
}

// As the walk does, also where single bytes are damaged, and where it ends early.
TEST_F(KespDataFileReading, TellsWhetherTheFileEndsWhole) {
  ByteVector whole;
  for (const Stored& stored : EveryClass()) Append(whole, stored.Bytes());
  Append(whole, EndOf(1, 5) + Record(200, 1, 0, ByteVector(9)) + Record(9, 2, 1, TagBody()));
  const auto agrees = [this](const ByteVector& records) {
    Put(records);
    EXPECT_TRUE(file.OpenReadOnly(Text(path)) && file.Seek(kFirst + 1));
    const bool isWhole = file.EndsWhole();
    EXPECT_EQ(file.GetPosition(), kFirst + 1);
    EXPECT_TRUE(file.SeekToFirstRecord());
    KESP_ERROR_TYPE error = KESP_ERROR_EOF;
    try {
      error = WalkOn(file, true).error;
    } catch (const CFileException&) {
    }
    EXPECT_EQ(isWhole, error == KESP_ERROR_NORMAL_EOF && file.GetPosition() == file.GetLength());
    return !HasFailure();
  };
  EXPECT_TRUE(agrees(whole) && file.EndsWhole());
  for (std::size_t size = 0; size < whole.size(); size += size % 100 < 50 ? 1 : 49) {
    ASSERT_TRUE(agrees(Part(whole, 0, size))) << size;
  }
  for (std::size_t at = 0; at < whole.size(); at += at % 600 < 60 ? 1 : 7) {
    ByteVector damaged = whole;
    damaged[at] = static_cast<std::uint8_t>(~damaged[at]);
    ASSERT_TRUE(agrees(damaged)) << at;
  }
  file.Close();
  EXPECT_FALSE(file.EndsWhole());
}

TEST_F(KespDataFileReading, SeesWhatAnotherProcessChangedSinceTheLastWalk) {
  Open(EndOf(1) + EndOf(2), true);
  EXPECT_EQ(WalkOn(file, true).positions.size(), 2u);
  WriteFile(path, FileHeader() + EndOf(1, 5) + EndOf(2) + EndOf(3));
  ASSERT_TRUE(file.SeekToFirstRecord());
  EXPECT_EQ(WalkOn(file, true), (Walked{{68, 86}, KESP_ERROR_NORMAL_EOF}));
}

// A number would pass for true.
template <class Argument>
concept CanBeRead = requires(CKespDataFile& file, Argument argument) {
  file.ReadNextRecord(argument);
};
static_assert(CanBeRead<bool> && !CanBeRead<int> && !CanBeRead<unsigned long>);

TEST_F(KespDataFileReading, AsksTheSystemNothingForEachRecord) {
  constexpr std::uint32_t kRecords = 300'000;
  ByteVector bytes;
  for (std::uint32_t i = 0; i < kRecords; ++i) Append(bytes, EndOf(i));
  Put(bytes);
  for (const bool ahead : {false, true}) {
    std::optional<FaultySystem> system;
    if (!ahead) system.emplace();  // counts, but for one thread
    ASSERT_TRUE(file.OpenReadOnly(Text(path)) && file.SeekToFirstRecord());
    if (ahead) file.ReadAhead();
    std::uint32_t count = 0;
    while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(true)}) {
      ASSERT_EQ(static_cast<const CKespFeatureEnd&>(*record).FeatureNumber, count++);
    }
    EXPECT_TRUE(count == kRecords && file.GetError() == KESP_ERROR_NORMAL_EOF);
    file.Close();
    EXPECT_LT(system ? system->Calls() : 0, 30);
  }
}

}  // namespace
