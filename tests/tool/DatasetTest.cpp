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
  const std::string info = Run("info @a").out;
  EXPECT_NE(info.find("  points          1\n  X               1.5 .. 1.5\n"), std::string::npos) << info;
  EXPECT_NE(info.find("All points        2\n  X               0.0 .. 1.5\n"), std::string::npos) << info;
}

// What becomes of files that are not whole, in each of the three.
TEST_F(Tool, SaysHowFarItGot) {
  const ByteVector head = Survey({Header2{.kespVersion = 3}, Feature(1), Point(1, 1)});
  const struct {
    std::string name;
    ByteVector bytes;
    int result;
    std::size_t features;
    int dump, info, validate;  // exit statuses
    std::string reason;        // of validate
    // clang-format off
  } kCases[] = {
      {"whole", head, 0, 1, 0, 0, 0, "ok"},
      {"damaged", head + Feature(2, "x", 0, 3, 9) + Feature(4), 16, 1, 1, 1, 1, "a record can't be read: Bad Record"},
      {"raised", head + Record(1, 1, 0, Hex("07 00")), 16, 1, 1, 1, 1, "a record can't be read: EOF Error"},
      {"headless", Survey({Feature(1), Point(1, 1)}), 10, 0, 1, 0, 1, "the first record is missing or no header"},
      {"pointless", head + Feature(5), 0, 2, 0, 0, 1, "a feature has no points"},
      {"old", Survey({Header1(), Feature(3, "Elm", 0, 1)}, 1), 12, 1, 0, 0, 1,
       "old: holds features and needs file version 1 only"},
      {"foreign", Hex("'something else'"), 6, 0, 2, 2, 1, "Bad KESP Signature"},
  };
  // clang-format on
  std::string all = "validate", lines;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(dir / c.name, c.bytes);
    const ToolResult dump = Run("dump --dataset @" + c.name), info = Run("info --json @" + c.name);
    EXPECT_EQ(dump.status, c.dump);
    EXPECT_EQ(dump.err.empty(), c.dump == 0) << dump.err;
    const json dataset = json::parse(dump.out);
    EXPECT_EQ(dataset["result"], c.result);
    EXPECT_EQ(dataset["features"].size(), c.features);
    EXPECT_EQ(info.status, c.info);
    EXPECT_TRUE(c.info == 2 || json::parse(info.out)["dataset"]["result"] == c.result);
    const std::string line = "@" + c.name + ": " + c.reason + "\n";
    EXPECT_EQ(Run("validate @" + c.name), (ToolResult{c.validate, line, ""}));
    EXPECT_EQ(ReadFile(dir / c.name), c.bytes);
    all += " @" + c.name;
    lines += line;
  }
  EXPECT_EQ(Run(all).out, lines);
  const std::string lineEach = R"({"path":"./[a,b]","result":1,"reason":"No such file or directory"}
{"path":"@pointless","result":7,"reason":"a feature has no points"}
)";
  EXPECT_EQ(Run("validate --json [a,b] @pointless"), (ToolResult{2, lineEach, ""}));
}

}  // namespace
}  // namespace kesp::test
