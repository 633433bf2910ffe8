#include <array>
#include <cerrno>

#include "kesp/records/KespBrokenRecord.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespTag.h"
#include "kesp/records/KespTavoHeader.h"
#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

CKespNote NoteRecord(const char* text, unsigned short version = 2) {
  CKespNote note;
  note.NoteText = text, note.m_recordVersion = version;
  return note;
}

class KespDataFileWriting : public OneFile {
 protected:
  const ByteVector note1 = Sample(6, 1);
  const ByteVector note2 = Sample(6, 2);
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
    EXPECT_EQ(std::tuple(end.m_filePosition, end.m_flags), std::tuple(kFirst + expected.size(), stored)) << before;
    Append(expected, EndOf(7, stored));
    EXPECT_EQ(Records(), expected);
  }
}

TEST_F(KespDataFileWriting, AppendsOldBodiesUnderTheRecordsOwnHeader) {
  Open({});
  CKespFeature oak;
  oak.FeatureNumber = 7, oak.FeatureName = "Oak", oak.FeatureType = KESP_FEATURE_POINT, oak.Color = 0x332211;
  oak.SymbolIndex = 5, oak.m_flags = 0x03;  // which are written unchanged: no source flag, no filter
  auto note = NoteRecord("rain"), old = NoteRecord("rain", 1), unknownVersion = NoteRecord("rain", 9);
  EXPECT_TRUE(file.AppendRecordVersion1(&oak, 8));
  EXPECT_TRUE(file.AppendRecordVersion2(&note, 8));
  EXPECT_TRUE(file.AppendRecordVersion1(&old, 0));
  const ByteVector expected = Hex("01 00 00 00 03 00 03 00 00 00 0C 02 00 00") + SampleBody(1, 1) + note2 + note1;
  EXPECT_EQ(old.m_filePosition, kFirst + expected.size() - note1.size());
  EXPECT_EQ(file.GetSystemError(), 0);
  // What can't be written leaves nothing in the file, and is noted each time.
  CKespTag withoutBlock;
  oak.m_recordVersion = 9;  // its Write would return true, without a body
  std::uint32_t failed = 0;
  for (CKespRecord* const refused :
       std::initializer_list<CKespRecord*>{&withoutBlock, &unknownVersion, &oak, nullptr}) {
    EXPECT_FALSE(file.AppendRecord(refused, 0));
    EXPECT_EQ(file.GetSystemError(), EINVAL) << failed;
    EXPECT_EQ(file.GetFailedAppends(), ++failed);
    file.m_systemError = 0;
  }
  EXPECT_TRUE(file.SeekToFirstRecord());  // where there is something to overwrite
  CKespDataFile closed;
  EXPECT_EQ((std::array{file.OverwriteRecord(nullptr, 0), file.CopyRecord(nullptr, kFirst),
                        file.UpdateRecord(nullptr, 0, false), closed.OverwriteRecord(&note, 0),
                        closed.UpdateRecord(&note, 0, true)}),
            (std::array<bool, 5>{}));
  CKespBrokenRecord broken;
  EXPECT_TRUE(file.AppendRecord(&broken, 2));
  EXPECT_EQ(broken.m_filePosition, file.GetLength());
  EXPECT_EQ(Records(), expected);
}

TEST_F(KespDataFileWriting, WritesAgainAfterAPowerEvent) {
  // Asked before the write and after it.
  for (const auto& [events, sleptMs] : {std::pair{"1", 5000u}, {"011", 10000u}}) {
    Open(EndOf(7));
    FaultySystem system;
    system.powerEvents = events;
    auto end = EndRecord(8);
    EXPECT_TRUE(file.AppendRecord(&end, 2)) << events;
    EXPECT_EQ(std::tuple(system.sleptMs, file.GetPosition()), std::tuple(sleptMs, 86)) << events;
    EXPECT_EQ(Records(), EndOf(7) + EndOf(8, 2));
    EXPECT_FALSE(CKespDataFile().Open(Text(path)));  // locked again
  }
}

TEST_F(KespDataFileWriting, OverwritesInTheVersionOnDisk) {
  const std::tuple<std::uint32_t, std::uint16_t, std::uint16_t, bool> rows[] = {
      {6, 1, 2, true}, {6, 2, 2, true}, {6, 2, 1, false}, {4, 1, 2, false}};
  for (const auto& [type, version, own, good] : rows) {
    const ByteVector there = Sample(type, version, 0x40);
    Open(there + EndOf(9));
    auto note = NoteRecord("snow", own);
    EXPECT_EQ(file.CopyRecord(&note, kFirst), good);
    const ByteVector snow = Note("snow", 2, version);
    EXPECT_EQ(Records(), (good ? snow : there) + EndOf(9));
    EXPECT_EQ(file.GetPosition(), good ? kFirst + snow.size() : kFirst + 6);
    EXPECT_EQ(note.m_recordVersion, own);
  }
  // Too few bytes to tell; and a record that can't be written leaves what is there.
  const ByteVector tag = Sample(9, 2);
  CKespTag withoutBlock;
  for (const ByteVector& there : {Part(tag, 0, 5), tag}) {
    Open(there);
    for (const std::uint32_t at : {kFirst, 5000u}) EXPECT_FALSE(file.CopyRecord(&withoutBlock, at)) << at;
    EXPECT_EQ(Records(), there);
  }
}

TEST_F(KespDataFileWriting, FindsTheRecordToUpdate) {
  const ByteVector before = EndOf(1) + EndOf(2) + EndOf(3, 5) + EndOf(2);
  const struct {
    std::uint32_t from;
    bool continueSearch;           // from the current position and around the end; else from the first record
    std::uint32_t feature, found;  // 0 for none
  } rows[] = {{104, false, 2, 68}, {86, true, 2, 104}, {104, true, 1, 50}, {50, true, 3, 86}, {68, true, 4, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.feature << " from " << row.from);
    Open(before);
    auto end = EndRecord(row.feature);
    ASSERT_TRUE(file.Seek(row.from));
    EXPECT_EQ(file.UpdateRecord(&end, 8, row.continueSearch), row.found != 0);
    ByteVector after = before;
    if (row.found != 0) after[row.found - kFirst + 6] = 8;  // the flags
    EXPECT_EQ(Records(), after);
    EXPECT_EQ(file.GetPosition(), row.found != 0 ? row.found : 122u);
    EXPECT_EQ(file.GetError(), row.found != 0 ? KESP_ERROR_NONE : KESP_ERROR_NORMAL_EOF);
  }
  // Found, and newer than what is to replace it; a header record is never the same as another.
  Open(note2 + Sample(3, 1) + Hex("00*14"));
  auto old = NoteRecord("rain", 1);
  CKespTavoHeader header;
  EXPECT_FALSE(file.UpdateRecord(&old, 8, false));
  EXPECT_FALSE(file.UpdateRecord(&header, 8, true));
  EXPECT_EQ(file.GetError(), KESP_ERROR_RECORD_HEADER);
}

TEST_F(KespDataFileWriting, FindsWhatToUpdateBeyondFourGigabytes) {
  constexpr std::uint32_t kPassedOver = 0xFFFFFFE0;  // from 82 to 4 GiB and 50
  Put(EndOf(1) + WithLength(Record(200, 1, 0, {}), kPassedOver));
  PutAt(82 + std::uint64_t{kPassedOver}, EndOf(2));
  ASSERT_TRUE(file.Open(Text(path)));
  auto end = EndRecord(2);
  EXPECT_TRUE(file.UpdateRecord(&end, 8, false));
  EXPECT_TRUE(file.DeleteRecord(kFirst, 0)) << "where it was found, not at the low 32 bits of that";
  ASSERT_TRUE(file.SeekToFirstRecord());
  for (const std::uint32_t flags : {0u, 5u}) {
    const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(false));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->m_flags, flags);
  }
}

TEST_F(KespDataFileWriting, KeepsATagWithAnEmptyBlockAndTellsItFromStrangers) {
  const auto empty = [](std::uint32_t flags) { return Record(9, 2, flags, Hex("03 00*3 00*4")); };
  Open(empty(0) + Sample(9, 2));
  const std::unique_ptr<CKespRecord> tag(file.ReadNextRecord(false)), stranger(file.ReadNextRecord(false));
  EXPECT_TRUE(file.UpdateRecord(tag.get(), 8, false));
  EXPECT_TRUE(file.Seek(kFirst) && file.DeleteRecord(kFirst, 0));
  EXPECT_EQ(Records(), empty(5) + Sample(9, 2));
  // Appended to another file, a tag forgets where it was read here.
  CKespDataFile second;
  ASSERT_TRUE(second.Create(Text(dir / "b.kesp")));
  for (CKespRecord* const record : {tag.get(), stranger.get()}) {
    record->m_flags = 0;
    ASSERT_TRUE(second.AppendRecord(record, 2));
    EXPECT_EQ(static_cast<CKespTag&>(*record).m_dataPosition, 0u);
    EXPECT_FALSE(second.UpdateRecord(record, 8, false));
  }
  EXPECT_EQ(Part(ReadFile(dir / "b.kesp"), kFirst), empty(2) + Sample(9, 2, 2));
}

TEST_F(KespDataFileWriting, DeletesWhatIsReadAtThePosition) {
  const auto any = KESP_RECORD_NONE;
  const ByteVector two = EndOf(2), tag = Sample(9, 2), deletedTag = Sample(9, 2, 1);
  const ByteVector longer = Record(9, 2, 0, Hex("00*4 14 00*3 04 00*3 00*4 08 00*3 01*8"));
  const struct {
    const char* name;
    ByteVector before;
    std::uint32_t from, position;
    KESP_RECORD_TYPE type;
    ByteVector after;  // empty for a refusal
  } rows[] = {{"of the type, added before", EndOf(1, 2) + two, 50, 50, KESP_RECORD_FEATURE_END, EndOf(1, 5) + two},
              {"of another type", EndOf(1), 50, 50, KESP_RECORD_POINT, {}},
              {"deleted: the next one goes over it", EndOf(1, 1) + two, 50, 50, any, EndOf(2, 5) + two},
              {"deleted, the next one of another type", EndOf(1, 1) + note2, 50, 50, any, {}},
              {"deleted: the next tag is as long", deletedTag + tag, 50, 50, any, Sample(9, 2, 5) + tag},
              {"deleted: the next tag is longer", deletedTag + longer + two, 50, 50, any, {}},
              {"an attribute without a body", Record(5, 0, 0, {}) + two, 50, 50, any, {}},
              {"read elsewhere", EndOf(1) + two, 68, 50, any, EndOf(2, 5) + two},
              {"position 0 is no place to write", EndOf(1), 50, 0, any, {}},
              {"at the end", EndOf(1), 68, 50, any, {}}};
  for (const auto& row : rows) {
    Open(row.before);
    ASSERT_TRUE(file.Seek(row.from));
    EXPECT_EQ(file.DeleteRecord(row.position, row.type), !row.after.empty()) << row.name;
    EXPECT_EQ(Records(), row.after.empty() ? row.before : row.after) << row.name;
  }
}

}  // namespace
