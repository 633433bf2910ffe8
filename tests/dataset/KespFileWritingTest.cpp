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
  EXPECT_EQ((std::vector<unsigned>{feature->Color, feature->SymbolIndex, feature->DisplayWord1, feature->DisplayWord2}),
            (std::vector<unsigned>{0x112233, 5, 6, 7}));
  EXPECT_EQ(feature->DisplayText, CString("shown"));

  const auto point = Own(file.CreatePoint(3, "A1", -9, 1.5, 2.5, 3.5, 7));
  EXPECT_EQ(file.AddGpsInfoToPoint(*point, 4.5, 6, KESP_SIGNAL_STATUS_2), ERR_NONE);
  EXPECT_EQ(file.AddOffsetToPoint(*point, 8.5, 9.5), ERR_NONE);
  EXPECT_EQ(Name(point.get()) + point->PointText.ToUtf8(), "P7/3A1");
  const std::vector numbers{point->CoordY,   point->CoordX,  point->CoordZ,
                            point->GpsValue, point->Offset1, point->Offset2};
  EXPECT_EQ(numbers, (std::vector{1.5, 2.5, 3.5, 4.5, 8.5, 9.5}));
  EXPECT_TRUE(point->PointTime == -9 && point->GpsNumber == 6 && point->SignalStatus == KESP_SIGNAL_STATUS_2 &&
              point->HasOffset == 1);
  EXPECT_EQ(Name(Own(file.CreateNote("rain")).get()) + Name(Own(file.CreateFeatureEnd(7)).get()), "N:rainE7");

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
    EXPECT_TRUE(row.made->AttributeKind == row.kind && row.made->Value == row.value) << row.kind;
    EXPECT_TRUE(row.made->SubValue.IsEmpty() && row.made->AuxNumber1 == 0 && row.made->AuxNumber2 == 0) << row.kind;
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
    const std::unique_ptr<CKespTag> own(row.made);
    EXPECT_EQ(own->GetType(), row.kind);
    EXPECT_EQ(ByteVector(own->m_pData, own->m_pData + own->m_dataLength), row.block) << row.kind;
  }
}

// A feature with two attributes, two points and an end.
std::unique_ptr<CKespFeature> MakeFeature(CKespFile& file, std::uint32_t number) {
  auto feature = Own(file.CreateFeature("Oak", KESP_FEATURE_POINT, number));
  feature->SymbolIndex = 0;
  feature->AddPoint(file.CreatePoint(1, "A1", 1000, 0, 0, 0, number));
  feature->AddPoint(file.CreatePoint(2, "", 1000, 0, 0, 0, number));
  feature->AddAttribute(file.CreateStringAttribute("a", number, "x"));
  feature->AddAttribute(file.CreateStringAttribute("b", number, "y"));
  feature->SetFeatureEnd(file.CreateFeatureEnd(number));
  return feature;
}

TEST(WriteQueue, WritesANewFileInEachVersion) {
  for (const std::uint16_t version : {std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3}}) {
    TempDir dir;
    CKespFile file;
    const auto feature = MakeFeature(file, 7);
    const auto note = Own(file.CreateNote("rain"));
    const auto tag = Own(file.CreateTag("n", 5));
    note->m_flags = 0x100;
    file.AddFeatureAndAssociatedRecToWriteQueue(feature.get());
    file.AddNoteToWriteQueue(note.get());
    file.AddNoteToWriteQueue(note.get());  // the same one twice
    file.AddTagToWriteQueue(tag.get());
    file.AddNoteToWriteQueue(nullptr);  // writes nothing
    EXPECT_EQ(file.AddFeatureRecOnlyToWriteQueue(feature.get()), ERR_NONE);
    EXPECT_EQ(file.AddFeatureEndToWriteQueue(feature->GetFeatureEnd()), ERR_NONE);
    EXPECT_EQ(Names(file.m_recordList), "F7 A7:a A7:b P7/1 P7/2 E7 N:rain N:rain T1 null F7 E7");
    EXPECT_TRUE(file.m_featureIndex.IsEmpty() && file.m_tagList.empty() && file.m_numPoints == 0);
    for (CKespRecord* record : file.m_recordList) {
      if (record != nullptr) record->m_recordVersion = std::min(record->m_recordVersion, version);
    }
    const CString path = Text(dir / "new");
    EXPECT_EQ(version == 1   ? file.WriteNewKespFileFromQueueVersion1(path)
              : version == 2 ? file.WriteNewKespFileFromQueueVersion2(path)
                             : file.WriteNewKespFileFromQueue(path),
              ERR_NONE);
    const std::uint16_t upTo2 = std::min<std::uint16_t>(version, 2);
    const ByteVector f = Feature(7, "Oak", 0, version);
    const ByteVector p = Point(7, 1, {1000, 0, 0, "A1"}, 0, upTo2);
    // Only the newest writer reduces the flags to their canonical form.
    const ByteVector n = Note("rain", version == 3 ? 0x108 : 0x100, upTo2);
    ByteVector t = Tag(1, "n", Words({5}));
    t[4] = static_cast<std::uint8_t>(upTo2);
    const ByteVector expected = Survey({f, Attribute(7, "a", "x", 0, version), Attribute(7, "b", "y", 0, version), p,
                                        Point(7, 2, {}, 0, upTo2), End(7), n, n, t, f, End(7)},
                                       version);
    EXPECT_EQ(ReadFile(dir / "new"), expected) << version;
    EXPECT_EQ(feature->GetPoint(0)->m_filePosition, 50 + f.size() + 2 * Attribute(7, "a", "", 0, version).size());
    EXPECT_EQ(tag->m_filePosition, 50 + expected.size() - 50 - (t.size() + f.size() + End(7).size()));
    EXPECT_EQ(file.m_recordList.GetCount(), 12);  // unchanged

    // The queue once more: the records now count as added.
    EXPECT_EQ(file.ClearQueueWithoutWriting(), ERR_NONE);
    note->m_flags = 0x8;
    file.AddNoteToWriteQueue(note.get());
    file.m_pDataFile->m_path.MakeUpper();
    EXPECT_EQ(file.AppendToKespFileFromQueue(path), ERR_NONE);
    EXPECT_EQ(ReadFile(dir / "new"), expected + Note("rain", 0x202, upTo2));
    EXPECT_EQ(file.AppendToKespFileFromQueue(Text(dir / "other")), ERR_OTHER_FILE_OPEN);
    EXPECT_EQ(file.CloseKesp(), ERR_NONE);
    EXPECT_EQ(file.AppendToKespFileFromQueue(Text(dir / "other")), ERR_FILE_NOT_FOUND);
    EXPECT_EQ(file.AppendToKespFileFromQueue(path), ERR_NONE);  // opens it
    EXPECT_EQ(ReadFile(dir / "new"), expected + Note("rain", 0x202, upTo2) + Note("rain", 0x202, upTo2));
  }
}

TEST(WriteQueue, LeavesAloneWhatExists) {
  DataSet set(Survey({Header2{}, Note("rain")}));
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  const ByteVector before = ReadFile(set.path);
  std::filesystem::create_directory(set.dir / "folder");
  for (const auto& taken : {set.path, set.dir / "folder"}) {
    EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(taken)), ERR_FILE_EXISTS);
    EXPECT_TRUE(set.file.m_pDataFile->IsOpen());
  }
  {
    struct LateLook : IdleDisk {  // as if the file came there behind the look for it
      int Stat(const char*, struct stat*) override {
        errno = ENOENT;
        return -1;
      }
    } const late;
    CKespFile other;
    EXPECT_EQ(other.WriteNewKespFileFromQueue(Text(set.path)), ERR_FILE_EXISTS);
    EXPECT_FALSE(other.m_pDataFile->IsOpen());
  }
  EXPECT_EQ(ReadFile(set.path), before);

  // What was read is what is written, and the file that was open is left without a mark.
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "copy")), ERR_NONE);
  EXPECT_EQ(ReadFile(set.dir / "copy"), before);
  EXPECT_EQ(ReadFile(set.path), before);
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "missing" / "x")), ERR_FILE_NOT_FOUND);
  EXPECT_FALSE(set.file.m_pDataFile->IsOpen());
  set.file.ClearQueueWithoutWriting();
  EXPECT_EQ(set.file.WriteNewKespFileFromQueue(Text(set.dir / "empty")), ERR_NONE);
  EXPECT_EQ(ReadFile(set.dir / "empty"), FileHeader(3));
}

TEST(WriteQueue, IndexesRecordsAndTakesOverFeaturesAndHeaders) {
  auto file = std::make_unique<CKespFile>();
  EXPECT_EQ(file->AddFeatureAndAssociatedRecToWriteQueue(nullptr), ERR_BAD_FEATURE);
  const auto first = MakeFeature(*file, 7);  // stays ours: the second one takes its number
  CKespFeature* const second = MakeFeature(*file, 7).release();
  const auto note = Own(file->CreateNote("rain"));
  CKespFeature* features[] = {first.get(), nullptr, second};
  EXPECT_EQ(file->AddFeaturesToWriteQueue(features, 3), ERR_NONE);
  EXPECT_EQ(file->AddFeaturesToWriteQueue(features, -1), ERR_NONE);
  EXPECT_EQ(file->m_recordList.GetCount(), 12);
  EXPECT_TRUE(file->m_featureIndex.IsEmpty());
  file->ClearQueueWithoutWriting();

  CKespRecord* records[] = {new CKespTavoHeader, first.get(), first->GetPoint(0), second, second->GetPoint(0),
                            note.get(),          nullptr};
  EXPECT_EQ(file->AddRecordsToWriteQueue(records, 7), ERR_NONE);
  EXPECT_EQ(file->AddTavoHeaderToWriteQueue(static_cast<CKespTavoHeader*>(records[0])), ERR_NONE);
  EXPECT_EQ(Names(file->m_recordList), "H F7 P7/1 F7 P7/1 N:rain null H");
  EXPECT_EQ(file->m_featureIndex.GetCount(), 1);
  EXPECT_EQ(*file->m_featureIndex.Find(7), second);
  EXPECT_EQ(*file->m_pointIndex.Find(1), second->GetPoint(0));
  EXPECT_EQ(file->m_numPoints, 2u);  // one for each time
  file.reset();                      // deletes the header once, and the second feature

  CKespTavoHeader header;
  CKespFile other;
  other.AddTavoHeaderToWriteQueue(&header);
  other.ClearQueueWithoutWriting();  // ours again
}

// From some call on the disk is full. What is there then is whole, and whoever looks is told.
TEST(WriteQueue, TellsOfAFullDisk) {
  for (int at = 1;; ++at) {
    TempDir dir;
    CKespFile file;
    CKespNote note;
    file.AddNoteToWriteQueue(&note);
    file.AddNoteToWriteQueue(&note);
    FaultySystem system(at, FaultySystem::Fault::Full, true);
    const ErrorEnum result = file.WriteNewKespFileFromQueue(Text(dir / "new"));
    const bool exists = std::filesystem::exists(dir / "new");
    EXPECT_EQ(result, exists ? ERR_NONE : ERR_FILE_NOT_FOUND);
    EXPECT_EQ(file.m_pDataFile->IsOpen(), exists);
    const ByteVector bytes = ReadFile(dir / "new");
    const ByteVector whole = Survey({Note(""), Note("")});
    EXPECT_TRUE(bytes.empty() || bytes == Survey({}) || bytes == Survey({Note("")}) || bytes == whole) << at;
    if (bytes == whole && file.m_pDataFile->GetSystemError() == 0) break;
    EXPECT_EQ(file.m_pDataFile->GetSystemError(), ENOSPC) << at;
    ASSERT_LT(at, 50);
  }
}

}  // namespace
