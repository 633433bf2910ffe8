// What is changed in the file in place: the header, the marks of deletion; and what is not.
#include <fcntl.h>
#include <sys/stat.h>

#include "tests/dataset/DataSet.h"
#include "tests/support/FaultyMemory.h"
#include "tests/support/FaultySystem.h"

using namespace kesp::test;
using Access = CKespFileTestAccess;

namespace {

ErrorEnum Update(CKespFile& file, double minY, double maxY, double minX, double maxX) {
  return file.UpdateKespHeader("one", "two", "three", "four", "five", "six", minY, maxY, minX, maxX, true);
}

TEST(UpdateKespHeader, WritesTextsExtentAndSummary) {
  const ByteVector records = Feature(7) + Point(7, 1, {900000, 5, 6, "A1"}) + Attribute(7, "a") +
                             Point(7, 2, {-7, -1, 2, "A2"}) + Note("BMC:x");
  const Header2 header{2, 1, 2, 3, 4, 0xF0};
  for (const bool read : {true, false}) {
    DataSet set(Survey({header}) + records);
    EXPECT_TRUE(!read || set.file.ReadKespFile(false) == ERR_NONE);
    EXPECT_EQ(read ? Update(set.file, 30, 40, 10, 20) : Update(set.file, 40, 30, 10, 20), ERR_NONE);  // none: left
    ByteVector body = header.Body();
    Put(body, 0, 0xF1, 4);
    const std::pair<std::size_t, const char*> texts[] = {{10, "four"},  {52, "two"},   {564, "three"},
                                                         {1076, "one"}, {1588, "six"}, {1844, "five"}};
    for (const auto& [offset, text] : texts) Put(body, offset, text, 2);
    const double extents[] = {10, 20, 30, 40, -1, 5, 2, 6};
    const double left[] = {1, 2, 3, 4, 0, 0, 0, 0};
    for (std::size_t i = 0; i < 8; ++i) Put(body, 2872 + 8 * i, read ? extents[i] : left[i]);
    const ByteVector after = ReadFile(set.path);
    if (read) {
      const std::uint32_t counts[] = {2, 1, 0, static_cast<std::uint32_t>(-7),
                                      900000};  // two counts, a spare, two times
      for (std::size_t i = 0; i < 5; ++i) Put(body, 2936 + 4 * i, counts[i], 4);
      Put(body, 2956, "A1", 2);
    } else {
      std::copy_n(after.begin() + 64 + 2948, 8, body.begin() + 2948);  // times of nothing, as the summary has them
    }
    Put(body, 2998, 1, 4);
    EXPECT_EQ(after, FileHeader() + Record(3, 2, 8, body) + records) << read;
  }
}

TEST(UpdateKespHeader, StoresTextAndExtentOfAnOldFileInItsNotes) {
  const auto feature = Feature(7, "Oak", 0, 1), bmc = Note("BMC:old", 0, 1), zom = Note("ZOM:old", 0, 1);
  const auto newBmc = Note("BMC:five", 8, 1), newZom = Note("ZOM:1.00000000,2.00000000,3.00000000,4.00000000", 8, 1);
  const struct {
    ByteVector before, after;
    double maxX;
  } rows[] = {{bmc + zom, newBmc + newZom, 2},
              {bmc + zom, newBmc + zom, 0},  // no valid extent
              {feature, feature, 2},         // nothing is appended
              {zom + feature + bmc + bmc, newZom + feature + newBmc + bmc, 2}};
  for (const auto& row : rows) {
    DataSet set(Survey({Header1()}, 1) + row.before);
    EXPECT_EQ(Update(set.file, 3, 4, 1, row.maxX), ERR_NONE);
    ByteVector body(928);
    const std::pair<std::size_t, const char*> texts[] = {
        {10, "four"}, {31, "two"}, {287, "three"}, {543, "one"}, {799, "six"}};
    for (const auto& [offset, text] : texts) Put(body, offset, text, 1);
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
  for (const ByteVector& bytes : {Survey({Header1()}, 1), Survey({}), Survey({Note("x"), Header2{}})}) {
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
                          Point(8, 4), Point(7, 3),       Attribute(7, "b"), End(7)};
  for (const std::size_t place : deleted) records[place][6] = 0x5;
  ByteVector all = Survey({Header2{}});
  for (const ByteVector& record : records) Append(all, record);
  return all;
}

TEST(Deletion, MarksThePointsAndAttributesOfAFeature) {
  DataSet set(TwoFeatures({}));
  CKespFile& file = set.file;
  ASSERT_EQ(file.ReadKespFile(false), ERR_NONE);
  CKespFeature* const feature = set.Feature(7);
  EXPECT_EQ(file.DeleteFeatureAndAssociatedRec(nullptr), ERR_NONE);
  EXPECT_EQ(file.DeleteFeatureAndAssociatedRec(feature), ERR_NONE);
  EXPECT_EQ(ReadFile(set.path), TwoFeatures({1, 2, 3, 6, 7}));
  EXPECT_EQ(FeatureOrder(file), "F8");
  EXPECT_EQ(file.m_numPoints, 1u);
  EXPECT_EQ(file.m_pDataFile->GetPosition(), feature->GetFeatureEnd()->m_filePosition);
  // All of it stays in memory, marked.
  EXPECT_EQ(Names(file.m_recordList), "H F7 A7:a P7/1 P7/2 F8 P8/4 P7/3 A7:b E7");
  EXPECT_TRUE(feature->IsDeleted() && feature->GetFeatureEnd()->IsDeleted() && set.Point(3)->IsDeleted());
  EXPECT_EQ(feature->GetNumPoints(), 3);
  EXPECT_EQ(file.ReadKespFile(false), ERR_NONE);
  EXPECT_EQ(Names(file.m_recordList), "H F7 F8 P8/4 E7");
  EXPECT_EQ(file.ValidateKesp(), ERR_BAD_FEATURE);
}

TEST(Deletion, OfAPointAsksForMembershipOrNot) {
  for (const bool inFeature : {false, true}) {
    DataSet set(TwoFeatures({}));
    CKespFile& file = set.file;
    ASSERT_EQ(file.ReadKespFile(false), ERR_NONE);
    CKespFeature* const seven = set.Feature(7);
    CKespFeature* const eight = set.Feature(8);
    CKespPoint same(*set.Point(2));  // equal, and not the one
    CKespPoint stray(*set.Point(4));
    CKespPoint lost;
    EXPECT_EQ(Access::DeletePointInFeature(file, nullptr, seven), 0);
    EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(1), nullptr), 0);
    EXPECT_EQ(Access::DeletePointInFeature(file, &same, seven), 0);
    EXPECT_EQ(Access::DeletePointInFeature(file, &stray, eight), 0);
    for (CKespPoint* point : {static_cast<CKespPoint*>(nullptr), &same, &lost}) Access::DeletePoint(file, point);
    EXPECT_EQ(ReadFile(set.path), TwoFeatures({}));

    if (inFeature) {
      EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(2), seven), 2);
    } else {
      Access::DeletePoint(file, set.Point(2));
    }
    EXPECT_EQ(ReadFile(set.path), TwoFeatures({3}));
    EXPECT_EQ(file.m_pointIndex.Find(2), nullptr);
    EXPECT_EQ(Names(file.m_recordList), "H F7 A7:a P7/1 F8 P8/4 P7/3 A7:b E7");
    EXPECT_EQ(Names(std::vector{seven->GetPoint(0), seven->GetPoint(1), seven->GetPoint(2)}), "P7/1 P7/3 null");
    EXPECT_EQ(file.m_numPoints, 3u);
    if (inFeature) {
      EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(4), eight), 1);
    } else {
      Access::DeletePoint(file, &stray);  // takes the one-point feature of its number with it
      EXPECT_FALSE(stray.IsDeleted());
    }
    EXPECT_EQ(ReadFile(set.path), TwoFeatures({3, 5}));
    EXPECT_EQ(FeatureOrder(file), "F7");
    EXPECT_TRUE(set.Point(4)->IsDeleted());  // alive
    EXPECT_EQ(file.m_numPoints, 2u);

    EXPECT_EQ(file.DeleteRecord(set.Point(1)), ERR_NONE);  // in memory only
    EXPECT_EQ(file.DeleteRecord(nullptr), ERR_NONE);
    EXPECT_EQ(set.Point(1)->m_flags, 0x5u);
    set.Point(1)->m_filePosition = 1 << 20;  // found wherever it is
    set.Point(3)->PointNumber = 99;          // there is none of that number on disk
    seven->AddPoint(new CKespPoint);
    Access::DeletePoint(file, set.Point(1));
    Access::DeletePoint(file, set.Point(3));
    EXPECT_EQ(ReadFile(set.path), TwoFeatures({2, 3, 5}));
  }
}

TEST(ValidateKesp, OpensAndClosesWhatWasClosed) {
  const ByteVector good = Survey({Header2{}, Feature(7), Point(7, 1)});
  const ByteVector marked = Survey({Record(3, 2, 8, Header2{2, 0, 0, 0, 0, 1}.Body()), Feature(7), Point(7, 1)});
  const struct {
    ByteVector before;
    ErrorEnum result;
    ByteVector after;
  } rows[] = {{good, ERR_NONE, marked},
              {good + Feature(8), ERR_BAD_FEATURE, marked + Feature(8)},
              {good + Hex("01"), ERR_READ_FAILED, marked + Hex("01")},
              {Hex("'Corvanthe'"), ERR_FILE_NOT_OPEN, Hex("'Corvanthe'")}};
  for (const auto& row : rows) {
    DataSet other(good);
    DataSet set(row.before);
    CString message = u"kept";
    EXPECT_EQ(set.file.ValidateKesp(), row.result);
    EXPECT_EQ(set.file.ValidateKesp(Text(set.path), message), row.result);
    EXPECT_EQ(ReadFile(set.path), row.before);
    const bool isOpen = set.file.m_pDataFile->IsOpen();
    EXPECT_EQ(set.file.ValidateKesp(Text(other.path), message), isOpen ? ERR_OTHER_FILE_OPEN : ERR_FILE_NOT_OPEN);
    set.file.m_pDataFile->Close();
    EXPECT_EQ(set.file.ValidateKesp(Text(set.path), message), row.result);
    EXPECT_EQ(set.file.ValidateKesp(Text(set.dir / "missing"), message), ERR_FILE_NOT_FOUND);
    EXPECT_FALSE(set.file.m_pDataFile->IsOpen());
    EXPECT_EQ(message, CString(u"kept"));
    EXPECT_EQ(ReadFile(set.path), row.after);
  }
}

TEST(OpenKespReadOnly, ChangesNothing) {
  DataSet set(TwoFeatures({}));
  ASSERT_TRUE(set.file.m_pDataFile->Close());
  const timespec old[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, set.path.c_str(), old, 0), 0);
  CKespFile file;
  CString message;
  ASSERT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);
  EXPECT_EQ(file.ValidateKesp(Text(set.path), message), ERR_NONE);
  CKespPoint* point = nullptr;
  EXPECT_EQ(file.GetPoint(2, point), ERR_NONE);
  EXPECT_EQ(Update(file, 0, 1, 0, 1), ERR_NONE);
  Access::DeletePoint(file, point);
  EXPECT_EQ(file.DeleteFeatureAndAssociatedRec(*file.m_featureIndex.Find(8)), ERR_NONE);
  EXPECT_EQ(file.m_pDataFile->GetSystemError(), EBADF);  // which is how it shows
  EXPECT_EQ(file.CloseKesp(), ERR_NONE);
  EXPECT_FALSE(file.m_pDataFile->IsOpen());
  EXPECT_EQ(ReadFile(set.path), TwoFeatures({}));
  struct stat info {};
  ::stat(set.path.c_str(), &info);
  EXPECT_EQ(info.st_mtim.tv_sec, 1'000'000'000);
}

TEST(OpenKespReadOnly, GivesWayToWriting) {
  for (const bool append : {false, true}) {
    DataSet set(TwoFeatures({}));
    CKespFile file;
    CString message;
    CKespNote note;
    ASSERT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);
    file.AddNoteToWriteQueue(&note);
    const auto write = [&] {
      return append ? file.AppendToKespFileFromQueue(Text(set.path)) : file.OpenKesp(Text(set.path), message);
    };
    EXPECT_EQ(write(), ERR_FILE_EXCEPTION);  // somebody else writes it
    EXPECT_TRUE(append || message == CString(set.path.string() + ": The file is in use"));
    EXPECT_TRUE(file.m_pDataFile->IsOpen() && !file.m_pDataFile->m_file.IsWritable());
    ASSERT_TRUE(set.file.m_pDataFile->Close());
    EXPECT_EQ(write(), ERR_NONE);
    EXPECT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);  // and stays so
    EXPECT_TRUE(file.m_pDataFile->m_file.IsWritable());
    EXPECT_EQ(ReadFile(set.path), TwoFeatures({}) + (append ? Note("", 2) : ByteVector()));
  }
}

// Whatever call to the system fails: a deletion leaves each other record as it was, and this one old or new.
TEST(Deletion, LosesNothingWhenTheSystemFails) {
  bool struck = true;
  for (int at = 1; struck; ++at) {
    DataSet set(TwoFeatures({}));
    ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
    {
      FaultySystem system(at, FaultySystem::Fault::Error);
      Access::DeletePoint(set.file, set.Point(2));
      struck = system.Struck();
    }
    EXPECT_EQ(set.file.m_pointIndex.Find(2), nullptr);
    const ByteVector after = ReadFile(set.path);
    EXPECT_TRUE(after == TwoFeatures({3}) || (struck && after == TwoFeatures({}))) << at;
  }
}

// Whatever is asked of the memory: the point is still everywhere or nowhere.
TEST(Deletion, LosesNothingWhenMemoryRunsOut) {
  bool struck = true;
  for (int at = 1; struck; ++at) {
    DataSet set(TwoFeatures({}));
    ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
    CKespFeature* const feature = set.Feature(7);
    CKespPoint* const point = set.Point(2);
    const auto run = [&](auto operation) {
      try {
        const FaultyMemory memory(at);
        operation();
        struck = FaultyMemory::Struck();
        return false;
      } catch (const std::exception&) {
        return true;
      }
    };
    const bool threw = run([&] { Access::DeletePoint(set.file, point); });
    EXPECT_EQ(set.file.m_pointIndex.Find(2) != nullptr, threw);
    EXPECT_EQ(feature->GetNumPoints(), threw ? 3 : 2);
    EXPECT_EQ(set.file.m_numPoints, threw ? 4u : 3u);
    if (threw) Access::DeletePoint(set.file, point);  // another time
    EXPECT_EQ(Names(set.file.m_recordList), "H F7 A7:a P7/1 F8 P8/4 P7/3 A7:b E7");
    const bool goOn = threw || struck;
    (void)run([&] { set.file.DeleteFeatureAndAssociatedRec(feature); });
    struck = goOn;
    EXPECT_TRUE(set.file.m_pDataFile->m_flushEnabled);
  }
}

}  // namespace
