#include "kesp/records/KespBrokenRecord.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespTag.h"
#include "kesp/records/KespTavoHeader.h"
#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

CKespNote Note(const char* text, unsigned short version = 2) {
  CKespNote note;
  note.NoteText = text;
  note.m_recordVersion = version;
  return note;
}

class KespDataFileWriting : public OneFile {
 protected:
  const ByteVector note1 = Stored{6, 1, NoteBody1()}.Bytes();
  const ByteVector note2 = Stored{6, 2, NoteBody2()}.Bytes();
};

TEST_F(KespDataFileWriting, AppendsWithTheSourceFlagAndOneWrite) {
  Open({});
  ByteVector expected;
  for (const auto& [before, source, stored] : {std::tuple{0u, 2u, 2u}, {0u, 0x60u, 0x1080u}, {8u, 2u, 0x202u}}) {
    auto end = EndRecord(7);
    end.m_flags = before;
    EXPECT_TRUE(file.SeekToFirstRecord());  // appends go to the end from anywhere
    FaultySystem system;
    EXPECT_TRUE(file.AppendRecord(&end, source));
    for (const char* const call : {"write", "fdatasync", "futimens"}) EXPECT_EQ(system.Calls(call), 1) << call;
    EXPECT_LE(system.Calls(), 5);  // the end is looked for, and the last byte read back
    EXPECT_TRUE(end.m_filePosition == kFirst + expected.size() && end.m_flags == stored) << before;
    Append(expected, EndOf(7, stored));
    EXPECT_EQ(Records(), expected);
  }
}

TEST_F(KespDataFileWriting, AppendsOldBodiesUnderTheRecordsOwnHeader) {
  Open({});
  CKespFeature oak;
  oak.FeatureNumber = 7, oak.FeatureName = "Oak", oak.FeatureType = KESP_FEATURE_POINT, oak.Color = 0x332211;
  oak.SymbolIndex = 5;
  oak.m_flags = 0x03;  // as they stand: no source flag, no filter
  auto note = Note("rain");
  auto old = Note("rain", 1);
  EXPECT_TRUE(file.AppendRecordVersion1(&oak, 8) && file.AppendRecordVersion2(&note, 8));
  EXPECT_TRUE(file.AppendRecordVersion1(&old, 0));
  const ByteVector expected = Hex("01 00 00 00 03 00 03 00 00 00 0C 02 00 00") + FeatureBody1() + note2;
  EXPECT_EQ(old.m_filePosition, kFirst + expected.size());
  EXPECT_EQ(Records(), expected + note1);
}

TEST_F(KespDataFileWriting, AppendsNothingThatCantBeWritten) {
  Open(EndOf(7));
  CKespTag withoutBlock;
  auto unknownVersion = Note("rain", 9);
  CKespBrokenRecord broken;
  EXPECT_FALSE(file.AppendRecord(&withoutBlock, 0) || file.AppendRecord(&unknownVersion, 0));
  EXPECT_FALSE(file.AppendRecord(nullptr, 0) || file.AppendRecordVersion1(nullptr, 0));
  EXPECT_FALSE(file.OverwriteRecord(nullptr, 0) || file.CopyRecord(nullptr, kFirst));
  EXPECT_FALSE(file.UpdateRecord(nullptr, 0, false));
  EXPECT_TRUE(file.AppendRecord(&broken, 2) && file.AppendRecordVersion2(&broken, 2));
  EXPECT_EQ(Records(), EndOf(7));
}

TEST_F(KespDataFileWriting, WritesAgainAfterAPowerEvent) {
  // Asked before the write and after it.
  for (const auto& [events, sleptMs] : {std::pair{"1", 5000u}, {"011", 10000u}}) {
    Open(EndOf(7));
    FaultySystem system;
    system.powerEvents = events;
    auto end = EndRecord(8);
    EXPECT_TRUE(file.AppendRecord(&end, 2)) << events;
    EXPECT_EQ(system.sleptMs, sleptMs);
    EXPECT_EQ(Records(), EndOf(7) + EndOf(8, 2));
    EXPECT_EQ(file.GetPosition(), 86u);
    EXPECT_FALSE(CKespDataFile().Open(Text(path)));  // locked again
  }
}

TEST_F(KespDataFileWriting, OverwritesInTheVersionOnDisk) {
  // clang-format off
  const struct { Stored there; std::uint16_t own; bool good; } rows[] = {
      {{6, 1, NoteBody1()}, 2, true}, {{6, 2, NoteBody2()}, 2, true}, {{6, 2, NoteBody2()}, 1, false},
      {{4, 1, EndBody(7)}, 2, false}};
  // clang-format on
  for (const auto& row : rows) {
    Open(row.there.Bytes(0x40) + EndOf(9));
    auto note = Note("snow", row.own);
    ASSERT_TRUE(file.SeekToFirstRecord());
    EXPECT_EQ(file.OverwriteRecord(&note, 8), row.good);
    const ByteVector snow = row.there.version == 1 ? Hex("'snow' 00*252") : Hex("\"snow\" 00*504");
    EXPECT_EQ(Records(), (row.good ? Stored{6, row.there.version, snow}.Bytes(8) : row.there.Bytes(0x40)) + EndOf(9));
    EXPECT_EQ(file.GetPosition(), row.good ? kFirst + 14 + snow.size() : kFirst + 6);
    EXPECT_EQ(note.m_recordVersion, row.own);
  }
  // Too little there to tell; and a record that can't be written leaves what stands there.
  const ByteVector tag = Stored{9, 2, TagBody()}.Bytes();
  CKespTag withoutBlock;
  for (const ByteVector& there : {Hex("09 00 00 00 02"), tag}) {
    Open(there);
    EXPECT_FALSE(file.CopyRecord(&withoutBlock, kFirst));
    EXPECT_EQ(Records(), there);
  }
  // At a position given.
  Open(EndOf(1) + EndOf(1) + EndOf(1));
  auto end = EndRecord(5);
  EXPECT_TRUE(file.CopyRecord(&end, 68) && !file.CopyRecord(&end, 69) && !file.CopyRecord(&end, 5000));
  EXPECT_EQ(Records(), EndOf(1) + EndOf(5, 2) + EndOf(1));
}

TEST_F(KespDataFileWriting, FindsTheRecordToUpdate) {
  // From the first record or from where the file stands, around the end, deleted ones too; 0 for none.
  // clang-format off
  const struct { std::uint32_t from; bool continueSearch; std::uint32_t feature; std::uint32_t found; } rows[] = {
      {104, false, 2, 68}, {86, true, 2, 104}, {104, true, 1, 50}, {50, true, 3, 86}, {68, true, 4, 0}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.feature << " from " << row.from);
    ByteVector records = EndOf(1) + EndOf(2) + EndOf(3, 5) + EndOf(2);
    Open(records);
    auto end = EndRecord(row.feature);
    ASSERT_TRUE(file.Seek(row.from));
    EXPECT_EQ(file.UpdateRecord(&end, 8, row.continueSearch), row.found != 0);
    if (row.found != 0) records[row.found - kFirst + 6] = 8;  // the flags
    EXPECT_EQ(Records(), records);
    EXPECT_EQ(file.GetPosition(), row.found != 0 ? row.found : 122u);
    EXPECT_EQ(file.GetError(), row.found != 0 ? KESP_ERROR_NONE : KESP_ERROR_NORMAL_EOF);
  }
  // Found, and newer than what is to replace it; a header record is never the same as another.
  Open(note2 + Stored{3, 1, HeaderBody1()}.Bytes() + Hex("00*14"));
  auto old = Note("rain", 1);
  CKespTavoHeader header;
  EXPECT_FALSE(file.UpdateRecord(&old, 8, false) || file.UpdateRecord(&header, 8, true));
  EXPECT_EQ(file.GetError(), KESP_ERROR_RECORD_HEADER);
}

TEST_F(KespDataFileWriting, DeletesAsTheFileStands) {
  const auto any = KESP_RECORD_NONE;
  const ByteVector two = EndOf(2);
  // What stands there, and what afterwards; empty for a refusal.
  // clang-format off
  const struct {
    const char* name; ByteVector before; std::uint32_t stands, position; KESP_RECORD_TYPE type; ByteVector after;
  } rows[] = {
      {"of the type, added before", EndOf(1, 2) + two, 50, 50, KESP_RECORD_FEATURE_END, EndOf(1, 5) + two},
      {"of another type", EndOf(1), 50, 50, KESP_RECORD_POINT, {}},
      {"deleted: the next one goes over it", EndOf(1, 1) + two, 50, 50, any, EndOf(2, 5) + two},
      {"deleted, the next one of another type", EndOf(1, 1) + note2, 50, 50, any, {}},
      {"deleted and the last", EndOf(1, 1), 50, 50, any, {}},
      {"standing elsewhere", EndOf(1) + two, 68, 50, any, EndOf(2, 5) + two},
      {"position 0 is no place to write", EndOf(1), 50, 0, any, {}},
      {"at the end", EndOf(1), 68, 50, any, {}}};
  // clang-format on
  for (const auto& row : rows) {
    Open(row.before);
    ASSERT_TRUE(file.Seek(row.stands));
    EXPECT_EQ(file.DeleteRecord(row.position, row.type), !row.after.empty()) << row.name;
    EXPECT_EQ(Records(), row.after.empty() ? row.before : row.after) << row.name;
  }
}

}  // namespace
