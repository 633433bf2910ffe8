// What holds for the bodies of every record class: their bytes, their texts, their versions.
#include <gtest/gtest.h>

#include <functional>
#include <type_traits>

#include "kesp/kesp.h"
#include "tests/records/Scratch.h"

namespace kesp::test {
namespace {

using Owned = std::unique_ptr<CKespRecord>;

struct BodyCase {
  const char* name;
  std::uint16_t version;
  std::function<Owned()> make, fresh;
  std::function<Owned(const CKespRecord&)> copy;
  KESP_ERROR_TYPE shortError;
  ByteVector bytes;
};

template <class Record, class SetUp>
BodyCase Case(const char* name, std::uint16_t version, SetUp setUp, const char* hex,
              KESP_ERROR_TYPE shortError = KESP_ERROR_EOF) {
  const auto fresh = [version] {
    auto record = std::make_unique<Record>();
    record->m_recordVersion = version;
    return record;
  };
  const auto make = [fresh, setUp] {
    auto record = fresh();
    setUp(*record);
    return record;
  };
  const auto copy = [](const CKespRecord& from) {
    auto record = std::make_unique<Record>(static_cast<const Record&>(from));
    if constexpr (std::is_copy_assignable_v<Record>) {
      const Record constructed(*record);
      *record = Record();
      *record = constructed;
    }
    return record;
  };
  return {name, version, make, fresh, copy, shortError, Hex(hex)};
}

void SetFeature(CKespFeature& f) {
  f.FeatureNumber = 0x04030201, f.FeatureName = u"Oak", f.FeatureType = KESP_FEATURE_AREA, f.Color = 0x14131211;
  f.SymbolIndex = 0x2221;
}
void SetOldPoint(CKespPoint& p) {
  p.FeatureNumber = 0x04030201, p.PointNumber = 0x14131211, p.PointText = u"P7", p.PointTime = -2, p.CoordY = 1;
  p.CoordX = 2, p.CoordZ = -2.5, p.GpsValue = 0.5, p.SignalStatus = KESP_SIGNAL_STATUS_9;
}
void SetPoint(CKespPoint& p) {
  SetOldPoint(p);
  p.SignalStatus = static_cast<KESP_SIGNAL_STATUS>(0xFFFE), p.GpsNumber = 0x2221;
  p.SetOffset(3, 4);
}
void SetOldAttribute(CKespAttribute& a) {
  a.FeatureNumber = 0x04030201, a.AttributeName = u"Kind", a.AttributeKind = KESP_ATTRIBUTE_MENU;
  a.TextValue = u"Oak", a.SubValue = u"Red", a.Value = 1, a.AuxNumber1 = 2, a.AuxNumber2 = 3, a.Decimals = 0x2221;
  a.AuxText = u"aux";
}
void SetAttribute(CKespAttribute& a) {
  SetOldAttribute(a);
  a.AuxNumber3 = 4, a.AuxNumber4 = 5;
}
void SetOldHeader(CKespTavoHeader& h) {
  h.CreationTime = 0, h.HeaderText1 = u"t1", h.HeaderText2 = u"t2", h.HeaderText3 = u"t3", h.HeaderText4 = u"t4";
  h.HeaderText5 = u"t5";
}
void SetHeader(CKespTavoHeader& h) {
  SetOldHeader(h);
  h.StatusFlags = 0x04030207, h.CreationTime = 0x14131211, h.HeaderShort = 0x2221, h.HeaderText6 = u"t6";
  h.HeaderText7 = u"t7", h.KespVersion = 2, h.ExtentMinX = 1, h.ExtentMaxX = 2, h.ExtentMinY = 3, h.ExtentMaxY = 4;
  h.DataExtent1 = 5, h.DataExtent2 = 6, h.DataExtent3 = 7, h.DataExtent4 = 8, h.PointCount = 0x31;
  h.FeatureCount = 0x32, h.SpareCount = 0x33, h.FirstPointTime = 0x34, h.LastPointTime = 0x80000035;
  h.LastPointText = u"lp", h.SlotWord1 = 0x41, h.SlotText1 = u"s1", h.SlotWord2 = 0x42, h.SlotText2 = u"s2";
  h.SlotWord3 = 0x43, h.SlotBytes3.fill(0x51), h.SlotBytes3[1] = 0, h.SlotWord4 = 0x44, h.SlotBytes4.fill(0x52);
  h.SlotBytes4[15] = 0;
}

const std::vector<BodyCase>& Cases() {
  static const std::vector<BodyCase> cases = {
      // clang-format off
      Case<CKespFeature>("feature 1", 1, SetFeature, "01020304 'Oak' 00*19 0300 11121314 2122"),
      Case<CKespFeature>("feature 2", 2, SetFeature, "01020304 \"Oak\" 00*36 0300 11121314 2122"),
      Case<CKespFeature>("feature 3", 3, SetFeature, "01020304 \"Oak\" 00*506 0300 11121314 2122"),
      Case<CKespFeatureEnd>("end", 1, [](CKespFeatureEnd& e) { e.FeatureNumber = 0x84030201; }, "01020384"),
      Case<CKespPoint>("point 1", 1, SetOldPoint,
                       "01020304 11121314 'P7' 00*20 feffffff 00*6 f03f 00*7 40 00*6 04c0 00*6 e03f 0900"),
      Case<CKespPoint>("point 2", 2, SetPoint,
                       "01020304 11121314 \"P7\" 00*38 feffffff 00*6 f03f 00*7 40 00*6 04c0 00*6 e03f feff 2122 0100"
                       "00*6 0840 00*6 1040"),
      Case<CKespAttribute>("attribute 1", 1, SetOldAttribute,
                           "01020304 'Kind' 00*18 0300 'Oak' 00*38 'Red' 00*18 00*6 f03f 00*7 40 00*6 0840 2122"
                           "'aux' 00*19"),
      Case<CKespAttribute>("attribute 2", 2, SetOldAttribute,
                           "01020304 \"Kind\" 00*34 0300 \"Oak\" 00*76 \"Red\" 00*36 00*6 f03f 00*7 40 00*6 0840 2122"
                           "\"aux\" 00*36"),
      Case<CKespAttribute>("attribute 3", 3, SetAttribute,
                           "01020304 \"Kind\" 00*504 0300 \"Oak\" 00*506 \"Red\" 00*506 00*6 f03f 00*7 40 00*6 0840"
                           "2122 \"aux\" 00*122 00*6 1040 00*6 1440"),
      Case<CKespNote>("note 1", 1, [](CKespNote& n) { n.NoteText = u"T\u00FFz"; }, "54 ff 7a 00*253"),
      Case<CKespNote>("note 2", 2, [](CKespNote& n) { n.NoteText = u"T\u20AC"; }, "5400 ac20 00*508"),
      Case<CKespNote>("empty note", 2, [](CKespNote&) {}, "00*512"),
      Case<CKespTavoHeader>("header 1", 1, SetOldHeader,
                            "00*10 't1' 00*19 't2' 00*254 't3' 00*254 't4' 00*254 't5' 00*126 00"),
      Case<CKespTavoHeader>("header 2", 2, SetHeader,
          "07020304 11121314 2122 \"t1\" 00*38 \"t2\" 00*508 \"t3\" 00*508 \"t4\" 00*508 \"t5\" 00*252 \"t6\" 00*508"
          "\"t7\" 00*508 02000000 00*6 f03f 00*7 40 00*6 0840 00*6 1040 00*6 1440 00*6 1840 00*6 1c40 00*6 2040"
          "31000000 32000000 33000000 34000000 35000080 \"lp\" 00*38 41000000 \"s1\" 00*508 42000000 \"s2\" 00*508"
          " 43000000 51 00 51*30 44000000 52*15 00",
          KESP_ERROR_APP_HEADER),
      Case<CKespTag>("tag", 2, [](CKespTag& t) { t.Set("ab", -2); }, "01000000 14000000 08000000 \"ab\" 00*4 04000000 feffffff"),
      // clang-format on
  };
  return cases;
}

// A header's Read begins by making everything new, its creation time included; that one is left out of comparing.
ByteVector BodyButTime(Scratch& scratch, CKespRecord& record) {
  ByteVector bytes = scratch.Body(record, 0);
  if (record.m_recordType == KESP_RECORD_HEADER && bytes.size() >= 8)
    std::fill_n(bytes.begin() + 4, 4, std::uint8_t{0});
  return bytes;
}

TEST(Bodies, StandByteForByteInTheFile) {
  Scratch scratch;
  for (const BodyCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    const Owned record = c.make();
    EXPECT_TRUE(record->GetLength(c.version) == c.bytes.size() && record->GetLength(0) == c.bytes.size());
    EXPECT_EQ(scratch.Body(*record, c.version), c.bytes);
    EXPECT_EQ(scratch.Body(*record, 0), c.bytes) << "in its own version";

    const Owned back = c.fresh();
    back->m_error = c.name == std::string("feature 1") ? KESP_ERROR_NONE : KESP_ERROR_BAD_RECORD;
    ASSERT_TRUE(scratch.Read(*back, c.bytes + Hex("ff")));
    EXPECT_EQ(back->GetError(), KESP_ERROR_NONE);
    EXPECT_EQ(scratch.file.GetPosition(), c.bytes.size());
    back->m_filePosition = 77, back->m_flags = 0x1202;
    const Owned copy = c.copy(*back);
    EXPECT_EQ(scratch.Body(*copy, c.version), c.bytes);
    EXPECT_TRUE(copy->m_recordType == record->m_recordType && copy->m_recordVersion == c.version);
    EXPECT_TRUE(copy->m_filePosition == 77 && copy->m_flags == 0x1202);
  }
}

TEST(Bodies, CutShortAnywhereStoreNothing) {
  Scratch scratch;
  for (const BodyCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    if (c.name == std::string("tag")) continue;  // keeps its kind and length; see KespTagTest
    const bool raises = c.name == std::string("feature 1");
    const Owned record = c.fresh();
    const ByteVector before = BodyButTime(scratch, *record);
    scratch.Fill(c.bytes);
    for (std::size_t size = c.bytes.size(); size-- > 0;) {
      scratch.file.SetLength(size);
      scratch.file.SeekToBegin();
      record->m_error = KESP_ERROR_NONE;
      if (raises) {
        EXPECT_THROW(record->Read(scratch.file), CFileException) << size;
      } else {
        EXPECT_FALSE(record->Read(scratch.file)) << size;
      }
      ASSERT_EQ(record->GetError(), c.shortError) << size;
      ASSERT_EQ(scratch.file.GetPosition(), size);
    }
    EXPECT_EQ(BodyButTime(scratch, *record), before);
  }
}

// A feature's version 1 is the one that lets the file's error out, unless its writing came by way of version 3.
TEST(Bodies, AFileErrorWhileWritingIsAnsweredWithFalse) {
  TempDir dir;
  WriteFile(dir / "file", {});
  CFile file(Text(dir / "file"), CFile::modeRead);
  for (const BodyCase& c : Cases()) {
    const Owned record = c.make();
    if (c.name == std::string("feature 1")) {
      EXPECT_THROW(record->Write(file, 0, 1), CFileException);
    } else {
      EXPECT_FALSE(record->Write(file, 0, c.version)) << c.name;
    }
    EXPECT_FALSE(record->Write(file, 0, 0)) << c.name;
  }
}

struct TextLimit {
  std::uint16_t version;
  int most, field;  // characters that a writer stores; that a field without a zero gives
};
template <class Record>
void CheckText(CString Record::*text, std::initializer_list<TextLimit> limits) {
  Scratch scratch;
  for (const TextLimit& limit : limits) {
    SCOPED_TRACE(testing::Message() << typeid(Record).name() << limit.version << ' ' << limit.field);
    const auto reread = [&](const CString& value) {
      Record from;
      from.*text = value;
      Record to;
      to.m_recordVersion = limit.version;
      EXPECT_TRUE(scratch.Read(to, scratch.Body(from, limit.version)));
      return to.*text;
    };
    const CString longText = CString::FromLatin1(std::string(300, 'x'));
    for (const CString& text16 : {longText, longText.Left(limit.most)})
      EXPECT_EQ(reread(text16).GetLength(), limit.most);
    EXPECT_EQ(reread(std::u16string_view(u"a\0b", 3)), CString(u"a"));
    if (limit.version == 1) {
      EXPECT_EQ(reread(u"a\u00FF\u0100b"), CString(u"a\u00FF"));
    } else {
      const CString odd(std::u16string{0xDC00, u'a', 0xFFFF, 0xD800});
      EXPECT_EQ(reread(odd), odd) << "surrogates by themselves and non-characters";
    }
    Record full;
    full.m_recordVersion = limit.version;
    (void)scratch.Read(full, ByteVector(full.GetLength(0), 0x78));
    const char16_t unit = limit.version == 1 ? u'\x78' : u'\x7878';
    EXPECT_EQ(full.*text, CString(std::u16string(static_cast<std::size_t>(limit.field), unit)));
  }
}

TEST(Bodies, TextsAreCutToTheirFieldsAndTakenWholeFromThem) {
  CheckText(&CKespFeature::FeatureName, {{1, 20, 22}, {2, 20, 21}, {3, 255, 256}});
  CheckText(&CKespPoint::PointText, {{1, 20, 22}, {2, 20, 21}});
  CheckText(&CKespAttribute::AttributeName, {{1, 20, 22}, {2, 20, 21}, {3, 255, 256}});
  CheckText(&CKespAttribute::TextValue, {{1, 40, 41}, {2, 40, 41}, {3, 255, 256}});
  CheckText(&CKespAttribute::SubValue, {{1, 20, 21}, {2, 20, 21}, {3, 255, 256}});
  CheckText(&CKespAttribute::AuxText, {{1, 20, 22}, {2, 20, 21}, {3, 63, 64}});
  CheckText(&CKespNote::NoteText, {{1, 255, 256}, {2, 255, 256}});
  CheckText(&CKespTavoHeader::HeaderText1, {{1, 20, 21}, {2, 20, 21}});
  for (const auto text :
       {&CKespTavoHeader::HeaderText2, &CKespTavoHeader::HeaderText3, &CKespTavoHeader::HeaderText4}) {
    CheckText(text, {{1, 255, 256}, {2, 255, 256}});
  }
  CheckText(&CKespTavoHeader::HeaderText5, {{1, 127, 128}, {2, 127, 128}});
  CheckText(&CKespTavoHeader::LastPointText, {{2, 20, 21}});
  using Header = CKespTavoHeader;
  for (const auto text : {&Header::HeaderText6, &Header::HeaderText7, &Header::SlotText1, &Header::SlotText2})
    CheckText(text, {{2, 255, 256}});
}

TEST(Bodies, VersionsFollowTheirTables) {
  constexpr int kAny = -1;  // what is not asked here
  const struct {
    Owned record;
    unsigned type, newest;
    int lengths[4];        // of record versions 1 to 4
    int recordVersion[5];  // for file versions 0 to 4
    int oldestFile[4];     // for record versions 1 to 4; 0 for none
    int readsUnknown, writesUnknown;
  } kClasses[] = {
      {std::make_unique<CKespFeature>(), 1, 3, {34, 54, 524, 0}, {3, 1, 3, 3, 3}, {1, 2, 2, 0}, false, true},
      {std::make_unique<CKespPoint>(), 2, 2, {68, 108, 0, 0}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, false, false},
      {std::make_unique<CKespTavoHeader>(), 3, 2, {928, 4086, 0, 0}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, false, false},
      {std::make_unique<CKespFeatureEnd>(), 4, 1, {4, 4, 4, 4}, {1, 1, 1, 1, 1}, {1, 0, 0, 0}, kAny, kAny},
      {std::make_unique<CKespAttribute>(), 5, 3, {138, 240, 1712, 0}, {3, 1, 3, 3, 3}, {1, 2, 3, 0}, true, false},
      {std::make_unique<CKespNote>(), 6, 2, {256, 512, 0, 0}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, false, false},
      {std::make_unique<CKespTag>(), 9, 2, {16, 16, 16, 16}, {2, 1, 2, 2, 2}, {1, 2, 0, 0}, kAny, kAny},
      {std::make_unique<CKespBrokenRecord>(), 15, 0, {0, 0, 0, 0}, {2, 2, 2, 2, 2}, {1, 2, 0, 0}, false, true}};
  Scratch scratch;
  for (const auto& c : kClasses) {
    SCOPED_TRACE(c.type);
    CKespRecord& record = *c.record;
    EXPECT_TRUE(record.m_recordType == c.type && record.m_recordVersion == c.newest);
    EXPECT_EQ(record.m_flags | record.m_filePosition | record.m_error, 0u);
    for (unsigned short file = 0; file <= 4; ++file) {
      EXPECT_EQ(record.GetRecordVersionFromKespVersion(file), c.recordVersion[file]) << file;
    }
    for (unsigned short version = 1; version <= 4; ++version) {
      EXPECT_EQ(record.GetLength(version), static_cast<unsigned long>(c.lengths[version - 1])) << version;
      record.m_recordVersion = version;
      for (const unsigned short asked : {version, static_cast<unsigned short>(0)}) {
        unsigned short oldest = 99;
        const int expected = c.oldestFile[version - 1];
        EXPECT_EQ(record.GetMinimumKespVersionFromRecordVersion(oldest, asked), expected != 0) << version;
        EXPECT_EQ(oldest, expected != 0 ? expected : 99) << version;
      }
    }
    if (c.readsUnknown != kAny) {
      record.m_recordVersion = 4;
      EXPECT_EQ(scratch.Read(record, Hex("ff*5000")), c.readsUnknown != 0);
      EXPECT_TRUE(record.GetError() == KESP_ERROR_NONE && scratch.file.GetPosition() == 0);
      for (const unsigned short version : std::initializer_list<unsigned short>{0, 4, 7}) {
        EXPECT_EQ(scratch.Body(record, version), ByteVector()) << version;
        EXPECT_EQ(scratch.written, c.writesUnknown != 0) << version;
      }
    }
  }
  CKespFeatureEnd end;
  end.m_recordVersion = 7;
  EXPECT_TRUE(scratch.Read(end, Hex("05000000")) && scratch.Body(end, 7) == Hex("05000000"));
}

}  // namespace
}  // namespace kesp::test
