#include <set>

#include "tests/dataset/DataSet.h"
#include "tests/support/MemorySource.h"

using namespace kesp::test;

namespace {

// Its body would end 10 bytes after 4 GiB: the sum passes for a small one.
const ByteVector kWrapping = WithLength(Record(200, 1, 0, {}), 10u - (50 + 4100 + 14));
const ByteVector kCut = Hex("01 00 00 00 03");  // of a record header
const ByteVector kBroken = Hex("00*14");

TEST(ReadKespFile, ReadsASourceThatNoPathNames) {
  const DataSet other(FileHeader());
  CKespFile file;
  CString message;
  const auto open = [&](const ByteVector& bytes) {
    return file.OpenKespReadOnly(std::make_unique<MemorySource>(bytes), Text(other.path), message);
  };
  EXPECT_EQ(file.OpenKespReadOnly(nullptr, u"a", message), ERR_FILE_NOT_FOUND);
  EXPECT_EQ(open(Hex("00")), ERR_NONE);
  EXPECT_EQ(file.ReadKespFile(false), ERR_FILE_NOT_OPEN);
  ASSERT_EQ(open(Survey({Header2{3}, Feature(7), Point(7, 1), EndOf(7)})), ERR_NONE);
  EXPECT_EQ(file.ValidateKesp(), ERR_NONE);
  EXPECT_EQ(Names(file.m_recordList), "H F7 P7/1 E7");
  EXPECT_EQ(file.CountQueuedFromOpenFile(), 4);

  for (const CString& name : {Text(other.path), Text(other.dir / "none")}) {
    const ErrorEnum notThis = name == Text(other.path) ? ERR_OTHER_FILE_OPEN : ERR_FILE_NOT_FOUND;
    EXPECT_EQ(file.OpenKesp(name, message), notThis);
    EXPECT_EQ(file.OpenKespReadOnly(name, message), notThis);
    EXPECT_EQ(file.AppendToKespFileFromQueue(name), ERR_OTHER_FILE_OPEN);
    EXPECT_EQ(file.ValidateKesp(name, message), ERR_OTHER_FILE_OPEN);
  }
  EXPECT_EQ(open(FileHeader()), ERR_OTHER_FILE_OPEN);
  EXPECT_EQ(file.m_pDataFile->GetSystemError(), 0);
  (void)file.SetCleanKespClose(true);
  EXPECT_EQ(file.m_pDataFile->GetSystemError(), EBADF);
  EXPECT_EQ(file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(file.CountQueuedFromOpenFile(), 0);
  ASSERT_EQ(open(Survey({Header2{3}})), ERR_NONE);
  EXPECT_EQ(file.CountQueuedFromOpenFile(), 0) << "of another source";
}

TEST(ReadKespFile, FilesWhatItFinds) {
  const ByteVector h = Header2{}, oldFeature = Feature(7, "Oak", 0, 1);
  // clang-format off
  const struct {
    ByteVector bytes;
    ErrorEnum result;
    std::string records;
    std::uint32_t numPoints = 0;
    std::uint32_t kespVersion = 2;
    bool toTheEnd = true;
    bool deleted = false;
  } rows[] = {
      {Survey({}), ERR_NO_HEADER, "", 0, 0},
      {Survey({Note("rain"), h}), ERR_NO_HEADER, "", 0, 0, false},
      {Survey({Record(3, 2, 1, Header2{}.Body())}), ERR_NONE, "H", 0, 2, true, true},
      // Damage right after the header reads as the end.
      {Survey({h, kCut}), ERR_NONE, "H", 0, 2, false},
      {Survey({h, kBroken}), ERR_NONE, "H", 0, 2, false},
      {Survey({h, kWrapping}), ERR_NONE, "H", 0, 2, false},
      {Survey({h, Feature(7), Point(7, 1), kCut}), ERR_READ_FAILED, "H F7 P7/1", 0, 2, false},
      {Survey({h, Feature(7), kBroken}), ERR_READ_FAILED, "H F7", 0, 2, false},
      {Survey({h, Point(7, 1), Attribute(7, "Girth"), EndOf(7), Feature(70'007), Point(8, 2), h, Point(70'007, 70'003),
               Attribute(70'007, "Girth"), EndOf(70'007)}),
       ERR_NONE, "H F70007 P70007/70003 A70007:Girth E70007", 1, 3},
      {Survey({h, Record(7, 1, 0, {1}), Record(77, 9, 0, {1, 2}), Note("rain")}), ERR_NONE, "H N:rain"},
      {Survey({Header1(), oldFeature, Point(7, 1, {}, 0, 1), EndOf(7)}, 1), ERR_OLD_VERSION, "H F7 P7/1 E7", 0, 1},
      {Survey({Header1(), Note("rain", 0, 1)}, 1), ERR_NONE, "H N:rain", 0, 1},
      {Survey({Header1(), oldFeature, Attribute(9, "a")}, 1), ERR_NONE, "H F7", 0, 3},  // an orphan counts
      {Survey({Header2{3}, Feature(7)}), ERR_NONE, "H F7", 0, 3},
      {Survey({Header1(), kCut}, 1), ERR_BAD_VERSION1_HEADER, "H", 0, 1, false},
      {Survey({Header1(), Note("BMC:x"), kCut}, 1), ERR_BAD_VERSION1_HEADER, "H", 0, 1, false},
      {Survey({Header1(), Note("ZOM:1"), kCut}, 1), ERR_BAD_VERSION1_HEADER, "H", 0, 1, false},
      {Hex("'Corvanthe'"), ERR_FILE_NOT_OPEN, "", 0, 0, false},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    DataSet set(row.bytes);
    EXPECT_FALSE(set.file.WasReadToEnd());
    for (int times = 0; times < 2; ++times) {  // nothing is merged
      EXPECT_EQ(set.file.ReadKespFile(row.deleted), row.result);
      EXPECT_EQ(Names(set.file.m_recordList), row.records);
      EXPECT_EQ(set.file.m_numPoints, row.numPoints);
      EXPECT_EQ(set.file.m_kespVersion, row.kespVersion);
      EXPECT_EQ(set.file.WasReadToEnd(), row.toTheEnd);
    }
  }
}

TEST(ReadKespFile, TakesTheExtentAndTheNotesAfterAnOldHeader) {
  const auto old = [](std::initializer_list<const char*> notes) {
    ByteVector bytes = Survey({Header1(), Note("BMC:deleted", 1, 1)}, 1);
    for (const char* note : notes) Append(bytes, Note(note, 0, 1));
    return bytes;
  };
  // clang-format off
  const struct {
    ByteVector bytes;
    std::vector<double> extent;  // empty: invalid
    const char* bmc = "";
    const char* left = "H";
  } rows[] = {
      {Survey({Header2{2, 1.1, 2.2, 3.3, 4.4}}), {1.1, 2.2, 3.3, 4.4}}, {Survey({Header2{2, 0, 1e-7, 3, 4}}), {}},
      {Survey({Header2{2, 1, 2, 3, 3}}), {}}, {Survey({Header2{2, 0, 1.1e-7, 0, 1.1e-7}}), {0, 1.1e-7, 0, 1.1e-7}},
      {old({}), {}}, {old({"BMC:job 5", "ZOM:1.1,2.2,-3.3,4e1"}), {1.1, 2.2, -3.3, 40}, "job 5"},
      {old({"ZOM:1,2,3,4", "BMC:x"}), {1, 2, 3, 4}, "", "H N:BMC:x"},
      {old({"BMC:a", "BMC:b", "ZOM:1,2,3,4"}), {}, "a", "H N:BMC:b N:ZOM:1,2,3,4"},
      {old({"bmc:a"}), {}, "", "H N:bmc:a"}, {old({"BMCa"}), {}, "", "H N:BMCa"},
      {old({"ZOM:1,1,0,5"}), {}}, {old({"ZOM:0,5,1,1"}), {}}, {old({"ZOM:-5,7,-9"}), {-5, 7, -9, 0}},
      {old({"ZOM: 1 ,\t2x,x,.5,9"}), {1, 2, 0, .5}}, {old({"ZOM:,1,,1"}), {0, 1, 0, 1}}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    DataSet set(row.bytes);
    EXPECT_EQ(set.file.ReadKespFile(true), ERR_NONE);
    EXPECT_EQ(*set.file.m_pBmcText, CString(row.bytes[42] == 1 ? "deleted" : ""));
    const CString* const before = set.file.m_pBmcText;
    EXPECT_EQ(set.file.ReadKespFile(false), ERR_NONE);
    EXPECT_EQ(*set.file.m_pBmcText, CString(row.bmc));
    EXPECT_NE(set.file.m_pBmcText, before) << "a host may still use the one of the last reading";
    std::vector<double> e(4);
    set.file.m_extent.Get(e[0], e[1], e[2], e[3]);
    EXPECT_EQ(set.file.m_extent.IsValid() ? e : std::vector<double>{}, row.extent);
    EXPECT_EQ(Names(set.file.m_recordList), row.left);
  }
}

TEST(ReadKespFile, TakesTimesAndNoOffsetsOfPointsThatStay) {
  const ByteVector withOffset =
      Record(2, 2, 0, Body(2, 2, {{"feature", 7}, {"point", 2}, {"time", -5}, {"hasOffset", 1}, {"offset1", 2.5}}));
  DataSet set(Survey({Header2{}, Feature(7), Point(7, 1, {}, 0x2), Feature(7), withOffset, Point(9, 2, {2000}),
                      Attribute(7, "a", "", 0x8), Point(7, 3, {900})}),
              Then::Read);
  EXPECT_EQ((*std::next(set.file.m_recordList.begin()))->m_flags, 0u);  // its number was taken
  EXPECT_EQ(set.Feature(7)->m_flags, 0x8u);
  EXPECT_EQ(set.Point(2)->Offset1, 0);
  EXPECT_EQ(set.Point(2)->HasOffset, 0);
  EXPECT_EQ(set.file.m_firstPointTime.GetTime(), -5);
  EXPECT_EQ(set.file.m_lastPointTime.GetTime(), 1000);
}

TEST(ReadKespFile, InterpretsTags) {
  const auto tag = [](std::uint32_t kind, std::initializer_list<std::uint32_t> words, const char* name = "") {
    return Tag(kind, name, Words(words));
  };
  DataSet set(Survey({Header2{2, 1, 2, 3, 4}, tag(7, {4, 5, 0x10, 6}), tag(7, {8, 9, 0x10, 6}),
                      tag(7, {1, 70'002, 0x10, 7}), tag(7, {1, 2, 3}), Tag(9, "", Floats({3, 1, 1, 1, 1})),
                      Tag(11, "", Floats({3, 1, 1, 1, 1, 2})), Tag(9, "", Floats({4, 1, 1, 1, 1})), tag(9, {3}),
                      tag(10, {4, 1, 70'009, 2, 3, 6}), tag(10, {4, 1, 4, 2, 3, 6}), tag(10, {3}),
                      tag(13, {4, 8}, "FEATUREchanges"), tag(13, {5, 8}, "Feature Changes"), Feature(4), Point(4, 1)}));
  CKespFile& file = set.file;
  for (int times = 0; times < 2; ++times) ASSERT_EQ(file.ReadKespFile(false), ERR_NONE);
  const auto& tags = file.m_tagList;
  ASSERT_EQ(Names(tags), "T7 T7 T7 T7 T9 T11 T9 T9 T10 T10 T10 T13 T13");
  EXPECT_EQ(file.m_gpsMarkIndex.GetCount(), 2);
  EXPECT_EQ(file.m_gpsMarkIndex.Find(CGPSTime(0x10, 6))->FeatureNumber, 8u);  // the later one
  EXPECT_EQ(file.m_gpsMarkIndex.Find(CGPSTime(0x10, 6))->PointNumber, 9u);
  EXPECT_EQ(file.m_gpsMarkIndex.Find(CGPSTime(0x10, 7))->PointNumber, 70'002u);
  EXPECT_EQ(file.m_qualityMarkIndex.GetCount(), 3);
  EXPECT_EQ(*file.m_qualityMarkIndex.Find(3), tags[5]);  // both kinds share the index
  EXPECT_EQ(*file.m_qualityMarkIndex.Find(4), tags[6]);
  EXPECT_EQ(*file.m_qualityMarkIndex.Find(0), tags[7]);  // one that can't be read
  ASSERT_EQ(file.m_featureLinks.size(), 2u);
  CKespFeatureLink* const a = file.m_featureLinks[0];
  CKespFeatureLink* const b = file.m_featureLinks[1];
  EXPECT_EQ((*file.m_linkListIndex.Find(4))->m_links, (std::vector{a, b, b}));
  EXPECT_EQ((*file.m_linkListIndex.Find(70'009))->m_links, (std::vector{a}));
  EXPECT_EQ(a->m_spare, 6u);
  EXPECT_EQ(a->m_tagRecordPosition, tags[8]->m_filePosition);
  EXPECT_EQ(file.m_featureChangesIndex.GetCount(), 1);
  EXPECT_EQ(*file.m_featureChangesIndex.Find(4), tags[11]);

  // Nothing of it is left after another reading.
  file.m_pDataFile->m_file.SetLength(kFirst);
  EXPECT_EQ(file.ReadKespFile(false), ERR_NO_HEADER);
  EXPECT_FALSE(file.m_extent.IsValid());
  EXPECT_EQ(file.m_lastPointTime, CTime());
  EXPECT_GT(file.m_firstPointTime, CTime(1000));
  EXPECT_EQ(file.m_gpsMarkIndex.GetCount() + file.m_qualityMarkIndex.GetCount() + file.m_linkListIndex.GetCount() +
                file.m_featureChangesIndex.GetCount() + std::ssize(tags) + std::ssize(file.m_featureLinks),
            0);
}

TEST(ReadKespFile, HandsFlagsUpOneByOne) {
  const auto f = [](std::uint32_t flags) { return Feature(7, "Oak", flags); };
  const auto a = [](std::uint32_t flags) { return Attribute(7, "a", "", flags); };
  const auto p = [](std::uint32_t flags) { return Point(7, 1, {}, flags); };
  const auto changes = [](std::uint32_t number, std::uint32_t flags) {
    return Tag(13, "FeatureChanges", Words({number, flags}));
  };
  const std::pair<ByteVector, std::uint32_t> rows[] = {
      {f(0x100), 0x108},   // its own, made canonical
      {f(0x860), 0x18A0},  // A and B, which come back as A
      {f(0) + changes(7, 0x860), 0x18A0},
      {f(0) + a(0x15) + p(0x5), 0},  // the children's deletion stays theirs
      {f(0) + a(0x20) + p(0x40), 0x1080},
      {changes(7, 2) + f(0), 2},  // before the feature or after it
      {f(0x5) + a(0x8) + changes(7, 2), 0x9},
      {f(0x5) + a(0x8) + a(0x2), 0x1},
      {f(0x5) + p(0x8) + a(0x2), 0x9},  // attributes before points
      {f(0) + EndOf(7, 0x8), 0}};
  for (const auto& [records, flags] : rows) {
    DataSet set(Survey({Header2{}, records}));
    ASSERT_EQ(set.file.ReadKespFile(true), ERR_NONE);
    EXPECT_EQ(set.file.GetSrcCtrlFlagsForFeat(7), flags);
    DataSet cut(Survey({Header2{}, records, kCut}));  // nothing is handed up then
    ASSERT_EQ(cut.file.ReadKespFile(true), ERR_READ_FAILED);
    cut.file.PropigateSourceCtrlFlagsToFeatures();  // the plain walk over all comes to the same
    EXPECT_EQ(cut.file.GetSrcCtrlFlagsForFeat(7), flags);
  }
  EXPECT_EQ(CKespFile().GetSrcCtrlFlagsForFeat(7), 0xFFFFFFFFu);
}

TEST(ErrorText, HasASentenceForEachValue) {
  std::set<std::string> sentences;
  for (int value = -1; value <= 18; ++value) sentences.insert(ErrorText(static_cast<ErrorEnum>(value)).ToUtf8());
  EXPECT_EQ(sentences.size(), 19u);  // -1 and 18 share one
  for (const std::string& sentence : sentences) EXPECT_TRUE(sentence.ends_with('.')) << sentence;
}

TEST(OpenKesp, ReturnsWhatIsWrong) {
  DataSet set(Survey({Note("deleted", 1), Header2{3}}));
  CKespFile& file = set.file;
  WriteFile(set.dir / "refused", Hex("'Corvanthe'"));
  CString message = u"old";
  std::uint32_t version = 9;
  EXPECT_EQ(file.OpenKesp(Text(set.dir / "missing"), message), ERR_FILE_NOT_FOUND);
  EXPECT_TRUE(message.IsEmpty());
  EXPECT_EQ(file.OpenKesp(Text(set.dir / "refused"), message), ERR_OTHER_FILE_OPEN);
  EXPECT_EQ(message, CString(u"Please close the already open file."));
  EXPECT_EQ(file.OpenKesp(Text(set.path).MakeUpper(), message), ERR_NONE);  // whatever the letter case
  EXPECT_TRUE(message.IsEmpty());
  EXPECT_EQ(file.GetKespVersion(version), ERR_NONE);
  EXPECT_EQ(version, 3u);
  for (int times = 0; times < 2; ++times) EXPECT_EQ(file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(file.OpenKesp(Text(set.dir / "refused"), message), ERR_NONE);
  EXPECT_EQ(file.ReadKespFile(false), ERR_FILE_NOT_OPEN);
  EXPECT_EQ(file.GetKespVersion(version), ERR_FILE_NOT_OPEN);
  for (const ByteVector& bytes : {Survey({Note("x"), Header2{}}), Survey({})}) {
    EXPECT_EQ(DataSet(bytes).file.GetKespVersion(version), ERR_READ_FAILED);
  }

  delete std::exchange(file.m_pDataFile, nullptr);
  EXPECT_EQ(file.OpenKesp(Text(set.dir / "missing"), message), ERR_FILE_NOT_FOUND);
  EXPECT_EQ(file.OpenKesp(Text(set.path), message), ERR_MEMORY);
  EXPECT_EQ(message, CString(u"Memory allocation failed. Free some memory and try again."));
  CKespFeature* feature = nullptr;
  CKespPoint* point = nullptr;
  for (const ErrorEnum result :
       {file.CloseKesp(), file.ReadKespFile(false), file.GetKespVersion(version), file.ValidateKesp(),
        file.ValidateKesp(Text(set.path), message), file.SetCleanKespClose(true), file.GetPoint(1, point),
        file.GetFeature(1, feature), file.AppendToKespFileFromQueue(Text(set.path)),
        file.UpdateKespHeader("", "", "", "", "", "", 0, 1, 0, 1, true)})
    EXPECT_EQ(result, ERR_MEMORY);
}

TEST(ReadKespFile, EndsAtTheLimitOfTheHosts) {
  std::vector<ByteVector> records(5'000, Feature(7));
  records[0] = Header2{};
  DataSet set(Survey(records));
  set.file.SetMemoryLimit(100'000);
  EXPECT_EQ(set.file.ReadKespFile(false), ERR_MEMORY);
  EXPECT_EQ(set.file.m_pDataFile->GetSystemError(), ENOMEM);
  EXPECT_FALSE(set.file.WasReadToEnd());
  EXPECT_FALSE(set.file.m_recordList.IsEmpty());
  set.file.SetMemoryLimit(0);
  EXPECT_EQ(set.file.ReadKespFile(false), ERR_NONE);
}

}  // namespace
