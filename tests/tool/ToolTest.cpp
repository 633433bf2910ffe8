// What every sub-command does alike, dump of records, and info.
#include <nlohmann/json.hpp>

#include "tests/support/Records.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

using nlohmann::json;

const ByteVector kHead = FileHeader() + ByteVector(Header2());       // 4150 bytes
const ByteVector kEnd7 = Record(4, 1, 0, Hex("07 00 00 00"));        // 18 bytes
const ByteVector kDeletedEnd = Record(4, 1, 1, Hex("08 00 00 00"));  // a deleted one
const ByteVector kUnknown = Record(200, 3, 0, Hex("aa bb"));         // of a type that nobody knows
const ByteVector kWhole = kEnd7 + kUnknown + kDeletedEnd;
const ByteVector kBadFeature = Record(1, 1, 0, Hex("07 00 00 00 00*30"));  // of type 0
const ByteVector kShortFeature = Record(1, 1, 0, Hex("07 00 00 00"));      // shorter than its layout, at the file's end

TEST_F(Tool, DumpWritesEachRecordAndHowTheWalkEnded) {
  const std::string end7 =
      R"({"offset":4150,"type":"featureEnd","version":1,"flags":0,"deleted":false,"length":4,"fields":{"FeatureNumber":7}}
)";
  const std::string end8 =
      R"({"offset":4184,"type":"featureEnd","version":1,"flags":1,"deleted":true,"length":4,"fields":{"FeatureNumber":8}}
)";
  const struct {
    ByteVector records;
    std::string mode, out;
    int error;
    std::string message, err;
    // clang-format off
  } kCases[] = {
      {kWhole, "--records", end7, 1, "Normal EOF", ""},
      {kWhole, "--include-deleted", end7 + end8, 1, "Normal EOF", ""},
      {kEnd7 + kUnknown + kBadFeature + kEnd7, "", end7, 5, "Bad Record",
       "kesp: @a: damaged at offset 4184: the record there has impossible contents (Bad Record)\n"},
      {kDeletedEnd + kShortFeature, "", "", 2, "EOF Error",
       "kesp: @a: damaged at offset 4168: the record there is cut short (EOF Error)\n"},
      {Record(6, 0, 0, Hex("00")), "", "", 0, "No Error",
       "kesp: @a: damaged at offset 4150: the record there can't be read\n"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    WriteFile(dir / "a", kHead + c.records);
    const std::string end = R"({"end":{"error":)" + std::to_string(c.error) + R"(,"message":")" + c.message + "\"}}\n";
    const ToolResult got = Run("dump @a " + c.mode);
    EXPECT_EQ(got.status, c.err.empty() ? 0 : 1);
    EXPECT_EQ(got.out.substr(got.out.find('\n') + 1), c.out + end) << "after the header";
    EXPECT_EQ(got.err.substr(0, got.err.find('\n') + 1), c.err);
  }
}

TEST_F(Tool, DumpKeepsEveryUnitAndEveryDouble) {
  ByteVector note = Hex("22 00 5c 00 0a 00 7f 00 e9 00 3c d8 33 df 33 df 00 00 41 00");  // ends at the zero unit
  note.resize(512);
  ByteVector file = kHead + Record(6, 2, 0, note);
  std::vector<std::string> wanted{R"("NoteText":"\u0022\u005c\u000a\u007f\u00e9\ud83c\udf33\udf33")"};
  const std::pair<const char*, std::string> kDoubles[] = {
      {"00 00 00 00 00 00 00 80", "-0.0"},    {"9a 99 99 99 99 99 b9 3f", "0.1"},
      {"00 00 00 00 00 00 59 40", "100.0"},   {"01 00 00 00 00 00 00 00", "5e-324"},
      {"00 00 00 00 00 00 f8 7f", "\"NaN\""}, {"00*6 f0 ff", "\"-Infinity\""}};
  for (const auto& [bytes, digits] : kDoubles) {
    // A double tag "d": 4 bytes of name, then 8 of payload.
    Append(file, Record(9, 2, 0, Hex("02 00*3 14 00*3 04 00*3 \"d\" 00 00 08 00*3") + Hex(bytes)));
    wanted.push_back(R"("name":"d","value":)" + digits);
  }
  WriteFile(dir / "a", file);
  const std::string text = Run("dump @a").out;
  for (const std::string& fields : wanted) EXPECT_NE(text.find(fields + "}"), std::string::npos) << fields << text;
}

TEST_F(Tool, InfoCountsAndFindsTheFirstDamage) {
  const ByteVector point = Point(9, 1, {.time = 10, .x = 1.5, .y = -2});
  const ByteVector records = kEnd7 + kDeletedEnd + point + kUnknown + Record(5, 9, 1, Hex("00")) + kBadFeature;
  WriteFile(dir / "a", kHead + records);
  json info = json::parse(Run("info --json @a").out);
  for (const char* const member : {"path", "dataset", "length", "headerWord", "firstRecordOffset", "header"}) {
    info.erase(member);
  }
  EXPECT_EQ(info, json::parse(R"~({"fileVersion":3,"whole":false,"closedCleanly":false,"points":1,
      "firstTime":"1970-01-01T00:00:10Z","firstTimeUnix":10,"lastTime":"1970-01-01T00:00:10Z","lastTimeUnix":10,
      "extent":{"minX":1.5,"maxX":1.5,"minY":-2.0,"maxY":-2.0},"end":{"error":5,"message":"Bad Record"},"error":null,
      "records":[{"type":"point","version":2,"count":1,"deleted":0},{"type":"header","version":2,"count":1,"deleted":0},
      {"type":"featureEnd","version":1,"count":2,"deleted":1},{"type":"attribute","version":9,"count":1,"deleted":1},
      {"type":200,"version":3,"count":1,"deleted":0}],"damage":{"offset":4339,
      "message":"damaged at offset 4339: the record there has impossible contents (Bad Record)"}})~"));
  const std::string text = Run("info @a").out;
  EXPECT_NE(text.find("\n  featureEnd v1   2 (1 deleted)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("  points          0\n"), std::string::npos) << text;
  EXPECT_NE(text.find("All points        1\n  X               1.5 .. 1.5\n"), std::string::npos) << text;

  WriteFile(dir / "b", kHead + kEnd7);
  const ToolResult table = Run("info @b @a @none");
  EXPECT_EQ(table.status, 2);
  EXPECT_EQ(table.out,
            "STATE     VERSION  FEATURES  POINTS  RECORDS  BYTES  FILE\n"
            "whole           3         0       0        2   4168  @b\n"
            "damaged         3         0       1        6   4387  @a\n"
            "unusable        -         -       -        -      -  @none\n");

  ByteVector header(4086);
  header[10] = 0x1B;  // HeaderText1: an escape character, which must not reach a terminal
  for (const bool closed : {false, true}) {
    header[0] = closed;
    WriteFile(dir / "a", FileHeader() + Record(3, 2, 0, header));
    const std::string shown = Run("info @a").out;
    EXPECT_NE(shown.find(closed ? "Closed cleanly    yes\n" : "Closed cleanly    no\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("HeaderText1     \\u001b\n"), std::string::npos) << shown;
  }
}

TEST_F(Tool, TakesEveryFileNameAndTellsWhatIsWrong) {
#ifdef _WIN32
  const auto names = {"\xC3\xA9", "\xF0\x9F\x8C\xB3", "dump", "a b", "[a,b]", "'a'"};
#else
  const auto names = {"\xFF\xFE", "\xED\xB2\x80", "\xF0\x9F\x8C\xB3", "dump", " ", "[a,b]", "a\nb"};
#endif
  for (const std::string name : names) {
    WriteFile(dir / name, kHead + kEnd7);
    EXPECT_EQ(RunTool({"dump", (dir / name).string()}).status, 0) << name;
  }
  EXPECT_EQ(Run("info /none/\x1b[1m").err, "/none/\\u001b[1m: No such file or directory") << "can't steer a terminal";
  EXPECT_EQ(Run("info /none/x"), (ToolResult{2, "", "/none/x: No such file or directory"}));
  EXPECT_EQ(Run("dump " KESP_TOOL).out, "{\"end\":{\"error\":9,\"message\":\"Bad KESP Signature\"}}\n");
  EXPECT_EQ(Run("--help").status + Run("--version").status, 0);
}

#ifndef _WIN32  // scripts/platforms does this there
TEST_F(Tool, OutputThatIsLostIsAnErrorUnlessNobodyWantsIt) {
  ByteVector many = kHead;
  for (int i = 0; i < 5000; ++i) Append(many, kEnd7);  // more than a pipe and the tool's buffer hold
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  int pipeEnds[2];
  ASSERT_TRUE(::pipe(pipeEnds) == 0 && ::close(pipeEnds[0]) == 0);
  for (const ByteVector& file : {many, kHead + kEnd7}) {
    WriteFile(dir / "a", file);
    EXPECT_EQ(Run("dump @a", full), (ToolResult{2, "", "standard output: No space left on device"}));
    EXPECT_EQ(Run("dump @a", -1).status, 2);
    EXPECT_EQ(Run("dump @a", pipeEnds[1]), (ToolResult{0, "", ""})) << "nobody reads";
    EXPECT_EQ(ReadFile(dir / "a"), file);
  }
  EXPECT_EQ(Run("--version", full).status, 2);
  ::close(full);
  ::close(pipeEnds[1]);
}
#endif

}  // namespace
}  // namespace kesp::test
