#include <array>
#include <cerrno>

#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespBrokenRecord.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespPoint.h"
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

TEST_F(KespDataFileWriting, AppendsSeveralOrNone) {
  CKespTag large, withoutBlock;
  large.Set(KESP_TAG_BLOB, "", nullptr, 150'000);
  large.m_dataPosition = 9;
  auto one = EndRecord(1), two = EndRecord(2);
  CKespBrokenRecord broken;
  CKespRecord* records[] = {&one, &large, &broken, &two};
  const ByteVector appended = EndOf(1, 2) + Tag(0, "", ByteVector(150'000), 2) + EndOf(2, 2);
  Open(EndOf(9));
  FaultySystem counting;
  EXPECT_TRUE(file.AppendRecords(records, 4, 2));
  EXPECT_EQ(counting.Calls("fdatasync"), 1);
  EXPECT_EQ(Records(), EndOf(9) + appended);
  EXPECT_TRUE(one.m_filePosition == 68 && large.m_filePosition == 86 && large.m_dataPosition == 0);
  EXPECT_TRUE(two.m_filePosition == file.GetLength() - 18 && file.AppendRecords(nullptr, 0, 2));
  // With the last one refused by its class, or known not to be writable before; and with any of the calls that fail.
  std::uint32_t failed = 0;
  for (CKespRecord* const refused : std::initializer_list<CKespRecord*>{&withoutBlock, nullptr}) {
    records[3] = refused;
    EXPECT_FALSE(file.AppendRecords(records, 4, 2));
    EXPECT_EQ(file.GetFailedAppends(), ++failed);
    EXPECT_EQ(Records(), EndOf(9) + appended);
  }
  records[3] = &two;
  for (int call = 1; call <= counting.Calls(); ++call) {
    Open(EndOf(9));
    FaultySystem system(call, FaultySystem::Fault::Error);
    const bool good = file.AppendRecords(records, 4, 2);
    EXPECT_EQ(Records(), EndOf(9) + (good ? appended : ByteVector())) << call;
  }
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

// The record is read from the file, changed, and amended in its place; all other bytes stay, those too that no field
// shows.
template <class Record>
using Change = void (*)(Record&);
TEST_F(KespDataFileWriting, AmendsTheFieldsThatDifferAndNoOtherByte) {
  const auto check = [this]<class Record>(const ByteVector& there, Change<Record> change, bool good,
                                          std::initializer_list<std::pair<std::size_t, ByteVector>> patches) {
    Open(EndOf(9) + there + EndOf(9));
    std::unique_ptr<CKespRecord> first(file.ReadNextRecord(false)), record(file.ReadNextRecord(false));
    ASSERT_TRUE(record);
    auto& before = dynamic_cast<Record&>(*record);
    Record after(before);
    change(after);
    ByteVector expected = Records();
    for (const auto& [at, bytes] : patches) {
      std::copy(bytes.begin(), bytes.end(), expected.begin() + 18 + static_cast<std::ptrdiff_t>(at));
    }
    const FaultySystem system;
    EXPECT_EQ(CKespDataFile::CanAmend(before, after), good);
    EXPECT_EQ(file.AmendRecord(before, after), good);
    EXPECT_EQ(Records(), expected);
    EXPECT_LE(system.Calls("write"), 1);
    EXPECT_EQ(system.Calls("fdatasync"), 0);
    EXPECT_TRUE(!good || file.GetPosition() == kFirst + 18);
  };
  const auto garbled = [](ByteVector record, std::size_t at, const ByteVector& garbage) {
    std::copy(garbage.begin(), garbage.end(), record.begin() + static_cast<std::ptrdiff_t>(at));
    return record;
  };
  // clang-format off
  // Flags that are not in their reduced form, garbage after the end of a text, an odd length in the header.
  const ByteVector note = WithLength(garbled(Sample(6, 2, 0x03), 14 + 10, Hex("\"garbage\"")), 300);
  const ByteVector attribute = garbled(Sample(5, 2), 14 + 4 + 30, Hex("ff")), old = Sample(5, 1);
  check(note, +[](CKespNote& n) { n.NoteText = "a"; }, true, {{14, Hex("\"a\" 00*510")}});
  check(note, +[](CKespNote& n) { n.m_flags = 5; }, true, {{6, {5}}});
  check(note, +[](CKespNote&) {}, true, {});
  check(note, +[](CKespNote& n) { n.NoteText = std::string(256, 'a'); }, false, {});
  check(note, +[](CKespNote& n) { n.NoteText = std::u16string_view(u"a\0b", 3); }, false, {});
  check(note, +[](CKespNote& n) { n.m_recordVersion = 1; }, false, {});
  check(attribute, +[](CKespAttribute& a) { a.Value = 2.5, a.m_flags = 8, a.Decimals = 65535; }, true,
        {{6, {8}}, {14 + 172, Hex("00*6 04 40")}, {14 + 196, Hex("ff ff")}});
  check(attribute, +[](CKespAttribute& a) { a.AttributeKind = 6; }, false, {});
  check(attribute, +[](CKespAttribute& a) { a.AuxNumber3 = 1; }, false, {});  // from version 3 on
  check(old, +[](CKespAttribute& a) { a.AuxText = u"\u00ff"; }, true, {{14 + 116, Hex("ff 00*21")}});
  check(old, +[](CKespAttribute& a) { a.AuxText = u"\u0100"; }, false, {});
  check(old, +[](CKespAttribute& a) { a.AuxText = std::string(21, 'a'); }, false, {});
  check(Sample(3, 2), +[](CKespTavoHeader& h) { h.HeaderText7 = "b", h.SlotBytes4[15] = 7; }, true,
        {{14 + 2356, Hex("\"b\"")}, {14 + 4085, {7}}});
  check(Sample(2, 1), +[](CKespPoint& p) { p.PointTime = -1; }, true, {{14 + 30, Hex("ff*4")}});
  check(Sample(2, 2), +[](CKespPoint& p) { p.GpsNumber = 65536; }, false, {});
  check(Sample(9, 2), +[](CKespTag& t) { t.m_flags = 4, t.Set("d", 7); }, true, {{6, {4}}, {14 + 20, {7}}});
  check(Sample(9, 2), +[](CKespTag& t) { t.Set("d", 7.0); }, false, {});
  // clang-format on
  // Something else is there, or the file ends.
  const ByteVector others = Sample(4, 1) + Sample(6, 1) + Sample(6, 2) + Part(Sample(6, 2), 0, 99);
  Open(others);
  auto was = NoteRecord("rain"), snow = NoteRecord("snow");
  for (const std::uint32_t at : {kFirst, kFirst + 18, kFirst + 18 + 270 + 526, 5000u}) {
    was.m_filePosition = at;
    EXPECT_FALSE(file.AmendRecord(was, snow));
  }
  EXPECT_EQ(Records(), others);
  CKespPoint point;
  point.m_recordType = KESP_RECORD_NOTE;  // it only says so
  EXPECT_FALSE(CKespDataFile::CanAmend(was, point) || CKespDataFile::CanAmend(point, was));
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
  EXPECT_TRUE(file.EndsWhole());
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
