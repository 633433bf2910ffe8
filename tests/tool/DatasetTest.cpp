// What the tool makes of whole files: dump --dataset, info, validate.
#include <nlohmann/json.hpp>

#include "tests/dataset/DataSet.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

using nlohmann::json;

TEST_F(Tool, DumpShowsWhatADatasetMakesOfTheFile) {
  // Feature 7 twice, a deleted note, a point and an attribute that belong to nothing, a link and its tag.
  const ByteVector records =
      Survey({Header2{.kespVersion = 3}, Feature(7, "Old"), Attribute(7, "Girth", "2 m"), Feature(7, "New", 0, 2, 3),
              Point(7, 1, {.time = 200'000, .x = 1.5, .y = -2, .text = "last"}, 8), EndOf(7), Point(9, 2),
              Attribute(9, "lost"), Note("gone", 1), Note("here"), Tag(10, "", Words({7, 1, 9, 2, 3, 0xFFFFFFFF}))});
  WriteFile(dir / "a", records);
  json got = json::parse(Run("dump --dataset @a").out);
  EXPECT_EQ(got["header"]["CreationTime"], 1'000'000'000);
  EXPECT_EQ(got["features"][0]["attributes"][0]["formatted"], "2 m");
  EXPECT_EQ(got["features"][1]["points"][0]["PointText"], "last");
  for (auto& feature : got["features"]) feature["attributes"] = feature["points"] = feature["points"].size();
  for (const char* const member : {"header", "tags"}) got.erase(member);
  // clang-format off
  json want = json::parse(R"({"result":0,"kespVersion":3,"notes":[{"flags":0,"text":"here"}],
    "summary":{"points":1,"features":1,"firstTime":200000,"lastTime":200000,"lastPointText":"last",
               "extent":{"minX":1.5,"maxX":1.5,"minY":-2.0,"maxY":-2.0}},
    "features":[{"number":7,"name":"Old","type":1,"color":0,"symbol":0,"flags":0,"indexed":false,"points":0,
                 "attributes":0,"hasEnd":false},
                {"number":7,"name":"New","type":3,"color":0,"symbol":0,"flags":8,"indexed":true,"points":1,
                 "attributes":1,"hasEnd":true}],
    "links":[{"featureNumber1":7,"qualifier1":1,"featureNumber2":9,"qualifier2":2,"linkValue":3,
              "spare":4294967295}]})");
  // clang-format on
  want["links"][0]["tagRecordPosition"] = records.size() - 14 - 8 - 12 - 24;
  EXPECT_EQ(got, want);
  EXPECT_EQ(json::parse(Run("dump --dataset --include-deleted @a").out)["notes"],
            json::parse(R"([{"flags":1,"text":"gone"},{"flags":0,"text":"here"}])"));
}

// Every sub-command comes to the same judgement, and says it in its exit status.
TEST_F(Tool, AgreesOnWhetherAFileIsWhole) {
  const ByteVector head = Survey({Header2{.kespVersion = 3}, Feature(1), Point(1, 1)});
  const struct {
    std::string name;
    ByteVector bytes;
    int status, result;  // of the tool, and of the data set
    std::string state;
    // clang-format off
  } kCases[] = {
      {"whole", head, 0, 0, ""},
      {"pointless", head + Feature(5), 0, 0, ""},
      {"old", Survey({Header1(), Feature(3, "Elm", 0, 1)}, 1), 0, 12, ""},
      {"damaged", head + Feature(2, "x", 0, 3, 9) + Feature(4), 1, 16, "the record there has impossible contents"},
      {"raised", head + Record(1, 1, 0, Hex("07 00")), 1, 16, "the record there is cut short"},
      {"early", Survey({Header2()}) + Hex("00*5"), 1, 0, "the record there is cut short"},
      {"beyond", head + WithLength(EndOf(1, 1), 0xFFFFFFF0), 1, 0, "a length that goes past the end"},
      {"headless", Survey({Feature(1), Point(1, 1)}), 1, 10, "the first record is missing or no header"},
      {"foreign", Hex("'something else'"), 2, 6, "not a Kesp data file"},
      {"none", {}, 2, 6, "No such file"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    if (c.name != "none") WriteFile(dir / c.name, c.bytes);
    for (const std::string command : {"info", "dump", "dump --dataset", "validate", "find", "copy", "repair"}) {
      const bool makesFile = command == "copy" || command == "repair";
      const ToolResult got = Run(command + " @" + c.name + (makesFile ? " @made --force" : ""));
      EXPECT_EQ(got.status, c.status) << command;
      EXPECT_NE((got.out + got.err).find(c.state), std::string::npos) << command << got.out << got.err;
      EXPECT_EQ(got.err.empty(), c.status == 0 || command == "validate") << command << got.err;
    }
    for (const std::string command : {"info --json", "validate --json", "find --json"}) {
      const std::string out = Run(command + " @" + c.name).out;
      const std::size_t line = out.find_last_of('\n', out.size() - 2);  // npos + 1 is the beginning
      const json last = json::parse(out.substr(line + 1));
      EXPECT_EQ(last["whole"], c.status == 0) << command;
      EXPECT_EQ(last["damage"].is_object(), c.status == 1) << command;
      EXPECT_EQ(last["error"].is_string(), c.status == 2) << command;
    }
    EXPECT_EQ(json::parse(Run("dump --dataset @" + c.name).out)["result"], c.result);
    if (c.name != "none") {
      EXPECT_EQ(ReadFile(dir / c.name), c.bytes);
    }
  }
}

TEST_F(Tool, ValidateNamesWhatIsWrongAndHowOften) {
  // Feature 7 loses its points to its successor of the same number; 8 has none.
  WriteFile(dir / "a", Survey({Header2(), Feature(7), Point(7, 1), Feature(8), Feature(7), Point(7, 1, {.x = 1}),
                               Point(9, 2), Attribute(9, "x"), EndOf(9), ByteVector(Header2()), Note("old", 0, 1)}));
  std::string codes;
  const json got = json::parse(Run("validate --json @a").out);
  for (const char* const list : {"problems", "remarks"}) {
    for (const json& finding : got[list]) codes += std::string(finding["code"]) + finding["numbers"].dump() + " ";
  }
  EXPECT_EQ(codes,
            "featuresWithoutPoints[8] featureNumbersUsedAgain[7] pointNumbersUsedAgain[1] pointsWithoutFeature[] "
            "attributesWithoutFeature[] endsWithoutFeature[] extraHeaders[] headerFeatureCount[] headerPointCount[] "
            "headerExtent[] recordsOfVersion1[] notClosedCleanly[] ");
  EXPECT_EQ(Run("validate @a").status, 0);
  EXPECT_EQ(Run("validate --strict @a").status, 1);
  EXPECT_NE(Run("validate @a").out.find("@a: whole, with problems\n  problem: 1 feature without points: 8\n"),
            std::string::npos);
}

}  // namespace
}  // namespace kesp::test
