// What holds for the bodies of every record class: their bytes, their texts, their versions.
#include <gtest/gtest.h>

#include <type_traits>
#include <typeinfo>

#include "kesp/kesp.h"
#include "tests/records/Scratch.h"
#include "tests/support/Records.h"

namespace kesp::test {
namespace {

// An old version writes what it has of these.
void SetUp(CKespFeature& f) {
  f.FeatureNumber = 0x04030201, f.FeatureName = u"Oak", f.FeatureType = KESP_FEATURE_AREA, f.Color = 0x14131211;
  f.SymbolIndex = 0x2221;
}
void SetUp(CKespFeatureEnd& e) { e.FeatureNumber = 0x84030201; }
void SetUp(CKespPoint& p) {
  p.FeatureNumber = 0x04030201, p.PointNumber = 0x14131211, p.PointText = u"P7", p.PointTime = -2, p.CoordY = 1;
  p.CoordX = 2, p.CoordZ = -2.5, p.GpsValue = 0.5, p.SignalStatus = KESP_SIGNAL_STATUS_9, p.GpsNumber = 0x2221;
  p.SetOffset(3, 4);
}
void SetUp(CKespAttribute& a) {
  a.FeatureNumber = 0x04030201, a.AttributeName = u"Kind", a.AttributeKind = KESP_ATTRIBUTE_MENU;
  a.TextValue = u"Oak", a.SubValue = u"Red", a.Value = 1, a.AuxNumber1 = 2, a.AuxNumber2 = 3, a.Decimals = 0x2221;
  a.AuxText = u"aux", a.AuxNumber3 = 4, a.AuxNumber4 = 5;
}
void SetUp(CKespNote& n) { n.NoteText = n.m_recordVersion == 1 ? u"T\u00FFz" : u"T\u20AC"; }
void SetUp(CKespTavoHeader& h) {
  h.HeaderText1 = u"t1", h.HeaderText2 = u"t2", h.HeaderText3 = u"t3", h.HeaderText4 = u"t4", h.HeaderText5 = u"t5";
  h.StatusFlags = 0x04030207, h.CreationTime = 0x14131211, h.HeaderShort = 0x2221, h.HeaderText6 = u"t6";
  h.HeaderText7 = u"t7", h.KespVersion = 2, h.ExtentMinX = 1, h.ExtentMaxX = 2, h.ExtentMinY = 3, h.ExtentMaxY = 4;
  h.DataExtent1 = 5, h.DataExtent2 = 6, h.DataExtent3 = 7, h.DataExtent4 = 8, h.PointCount = 0x31;
  h.FeatureCount = 0x32, h.SpareCount = 0x33, h.FirstPointTime = 0x34, h.LastPointTime = 0x80000035;
  h.LastPointText = u"lp", h.SlotWord1 = 0x41, h.SlotText1 = u"s1", h.SlotWord2 = 0x42, h.SlotText2 = u"s2";
  h.SlotWord3 = 0x43, h.SlotBytes3.fill(0x51), h.SlotBytes3[1] = 0, h.SlotWord4 = 0x44, h.SlotBytes4.fill(0x52);
  h.SlotBytes4[15] = 0;
}

// One class and version: its bytes written and read, read when they are cut short anywhere, refused by a file.
template <class R>
void Check(std::uint16_t version, const std::string& hex, KESP_ERROR_TYPE cut = KESP_ERROR_EOF) {
  SCOPED_TRACE(testing::Message() << typeid(R).name() << version);
  Scratch scratch;
  const ByteVector bytes = Hex(hex);
  // The only one whose file error propagates, unless it is written by way of version 3; it keeps an old error too.
  const bool raises = std::is_same_v<R, CKespFeature> && version == 1;
  R record, back;
  record.m_recordVersion = back.m_recordVersion = version;
  SetUp(record);
  for (const unsigned short asked : {version, std::uint16_t{0}}) {
    EXPECT_EQ(record.GetLength(asked), bytes.size());
    EXPECT_EQ(scratch.Body(record, asked), bytes);
  }

  // A header's Read resets every member first, and its creation time to now.
  const auto content = [&] {
    ByteVector body = scratch.Body(back, 0);
    if (body.size() == 4086) std::fill_n(body.begin() + 4, 4, std::uint8_t{0});
    return body;
  };
  const ByteVector before = content();
  scratch.Fill(bytes);
  for (std::size_t size = bytes.size(); size-- > 0;) {
    scratch.file.SetLength(size);
    scratch.file.SeekToBegin();
    back.m_error = KESP_ERROR_NONE;
    if (raises)
      EXPECT_THROW(back.Read(scratch.file), CFileException) << size;
    else
      EXPECT_FALSE(back.Read(scratch.file)) << size;
    ASSERT_EQ(back.GetError(), cut) << size;
    ASSERT_EQ(scratch.file.GetPosition(), size);
  }
  EXPECT_EQ(content(), before) << "nothing is stored";

  back.m_error = raises ? KESP_ERROR_NONE : KESP_ERROR_BAD_RECORD;
  ASSERT_TRUE(scratch.Read(back, bytes + Hex("ff")));
  EXPECT_EQ(back.GetError(), KESP_ERROR_NONE);
  EXPECT_EQ(scratch.file.GetPosition(), bytes.size());
  EXPECT_EQ(scratch.Body(back, version), bytes);

  CFile closed;
  if (raises)
    EXPECT_THROW(record.Write(closed, 0, 1), CFileException);
  else
    EXPECT_FALSE(record.Write(closed, 0, version));
  EXPECT_FALSE(record.Write(closed, 0, 0));
}

TEST(Bodies, AreWrittenAndReadByteForByte) {
  Check<CKespFeature>(1, "01020304 'Oak' 00*19 0300 11121314 2122");
  Check<CKespFeature>(2, R"(01020304 "Oak" 00*36 0300 11121314 2122)");
  Check<CKespFeature>(3, R"(01020304 "Oak" 00*506 0300 11121314 2122)");
  Check<CKespFeatureEnd>(1, "01020384");
  const std::string point = "01020304 11121314 ", numbers = " feffffff 00*6 f03f 00*7 40 00*6 04c0 00*6 e03f 0900";
  Check<CKespPoint>(1, point + "'P7' 00*20" + numbers);
  Check<CKespPoint>(2, point + "\"P7\" 00*38" + numbers + "2122 0100 00*6 0840 00*6 1040");
  const std::string values = " 00*6 f03f 00*7 40 00*6 0840 2122 ";
  Check<CKespAttribute>(1, "01020304 'Kind' 00*18 0300 'Oak' 00*38 'Red' 00*18" + values + "'aux' 00*19");
  Check<CKespAttribute>(2, R"(01020304 "Kind" 00*34 0300 "Oak" 00*76 "Red" 00*36)" + values + "\"aux\" 00*36");
  Check<CKespAttribute>(
      3, R"(01020304 "Kind" 00*504 0300 "Oak" 00*506 "Red" 00*506)" + values + "\"aux\" 00*122 00*6 1040 00*6 1440");
  Check<CKespNote>(1, "54 ff 7a 00*253");
  Check<CKespNote>(2, "5400 ac20 00*508");
  Check<CKespTavoHeader>(1, "00*10 't1' 00*19 't2' 00*254 't3' 00*254 't4' 00*254 't5' 00*126 00");
  Check<CKespTavoHeader>(2, R"(07020304 11121314 2122 "t1" 00*38 "t2" 00*508 "t3" 00*508 "t4" 00*508 "t5" 00*252
      "t6" 00*508 "t7" 00*508 02000000 00*6 f03f 00*7 40 00*6 0840 00*6 1040 00*6 1440 00*6 1840 00*6 1c40 00*6 2040
      31000000 32000000 33000000 34000000 35000080 "lp" 00*38 41000000 "s1" 00*508 42000000 "s2" 00*508
      43000000 51 00 51*30 44000000 52*15 00)",
                         KESP_ERROR_APP_HEADER);
}

// What the versions of a class have of their own, for the classes that hosts derive.
template <class R>
struct Open : R {
  using R::ReadOldVersions;
  using R::WriteOldVersions;
};
template <class R>
struct OpenVersions : R {
  using R::ReadVersion1, R::ReadVersion2, R::ReadVersion3;
  using R::WriteVersion1, R::WriteVersion2, R::WriteVersion3;
};

TEST(Bodies, AVersionReadsItselfAndOlderOnesAndTheFirstWritesItselfOnly) {
  Scratch scratch;
  const auto check = [&]<class R>(bool (R::*read)(CFile&), auto write, unsigned readUpTo, unsigned writtenUpTo) {
    for (std::uint16_t version = 1; version <= 3; ++version) {
      R record, back;
      test::SetUp(record);
      back.m_recordVersion = version;
      const ByteVector body = scratch.Body(record, version);
      scratch.Fill(body);
      const bool isRead = (back.*read)(scratch.file);
      EXPECT_EQ(std::tuple(isRead, scratch.file.GetPosition()),
                std::tuple(version <= readUpTo, version <= readUpTo ? body.size() : 0));
      scratch.Fill({});
      bool written = false;
      if constexpr (std::is_invocable_v<decltype(write), R&, CFile&, unsigned long, unsigned short>)
        written = (record.*write)(scratch.file, 0, version);
      else
        written = (record.*write)(scratch.file, version);
      EXPECT_EQ(std::tuple(written, scratch.file.GetLength()),
                std::tuple(version <= writtenUpTo, version <= writtenUpTo ? body.size() : 0));
    }
  };
  check(&Open<CKespNote>::ReadOldVersions, &Open<CKespNote>::WriteOldVersions, 1, 1);
  check(&Open<CKespPoint>::ReadOldVersions, &Open<CKespPoint>::WriteOldVersions, 1, 1);
  check(&Open<CKespTavoHeader>::ReadOldVersions, &Open<CKespTavoHeader>::WriteOldVersions, 1, 1);
  using F = OpenVersions<CKespFeature>;
  using A = OpenVersions<CKespAttribute>;
  check(&F::ReadVersion1, &F::WriteVersion1, 1, 1), check(&A::ReadVersion1, &A::WriteVersion1, 1, 1);
  check(&F::ReadVersion2, &F::WriteVersion2, 2, 3), check(&A::ReadVersion2, &A::WriteVersion2, 2, 3);
  check(&F::ReadVersion3, &F::WriteVersion3, 3, 3), check(&A::ReadVersion3, &A::WriteVersion3, 3, 3);
}

TEST(Bodies, OfNewRecordsAreZerosButForAFewDefaults) {
  Scratch scratch;
  CKespFeature feature;
  CKespPoint point;
  CKespAttribute attribute;
  CKespTavoHeader header;
  for (CKespRecord* const record : std::initializer_list<CKespRecord*>{&feature, &point, &attribute, &header}) {
    const auto [type, version] = std::pair(record->m_recordType, record->m_recordVersion);
    EXPECT_EQ(scratch.Body(*record, 0),
              Body(type, version, {{"kind", 1}, {"created", header.CreationTime}, {"kespVersion", 2}}));
  }
}

struct TextLimit {
  std::uint16_t version;
  int most, field;  // characters that a writer stores; that a field without a zero gives
};
template <class Record>
void CheckTexts(std::initializer_list<CString Record::*> texts, std::initializer_list<TextLimit> limits) {
  Scratch scratch;
  const std::u16string x300(300, u'x');
  for (const auto text : texts) {
    for (const auto& [version, most, field] : limits) {
      SCOPED_TRACE(testing::Message() << typeid(Record).name() << version << ' ' << field);
      Record from, to;
      to.m_recordVersion = version;
      const CString odd(version == 1 ? u"a\u00FF" : std::u16string{0xDC00, u'a', 0xFFFF, 0xD800});  // no whole pairs
      const std::pair<CString, CString> kCases[] = {{CString(x300), CString(x300).Left(most)},
                                                    {CString(std::u16string_view(u"a\0b", 3)), u"a"},
                                                    {version == 1 ? CString(u"a\u00FF\u0100b") : odd, odd}};
      for (const auto& [written, read] : kCases) {
        from.*text = written;
        EXPECT_TRUE(scratch.Read(to, scratch.Body(from, version)));
        EXPECT_EQ((to.*text).ToUtf8(), read.ToUtf8());
      }
      (void)scratch.Read(to, ByteVector(to.GetLength(0), 0x78));
      EXPECT_EQ((to.*text).GetLength(), field);
    }
  }
}

TEST(Bodies, TextsAreCutToTheirFieldsAndTakenWholeFromThem) {
  CheckTexts({&CKespFeature::FeatureName}, {{1, 20, 22}, {2, 20, 21}, {3, 255, 256}});
  CheckTexts({&CKespPoint::PointText}, {{1, 20, 22}, {2, 20, 21}});
  CheckTexts({&CKespAttribute::AttributeName, &CKespAttribute::AuxText}, {{1, 20, 22}, {2, 20, 21}});
  CheckTexts({&CKespAttribute::TextValue}, {{1, 40, 41}, {2, 40, 41}, {3, 255, 256}});
  CheckTexts({&CKespNote::NoteText}, {{1, 255, 256}, {2, 255, 256}});
  CheckTexts({&CKespTavoHeader::HeaderText5}, {{1, 127, 128}, {2, 127, 128}});
}

TEST(Bodies, VersionsFollowTheirTables) {
  constexpr int kAny = -1;  // not checked here
  const struct {
    std::unique_ptr<CKespRecord> record;
    unsigned type, newest;
    int lengths[4];        // of record versions 1 to 4
    int recordVersion[5];  // for file versions 0 to 4
    int oldestFile[4];     // for record versions 1 to 4; 0 for none
    int readsUnknown, writesUnknown;
  } kClasses[] = {
      {std::make_unique<CKespFeature>(), 1, 3, {34, 54, 524, 0}, {3, 1, 3, 3, 3}, {1, 2, 2, 0}, false, true},
      {std::make_unique<CKespPoint>(), 2, 2, {68, 108, 0, 0}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, false, false},
      {std::make_unique<CKespTavoHeader>(), 3, 2, {928, 4086, 0, 0}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, false, false},
      {std::make_unique<CKespFeatureEnd>(), 4, 1, {4, 4, 4, 4}, {1, 1, 1, 1, 1}, {1, 0, 0, 0}, kAny, true},
      {std::make_unique<CKespAttribute>(), 5, 3, {138, 240, 1712, 0}, {3, 1, 3, 3, 3}, {1, 2, 3, 0}, true, false},
      {std::make_unique<CKespNote>(), 6, 2, {256, 512, 0, 0}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, false, false},
      {std::make_unique<CKespTag>(), 9, 2, {16, 16, 16, 16}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, kAny, false},
      {std::make_unique<CKespBrokenRecord>(), 15, 0, {0, 0, 0, 0}, {2, 2, 2, 2, 2}, {1, 2, 0, 0}, false, true}};
  Scratch scratch;
  for (const auto& c : kClasses) {
    SCOPED_TRACE(c.type);
    CKespRecord& record = *c.record;
    EXPECT_EQ(record.m_recordType, c.type);
    EXPECT_EQ(record.m_recordVersion, c.newest);
    EXPECT_EQ(record.m_flags | record.m_filePosition | record.m_error, 0u);
    for (unsigned short v = 0; v <= 4; ++v)
      EXPECT_EQ(record.GetRecordVersionFromKespVersion(v), c.recordVersion[v]) << v;
    for (unsigned short version = 1; version <= 4; ++version) {
      EXPECT_EQ(record.GetLength(version), static_cast<unsigned long>(c.lengths[version - 1])) << version;
      record.m_recordVersion = version;
      for (const unsigned short asked : {version, static_cast<unsigned short>(0)}) {
        unsigned short oldest = 0;  // which an unknown version leaves
        EXPECT_EQ(record.GetMinimumKespVersionFromRecordVersion(oldest, asked), c.oldestFile[version - 1] != 0);
        EXPECT_EQ(oldest, c.oldestFile[version - 1]) << version;
      }
    }
    for (const unsigned short version : std::initializer_list<unsigned short>{0, 4, 7}) {
      EXPECT_EQ(scratch.Body(record, version).size(), c.type == 4 ? 4u : 0u) << version;
      EXPECT_EQ(scratch.written, c.writesUnknown != 0) << version;
    }
    if (c.readsUnknown == kAny) continue;
    EXPECT_EQ(scratch.Read(record, Hex("ff*5000")), c.readsUnknown != 0);
    EXPECT_EQ(record.GetError() | scratch.file.GetPosition(), 0u);
  }
}

}  // namespace
}  // namespace kesp::test
