// What is changed in place in the file (the header, the marks of deletion), and what is not.
#include <array>
#include <cerrno>

#include "tests/dataset/DataSet.h"
#include "tests/support/FaultyMemory.h"
#include "tests/support/FaultySystem.h"

using namespace kesp::test;
using Access = CKespFileTestAccess;

namespace {

ErrorEnum Update(CKespFile& file, double minY, double maxY, double minX, double maxX, bool flag = false) {
  return file.UpdateKespHeader("one", "two", "three", "four", "five", "six", minY, maxY, minX, maxX, flag);
}

TEST(UpdateKespHeader, WritesTextsExtentAndSummary) {
  // Feature 2 comes before feature 1 in the index, so its text is the first of the latest ones.
  const ByteVector records = Feature(1) + Point(1, 1, {900000, 5.5, 6.6, "A1"}) + Attribute(1, "a") + Feature(2) +
                             Point(2, 2, {-7, -1.1, 2, "A2"}) + Point(2, 3, {900000, 3, -4.4, "A3"}) + Feature(3) +
                             Note("BMC:x");
  const Header2 header{2, 1, 2, 3, 4, 0xF0};
  DataSet set(Survey({header}) + records, Then::Read);
  for (const bool flag : {true, false}) {
    // clang-format off
    const ByteVector body = Body(3, 2, {
        {"status", 0xF1}, {"created", 1'000'000'000}, {"t1", "four"}, {"t2", "two"}, {"t3", "three"}, {"t4", "one"},
        {"t5", "six"}, {"t6", "five"}, {"kespVersion", 2}, {"minX", 10.1}, {"maxX", 20.2}, {"minY", 30.3}, {"maxY", 40.4},
        {"data1", -1.1}, {"data2", 5.5}, {"data3", -4.4}, {"data4", 6.6}, {"points", 3}, {"features", 3}, {"first", -7},
        {"last", 900000}, {"lastText", "A3"}, {"slot1", flag}});
    // clang-format on
    EXPECT_EQ(Update(set.file, 30.3, flag ? 40.4 : 20, 10.1, 20.2, flag), ERR_NONE);  // the second extent is none: left
    EXPECT_EQ(ReadFile(set.path), FileHeader() + Record(3, 2, 8, body) + records) << flag;
  }
}

TEST(UpdateKespHeader, StoresTextAndExtentOfAnOldFileInItsNotes) {
  const auto feature = Feature(7, "Oak", 0, 1), bmc = Note("BMC:old", 0, 1), zom = Note("ZOM:old", 0, 1);
  const auto newBmc = Note("BMC:five", 8, 1), newZom = Note("ZOM:1.00000000,2.00000000,3.00000000,4.00000000", 8, 1);
  const struct {
    ByteVector before, after;
    double maxX;
  } rows[] = {{bmc + zom, newBmc + zom, 0},  // no valid extent
              {feature, feature, 2},         // nothing is appended
              {zom + feature + bmc + bmc, newZom + feature + newBmc + bmc, 2}};
  const ByteVector body = Body(3, 1, {{"t1", "four"}, {"t2", "two"}, {"t3", "three"}, {"t4", "one"}, {"t5", "six"}});
  for (const auto& row : rows) {
    DataSet set(Survey({Header1()}, 1) + row.before);
    EXPECT_EQ(Update(set.file, 3, 4, 1, row.maxX), ERR_NONE);
    EXPECT_EQ(ReadFile(set.path), FileHeader(1) + Record(3, 1, 8, body) + row.after);
  }
}

TEST(SetCleanKespClose, TouchesOneBitOfANewerHeaderThatComesFirst) {
  const auto with = [](std::uint32_t status, std::uint32_t flags) {
    return Survey({Record(3, 2, flags, Header2{2, 0, 0, 0, 0, status}.Body())});
  };
  DataSet set(with(0xF1, 0));
  EXPECT_EQ(set.file.SetCleanKespClose(false), ERR_NONE);
  EXPECT_EQ(ReadFile(set.path), with(0xF0, 8));
  EXPECT_EQ(set.file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(ReadFile(set.path), with(0xF1, 8));
  EXPECT_EQ(set.file.SetCleanKespClose(false), ERR_SEEK_FAILED);
  EXPECT_EQ(Update(set.file, 0, 1, 0, 1), ERR_FILE_NOT_OPEN);
  const ByteVector deleted = Record(3, 2, 1, Header2{}.Body());
  for (const ByteVector& bytes :
       {Survey({Header1()}, 1), Survey({}), Survey({Note("x"), Header2{}}), Survey({deleted, Note("x")})}) {
    DataSet other(bytes);
    EXPECT_EQ(other.file.SetCleanKespClose(true), ERR_NONE);
    EXPECT_TRUE(bytes[42] == 1 || Update(other.file, 0, 1, 0, 1) == ERR_READ_FAILED);
    EXPECT_EQ(other.file.CloseKesp(), ERR_NONE);
    EXPECT_EQ(ReadFile(other.path), bytes);
  }
}

// A feature with three points, two attributes and an end, and another with one point; the records of these places are
// marked deleted.
ByteVector TwoFeatures(const std::vector<std::size_t>& deleted) {
  ByteVector records[] = {Feature(7),  Attribute(7, "a"), Point(7, 1),       Point(7, 2), Feature(8),
                          Point(8, 4), Point(7, 3),       Attribute(7, "b"), EndOf(7)};
  for (const std::size_t place : deleted) records[place][6] = 0x5;
  return Survey({Header2{}}) + Part(Survey(records), kFirst);
}

TEST(Deletion, FindsRecordsWhereverTheyAreOrNone) {
  DataSet set(TwoFeatures({}), Then::Read);
  CKespFile& file = set.file;
  CKespFeature* const feature = set.Feature(7);
  EXPECT_EQ(file.DeleteFeatureAndAssociatedRec(nullptr), ERR_NONE);
  for (CKespRecord* const record : {static_cast<CKespPoint*>(nullptr), set.Point(4)}) {
    EXPECT_EQ(file.DeleteRecord(record), ERR_NONE);  // in memory only
  }
  EXPECT_TRUE(set.Point(4)->IsDeleted());
  EXPECT_EQ(Access::DeletePointInFeature(file, nullptr, feature), 0);
  EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(1), nullptr), 0);
  EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(1), set.Feature(8)), 0);
  Access::DeletePoint(file, nullptr);
  EXPECT_EQ(ReadFile(set.path), TwoFeatures({}));
  set.Point(1)->m_filePosition = 1 << 20;
  set.Point(3)->PointNumber = 99;  // there is none of that number on disk
  file.m_numPoints = 0;            // not counted
  Access::DeletePoint(file, set.Point(1));
  EXPECT_EQ(feature->GetNumPoints(), 2);
  const FaultySystem counting;
  EXPECT_EQ(file.DeleteFeatureAndAssociatedRec(feature), ERR_NONE);
  EXPECT_EQ(counting.Calls("fdatasync"), 1);
  EXPECT_EQ(ReadFile(set.path), TwoFeatures({1, 2, 3, 7}));
  EXPECT_EQ(file.m_numPoints, 0u);
  EXPECT_EQ(file.m_pDataFile->GetPosition(), feature->GetFeatureEnd()->m_filePosition);

  EXPECT_EQ(file.m_featureIndex.Find(7), nullptr);
  EXPECT_TRUE(feature->IsDeleted());

  ASSERT_EQ(file.ReadKespFile(true), ERR_NONE);
  // To a number that nobody has, and to another point's.
  for (const auto& [entered, number] : {std::pair(1u, 98u), std::pair(2u, 3u)}) {
    CKespPoint* const point = set.Point(entered);
    point->PointNumber = number;
    EXPECT_EQ(Access::DeletePointInFeature(file, point, set.Feature(7)), 2);
    EXPECT_EQ(file.m_pointIndex.Find(entered), nullptr) << "the entry under the number that it had";
  }
  EXPECT_EQ(file.m_recordList.GetCount(), 8);
  EXPECT_EQ(file.m_numPoints, 2u);
  // The only point of a feature takes the feature with it, and so does a stray one.
  EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(4), set.Feature(8)), 1);
  EXPECT_EQ(file.m_featureIndex.Find(8), nullptr);
  CKespPoint stray;
  stray.FeatureNumber = 7;
  Access::DeletePoint(file, &stray);
  EXPECT_TRUE(set.Point(3)->IsDeleted());
  EXPECT_EQ(ReadFile(set.path), TwoFeatures({1, 2, 3, 5, 6, 7}));
}

ByteVector AnyRecord(Random& random) {
  const unsigned number = random(4), flags = random(3) == 0 ? 5 : 0;
  switch (random(6)) {
    case 0:
    case 1:
      return Point(number, random(5), {}, flags);
    case 2:
    case 3:
      return Attribute(number, random(2) == 0 ? "a" : "b", "", flags);
    case 4:
      return Feature(number, "", flags);
    default:
      // The second is of no known type, so a walk passes over what is in it.
      return random(2) == 0 ? Note("", flags) : Record(77, 1, 0, EndOf(1) + Point(number, random(5)));
  }
}

// Of a feature with one of each.
std::array<CKespRecord*, 2> PointAndAttribute(const CKespFeature& feature) {
  return {feature.GetPoint(0), feature.GetAttribute(0)};
}
// What a deletion does to the file, with a search for each record.
void SearchAndDelete(CKespDataFile& file, CKespRecord& record) {
  record.SetDelete();
  (void)file.Seek(record.m_filePosition);
  (void)(file.UpdateRecord(&record, 4, true) || file.UpdateRecord(&record, 4, false));
}
// Most values of `what` change nothing.
void Change(CKespDataFile& file, unsigned what, std::uint32_t place) {
  CKespPoint point;
  point.FeatureNumber = point.PointNumber = what % 4;
  if (what < 4) (void)file.AppendRecord(&point, 2);
  if (what >= 4 && what < 8) (void)(file.Seek(place) && file.OverwriteRecord(&point, 8));
  if (!file.m_file.IsWritable()) return;
  if (what == 8) file.m_file.Seek(place + 14, CFile::begin), file.m_file.Write("\2\0", 2);
  if (what == 100) file.LimitLength(place);
  if (what == 101) file.m_file.SetLength(place);
}

// Wherever a record is thought to be, and whatever happens to the file in between.
TEST(Deletion, FindsWhatASearchFindsThatWalksOverTheFile) {
  const IdleDisk disk;
  Random random(9);
  const ByteVector tails[] = {{}, Hex("01"), Part(WithLength(Feature(3, "", 0, 1), 1), 0, 20)};
  int found = 0;
  for (int round = 0; round < 60; ++round) {
    ByteVector bytes = Survey({Header2{}});
    std::vector<std::size_t> places{0};
    while (places.size() < 30) {
      const ByteVector record = AnyRecord(random);
      places.push_back(bytes.size());
      if (record[0] == 77) places.push_back(bytes.size() + 14);
      Append(bytes, record);
    }
    places.push_back(bytes.size());
    const auto place = [&] { return static_cast<std::uint32_t>(places[random(static_cast<unsigned>(places.size()))]); };
    DataSet set(bytes + tails[round % 3]), searched(ReadFile(set.path));
    CKespDataFile& ours = *set.file.m_pDataFile;
    CKespDataFile& other = *searched.file.m_pDataFile;
    const bool isReadOnly = round % 5 == 4;
    for (DataSet* const each : {&set, &searched}) {
      if (isReadOnly) each->file.m_pDataFile->Close(), each->file.OpenKespReadOnly(Text(each->path), each->message);
    }
    for (int step = 0; step < 40; ++step) {
      CKespFeature feature;
      feature.AddPoint(new CKespPoint), feature.AddAttribute(new CKespAttribute);
      feature.GetPoint(0)->FeatureNumber = random(4), feature.GetPoint(0)->PointNumber = random(5);
      feature.GetAttribute(0)->FeatureNumber = random(4);
      feature.GetAttribute(0)->AttributeName = random(3) == 0 ? "a" : "b";
      for (CKespRecord* const record : PointAndAttribute(feature)) {
        record->m_filePosition = place() + (random(4) == 0 ? random(40) : 0);
      }
      const CKespFeature same(feature);
      const ByteVector before = ReadFile(set.path);
      set.file.DeleteFeatureAndAssociatedRec(&feature);
      for (CKespRecord* const record : PointAndAttribute(same)) SearchAndDelete(other, *record);
      const ByteVector after = ReadFile(set.path);
      found += after != before;
      ASSERT_EQ(after, ReadFile(searched.path)) << round << ' ' << step;
      for (const std::size_t i : {0u, 1u})
        EXPECT_EQ(PointAndAttribute(feature)[i]->m_flags, PointAndAttribute(same)[i]->m_flags);
      ASSERT_EQ(ours.GetSystemError(), other.GetSystemError()) << round << ' ' << step;
      ASSERT_TRUE(isReadOnly || ours.GetError() == other.GetError()) << round << ' ' << step;
      const unsigned what = step < 30 ? random(20) : 100 + random(6);
      const std::uint32_t at = place();
      Change(ours, what, at), Change(other, what, at);
    }
  }
  EXPECT_GT(found, 500);
}

// Each allocation fails in turn: the point is still everywhere or nowhere.
TEST(Deletion, LosesNothingWhenMemoryRunsOut) {
  bool struck = true;
  for (int at = 1; struck; ++at) {
    DataSet set(TwoFeatures({}), Then::Read);
    CKespFeature* const feature = set.Feature(7);
    CKespPoint* const point = feature->GetPoint(1);  // not by the index, which is made when it is first asked
    ASSERT_EQ(point->PointNumber, 2u);
    int left = 0;
    try {
      const FaultyMemory memory(at);
      Access::DeletePoint(set.file, point);
      struck = FaultyMemory::Struck();
    } catch (const std::exception&) {
      left = 1;
    }
    EXPECT_EQ(set.file.m_pointIndex.Find(2) != nullptr, left == 1);
    EXPECT_EQ(set.file.m_recordList.GetCount(), 9 + left);
    EXPECT_EQ(feature->GetNumPoints(), 2 + left);
    EXPECT_EQ(static_cast<int>(set.file.m_numPoints), 3 + left);
  }
}

TEST(ValidateKesp, OpensAndClosesWhatWasClosed) {
  const auto with = [](std::uint32_t status, const ByteVector& more) {  // and marked as modified with it
    const ByteVector header = Record(3, 2, 8 * status, Header2{2, 0, 0, 0, 0, status}.Body());
    return Survey({header, Feature(7), Point(7, 1), more});
  };
  const std::pair<ByteVector, ErrorEnum> rows[] = {
      {{}, ERR_NONE}, {Feature(8), ERR_BAD_FEATURE}, {Hex("01"), ERR_READ_FAILED}};
  for (const auto& [more, result] : rows) {
    DataSet other(Hex("'Corvanthe'")), set(with(0, more));
    CString message = u"kept";
    EXPECT_EQ(set.file.ValidateKesp(), result);
    EXPECT_EQ(set.file.ValidateKesp(Text(set.path), message), result);
    EXPECT_EQ(ReadFile(set.path), with(0, more));
    EXPECT_EQ(set.file.ValidateKesp(Text(other.path), message), ERR_OTHER_FILE_OPEN);
    set.file.m_pDataFile->Close();
    EXPECT_EQ(set.file.ValidateKesp(), ERR_FILE_NOT_OPEN);
    EXPECT_EQ(set.file.ValidateKesp(Text(other.path), message), ERR_FILE_NOT_OPEN);  // it is refused
    EXPECT_EQ(set.file.ValidateKesp(Text(set.path), message), result);
    EXPECT_EQ(set.file.ValidateKesp(Text(set.dir / "missing"), message), ERR_FILE_NOT_FOUND);
    EXPECT_EQ(message, CString(u"kept"));
    EXPECT_EQ(ReadFile(set.path), with(1, more));
  }
}

TEST(OpenKespReadOnly, ChangesNothingAndGivesWayToWriting) {
  for (const bool append : {false, true}) {
    DataSet set(TwoFeatures({}));
    CKespFile file;
    CString message;
    ASSERT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);
    EXPECT_EQ(file.ValidateKesp(Text(set.path), message), ERR_NONE);
    EXPECT_EQ(Update(file, 0, 1, 0, 1), ERR_NONE);
    Access::DeletePoint(file, *file.m_pointIndex.Find(2));
    EXPECT_EQ(file.m_pDataFile->GetSystemError(), EBADF);  // the only sign of it
    EXPECT_EQ(file.CloseKesp(), ERR_NONE);
    EXPECT_EQ(ReadFile(set.path), TwoFeatures({}));

    CKespNote note;
    ASSERT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);
    file.ClearQueueWithoutWriting();
    file.AddNoteToWriteQueue(&note);
    const auto write = [&] {
      return append ? file.AppendToKespFileFromQueue(Text(set.path)) : file.OpenKesp(Text(set.path), message);
    };
    EXPECT_EQ(write(), ERR_FILE_EXCEPTION);  // `set` has it open for writing
    EXPECT_EQ(message.ToUtf8(), append ? "" : set.path.string() + ": The file is in use");
    EXPECT_TRUE(file.m_pDataFile->IsOpen());
    EXPECT_FALSE(file.m_pDataFile->m_file.IsWritable());
    ASSERT_TRUE(set.file.m_pDataFile->Close());
    EXPECT_EQ(write(), ERR_NONE);
    EXPECT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);  // it stays open for writing
    EXPECT_TRUE(file.m_pDataFile->m_file.IsWritable());
    EXPECT_EQ(ReadFile(set.path), TwoFeatures({}) + (append ? Note("", 2) : ByteVector()));
  }
}

}  // namespace
