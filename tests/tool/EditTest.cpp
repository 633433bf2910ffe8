// The sub-commands that change a file: delete, header.
#include "tests/dataset/DataSet.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

class ToolEdit : public Tool {
 protected:
  // Runs the line, and before that with --dry-run, which must say the same and change nothing.
  void Expect(const ByteVector& before, const std::string& line, const ToolResult& want,
              const ByteVector& after) const {
    SCOPED_TRACE(line);
    WriteFile(dir / "a", before);
    const ToolResult dry = Run(line + " --dry-run");
    EXPECT_EQ(ReadFile(dir / "a"), before);
    EXPECT_EQ(Run(line), want);
    EXPECT_EQ(ReadFile(dir / "a"), after);
    const std::string would =
        Replaced(Replaced(want.out, " deleted", " would be deleted"), " changed", " would change");
    EXPECT_EQ(dry, (ToolResult{want.status, would, want.err}));
  }
};

// Feature 9's number is taken by the last feature; point 21 is marked as added.
ByteVector Garden(const std::vector<std::size_t>& deleted = {}) {
  // clang-format off
  ByteVector records[] = {Header2(), Feature(9, "Old"), Point(9, 90), Point(9, 91),
                          Feature(1, "Oak"), Attribute(1, "a"), Point(1, 10), EndOf(1),
                          Feature(2, "Path"), Attribute(2, "b"), Point(2, 20), Point(2, 21, {}, 2), Point(2, 22),
                          EndOf(2), Feature(9)};
  // clang-format on
  for (const std::size_t record : deleted) records[record][6] = 5;
  ByteVector bytes = FileHeader();
  for (const ByteVector& record : records) Append(bytes, record);
  return bytes;
}

TEST_F(ToolEdit, DeleteMarksPointsAndAttributesInPlaceAllOrNothing) {
  const struct {
    std::string line;
    ToolResult want;
    std::vector<std::size_t> marked = {};  // of the records
    // clang-format off
  } kCases[] = {
      {"--feature 1", {0, "feature 1 \"Oak\": 1 point and 1 attribute deleted\n", ""}, {5, 6}},
      {"--point 21 020 --point 20",
       {0, "point 20 of feature 2 deleted\npoint 21 of feature 2 deleted\n", ""}, {10, 11}},
      {"--point 22 10 20 21",
       {0, "feature 1 \"Oak\": 1 point and 1 attribute deleted, since none of its points stays\n"
           "feature 2 \"Path\": 3 points and 1 attribute deleted, since none of its points stays\n", ""},
       {5, 6, 9, 10, 11, 12}},
      {"--feature 9", {0, "feature 9 \"Oak\": nothing is left to delete\n", ""}},
      {"--feature 1 7", {2, "", "@a: there is no feature 7"}},
      {"--point 10 11", {2, "", "@a: there is no point 11"}},
      {"--point 90", {2, "", "@a: point 90 stands in a feature whose number, 9, a later one took"}},
      {"--feature 0x1", {2, "", "--feature: \"0x1\" is no number; try --help"}},
  };
  // clang-format on
  for (const auto& [line, want, marked] : kCases) Expect(Garden(), "delete @a " + line, want, Garden(marked));
  for (const std::string wrong : {"--feature 4294967297", "--feature 1 --point 20", ""}) {
    EXPECT_EQ(Run("delete @a " + wrong).status, 2) << wrong;
  }
  const ByteVector damaged = Garden() + Feature(5, "x", 0, 3, 9);
  Expect(damaged, "delete @a --feature 1", {1, "", "@a: a record can't be read: Bad Record; nothing is deleted"},
         damaged);
}

TEST_F(ToolEdit, HeaderChangesTextsInPlaceOrNothing) {
  ByteVector old(928);
  Put(old, 4, 77, 4);  // the time of creation
  const ByteVector survey1 = Survey({Note("deleted", 1, 1), Record(3, 1, 0, old)}, 1);
  const ByteVector survey2 = Survey({Header2{.kespVersion = 3}, Note("behind")});
  const std::string twenty(20, 'x');
  const std::size_t body1 = 50 + 14 + 256 + 14, body2 = 50 + 14;
  const struct {
    const ByteVector& before;
    std::string settings;
    ToolResult want;
    std::vector<std::pair<std::size_t, ByteVector>> patches = {};
    // clang-format off
  } kCases[] = {
      {survey2, "HeaderText1=" + twenty + " HeaderText6=a=\xC3\xA9\xF0\x9F\x8C\xB3 HeaderText7=",
       {0, "HeaderText1 changed from \"\" to \"" + twenty + "\"\n"
           "HeaderText6 changed from \"\" to \"a=\xC3\xA9\xF0\x9F\x8C\xB3\"\n"
           "HeaderText7 is \"\" already\nKespVersion changed from 3 to 2\n", ""},
       {{56, {8}}, {body2 + 10, Hex("\"xxxxxxxxxxxxxxxxxxxx\"")}, {body2 + 1844, Hex("\"a=\" e9 00 3c d8 33 df")},
        {body2 + 2868, {2}}}},
      {survey2, "HeaderText3=", {0, "HeaderText3 is \"\" already\n", ""}},
      {survey1, "HeaderText5=\xC3\xBF",
       {0, "HeaderText5 changed from \"\" to \"\xC3\xBF\"\nCreationTime changed from 77 to 0\n", ""},
       {{body1 - 8, {8}}, {body1 + 4, {0}}, {body1 + 799, {0xFF}}}},
      {survey2, "HeaderText1=x" + twenty, {2, "", "the text for HeaderText1 is 21 units long, and 20 have room"}},
      {survey2, "HeaderText2=\xFF", {2, "", "the text for HeaderText2 is not UTF-8"}},
      {survey2, "HeaderText2=a HeaderText2=b", {2, "", "HeaderText2 is set twice"}},
      {survey2, "HeaderText2", {2, "", "\"HeaderText2\" is not NAME=TEXT"}},
      {survey2, "HeaderText1=a LastPointText=b", {2, "", "there is no \"LastPointText\" to set; there are HeaderText1, "
           "HeaderText2, HeaderText3, HeaderText4, HeaderText5, HeaderText6, HeaderText7"}},
      {survey1, "HeaderText1=a HeaderText7=b", {2, "", "@a: HeaderText7 has no place in a header of version 1"}},
      {survey1, "HeaderText2=\xC4\x80",
       {2, "", "@a: the text for HeaderText2 has characters that a header of version 1 can't hold"}},
  };
  // clang-format on
  for (const auto& [before, settings, want, patches] : kCases) {
    ByteVector after = before;
    for (const auto& [at, bytes] : patches) {
      std::copy(bytes.begin(), bytes.end(), after.begin() + static_cast<std::ptrdiff_t>(at));
    }
    Expect(before, "header @a --set " + settings, want, after);
  }
  const ByteVector headless = Survey({Note("first")});
  Expect(headless, "header @a --set HeaderText1=a", {1, "", "@a: the first record is missing or no header"}, headless);
}

TEST_F(ToolEdit, LeavesAloneWhatAnotherProgramWrites) {
  WriteFile(dir / "a", Garden());
  CKespDataFile holder;
  ASSERT_TRUE(holder.Open(Text(dir / "a")));
  for (const std::string line : {"delete @a --feature 1", "header @a --set HeaderText1=a"}) {
    EXPECT_EQ(Run(line + " --dry-run").status, 0);
    EXPECT_EQ(Run(line), (ToolResult{2, "", "@a: in use by another program"}));
  }
  EXPECT_EQ(ReadFile(dir / "a"), Garden());
}

}  // namespace
}  // namespace kesp::test
