#include "tests/dataset/DataSet.h"
#include "tests/support/FaultySystem.h"

using namespace kesp::test;

namespace {

TEST(Factories, GiveRecordsTheirFields) {
  const TempDir dir;
  CKespFile file;
  const std::unique_ptr<CKespFeature> feature(file.CreateFeature("Oak", KESP_FEATURE_LINE, 7));
  EXPECT_EQ(feature->SymbolIndex, 34);
  EXPECT_EQ(feature->Color, 0u);
  EXPECT_EQ(file.AddDisplayInfoToFeature(feature.get(), 0x112233, 5, 6, 7, "shown"), ERR_NONE);
  EXPECT_EQ(feature->DisplayWord1, 6);
  EXPECT_EQ(feature->DisplayWord2, 7);
  EXPECT_EQ(feature->DisplayText, CString("shown"));
  feature->AddPoint(file.CreatePoint(3, "A1", -9, 1.1, 2.2, 3.3, 7));
  EXPECT_EQ(file.AddGpsInfoToPoint(*feature->GetPoint(0), 4.4, 6, KESP_SIGNAL_STATUS_2), ERR_NONE);
  EXPECT_EQ(file.AddOffsetToPoint(*feature->GetPoint(0), 8.8, 9.9), ERR_NONE);
  feature->AddAttribute(file.CreateStringAttribute("a", 7, "thick"));
  feature->AddAttribute(file.CreateMenuAttribute("b", 7, "thin"));
  feature->AddAttribute(file.CreateNumericAttribute("c", 7, 1.7, 2, 100));
  feature->AddAttribute(file.CreateDateAttribute("d", 7, 40000.1, 2, 100));
  EXPECT_EQ(file.AddFeatureAndAssociatedRecToWriteQueue(feature.get()), ERR_NONE);
  EXPECT_EQ(file.WriteNewKespFileFromQueue(Text(dir / "new")), ERR_NONE);
  const auto attribute = [](const char* name, KESP_ATTRIBUTE_KIND kind, const char* text, double value) {
    return Record(
        5, 3, 0,
        Body(5, 3, {{"feature", 7}, {"title", name}, {"kind", int{kind}}, {"string", text}, {"value", value}}));
  };
  // clang-format off
  EXPECT_EQ(ReadFile(dir / "new"), Survey({
      Record(1, 3, 0, Body(1, 3, {{"feature", 7}, {"name", "Oak"}, {"kind", 2}, {"color", 0x112233}, {"symbol", 5}})),
      attribute("a", KESP_ATTRIBUTE_STRING, "thick", 0), attribute("b", KESP_ATTRIBUTE_MENU, "thin", 0),
      attribute("c", KESP_ATTRIBUTE_NUMERIC, "", 1.7), attribute("d", KESP_ATTRIBUTE_DATE, "", 40000.1),
      Record(2, 2, 0, Body(2, 2, {{"feature", 7}, {"point", 3}, {"text", "A1"}, {"time", -9}, {"y", 1.1}, {"x", 2.2},
                                  {"z", 3.3}, {"gps", 4.4}, {"number", 6}, {"signal", int{KESP_SIGNAL_STATUS_2}},
                                  {"hasOffset", 1}, {"offset1", 8.8}, {"offset2", 9.9}}))}));
  // clang-format on
}

TEST(Factories, MakeEveryKindOfTag) {
  CKespFile file;
  const unsigned long n = 65543;  // more than 16 bits
  const struct {
    CKespTag* made;
    std::uint32_t kind;
    ByteVector block;
    // clang-format off
  } rows[] = {
      {file.CreateTag("n", n, n + 1, n + 2, n + 3), 7, Block("n", Words({65543, 65544, 65545, 65546}))},
      {file.CreateTag(n, "n"), 6, Block("n", Words({65543}))},
      {file.CreateTag("n", n), 6, Block("n", Words({65543}))},
      {file.CreateTag("n", std::uint32_t{65543}), 6, Block("n", Words({65543}))},
      {file.CreateTag("n", CRect2D(1, 2, 3, 4)), 5, Block("n", Hex("00*6 f03f 00*6 0040 00*6 0840 00*6 1040"))},
      {file.CreateTag("n", CPoint3D(1, 2, 3)), 4, Block("n", Hex("00*6 f03f 00*6 0040 00*6 0840"))},
      {file.CreateTag("n", CString("v")), 3, Block("n", Hex("\"v\" 00 00"))},
      {file.CreateTag("n", 2.0), 2, Block("n", Hex("00*6 0040"))},
      {file.CreateTag("n", -70000), 1, Block("n", Words({0xFFFEEE90}))},
      {file.CreateTagGps(n, 1, 2, 3, 4294967295UL), 9, Block("", Floats({65543, 1, 2, 3, 4294967296.0F}))},
      {file.CreateTagGpsEx(n, 1.5F, 2, 3, 4, -70000), 11, Block("", Floats({65543, 1.5F, 2, 3, 4, -70000}))},
      {file.CreateTagFeatureLink(n, n + 1, n + 2, n + 3, n + 4), 10,
       Block("", Words({65543, 65544, 65545, 65546, 65547, 0xFFFFFFFF}))},
      {file.CreateTagBlob("n", "xyz", 3), 0, Block("n", {'x', 'y', 'z'})},
      {file.CreateTagBlob("n", nullptr, 2), 0, Block("n", {0, 0})},
  };
  // clang-format on
  for (const auto& row : rows) {
    const std::unique_ptr<CKespTag> own(row.made);
    EXPECT_EQ(own->GetType(), row.kind);
    EXPECT_EQ(ByteVector(own->m_pData, own->m_pData + own->m_dataLength), row.block) << row.kind;
  }
}

using Writer = ErrorEnum (CKespFile::*)(CString);
constexpr Writer kWriters[] = {nullptr, &CKespFile::WriteNewKespFileFromQueueVersion1,
                               &CKespFile::WriteNewKespFileFromQueueVersion2, &CKespFile::WriteNewKespFileFromQueue};

TEST(WriteQueue, WritesANewFileInEachVersion) {
  for (const std::uint16_t version : {std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3}}) {
    const std::uint16_t upTo2 = std::min<std::uint16_t>(version, 2);
    const TempDir dir;
    CKespFile file;
    CKespFeature feature;
    CKespNote note;
    feature.FeatureNumber = 7, feature.FeatureName = "Oak", feature.FeatureType = KESP_FEATURE_POINT;
    feature.AddPoint(file.CreatePoint(1, "A1", 1000, 0, 0, 0, 7));
    feature.SetFeatureEnd(file.CreateFeatureEnd(7));
    note.NoteText = "rain", note.m_flags = 0x100;
    feature.m_recordVersion = version, feature.GetPoint(0)->m_recordVersion = note.m_recordVersion = upTo2;
    EXPECT_EQ(file.AddFeatureRecOnlyToWriteQueue(&feature), ERR_NONE);
    CKespFeature* features[] = {&feature, nullptr, &feature};
    EXPECT_EQ(file.AddFeaturesToWriteQueue(features, 2), ERR_NONE);
    EXPECT_EQ(file.AddFeaturesToWriteQueue(features, -1), ERR_NONE);
    EXPECT_EQ(file.AddFeatureAndAssociatedRecToWriteQueue(nullptr), ERR_BAD_FEATURE);
    EXPECT_EQ(file.AddNoteToWriteQueue(nullptr), ERR_NONE);  // writes nothing
    EXPECT_EQ(file.AddNoteToWriteQueue(&note), ERR_NONE);
    EXPECT_EQ(file.AddFeatureEndToWriteQueue(feature.GetFeatureEnd()), ERR_NONE);
    EXPECT_EQ(Names(file.m_recordList), "F7 F7 P7/1 E7 null N:rain E7");
    EXPECT_TRUE(file.m_featureIndex.IsEmpty());
    EXPECT_EQ(file.m_numPoints, 0u);
    const CString path = Text(dir / "new");
    EXPECT_EQ((file.*kWriters[version])(path), ERR_NONE);
    // Only the newest writer reduces the flags to their canonical form.
    const ByteVector f = Feature(7, "Oak", 0, version), p = Point(7, 1, {1000, 0, 0, "A1"}, 0, upTo2);
    const ByteVector n = Note("rain", version == 3 ? 0x108 : 0x100, upTo2);
    const ByteVector expected = Survey({f, f, p, EndOf(7), n, EndOf(7)}, version);
    EXPECT_EQ(ReadFile(dir / "new"), expected) << version;
    EXPECT_EQ(feature.GetPoint(0)->m_filePosition, 50 + 2 * f.size());

    // Appending marks the records as added, and opens the file where it has to.
    EXPECT_EQ(file.ClearQueueWithoutWriting(), ERR_NONE);
    note.m_flags = 0x8;
    file.AddNoteToWriteQueue(&note);
    file.m_pDataFile->m_path.MakeUpper();
    EXPECT_EQ(file.AppendToKespFileFromQueue(path), ERR_NONE);
    EXPECT_EQ(file.AppendToKespFileFromQueue(Text(dir / "other")), ERR_OTHER_FILE_OPEN);
    EXPECT_EQ(file.CloseKesp(), ERR_NONE);
    EXPECT_EQ(file.AppendToKespFileFromQueue(Text(dir / "other")), ERR_FILE_NOT_FOUND);
    EXPECT_EQ(file.AppendToKespFileFromQueue(path), ERR_NONE);
    EXPECT_EQ(ReadFile(dir / "new"), expected + Note("rain", 0x202, upTo2) + Note("rain", 0x202, upTo2));
  }
}

TEST(WriteQueue, LeavesAloneWhatExists) {
  const ByteVector before = Survey({Header2{}});
  DataSet set(before);
  const auto refuses = [&](const std::filesystem::path& path) {
    EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(path)), ERR_FILE_EXISTS);
    EXPECT_TRUE(set.file.m_pDataFile->IsOpen());
  };
  {
    struct LateLook : IdleDisk {  // as if the file came there after the look for it
      int Stat(const char*, kesp::FileInfo*) override {
        errno = ENOENT;
        return -1;
      }
    } const late;
    refuses(set.path);
  }
  refuses(set.path);
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "missing" / "x")), ERR_FILE_NOT_FOUND);
  EXPECT_FALSE(set.file.m_pDataFile->IsOpen());
  EXPECT_EQ(ReadFile(set.path), before);  // without a mark
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "empty")), ERR_NONE);
  EXPECT_EQ(ReadFile(set.dir / "empty"), FileHeader(3));
}

#ifndef _WIN32
// By a program that takes no lock, and through a link that leads nowhere. Windows has neither.
TEST(WriteQueue, LeavesAloneWhatComesToExist) {
  const ByteVector before = Survey({Header2{}});
  DataSet set(before);
  {
    struct MadeMeanwhile : IdleDisk {
      explicit MadeMeanwhile(std::filesystem::path wanted) : path(std::move(wanted)) {}
      ssize_t Write(int, const void*, std::size_t, std::int64_t) override {
        WriteFile(path, ByteVector(60, 'x'));
        return errno = EIO, -1;
      }
      const std::filesystem::path path;
    } const meanwhile(set.dir / "long");
    CKespFile other;
    EXPECT_EQ(other.WriteNewKespFileFromQueue(Text(set.dir / "long")), ERR_NONE);
    EXPECT_FALSE(other.m_pDataFile->IsOpen());
    EXPECT_EQ(ReadFile(set.dir / "long"), ByteVector(60, 'x'));
  }
  std::filesystem::create_symlink("nowhere", set.dir / "link");
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "link")), ERR_FILE_EXISTS);
  EXPECT_FALSE(std::filesystem::exists(set.dir / "nowhere"));
}
#endif

// Says when it is deleted.
template <class Base>
struct Counted : Base {
  explicit Counted(int& counter) : deleted(counter) {}
  ~Counted() override { ++deleted; }
  int& deleted;
};

TEST(WriteQueue, TakesOverWhatItIndexesAndHeaders) {
  int deleted = 0;
  {
    CKespFile file;
    CKespFeature first;  // stays the test's: the second one takes its number
    auto* const second = new Counted<CKespFeature>(deleted);
    auto* const header = new Counted<CKespTavoHeader>(deleted);
    CKespPoint point;
    CKespRecord* records[] = {header, &first, second, second, nullptr, header, &point};
    EXPECT_EQ(file.AddRecordsToWriteQueue(records, 7), ERR_NONE);
    EXPECT_EQ(*file.m_featureIndex.Find(0), second);
    EXPECT_EQ(*file.m_pointIndex.Find(0), &point);
    EXPECT_EQ(file.m_numPoints, 1u);
    EXPECT_EQ(file.AddTavoHeaderToWriteQueue(header), ERR_NONE);
    file.m_recordList.AddTail(new Counted<CKespTavoHeader>(deleted));  // without the queue's operations
    EXPECT_EQ(Names(file.m_recordList), "H F0 F0 F0 null H P0/0 H H");
    file.AddNoteToWriteQueue(std::make_unique<CKespNote>().get());  // deleted by its host by then
  }
  EXPECT_EQ(deleted, 3);

  CKespTavoHeader ours;
  CKespFile other;
  other.AddTavoHeaderToWriteQueue(&ours);
  other.ClearQueueWithoutWriting();  // the test's again
  other.AddTavoHeaderToWriteQueue(&ours);
  other.m_recordList.Remove(&ours);  // and again
}

// All of the queue is written, or the host is told.
TEST(WriteQueue, TellsOfRecordsThatCannotBeWritten) {
  const TempDir dir;
  CKespFile file;
  CKespNote first, unknown;
  CKespTag hollow;
  unknown.m_recordVersion = 7;
  file.AddNoteToWriteQueue(&first);
  file.AddTagToWriteQueue(&hollow);
  file.AddNoteToWriteQueue(&unknown);
  EXPECT_EQ(file.WriteNewKespFileFromQueue(Text(dir / "new")), ERR_NONE);
  EXPECT_TRUE(file.m_pDataFile->IsOpen());
  EXPECT_EQ(file.m_pDataFile->GetSystemError(), EINVAL);
  EXPECT_EQ(file.m_pDataFile->GetFailedAppends(), 2u);
  EXPECT_EQ(ReadFile(dir / "new"), Survey({Note("")}));
}

TEST(WriteQueue, IsBroughtToAnOldVersion) {
  const std::string longName(30, 'n');
  for (const std::uint16_t version : {std::uint16_t{1}, std::uint16_t{2}}) {
    DataSet set(Survey({Header2{}, Feature(7, longName), Attribute(7, "Girth", "thick"), Point(7, 1, {.text = "A1"}),
                        EndOf(7), Tag(1, "n", Words({5})), Note(std::string(256, 'x'))}),
                Then::Read);
    const std::string names = Names(set.file.m_recordList);
    set.Point(1)->SetOffset(1.5, 2.5);
    set.Point(1)->SignalStatus = KESP_SIGNAL_STATUS{11};
    kesp::FormatLoss loss;
    set.file.SetQueueVersion(3, loss);
    EXPECT_TRUE(loss.IsNone());
    EXPECT_EQ(set.Feature(7)->m_recordVersion, 3);
    set.file.SetQueueVersion(version, loss);
    kesp::FormatLoss expected;
    expected.features = expected.notes = {1, 1, 0};
    if (version == 1) expected.points = {1, 0, 4}, expected.headers = {1, 0, 1};
    EXPECT_EQ(loss, expected);
    const CString path = Text(set.dir / "old");
    EXPECT_EQ((set.file.*kWriters[version])(path), ERR_NONE);
    EXPECT_EQ(set.file.ReadKespFile(false), version == 1 ? ERR_OLD_VERSION : ERR_NONE);
    EXPECT_TRUE(set.file.WasReadToEnd());
    EXPECT_EQ(Names(set.file.m_recordList) + "x", names) << "without the last letter of the note";
    EXPECT_EQ(set.Feature(7)->FeatureName.ToUtf8(), std::string(20, 'n'));
  }
}

TEST(WriteQueue, CountsWhatIsInTheFileAlready) {
  DataSet set(Survey({Header2{}, Feature(7), Point(7, 1)}), Then::Read);
  CKespNote note;
  set.file.AddNoteToWriteQueue(&note);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 3);
  set.file.ClearQueueWithoutWriting();
  set.file.AddNoteToWriteQueue(&note);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 0);
  EXPECT_EQ(set.file.AppendToKespFileFromQueue(Text(set.path)), ERR_NONE);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 1);
  // In another file it is new.
  WriteFile(set.dir / "other", Survey({}));
  EXPECT_EQ(set.file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(set.file.OpenKesp(Text(set.dir / "other"), set.message), ERR_NONE);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 0);
}

TEST(WriteQueue, IsNotWrittenIntoAFileOfAnotherSpelling) {
  DataSet set(Survey({Header2{}}));
  const auto other = set.dir / "SURVEY.kesp";
  if (std::filesystem::exists(other)) GTEST_SKIP() << "the system has no other spelling";
  WriteFile(other, Survey({}));
  CKespNote note;
  set.file.AddNoteToWriteQueue(&note);
  EXPECT_EQ(set.file.OpenKesp(Text(other), set.message), ERR_OTHER_FILE_OPEN);
  EXPECT_EQ(set.file.AppendToKespFileFromQueue(Text(other)), ERR_OTHER_FILE_OPEN);
  EXPECT_EQ(ReadFile(set.path), Survey({Header2{}}));
}

}  // namespace
