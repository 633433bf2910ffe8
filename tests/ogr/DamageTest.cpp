// Files that are cut short or damaged.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/ogr/Gdal.h"

namespace kesp::test {
namespace {

// Records of version 1, which are short.
std::vector<ByteVector> Records() {
  std::vector<ByteVector> records{Header1()};
  std::uint32_t point = 0;
  for (std::uint32_t number = 1; number <= 3; ++number) {
    records.push_back(Feature(number, "Way", 0, 1, 2));
    records.push_back(Attribute(number, "Kind", "gravel", 0, 1));
    for (int i = 0; i < 3; ++i) records.push_back(Point(number, ++point, {1000, double(point), 1}, 0, 1));
    records.push_back(EndOf(number));
  }
  return records;
}

// What a file shows that has all records of `features` features and the first `more` of the next one.
std::string Expected(std::size_t whole) {
  std::vector<ByteVector> records = Records();
  records.resize(whole);
  const Opened file(Survey(records, 1));
  OGRLayer* const lines = file->GetLayerByName("lines");
  return lines != nullptr ? Show(*lines) : std::string();
}

TEST(Damage, IsToldWhereverAFileIsCut) {
  const std::vector<ByteVector> records = Records();
  const ByteVector whole = Survey(records, 1);
  std::size_t start = kFirst;
  for (std::size_t i = 0; i < records.size(); start += records[i++].size()) {
    const std::string expected = Expected(i);
    const bool isOpen = i >= 2 && (i - 1) % 6 != 0;  // a feature lacks its end
    for (std::size_t cut = start; cut < start + records[i].size(); cut += cut == start ? 1 : 13) {
      const Opened file(ByteVector(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)));
      ASSERT_TRUE(file) << cut;
      OGRLayer* const lines = file->GetLayerByName("lines");
      if (lines == nullptr) continue;
      Errors errors;
      EXPECT_EQ(Show(*lines), expected) << cut;
      EXPECT_EQ(errors.failures, cut == start ? 0 : 1) << cut;
      EXPECT_EQ(errors.warnings, cut == start && isOpen ? 1 : 0) << cut;
      const std::string offset = "offset " + std::to_string(start) + ' ';
      EXPECT_EQ(errors.text.find(offset) != std::string::npos, cut != start) << errors.text;
      const std::string open = "feature " + std::to_string((i - 2) / 6 + 1) + ',';
      EXPECT_EQ(errors.text.find(open) != std::string::npos, isOpen) << errors.text;
      (void)Show(*lines);
      EXPECT_LE(errors.failures + errors.warnings, 1) << cut;  // once is enough
    }
  }
}

TEST(Damage, CanBeReadPastIfAsked) {
  std::vector<ByteVector> records = Records();
  records.insert(records.begin() + 7, Hex("ff*100"));  // after the first feature
  const ByteVector bytes = Survey(records, 1);
  {
    const Opened file(bytes);
    EXPECT_EQ(file["lines"].GetFeatureCount(), 1);
    EXPECT_NE(file->GetMetadataItem("DAMAGE"), nullptr);
    Errors errors;
    (void)Show(file["vertices"]);
    EXPECT_EQ(errors.failures, 1);
  }
  Errors errors;
  const Opened file(bytes, {"SALVAGE=YES"});
  EXPECT_EQ(errors.warnings, 1) << errors.text;
  EXPECT_EQ(Show(file["lines"]), Expected(Records().size()));
  EXPECT_EQ(errors.failures, 0) << errors.text;
}

TEST(Damage, OfTheFileHeaderIsAnError) {
  const ByteVector whole = Survey(Records(), 1);
  for (std::size_t cut = 0; cut < kFirst; ++cut) {
    Errors errors;
    EXPECT_FALSE(Opened(ByteVector(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut))));
    const bool isKesp = cut >= 42;
    EXPECT_EQ(errors.text.find("survey.kesp: ") != std::string::npos, isKesp) << cut << errors.text;
  }
}

TEST(Damage, IsNotDoneToTheFile) {
  const TempDir dir;
  WriteFile(dir / "a.kesp", Survey(Records(), 1));
  ::chmod((dir / "a.kesp").c_str(), 0444);
  const auto before = std::filesystem::last_write_time(dir / "a.kesp");
  {
    const DatasetPtr dataset = Open(dir / "a.kesp");
    EXPECT_EQ(dataset->GetLayerByName("vertices")->GetFeatureCount(), 9);
    (void)Show(*dataset->GetLayer(0));
  }
  EXPECT_EQ(std::filesystem::last_write_time(dir / "a.kesp"), before);
  EXPECT_EQ(ReadFile(dir / "a.kesp"), Survey(Records(), 1));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir / ""), {}), 1);
}

}  // namespace
}  // namespace kesp::test
