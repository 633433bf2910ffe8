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

// A line "Oak" with a point at 0 east, 0 north, and a numeric attribute "Girth" of 2.
const ByteVector kOak = Stored{1, 3, FeatureBody3()}.Bytes();
const ByteVector kHeader = Record(3, 2, 0, ByteVector(4086));  // which a data set wants first
const ByteVector kPoint = Record(2, 2, 0, Hex("07 00*3 03 00*3 \"A1\" 00*38 80 00 92 65 00*32 04 00 00*20"));
const ByteVector kGirth = Record(5, 3, 0, Hex("07 00*3 \"Girth\" 00*502 02 00 00*1030 40 00*170"));

class ToolFind : public ::testing::Test {
 protected:
  void SetUp() override {
    ByteVector attribute = kGirth;
    const ByteVector two = Hex("00*7 40");
    std::copy(two.begin(), two.end(), attribute.begin() + 14 + 1542);
    attribute.resize(14 + 1712);
    WriteFile(m_path, FileHeader() + kHeader + kOak + attribute + kPoint);
  }
  std::vector<json> Found(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"find", m_path, "--json"});
    const ToolResult got = RunTool(arguments);
    EXPECT_EQ(got.status, 0) << got.err;
    std::vector<json> lines;
    std::istringstream in(got.out);
    for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line));
    return lines;
  }
  TempDir m_dir;
  std::string m_path = m_dir / "a.kesp";
};

TEST_F(ToolFind, AsksEachThingOfTheSearch) {
  const std::pair<std::vector<std::string>, bool> kCases[] = {
      {{}, true},
      {{"--name", "Elm", "--name", "Oak"}, true},
      {{"--name", "oak", "--ignore-case"}, false},  // names of features keep their case
      {{"--type", "line"}, true},
      {{"--type", "point", "--type", "area"}, false},
      {{"--attribute", "Girth", "--range", "1:2"}, true},
      {{"--attribute", "Girth", "--range", "-3:1"}, false},
      {{"--attribute", "girth", "--range", "2:1", "--ignore-case"}, true},
      {{"--range", "1:2", "--invert"}, false},
      {{"--value", "2"}, false},
      {{"--point-text", "A1"}, true},
      {{"--point-text", "a", "--partial", "--ignore-case"}, true},
      {{"--from", "2024-01-01", "--to", "2024-01-01"}, true},
      {{"--from", "2024-01-01T00:00:01Z"}, false},
      {{"--to", "2023-12-31T23:59"}, false},
      {{"--area", "-1,-1,0,0"}, true},
      {{"--area", "1,1,2,2"}, false},
  };
  for (const auto& [arguments, found] : kCases)
    EXPECT_EQ(Found(arguments).size(), found) << (arguments.empty() ? "" : arguments.back());
  EXPECT_EQ(Found({})[0], json::parse(R"({"number":7,"name":"Oak","type":"line","firstTime":"2024-01-01T00:00:00Z",
      "lastTime":"2024-01-01T00:00:00Z","points":[{"number":3,"text":"A1","time":"2024-01-01T00:00:00Z","x":0.0,"y":0.0,
      "z":0.0}],"attributes":[{"name":"Girth","value":2.0}]})"));
  EXPECT_EQ(RunTool({"find", m_path}).out,
            "NUMBER  TYPE  POINTS  ATTRIBUTES  FIRST TIME            NAME\n"
            "7       line  1       1           2024-01-01T00:00:00Z  Oak\n");
}

TEST_F(ToolFind, ADamagedFileIsSearchedAsFarAsItGoes) {
  WriteFile(m_path, FileHeader() + kHeader + kOak + Hex("00*9"));
  const ToolResult got = RunTool({"find", m_path, "--name", "Oak"});
  EXPECT_EQ(got.status, 1);
  EXPECT_NE(got.out.find("Oak"), std::string::npos);
  for (const std::vector<std::string>& wrong :
       std::vector<std::vector<std::string>>{{"--attribute", "a"},
                                             {"--range", "1"},
                                             {"--from", "yesterday"},
                                             {"--from", "2024-02-30"},
                                             {"--area", "1,2,3"},
                                             {"--type", "tree"},
                                             {"--range", "1:2", "--value", "1"}}) {
    std::vector<std::string> arguments{"find", m_path};
    arguments.insert(arguments.end(), wrong.begin(), wrong.end());
    EXPECT_EQ(RunTool(arguments).status, 2) << wrong[0];
  }
}

class ToolRepair : public ::testing::Test {
 protected:
  TempDir m_dir;
  std::string m_source = m_dir / "a.kesp";
  std::string m_copy = m_dir / "b.kesp";
};

TEST_F(ToolRepair, TellsWhatIsKeptAndWhatIsNot) {
  const ByteVector end = Stored{4, 1, EndBody(7)}.Bytes();
  const ByteVector whole = FileHeader() + end + Record(4, 1, 1, EndBody(8)) + Record(200, 1, 0, Hex("00"));
  const ByteVector damaged = whole + Hex("00*30") + end;
  const char* const kLast = "Written   in the layouts of file version 2; a rebuild knows 1 and 2 only\n";
  const struct {
    ByteVector source;
    std::vector<std::string> options;
    int status;
    ByteVector copy;
    std::string out;
  } kCases[] = {
      {whole,
       {},
       0,
       FileHeader() + end,
       "Kept      1 record, 68 bytes of 101\nLeft out  1 deleted record, 1 record of unknown type, 0 damaged bytes\n"},
      {damaged,
       {},
       1,
       FileHeader() + end,
       "Kept      1 record, 68 bytes of 149\nLeft out  1 deleted record, 1 record of unknown type, 48 damaged bytes\n"
       "Gap       at offset 101, 48 bytes: Corrupt Record Header\n"},
      {damaged,
       {"--salvage"},
       1,
       FileHeader() + end + end,
       "Kept      2 records, 86 bytes of 149\nLeft out  1 deleted record, 1 record of unknown type, 30 damaged bytes\n"
       "Gap       at offset 101, 30 bytes: Corrupt Record Header\n"},
      {FileHeader() + end + Record(1, 1, 0, Hex("00")),
       {},
       1,
       FileHeader() + end,
       "Kept      1 record, 68 bytes of 83\nLeft out  0 deleted records, 0 records of unknown type, 15 damaged bytes\n"
       "Gap       at offset 68, 15 bytes: EOF Error\n"},
  };
  for (const auto& c : kCases) {
    WriteFile(m_source, c.source);
    fs::remove(m_copy);
    std::vector<std::string> arguments{"repair", m_source, m_copy};
    arguments.insert(arguments.end(), c.options.begin(), c.options.end());
    const ToolResult got = RunTool(arguments);
    EXPECT_EQ(got.status, c.status) << got.err;
    EXPECT_EQ(got.out, c.out + kLast);
    EXPECT_EQ(ReadFile(m_copy), c.copy);
    EXPECT_EQ(ReadFile(m_source), c.source);
  }
}

TEST_F(ToolRepair, NothingIsReplacedUnaskedAndNothingIsLeftLyingAbout) {
  const ByteVector bytes = FileHeader() + Stored{4, 1, EndBody(7)}.Bytes();
  WriteFile(m_source, bytes);
  WriteFile(m_copy, Hex("aa"));
  fs::create_hard_link(m_source, m_dir / "hard");
  fs::create_symlink(m_source, m_dir / "soft");
  for (const std::string command : {"copy", "repair"}) {
    EXPECT_EQ(RunTool({command, m_source, m_copy}).err, "kesp: " + m_copy + ": exists; --force replaces it\n");
    for (const char* const name : {"a.kesp", "hard", "soft"}) {
      EXPECT_EQ(RunTool({command, m_source, m_dir / name, "--force"}).status, 2) << name;
    }
    EXPECT_EQ(RunTool({command, m_source, "/dev/full", "--force"}).status, 2);
    EXPECT_EQ(RunTool({command, m_source, m_dir / "none" / "b"}).status, 2);
    CKespDataFile holder;
    WriteFile(m_dir / "held", bytes);
    ASSERT_TRUE(holder.Open(Text(m_dir / "held")));
    EXPECT_EQ(RunTool({command, m_source, m_dir / "held", "--force"}).status, 2);
    EXPECT_EQ(ReadFile(m_copy), Hex("aa"));
    EXPECT_EQ(RunTool({command, m_source, m_copy, "--force"}).status, 0);
    EXPECT_EQ(ReadFile(m_copy), bytes);
    WriteFile(m_copy, Hex("aa"));
  }
  EXPECT_EQ(ReadFile(m_source), bytes);
  EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(m_copy).parent_path()), fs::directory_iterator()), 5);
  WriteFile(m_source, FileHeader(3, 20) + Hex("00*18"));
  EXPECT_EQ(RunTool({"repair", m_source, m_dir / "new"}).status, 2);
  EXPECT_EQ(RunTool({"repair", m_source, m_dir / "new", "--salvage"}).status, 0);
}

}  // namespace
}  // namespace kesp::test
