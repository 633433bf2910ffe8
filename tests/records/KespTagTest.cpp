#include "kesp/records/KespTag.h"

#include <gtest/gtest.h>

#include <cmath>

#include "kesp/kesp.h"
#include "tests/records/Scratch.h"
#include "tests/support/Records.h"

namespace kesp::test {
namespace {

struct OpenTag : CKespTag {
  using CKespTag::GetBinary;
};

void SetBlock(CKespTag& tag, KESP_TAG type, const ByteVector& block) {
  Scratch scratch;
  ByteVector body;
  Append(body, type, 4), Append(body, block.size(), 4);
  EXPECT_TRUE(scratch.Read(tag, body + block));
}

// Calls every getter: the names of those that returned true, and their outputs.
std::string Outputs(CKespTag& tag) {
  std::ostringstream out;
  out.precision(9);  // more than a float has
  CString name(u"-"), text(u"-");
  int integer = -1;
  double number = -1;
  CPoint3D point(9, 9, 9);
  CRect2D rect(9, 9, 9, 9);
  std::uint32_t a = 91, b = 92, c = 93, d = 94;
  unsigned long wide = 95;
  float f[4] = {1, 1, 1, 1};
  CKespFeatureLink link;
  const auto show = [&](const char* what) -> std::ostream& { return out << what << ' ' << name.ToUtf8() << ' '; };
  if (tag.GetInteger(name, integer)) show("int") << integer;
  if (tag.GetDouble(name, number)) show("double") << number;
  if (tag.GetString(name, text)) show("string") << text.ToUtf8();
  if (tag.GetPoint(name, point)) show("point") << point.x << ' ' << point.y << ' ' << point.z;
  if (tag.GetRect(name, rect)) show("rect") << rect.minX << ' ' << rect.minY << ' ' << rect.maxX << ' ' << rect.maxY;
  if (tag.GetColor(name, a) && tag.GetColor(name, wide)) show("color") << a << ' ' << wide;
  if (tag.GetGPSMark(name, a, b, c, d)) show("gps") << a << ' ' << b << ' ' << c << ' ' << d;
  if (tag.GetFileLink(a, name)) show("file") << a;
  const auto four = [&] { out << ' ' << a << ' ' << f[0] << ' ' << f[1] << ' ' << f[2] << ' ' << f[3]; };
  if (tag.GetQualityMark(a, f[0], f[1], f[2], f[3])) out << "quality", four();
  if (tag.GetFeatureLink(link))
    out << "link " << link.m_featureNumber1 << ' ' << link.m_qualifier1 << ' ' << link.m_featureNumber2 << ' '
        << link.m_qualifier2 << ' ' << link.m_linkValue << ' ' << link.m_spare << ' ' << link.m_tagRecordPosition;
  if (tag.GetQualityMarkEx(a, f[0], f[1], f[2], f[3], integer)) out << "ex", four(), out << ' ' << integer;
  EXPECT_TRUE(!out.str().empty() || std::tuple(a, f[0], f[1], f[2], f[3]) == std::tuple(91, 1, 1, 1, 1))
      << "outputs of a wrong kind";
  if (tag.GetPosErrMark(a, f[0], f[1], f[2]))
    out << "poserr " << a << ' ' << f[0] << ' ' << f[1] << ' ' << f[2];
  else
    EXPECT_EQ(f[0] + f[1] + f[2], 0) << "the only getter that clears them first";
  if (tag.GetNamedFlag(a, b, name)) show("flag") << a << ' ' << b;
  return out.str();
}

// Setters are called with plain literals or with 32-bit numbers, which also proves the overload.
TEST(Tag, EachKindHasItsBytesAndItsGetter) {
  const std::uint32_t u = 65541;  // more than 16 bits
  const std::string n = "04000000 \"n\" 0000 ", none = "04000000 00*4 ";
  CKespTag t;
  t.m_filePosition = 77;
  const auto check = [&t](bool set, KESP_TAG kind, const std::string& block, const std::string& outputs) {
    SCOPED_TRACE(block);
    EXPECT_EQ(std::tuple(set, t.GetType(), t.GetLength(1)), std::tuple(true, kind, t.m_dataLength + 8));
    EXPECT_EQ(ByteVector(t.m_pData, t.m_pData + t.m_dataLength), Hex(block));
    EXPECT_EQ(Outputs(t), outputs);
    // One byte less of payload is none at all (a text may have any length).
    if (kind == KESP_TAG_STRING || kind == KESP_TAG_POINT) return;
    --t.m_pData[4u + t.m_pData[0]];
    EXPECT_EQ(Outputs(t), "");
  };
  check(t.Set("n", -70000), KESP_TAG_INTEGER, n + "04000000 90eefeff", "int n -70000");
  check(t.Set(u"ab", 16777217.), KESP_TAG_DOUBLE, "08000000 \"ab\" 00*4 08000000 00*3 10 00*2 7041",
        "double ab 16777217");
  check(t.Set("", 1.5F), KESP_TAG_DOUBLE, none + "08000000 00*6 f83f", "double  1.5");
  check(t.Set("n", "text"), KESP_TAG_STRING, n + "0a000000 \"text\" 0000", "string n text");
  check(t.Set(L"n", CString()), KESP_TAG_STRING, n + "02000000 0000", "string n ");
  check(t.Set("n", CPoint3D(16777217, 16777219, 16777221)), KESP_TAG_POINT,
        n + "18000000 00*3 10 00*2 7041 00*3 30 00*2 7041 00*3 50 00*2 7041", "point n 16777217 16777219 9");
  check(t.Set("n", CRect2D(16777217, 16777219, 16777221, 16777223)), KESP_TAG_RECT,
        n + "20000000 00*3 10 00*2 7041 00*3 30 00*2 7041 00*3 50 00*2 7041 00*3 70 00*2 7041",
        "rect n 16777217 16777219 16777221 16777223");
  check(t.Set("n", u), KESP_TAG_COLOR, n + "04000000 05000100", "color n 65541 65541");
  check(t.Set("n", 0xFF000005ul), KESP_TAG_COLOR, n + "04000000 050000ff", "color n 4278190085 4278190085");
  check(t.Set("n", 65537, 65538, 65539, 65540), KESP_TAG_GPS_MARK, n + "10000000 01000100 02000100 03000100 04000100",
        "gps n 65537 65538 65539 65540");
  check(t.Set("n", u, u + 1, u + 2, u + 3), KESP_TAG_GPS_MARK, n + "10000000 05000100 06000100 07000100 08000100",
        "gps n 65541 65542 65543 65544");
  check(t.Set(65543, "n"), KESP_TAG_FILE_LINK, n + "04000000 07000100", "file n 65543");
  check(t.Set(u, CString("n")), KESP_TAG_FILE_LINK, n + "04000000 05000100", "file n 65541");
  check(t.Set(16777217u, 2.F, 3.F, 4.F, -1.F), KESP_TAG_QUALITY_MARK,
        none + "14000000 0000804b 00000040 00004040 00008040 000080bf", "quality 16777216 2 3 4 -1");
  CKespFeatureLink link;
  link.m_featureNumber1 = 65537, link.m_qualifier1 = 65538, link.m_featureNumber2 = 65539, link.m_qualifier2 = 65540;
  link.m_linkValue = u, link.m_spare = 0xFFFFFFFF, link.m_tagRecordPosition = 9;
  check(t.Set(link), KESP_TAG_FEATURE_LINK, none + "18000000 01000100 02000100 03000100 04000100 05000100 ff*4",
        "link 65537 65538 65539 65540 65541 4294967295 77");
  check(t.Set(u, 2.F, 3.F, 4.F, 1.F, -70000), KESP_TAG_QUALITY_MARK_EX,
        none + "18000000 80028047 00000040 00004040 00008040 0000803f 00b888c7", "ex 65541 2 3 4 1 -70000");
  check(t.Set(65537, 2.F, 3.F, -1.F), KESP_TAG_POS_ERR_MARK, none + "10000000 80008047 00000040 00004040 000080bf",
        "poserr 65537 2 3 -1");
  check(t.Set(65537, 65538, "n"), KESP_TAG_NAMED_FLAG, n + "08000000 01000100 02000100", "flag n 65537 65538");
  CString flag(u"flag");
  check(t.Set(u, 65538ul, flag), KESP_TAG_NAMED_FLAG, "0c000000 \"flag\" 00*4 08000000 05000100 02000100",
        "flag flag 65541 65538");
  check(t.Set(KESP_TAG_BLOB, "n", nullptr, 3), KESP_TAG_BLOB, n + "03000000 00*3", "");
}

TEST(Tag, NothingOutsideTheBlockIsRead) {
  const struct {
    std::string block, name;
    bool good;
    bool isBlob = good;
    // clang-format off
  } kCases[] = {
      {"08000000 \"n\" 0000 \"xx\" 02000000 6162", "n", true},
      {"04000000 \"nm\" 02000000 6162", "nm", true},  // a name without a zero ends with its bytes
      {"00000000 02000000 6162", "", true}, {"03000000 610062 02000000 6162", "a", true},  // half a unit is none
      {"04000000 \"n\" 0000 00000000", "n", false, true}, {"04000000 \"n\" 0000 020000", "n", false},  // no payload
      {"04000000 \"n\" 0000 03000000 6162", "n", false}, {"04000000 \"n\" 0000 ffffffff 6162", "n", false},
      {"05000000 \"n\" 0000", "-", false}, {"fcffffff \"n\" 0000 00*8", "-", false}, {"040000", "-", false},
      {"00*4", "", false},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.block);
    OpenTag tag;
    std::vector<std::byte> blob(1);
    CString name(u"-"), blobName(u"-");
    EXPECT_FALSE(kesp::GetBlob(tag, name, blob)) << "no block";
    SetBlock(tag, KESP_TAG_BLOB, Hex(c.block));
    void* data = &name;
    int length = 7;
    EXPECT_EQ(tag.GetBinary(name, &data, length), c.good);
    const std::unique_ptr<unsigned char[]> owned(static_cast<unsigned char*>(data));
    EXPECT_EQ(name.ToUtf8(), c.name);
    EXPECT_EQ(ByteVector(owned.get(), owned.get() + length), c.good ? Hex("6162") : ByteVector());
    EXPECT_FALSE(tag.GetBinary(name, nullptr, length));
    EXPECT_EQ(kesp::GetBlob(tag, blobName, blob), c.isBlob);
    EXPECT_EQ(blobName.ToUtf8(), c.isBlob ? c.name : "-");
    EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(blob.data()), blob.size()),
              c.good ? "ab" : std::string_view("\0", c.isBlob ? 0 : 1));
    tag.m_tagType = KESP_TAG_INTEGER;
    EXPECT_FALSE(kesp::GetBlob(tag, blobName, blob));
  }
}

TEST(Tag, NumbersKeptAsFloatsComeBackAsFarAsTheyFit) {
  // clang-format off
  const std::tuple<const char*, std::uint32_t, int> kCases[] = {
      {"0000c0bf", 0, -1}, {"ffff7f4f", 0xFFFFFF00, 0}, {"0000804f", 0, 0}, {"0000004f", 0x80000000, 0},
      {"000000cf", 0, INT32_MIN}, {"010000cf", 0, 0}, {"0000c07f", 0, 0}, {"000080ff", 0, 0}};
  // clang-format on
  for (const auto& [bits, number, integer] : kCases) {
    CKespTag tag;
    SetBlock(tag, KESP_TAG_QUALITY_MARK_EX, Hex("04000000 00*4 18000000") + Hex(bits) + Hex("00*16") + Hex(bits));
    unsigned long wide = 99;
    float f = 0;
    int back = 99;
    EXPECT_TRUE(tag.GetQualityMarkEx(wide, f, f, f, f, back));
    EXPECT_EQ(std::tuple(wide, back), std::tuple(number, integer)) << bits;
  }
}

const ByteVector kInteger = Hex("01000000 10000000 04000000 \"n\" 0000 04000000 05000000");

TEST(Tag, ABodyCutShortOrTooLongIsRefusedBeforeItsBlockIsMade) {
  Scratch scratch;
  CKespTag tag;
  for (std::size_t size = 0; size < kInteger.size(); ++size) {
    tag.Set("o", 1);
    tag.m_dataPosition = 0;
    EXPECT_FALSE(scratch.Read(tag, Part(kInteger, 0, size)));
    EXPECT_EQ(tag.GetError(), KESP_ERROR_EOF);
    EXPECT_EQ(scratch.file.GetPosition(), size);
    EXPECT_EQ(Outputs(tag), size < 8 ? "int o 1" : "");
    EXPECT_EQ(tag.m_dataPosition, size < 8 ? 0u : 8u);
    (void)CKespTag(tag);
  }
  EXPECT_FALSE(scratch.Read(tag, Hex("01000000 f0ffffff 00*16")));
  EXPECT_EQ(tag.GetError(), KESP_ERROR_EOF);
  EXPECT_EQ(std::pair(scratch.Body(tag, 0), scratch.written), std::pair(ByteVector(), false));
  EXPECT_TRUE(scratch.Read(tag, kInteger + kInteger));
  EXPECT_EQ(std::tuple(tag.GetError(), scratch.file.GetPosition()), std::tuple(KESP_ERROR_NONE, kInteger.size()));
  EXPECT_EQ(scratch.Body(tag, 2), kInteger);
  CFile closedFile;
  EXPECT_FALSE(tag.Write(closedFile, 0, 2));
}

TEST(Tag, ALengthOfZeroLeavesTheBlock) {
  Scratch scratch;
  CKespTag tag, empty;
  EXPECT_TRUE(scratch.Read(empty, Hex("01000000 00000000")));
  EXPECT_EQ(Outputs(empty), "");
  EXPECT_TRUE(scratch.Body(empty, 0).empty());
  tag.Set("n", 5);
  const unsigned char* const block = tag.m_pData;
  EXPECT_TRUE(tag.Set(empty));
  EXPECT_EQ(tag.m_pData, block);
  EXPECT_EQ(scratch.Body(tag, 0), Hex("01000000 00000000"));
  tag.Set("n", 5);
  tag = *&tag, empty = tag;
  EXPECT_TRUE(empty.Set(CString(std::u16string(40'000, u'n')), 6));
  EXPECT_EQ(Outputs(empty), "int " + std::string(40'000, 'n') + " 6");
  empty = tag;
  EXPECT_EQ(Outputs(tag) + Outputs(empty), "int n 5int n 5");
}

TEST(Tag, IsTheSameWhereItWasRead) {
  Scratch scratch;
  CKespTag first, second, fresh;
  EXPECT_TRUE(scratch.Read(first, kInteger + kInteger) && second.Read(scratch.file));
  EXPECT_EQ(std::tuple(first.m_dataPosition, second.m_dataPosition), std::tuple(8, 32));
  fresh.Set("n", 5);
  first.m_filePosition = 77, first.m_flags = 0x1202;
  CKespTag copy(first), otherKind(first), otherLength(first);
  EXPECT_EQ(std::tuple(copy.m_filePosition, copy.m_flags, Outputs(copy)), std::tuple(77, 0x1202, "int n 5"));
  copy.m_pData[15] = 9, otherKind.m_tagType = KESP_TAG_COLOR, --otherLength.m_dataLength;
  EXPECT_TRUE(first.IsSameKespRecord(&copy)) << "the data is not compared";
  for (CKespTag* const other : {&second, &fresh, &otherKind, &otherLength, static_cast<CKespTag*>(nullptr)})
    EXPECT_FALSE(first.IsSameKespRecord(other));
}

// What would not fit its length fields, or could never be returned, is refused, and the tag is as it was.
TEST(Tag, RefusesAPayloadThatIsTooLong) {
  CKespTag tag;
  tag.Set("n", 5);
  for (const unsigned long length : {0x80000000UL, 0xFFFFFFECUL, 0xFFFFFFFFUL, ~0UL})
    EXPECT_THROW(tag.Set(KESP_TAG_BLOB, L"x", nullptr, length), CMemoryException) << length;
  EXPECT_EQ(Outputs(tag), "int n 5");
}
template <class... Arguments>
concept CanBeSet = requires(CKespTag& tag, Arguments... arguments) {
  tag.Set(arguments...);
};
static_assert(CanBeSet<unsigned long, const wchar_t*> && !CanBeSet<KESP_TAG, const wchar_t*>);

TEST(LinkList, RemovesInItsOwnOrder) {
  using Pairs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
  const struct {
    Pairs links;
    unsigned long a, b;
    Pairs left;
    bool raises;
  } kCases[] = {{{{5, 7}, {7, 5}, {3, 4}}, 5, 7, {{3, 4}}, false},
                {{{1, 2}, {5, 7}, {5, 7}, {5, 8}}, 7, 5, {{1, 2}, {5, 8}}, false},
                // A feature linked to itself takes the link before out too, and raises where there is none.
                {{{1, 2}, {5, 5}, {3, 4}}, 5, 5, {{3, 4}}, false},
                {{{5, 5}, {3, 4}}, 5, 5, {{3, 4}}, true}};
  for (const auto& c : kCases) {
    std::vector<CKespFeatureLink> links(c.links.size());
    CKespLinkList list;
    EXPECT_THROW(list.Add(nullptr), CInvalidArgException);
    for (std::size_t i = 0; i < links.size(); ++i) {
      std::tie(links[i].m_featureNumber1, links[i].m_featureNumber2) = c.links[i];
      list.Add(&links[i]);
    }
    EXPECT_TRUE(list.HasLink(c.links[0].second, c.links[0].first));
    EXPECT_FALSE(list.HasLink(1, 7));
    if (c.raises)
      EXPECT_THROW(list.RemoveLink(c.a, c.b), CInvalidArgException);
    else
      EXPECT_TRUE(list.RemoveLink(c.a, c.b));
    Pairs left;
    for (const CKespFeatureLink* const link : list.m_links)
      left.emplace_back(link->m_featureNumber1, link->m_featureNumber2);
    EXPECT_EQ(left, c.left);
    for (const int outside : {-1, static_cast<int>(left.size())}) EXPECT_THROW(list[outside], CInvalidArgException);
    EXPECT_EQ(list[0], list.m_links[0]);
    EXPECT_TRUE(list.RemoveLink(left.back().second));
    EXPECT_EQ(list.GetCount(), left.size() - 1);
  }
}

}  // namespace
}  // namespace kesp::test
