#include "kesp/util/Utilities.h"

#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <limits>
#include <string>

#include "kesp/platform/MessageHook.h"
#include "kesp/util/Fields.h"
#include "kesp/util/NumberText.h"
#include "kesp/util/SplitPath.h"
#include "kesp/util/StringTable.h"
#include "tests/support/Records.h"

namespace kesp::test {
namespace {

using Limits = std::numeric_limits<double>;

struct Shown {
  double value;
  int precision;
  const char *grouped, *plain = grouped;
};

void CheckNumbers() {
  // clang-format off
  const Shown kNumbers[] = {
      {1234567.891, 2, "1,234,567.89", "1234567.89"}, {-123, 2, "-123.00"}, {-123456, 0, "-123,456", "-123456"},
      {999.5, 0, "1,000", "1000"}, {0.0004, 3, "0.000"}, {-0.0, 1, "-0.0"}, {1.0 / 3, -1, "0.333333"},
      {12345.5, 10, "12,345.5000000000", "12345.5000000000"},
      {1e16, 2, "10,000,000,000,000,000.00", "10000000000000000.00"}, {1e17, 2, "1.00e+017"},
      {-1e15, 2, "-1,000,000,000,000,000.00", "-1000000000000000.00"}, {-1e16, 2, "-1.00e+016"},
      {0.5, 18, "0.500000000000000000"}, {0.5, 19, "5.0000000000000000000e-001"}, {-1.5e300, 1, "-1.5e+300"},
      {Limits::infinity(), 2, "inf"}, {-Limits::infinity(), 2, "-inf"}, {Limits::quiet_NaN(), 2, "nan"}};
  const std::pair<double, const char*> kDates[] = {
      {45000.0, "03/15/2023"}, {1.0, "12/31/1899"}, {-1.0, "12/29/1899"}, {0.0, "null"}, {-0.0, "null"},
      {0.25, "12/30/1899"}, {-1.25, "12/29/1899"}, {-0.75, "12/30/1899"}, {60.0, "02/28/1900"}, {36585.0, "02/29/2000"},
      {45000.99999, "03/15/2023"}, {45000.999999, "03/16/2023"}, {-657434.99, "01/01/ 100"}, {-657435.0, "-1/-1/  -1"},
      {2958465.99, "12/31/9999"}, {2958465.999999, "-1/-1/  -1"}, {2958466.0, "-1/-1/  -1"}, {-1e300, "-1/-1/  -1"},
      {Limits::quiet_NaN(), "-1/-1/  -1"}, {Limits::infinity(), "-1/-1/  -1"}};
  const std::pair<const char16_t*, double> kTexts[] = {
      {u"1.5", 1.5}, {u" +2e3x", 2000}, {u"-.5,1", -.5}, {u"-x", 0}, {u"", 0}, {u"\u0661", 0},
      {u"1e999", Limits::infinity()}, {u"-1e999", -Limits::infinity()}, {u"1e-999", 0}};
  // clang-format on
  for (const auto& c : kNumbers) {
    EXPECT_EQ(FormatDouble(c.value, c.precision, false).ToUtf8(), c.grouped);
    EXPECT_EQ(FormatDouble(c.value, c.precision, true).ToUtf8(), c.plain);
  }
  for (const auto& [date, text] : kDates) EXPECT_EQ(GetDateString(date).ToUtf8(), text) << date;
  for (const auto& [text, number] : kTexts) EXPECT_EQ(NumberFromText(text), number) << CString(text).ToUtf8();
  EXPECT_EQ(NumberFromText(std::u16string(300, u'0') + u"7"), 7);
}

TEST(Utilities, NumbersAndDatesFollowTheirTablesInEveryLocale) {
  CheckNumbers();
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "es_ES.UTF-8"}) {  // those with a decimal comma that there are
    if (std::setlocale(LC_ALL, name) != nullptr) CheckNumbers();
  }
  std::setlocale(LC_ALL, "C");
  FixedNotationMaxLength = 4;
  EXPECT_EQ(FormatDouble(1234, 0, false).ToUtf8(), "1,234") << "the separators don't count";
  EXPECT_EQ(FormatDouble(1500, 2, false).ToUtf8(), "1.50e+003");
  FixedNotationMaxLength = 20;
}

TEST(Utilities, PathsComeApartAndNameFiles) {
  const struct {
    const char16_t *path, *drive, *directory, *name, *extension;
    // clang-format off
  } kCases[] = {
      {u"D:\\a\\b.txt", u"D:", u"\\a\\", u"b", u".txt"}, {u"points", u"", u"", u"points", u""},
      {u"D:\\data.old\\points", u"D:", u"\\data.old\\", u"", u""},
      {u" \t\u3000/x/y.z.w \r\n", u"", u"/x/", u"y.z", u".w"},
      {u"D:/a\\b/c", u"D:", u"/a\\b/", u"c", u""}, {u"D:", u"D:", u"", u"", u""}, {u"/x/", u"", u"/x/", u"", u""},
      {u"x/.hidden", u"", u"x/", u"", u".hidden"},
      {u"a/b:c", u"a/b:", u"", u"b:c", u""},  // the separator is before the drive's end
  };
  // clang-format on
  for (const auto& c : kCases) {
    const PathParts parts = SplitPath(c.path);
    const std::string path = CString(c.path).ToUtf8();
    const std::array found{parts.drive, parts.directory, parts.name, parts.extension, GetDir(c.path), GetRoot(c.path)};
    const std::array<CString, 6> wanted{c.drive, c.directory, c.name, c.extension, CString(c.drive) + c.directory,
                                        c.name};
    EXPECT_EQ(found, wanted) << path;
  }
  const TempDir dir;
  WriteFile(dir / "file", {});
  EXPECT_TRUE(FileExists(Text(dir / "file")));
  for (const CString& none : {Text(dir / "."), Text(dir / "none"), CString()}) EXPECT_FALSE(FileExists(none));
}

TEST(Utilities, EveryTextIsUnderItsNumberAndNoOther) {
  int warnings = 0;
  std::string texts;
  const MessageHook previous = SetMessageHook([&](const CString& text) {
    ++warnings;
    EXPECT_EQ(text.ToUtf8(), "Error loading string.");
  });
  for (int id = 348; id <= 33076; id = id == 350 ? 33053 : id + 1) texts += GetStringRes(id).ToUtf8() + "|";
  EXPECT_EQ(texts,
            "Point|Line|Area|No Error|Normal EOF|EOF Error|Cannot Read Version|Bad Record Type|Bad Record|"
            "Corrupt Record Header|Cannot Open File|Bad KESP Header|Bad KESP Signature|Bad Application Header|"
            "Cannot Use Unicode|Unsupported or Bad Attribute Type|null|RTK-Code|RTK-Float|RTK-Fixed|Unknown|"
            "Post-Processed|MANUAL|Corrected GPS|Calculated|GPS|No Signal|");
  const std::string warning = GetStringRes(33077).ToUtf8();
  EXPECT_EQ(warning.substr(0, 53), "WARNING!\n\nA KESP record was found (in file '%s') whic");
  EXPECT_EQ(warning.substr(318), "same problem?\n");
  EXPECT_EQ(warnings, 0);
  for (const int id : {347, 351, 33052, 33078, -1, 348 + 65536}) EXPECT_TRUE(GetStringRes(id).IsEmpty()) << id;
  EXPECT_EQ(warnings, 6);
  SetMessageHook(previous);
}

TEST(FieldReader, LeavesWhatIsCutShortAndAllThatFollows) {
  const ByteVector whole = Hex("0102 03 01020304 'ab' 00 \"cd\" 0000 00*6 f03f 07 00 aa");
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    FieldReader reader(std::as_bytes(std::span(whole)).first(size));
    unsigned two = 9, four = 9, choice = 9;
    CString text8 = u"-", text16 = u"-";
    double number = 9;
    std::array<std::uint8_t, 1> raw{9};
    reader.U16(two), reader.Skip(1), reader.U32(four), reader.Text8(text8, 3), reader.Text16(text16, 3);
    reader.F64(number), reader.Choice16(choice, 0, 9), reader.Raw(raw);
    const auto from = [size](std::size_t end, auto after, auto before) { return size >= end ? after : before; };
    EXPECT_EQ(std::tuple(two, four, text8, text16, number, choice, raw[0], reader.Failed()),
              std::tuple(from(2, 513, 9), from(7, 0x04030201, 9), CString(from(10, "ab", "-")),
                         CString(from(16, "cd", "-")), from(24, 1, 9), from(26, 7, 9), from(27, 0xAA, 9), size < 27))
        << size;
  }
}

// The bytes show which places are written: '?' is what was there before.
TEST(Utilities, TextsFillFixedFields) {
  const struct {
    const wchar_t* source;
    unsigned length;
    std::string bytes;     // of StringToChar8
    std::u16string units;  // of StringToChar16, from wchar_t
  } kCases[] = {{L"abcd", 3, {'a', 'b', 'c', 0, '?', '?'}, {u'a', u'b', u'c', 0, u'?', u'?'}},
                {L"ab", 4, {'a', 'b', 0, '?', 0, '?'}, {u'a', u'b', 0, 0, 0, u'?'}},
                {L"ab", 0, {0, '?', '?', '?', '?', '?'}, {0, u'?', u'?', u'?', u'?', u'?'}},
                {L"a\u0100b", 4, {'a', '?', '?', '?', 0, '?'}, {u'a', u'\u0100', u'b', 0, 0, u'?'}},
                {L"a\U0001F600", 4, {'a', '?', '?', '?', 0, '?'}, {u'a', 0xD83D, 0xDE00, 0, 0, u'?'}},
                {L"a\U0001F600", 2, {'a', '?', 0, '?', '?', '?'}, {u'a', 0, 0, u'?', u'?', u'?'}}};
  for (const auto& c : kCases) {
    const CString source(c.source);
    SCOPED_TRACE(source.ToUtf8());
    std::string bytes(6, '?'), fromUnits(bytes);
    StringToChar8(bytes.data(), c.source, c.length);
    StringToChar8(fromUnits.data(), source.GetString(), c.length);
    EXPECT_EQ(bytes, c.bytes);
    EXPECT_EQ(fromUnits, c.bytes);
    std::u16string units(6, u'?'), copied(units);
    StringToChar16(units.data(), c.source, c.length);
    StringToChar16(copied.data(), source.GetString(), c.length);
    EXPECT_EQ(units, c.units);
    EXPECT_EQ(copied, c.length == 2 ? copied : c.units);  // units may be cut inside a pair, characters not
  }
  const std::wstring face = L"a\U0001F600";  // of one wide character or two
  std::wstring wide(4, L'?');
  StringToChar16(wide.data(), face.c_str(), 2);
  EXPECT_EQ(wide, (std::wstring{face[0], face[1], 0, L'?'}));
}

}  // namespace
}  // namespace kesp::test
