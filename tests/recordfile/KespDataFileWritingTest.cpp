#include "kesp/records/KespBrokenRecord.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespTag.h"
#include "kesp/records/KespTavoHeader.h"
#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

CKespNote Note(const char* text) {
  CKespNote note;
  note.NoteText = text;
  return note;
}

CKespFeature Oak() {
  CKespFeature feature;
  feature.FeatureNumber = 7;
  feature.FeatureName = "Oak";
  feature.FeatureType = KESP_FEATURE_LINE;
  feature.Color = 0x332211;
  feature.SymbolIndex = 5;
  return feature;
}

// A file with these records, opened.
class OpenFile {
 public:
  explicit OpenFile(const std::vector<ByteVector>& records) {
    ByteVector bytes = FileHeader();
    for (const auto& record : records) Append(bytes, record);
    WriteFile(path, bytes);
    EXPECT_TRUE(file.Open(Text(path)));
  }
  ByteVector Records() const {
    const ByteVector bytes = ReadFile(path);
    return {bytes.begin() + kFirst, bytes.end()};
  }
  const TempDir dir;
  const std::filesystem::path path = dir / "a.kesp";
  CKespDataFile file;
};

TEST(KespDataFileWriting, AppendsWithTheSourceFlag) {
  OpenFile open({});
  ByteVector expected;
  const struct {
    std::uint32_t before;
    unsigned long source;
    std::uint32_t stored;
  } rows[] = {{0, 0, 0},         {0, 2, 2}, {0, 4, 4},         {0, 8, 8},
              {0, 0x60, 0x1080}, {1, 2, 1}, {0x200, 0, 0x202}, {8, 2, 0x202}};
  for (const auto& row : rows) {
    auto note = Note("rain");
    note.m_flags = row.before;
    open.file.m_error = KESP_ERROR_UNICODE;
    EXPECT_TRUE(open.file.SeekToFirstRecord());  // appends go to the end from anywhere
    EXPECT_TRUE(open.file.AppendRecord(&note, row.source));
    EXPECT_EQ(note.m_filePosition, kFirst + expected.size());
    EXPECT_EQ(note.m_flags, row.stored);
    Append(expected, Stored{6, 2, NoteBody2()}.Bytes(row.stored));
    EXPECT_EQ(open.Records(), expected);
    EXPECT_EQ(open.file.GetPosition(), kFirst + expected.size());
    EXPECT_EQ(open.file.GetError(), KESP_ERROR_UNICODE);
  }
}

TEST(KespDataFileWriting, AppendsOldBodiesUnderTheRecordsOwnHeader) {
  OpenFile open({});
  auto oak = Oak();
  oak.m_flags = 0x03;  // as they stand: no source flag, no filter
  EXPECT_TRUE(open.file.AppendRecordVersion1(&oak, 8));
  ByteVector body1 = FeatureBody1();
  body1[26] = 2;
  ByteVector expected = Hex("01 00 00 00 03 00 03 00 00 00 0C 02 00 00") + body1;
  EXPECT_EQ(open.Records(), expected);
  EXPECT_EQ(oak.m_flags, 3u);
  auto note = Note("rain");
  EXPECT_TRUE(open.file.AppendRecordVersion2(&note, 8));
  Append(expected, Stored{6, 2, NoteBody2()}.Bytes());
  note.m_recordVersion = 1;
  EXPECT_TRUE(open.file.AppendRecordVersion1(&note, 0));
  EXPECT_EQ(note.m_filePosition, kFirst + expected.size());
  Append(expected, Stored{6, 1, NoteBody1()}.Bytes());
  EXPECT_EQ(open.Records(), expected);
}

TEST(KespDataFileWriting, AppendsNothingThatCantBeWritten) {
  const ByteVector first = Stored{4, 1, EndBody(7)}.Bytes();
  OpenFile open({first});
  CKespTag withoutBlock;
  CKespNote unknownVersion;
  unknownVersion.m_recordVersion = 9;
  CKespBrokenRecord broken;
  EXPECT_FALSE(open.file.AppendRecord(&withoutBlock, 0) || open.file.AppendRecord(&unknownVersion, 0));
  EXPECT_FALSE(open.file.AppendRecord(nullptr, 0) || open.file.AppendRecordVersion1(nullptr, 0));
  EXPECT_FALSE(open.file.OverwriteRecord(nullptr, 0) || open.file.CopyRecord(nullptr, kFirst));
  EXPECT_FALSE(open.file.UpdateRecord(nullptr, 0, false));
  EXPECT_TRUE(open.file.AppendRecord(&broken, 2) && open.file.AppendRecordVersion2(&broken, 2));
  EXPECT_EQ(broken.m_filePosition, 68u);
  EXPECT_EQ(open.Records(), first);
  auto end = End(8);
  EXPECT_TRUE(open.file.AppendRecord(&end, 0));
  EXPECT_EQ(open.Records(), (first + Stored{4, 1, EndBody(8)}.Bytes()));
}

TEST(KespDataFileWriting, AppendsWithOneWrite) {
  OpenFile open({});
  FaultySystem system;
  CKespTag tag;
  tag.Set(KESP_TAG_BLOB, "large", nullptr, 1'000'000);
  auto end = End(7);
  for (CKespRecord* const record : {static_cast<CKespRecord*>(&end), static_cast<CKespRecord*>(&tag)}) {
    system.Reset();
    EXPECT_TRUE(open.file.AppendRecord(record, 0));
    for (const char* const call : {"write", "fdatasync", "futimens"}) EXPECT_EQ(system.Calls(call), 1) << call;
    EXPECT_LE(system.Calls(), 5);  // the end is looked for, and the last byte read back
  }
}

TEST(KespDataFileWriting, WritesAgainAfterAPowerEvent) {
  // Asked before the write and after it.
  for (const auto& [events, sleptMs] :
       {std::pair{"0", 0u}, {"1", 5000u}, {"01", 5000u}, {"011", 10000u}, {"111", 15000u}}) {
    OpenFile open({Stored{4, 1, EndBody(7)}.Bytes()});
    FaultySystem system;
    system.powerEvents = events;
    auto end = End(8);
    EXPECT_TRUE(open.file.AppendRecord(&end, 2)) << events;
    EXPECT_EQ(system.sleptMs, sleptMs);
    EXPECT_EQ(open.Records(), (Stored{4, 1, EndBody(7)}.Bytes() + Stored{4, 1, EndBody(8)}.Bytes(2)));
    EXPECT_EQ(end.m_filePosition, 68u);
    EXPECT_EQ(open.file.GetPosition(), 86u);
    CKespDataFile other;
    EXPECT_FALSE(other.Open(Text(open.path)));  // locked again
  }
}

TEST(KespDataFileWriting, OverwritesInTheVersionOnDisk) {
  const ByteVector behind = Stored{4, 1, EndBody(9)}.Bytes();
  const struct {
    Stored there;
    std::uint16_t own;
    bool good;
  } rows[] = {{{6, 1, NoteBody1()}, 2, true},  {{6, 1, NoteBody1()}, 1, true},  {{6, 2, NoteBody2()}, 2, true},
              {{6, 2, NoteBody2()}, 1, false}, {{6, 3, NoteBody2()}, 2, false}, {{4, 1, EndBody(7)}, 2, false}};
  for (const auto& row : rows) {
    OpenFile open({row.there.Bytes(0x40), behind});
    auto note = Note("snow");
    note.m_recordVersion = row.own;
    note.m_filePosition = 1;
    ASSERT_TRUE(open.file.SeekToFirstRecord());
    EXPECT_EQ(open.file.OverwriteRecord(&note, 8), row.good);
    ByteVector snow = row.there.version == 1 ? Hex("'snow' 00*252") : Hex("\"snow\" 00*504");
    EXPECT_EQ(open.Records(),
              (row.good ? Stored{6, row.there.version, snow}.Bytes(8) : row.there.Bytes(0x40)) + behind);
    EXPECT_EQ(open.file.GetPosition(), row.good ? kFirst + 14 + snow.size() : kFirst + 6);
    EXPECT_EQ(note.m_filePosition, 1u);
    EXPECT_EQ(note.m_recordVersion, row.own);
  }
  // Too little there to tell; and a record that can't be written leaves what stands there.
  OpenFile open({Hex("06 00 00 00 02")});
  auto note = Note("snow");
  ASSERT_TRUE(open.file.SeekToFirstRecord());
  EXPECT_FALSE(open.file.OverwriteRecord(&note, 8));
  EXPECT_EQ(open.Records(), Hex("06 00 00 00 02"));
  OpenFile tagged({Stored{9, 2, TagBody()}.Bytes()});
  CKespTag withoutBlock;
  EXPECT_FALSE(tagged.file.CopyRecord(&withoutBlock, kFirst));
  EXPECT_EQ(tagged.Records(), (Stored{9, 2, TagBody()}.Bytes()));
}

TEST(KespDataFileWriting, CopiesToAPosition) {
  const ByteVector first = Stored{4, 1, EndBody(1)}.Bytes();
  OpenFile open({first, first, first});
  auto end = End(5);
  EXPECT_TRUE(open.file.CopyRecord(&end, 68));
  EXPECT_EQ(open.Records(), (first + Stored{4, 1, EndBody(5)}.Bytes(2) + first));
  EXPECT_EQ(open.file.GetPosition(), 86u);
  EXPECT_FALSE(open.file.CopyRecord(&end, 69));
  EXPECT_FALSE(open.file.CopyRecord(&end, 5000));
  EXPECT_EQ(open.Records().size(), 54u);
}

TEST(KespDataFileWriting, FindsTheRecordToUpdate) {
  const auto record = [](std::uint32_t feature, std::uint32_t flags = 0) {
    return Stored{4, 1, EndBody(feature)}.Bytes(flags);
  };
  constexpr std::uint32_t kNowhere = 0;
  const struct {
    const char* name;
    std::uint32_t from;
    bool continueSearch;
    std::uint32_t feature;
    std::uint32_t found;
  } rows[] = {{"from the first", 104, false, 2, 68},
              {"the first of two", 50, true, 2, 68},
              {"the next of two", 86, true, 2, 104},
              {"wrapping around", 104, true, 1, 50},
              {"a deleted one", 50, true, 3, 86},
              {"none", 68, true, 4, kNowhere},
              {"none from the first", 68, false, 4, kNowhere}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<ByteVector> records{record(1), record(2), record(3, 5), record(2)};
    OpenFile open(records);
    auto end = End(row.feature);
    end.m_filePosition = 1;
    ASSERT_TRUE(open.file.Seek(row.from));
    EXPECT_EQ(open.file.UpdateRecord(&end, 8, row.continueSearch), row.found != kNowhere);
    if (row.found != kNowhere) records[(row.found - kFirst) / 18] = record(row.feature, 8);
    EXPECT_EQ(open.Records(), records[0] + records[1] + records[2] + records[3]);
    EXPECT_EQ(open.file.GetPosition(), row.found != kNowhere ? row.found : 122u);
    EXPECT_EQ(open.file.GetError(), row.found != kNowhere ? KESP_ERROR_NONE : KESP_ERROR_NORMAL_EOF);
    EXPECT_EQ(end.m_filePosition, 1u);
  }
  // Found, and newer than what is to replace it; a header record is never the same as another.
  OpenFile open({Stored{6, 2, NoteBody2()}.Bytes(), Stored{3, 1, HeaderBody1()}.Bytes(), Hex("00*14")});
  auto note = Note("rain");
  note.m_recordVersion = 1;
  EXPECT_FALSE(open.file.UpdateRecord(&note, 8, false));
  CKespTavoHeader header;
  EXPECT_FALSE(open.file.UpdateRecord(&header, 8, true));
  EXPECT_EQ(open.file.GetError(), KESP_ERROR_RECORD_HEADER);
}

TEST(KespDataFileWriting, DeletesAsTheFileStands) {
  const auto end = [](std::uint32_t feature, std::uint32_t flags = 0) {
    return Stored{4, 1, EndBody(feature)}.Bytes(flags);
  };
  const ByteVector note = Stored{6, 2, NoteBody2()}.Bytes();
  const struct {
    const char* name;
    std::vector<ByteVector> before;
    std::uint32_t stands;
    std::uint32_t position;
    KESP_RECORD_TYPE type;
    bool good;
    std::vector<ByteVector> after;
  } rows[] = {
      {"live", {end(1), end(2)}, 50, 50, KESP_RECORD_NONE, true, {end(1, 5), end(2)}},
      {"live, of the type", {end(1, 8), end(2)}, 50, 50, KESP_RECORD_FEATURE_END, true, {end(1, 5), end(2)}},
      {"added", {end(1, 2), end(2)}, 50, 50, KESP_RECORD_NONE, true, {end(1, 5), end(2)}},
      {"of another type", {end(1)}, 50, 50, KESP_RECORD_POINT, false, {end(1)}},
      {"deleted: the next one goes over it", {end(1, 1), end(2)}, 50, 50, KESP_RECORD_NONE, true, {end(2, 5), end(2)}},
      {"deleted, the next one of another type", {end(1, 1), note}, 50, 50, KESP_RECORD_NONE, false, {end(1, 1), note}},
      {"deleted and the last", {end(1, 1)}, 50, 50, KESP_RECORD_NONE, false, {end(1, 1)}},
      {"standing elsewhere", {end(1), end(2)}, 68, 50, KESP_RECORD_NONE, true, {end(2, 5), end(2)}},
      {"position 0 is no place to write", {end(1)}, 50, 0, KESP_RECORD_NONE, false, {end(1)}},
      {"at the end", {end(1)}, 68, 50, KESP_RECORD_NONE, false, {end(1)}}};
  for (const auto& row : rows) {
    OpenFile open(row.before);
    ASSERT_TRUE(open.file.Seek(row.stands));
    EXPECT_EQ(open.file.DeleteRecord(row.position, row.type), row.good) << row.name;
    ByteVector expected;
    for (const auto& record : row.after) Append(expected, record);
    EXPECT_EQ(open.Records(), expected) << row.name;
  }
}

}  // namespace
