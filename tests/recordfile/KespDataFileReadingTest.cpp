#include <typeinfo>

#include "kesp/platform/Exception.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespPoint.h"
#include "kesp/records/KespTag.h"
#include "kesp/records/KespTavoHeader.h"
#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

TEST(KespDataFileReading, MakesTheObjectThatTheTypeNames) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  ByteVector bytes = FileHeader();
  for (const Stored& record : EveryClass()) Append(bytes, record.Bytes(0x20));
  WriteFile(path, bytes);
  CKespDataFile file;
  ASSERT_TRUE(file.OpenReadOnly(Text(path)));
  const std::type_info* const classes[] = {&typeid(CKespTavoHeader), &typeid(CKespFeature),    &typeid(CKespPoint),
                                           &typeid(CKespAttribute),  &typeid(CKespFeatureEnd), &typeid(CKespNote),
                                           &typeid(CKespTag)};
  unsigned long position = kFirst;
  for (std::size_t i = 0; const Stored& stored : EveryClass()) {
    unsigned long at = 0;
    const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(at, true));
    ASSERT_TRUE(record) << i;
    EXPECT_EQ(at, position);
    EXPECT_EQ(record->m_recordType, stored.type);
    EXPECT_EQ(record->m_recordVersion, stored.version);
    EXPECT_EQ(record->m_flags, 0x20u);
    EXPECT_EQ(record->GetLength(0), stored.body.size());
    const CKespRecord& object = *record;
    EXPECT_TRUE(i >= std::size(classes) || typeid(object) == *classes[i]) << i;
    position += 14 + stored.body.size();
    ++i;
  }
  EXPECT_EQ(file.ReadNextRecord(true), nullptr);
  EXPECT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
  EXPECT_EQ(file.GetPosition(), bytes.size());
}

// One record in front of a feature end; or what stands there instead.
TEST(KespDataFileReading, StopsOrGoesOnByTypeAndVersion) {
  enum Outcome { kReturned, kPassed, kStopped };
  const struct {
    Outcome live;
    KESP_ERROR_TYPE error;
    std::vector<std::pair<std::uint32_t, std::uint16_t>> typesAndVersions;
  } rows[] = {{kPassed, KESP_ERROR_NORMAL_EOF, {{7, 9}, {8, 1}, {15, 0}, {16, 1}, {200, 0xFFFF}, {0xFFFFFFFF, 1}}},
              {kStopped, KESP_ERROR_RECORD_TYPE, {{0, 1}}},
              {kStopped, KESP_ERROR_UNICODE, {{10, 1}, {11, 1}, {12, 1}, {13, 1}, {14, 0}}},
              {kStopped, KESP_ERROR_VERSION, {{1, 4}, {2, 3}, {3, 3}, {4, 2}, {5, 4}, {6, 3}, {9, 3}, {6, 0xFFFF}}},
              // Version 0: a class that knows no such layout leaves no code, one without versions reads it.
              {kStopped, KESP_ERROR_NONE, {{1, 0}, {2, 0}, {3, 0}, {6, 0}}},
              {kReturned, KESP_ERROR_NORMAL_EOF, {{4, 0}, {9, 0}}}};
  const TempDir dir;
  const auto path = dir / "a.kesp";
  for (const auto& row : rows) {
    for (const auto& [type, version] : row.typesAndVersions) {
      const ByteVector body = type == 9 ? TagBody() : EndBody(7);
      const auto second = static_cast<std::uint32_t>(kFirst + 14 + body.size());
      for (const std::uint32_t flags : {0u, 1u, 5u}) {
        WriteFile(path, FileHeader() + Record(type, version, flags, body) + Stored{4, 1, EndBody(8)}.Bytes());
        for (const bool skipDeleted : {false, true}) {
          SCOPED_TRACE(testing::Message() << type << " v" << version << " flags " << flags << skipDeleted);
          const Outcome outcome = flags != 0 && skipDeleted ? kPassed : row.live;
          Walked expected{{}, outcome == kStopped ? row.error : KESP_ERROR_NORMAL_EOF};
          if (outcome == kReturned) expected.positions.push_back(kFirst);
          if (outcome != kStopped) expected.positions.push_back(second);
          EXPECT_EQ(Walk(path, skipDeleted), expected);
          CKespDataFile file;
          std::uint32_t position = 0;
          ASSERT_TRUE(file.OpenReadOnly(Text(path)));
          const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(position, skipDeleted));
          EXPECT_EQ(position, outcome == kPassed ? second : kFirst);
          // Refused from its header, a record leaves the file at its body.
          EXPECT_TRUE(outcome != kStopped || version == 0 || file.GetPosition() == kFirst + 14);
        }
      }
    }
  }
  // An attribute of version 0 comes back empty and unread: the walk goes on inside its body.
  WriteFile(path, FileHeader() + Record(5, 0, 0, Stored{4, 1, EndBody(8)}.Bytes()));
  EXPECT_EQ(Walk(path), (Walked{{50, 64}, KESP_ERROR_NORMAL_EOF}));
}

TEST(KespDataFileReading, ChecksTheLengthAgainstTheFile) {
  const ByteVector end = Stored{4, 1, EndBody(8)}.Bytes();
  const struct {
    const char* name;
    std::uint32_t length;
    Walked expected;
    unsigned long position;
  } rows[] = {{"ends with the file", 18, {{}, KESP_ERROR_NORMAL_EOF}, 82},
              {"one byte more", 19, {{}, KESP_ERROR_RECORD_HEADER}, 64},
              {"none", 0, {{}, KESP_ERROR_RECORD_HEADER}, 64},
              {"half the range", 0x80000000, {{}, KESP_ERROR_RECORD_HEADER}, 64},
              {"the sum is the largest", 0xFFFFFFFF - 64, {{}, KESP_ERROR_RECORD_HEADER}, 64},
              // As far as 32 bits see; the walk ends cleanly behind the end of the file.
              {"the sum wraps to 0", 0xFFFFFFFF - 63, {{}, KESP_ERROR_NORMAL_EOF}, 0},
              {"the sum wraps", 0xFFFFFFFF, {{}, KESP_ERROR_NORMAL_EOF}, 63}};
  const TempDir dir;
  const auto path = dir / "a.kesp";
  for (const auto& row : rows) {
    ByteVector bytes = FileHeader() + Hex("C8 00 00 00 01 00 00 00 00 00");
    Append(bytes, row.length, 4);
    WriteFile(path, bytes + end);
    CKespDataFile file;
    ASSERT_TRUE(file.OpenReadOnly(Text(path)));
    EXPECT_EQ(WalkOn(file), row.expected) << row.name;
    EXPECT_EQ(file.GetPosition(), row.position) << row.name;
  }
}

TEST(KespDataFileReading, HandsOutHeaderFieldsAsFarAsTheyGo) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  const ByteVector header = Hex("06 00 00 00 02 01 03 02 00 80 04 00 00 00");
  for (std::size_t size = 0; size <= header.size(); ++size) {
    WriteFile(path, FileHeader() + ByteVector(header.begin(), header.begin() + static_cast<long>(size)));
    CKespDataFile file;
    ASSERT_TRUE(file.OpenReadOnly(Text(path)));
    auto type = KESP_RECORD_TAG;
    unsigned short version = 9;
    unsigned long flags = 9;
    std::uint32_t flags32 = 9;
    unsigned long length = 9;
    std::uint32_t length32 = 9;
    EXPECT_FALSE(file.ReadNextRecordHeader(type, version, flags, length));
    EXPECT_EQ(file.GetError(), size == 0   ? KESP_ERROR_NORMAL_EOF
                               : size < 14 ? KESP_ERROR_EOF
                                           : KESP_ERROR_RECORD_HEADER);
    EXPECT_EQ(type, size < 4 ? 0u : 6u);
    EXPECT_EQ(version, size < 6 ? 0u : 0x102u);
    EXPECT_EQ(flags, size < 10 ? 0u : 0x80000203u);
    EXPECT_EQ(length, size < 14 ? 0u : 4u);
    ASSERT_TRUE(file.SeekToFirstRecord());
    EXPECT_FALSE(file.ReadNextRecordHeader(type, version, flags32, length32));
    EXPECT_EQ(flags32, flags);
    EXPECT_EQ(length32, length);
  }
}

TEST(KespDataFileReading, KeepsEveryRecordBeforeACut) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  ByteVector bytes = FileHeader();
  std::vector<std::uint32_t> starts;
  for (const Stored& record : EveryClass()) {
    starts.push_back(static_cast<std::uint32_t>(bytes.size()));
    Append(bytes, record.Bytes());
  }
  WriteFile(path, bytes);
  starts.push_back(static_cast<std::uint32_t>(bytes.size()));
  for (auto size = static_cast<std::uint32_t>(bytes.size()); size >= kFirst; --size) {
    std::filesystem::resize_file(path, size);
    // Whole records end at or before the cut.
    const auto behind = std::upper_bound(starts.begin(), starts.end(), size) - 1;
    const std::uint32_t rest = size - *behind;
    const Walked expected{{starts.begin(), behind},
                          rest == 0   ? KESP_ERROR_NORMAL_EOF
                          : rest < 14 ? KESP_ERROR_EOF
                                      : KESP_ERROR_RECORD_HEADER};
    ASSERT_EQ(Walk(path), expected) << size;
  }
}

// The length in the header is right for the file and too small for the class.
TEST(KespDataFileReading, BlamesABodyThatIsCutShort) {
  ByteVector strangeFeature = FeatureBody3();
  strangeFeature[516] = 4;
  ByteVector strangeAttribute = AttributeBody1();
  strangeAttribute[26] = 6;
  const ByteVector hugeTag = Hex("01 00*3 F0 FF FF FF 04 00*3");
  const auto cut = [](ByteVector body) {
    body.pop_back();
    return body;
  };
  const struct {
    Stored record;
    KESP_ERROR_TYPE error;
  } rows[] = {{{1, 3, cut(FeatureBody3())}, KESP_ERROR_EOF},
              {{2, 1, cut(PointBody1())}, KESP_ERROR_EOF},
              {{2, 2, Hex("07")}, KESP_ERROR_EOF},
              {{3, 1, cut(HeaderBody1())}, KESP_ERROR_EOF},
              {{3, 2, ByteVector(4085)}, KESP_ERROR_APP_HEADER},
              {{4, 1, cut(EndBody(7))}, KESP_ERROR_EOF},
              {{5, 1, cut(AttributeBody1())}, KESP_ERROR_EOF},
              {{5, 3, ByteVector(1711)}, KESP_ERROR_EOF},
              {{6, 2, cut(NoteBody2())}, KESP_ERROR_EOF},
              {{9, 2, cut(TagBody())}, KESP_ERROR_EOF},
              {{9, 2, hugeTag}, KESP_ERROR_EOF},
              {{1, 3, strangeFeature}, KESP_ERROR_BAD_RECORD},
              {{5, 1, strangeAttribute}, KESP_ERROR_ATTRIBUTE_TYPE}};
  const TempDir dir;
  const auto path = dir / "a.kesp";
  for (const auto& row : rows) {
    WriteFile(path, FileHeader() + Stored{4, 1, EndBody(8)}.Bytes() + row.record.Bytes());
    EXPECT_EQ(Walk(path), (Walked{{kFirst}, row.error})) << row.record.type << " v" << row.record.version;
  }
  // Old features raise instead; the position is handed out, and nothing leaks.
  WriteFile(path, FileHeader() + Stored{1, 1, cut(FeatureBody1())}.Bytes());
  CKespDataFile file;
  ASSERT_TRUE(file.Open(Text(path)));
  unsigned long position = 0;
  try {
    EXPECT_EQ(file.ReadNextRecord(position, false), nullptr);
    ADD_FAILURE() << "nothing raised";
  } catch (const CFileException& e) {
    EXPECT_EQ(e.m_cause, CFileException::endOfFile);
  }
  EXPECT_EQ(position, kFirst);
  CKespFeature feature;
  EXPECT_FALSE(file.UpdateRecord(&feature, 8, false));
  ASSERT_TRUE(file.SeekToFirstRecord());
  EXPECT_THROW(file.DeleteRecord(kFirst, KESP_RECORD_NONE), CFileException);
  EXPECT_EQ(file.GetSystemError(), 0);  // a short file is no failure of the system
}

TEST(KespDataFileReading, FiltersFlags) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  for (const auto& [stored, read] : std::vector<std::pair<std::uint32_t, std::uint32_t>>{
           {0, 0}, {3, 1}, {0x14, 0}, {0x0A, 0x202}, {0x60, 0x1080}, {0x102, 0x102}, {0xFFFFFFFF, 0xFFFFFFFF}}) {
    WriteFile(path, FileHeader() + Stored{4, 1, EndBody(7)}.Bytes(stored));
    CKespDataFile file;
    ASSERT_TRUE(file.OpenReadOnly(Text(path)));
    const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(false));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->m_flags, read);
  }
}

TEST(KespDataFileReading, KeepsPositionsInThirtyTwoBitsBeyondFourGigabytes) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  constexpr std::uint64_t kFour = std::uint64_t{1} << 32;
  // The second record ends where 32 bits begin anew: its length is one that wraps.
  ByteVector bytes = FileHeader() + Record(200, 1, 0, ByteVector(536)) + Hex("C8 00 00 00 01 00 00 00 00 00");
  Append(bytes, kFour + 500 - 614, 4);
  WriteFile(path, bytes);
  std::filesystem::resize_file(path, kFour + 1000);
  const auto put = [&](std::uint64_t at, const ByteVector& what) {
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(at));
    out.write(reinterpret_cast<const char*>(what.data()), static_cast<std::streamsize>(what.size()));
  };
  put(kFour + 500, Stored{4, 1, EndBody(7)}.Bytes());

  CKespDataFile file;
  ASSERT_TRUE(file.Open(Text(path)));
  EXPECT_EQ(file.GetLength(), 1000u);
  EXPECT_EQ(WalkOn(file), (Walked{{500}, KESP_ERROR_RECORD_HEADER}));  // then come zeros
  EXPECT_EQ(file.GetPosition(), 500u + 18 + 14);
  auto appended = End(8);
  ASSERT_TRUE(file.AppendRecord(&appended, 0));
  EXPECT_EQ(appended.m_filePosition, 1000u);
  EXPECT_EQ(file.GetPosition(), 1018u);
  EXPECT_EQ(file.GetLength(), 1018u);
  file.Close();
  std::ifstream in(path, std::ios::binary);
  ByteVector read(18);
  in.seekg(kFour + 1000).read(reinterpret_cast<char*>(read.data()), 18);
  EXPECT_EQ(read, (Stored{4, 1, EndBody(8)}.Bytes()));

  // A body may end at the low 32 bits of the file's length and no further, however long the file is.
  for (const std::uint32_t length : {954u, 955u}) {
    ByteVector header = Hex("C8 00 00 00 01 00 00 00 00 00");
    Append(header, length, 4);
    put(kFirst, header);
    std::uint32_t position = 0;
    ASSERT_TRUE(file.OpenReadOnly(Text(path)));
    EXPECT_EQ(file.ReadNextRecord(position, false), nullptr);
    EXPECT_EQ(position, length == 954 ? 1018u : 50u);
    file.Close();
  }
}

TEST(KespDataFileReading, AsksTheSystemNothingForEachRecord) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  ByteVector bytes = FileHeader();
  for (std::uint32_t i = 0; i < 10'000; ++i) Append(bytes, Stored{4, 1, EndBody(i)}.Bytes());
  WriteFile(path, bytes);
  const FaultySystem system;
  EXPECT_EQ(Walk(path).positions.size(), 10'000u);
  EXPECT_LT(system.Calls(), 30);
}

TEST(KespDataFileReading, NamesTheSystemsErrorWhereverItComes) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  // So long that every record needs reading of its own.
  ByteVector bytes = FileHeader();
  for (int i = 0; i < 4; ++i) {
    Append(bytes, Record(9, 2, 0, Hex("00*4 F0 49 02 00") + ByteVector(150'000)));
  }
  WriteFile(path, bytes);
  for (int n = 1;; ++n) {
    CKespDataFile file;
    FaultySystem system(n, FaultySystem::Fault::Error, true);
    Walked walked{{}, KESP_ERROR_NONE};
    const bool opened = file.Open(Text(path));
    if (opened) walked = WalkOn(file);
    if (!system.Struck()) break;
    EXPECT_EQ(file.GetSystemError(), EIO) << n;
    EXPECT_EQ(walked.error, KESP_ERROR_NONE) << n;
  }
}

}  // namespace
