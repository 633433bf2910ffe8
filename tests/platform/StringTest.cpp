#include "kesp/platform/String.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "kesp/platform/Exception.h"

namespace {

std::u16string Units(const CString& text) { return std::u16string(text.View()); }

// Texts of 0 to 40 units, each operation also made on a plain string.
TEST(String, KeepsItsTextOnBothSidesOfTheInlineLimit) {
  CString kept(u"kept");
  EXPECT_THROW(kept.Resize(std::size_t{1} << 30), CMemoryException);
  EXPECT_EQ(kept, CString(u"kept"));
  std::u16string model;
  CString text;
  for (std::size_t length = 0; length <= 40; ++length) {
    SCOPED_TRACE(length);
    ASSERT_EQ(Units(text), model);
    EXPECT_EQ(text[text.GetLength()], 0);
    for (const std::size_t otherLength : {0u, 1u, 6u, 7u, 8u, 10u, 11u, 12u, 13u, 24u}) {
      const std::u16string other(otherLength, u'z');
      CString copy(text);
      copy = CString(other);
      EXPECT_EQ(Units(copy), other);
      CString moved(std::move(copy));
      EXPECT_TRUE(copy.IsEmpty()) << "a text that was moved from is empty and may be used again";
      copy = text;
      EXPECT_EQ(Units(copy + moved), model + other);
      copy += moved;
      EXPECT_EQ(Units(copy), model + other);
    }
    CString twice(text);
    twice += twice;
    CString& same = twice;
    twice = same;
    twice = std::move(same);
    EXPECT_EQ(Units(twice), model + model);
    for (std::size_t from = 0; from <= length; ++from) {
      CString part(text);
      part.Assign(part.GetString() + from, length - from);
      EXPECT_EQ(Units(part), model.substr(from)) << from;
    }
    model += static_cast<char16_t>(u'A' + length);
    text += model.back();
  }
}

TEST(String, TakesEveryByteSequenceAndGivesItBack) {
  // clang-format off
  const struct { std::string bytes; std::u16string units; std::string utf8; } kCases[] = {  // no utf8: the same bytes
      {"Oak \xC3\xBF \xE2\x82\xAC \xF0\x9F\x98\x80", u"Oak \u00FF \u20AC \U0001F600", ""},
      {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80", u"\x7F\x80\u07FF\u0800\uFFFF\U00010000", ""},
      {std::string("a\0b", 3), std::u16string(u"a\0b", 3), ""},
      {"\xED\xA0\x80-\xED\xBF\xBF", {0xD800, u'-', 0xDFFF}, ""},   // surrogates by themselves
      {"\xEF\xBF\xBF\xF4\x8F\xBF\xBF", u"\uFFFF\U0010FFFF", ""},   // non-characters
      {"\x80", {0xDC80}, "\xED\xB2\x80"},                          // no first byte
      {"\xC3", {0xDCC3}, "\xED\xB3\x83"}, {"\xE2\x82", {0xDCE2, 0xDC82}, "\xED\xB3\xA2\xED\xB2\x82"},  // cut short
      {"\xC0\xAF", {0xDCC0, 0xDCAF}, "\xED\xB3\x80\xED\xB2\xAF"},  // longer than needed, and so is the next
      {"\xE0\x9F\xBF", {0xDCE0, 0xDC9F, 0xDCBF}, "\xED\xB3\xA0\xED\xB2\x9F\xED\xB2\xBF"},
      {"\xF4\x90\x80\x80", {0xDCF4, 0xDC90, 0xDC80, 0xDC80}, "\xED\xB3\xB4\xED\xB2\x90\xED\xB2\x80\xED\xB2\x80"},
      {"\xFF-", {0xDCFF, u'-'}, "\xED\xB3\xBF-"}};
  // clang-format on
  for (const auto& c : kCases) {
    const CString text(c.bytes);
    EXPECT_EQ(Units(text), c.units) << c.bytes;
    EXPECT_EQ(text.ToUtf8(), c.utf8.empty() ? c.bytes : c.utf8) << c.bytes;
    EXPECT_EQ(CString(text.ToUtf8()), text) << c.bytes;
#ifdef _WIN32
    EXPECT_EQ(text.ToPathBytes(), text.ToUtf8()) << "the name is UTF-16";
#else
    EXPECT_EQ(text.ToPathBytes(), c.bytes) << "the name on the disk";
#endif
    for (std::size_t length = 240; length < 260; ++length) {  // around the end of a piece
      const std::string before(length, 'x');
      EXPECT_EQ((CString(before) + text + u"xxxxx").ToUtf8(), before + text.ToUtf8() + "xxxxx") << length << c.bytes;
    }
  }
  EXPECT_EQ(Units(CString(L"a\U0001F600\uFFFF")), u"a\U0001F600\uFFFF");
  EXPECT_EQ(Units(CString::FromLatin1("\xE4\xFF")), u"\u00E4\u00FF");
  EXPECT_EQ(CString(std::wstring(300, L'x').c_str()).GetLength(), 300);
  EXPECT_TRUE(CString(static_cast<const wchar_t*>(nullptr)).IsEmpty());
}

TEST(String, CutsFindsAndComparesUnitByUnit) {
  const CString text(u"D:\\a\\b.txt");
  EXPECT_EQ(std::tuple(text.Find(u'\\'), text.Find(u'\\', 3), text.Find(u'\\', 5)), std::tuple(2, 4, -1));
  EXPECT_EQ(std::tuple(text.Find(u"b.t"), text.Find(u'D', -7)), std::tuple(5, 0));
  EXPECT_EQ(std::tuple(text.Find(u"", 10), text.Find(u"", 11)), std::tuple(10, -1));
  EXPECT_EQ(std::tuple(text.ReverseFind(u'\\'), text.ReverseFind(u'/')), std::tuple(4, -1));
  const std::tuple<int, int, const char16_t*> kParts[] = {
      {0, 2, u"D:"}, {7, 99, u"txt"}, {-3, 1, u"D"}, {99, 1, u""}, {2, -1, u""}};
  for (const auto& [first, count, part] : kParts) EXPECT_EQ(text.Mid(first, count), CString(part)) << first;
  EXPECT_EQ(text.Left(-1) + text.Left(1) + text.Right(3) + text.Mid(9), CString(u"Dtxtt"));
  EXPECT_EQ(text.Right(99), text);
  std::u16string spaces = u"\t\n\v\f\r \x85\xA0\u1680\u2028\u2029\u202F\u205F\u3000";
  for (char16_t unit = 0x2000; unit <= 0x200A; ++unit) spaces += unit;
  EXPECT_EQ(CString(spaces + u"Oak  Red" + spaces).Trim(), CString(u"Oak  Red"));
  for (char16_t unit = 0xFFFF; unit-- != 0;)
    ASSERT_EQ(CString(std::u16string(2, unit)).Trim().IsEmpty(), spaces.find(unit) != spaces.npos) << +unit;
  // Folding touches A to Z only; order is that of the units, not of the characters they make.
  const struct {
    const char16_t *a, *b;
    int order, orderNoCase;
  } kPairs[] = {{u"Oak", u"oak", -1, 0}, {u"OAK", u"oaks", -1, -1},      {u"b", u"A", 1, 1},
                {u"_", u"A", 1, -1},     {u"\u00C4", u"\u00E4", -1, -1}, {u"\uFF00", u"\U0001F600", 1, 1}};
  const auto sign = [](int order) { return (order > 0) - (order < 0); };
  for (const auto& c : kPairs) {
    const CString a(c.a), b(c.b);
    EXPECT_EQ(std::tuple(sign(a.Compare(b)), a < b, sign(a.CompareNoCase(b))),
              std::tuple(c.order, c.order < 0, c.orderNoCase))
        << a.ToUtf8();
  }
  EXPECT_EQ(CString(u"`az{\u00E4").MakeUpper() + CString(u"@AZ[\u00C4").MakeLower(), CString(u"`AZ{\u00E4@az[\u00C4"));
}

}  // namespace
