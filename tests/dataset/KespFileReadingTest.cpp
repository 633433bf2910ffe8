#include "tests/dataset/DataSet.h"

using namespace kesp::test;

namespace {

ByteVector Join(std::initializer_list<ByteVector> parts) {
  ByteVector all;
  for (const ByteVector& part : parts) Append(all, part);
  return all;
}
const ByteVector kCut = Hex("01 00 00 00 03");  // of a record header

TEST(ReadKespFile, FilesWhatItFinds) {
  const ByteVector h = Header2{};
  const struct {
    const char* name;
    ByteVector bytes;
    ErrorEnum result;
    std::string records;
    std::uint32_t numPoints = 0;
    std::uint32_t kespVersion = 2;
    bool deleted = false;
  } rows[] = {
      {"no record", Survey({}), ERR_NO_HEADER, "", 0, 0},
      {"a note first", Survey({Note("rain"), h}), ERR_NO_HEADER, "", 0, 0},
      {"a deleted header", Survey({Record(3, 2, 1, Header2{}.Body()), Note("rain")}), ERR_NO_HEADER, "", 0, 0},
      {"a deleted header, asked for", Survey({Record(3, 2, 1, Header2{}.Body())}), ERR_NONE, "H", 0, 2, true},
      {"a cut header", Survey({kCut}), ERR_NO_HEADER, "", 0, 0},
      {"a header", Survey({h}), ERR_NONE, "H"},
      {"damage right behind the header", Survey({h, kCut}), ERR_NONE, "H"},
      {"damage later", Survey({h, Feature(7), Point(7, 1), kCut}), ERR_READ_FAILED, "H F7 P7/1"},
      {"damage behind what is dropped", Survey({h, Point(7, 1), kCut}), ERR_READ_FAILED, "H"},
      {"a feature of every kind of record",
       Survey({h, Feature(7), Attribute(7, "Girth"), Point(7, 1), Point(7, 2), End(7), Note("rain")}), ERR_NONE,
       "H F7 A7:Girth P7/1 P7/2 E7 N:rain", 2, 3},
      {"orphans and a second header",
       Survey({h, Point(7, 1), Attribute(7, "Girth"), End(7), Feature(7), Point(8, 2), h, Point(7, 3)}), ERR_NONE,
       "H F7 P7/3", 1, 3},
      {"unassigned and unknown types", Survey({h, Record(7, 1, 0, {1}), Record(77, 9, 0, {1, 2}), Note("rain")}),
       ERR_NONE, "H N:rain"},
      {"deleted ones", Survey({h, Feature(7), Point(7, 1, {}, 5), Note("rain", 1), Point(7, 2)}), ERR_NONE, "H F7 P7/2",
       1},
      {"deleted ones, asked for", Survey({h, Feature(7), Point(7, 1, {}, 5), Note("rain", 1), Point(7, 2)}), ERR_NONE,
       "H F7 P7/1 N:rain P7/2", 2, 2, true},
      {"a deleted feature leaves orphans", Survey({h, Feature(7, "Oak", 1), Point(7, 1)}), ERR_NONE, "H"},
      {"version 1 through and through",
       Survey({Header1(), Feature(7, "Oak", 0, 1), Point(7, 1, {}, 0, 1), Attribute(7, "a", "", 0, 1), End(7)}, 1),
       ERR_OLD_VERSION, "H F7 P7/1 A7:a E7", 0, 1},
      {"version 1 without features", Survey({Header1(), Note("rain", 0, 1)}, 1), ERR_NONE, "H N:rain", 0, 1},
      {"version 1 and a newer point", Survey({Header1(), Feature(7, "Oak", 0, 1), Point(7, 1)}, 1), ERR_NONE,
       "H F7 P7/1", 1},
      {"version 1 and a newer orphan", Survey({Header1(), Feature(7, "Oak", 0, 1), Attribute(9, "a")}, 1), ERR_NONE,
       "H F7", 0, 3},
      {"the header's own version is the least", Survey({Header2{3}, Feature(7)}), ERR_NONE, "H F7", 0, 3},
      {"damage behind a version-1 header", Survey({Header1(), kCut}, 1), ERR_BAD_VERSION1_HEADER, "H", 0, 1},
      {"damage behind its note", Survey({Header1(), Note("BMC:x"), kCut}, 1), ERR_BAD_VERSION1_HEADER, "H", 0, 1},
      {"damage behind both", Survey({Header1(), Note("ZOM:1"), kCut}, 1), ERR_BAD_VERSION1_HEADER, "H", 0, 1},
  };
  for (const auto& row : rows) {
    DataSet set(row.bytes);
    EXPECT_EQ(set.file.ReadKespFile(row.deleted), row.result) << row.name;
    EXPECT_EQ(Names(set.file.m_recordList), row.records) << row.name;
    EXPECT_EQ(set.file.m_numPoints, row.numPoints) << row.name;
    EXPECT_EQ(set.file.m_kespVersion, row.kespVersion) << row.name;
    EXPECT_TRUE(set.file.m_pDataFile->IsOpen()) << row.name;
    EXPECT_EQ(ReadFile(set.path), row.bytes) << row.name;
    // A second time over: nothing is merged.
    EXPECT_EQ(set.file.ReadKespFile(row.deleted), row.result) << row.name;
    EXPECT_EQ(Names(set.file.m_recordList), row.records) << row.name;
  }
}

TEST(ReadKespFile, TakesTheExtentOfANewerHeader) {
  const struct {
    Header2 header;
    bool valid;
  } rows[] = {{{2, 1, 2, 3, 4}, true},
              {{2, 1, 1, 3, 4}, false},
              {{2, 0, 1e-7, 3, 4}, false},
              {{2, 0, 1.1e-7, 0, 1.1e-7}, true},
              {{2, 1, 2, 3, 3}, false}};
  for (const auto& row : rows) {
    DataSet set(Survey({row.header}));
    EXPECT_EQ(set.file.ReadKespFile(false), ERR_NONE);
    EXPECT_EQ(set.file.m_extent.IsValid(), row.valid) << row.header.maxX << ' ' << row.header.maxY;
    EXPECT_EQ(set.file.m_extent.MaxY(), row.valid ? row.header.maxY : 0);
  }
}

TEST(ReadKespFile, TakesTheNotesBehindAVersion1Header) {
  const struct {
    std::initializer_list<const char*> notes;
    const char* bmc;
    std::vector<double> extent;  // empty: invalid
    const char* left;
  } rows[] = {{{}, "", {}, "H"},
              {{"BMC:job 5", "ZOM:1.5,2.5,-3,4e1"}, "job 5", {1.5, 2.5, -3, 40}, "H"},
              {{"ZOM:1,2,3,4", "BMC:x"}, "", {1, 2, 3, 4}, "H N:BMC:x"},
              {{"BMC:a", "BMC:b", "ZOM:1,2,3,4"}, "a", {}, "H N:BMC:b N:ZOM:1,2,3,4"},
              {{"BMC:", "ZOM:0,10,0,5", "ZOM:1,2,3,4"}, "", {0, 10, 0, 5}, "H N:ZOM:1,2,3,4"},
              {{"bmc:a"}, "", {}, "H N:bmc:a"},
              {{"BMC:a", "Zom:1,2,3,4"}, "a", {}, "H N:Zom:1,2,3,4"},
              {{"BMC", "ZOM:0,1,0,1"}, "", {}, "H N:BMC N:ZOM:0,1,0,1"},
              {{"ZOM:1,1,0,5"}, "", {}, "H"},
              {{"ZOM:-5,7,-9"}, "", {-5, 7, -9, 0}, "H"},
              {{"ZOM:-5"}, "", {}, "H"},
              {{"ZOM:"}, "", {}, "H"},
              {{"ZOM: 1 ,\t2x,x,.5,9"}, "", {1, 2, 0, .5}, "H"},
              {{"ZOM:,1,,1"}, "", {0, 1, 0, 1}, "H"},
              {{"rain", "BMC:a"}, "", {}, "H N:rain N:BMC:a"}};
  for (const auto& row : rows) {
    for (const bool more : {false, true}) {
      ByteVector bytes = Survey({Header1()}, 1);
      Append(bytes, Note("BMC:deleted", 1, 1));  // passed over
      for (const char* note : row.notes) Append(bytes, Note(note, 0, 1));
      if (more) Append(bytes, Note("end", 0, 1));
      DataSet set(bytes);
      EXPECT_EQ(set.file.ReadKespFile(true), ERR_NONE);
      EXPECT_EQ(*set.file.m_pBmcText, CString("deleted"));  // the first there is, when deleted ones are asked for
      EXPECT_EQ(set.file.ReadKespFile(false), ERR_NONE);
      EXPECT_EQ(*set.file.m_pBmcText, CString(row.bmc)) << row.left;
      std::vector<double> extent(4);
      set.file.m_extent.Get(extent[0], extent[1], extent[2], extent[3]);
      EXPECT_EQ(set.file.m_extent.IsValid(), !row.extent.empty()) << row.left;
      EXPECT_EQ(extent, row.extent.empty() ? std::vector<double>(4) : row.extent);
      EXPECT_EQ(Names(set.file.m_recordList), row.left + std::string(more ? " N:end" : ""));
    }
  }
}

TEST(ReadKespFile, GivesEachRecordToTheLatestFeatureOfItsNumber) {
  DataSet set(Survey({Header2{}, Feature(7, "Oak"), Point(7, 1, {}, 0x2), End(7), Feature(8), Feature(7, "Elm"),
                      Point(7, 1), Point(7, 2), Point(9, 2), End(7), End(7), Attribute(7, "a", "", 0x8), Point(8, 3)}));
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  EXPECT_EQ(Names(set.file.m_recordList), "H F7 P7/1 E7 F8 F7 P7/1 P7/2 E7 E7 A7:a P8/3");
  EXPECT_EQ(FeatureOrder(set.file), "F8 F7");
  std::vector<CKespRecord*> list(set.file.m_recordList.begin(), set.file.m_recordList.end());
  auto* const first = static_cast<CKespFeature*>(list[1]);
  auto* const second = static_cast<CKespFeature*>(list[5]);
  EXPECT_EQ(set.Feature(7), second);
  EXPECT_EQ(first->GetNumPoints(), 1);
  EXPECT_EQ(first->m_flags, 0u);  // handed up to the one in the index only
  EXPECT_EQ(second->m_flags, 0x8u);
  EXPECT_EQ(first->GetFeatureEnd(), list[3]);
  EXPECT_EQ(second->GetNumPoints(), 2);
  EXPECT_EQ(second->GetFeatureEnd(), list[9]);  // the later one
  EXPECT_EQ(set.Point(1), list[6]);
  EXPECT_EQ(set.Point(2), list[7]);     // the orphan of the same number left it there
  EXPECT_EQ(set.file.m_numPoints, 3u);  // of the features in the index
}

TEST(ReadKespFile, ClearsOffsetsAndKeepsTheSpanOfTimes) {
  ByteVector point = Point(7, 1, {-5});
  Put(point, 14 + 90, 1, 2);
  Put(point, 14 + 92, 2.5);
  Put(point, 14 + 100, 3.5);
  DataSet set(Survey({Header2{}, Feature(7), point, Point(7, 2, {900}), Point(7, 4, {100}), Point(8, 3, {2000})}));
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  double a = 1;
  double b = 1;
  EXPECT_FALSE(set.Point(1)->GetOffset(a, b));
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
  EXPECT_EQ(set.file.m_firstPointTime.GetTime(), -5);
  EXPECT_EQ(set.file.m_lastPointTime.GetTime(), 900);
  ASSERT_EQ(set.file.m_pDataFile->Close(), true);
  WriteFile(set.path, Survey({Header2{}}));
  CString message;
  ASSERT_EQ(set.file.OpenKesp(Text(set.path), message), ERR_NONE);
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  EXPECT_GT(set.file.m_firstPointTime.GetTime(), 1'500'000'000);  // now
  EXPECT_EQ(set.file.m_lastPointTime.GetTime(), 0);
}

TEST(ReadKespFile, InterpretsTags) {
  const ByteVector shortPayload = Words({3});
  DataSet set(Survey({Header2{}, Tag(7, "mark", Words({4, 5, 0x10, 6})), Tag(7, "again", Words({8, 9, 0x10, 6})),
                      Tag(7, "other second part", Words({1, 2, 0x10, 7})), Tag(7, "short", Words({1, 2, 3})),
                      Tag(9, "", Floats({3, 1, 1, 1, 1})), Tag(11, "", Floats({3, 1, 1, 1, 1, 2})),
                      Tag(9, "", Floats({4, 1, 1, 1, 1})), Tag(9, "", shortPayload),
                      Tag(10, "", Words({4, 1, 9, 2, 3, 6})), Tag(10, "", Words({4, 1, 4, 2, 3, 6})),
                      Tag(10, "", shortPayload), Tag(13, "FEATUREchanges", Words({4, 8})),
                      Tag(13, "Feature Changes", Words({5, 8})), Tag(3, "string", Hex("\"v\" 00 00")), Note("rain")}));
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  const CKespFile& file = set.file;
  const auto& tags = file.m_tagList;
  ASSERT_EQ(Names(tags), "T7 T7 T7 T7 T9 T11 T9 T9 T10 T10 T10 T13 T13 T3");

  EXPECT_EQ(file.m_gpsMarkIndex.GetCount(), 2);
  const CKespFeaturePtPair* const mark = file.m_gpsMarkIndex.Find(CGPSTime(0x10, 6));
  ASSERT_NE(mark, nullptr);
  EXPECT_EQ(mark->FeatureNumber, 8u);  // the later one
  EXPECT_EQ(mark->PointNumber, 9u);
  EXPECT_EQ(file.m_gpsMarkIndex.Find(CGPSTime(0x10, 7))->PointNumber, 2u);

  EXPECT_EQ(file.m_qualityMarkIndex.GetCount(), 3);
  EXPECT_EQ(*file.m_qualityMarkIndex.Find(3), tags[5]);  // both kinds share the index
  EXPECT_EQ(*file.m_qualityMarkIndex.Find(4), tags[6]);
  EXPECT_EQ(*file.m_qualityMarkIndex.Find(0), tags[7]);  // one that can't be read

  ASSERT_EQ(file.m_featureLinks.size(), 2u);
  CKespLinkList* const four = *file.m_linkListIndex.Find(4);
  CKespLinkList* const nine = *file.m_linkListIndex.Find(9);
  EXPECT_EQ(file.m_linkListIndex.GetCount(), 2);
  EXPECT_EQ(four->m_links, (std::vector{file.m_featureLinks[0], file.m_featureLinks[1], file.m_featureLinks[1]}));
  EXPECT_EQ(nine->m_links, (std::vector{file.m_featureLinks[0]}));
  const CKespFeatureLink& link = *file.m_featureLinks[0];
  EXPECT_EQ(link.m_spare, 6u);
  EXPECT_EQ(link.m_tagRecordPosition, tags[8]->m_filePosition);

  EXPECT_EQ(file.m_featureChangesIndex.GetCount(), 1);
  EXPECT_EQ(*file.m_featureChangesIndex.Find(4), tags[11]);
}

TEST(ReadKespFile, HandsFlagsUpOneByOne) {
  const ByteVector changes = Tag(13, "FeatureChanges", Words({7, 0x2}));
  const auto attribute = [](std::uint32_t flags) { return Attribute(7, "a", "", flags); };
  const auto point = [](std::uint32_t flags) { return Point(7, 1, {}, flags); };
  const struct {
    const char* name;
    ByteVector records;
    std::uint32_t flags;
  } rows[] = {
      {"none", Feature(7), 0},
      {"its own, made canonical", Feature(7, "Oak", 0x100), 0x108},
      {"A and B, which come back as A", Feature(7, "Oak", 0x860), 0x18A0},
      {"the same from the tag", Feature(7) + Tag(13, "FeatureChanges", Words({7, 0x860})), 0x18A0},
      {"a child's", Join({Feature(7), point(0x8)}), 0x8},
      {"the children's deletion stays theirs", Join({Feature(7), attribute(0x15), point(0x5)}), 0},
      {"a deletion and a change", Join({Feature(7), attribute(0x25)}), 0},
      {"A and B join", Join({Feature(7), attribute(0x20), point(0x40)}), 0x1080},
      {"the tag, wherever it stands", Join({changes, Feature(7)}), 0x2},
      {"the tag goes first", Join({Feature(7, "Oak", 0x5), attribute(0x8), changes}), 0x9},
      {"the tag of a feature that is not there", Join({Tag(13, "FeatureChanges", Words({8, 2})), Feature(7)}), 0},
      {"added, then changed", Join({Feature(7, "Oak", 0x5), attribute(0x2), attribute(0x8)}), 0x9},
      {"changed, then added", Join({Feature(7, "Oak", 0x5), attribute(0x8), attribute(0x2)}), 0x1},
      {"attributes before points", Join({Feature(7, "Oak", 0x5), point(0x8), attribute(0x2)}), 0x9},
      {"a feature end has no say", Join({Feature(7), End(7, 0x8)}), 0}};
  for (const auto& row : rows) {
    DataSet set(Survey({Header2{}, row.records}));
    ASSERT_EQ(set.file.ReadKespFile(true), ERR_NONE) << row.name;
    EXPECT_EQ(set.file.GetSrcCtrlFlagsForFeat(7), row.flags) << row.name;
    set.file.PropigateSourceCtrlFlagsToFeatures();  // the plain walk over all comes to the same
    DataSet fresh(Survey({Header2{}, row.records, kCut}));
    ASSERT_EQ(fresh.file.ReadKespFile(true), ERR_READ_FAILED) << row.name;  // nothing handed up yet
    fresh.file.PropigateSourceCtrlFlagsToFeatures();
    EXPECT_EQ(fresh.file.GetSrcCtrlFlagsForFeat(7), row.flags) << row.name;
  }
  CKespFile empty;
  EXPECT_EQ(empty.GetSrcCtrlFlagsForFeat(7), 0xFFFFFFFFu);
}

TEST(OpenKesp, AnswersByWhatIsThere) {
  DataSet set(Survey({Header2{}}));
  WriteFile(set.dir / "refused", Hex("'Corvanthe'"));
  CString message = u"old";
  EXPECT_EQ(set.file.OpenKesp(Text(set.dir / "missing"), message), ERR_FILE_NOT_FOUND);
  EXPECT_TRUE(message.IsEmpty());
  EXPECT_EQ(set.file.OpenKesp(Text(set.dir / "refused"), message), ERR_OTHER_FILE_OPEN);
  EXPECT_EQ(message, CString(u"Please close the already open file."));
  EXPECT_EQ(set.file.OpenKesp(Text(set.path), message), ERR_NONE);
  EXPECT_TRUE(message.IsEmpty());
  set.file.m_pDataFile->m_path.MakeUpper();
  EXPECT_EQ(set.file.OpenKesp(Text(set.path), message), ERR_NONE);  // whatever the letter case
  EXPECT_EQ(set.file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(set.file.CloseKesp(), ERR_NONE);

  std::uint32_t version = 9;
  EXPECT_EQ(set.file.OpenKesp(Text(set.dir / "refused"), message), ERR_NONE);
  EXPECT_EQ(set.file.ReadKespFile(false), ERR_FILE_NOT_OPEN);
  EXPECT_EQ(set.file.GetKespVersion(version), ERR_FILE_NOT_OPEN);
  EXPECT_EQ(version, 9u);

  delete std::exchange(set.file.m_pDataFile, nullptr);
  CKespFeature* feature = nullptr;
  CKespPoint* point = nullptr;
  EXPECT_EQ(set.file.OpenKesp(Text(set.dir / "missing"), message), ERR_FILE_NOT_FOUND);
  EXPECT_EQ(set.file.OpenKesp(Text(set.path), message), ERR_MEMORY);
  EXPECT_EQ(message, CString(u"Memory allocation failed. Free some memory and try again."));
  for (const ErrorEnum result :
       {set.file.CloseKesp(), set.file.ReadKespFile(false), set.file.GetKespVersion(version), set.file.ValidateKesp(),
        set.file.ValidateKesp(Text(set.path), message), set.file.SetCleanKespClose(true),
        set.file.UpdateKespHeader("", "", "", "", "", "", 0, 1, 0, 1, true), set.file.GetPoint(1, point),
        set.file.GetFeature(1, feature), set.file.AppendToKespFileFromQueue(Text(set.path))}) {
    EXPECT_EQ(result, ERR_MEMORY);
  }
}

TEST(GetKespVersion, AsksTheHeaderOnDisk) {
  const struct {
    ByteVector bytes;
    ErrorEnum result;
    std::uint32_t version;
  } rows[] = {{Survey({Header2{3}}), ERR_NONE, 3},
              {Survey({Header1()}, 1), ERR_NONE, 1},
              {Survey({Note("x"), Header2{}}), ERR_READ_FAILED, 9},
              {Survey({Note("x", 1), Header2{}}), ERR_NONE, 2},
              {Survey({}), ERR_READ_FAILED, 9}};
  for (const auto& row : rows) {
    DataSet set(row.bytes);
    std::uint32_t version = 9;
    EXPECT_EQ(set.file.GetKespVersion(version), row.result);
    EXPECT_EQ(version, row.version);
  }
}

// The body of the feature is shorter than its layout, and ends with the file.
TEST(ReadKespFile, KeepsWhatItHasWhenAnOldFeatureIsCutShort) {
  DataSet set(Survey({Header2{}, Feature(7), Point(7, 1), Note("rain"), Record(1, 1, 0, ByteVector(20))}));
  EXPECT_THROW((void)set.file.ReadKespFile(false), CFileException);
  EXPECT_EQ(Names(set.file.m_recordList), "H F7 P7/1 N:rain");
  CKespPoint* point = nullptr;
  EXPECT_EQ(set.file.GetPoint(1, point), ERR_NONE);
  EXPECT_EQ(set.file.CloseKesp(), ERR_NONE);
  WriteFile(set.path, Survey({Header2{}, Note("sun")}));
  CString message;
  EXPECT_EQ(set.file.OpenKesp(Text(set.path), message), ERR_NONE);
  EXPECT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  EXPECT_EQ(Names(set.file.m_recordList), "H N:sun");
}

}  // namespace
