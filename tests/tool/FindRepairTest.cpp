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
      {"", true}, {"--name Elm --name Oak", true}, {"--name ./[x]", false}, {"--name oak --ignore-case", false}, {"--type line", true},
      {"--type point --type area", false}, {"--attribute Girth --range 1:2", true}, {"--range 1:2 --invert", false},
      {"--attribute Girth --range -3:1", false}, {"--attribute girth --range 2:1 --ignore-case", true},
      {"--value 2", false}, {"--point-text A1", true}, {"--point-text a --partial --ignore-case", true},
      {"--point-text a", false}, {"--from 2024-01-01 --to 2024-01-01", true}, {"--from 2024-01-01T00:00:01Z", false},
      {"--to 2023-12-31T23:59", false}, {"--area -1,-1,0,0", true}, {"--area 1,1,2,2", false},
      // clang-format on
  };
  for (const auto& [options, found] : kCases) EXPECT_EQ(Run("find @a " + options).out.empty(), !found) << options;
  EXPECT_EQ(json::parse(Run("find --json @a").out), json::parse(R"({"number":7,"name":"Oak","type":"line",
      "firstTime":"2024-01-01T00:00:00Z","lastTime":"2024-01-01T00:00:00Z","points":[{"number":3,"text":"A1",
      "time":"2024-01-01T00:00:00Z","x":0.0,"y":0.0,"z":0.0}],"attributes":[{"name":"Girth","value":2.0}]})"));
  EXPECT_EQ(Run("find @a").out,
            "NUMBER  TYPE  POINTS  ATTRIBUTES  FIRST TIME            NAME\n"
            "7       line  1       1           2024-01-01T00:00:00Z  Oak\n");
  for (const std::string wrong : {"--attribute a", "--invert", "--range 1", "--range 1:2 --value 1", "--from yesterday",
                                  "--from 2024-02-30", "--area 1,2,3", "--area 1,2,3,nan", "--type tree"}) {
    EXPECT_EQ(Run("find @a " + wrong).status, 2) << wrong;
  }
  WriteFile(dir / "a", oak + Hex("00*9"));  // damaged: searched as far as it goes
  EXPECT_EQ(Run("find @a --name Oak").status, 1);
  EXPECT_NE(Run("find @a --name Oak").out, "");
}

TEST_F(Tool, RepairTellsWhatIsKeptAndWhatIsNot) {
  const ByteVector whole = FileHeader() + EndOf(7) + EndOf(8, 1) + Record(200, 1, 0, Hex("00"));
  const ByteVector damaged = whole + Hex("00*30") + EndOf(7);
  const struct {
    ByteVector source;
    std::string options;
    ByteVector copy;
    std::string out;
  } kCases[] = {
      {whole, "", FileHeader() + EndOf(7),
       "Kept      1 record, 68 bytes of 101\nLeft out  1 deleted record, 1 record of unknown type, 0 damaged bytes\n"},
      {damaged, "", FileHeader() + EndOf(7),
       "Kept      1 record, 68 bytes of 149\nLeft out  1 deleted record, 1 record of unknown type, 48 damaged bytes\n"
       "Gap       at offset 101, 48 bytes: Corrupt Record Header\n"},
      {damaged, "--salvage", FileHeader() + EndOf(7) + EndOf(7),
       "Kept      2 records, 86 bytes of 149\nLeft out  1 deleted record, 1 record of unknown type, 30 damaged bytes\n"
       "Gap       at offset 101, 30 bytes: Corrupt Record Header\n"},
      {FileHeader() + EndOf(7) + Record(1, 1, 0, Hex("00")), "", FileHeader() + EndOf(7),
       "Kept      1 record, 68 bytes of 83\nLeft out  0 deleted records, 0 records of unknown type, 15 damaged bytes\n"
       "Gap       at offset 68, 15 bytes: EOF Error\n"},
      // A header that nobody follows to its end, and what stands behind it.
      {FileHeader() + EndOf(7) + WithLength(EndOf(8, 1), 0xFFFFFFF0) + EndOf(9), "", FileHeader() + EndOf(7),
       "Kept      1 record, 68 bytes of 104\nLeft out  0 deleted records, 0 records of unknown type, 36 damaged bytes\n"
       "Gap       at offset 68, 36 bytes: Corrupt Record Header\n"},
      {ByteVector(50) + EndOf(7), "--salvage", FileHeader() + EndOf(7),
       "Kept      1 record, 68 bytes of 68\nLeft out  0 deleted records, 0 records of unknown type, 50 damaged bytes\n"
       "Gap       at offset 0, 50 bytes: Bad KESP Signature\n"},
  };
  for (const auto& c : kCases) {
    WriteFile(dir / "a", c.source);
    const std::string out =
        c.out + (c.options.empty() ? "Written   in the layouts of file version 2; a rebuild knows 1 and 2 only\n"
                                   : "Written   in the version of the file, each record in its own\n");
    EXPECT_EQ(Run("repair @a @b --force " + c.options), (ToolResult{c.source != whole, out, ""}));
    EXPECT_TRUE(ReadFile(dir / "b") == c.copy && ReadFile(dir / "a") == c.source);
  }
  WriteFile(dir / "a", FileHeader(3, 5) + Hex("aa*3") + EndOf(7));
  EXPECT_NE(Run("repair @a @b --force --salvage").out.find("Left out  an application header of 3 bytes\n"),
            std::string::npos);
  ByteVector longName = SampleBody(1, 3);
  std::fill_n(longName.begin() + 4, 42, std::uint8_t{1});
  WriteFile(dir / "a", FileHeader() + Record(1, 3, 0, longName) + EndOf(7));
  EXPECT_NE(Run("repair @a @b --force --salvage --version 2")
                .out.find("Lost      in version 2, 1 text and 0 numbers of 1 feature\nWritten   in file version 2\n"),
            std::string::npos);
  for (const ByteVector& none : {FileHeader(3, 20) + Hex("00*18"), ByteVector(90)}) {
    WriteFile(dir / "a", none);
    EXPECT_EQ(Run("repair @a @b --force").status, 2);
    EXPECT_EQ(Run("repair @a @b --force --salvage").status, none[0] == 0 ? 2 : 0);
  }
}

TEST_F(Tool, NothingIsReplacedUnaskedAndNothingIsLeftLyingAbout) {
  const ByteVector bytes = FileHeader() + EndOf(7);
  WriteFile(dir / "a", bytes);
  WriteFile(dir / "held", bytes);
  fs::create_hard_link(dir / "a", dir / "hard");
  fs::create_symlink(dir / "a", dir / "soft");
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
  EXPECT_EQ(Run("copy --force @a @b").out, "Copied 68 bytes, 1 record\n");
  EXPECT_EQ(ReadFile(dir / "a"), bytes);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / ""), fs::directory_iterator()), 7);
}

}  // namespace
}  // namespace kesp::test
