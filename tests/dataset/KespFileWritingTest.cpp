#include "tests/dataset/DataSet.h"
#include "tests/support/FaultySystem.h"

using namespace kesp::test;

namespace {

template <class Made>
std::unique_ptr<Made> Own(Made* made) {
  return std::unique_ptr<Made>(made);
}

TEST(Factories, GiveFeaturesPointsAndAttributesTheirFields) {
  CKespFile file;
  const auto feature = Own(file.CreateFeature("Oak", KESP_FEATURE_LINE, 7));
  EXPECT_EQ(Name(feature.get()) + feature->FeatureName.ToUtf8(), "F7Oak");
  EXPECT_TRUE(feature->FeatureType == KESP_FEATURE_LINE && feature->SymbolIndex == 34 && feature->Color == 0);
  EXPECT_EQ(file.AddDisplayInfoToFeature(feature.get(), 0x112233, 5, 6, 7, "shown"), ERR_NONE);
  EXPECT_TRUE(feature->Color == 0x112233 && feature->SymbolIndex == 5 && feature->DisplayWord1 == 6 &&
              feature->DisplayWord2 == 7 && feature->DisplayText == CString("shown"));

  const auto point = Own(file.CreatePoint(3, "A1", -9, 1.5, 2.5, 3.5, 7));
  EXPECT_EQ(file.AddGpsInfoToPoint(*point, 4.5, 6, KESP_SIGNAL_STATUS_2), ERR_NONE);
  EXPECT_EQ(file.AddOffsetToPoint(*point, 8.5, 9.5), ERR_NONE);
  EXPECT_EQ(Name(point.get()) + point->PointText.ToUtf8(), "P7/3A1");
  EXPECT_TRUE(point->CoordY == 1.5 && point->CoordX == 2.5 && point->CoordZ == 3.5 && point->GpsValue == 4.5 &&
              point->Offset1 == 8.5 && point->Offset2 == 9.5 && point->PointTime == -9 && point->GpsNumber == 6 &&
              point->SignalStatus == KESP_SIGNAL_STATUS_2 && point->HasOffset == 1);

  const struct {
    CKespAttribute* made;
    std::int32_t kind;
    const char* text;
    double value;
  } rows[] = {{file.CreateStringAttribute("a", 7, "thick"), KESP_ATTRIBUTE_STRING, "thick", 0},
              {file.CreateMenuAttribute("a", 7, "thin"), KESP_ATTRIBUTE_MENU, "thin", 0},
              {file.CreateNumericAttribute("a", 7, 1.5, 2, 100), KESP_ATTRIBUTE_NUMERIC, "", 1.5},
              {file.CreateDateAttribute("a", 7, 40000, 2, 100), KESP_ATTRIBUTE_DATE, "", 40000}};
  for (const auto& row : rows) {
    const auto own = Own(row.made);
    EXPECT_EQ(Name(row.made) + row.made->TextValue.ToUtf8(), std::string("A7:a") + row.text);
    EXPECT_TRUE(row.made->AttributeKind == row.kind && row.made->Value == row.value && row.made->AuxNumber1 == 0 &&
                row.made->AuxNumber2 == 0 && row.made->SubValue.IsEmpty());
  }
}

TEST(Factories, MakeEveryKindOfTag) {
  CKespFile file;
  const unsigned long seven = 7;
  const struct {
    CKespTag* made;
    std::uint32_t kind;
    ByteVector block;
    // clang-format off
  } rows[] = {
      {file.CreateTag("n", 1UL, 2UL, 3UL, 4UL), 7, Block("n", Words({1, 2, 3, 4}))},
      {file.CreateTag(seven, "n"), 6, Block("n", Words({7}))},
      {file.CreateTag("n", seven), 6, Block("n", Words({7}))},
      {file.CreateTag("n", std::uint32_t{7}), 6, Block("n", Words({7}))},
      {file.CreateTag("n", CRect2D(1, 2, 3, 4)), 5, Block("n", Hex("00*6 f03f 00*6 0040 00*6 0840 00*6 1040"))},
      {file.CreateTag("n", CPoint3D(1, 2, 3)), 4, Block("n", Hex("00*6 f03f 00*6 0040 00*6 0840"))},
      {file.CreateTag("n", CString("v")), 3, Block("n", Hex("\"v\" 00 00"))},
      {file.CreateTag("n", 2.0), 2, Block("n", Hex("00*6 0040"))},
      {file.CreateTag("n", -2), 1, Block("n", Words({0xFFFFFFFE}))},
      {file.CreateTagGps(5, 1, 2, 3, 4294967295UL), 9, Block("", Floats({5, 1, 2, 3, 4294967296.0F}))},
      {file.CreateTagGpsEx(5, 1.5F, 2, 3, 4, -6), 11, Block("", Floats({5, 1.5F, 2, 3, 4, -6}))},
      {file.CreateTagFeatureLink(1, 2, 3, 4, 5), 10, Block("", Words({1, 2, 3, 4, 5, 0xFFFFFFFF}))},
      {file.CreateTagBlob("n", "xyz", 3), 0, Block("n", {'x', 'y', 'z'})},
      {file.CreateTagBlob("n", nullptr, 2), 0, Block("n", {0, 0})},
  };
  // clang-format on
  for (const auto& row : rows) {
    const auto own = Own(row.made);
    EXPECT_EQ(own->GetType(), row.kind);
    EXPECT_EQ(ByteVector(own->m_pData, own->m_pData + own->m_dataLength), row.block) << row.kind;
  }
}

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
    EXPECT_TRUE(file.m_featureIndex.IsEmpty() && file.m_numPoints == 0);
    const CString path = Text(dir / "new");
    EXPECT_EQ(version == 1   ? file.WriteNewKespFileFromQueueVersion1(path)
              : version == 2 ? file.WriteNewKespFileFromQueueVersion2(path)
                             : file.WriteNewKespFileFromQueue(path),
              ERR_NONE);
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
  {
    struct LateLook : IdleDisk {  // as if the file came there behind the look for it
      int Stat(const char*, struct stat*) override {
        errno = ENOENT;
        return -1;
      }
    } const late;
    EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.path)), ERR_FILE_EXISTS);
    EXPECT_TRUE(set.file.m_pDataFile->IsOpen());
  }
  std::filesystem::create_symlink("nowhere", set.dir / "link");
  for (const auto& path : {set.path, set.dir / "link"}) {
    EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(path)), ERR_FILE_EXISTS);
    EXPECT_TRUE(set.file.m_pDataFile->IsOpen());
  }
  EXPECT_FALSE(std::filesystem::exists(set.dir / "nowhere"));
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "missing" / "x")), ERR_FILE_NOT_FOUND);
  EXPECT_FALSE(set.file.m_pDataFile->IsOpen());
  EXPECT_EQ(ReadFile(set.path), before);  // without a mark
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "empty")), ERR_NONE);
  EXPECT_EQ(ReadFile(set.dir / "empty"), FileHeader(3));
}

TEST(WriteQueue, TakesOverWhatItIndexesAndHeaders) {
  auto file = std::make_unique<CKespFile>();
  CKespFeature first;  // stays ours: the second one takes its number
  auto* const second = new CKespFeature;
  auto* const header = new CKespTavoHeader;
  CKespRecord* records[] = {header, &first, second, nullptr, header};
  EXPECT_EQ(file->AddRecordsToWriteQueue(records, 5), ERR_NONE);
  EXPECT_EQ(file->AddTavoHeaderToWriteQueue(header), ERR_NONE);
  EXPECT_EQ(Names(file->m_recordList), "H F0 F0 null H H");
  file.reset();  // deletes the header once, and the second feature

  CKespTavoHeader ours;
  CKespFile other;
  other.AddTavoHeaderToWriteQueue(&ours);
  other.ClearQueueWithoutWriting();  // ours again
  other.AddTavoHeaderToWriteQueue(&ours);
  other.m_recordList.Remove(&ours);  // and again

  static int deleted = 0;
  struct Counted : CKespTavoHeader {
    ~Counted() override { ++deleted; }
  };
  {
    CKespFile straight;
    straight.m_recordList.AddTail(new Counted);  // without the queue's operations: goes with the store all the same
    straight.m_recordList.AddTail(straight.m_recordList.GetHead());
    straight.AddNoteToWriteQueue(std::make_unique<CKespNote>().get());  // deleted by its host by then
  }
  EXPECT_EQ(deleted, 1);
}

// From some call on the disk is full. What is there then is whole, and whoever looks is told.
TEST(WriteQueue, TellsOfAFullDisk) {
  for (int at = 1, error = 1; error != 0; ++at) {
    const TempDir dir;
    CKespFile file;
    CKespNote note;
    file.AddNoteToWriteQueue(&note);
    FaultySystem system(at, FaultySystem::Fault::Full, true);
    const ErrorEnum result = file.WriteNewKespFileFromQueue(Text(dir / "new"));
    const bool exists = std::filesystem::exists(dir / "new");
    EXPECT_EQ(result, exists ? ERR_NONE : ERR_FILE_NOT_FOUND);
    EXPECT_EQ(file.m_pDataFile->IsOpen(), exists);
    error = file.m_pDataFile->GetSystemError();
    EXPECT_TRUE(error == ENOSPC || (error == 0 && ReadFile(dir / "new") == Survey({Note("")}))) << at;
    ASSERT_LT(at, 50);
  }
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
                        EndOf(7), Tag(1, "n", Words({5})), Note("rain")}));
    ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
    set.Point(1)->SetOffset(1.5, 2.5);
    kesp::FormatLoss loss;
    set.file.SetQueueVersion(3, loss);
    EXPECT_TRUE(loss.IsNone() && set.Feature(7)->m_recordVersion == 3);
    set.file.SetQueueVersion(version, loss);
    EXPECT_EQ(loss.features, (kesp::FormatLoss::Kind{1, 1, 0}));
    EXPECT_EQ(loss.points, version == 1 ? (kesp::FormatLoss::Kind{1, 0, 3}) : kesp::FormatLoss::Kind{});
    const CString path = Text(set.dir / "old");
    EXPECT_EQ(version == 1 ? set.file.WriteNewKespFileFromQueueVersion1(path)
                           : set.file.WriteNewKespFileFromQueueVersion2(path),
              ERR_NONE);
    const auto result = set.file.ReadKespFile(false);
    EXPECT_EQ(result, version == 1 ? ERR_OLD_VERSION : ERR_NONE);
    EXPECT_TRUE(set.file.WasReadToEnd());
    EXPECT_EQ(Names(set.file.m_recordList), "H F7 A7:Girth P7/1 E7 T1 N:rain");
    EXPECT_EQ(set.Feature(7)->FeatureName.ToUtf8(), std::string(20, 'n'));
  }
}

TEST(WriteQueue, CountsWhatIsInTheFileAlready) {
  DataSet set(Survey({Header2{}, Feature(7), Point(7, 1)}));
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 0);
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  CKespNote note;
  set.file.AddNoteToWriteQueue(&note);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 3);
  set.file.ClearQueueWithoutWriting();
  set.file.AddNoteToWriteQueue(&note);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 0);
  EXPECT_EQ(set.file.AppendToKespFileFromQueue(Text(set.path)), ERR_NONE);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 1);
  // In another file it is new.
  CString message;
  WriteFile(set.dir / "other", Survey({}));
  EXPECT_EQ(set.file.CloseKesp(), ERR_NONE);
  EXPECT_EQ(set.file.OpenKesp(Text(set.dir / "other"), message), ERR_NONE);
  EXPECT_EQ(set.file.CountQueuedFromOpenFile(), 0);
}

TEST(WriteQueue, IsNotWrittenIntoAFileOfAnotherSpelling) {
  DataSet set(Survey({Header2{}}));
  const auto other = set.dir / "SURVEY.kesp";
  WriteFile(other, Survey({}));
  CString message;
  CKespNote note;
  set.file.AddNoteToWriteQueue(&note);
  EXPECT_EQ(set.file.OpenKesp(Text(other), message), ERR_OTHER_FILE_OPEN);
  EXPECT_EQ(set.file.AppendToKespFileFromQueue(Text(other)), ERR_OTHER_FILE_OPEN);
  EXPECT_EQ(ReadFile(set.path), Survey({Header2{}}));
}

TEST(WriteQueue, EnteredFeaturesAndQueuedHeadersGoWithTheStore) {
  static int gone = 0;
  struct Counted : CKespFeature {
    ~Counted() override { ++gone; }
  };
  struct CountedHeader : CKespTavoHeader {
    ~CountedHeader() override { ++gone; }
  };
  {
    CKespFile file;
    CKespRecord* const feature = new Counted;
    CKespRecord* records[] = {feature, feature};
    EXPECT_EQ(file.AddRecordsToWriteQueue(records, 2), ERR_NONE);
    EXPECT_EQ(file.AddTavoHeaderToWriteQueue(new CountedHeader), ERR_NONE);
  }
  EXPECT_EQ(gone, 2);
}

}  // namespace
