// What every sub-command does alike, dump of records, and info.
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

class Tool : public ::testing::Test {
 protected:
  std::string Make(const ByteVector& records, const std::string& name = "a.kesp") {
    WriteFile(m_dir / name, FileHeader() + records);
    return m_dir / name;
  }
  TempDir m_dir;
};

TEST_F(Tool, DumpWritesEachRecordAndHowTheWalkEnded) {
  // clang-format off
  const std::string end7 = R"({"offset":50,"type":"featureEnd","version":1,"flags":0,"deleted":false,"length":4,"fields":{"FeatureNumber":7}})" "\n";
  const std::string end8 = R"({"offset":84,"type":"featureEnd","version":1,"flags":1,"deleted":true,"length":4,"fields":{"FeatureNumber":8}})" "\n";
  const struct {
    ByteVector records;
    const char* mode;
    int status;
    std::string out;
    std::string err;  // behind the path
  } kCases[] = {
      {kEnd7 + kUnknown + kDeletedEnd, "--records", 0, end7 + R"({"end":{"error":1,"message":"Normal EOF"}})", ""},
      {kEnd7 + kUnknown + kDeletedEnd, "--include-deleted", 0, end7 + end8 + R"({"end":{"error":1,"message":"Normal EOF"}})", ""},
      {kEnd7 + kUnknown + kBadFeature + kEnd7, "--records", 1, end7 + R"({"end":{"error":5,"message":"Bad Record"}})", "damaged at offset 84: Bad Record\n"},
      {kDeletedEnd + kShortFeature, "--records", 1, R"({"end":{"error":2,"message":"EOF Error"}})", "damaged at offset 68: EOF Error\n"},
      {Record(6, 0, 0, Hex("00")), "--records", 1, R"({"end":{"error":0,"message":"No Error"}})", "damaged at offset 50: a record body that can't be read\n"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    const std::string path = Make(c.records);
    const ToolResult got = RunTool({"dump", path, c.mode});
    EXPECT_EQ(got.status, c.status);
    EXPECT_EQ(got.out, c.out + "\n");
    EXPECT_EQ(got.err, c.err.empty() ? "" : "kesp: " + path + ": " + c.err);
  }
}

TEST_F(Tool, DumpKeepsEveryUnitAndEveryDouble) {
  ByteVector note = Hex("22 00 5c 00 0a 00 7f 00 e9 00 3c d8 33 df 33 df 00 00 41 00");  // ends at the zero unit
  note.resize(512);
  ByteVector records = Record(6, 2, 0, note);
  std::vector<std::string> wanted{R"("NoteText":"\u0022\u005c\u000a\u007f\u00e9\ud83c\udf33\udf33")"};
  const std::pair<const char*, const char*> kDoubles[] = {
      {"00 00 00 00 00 00 00 80", "-0.0"},    {"9a 99 99 99 99 99 b9 3f", "0.1"},
      {"00 00 00 00 00 00 59 40", "100.0"},   {"01 00 00 00 00 00 00 00", "5e-324"},
      {"00 00 00 00 00 00 f8 7f", "\"NaN\""}, {"00*6 f0 ff", "\"-Infinity\""}};
  for (const auto& [bytes, digits] : kDoubles) {
    // A double tag "d": 4 bytes of name, then 8 of payload.
    Append(records, Record(9, 2, 0, Hex("02 00*3 14 00*3 04 00*3 \"d\" 00 00 08 00*3") + Hex(bytes)));
    wanted.push_back(R"("name":"d","value":)" + std::string(digits));
  }
  const std::string text = RunTool({"dump", Make(records)}).out;
  for (const std::string& fields : wanted) EXPECT_NE(text.find(fields + "}"), std::string::npos) << fields << text;
}

TEST_F(Tool, InfoCountsAndFindsTheFirstDamage) {
  // At 1.5 east and -2 north, 10 seconds into 1970.
  const ByteVector point = Hex("00*50 0a 00 00 00 00*6 00 c0 00*6 f8 3f 00*38");
  const std::string path =
      Make(kEnd7 + kDeletedEnd + Record(2, 2, 0, point) + kUnknown + Record(5, 9, 1, Hex("00")) + kBadFeature);
  const ToolResult got = RunTool({"info", "--json", path});
  EXPECT_EQ(got.status, 1);
  EXPECT_EQ(got.err, "kesp: " + path + ": damaged at offset 239: Bad Record\n");
  json info = json::parse(got.out);
  for (const char* const member : {"path", "dataset", "length", "headerWord", "firstRecordOffset"}) info.erase(member);
  EXPECT_EQ(info, json::parse(R"({"fileVersion":3,"header":null,"closedCleanly":null,"points":1,"firstTime":10,
      "lastTime":10,"extent":{"minX":1.5,"maxX":1.5,"minY":-2.0,"maxY":-2.0},"end":{"error":5,"message":"Bad Record"},
      "records":[{"type":"point","version":2,"count":1,"deleted":0},
      {"type":"featureEnd","version":1,"count":2,"deleted":1},{"type":"attribute","version":9,"count":1,"deleted":1},
      {"type":200,"version":3,"count":1,"deleted":0}],
      "damage":{"offset":239,"message":"damaged at offset 239: Bad Record"}})"));
  EXPECT_NE(RunTool({"info", path}).out.find("\n  featureEnd v1   2 (1 deleted)\n"), std::string::npos);

  ByteVector header(4086);
  header[10] = 0x1B;  // HeaderText1: an escape character, which must not reach a terminal
  for (const std::uint8_t status : {std::uint8_t{0}, std::uint8_t{1}}) {
    header[0] = status;
    const std::string text = RunTool({"info", Make(Record(3, 2, 0, header))}).out;
    EXPECT_NE(text.find(status == 1 ? "Closed cleanly    yes\n" : "Closed cleanly    no\n"), std::string::npos) << text;
    EXPECT_NE(text.find("HeaderText1     \\u001b\n"), std::string::npos) << text;
  }
}

TEST_F(Tool, TakesEveryFileNameAndTellsWhatIsWrong) {
  for (const std::string name : {"\xFF\xFE", "\xED\xB2\x80", "\xF0\x9F\x8C\xB3", "dump", " ", "[a,b]", "a\nb"}) {
    EXPECT_EQ(RunTool({"dump", Make(kEnd7, name)}).status, 0) << name;
  }
  for (const char* const line : {"", "frob", "dump", "dump a b", "info --frob a", "info /none/x", "dump /none/x"}) {
    const ToolResult got = RunTool(line, "");
    EXPECT_EQ(got.status, 2) << line;
    EXPECT_EQ(got.err.rfind("kesp: ", 0), 0u) << got.err;
  }
  EXPECT_EQ(RunTool({"info", "/none/x"}).err, "kesp: /none/x: No such file or directory\n");
  EXPECT_EQ(RunTool({"dump", KESP_TOOL}).out, "{\"end\":{\"error\":9,\"message\":\"Bad KESP Signature\"}}\n");
  EXPECT_EQ(RunTool({"--help"}).status + RunTool({"--version"}).status, 0);
}

TEST_F(Tool, OutputThatIsLostIsAnErrorUnlessNobodyWantsIt) {
  ByteVector many;
  for (int i = 0; i < 5000; ++i) Append(many, kEnd7);  // more than a pipe and the tool's buffer hold
  for (const ByteVector& records : {many, kEnd7}) {
    const std::string path = Make(records);
    const ToolResult full = RunTool({"dump", path}, ToolOutput::kFullDisk);
    EXPECT_EQ(std::to_string(full.status) + full.err, "2kesp: standard output: No space left on device\n");
    EXPECT_EQ(RunTool({"dump", path}, ToolOutput::kClosed).status, 2);
    const ToolResult quiet = RunTool({"dump", path}, ToolOutput::kNobodyReads);
    EXPECT_EQ(std::to_string(quiet.status) + quiet.err, "0");
    EXPECT_EQ(ReadFile(path), FileHeader() + records);
  }
  EXPECT_EQ(RunTool({"--version"}, ToolOutput::kFullDisk).status, 2);
}

}  // namespace
}  // namespace kesp::test
