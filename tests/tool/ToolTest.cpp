#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

using nlohmann::json;

const ByteVector kEnd7 = Record(4, 1, 0, Hex("07 00 00 00"));              // offset 50, 18 bytes
const ByteVector kDeletedEnd = Record(4, 1, 1, Hex("08 00 00 00"));        // a deleted one
const ByteVector kUnknown = Record(200, 3, 0, Hex("aa bb"));               // of a type that nobody knows
const ByteVector kBadFeature = Record(1, 1, 0, Hex("07 00 00 00 00*30"));  // of type 0
const ByteVector kShortFeature = Record(1, 1, 0, Hex("07 00 00 00"));      // shorter than its layout, at the file's end
const char* const kEnd7Line =
    R"({"offset":50,"type":"featureEnd","version":1,"flags":0,"deleted":false,"length":4,"fields":{"FeatureNumber":7}})"
    "\n";

class Tool : public ::testing::Test {
 protected:
  std::string Make(const ByteVector& records, const std::string& name = "a.kesp") {
    WriteFile(m_dir / name, FileHeader() + records);
    return m_dir / name;
  }
  TempDir m_dir;
};

TEST_F(Tool, DumpWritesEachRecordAndHowTheWalkEnded) {
  const struct {
    ByteVector records;
    bool includeDeleted;
    int status;
    std::string out;
    std::string err;  // behind the path
    // clang-format off
  } kCases[] = {
      {kEnd7 + kUnknown + kDeletedEnd, false, 0, kEnd7Line + std::string(R"({"end":{"error":1,"message":"Normal EOF"}})"), ""},
      {kEnd7 + kUnknown + kDeletedEnd, true, 0, kEnd7Line + std::string(R"({"offset":84,"type":"featureEnd","version":1,"flags":1,"deleted":true,"length":4,)" R"("fields":{"FeatureNumber":8}})" "\n" R"({"end":{"error":1,"message":"Normal EOF"}})"), ""},
      {kEnd7 + kUnknown + kBadFeature + kEnd7, false, 1, kEnd7Line + std::string(R"({"end":{"error":5,"message":"Bad Record"}})"), "damaged at offset 84: Bad Record\n"},
      {kDeletedEnd + kShortFeature, false, 1, R"({"end":{"error":2,"message":"EOF Error"}})", "damaged at offset 68: EOF Error\n"},
      {Record(6, 0, 0, Hex("00")), false, 1, R"({"end":{"error":0,"message":"No Error"}})", "damaged at offset 50: a record body that can't be read\n"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    const std::string path = Make(c.records);
    const ToolResult got = RunTool({"dump", path, c.includeDeleted ? "--include-deleted" : "--records"});
    EXPECT_EQ(got.status, c.status);
    EXPECT_EQ(got.out, c.out + "\n");
    EXPECT_EQ(got.err, c.err.empty() ? "" : "kesp: " + path + ": " + c.err);
  }
}

TEST_F(Tool, DumpKeepsEveryUnitAndEveryDouble) {
  ByteVector note = Hex("22 00 5c 00 0a 00 7f 00 e9 00 3c d8 33 df 33 df 00 00 41 00");  // ends at the zero unit
  note.resize(512);
  const std::string text = RunTool({"dump", Make(Record(6, 2, 0, note))}).out;
  EXPECT_NE(text.find(R"("NoteText":"\u0022\u005c\u000a\u007f\u00e9\ud83c\udf33\udf33"})"), std::string::npos) << text;

  const std::pair<const char*, const char*> kDoubles[] = {
      {"00 00 00 00 00 00 00 80", "-0.0"},    {"9a 99 99 99 99 99 b9 3f", "0.1"},
      {"00 00 00 00 00 00 59 40", "100.0"},   {"01 00 00 00 00 00 00 00", "5e-324"},
      {"00 00 00 00 00 00 f8 7f", "\"NaN\""}, {"00 00 00 00 00 00 f0 ff", "\"-Infinity\""}};
  for (const auto& [bytes, digits] : kDoubles) {
    // A double tag "d": 4 bytes of name, then 8 of payload.
    const ByteVector body = Hex("02 00 00 00 14 00 00 00 04 00 00 00 \"d\" 00 00 08 00 00 00") + Hex(bytes);
    const std::string line = RunTool({"dump", Make(Record(9, 2, 0, body))}).out;
    EXPECT_NE(line.find(std::string(R"("name":"d","value":)") + digits + "}"), std::string::npos) << line;
  }
}

TEST_F(Tool, InfoCountsAndFindsTheFirstDamage) {
  // At 1.5 east and -2 north, 10 seconds into 1970.
  ByteVector point = Hex("00*50 0a 00 00 00 00*6 00 c0 00*6 f8 3f");
  point.resize(108);
  const std::string path =
      Make(kEnd7 + kDeletedEnd + Record(2, 2, 0, point) + kUnknown + Record(5, 9, 1, Hex("00")) + kBadFeature);
  const ToolResult got = RunTool({"info", "--json", path});
  EXPECT_EQ(got.status, 1);
  const json info = json::parse(got.out, nullptr, false);
  ASSERT_FALSE(info.is_discarded()) << got.out;
  EXPECT_EQ(info["path"], path);
  EXPECT_EQ(info["fileVersion"], 3);
  EXPECT_EQ(info["header"], nullptr);
  EXPECT_EQ(info["closedCleanly"], nullptr);
  EXPECT_EQ(info["points"], 1);
  EXPECT_EQ(info["extent"], json::parse(R"({"minX":1.5,"maxX":1.5,"minY":-2.0,"maxY":-2.0})"));
  EXPECT_EQ(info["firstTime"], 10);
  EXPECT_EQ(info["records"], json::parse(R"([{"type":"point","version":2,"count":1,"deleted":0},
      {"type":"featureEnd","version":1,"count":2,"deleted":1},{"type":"attribute","version":9,"count":1,"deleted":1},
      {"type":200,"version":3,"count":1,"deleted":0}])"));
  EXPECT_EQ(info["damage"], json::parse(R"({"offset":239,"message":"damaged at offset 239: Bad Record"})"));
  EXPECT_EQ(got.err, "kesp: " + path + ": damaged at offset 239: Bad Record\n");

  const ToolResult text = RunTool({"info", path});
  EXPECT_NE(text.out.find("\n  featureEnd v1   2 (1 deleted)\n"), std::string::npos) << text.out;
}

TEST_F(Tool, SaysWhetherTheFileWasClosedCleanly) {
  for (const std::uint8_t status : {std::uint8_t{0}, std::uint8_t{1}}) {
    ByteVector header(4086);
    header[0] = status;
    header[10] = 0x1B;  // HeaderText1: an escape character, which must not reach a terminal
    const std::string path = Make(Record(3, 2, 0, header));
    EXPECT_EQ(json::parse(RunTool({"info", path, "--json"}).out)["closedCleanly"], status == 1);
    const std::string text = RunTool({"info", path}).out;
    EXPECT_NE(text.find(status == 1 ? "Closed cleanly    yes\n" : "Closed cleanly    no\n"), std::string::npos) << text;
    EXPECT_NE(text.find("HeaderText1     \\u001b\n"), std::string::npos) << text;
  }
}

TEST_F(Tool, TellsWhatCannotBeOpened) {
  const std::string missing = m_dir / "missing";
  for (const char* const command : {"info", "dump"}) {
    const ToolResult got = RunTool({command, missing});
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.err, "kesp: " + missing + ": No such file or directory\n");
  }
  WriteFile(m_dir / "text", Hex("'not a survey'"));
  const std::string text = m_dir / "text";
  const ToolResult got = RunTool({"dump", text});
  EXPECT_EQ(got.status, 2);
  EXPECT_EQ(got.out, "{\"end\":{\"error\":9,\"message\":\"Bad KESP Signature\"}}\n");
  EXPECT_EQ(got.err, "kesp: " + text + ": Bad KESP Signature\n");
}

TEST_F(Tool, TakesEveryFileName) {
  for (const std::string name :
       {"\xFF\xFE", "\xED\xB2\x80", "\xED", "\xF0\x9F\x8C\xB3", "dump", " ", "[a,b]", "a\nb"}) {
    EXPECT_EQ(RunTool({"dump", Make(kEnd7, name)}).status, 0) << name;
  }
}

TEST(ToolUsage, WrongUsageHasItsOwnStatus) {
  const std::vector<std::string> kWrong[] = {{}, {"frob"}, {"dump"}, {"dump", "a", "b"}, {"info", "--frob", "a"}};
  for (const auto& arguments : kWrong) {
    const ToolResult got = RunTool(arguments);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.err.rfind("kesp: ", 0), 0u) << got.err;
  }
  for (const char* const question : {"--help", "--version"}) {
    const ToolResult got = RunTool({question});
    EXPECT_EQ(got.status, 0);
    EXPECT_FALSE(got.out.empty());
    EXPECT_EQ(RunTool({question}, ToolOutput::kFullDisk).status, 2);
  }
}

TEST_F(Tool, OutputThatIsLostIsAnErrorUnlessNobodyWantsIt) {
  ByteVector many;
  for (int i = 0; i < 5000; ++i) Append(many, kEnd7);  // more than a pipe and the tool's buffer hold
  for (const ByteVector& records : {many, kEnd7}) {
    const std::string path = Make(records);
    const ByteVector before = ReadFile(path);
    EXPECT_EQ(RunTool({"dump", path}, ToolOutput::kFullDisk).err, "kesp: standard output: No space left on device\n");
    EXPECT_EQ(RunTool({"dump", path}, ToolOutput::kFullDisk).status, 2);
    EXPECT_EQ(RunTool({"dump", path}, ToolOutput::kClosed).status, 2);
    const ToolResult quiet = RunTool({"dump", path}, ToolOutput::kNobodyReads);
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(ReadFile(path), before);
  }
}

}  // namespace
}  // namespace kesp::test
