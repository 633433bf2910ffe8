// The sub-commands that change a file or join some: delete, undelete, header, set, append, merge.
#include <algorithm>

#include "tests/dataset/DataSet.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

using Patches = std::vector<std::pair<std::size_t, ByteVector>>;  // where in the file, and what is there then
ByteVector Patched(ByteVector bytes, const Patches& patches) {
  for (const auto& [at, part] : patches)
    std::copy(part.begin(), part.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
  return bytes;
}
std::string Verdict(const std::string& path) {
  return R"({"path":")" + path +
         R"(","whole":true,"end":{"error":1,"message":"Normal EOF"},"damage":null,"error":null,)";
}

class ToolEdit : public Tool {
 protected:
  // Runs the line on @a, and before that with --dry-run, which must say the same and change nothing.
  void Expect(const ByteVector& before, const std::string& line, const ToolResult& want,
              const ByteVector& after) const {
    SCOPED_TRACE(line);
#ifdef _WIN32
    if (line.find('\xFF') != std::string::npos) return;  // an argument is UTF-16 there
#endif
    WriteFile(dir / "a", before);
    const ToolResult dry = Run(line + " --dry-run");
    EXPECT_EQ(ReadFile(dir / "a"), before);
    EXPECT_EQ(Run(line), want);
    EXPECT_EQ(ReadFile(dir / "a"), after);
    std::string would = Replaced(Replaced(want.out, " changed from", " would change from"), "Appended", "Would append");
    for (const std::string done : {" deleted", " restored"}) would = Replaced(would, done, " would be" + done);
    EXPECT_EQ(dry, (ToolResult{want.status, would, want.err}));
  }
};

// Feature 9's number is taken by the last feature; point 21 is marked as added. There is garbage after the end of a
// text of attribute a, and the header states an odd length.
ByteVector Garden(const std::vector<std::size_t>& deleted = {}) {
  // clang-format off
  ByteVector records[] = {WithLength(Header2(), 77), Feature(9, "Old"), Point(9, 90), Point(9, 91),
                          Feature(1, "Oak"), Patched(Attribute(1, "a"), {{600, {7, 7}}}), Point(1, 10), EndOf(1),
                          Feature(2, "Path"), Attribute(2, "b"), Point(2, 20), Point(2, 21, {}, 2), Point(2, 22),
                          EndOf(2), Feature(9)};
  // clang-format on
  for (const std::size_t record : deleted) records[record][6] = 5;
  return Survey(records);
}
const ByteVector kDamaged = Garden() + Feature(5, "x", 0, 3, 9);
const std::string kAdvice =
    "kesp: kesp repair writes a new file of what comes before the damage, with --salvage also of what comes after\n";
const ToolResult kRefused = {1, "",
                             "kesp: @a: damaged at offset " + std::to_string(Garden().size()) +
                                 ": the record there has impossible contents (Bad Record)\n" + kAdvice};

TEST_F(ToolEdit, DeletesAllThatBelongsToAFeatureAndTakesItBack) {
  const std::string marks = "Marks as added or changed may be gone: a deletion keeps only some of them\n";
  const std::vector<std::size_t> oak = {4, 5, 6, 7}, oakAnd20 = {4, 5, 6, 7, 10};  // the records that are deleted
  const struct {
    std::string line;
    ToolResult want;
    std::vector<std::size_t> before = {}, after = {};
    // clang-format off
  } kCases[] = {
      {"delete @a --feature 1", {0, "feature 1 \"Oak\" with 1 point and 1 attribute deleted\n", ""}, {}, oak},
      {"delete @a --point 21 020 --point 20",
       {0, "point 20 of feature 2 deleted\npoint 21 of feature 2 deleted\n", ""}, {}, {10, 11}},
      {"delete @a --point 22 20 21",
       {0, "feature 2 \"Path\" with 3 points and 1 attribute deleted, since none of its points stays\n", ""},
       {}, {8, 9, 10, 11, 12, 13}},
      {"delete @a --feature 9", {0, "feature 9 \"Oak\" with 0 points and 0 attributes deleted\n", ""}, {}, {14}},
      {"delete @a --feature 1 7", {2, "", "@a: there is no feature 7"}},
      {"delete @a --point 10 11", {2, "", "@a: there is no point 11"}},
      {"delete @a --point 90", {2, "", "@a: point 90 is in a feature whose number, 9, a later one took"}},
      {"delete @a --feature 0x1", {2, "", "--feature: \"0x1\" is no number; try kesp help delete"}},
      {"undelete @a --feature 1", {0, "feature 1 \"Oak\" with 1 point and 1 attribute restored\n" + marks, ""},
       oakAnd20, {10}},
      {"undelete @a --point 20", {0, "point 20 of feature 2 restored\n" + marks, ""}, oakAnd20, oak},
      {"undelete @a --feature 2", {2, "", "@a: there is a feature 2 that is not deleted"}, oak, oak},
      {"undelete @a --feature 7", {2, "", "@a: there is no deleted feature 7"}, oak, oak},
      {"undelete @a --point 22", {2, "", "@a: there is a point 22 that is not deleted"}, oak, oak},
      {"undelete @a --point 10", {2, "", "@a: point 10 goes with feature 1, which is deleted; restore that"}, oak, oak},
  };
  // clang-format on
  for (const auto& [line, want, before, after] : kCases) Expect(Garden(before), line, want, Garden(after));
  for (const std::string wrong : {"--feature 4294967297", "--feature 1 --point 20", ""}) {
    EXPECT_EQ(Run("delete @a " + wrong).status, 2) << wrong;
  }
  Expect(kDamaged, "delete @a --feature 1", kRefused, kDamaged);
  Expect(kDamaged, "undelete @a --feature 1", kRefused, kDamaged);
  // A deleted record is stepped over by its length, which has to be true then.
  const ByteVector odd = Survey({Header2(), Feature(1), WithLength(Point(1, 2), 54), Note("x")});
  Expect(odd, "delete @a --feature 1",
         {2, "",
          "@a: the record at offset 4688 states a length that is not its own, by which a deleted record is stepped "
          "over; kesp repair writes a new file with the right one"},
         odd);
  // As far as the flags still tell.
  const auto old = [](std::uint32_t one, std::uint32_t two) {
    return Survey({Header2(), Feature(1, "Oak", one), Point(1, 2, {}, two)});
  };
  WriteFile(dir / "a", old(0x105, 1));
  EXPECT_EQ(Run("undelete @a --feature 1 --json").out,
            Verdict("@a") + R"("dryRun":false,"restored":{"features":[1],"points":1,"attributes":0}})"
                            "\n");
  EXPECT_EQ(ReadFile(dir / "a"), old(0x108, 0x10));
  EXPECT_EQ(Run("delete @a -q --point 2"), (ToolResult{0, "", ""}));
}

TEST_F(ToolEdit, HeaderChangesTextsAndNothingElse) {
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
    Patches patches = {};
    // clang-format off
  } kCases[] = {
      {survey2, "HeaderText1=" + twenty + " HeaderText6=a=\xC3\xA9\xF0\x9F\x8C\xB3 HeaderText7=",
       {0, "HeaderText1 changed from \"\" to \"" + twenty + "\"\n"
           "HeaderText6 changed from \"\" to \"a=\xC3\xA9\xF0\x9F\x8C\xB3\"\nHeaderText7 is \"\" already\n", ""},
       {{body2 + 10, Hex("\"xxxxxxxxxxxxxxxxxxxx\"")}, {body2 + 1844, Hex("\"a=\" e9 00 3c d8 33 df")}}},
      {survey2, "HeaderText3=", {0, "HeaderText3 is \"\" already\n", ""}},
      {survey1, "HeaderText5=\xC3\xBF", {0, "HeaderText5 changed from \"\" to \"\xC3\xBF\"\n", ""},
       {{body1 + 799, {0xFF}}}},
      {survey2, "HeaderText1=x" + twenty, {2, "", "the text for HeaderText1 is 21 units long, and 20 have room"}},
      {survey2, "HeaderText2=\xFF", {2, "", "the text for HeaderText2 is not UTF-8"}},
      {survey2, "HeaderText2=a HeaderText2=b", {2, "", "HeaderText2 is set twice"}},
      {survey2, "HeaderText2", {2, "", "\"HeaderText2\" has no \"=\" between a name and a value"}},
      {survey2, "HeaderText1=a LastPointText=b", {2, "", "there is no \"LastPointText\" to set; there are HeaderText1, "
           "HeaderText2, HeaderText3, HeaderText4, HeaderText5, HeaderText6, HeaderText7"}},
      {survey1, "HeaderText1=a HeaderText7=b", {2, "", "@a: HeaderText7 has no place in a header of version 1"}},
      {survey1, "HeaderText2=\xC4\x80",
       {2, "", "@a: the text for HeaderText2 has characters that a header of version 1 can't hold"}},
      {kDamaged, "HeaderText1=a", kRefused},
  };
  // clang-format on
  for (const auto& [before, settings, want, patches] : kCases) {
    Expect(before, "header @a --set " + settings, want, Patched(before, patches));
  }
}

TEST_F(ToolEdit, SetChangesValuesThatFit) {
  const auto attribute = [](std::uint16_t version, std::string_view name, int kind) {
    return Record(
        5, version, 0,
        Body(5, version,
             {{"feature", 1}, {"title", name}, {"kind", kind}, {"string", "old"}, {"sub", "s"}, {"value", 45000.5}}));
  };
  // clang-format off
  const ByteVector records[] = {Header2(), Feature(1), Patched(attribute(3, "Text", 1), {{600, {7, 7}}}),
                                attribute(1, "Number", 2), attribute(2, "Menu", 3), attribute(1, "Day", 4),
                                attribute(1, "Twice", 1), attribute(1, "Twice", 1), attribute(1, "Other", 5),
                                attribute(1, "Old", 1)};
  // clang-format on
  const ByteVector before = Survey(records);
  const auto at = [&](int record) {  // the body
    std::size_t place = 50 + 14;
    for (int i = 0; i < record; ++i) place += records[i].size();
    return place;
  };
  const struct {
    std::string settings;
    ToolResult want;
    Patches patches = {};
    // clang-format off
  } kCases[] = {
      {"Text=a=b", {0, "Text changed from \"old\" to \"a=b\"\n", ""}, {{at(2) + 518, Hex("\"a=b\" 00*506")}}},
      {"Number=-2.5", {0, "Number changed from \"45000.5\" to \"-2.5\"\n", ""}, {{at(3) + 90, Hex("00*6 04 c0")}}},
      {"Menu=b", {0, "Menu changed from \"old/s\" to \"b\"\n", ""},
       {{at(4) + 48, Hex("\"b\" 00*4")}, {at(4) + 130, Hex("00 00")}}},
      {"Menu=b/c Day=1899-12-31", {0, "Menu changed from \"old/s\" to \"b/c\"\n"
                                      "Day changed from \"03/15/2023\" to \"12/31/1899\"\n", ""},
       {{at(4) + 48, Hex("\"b\" 00*4")}, {at(4) + 130, Hex("\"c\"")}, {at(5) + 90, Hex("00*6 f0 3f")}}},
      {"Text=old Day=2023-03-15", {0, "Text is \"old\" already\nDay is \"03/15/2023\" already\n", ""}},
      {"Text=a None=b", {2, "", "@a: feature 1 has no attribute \"None\"; there are Text, Number, Menu, Day, Twice, Twice, "
                                "Other, Old"}},
      {"Twice=a", {2, "", "@a: feature 1 has 2 attributes of that name: attribute \"Twice\""}},
      {"Text=a Text=b", {2, "", "@a: attribute \"Text\" is set twice"}},
      {"Other=a", {2, "", "@a: attribute \"Other\" is of a kind without a value"}},
      {"Number=1e999", {2, "", "@a: attribute \"Number\" is a number, and \"1e999\" is none that fits"}},
      {"Day=2023-02-29", {2, "", "@a: attribute \"Day\" is a date, and \"2023-02-29\" is no day such as 2024-05-01"}},
      {"Day=1899-12-30", {2, "", "@a: attribute \"Day\" is a date, and \"1899-12-30\" is no day such as 2024-05-01"}},
      {"Old=" + std::string(41, 'a'),
       {2, "", "@a: the value for attribute \"Old\" is longer than an attribute of version 1 can hold"}},
      {"Old=\xC4\x80", {2, "", "@a: the value for attribute \"Old\" has characters that an attribute of version 1 can't hold"}},
      {"Text=\xFF", {2, "", "@a: the text for Text is not UTF-8"}},
  };
  // clang-format on
  for (const auto& [settings, want, patches] : kCases) {
    Expect(before, "set @a --feature 1 --attribute " + settings, want, Patched(before, patches));
  }
  Expect(before, "set @a --feature 2 --attribute Text=a", {2, "", "@a: there is no feature 2"}, before);
  Expect(kDamaged, "set @a --feature 1 --attribute a=b", kRefused, kDamaged);
  WriteFile(dir / "a", before);
  EXPECT_EQ(Run("set @a --feature 1 --attribute Number=7 --json").out,
            Verdict("@a") + R"("dryRun":false,"changed":[{"name":"Number","from":"45000.5","to":"7.0"}]})"
                            "\n");
}

// All that a file can bring along, with these numbers and flags.
ByteVector Load(std::uint32_t feature, std::uint32_t point, std::uint32_t flags) {
  const auto number = static_cast<float>(point);
  ByteVector bytes;
  for (const ByteVector& record :
       {Feature(feature, "Elm", flags), Attribute(feature, "a", "v", flags),
        Point(feature, point, {2'000'000, 3, 4, "q"}, flags), EndOf(feature, flags), Note("n", flags),
        Tag(7, "", Words({feature, point, 5, 6}), flags), Tag(9, "", Floats({number, 1, 2, 3, 4}), flags),
        Tag(10, "", Words({feature, 1, 77, 1, 5, 0}), flags), Tag(11, "", Floats({number, 1, 2, 3, 4, 5}), flags),
        Tag(12, "", Floats({number, 1, 1, 1}), flags), Tag(13, "FEATUREchanges", Words({feature, 0x20}), flags),
        Tag(13, "Other", Words({1, 1}), flags), Tag(0, "", Words({1, 1, 1, 1, 1, 1}), flags)}) {
    Append(bytes, record);
  }
  return bytes;
}
// clang-format off
ByteVector HeaderOf(int count, int most, int last, std::string_view text, int status = 0) {
  return Record(3, 2, 0, Body(3, 2, {{"status", status}, {"created", 5}, {"t2", "Job"}, {"kespVersion", 3}, {"data1", 1},
                                     {"data2", most}, {"data3", 2}, {"data4", most + 1}, {"points", count},
                                     {"features", count}, {"first", 1'000'000}, {"last", last}, {"lastText", text}}));
}
// clang-format on

TEST_F(ToolEdit, AppendAndMergeTakeAllOverUnderNumbersOfTheirOwn) {
  const ByteVector own = Feature(1) + Point(1, 1, {1'000'000, 1, 2, "p"}), stray = Point(8, 5),
                   unknown = Record(200, 1, 0, {7}), before = FileHeader() + HeaderOf(1, 1, 1'000'000, "p") + own;
  const std::string counts = "1 feature with 1 point and 1 attribute, 1 note and 8 tags";
  const std::string taken =
      "kesp: @b: feature numbers that are taken: 1\nkesp: @b: point numbers that are taken: 1\n"
      "kesp: nothing is written; --renumber gives new numbers\n";
  const struct {
    std::string line;
    ByteVector before, source;
    ToolResult want;
    ByteVector after;
    // clang-format off
  } kCases[] = {
      {"@b @a", before, Survey({Header2(), Load(3, 4, 0)}), {0, "Appended " + counts + "\n", ""},
       FileHeader() + HeaderOf(2, 3, 2'000'000, "q") + own + Load(3, 4, 2)},
      {"@b @a", before, Survey({Header2(), Load(1, 1, 0)}), {2, "", taken}, before},
      {"--renumber @b @a", before, Survey({Header2(), Load(1, 1, 0)}),
       {0, "Appended " + counts + "; 1 feature number and 1 point number new\n", ""},
       FileHeader() + HeaderOf(2, 3, 2'000'000, "q") + own + Load(2, 2, 2)},
      // A header that is not true is left alone; what is deleted keeps its number.
      {"--renumber @b @a", Survey({Header2(), own, Feature(8, "", 1), Point(8, 7, {}, 1)}),
       Survey({Header1(), Note("ZOM:1,2", 0, 1), Note("BMC:"), unknown, stray, Feature(6, "", 5), Load(1, 1, 0)}),
       {0, "Appended 1 feature with 1 point and 1 attribute, 2 notes and 8 tags; 1 feature number and 1 point number new\n",
        "kesp: @b: 1 record of unknown type left out\nkesp: @b: 1 record without a feature left out\n"},
       Survey({Header2(), own, Feature(8, "", 1), Point(8, 7, {}, 1), Note("BMC:", 2), Load(9, 8, 2)})},
      // The last number of all is in use.
      {"--renumber @b @a", Survey({Header2(), Feature(1), Feature(0xFFFFFFFF), Point(1, 1)}), Survey({Header2(), Load(1, 1, 0)}),
       {0, "Appended " + counts + "; 1 feature number and 1 point number new\n", ""},
       Survey({Header2(), Feature(1), Feature(0xFFFFFFFF), Point(1, 1), Load(2, 2, 2)})},
      {"--renumber @b @a", Survey({Header2(), Feature(9), Point(9, 1), Point(9, 0x1000000)}), Survey({Header2(), Load(1, 1, 0)}),
       {2, "", "@b: a mark of point 1 can't hold the new number 16777217, since it is stored as a float"},
       Survey({Header2(), Feature(9), Point(9, 1), Point(9, 0x1000000)})},
      {"@b @a", Survey({Header1()}, 1), Survey({Header1(), Note("n")}),
       {2, "", "kesp: @b: the note record at offset 992 is of version 2 and needs file version 2, and @a is of version 1\n"
               "kesp: kesp merge writes a new file that can hold both, kesp repair --format one in another version\n"},
       Survey({Header1()}, 1)},
      {"@b @a", kDamaged, {}, kRefused, kDamaged},
      {"@b @a @a", before, Survey({Header2()}), {2, "", "@a: is the destination itself"}, before},
  };
  // clang-format on
  for (const auto& [line, there, source, want, after] : kCases) {
    WriteFile(dir / "b", source);
    Expect(there, "append " + line, want, after);
    EXPECT_EQ(ReadFile(dir / "b"), source);
  }
  WriteFile(dir / "b", kDamaged);
  Expect(before, "append @b @a", {1, "", Replaced(kRefused.err, "@a", "@b")}, before);
  const std::string rest =
      R"("renumbered":{"features":1,"points":1},"leftOut":{"unknown":0,"withoutFeature":0,"applicationBytes":0})";
  const std::string joined = R"({"features":1,"points":1,"attributes":1,"notes":1,"tags":8},)" + rest;
  WriteFile(dir / "b", Survey({Header2(), Load(1, 1, 0)}));
  EXPECT_EQ(Run("append --json --dry-run --renumber @b @a").out,
            Verdict("@a") + R"("dryRun":true,"appended":)" + joined + ",\"headerUpdated\":true}\n");

  WriteFile(dir / "b", Survey({Header1(), Load(1, 1, 0)}, 2));
  EXPECT_EQ(Run("merge -o @m @a @b"), (ToolResult{2, "", taken}));
  EXPECT_FALSE(std::filesystem::exists(dir / "m"));
  const std::string merged = R"({"features":2,"points":2,"attributes":1,"notes":1,"tags":8},)" + rest;
  EXPECT_EQ(Run("merge --json --renumber -o @m @a @b").out, Verdict("@m") + R"("format":3,"merged":)" + merged + "}\n");
  const ByteVector both = FileHeader() + HeaderOf(2, 3, 2'000'000, "q", 1) + own + Load(2, 2, 0);
  EXPECT_EQ(ReadFile(dir / "m"), both);
  EXPECT_EQ(Run("merge --renumber -o @m @a @b"), (ToolResult{2, "", "@m: exists; --force replaces it"}));
  EXPECT_EQ(Run("merge --renumber --force -o @b @a @b"), (ToolResult{2, "", "@b: is one of the sources"}));
  EXPECT_EQ(Run("merge --renumber -o - @a @b").out, std::string(both.begin(), both.end()));
}

TEST_F(ToolEdit, LeavesAloneWhatAnotherProgramWrites) {
  WriteFile(dir / "a", Garden());
  WriteFile(dir / "b", Survey({Header2(), Feature(7)}));
  CKespDataFile holder;
  ASSERT_TRUE(holder.Open(Text(dir / "a")));
  for (const std::string line : {"delete @a --feature 1", "header @a --set HeaderText1=a", "append @b @a",
                                 "set @a --feature 1 --attribute a=b"}) {
    EXPECT_EQ(Run(line + " --dry-run").status, 0);
    EXPECT_EQ(Run(line), (ToolResult{2, "", "@a: in use by another program"}));
  }
  EXPECT_EQ(Run("append @a @b"), (ToolResult{2, "", "@a: is open for writing elsewhere"}));
  EXPECT_EQ(ReadFile(dir / "a"), Garden());
}

}  // namespace
}  // namespace kesp::test
