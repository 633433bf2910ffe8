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
  const std::initializer_list<ByteVector> rest = {Feature(7), Point(7, 1, {900000, 5, 6, "A1"}), Attribute(7, "a"),
                                                  Point(7, 2, {-7, -1, 2, "A2"}), Note("BMC:x")};
  ByteVector records;
  for (const ByteVector& record : rest) Append(records, record);
  const Header2 header{2, 1, 2, 3, 4, 0xF0};
  for (const bool valid : {true, false}) {
    for (const bool read : {true, false}) {
      DataSet set(Survey({header}) + records);
      if (read) {
        ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
      }
      const std::int64_t now = CTime::GetCurrentTime().GetTime();
      EXPECT_EQ(valid ? Update(set.file, 30, 40, 10, 20) : Update(set.file, 40, 30, 10, 20), ERR_NONE);

      ByteVector body = header.Body();
      Put(body, 0, 0xF1, 4);
      Put(body, 10, "four", 2);
      Put(body, 52, "two", 2);
      Put(body, 564, "three", 2);
      Put(body, 1076, "one", 2);
      Put(body, 1588, "six", 2);
      Put(body, 1844, "five", 2);
      const double extents[] = {valid ? 10.0 : 1, valid ? 20.0 : 2, valid ? 30.0 : 3, valid ? 40.0 : 4, -1, 5, 2, 6};
      for (std::size_t i = 0; i < 8; ++i) Put(body, 2872 + 8 * i, i < 4 || read ? extents[i] : 0);
      ByteVector after = ReadFile(set.path);
      if (read) {
        Put(body, 2936, 2, 4);
        Put(body, 2940, 1, 4);
        Put(body, 2948, static_cast<std::uint32_t>(-7), 4);
        Put(body, 2952, 900000, 4);
        Put(body, 2956, "A1", 2);
      } else {
        // A summary of nothing; the two times depend on now and on the time zone.
        std::uint32_t first = 0;
        for (std::size_t i = 4; i-- > 0;) first = first << 8 | after[64 + 2948 + i];
        EXPECT_NEAR(first, static_cast<double>(now + 864000000), 60);
        std::copy_n(after.begin() + 64 + 2948, 8, body.begin() + 2948);
      }
      Put(body, 2998, 1, 4);
      EXPECT_EQ(after, FileHeader() + Record(3, 2, 8, body) + records) << valid << read;
    }
  }
}

TEST(UpdateKespHeader, StoresTextAndExtentOfAnOldFileInItsNotes) {
  const ByteVector feature = Feature(7, "Oak", 0, 1);
  const ByteVector bmc = Note("BMC:old", 0, 1);
  const ByteVector zom = Note("ZOM:old", 0, 1);
  const ByteVector newBmc = Note("BMC:five", 8, 1);
  const ByteVector newZom = Note("ZOM:1.00000000,2.00000000,3.00000000,4.00000000", 8, 1);
  const struct {
    ByteVector before;
    ByteVector after;
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

TEST(UpdateKespHeader, WantsAHeaderFirst) {
  DataSet set(Survey({Note("x"), Header2{}}));
  EXPECT_EQ(Update(set.file, 0, 1, 0, 1), ERR_READ_FAILED);
  EXPECT_EQ(set.file.SetCleanKespClose(true), ERR_NONE);
  EXPECT_EQ(ReadFile(set.path), Survey({Note("x"), Header2{}}));
  set.file.CloseKesp();
  EXPECT_EQ(Update(set.file, 0, 1, 0, 1), ERR_FILE_NOT_OPEN);
  EXPECT_EQ(set.file.UpdateKespHeaderVersion1("a", CBoundingBox(0, 1, 0, 1)), ERR_NONE);
}

TEST(SetCleanKespClose, TouchesOneBitOfANewerHeader) {
  const auto marked = [](std::uint32_t status) {
    return Survey({Record(3, 2, 8, Header2{2, 0, 0, 0, 0, status}.Body())});
  };
  DataSet set(Survey({Header2{2, 0, 0, 0, 0, 0xF1}}));
  EXPECT_EQ(set.file.SetCleanKespClose(false), ERR_NONE);
  EXPECT_EQ(ReadFile(set.path), marked(0xF0));
  EXPECT_EQ(set.file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(ReadFile(set.path), marked(0xF1));
  EXPECT_EQ(set.file.SetCleanKespClose(false), ERR_SEEK_FAILED);

  DataSet old(Survey({Header1()}, 1));
  EXPECT_EQ(old.file.SetCleanKespClose(false), ERR_NONE);
  EXPECT_EQ(old.file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(ReadFile(old.path), Survey({Header1()}, 1));
  DataSet empty(Survey({}));
  EXPECT_EQ(empty.file.SetCleanKespClose(true), ERR_NONE);
}

// A feature with three points, two attributes and an end, and another with one point.
std::vector<ByteVector> TwoFeatures(std::uint32_t flagsOf3Points, std::uint32_t flagsOfAttributes) {
  const std::uint32_t p = flagsOf3Points;
  const std::uint32_t a = flagsOfAttributes;
  return {FileHeader(),
          Header2{},
          Feature(7),
          Attribute(7, "a", "", a),
          Point(7, 1, {}, p),
          Point(7, 2, {}, p),
          Feature(8),
          Point(8, 4, {}, 0),
          Point(7, 3, {}, p),
          Attribute(7, "b", "", a),
          End(7)};
}
ByteVector Joined(const std::vector<ByteVector>& parts) {
  ByteVector all;
  for (const ByteVector& part : parts) Append(all, part);
  return all;
}
constexpr std::uint32_t kDeleted = 0x5;

TEST(Deletion, MarksThePointsAndAttributesOfAFeature) {
  DataSet set(Joined(TwoFeatures(0, 0)));
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  CKespFeature* const feature = set.Feature(7);
  EXPECT_EQ(set.file.DeleteFeatureAndAssociatedRec(nullptr), ERR_NONE);
  EXPECT_EQ(set.file.DeleteFeatureAndAssociatedRec(feature), ERR_NONE);
  EXPECT_EQ(ReadFile(set.path), Joined(TwoFeatures(kDeleted, kDeleted)));
  EXPECT_EQ(FeatureOrder(set.file), "F8");
  EXPECT_EQ(set.file.m_numPoints, 1u);
  EXPECT_TRUE(set.file.m_pDataFile->m_flushEnabled);
  // All of it stays in memory, marked.
  EXPECT_EQ(Names(set.file.m_recordList), "H F7 A7:a P7/1 P7/2 F8 P8/4 P7/3 A7:b E7");
  EXPECT_TRUE(feature->IsDeleted() && feature->GetFeatureEnd()->IsDeleted() && set.Point(3)->IsDeleted());
  EXPECT_EQ(feature->GetNumPoints(), 3);

  EXPECT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  EXPECT_EQ(Names(set.file.m_recordList), "H F7 F8 P8/4 E7");
  EXPECT_EQ(set.file.ValidateKesp(), ERR_BAD_FEATURE);
}

TEST(Deletion, OfAPointAsksForMembershipOrNot) {
  std::vector<ByteVector> onePointGone = TwoFeatures(0, 0);
  onePointGone[5] = Point(7, 2, {}, kDeleted);
  std::vector<ByteVector> featureGone = TwoFeatures(0, 0);
  featureGone[7] = Point(8, 4, {}, kDeleted);
  for (const bool inFeature : {false, true}) {
    DataSet set(Joined(TwoFeatures(0, 0)));
    CKespFile& file = set.file;
    ASSERT_EQ(file.ReadKespFile(false), ERR_NONE);
    CKespFeature* const seven = set.Feature(7);
    CKespFeature* const eight = set.Feature(8);
    EXPECT_EQ(Access::DeletePointInFeature(file, nullptr, seven), 0);
    EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(1), nullptr), 0);
    Access::DeletePoint(file, nullptr);

    CKespPoint same(*set.Point(2));  // equal, and not the one
    CKespPoint stray(*set.Point(4));
    CKespPoint lost;
    EXPECT_EQ(Access::DeletePointInFeature(file, &same, seven), 0);
    EXPECT_EQ(Access::DeletePointInFeature(file, &stray, eight), 0);
    Access::DeletePoint(file, &same);
    Access::DeletePoint(file, &lost);
    EXPECT_EQ(ReadFile(set.path), Joined(TwoFeatures(0, 0)));

    CKespPoint* const point = set.Point(2);
    if (inFeature) {
      EXPECT_EQ(Access::DeletePointInFeature(file, point, seven), 2);
    } else {
      Access::DeletePoint(file, point);
    }
    EXPECT_EQ(ReadFile(set.path), Joined(onePointGone));
    EXPECT_EQ(file.m_pointIndex.Find(2), nullptr);
    EXPECT_EQ(Names(file.m_recordList), "H F7 A7:a P7/1 F8 P8/4 P7/3 A7:b E7");
    EXPECT_EQ(Names(std::vector{seven->GetPoint(0), seven->GetPoint(1), seven->GetPoint(2)}), "P7/1 P7/3 null");
    EXPECT_EQ(file.m_numPoints, 3u);

    featureGone[5] = onePointGone[5];
    if (inFeature) {
      EXPECT_EQ(Access::DeletePointInFeature(file, set.Point(4), eight), 1);
    } else {
      Access::DeletePoint(file, &stray);  // takes the one-point feature of its number with it
      EXPECT_FALSE(stray.IsDeleted());
    }
    EXPECT_EQ(ReadFile(set.path), Joined(featureGone));
    EXPECT_EQ(FeatureOrder(file), "F7");
    EXPECT_TRUE(set.Point(4)->IsDeleted());  // alive
    EXPECT_EQ(file.m_numPoints, 2u);

    EXPECT_EQ(file.DeleteRecord(set.Point(1)), ERR_NONE);  // in memory only
    EXPECT_EQ(file.DeleteRecord(nullptr), ERR_NONE);
    EXPECT_EQ(set.Point(1)->m_flags, kDeleted);
    EXPECT_EQ(ReadFile(set.path), Joined(featureGone));
  }
}

TEST(Deletion, FindsThePointThatMovedOrIsGone) {
  DataSet set(Joined(TwoFeatures(0, 0)));
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  set.Point(2)->m_filePosition = static_cast<std::uint32_t>(ReadFile(set.path).size());
  set.Point(3)->PointNumber = 99;  // there is none of that number on disk
  Access::DeletePoint(set.file, set.Point(2));
  Access::DeletePoint(set.file, set.Point(3));
  std::vector<ByteVector> expected = TwoFeatures(0, 0);
  expected[5] = Point(7, 2, {}, kDeleted);
  EXPECT_EQ(ReadFile(set.path), Joined(expected));
}

TEST(ValidateKesp, OpensAndClosesWhatWasClosed) {
  const ByteVector good = Survey({Header2{}, Feature(7), Point(7, 1)});
  ByteVector marked = Survey({Record(3, 2, 8, Header2{2, 0, 0, 0, 0, 1}.Body()), Feature(7), Point(7, 1)});
  const struct {
    ByteVector before;
    ErrorEnum result;
    ByteVector after;
  } rows[] = {{good, ERR_NONE, marked},
              {good + Feature(8), ERR_BAD_FEATURE, marked + Feature(8)},
              {good + Hex("01"), ERR_READ_FAILED, marked + Hex("01")},
              {Survey({}), ERR_NO_HEADER, Survey({})},
              {Hex("'Corvanthe'"), ERR_FILE_NOT_OPEN, Hex("'Corvanthe'")}};
  for (const auto& row : rows) {
    TempDir dir;
    CKespFile file;
    CString message = u"kept";
    WriteFile(dir / "f", row.before);
    EXPECT_EQ(file.ValidateKesp(), ERR_FILE_NOT_OPEN);
    EXPECT_EQ(file.ValidateKesp(Text(dir / "f"), message), row.result);
    EXPECT_EQ(message, CString(u"kept"));
    EXPECT_FALSE(file.m_pDataFile->IsOpen());
    EXPECT_EQ(ReadFile(dir / "f"), row.after) << row.result;
    EXPECT_EQ(file.ValidateKesp(Text(dir / "missing"), message), ERR_FILE_NOT_FOUND);
    if (row.result == ERR_FILE_NOT_OPEN) continue;

    WriteFile(dir / "f", row.before);
    WriteFile(dir / "other", good);
    ASSERT_EQ(file.OpenKesp(Text(dir / "f"), message), ERR_NONE);
    EXPECT_EQ(file.ValidateKesp(), row.result);
    EXPECT_EQ(file.ValidateKesp(Text(dir / "f"), message), row.result);
    EXPECT_EQ(file.ValidateKesp(Text(dir / "other"), message), ERR_OTHER_FILE_OPEN);
    EXPECT_TRUE(file.m_pDataFile->IsOpen());
    EXPECT_EQ(ReadFile(dir / "f"), row.before);
    EXPECT_EQ(ReadFile(dir / "other"), good);
  }
}

TEST(OpenKespReadOnly, ChangesNothing) {
  DataSet set(Joined(TwoFeatures(0, 0)));
  ASSERT_EQ(set.file.CloseKesp(), ERR_NONE);
  const ByteVector before = ReadFile(set.path);
  const timespec old[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, set.path.c_str(), old, 0), 0);
  CKespFile file;
  CString message;
  ASSERT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);
  EXPECT_EQ(file.ReadKespFile(false), ERR_NONE);
  EXPECT_EQ(file.ValidateKesp(), ERR_NONE);
  int count = 0;
  ErrorEnum error = ERR_MEMORY;
  CKespRecord** const all = file.GetRecordsWhereFlags(LOGIC_NONE, 1, count, error);
  EXPECT_EQ(Names(all, count), "H F7 A7:a P7/1 P7/2 F8 P8/4 P7/3 A7:b E7");
  CKespPoint* point = nullptr;
  EXPECT_EQ(file.GetPoint(2, point), ERR_NONE);
  EXPECT_EQ(Update(file, 0, 1, 0, 1), ERR_NONE);
  Access::DeletePoint(file, point);
  EXPECT_EQ(file.DeleteFeatureAndAssociatedRec(*file.m_featureIndex.Find(8)), ERR_NONE);
  EXPECT_EQ(file.m_pDataFile->GetSystemError(), EBADF);  // which is how it shows
  CString unused;
  EXPECT_EQ(file.ValidateKesp(Text(set.path), unused), ERR_NONE);
  EXPECT_FALSE(file.m_pDataFile->m_file.IsWritable());
  EXPECT_EQ(file.CloseKesp(), ERR_NONE);
  EXPECT_FALSE(file.m_pDataFile->IsOpen());
  EXPECT_EQ(ReadFile(set.path), before);
  struct stat info {};
  ::stat(set.path.c_str(), &info);
  EXPECT_EQ(info.st_mtim.tv_sec, 1'000'000'000);
}

// Whatever call to the system fails: a deletion leaves each other record as it was, and this one old or new.
TEST(Deletion, LosesNothingWhenTheSystemFails) {
  for (int at = 1;; ++at) {
    DataSet set(Joined(TwoFeatures(0, 0)));
    ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
    bool struck = false;
    {
      FaultySystem system(at, FaultySystem::Fault::Error);
      Access::DeletePoint(set.file, set.Point(2));
      struck = system.Struck();
    }
    EXPECT_EQ(set.file.m_pointIndex.Find(2), nullptr);
    std::vector<ByteVector> gone = TwoFeatures(0, 0);
    gone[5] = Point(7, 2, {}, kDeleted);
    const ByteVector after = ReadFile(set.path);
    EXPECT_TRUE(after == Joined(gone) || (struck && after == Joined(TwoFeatures(0, 0)))) << at;
    if (!struck) break;
  }
}

TEST(OpenKespReadOnly, GivesWayToWriting) {
  for (const bool append : {false, true}) {
    DataSet set(Joined(TwoFeatures(0, 0)));
    CKespFile file;
    CString message;
    ASSERT_EQ(file.OpenKespReadOnly(Text(set.path), message), ERR_NONE);
    ASSERT_EQ(file.ReadKespFile(false), ERR_NONE);
    file.ClearQueueWithoutWriting();
    CKespNote note;
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
    EXPECT_EQ(ReadFile(set.path), Joined(TwoFeatures(0, 0)) + (append ? Note("", 2) : ByteVector()));
  }
}

// Whatever is asked of the memory: the point is still everywhere or nowhere.
TEST(Deletion, LosesNothingWhenMemoryRunsOut) {
  for (int at = 1;; ++at) {
    DataSet set(Joined(TwoFeatures(0, 0)));
    ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
    CKespFeature* const feature = set.Feature(7);
    CKespPoint* const point = set.Point(2);
    bool threw = false;
    bool struck = false;
    try {
      const FaultyMemory memory(at);
      Access::DeletePoint(set.file, point);
      struck = FaultyMemory::Struck();
    } catch (const std::bad_alloc&) {
      threw = true;
    } catch (const CMemoryException&) {
      threw = true;
    }
    EXPECT_EQ(set.file.m_pointIndex.Find(2) != nullptr, threw);
    EXPECT_EQ(feature->GetNumPoints(), threw ? 3 : 2);
    EXPECT_EQ(set.file.m_numPoints, threw ? 4u : 3u);
    EXPECT_EQ(Names(set.file.m_recordList).find("P7/2") != std::string::npos, threw);
    if (!threw && !struck) break;
    ASSERT_LT(at, 100);
    if (threw) Access::DeletePoint(set.file, point);  // another time
    EXPECT_EQ(Names(set.file.m_recordList), "H F7 A7:a P7/1 F8 P8/4 P7/3 A7:b E7");
    try {
      const FaultyMemory memory(at);
      set.file.DeleteFeatureAndAssociatedRec(feature);
    } catch (const std::exception&) {
    }
    EXPECT_TRUE(set.file.m_pDataFile->m_flushEnabled);
  }
}

}  // namespace
