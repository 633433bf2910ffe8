// The sub-commands that search a file and make a new one of it: find, copy, repair.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "kesp/recordfile/KespDataFile.h"
#include "tests/recordfile/Survey.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Words = std::vector<std::string>;

class ToolFiles : public ::testing::Test {
 protected:
  // "command FILE" and what follows, split at spaces.
  ToolResult Run(const std::string& command, const std::string& options = {}, const Words& more = {}) const {
    Words words{command, m_source};
    words.insert(words.end(), more.begin(), more.end());
    std::istringstream in(options);
    for (std::string word; in >> word;) words.push_back(word);
    return RunTool(words);
  }
  TempDir m_dir;
  std::string m_source = m_dir / "a.kesp";
  std::string m_copy = m_dir / "b.kesp";
};

TEST_F(ToolFiles, FindAsksEachThingOfTheSearch) {
  // A line "Oak" with a point at 0 east, 0 north, and a numeric attribute "Girth" of 2.
  const ByteVector oak = FileHeader() + Record(3, 2, 0, ByteVector(4086)) + Record(1, 3, 0, FeatureBody3());
  WriteFile(m_source, oak + Record(5, 3, 0, Hex("07 00*3 \"Girth\" 00*502 02 00 00*1024 00*7 40 00*162")) +
                          Record(2, 2, 0, Hex("07 00*3 03 00*3 \"A1\" 00*38 80 00 92 65 00*32 04 00 00*20")));
  const std::pair<const char*, bool> kCases[] = {
      // clang-format off
      {"", true}, {"--name Elm --name Oak", true}, {"--name oak --ignore-case", false}, {"--type line", true},
      {"--type point --type area", false}, {"--attribute Girth --range 1:2", true}, {"--range 1:2 --invert", false},
      {"--attribute Girth --range -3:1", false}, {"--attribute girth --range 2:1 --ignore-case", true},
      {"--value 2", false}, {"--point-text A1", true}, {"--point-text a --partial --ignore-case", true},
      {"--point-text a", false}, {"--from 2024-01-01 --to 2024-01-01", true}, {"--from 2024-01-01T00:00:01Z", false},
      {"--to 2023-12-31T23:59", false}, {"--area -1,-1,0,0", true}, {"--area 1,1,2,2", false},
      // clang-format on
  };
  for (const auto& [options, found] : kCases) EXPECT_EQ(Run("find", options).out.empty(), !found) << options;
  EXPECT_EQ(json::parse(Run("find", "--json").out), json::parse(R"({"number":7,"name":"Oak","type":"line",
      "firstTime":"2024-01-01T00:00:00Z","lastTime":"2024-01-01T00:00:00Z","points":[{"number":3,"text":"A1",
      "time":"2024-01-01T00:00:00Z","x":0.0,"y":0.0,"z":0.0}],"attributes":[{"name":"Girth","value":2.0}]})"));
  EXPECT_EQ(Run("find").out,
            "NUMBER  TYPE  POINTS  ATTRIBUTES  FIRST TIME            NAME\n"
            "7       line  1       1           2024-01-01T00:00:00Z  Oak\n");
  for (const char* wrong : {"--attribute a", "--invert", "--range 1", "--range 1:2 --value 1", "--from yesterday",
                            "--from 2024-02-30", "--area 1,2,3", "--area 1,2,3,nan", "--type tree"}) {
    EXPECT_EQ(Run("find", wrong).status, 2) << wrong;
  }
  WriteFile(m_source, oak + Hex("00*9"));  // damaged: searched as far as it goes
  EXPECT_EQ(Run("find", "--name Oak").status, 1);
  EXPECT_NE(Run("find", "--name Oak").out, "");
}

TEST_F(ToolFiles, RepairTellsWhatIsKeptAndWhatIsNot) {
  const ByteVector whole = FileHeader() + EndOf(7) + EndOf(8, 1) + Record(200, 1, 0, Hex("00"));
  const ByteVector damaged = whole + Hex("00*30") + EndOf(7);
  const struct {
    ByteVector source;
    const char* options;
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
      {ByteVector(50) + EndOf(7), "--salvage", FileHeader() + EndOf(7),
       "Kept      1 record, 68 bytes of 68\nLeft out  0 deleted records, 0 records of unknown type, 50 damaged bytes\n"
       "Gap       at offset 0, 50 bytes: Bad KESP Signature\n"},
  };
  for (const auto& c : kCases) {
    WriteFile(m_source, c.source);
    const ToolResult got = Run("repair", c.options, {m_copy, "--force"});
    EXPECT_EQ(got.status, c.source != whole) << got.err;
    EXPECT_EQ(got.out, c.out + "Written   in the layouts of file version 2; a rebuild knows 1 and 2 only\n");
    EXPECT_TRUE(ReadFile(m_copy) == c.copy && ReadFile(m_source) == c.source);
  }
  for (const ByteVector& none : {FileHeader(3, 20) + Hex("00*18"), ByteVector(90)}) {
    WriteFile(m_source, none);
    EXPECT_EQ(Run("repair", "", {m_copy, "--force"}).status, 2);
    EXPECT_EQ(Run("repair", "--salvage", {m_copy, "--force"}).status, none[0] == 0 ? 2 : 0);
  }
}

TEST_F(ToolFiles, NothingIsReplacedUnaskedAndNothingIsLeftLyingAbout) {
  const ByteVector bytes = FileHeader() + EndOf(7);
  WriteFile(m_source, bytes);
  WriteFile(m_dir / "held", bytes);
  fs::create_hard_link(m_source, m_dir / "hard");
  fs::create_symlink(m_source, m_dir / "soft");
  CKespDataFile holder;
  ASSERT_TRUE(holder.Open(Text(m_dir / "held")));
  for (const std::string command : {"copy", "repair"}) {
    WriteFile(m_copy, Hex("aa"));
    EXPECT_EQ(Run(command, "", {m_copy}).err, "kesp: " + m_copy + ": exists; --force replaces it\n");
    for (const char* const name : {"a.kesp", "hard", "soft", "held", "", "none/b", "/dev/full"}) {
      EXPECT_EQ(Run(command, "--force", {fs::path(m_dir / "") / name}).status, 2) << name;
    }
    EXPECT_EQ(RunTool({command, m_dir / "held", m_dir / "new"}).status, 2) << "it may change meanwhile";
    EXPECT_EQ(ReadFile(m_copy), Hex("aa"));
    EXPECT_EQ(Run(command, "--force", {m_copy}).status, 0);
    EXPECT_EQ(ReadFile(m_copy), bytes);
    EXPECT_EQ(Run(command, "", {m_dir / std::string(250, command[0])}).status, 0) << "as long as a name may be";
  }
  EXPECT_EQ(ReadFile(m_source), bytes);
  EXPECT_EQ(std::distance(fs::directory_iterator(m_dir / ""), fs::directory_iterator()), 7);
}

}  // namespace
}  // namespace kesp::test
