// The sub-commands that search a file and make a new one of it: find, copy, repair.
#include <nlohmann/json.hpp>

#include "tests/recordfile/Survey.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

TEST_F(Tool, FindAsksEachThingOfTheSearch) {
  // A line "Oak" with a point at 0 east, 0 north, and a numeric attribute "Girth" of 2.
  const ByteVector oak = FileHeader() + Record(3, 2, 0, ByteVector(4086)) + Sample(1, 3);
  WriteFile(dir / "a", oak + Record(5, 3, 0, Hex("07 00*3 \"Girth\" 00*502 02 00 00*1024 00*7 40 00*162")) +
                           Record(2, 2, 0, Hex("07 00*3 03 00*3 \"A1\" 00*38 80 00 92 65 00*32 04 00 00*20")));
  const std::pair<std::string, bool> kCases[] = {
      // clang-format off
      {"", true}, {"--name Elm --name Oak", true}, {"--name ./[x]", false}, {"--name oak", false}, {"--name oak --ignore-case", true}, {"--type line", true},
      {"--type point --type area", false}, {"--attribute Girth --range 1:2", true}, {"--range 1:2 --invert", false},
      {"--attribute Girth --range -3:1", false}, {"--attribute girth --range 2:1 --ignore-case", true},
      {"--value 2", false}, {"--attribute Girth", true}, {"--attribute Height", false}, {"--range 1:", true},
      {"--range :1", false}, {"--name oa --partial", false}, {"--name OA --partial --ignore-case", true},
      {"--from 2024-01-01T02:00+02:00 --to 2024-01-01T02:00+02:00", true}, {"--from 2024-01-01T02:01+02:00", false},
      {"--point-text A1", true}, {"--point-text a --partial --ignore-case", true},
      {"--point-text a", false}, {"--from 2024-01-01 --to 2024-01-01", true}, {"--from 2024-01-01T00:00:01Z", false},
      {"--to 2023-12-31T23:59", false}, {"--area -1,-1,0,0", true}, {"--area 1,1,2,2", false},
      // clang-format on
  };
  for (const auto& [options, found] : kCases) EXPECT_EQ(Run("find @a " + options).out.empty(), !found) << options;
  const std::string found = Run("find --json @a").out;
  EXPECT_EQ(json::parse(found.substr(0, found.find('\n'))), json::parse(R"({"number":7,"name":"Oak","type":"line",
      "deleted":false,"firstTime":"2024-01-01T00:00:00Z","firstTimeUnix":1704067200,
      "lastTime":"2024-01-01T00:00:00Z","lastTimeUnix":1704067200,"points":[{"number":3,"text":"A1","deleted":false,
      "time":"2024-01-01T00:00:00Z","timeUnix":1704067200,"x":0.0,"y":0.0,"z":0.0}],
      "attributes":[{"name":"Girth","value":2.0,"deleted":false}]})"));
  EXPECT_EQ(Run("find @a").out,
            "NUMBER  TYPE  POINTS  ATTRIBUTES  FIRST TIME            NAME\n"
            "7       line  1       1           2024-01-01T00:00:00Z  Oak\n");
  for (const std::string wrong : {"--invert", "--range :", "--range 1", "--range 1:2 --value 1", "--from yesterday",
                                  "--from 2024-02-30", "--area 1,2,3", "--area 1,2,3,nan", "--type tree"}) {
    EXPECT_EQ(Run("find @a " + wrong).status, 2) << wrong;
  }
  WriteFile(dir / "a", oak + Feature(8, "gone", 1) + Hex("00*9"));  // damaged: searched as far as it goes
  EXPECT_EQ(Run("find @a --name Oak").status, 1);
  EXPECT_NE(Run("find @a --name Oak").out, "");
  // What lacks the thing that is asked for is found only on request, and so is what is deleted.
  EXPECT_EQ(Run("find @a --value none").out, "");
  EXPECT_NE(Run("find @a --value none --include-empty").out, "");
  EXPECT_EQ(Run("find @a --name gone").out, "");
  EXPECT_NE(Run("find @a --name gone --include-deleted").out, "");
}

TEST_F(Tool, RepairTellsWhatIsKeptAndWhatIsNot) {
  const ByteVector head = FileHeader() + ByteVector(Header2());  // 4150 bytes
  const ByteVector whole = head + EndOf(7) + EndOf(8, 1) + Record(200, 1, 0, Hex("00"));
  const ByteVector damaged = whole + Hex("00*30") + EndOf(7);
  const ByteVector small = head + EndOf(7);
  const struct {
    ByteVector source;
    std::string options;
    ByteVector copy;
    std::string out;
  } kCases[] = {
      {whole, "", small,
       "Kept      2 records, 4168 bytes of 4201\n"
       "Left out  1 deleted record, 1 record of unknown type, 0 damaged bytes\n"},
      {damaged, "", small,
       "Kept      2 records, 4168 bytes of 4249\n"
       "Left out  1 deleted record, 1 record of unknown type, 48 damaged bytes\n"
       "Gap       at offset 4201, 48 bytes: Corrupt Record Header\n"},
      {damaged, "--salvage", small + EndOf(7),
       "Kept      3 records, 4186 bytes of 4249\n"
       "Left out  1 deleted record, 1 record of unknown type, 30 damaged bytes\n"
       "Gap       at offset 4201, 30 bytes: Corrupt Record Header\n"},
      {small + Record(1, 1, 0, Hex("00")), "", small,
       "Kept      2 records, 4168 bytes of 4183\n"
       "Left out  0 deleted records, 0 records of unknown type, 15 damaged bytes\n"
       "Gap       at offset 4168, 15 bytes: EOF Error\n"},
      // A header that nobody follows to its end, and what comes after it.
      {small + WithLength(EndOf(8, 1), 0xFFFFFFF0) + EndOf(9), "", small,
       "Kept      2 records, 4168 bytes of 4204\n"
       "Left out  0 deleted records, 0 records of unknown type, 36 damaged bytes\n"
       "Gap       at offset 4168, 36 bytes: Corrupt Record Header\n"},
  };
  for (const auto& c : kCases) {
    WriteFile(dir / "a", c.source);
    const ToolResult got = Run("repair @a @b --force " + c.options);
    EXPECT_EQ(got.out, c.out + "Written   in file version 3\n");
    EXPECT_EQ(got.status, c.source == whole ? 0 : 1);
    EXPECT_EQ(ReadFile(dir / "b"), c.copy);
    EXPECT_EQ(ReadFile(dir / "a"), c.source);
  }
  WriteFile(dir / "a", FileHeader(3, 5) + Hex("aa*3") + ByteVector(Header2()));
  EXPECT_NE(Run("repair @a @b --force").out.find("Left out  an application header of 3 bytes\n"), std::string::npos);
  WriteFile(dir / "a", ByteVector(50) + EndOf(7));  // no file header at all
  EXPECT_EQ(Run("repair @a @b --force").status, 2);
  EXPECT_EQ(Run("repair @a @b --force --salvage").status, 1);
  EXPECT_EQ(ReadFile(dir / "b"), FileHeader() + EndOf(7));
  WriteFile(dir / "a", ByteVector(90));
  EXPECT_EQ(Run("repair @a @b --force --salvage").status, 2) << "nothing to save";
}

TEST_F(Tool, RepairLosesNothingUnlessToldTo) {
  const ByteVector head = FileHeader() + ByteVector(Header2{.kespVersion = 3});
  WriteFile(dir / "a", head + Feature(1, std::string(21, 'x')) + Point(1, 1));
  const std::string lost = "Lost      1 text and 0 numbers of 1 feature\n";
  EXPECT_EQ(Run("repair @a @b --format 2"), (ToolResult{2, lost,
                                                        "@b: file version 2 can't hold all of 1 record; "
                                                        "nothing is written without --lossy"}));
  EXPECT_FALSE(fs::exists(dir / "b"));
  const ToolResult got = Run("repair @a @b --format 2 --lossy");
  EXPECT_EQ(got.status, 0);
  EXPECT_NE(got.out.find(lost + "Written   in file version 2\n"), std::string::npos) << got.out;
  EXPECT_EQ(Run("repair @a @c").status, 0);
  EXPECT_EQ(ReadFile(dir / "c"), ReadFile(dir / "a"));
  EXPECT_EQ(Run("repair --format 3 @b @d").status, 0) << "an older file into a newer version";
  EXPECT_EQ(ReadFile(dir / "d")[42], 3);
}

// Sparse: the file has 4 GiB of an unknown record, and a note after it.
TEST_F(Tool, SaysThatAFileIsLongerThanPositionsReach) {
  WriteFile(dir / "a", Survey({Header2(), Note("first"), WithLength(Record(200, 1, 0, {}), 0xFFFFFFF0)}));
  fs::resize_file(dir / "a", fs::file_size(dir / "a") + 0xFFFFFFF0);
  for (const std::string command : {"info", "dump", "dump --dataset", "validate", "find"}) {
    const ToolResult got = Run(command + " @a");
    EXPECT_EQ(got.status, 2) << command;
    EXPECT_NE((got.out + got.err).find("positions in a Kesp data file end at 4 GiB"), std::string::npos) << command;
  }
  EXPECT_EQ(Run("repair @a @b").status, 2);
  EXPECT_EQ(Run("repair --first-4gib @a @b").status, 1);
  EXPECT_EQ(ReadFile(dir / "b"), Survey({Header2(), Note("first")}));
}

TEST_F(Tool, NothingIsReplacedUnaskedAndNothingIsLeftLyingAbout) {
  const ByteVector bytes = FileHeader() + ByteVector(Header2()) + EndOf(7);
  WriteFile(dir / "a", bytes);
  WriteFile(dir / "held", bytes);
  fs::create_hard_link(dir / "a", dir / "hard");
  MakeSoftLink(dir / "a", dir / "soft");
  CKespDataFile holder;
  ASSERT_TRUE(holder.Open(Text(dir / "held")));
  for (const std::string command : {"copy ", "repair "}) {
    WriteFile(dir / "b", Hex("aa"));
    EXPECT_EQ(Run(command + "@a @b"), (ToolResult{2, "", "@b: exists; --force replaces it"}));
    for (const std::string name : {"@a", "@hard", "@soft", "@held", "@", "@none/b", "/dev/full"}) {
      EXPECT_EQ(Run(command + "--force @a " + name).status, 2) << name;
    }
    EXPECT_EQ(Run(command + "@held @new").status, 2) << "it may change meanwhile";
    EXPECT_EQ(ReadFile(dir / "b"), Hex("aa"));
    EXPECT_EQ(Run(command + "--force @a @b").status, 0);
    EXPECT_EQ(ReadFile(dir / "b"), bytes);
    EXPECT_EQ(Run(command + "@a @" + std::string(250, command[0])).status, 0) << "as long as a name may be";
  }
  EXPECT_EQ(Run("copy --force @a @b").out, "Copied 4168 bytes, 2 records\n");
  EXPECT_EQ(Run("copy @a -").out, std::string(bytes.begin(), bytes.end()));
  fs::create_directory(dir / "folder");
  EXPECT_EQ(Run("copy @a @folder").status, 0);
  EXPECT_EQ(ReadFile(dir / "folder/a"), bytes);
  EXPECT_EQ(ReadFile(dir / "a"), bytes);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / ""), fs::directory_iterator()), 8);
}

}  // namespace
}  // namespace kesp::test
