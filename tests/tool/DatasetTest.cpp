// What the tool makes of whole files: dump --dataset, info, validate.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/dataset/DataSet.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

using nlohmann::json;

class ToolDataset : public ::testing::Test {
 protected:
  std::string Make(const ByteVector& bytes, const std::string& name = "a.kesp") {
    WriteFile(m_dir / name, bytes);
    return m_dir / name;
  }
  TempDir m_dir;
};

TEST_F(ToolDataset, DumpShowsWhatADatasetMakesOfTheFile) {
  // Feature 7 twice, a deleted note, a point and an attribute that belong to nothing, a link and its tag.
  const ByteVector records =
      Survey({Header2{.kespVersion = 3}, Feature(7, "Old"), Attribute(7, "Girth", "2 m"), Feature(7, "New", 0, 2, 3),
              Point(7, 1, {.time = 200'000, .x = 1.5, .y = -2, .text = "last"}, 8), End(7), Point(9, 2),
              Attribute(9, "lost"), Note("gone", 1), Note("here"), Tag(10, "", Words({7, 1, 9, 2, 3, 0xFFFFFFFF}))});
  const std::string path = Make(records);
  const ToolResult got = RunTool({"dump", "--dataset", path});
  EXPECT_EQ(got.status, 0) << got.err;
  const json dataset = json::parse(got.out, nullptr, false);
  ASSERT_FALSE(dataset.is_discarded()) << got.out;
  EXPECT_EQ(dataset["result"], 0);
  EXPECT_EQ(dataset["kespVersion"], 3);
  EXPECT_EQ(dataset["header"]["version"], 2);
  EXPECT_EQ(dataset["header"]["CreationTime"], 1'000'000'000);
  EXPECT_EQ(dataset["summary"], json::parse(R"({"points":1,"features":1,"firstTime":200000,"lastTime":200000,
      "extent":{"minX":1.5,"maxX":1.5,"minY":-2.0,"maxY":-2.0},"lastPointText":"last"})"));
  ASSERT_EQ(dataset["features"].size(), 2u);
  const json& old = dataset["features"][0];
  EXPECT_EQ(old["indexed"], false);
  EXPECT_EQ(old["hasEnd"], false);
  EXPECT_EQ(old["attributes"][0]["formatted"], "2 m");
  json now = dataset["features"][1];
  EXPECT_EQ(now["points"][0]["PointText"], "last");
  now.erase("points");
  EXPECT_EQ(now, json::parse(R"({"number":7,"name":"New","type":3,"color":0,"symbol":0,"flags":8,"indexed":true,
      "attributes":[],"hasEnd":true})"));
  EXPECT_EQ(dataset["notes"], json::parse(R"([{"flags":0,"text":"here"}])"));
  EXPECT_EQ(dataset["tags"][0]["value"]["featureNumber2"], 9);
  EXPECT_EQ(dataset["links"][0]["qualifier2"], 2);
  EXPECT_EQ(dataset["links"][0]["tagRecordPosition"], records.size() - 14 - 8 - 12 - 24);

  const json all = json::parse(RunTool({"dump", "--dataset", "--include-deleted", path}).out);
  EXPECT_EQ(all["notes"], json::parse(R"([{"flags":1,"text":"gone"},{"flags":0,"text":"here"}])"));
}

// What becomes of files that are not whole, in each of the three.
TEST_F(ToolDataset, SaysHowFarItGot) {
  const ByteVector head = Survey({Header2{.kespVersion = 3}, Feature(1), Point(1, 1)});
  const ByteVector badFeature = Feature(2, "x", 0, 3, 9);
  const ByteVector oldFeature = Feature(3, "Elm", 0, 1);
  const struct {
    const char* name;
    ByteVector bytes;
    int result;
    int features;
    int dumpStatus;
    int infoStatus;
    int validateStatus;
    const char* reason;  // of validate
  } kCases[] = {
      {"whole", head, 0, 1, 0, 0, 0, "ok"},
      {"damaged", head + badFeature + Feature(4), 16, 1, 1, 1, 1, "a record can't be read: Bad Record"},
      // Ended by an exception.
      {"cut", head + Record(1, 1, 0, Hex("07 00")), 16, 1, 1, 1, 1, "a record can't be read: EOF Error"},
      {"headless", Survey({Feature(1), Point(1, 1)}), 10, 0, 1, 0, 1, "the first record is missing or no header"},
      {"pointless", head + Feature(5), 0, 2, 0, 0, 1, "a feature has no points"},
      {"old", Survey({Header1(), oldFeature, Point(3, 1, {}, 0, 1)}, 1), 12, 1, 0, 0, 1,
       "old: holds features and needs file version 1 only"},
      {"foreign", Hex("'something else'"), 6, 0, 2, 2, 2, "Bad KESP Signature"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string path = Make(c.bytes, c.name);
    const ToolResult dump = RunTool({"dump", "--dataset", path});
    EXPECT_EQ(dump.status, c.dumpStatus);
    EXPECT_EQ(dump.err.empty(), c.dumpStatus == 0) << dump.err;
    const json dataset = json::parse(dump.out, nullptr, false);
    ASSERT_FALSE(dataset.is_discarded()) << dump.out;
    EXPECT_EQ(dataset["result"], c.result);
    EXPECT_EQ(dataset["features"].size(), static_cast<std::size_t>(c.features));

    const ToolResult info = RunTool({"info", "--json", path});
    EXPECT_EQ(info.status, c.infoStatus);
    if (c.infoStatus != 2) {
      const json told = json::parse(info.out)["dataset"];
      EXPECT_EQ(told["result"], c.result);
      EXPECT_EQ(told["features"], c.features);
      EXPECT_EQ(told["points"], dataset["summary"]["points"]);
    }
    const ToolResult validate = RunTool({"validate", path});
    EXPECT_EQ(validate.status, c.validateStatus);
    EXPECT_EQ(validate.out, path + ": " + c.reason + "\n");
    EXPECT_EQ(ReadFile(path), c.bytes);
  }
}

TEST_F(ToolDataset, InfoTellsPointsOfTheDatasetFromOthers) {
  const std::string path = Make(Survey(
      {Header2{.kespVersion = 3}, Feature(1), Point(1, 1, {.text = "only"}), Point(2, 2, {.time = 5000, .x = 90})}));
  const std::string text = RunTool({"info", path}).out;
  EXPECT_NE(text.find("Data set          complete\n  needs version   3\n  features        1\n  points          1\n"
                      "  X               0.0 .. 0.0\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("All points        2\n  X               0.0 .. 90.0\n"), std::string::npos) << text;
}

TEST_F(ToolDataset, ValidateLooksAtEveryFileAndAnswersTheWorst) {
  const std::string good = Make(Survey({Header2{.kespVersion = 3}, Feature(1), Point(1, 1)}), "good");
  const std::string bad = Make(Survey({Header2{.kespVersion = 3}, Feature(1)}), "bad\n");
  const std::string missing = m_dir / "missing";
  const std::string ok = good + ": ok\n";
  EXPECT_EQ(RunTool({"validate", good, good}).out, ok + ok);
  const ToolResult two = RunTool({"validate", bad, good});
  EXPECT_EQ(two.status, 1);
  EXPECT_EQ(two.out, std::string(m_dir / "bad\\u000a") + ": a feature has no points\n" + ok);
  const ToolResult three = RunTool({"validate", missing, bad, good, "--json"});
  EXPECT_EQ(three.status, 2);
  std::istringstream lines(three.out);
  for (const json& want : {json{{"path", missing}, {"result", 6}, {"reason", "No such file or directory"}},
                           json{{"path", bad}, {"result", 7}, {"reason", "a feature has no points"}},
                           json{{"path", good}, {"result", 0}, {"reason", nullptr}}}) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(json::parse(line), want);
  }
  // The name of one file, and no list of two.
  EXPECT_EQ(RunTool({"validate", "[a,b]"}).out, "./[a,b]: No such file or directory\n");
}

}  // namespace
}  // namespace kesp::test
