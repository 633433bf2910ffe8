// The flag word, and what single record classes do on purpose and unlike the others.
#include <gtest/gtest.h>

#include <ctime>

#include "kesp/kesp.h"
#include "kesp/memory/ObjectPool.h"
#include "tests/records/Scratch.h"

namespace kesp::test {
namespace {

struct Filter : CKespNote {
  using CKespRecord::FilterSourceFlagsForZelk;
  using CKespRecord::RestoreHistoricalFlags;
};

TEST(Allocation, DoesWhatTheLanguagePromises) {
  struct alignas(64) Aligned : CKespNote {};
  struct Refusing : CKespPoint {
    Refusing() { throw CInvalidArgException(); }
    double more[4] = {};
  };
  struct LargeRefusing : Refusing {  // not from the pool
    double evenMore[200] = {};
  };
  const std::int64_t held = PoolBytesHeld();
  for (int times = 0; times < 10'000; ++times) (void)std::make_unique<CKespNote>();
  EXPECT_LE(PoolBytesHeld() - held, 64 << 10) << "the same memory again";
  for (int times = 0; times < 8; ++times) {
    const std::unique_ptr<CKespNote> plain(new CKespNote), careful(new (std::nothrow) CKespNote);
    EXPECT_NE(careful, nullptr);
    const std::unique_ptr<Aligned> aligned(new Aligned), both(new (std::nothrow) Aligned);
    for (const auto* const one : {aligned.get(), both.get()}) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(one) % 64, 0u);
    EXPECT_THROW((void)new (std::nothrow) Refusing, CException);  // and gives the memory back
    EXPECT_THROW((void)new (std::nothrow) LargeRefusing, CException);
  }
}
// Exceptions are those of the library and of the language, each by one way only.
template <class From, class To>
constexpr bool kIs = std::is_convertible_v<From*, To*>;
static_assert(kIs<CMemoryException, std::bad_alloc> && kIs<CMemoryException, CException>);
static_assert(kIs<CInvalidArgException, std::exception> && kIs<CFileException, std::exception>);

TEST(Flags, AreReducedInOrder) {
  const struct {
    std::uint32_t flags, filtered;
    // clang-format off
  } kCases[] = {
      {0, 0}, {0x01, 0x01}, {0x08, 0x08}, {0x80, 0x80}, {0xFFFFFFFF, 0xFFFFFFFF},
      {0x14, 0x00}, {0x114, 0x100}, {0x11, 0x01}, {0x15, 0x05},       // deleted and restored, and deleted again
      {0x03, 0x01}, {0x17, 0x01}, {0x80000003, 0x01}, {0xFFFFFFFB, 0x01},  // added and deleted: nothing else stays
      {0x16, 0x02}, {0x1E, 0x202}, {0x0A, 0x202}, {0x22, 0x202}, {0x82, 0x202}, {0x1A, 0x212}, {0xEA, 0x202},
      {0x0E, 0x206}, {0x0C, 0x04}, {0x64, 0x04}, {0x0D, 0x05}, {0x104, 0x104},
      {0x60, 0x1080}, {0xE0, 0x1080}, {0x68, 0x1088}, {0x70, 0x1090}, {0x61, 0x1081},
      {0xA0, 0xA0}, {0xC0, 0xC0}, {0x28, 0x28}, {0x09, 0x09}, {0x100, 0x100}, {0x102, 0x102}, {0x80000000, 0x80000000},
  };
  // clang-format on
  Filter filter;
  for (const auto& c : kCases) EXPECT_EQ(filter.FilterSourceFlagsForZelk(c.flags), c.filtered) << std::hex << c.flags;
  constexpr std::uint32_t kMarks[] = {0x08, 0x02, 0x40, 0x20, 0x80, 0};
  for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(filter.RestoreHistoricalFlags(0x100u << i), 0x100u << i | kMarks[i]);
  EXPECT_EQ(filter.m_flags, 0u);
}

TEST(Flags, FollowWhatHappensToTheRecord) {
  constexpr std::uint32_t kDelete = 0x10000, kClear = 0x20000;  // else a source flag
  const struct {
    std::uint32_t flags, event, result;
    // clang-format off
  } kCases[] = {
      {0, kDelete, 0x05}, {0x02, kDelete, 0x01}, {0x08, kDelete, 0x05}, {0x01, kDelete, 0x01}, {0x10, kDelete, 0x05},
      {0x01, kClear, 0x10}, {0x05, kClear, 0}, {0x100, kClear, 0x108}, {0x205, kClear, 0x202},
      {0x200, kDelete, 0x205},  // history is not revived
      {0x202, 8, 0x202}, {0x1080, 0x60, 0x1080}, {0x1000, 2, 0x1202}, {0x100, 0, 0x108}, {0x04, 8, 0x04},
      {0x01, 2, 0x01},
  };
  // clang-format on
  for (const auto& c : kCases) {
    CKespNote record;
    record.m_flags = c.flags;
    if (c.event == kDelete) record.SetDelete();
    if (c.event == kClear) record.ClearDelete();
    if (c.event < kDelete) record.SetSourceFlag(c.event);
    EXPECT_EQ(record.m_flags, c.result) << std::hex << c.flags << ' ' << c.event;
    EXPECT_EQ(record.IsDeleted(), (c.result & 1) != 0);
  }
}

// The others first differ in what is no part of the key, then in one part of it.
TEST(Records, AreTheSameByTheirKeys) {
  CKespFeature feature, feature2;
  CKespFeatureEnd end, end2;
  CKespPoint point, point2, point3;
  CKespAttribute attribute, attribute2, attribute3;
  CKespNote note, note2;
  CKespTavoHeader header;
  CKespBrokenRecord broken;
  CKespRecord* const kAll[] = {&feature, &end, &point, &attribute, &note, &header, &broken};
  for (CKespRecord* a : kAll) {
    for (CKespRecord* b : kAll) EXPECT_EQ(a->IsSameKespRecord(b), a == b && a != &header && a != &broken);
    EXPECT_FALSE(a->IsSameKespRecord(nullptr));
  }
  point2.CoordX = attribute2.Value = 5, feature2.FeatureName = point2.PointText = u"other";
  CKespRecord* const kOthers[] = {&feature2, &end2, &point2, &attribute2, &point3, &attribute3};
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(kAll[i]->IsSameKespRecord(kOthers[i])) << i;
  const auto renumber = [](auto&... record) { return (record.SetFeatureNumber(70'000, 2) && ...); };
  CKespFeaturePtPair pair(1, 2);
  EXPECT_TRUE(renumber(feature2, end2, point3, attribute2, pair));
  EXPECT_EQ(std::tuple(pair.FeatureNumber, pair.PointNumber), std::tuple(70'000, 2));
  EXPECT_EQ(std::tuple(feature2.FeatureNumber, end2.FeatureNumber), std::tuple(70'000, 70'000));
  EXPECT_EQ(std::tuple(point3.FeatureNumber, attribute2.FeatureNumber), std::tuple(70'000, 70'000));
  point2.PointNumber = 1, attribute3.AttributeName = u"type";
  attribute.AttributeName = attribute2.AttributeName = u"Type";
  for (int i = 0; i < 6; ++i) EXPECT_FALSE(kAll[i < 4 ? i : i - 2]->IsSameKespRecord(kOthers[i])) << i;
  for (const auto& [a, b, same] :
       {std::tuple{"Tree stump", "Tree line", true}, {"BMC:a", "bmc:a", false}, {"ab", "abc", false}}) {
    note.NoteText = a, note2.NoteText = b;
    EXPECT_EQ(note.IsSameKespRecord(&note2), same) << a;
  }
}

TEST(Header, Version1IsReadOtherwiseThanWritten) {
  Scratch scratch;
  CKespTavoHeader header;
  EXPECT_LE(std::time(nullptr) - header.CreationTime, 5);
  header.m_recordVersion = 1, header.HeaderText6 = u"gone", header.PointCount = 7;
  EXPECT_TRUE(scratch.Read(header, Hex("01000000 11121314 2122 't1' 00*916")));
  EXPECT_FALSE(header.WasCleanClose());
  EXPECT_EQ(std::tuple(header.CreationTime, header.HeaderShort, header.KespVersion), std::tuple(0x14131211, 0x2221, 1));
  EXPECT_EQ(std::tuple(header.HeaderText6.ToUtf8(), header.PointCount), std::tuple("", 0)) << "version 1 has none";
  header.SetCleanClose(true);
  EXPECT_EQ(scratch.Body(header, 1), Hex("00*10 't1' 00*916"));
  for (const unsigned short version : std::initializer_list<unsigned short>{0, 1, 2, 3}) {
    CKespTavoHeader other;
    other.KespVersion = 3, other.StatusFlags = 6;
    other.SetCleanClose(true);
    const ByteVector body = scratch.Body(other, version);
    EXPECT_EQ(std::tuple(scratch.written, other.KespVersion), std::tuple(version != 3, version == 0 ? 3 : version));
    EXPECT_TRUE(body.size() < 4086 || std::tuple(body[2868], body[0]) == std::tuple(other.KespVersion, 7)) << version;
  }
}

TEST(Point, NumbersAreWidenedWithoutSignAndOldStatusesEndAt10) {
  Scratch scratch;
  for (const auto& [stored, old] : {std::pair{9u, 9u}, {11, 10}, {65535, 10}}) {
    for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2}) {
      CKespPoint point, back;
      point.GpsNumber = 70000, back.m_recordVersion = version, back.GpsNumber = 5;
      point.SignalStatus = static_cast<KESP_SIGNAL_STATUS>(0x10000 | stored);
      back.SetOffset(2.5, -1.0);
      EXPECT_TRUE(scratch.Read(back, scratch.Body(point, version)));
      EXPECT_EQ(back.SignalStatus, version == 1 ? old : stored);
      // Version 1 has no offset and leaves it.
      EXPECT_EQ(std::tuple(back.GpsNumber, back.HasOffset), std::tuple(version == 1 ? 0 : 4464, version == 1));
    }
  }
  CKespPoint kept;
  kept.SetOffset(1, 2);
  kept.HasOffset = 2;
  double first = 0, second = 0;
  EXPECT_FALSE(kept.GetOffset(first, second));
  EXPECT_EQ(std::tuple(first, second), std::tuple(1, 2));
}

TEST(Attribute, OnlyVersion1ReportsABadKind) {
  Scratch scratch;
  for (const int kind : {0, 1, 5, 6}) {
    for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2, 3}) {
      const bool known = kind == 1 || kind == 5, good = known || version > 1;
      CKespAttribute from, to;
      from.AttributeKind = kind, from.AuxText = u"after it", to.m_recordVersion = version;
      EXPECT_EQ(scratch.Read(to, scratch.Body(from, version)), good) << kind << ' ' << version;
      EXPECT_EQ(to.AttributeKind, known || version == 1 ? kind : 2) << kind << ' ' << version;
      EXPECT_EQ(to.GetError(), good ? KESP_ERROR_NONE : KESP_ERROR_ATTRIBUTE_TYPE);
      EXPECT_EQ(to.AuxText, CString("after it"));
    }
  }
  // The flag 0x100 shows how often it is applied on the way to the body: a second time revives what the first left.
  // clang-format off
  const std::tuple<std::uint16_t, std::uint16_t, std::uint32_t> kVersions[] = {
      {3, 1, 0}, {3, 2, 0x100}, {3, 3, 0x100}, {3, 0, 0x100}, {2, 0, 0x108}, {1, 0, 0x100}, {3, 4, 0x100}};
  // clang-format on
  for (const auto& [own, version, flags] : kVersions) {
    CKespAttribute attribute;
    attribute.m_recordVersion = own;
    EXPECT_EQ(scratch.Body(attribute, version, 0x100).empty(), version == 4);
    EXPECT_EQ(std::tuple(scratch.written, attribute.m_flags), std::tuple(version != 4, flags)) << own << version;
  }
}

TEST(Attribute, ShowsAndComparesItsValue) {
  CKespAttribute a;
  a.TextValue = u"Oak", a.Decimals = 1;
  // clang-format off
  const std::tuple<int, double, const char*, const char*> kShown[] = {
      {0, 1, "Red", ""}, {1, 1, "Red", "Oak"}, {2, 45000, "Red", "45,000.0"}, {3, 1, "", "Oak"},
      {3, 1, "Red", "Oak/Red"}, {4, 45000, "Red", "03/15/2023"}, {5, 1, "Red", ""}};
  const std::tuple<const char*, const char*, double, bool> kOthers[] = {
      {"Oak", "Red", 1, true}, {"Oak", "red", 1, false}, {"Elm", "Red", 1, false}, {"Oak", "Red", 2, false}};
  // clang-format on
  for (const auto& [kind, value, sub, text] : kShown) {
    a.AttributeKind = kind, a.Value = value, a.SubValue = sub;
    EXPECT_EQ(a.GetAsFormatedString(false).ToUtf8(), text) << kind;
  }
  for (const auto& [text, sub, value, same] : kOthers) {
    CKespAttribute b;
    b.AttributeName = u"other", b.TextValue = text, b.SubValue = sub, b.Value = value;
    EXPECT_EQ(a.IsEqual(b), same);
  }
  a.FormAppearance.SetPosition({1, 2, 3, 4}, {5, 6, 7, 8}, true);
  a.FormAppearance.SetPosition({5, 6, 7, 8}, {1, 2, 3, 4}, false);
  EXPECT_TRUE(a.HasFormPosition()) << "the mark stays";
  EXPECT_TRUE(a.FormAppearance.m_position.m_first == CRect(5, 6, 7, 8));
}

}  // namespace
}  // namespace kesp::test
