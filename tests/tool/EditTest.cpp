// The sub-commands that change a file: delete, header.
#include <gtest/gtest.h>
#include <sys/file.h>

#include "tests/dataset/DataSet.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

// A survey, and where its records stand.
struct Placed {
  ByteVector bytes = FileHeader();
  std::vector<std::size_t> offsets;
  Placed(std::initializer_list<ByteVector> records) {
    for (const ByteVector& record : records) {
      offsets.push_back(bytes.size());
      Append(bytes, record);
    }
  }
};
// The second record's number is taken by the last feature; the twelfth record is marked as added.
const Placed kGarden{Header2{.kespVersion = 3},
                     Feature(9, "Old"),
                     Point(9, 90),
                     Point(9, 91),
                     Feature(1, "Oak"),
                     Attribute(1, "a"),
                     Point(1, 10),
                     End(1),
                     Feature(2, "Path"),
                     Attribute(2, "b"),
                     Point(2, 20),
                     Point(2, 21, {}, 2),
                     Point(2, 22),
                     End(2),
                     Feature(9)};

std::string Replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
  return text;
}

struct Patch {
  std::size_t at;
  ByteVector bytes;
};

// Runs the line, and before that with --dry-run, which must say the same and change nothing.
void ExpectEdit(const ByteVector& before, const std::string& line, int status, const std::string& out,
                const std::string& err, const std::vector<Patch>& patches, bool isHeld = false) {
  SCOPED_TRACE(line);
  const TempDir dir;
  const std::string path = dir / "a.kesp";
  WriteFile(path, before);
  const int holder = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(holder, isHeld ? LOCK_EX : LOCK_UN), 0);
  const ToolResult dry = RunTool(line + " --dry-run", path);
  EXPECT_EQ(ReadFile(path), before);
  const ToolResult got = RunTool(line, path);
  ::close(holder);
  EXPECT_EQ(got.status, status) << got.err;
  EXPECT_EQ(got.out, out);
  const std::string told = Replaced(got.err, path, "@");
  EXPECT_EQ(err == "*" && !told.empty() ? "*" : told, err.empty() || err == "*" ? err : "kesp: " + err + "\n");
  EXPECT_EQ(dry.status, isHeld ? 0 : status);
  if (!isHeld) {
    EXPECT_EQ(dry.out, Replaced(Replaced(out, " deleted", " would be deleted"), " changed", " would change"));
  }
  ByteVector after = before;
  for (const Patch& patch : patches) {
    std::copy(patch.bytes.begin(), patch.bytes.end(), after.begin() + static_cast<std::ptrdiff_t>(patch.at));
  }
  EXPECT_EQ(ReadFile(path), after);
}

TEST(ToolDelete, MarksPointsAndAttributesInPlaceAllOrNothing) {
  const struct {
    const char* line;
    std::vector<std::size_t> marked;  // of the records
    int status;
    const char* out;
    const char* err = "";
    // clang-format off
  } kCases[] = {
      {"--feature 1", {5, 6}, 0, "feature 1 \"Oak\": 1 point and 1 attribute deleted\n"},
      {"--point 21 020 --point 20", {10, 11}, 0, "point 20 of feature 2 deleted\npoint 21 of feature 2 deleted\n"},
      {"--point 22 10 20 21", {5, 6, 9, 10, 11, 12}, 0,
       "feature 1 \"Oak\": 1 point and 1 attribute deleted, since none of its points stays\n"
       "feature 2 \"Path\": 3 points and 1 attribute deleted, since none of its points stays\n"},
      {"--feature 9", {}, 0, "feature 9 \"Oak\": nothing is left to delete\n"},
      {"--feature 1 7", {}, 2, "", "@: there is no feature 7"},
      {"--point 10 11", {}, 2, "", "@: there is no point 11"},
      {"--point 90", {}, 2, "", "@: point 90 stands in a feature whose number, 9, a later one took"},
      {"--feature 0x1", {}, 2, "", "--feature: \"0x1\" is no number; try --help"},
      {"--feature 4294967297", {}, 2, "", "*"},
      {"--feature 1 --point 20", {}, 2, "", "*"},
      {"", {}, 2, "", "*"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    std::vector<Patch> patches;
    for (const std::size_t record : c.marked) patches.push_back({kGarden.offsets[record] + 6, {5}});
    ExpectEdit(kGarden.bytes, std::string("delete @ ") + c.line, c.status, c.out, c.err, patches);
  }
  ExpectEdit(kGarden.bytes + Feature(5, "x", 0, 3, 9), "delete @ --feature 1", 1, "",
             "@: a record can't be read: Bad Record; nothing is deleted", {});
  ExpectEdit(kGarden.bytes, "delete @ --feature 1", 2, "", "@: in use by another program", {}, true);
}

TEST(ToolHeader, ChangesTextsInPlaceOrNothing) {
  ByteVector old(928);
  Put(old, 4, 77, 4);  // the time of creation
  const ByteVector survey1 = Survey({Note("deleted", 1, 1), Record(3, 1, 0, old)}, 1);
  const ByteVector survey2 = Survey({Header2{.kespVersion = 3}, Note("behind")});
  const std::string twenty(20, 'x');
  const std::size_t body1 = 50 + 14 + 256 + 14;
  const struct {
    const ByteVector* before;
    std::string settings;
    int status;
    std::string out;
    std::string err;
    std::vector<Patch> patches;
    // clang-format off
  } kCases[] = {
      {&survey2, "HeaderText1=" + twenty + " HeaderText6=a=\xC3\xA9\xF0\x9F\x8C\xB3 HeaderText7=", 0,
       "HeaderText1 changed from \"\" to \"" + twenty + "\"\nHeaderText6 changed from \"\" to \"a=\xC3\xA9\xF0\x9F\x8C\xB3\"\n"
       "HeaderText7 is \"\" already\nKespVersion changed from 3 to 2\n", "",
       {{56, {8}}, {74, Hex("78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00 78 00")},
        {64 + 1844, Hex("61 00 3d 00 e9 00 3c d8 33 df")}, {64 + 2868, {2}}}},
      {&survey2, "HeaderText3=", 0, "HeaderText3 is \"\" already\n", "", {}},
      {&survey1, "HeaderText5=\xC3\xBF", 0, "HeaderText5 changed from \"\" to \"\xC3\xBF\"\nCreationTime changed from 77 to 0\n", "",
       {{body1 - 8, {8}}, {body1 + 4, {0}}, {body1 + 799, {0xFF}}}},
      {&survey2, "HeaderText1=x" + twenty, 2, "", "the text for HeaderText1 is 21 units long, and 20 have room", {}},
      {&survey2, "HeaderText2=\xFF", 2, "", "the text for HeaderText2 is not UTF-8", {}},
      {&survey2, "HeaderText2=a HeaderText2=b", 2, "", "HeaderText2 is set twice", {}},
      {&survey2, "HeaderText2", 2, "", "\"HeaderText2\" is not NAME=TEXT", {}},
      {&survey2, "HeaderText1=a LastPointText=b", 2, "", "there is no \"LastPointText\" to set; there are HeaderText1, HeaderText2, HeaderText3, HeaderText4, HeaderText5, HeaderText6, HeaderText7", {}},
      {&survey1, "HeaderText1=a HeaderText7=b", 2, "", "@: HeaderText7 has no place in a header of version 1", {}},
      {&survey1, "HeaderText2=\xC4\x80", 2, "", "@: the text for HeaderText2 has characters that a header of version 1 can't hold", {}},
  };
  // clang-format on
  for (const auto& c : kCases) ExpectEdit(*c.before, "header @ --set " + c.settings, c.status, c.out, c.err, c.patches);
  ExpectEdit(Survey({Note("first")}), "header @ --set HeaderText1=a", 1, "",
             "@: the first record is missing or no header", {});
  ExpectEdit(survey2, "header @ --set HeaderText1=a", 2, "", "@: in use by another program", {}, true);
}

}  // namespace
}  // namespace kesp::test
