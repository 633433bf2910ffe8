// Filters, reading by FID and by index, compared with reading everything.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "tests/ogr/Gdal.h"

namespace kesp::test {
namespace {

// Features of a few names and kinds, some with records far from them, and some numbers twice.
ByteVector Town() {
  std::mt19937 random(7);
  const auto below = [&random](std::uint32_t most) { return static_cast<std::uint32_t>(random() % most); };
  static constexpr std::string_view kNames[] = {"Oak", "elm", "Wall", "wall", ""};
  std::vector<ByteVector> records{Header2()};
  std::uint32_t point = 0;
  for (std::uint32_t i = 1; i <= 120; ++i) {
    const std::uint32_t number = i < 80 ? i : 60 + below(60);
    records.push_back(
        Feature(number, kNames[below(5)], below(8) == 0 ? 2 : 0, 3, static_cast<std::uint16_t>(1 + below(3))));
    records.push_back(Value(number, "Girth", 2, "", below(10) / 4.0, 2));
    if (below(2) == 0) records.push_back(Value(number, "Text", 1, below(2) == 0 ? "abc" : ""));
    for (std::uint32_t n = below(5); n != 0; --n) {
      records.push_back(Point(number, ++point, {1000, double(below(100)), double(below(100))}));
    }
    if (below(4) != 0) records.push_back(EndOf(number));
    const std::uint32_t earlier = 1 + below(number);
    if (below(4) == 0) records.push_back(Point(earlier, ++point, {1000, double(below(100)), double(below(100))}));
    if (below(6) == 0) records.push_back(Value(earlier, "Late", 1, "x"));
  }
  return Survey(records);
}

class Filters : public testing::TestWithParam<const char*> {  // the limit of the directory
 protected:
  void SetUp() override { CPLSetConfigOption("KESP_DIRECTORY_ENTRIES", GetParam()); }
  void TearDown() override { CPLSetConfigOption("KESP_DIRECTORY_ENTRIES", nullptr); }
};
INSTANTIATE_TEST_SUITE_P(, Filters, testing::Values(nullptr, "2", "16"), [](const auto& parameter) {
  return parameter.param == nullptr ? "all" : std::string("merged") + parameter.param;
});

TEST_P(Filters, PassWhatGdalItselfWouldPass) {
  for (const auto& options : {std::vector<std::string>{}, {"LAYERS=NAMES"}}) {
    const Opened file(Town(), options);
    const DatasetPtr copy(GetGDALDriverManager()->GetDriverByName("Memory")->Create("", 0, 0, 0, GDT_Unknown, nullptr));
    for (OGRLayer* const layer : file->GetLayers()) {
      OGRLayer* const plain = copy->CopyLayer(layer, layer->GetName());
      ASSERT_EQ(ShowSorted(*plain), ShowSorted(*layer));
      ASSERT_EQ(plain->GetFeatureCount(), layer->GetFeatureCount());
      for (const char* const query :
           {"", "feature_name = 'WALL'", "NOT feature_name = 'oak'", "feature_name IN ('oak', 'Elm') AND Girth > 1",
            "feature_name <> 'oak' OR Girth = 0.5", "'oak' = feature_name", "Girth > 1.4", "Text IS NULL",
            "feature_name LIKE 'w%'", "OGR_GEOM_AREA > 100", "FID = 65 OR FID > 4294967296", "edited = 1",
            "feature_name = Text", "feature_name = 'nothing'", "NOT (feature_name = 'oak' AND Girth > 1)"}) {
        const bool isValid = plain->SetAttributeFilter(*query == 0 ? nullptr : query) == OGRERR_NONE;
        ASSERT_EQ(layer->SetAttributeFilter(*query == 0 ? nullptr : query) == OGRERR_NONE, isValid) << query;
        if (!isValid) continue;
        for (const double size : {0.0, 5.0, 60.0}) {
          for (OGRLayer* const one : {plain, layer}) {
            one->SetSpatialFilter(nullptr);
            if (size != 0) one->SetSpatialFilterRect(30, 30, 30 + size, 40 + size);
          }
          EXPECT_EQ(ShowSorted(*layer), ShowSorted(*plain)) << layer->GetName() << ' ' << query << ' ' << size;
        }
      }
    }
  }
}

// More names than have a code of their own. Half a surrogate pair is U+FFFD in the layer.
TEST_P(Filters, FindOneNameAmongThousands) {
  std::vector<ByteVector> records{Header2()};
  std::uint32_t number = 0;
  // Each # stands for one of these units.
  const auto add = [&](std::string_view name, std::vector<std::uint16_t> units = {}) {
    ByteVector& record = records.emplace_back(Feature(++number, name));
    for (const std::uint16_t unit : units) {
      const auto at = std::find(record.begin(), record.end(), '#');
      at[0] = static_cast<std::uint8_t>(unit);
      at[1] = static_cast<std::uint8_t>(unit >> 8);
    }
  };
  for (int i = 0; i < 5000; ++i) add("Pole " + std::to_string(i));
  add("Last \xE4");
  add("last \xE4");
  add("half #", {0xD83C});
  add("pair ##", {0xD83C, 0xDF32});
  add("");
  const Opened file(Survey(records));
  OGRLayer& points = file["points"];
  for (const auto& [query, count] : {std::pair{"feature_name = 'POLE 17'", 1},
                                     {"feature_name = 'pole 4990'", 1},
                                     {"feature_name = 'LAST ä'", 2},
                                     {"feature_name = 'half \uFFFD'", 1},
                                     {"feature_name = 'pair \U0001F332'", 1},
                                     {"feature_name = 'none'", 0},
                                     {"feature_name <> 'pole 4990'", 5004},
                                     {"feature_name IN ('Pole 4990', 'x', 'LAST ä')", 3},
                                     {"feature_name = 'Pole 4991' OR FID = 4993", 2},
                                     {"feature_name = '' OR feature_name LIKE 'Pole 499_'", 11}}) {
    points.SetAttributeFilter(query);
    EXPECT_EQ(points.GetFeatureCount(), count) << query;
  }
}

TEST_P(Filters, DontMatterWhenReadingByFidOrIndex) {
  const Opened file(Town());
  for (OGRLayer* const layer : file->GetLayers()) {
    std::vector<std::string> all;
    std::vector<GIntBig> fids;
    layer->ResetReading();
    while (const FeaturePtr feature{layer->GetNextFeature()}) {
      all.push_back(Show(*feature));
      fids.push_back(feature->GetFID());
      // In the middle of reading.
      const FeaturePtr again{layer->GetFeature(fids[fids.size() / 2])};
      ASSERT_NE(again, nullptr) << all.back();
      EXPECT_EQ(Show(*again), all[all.size() / 2]);
    }
    EXPECT_EQ(layer->GetFeatureCount(), static_cast<GIntBig>(all.size()));
    EXPECT_EQ(std::set(fids.begin(), fids.end()).size(), fids.size());
    OGREnvelope known, counted;
    layer->ResetReading();
    while (const FeaturePtr feature{layer->GetNextFeature()}) {
      if (feature->GetGeometryRef() != nullptr) {
        OGREnvelope one;
        feature->GetGeometryRef()->getEnvelope(&one);
        counted.Merge(one);
      }
    }
    ASSERT_EQ(layer->GetExtent(&known, FALSE), OGRERR_NONE);
    if (CPLGetConfigOption("KESP_DIRECTORY_ENTRIES", nullptr) == nullptr) {
      EXPECT_TRUE(known == counted) << layer->GetName();
    }
    EXPECT_TRUE(known.Contains(counted));
    layer->SetSpatialFilterRect(0, 0, 1, 1);
    EXPECT_EQ(FeaturePtr(layer->GetFeature(fids[3])) != nullptr, true);
    layer->SetSpatialFilter(nullptr);
    for (const GIntBig wrong :
         {GIntBig{-1}, GIntBig{51}, GIntBig{5'000'000}, fids[0] + (GIntBig{1} << 32) + 1, GIntBig{1} << 62}) {
      if (std::find(fids.begin(), fids.end(), wrong) == fids.end()) {
        EXPECT_EQ(FeaturePtr(layer->GetFeature(wrong)), nullptr) << wrong;
      }
    }
    for (const std::size_t index : {std::size_t{0}, all.size() / 3, all.size() - 1}) {
      ASSERT_EQ(layer->SetNextByIndex(static_cast<GIntBig>(index)), OGRERR_NONE);
      EXPECT_EQ(Show(*FeaturePtr(layer->GetNextFeature())), all[index]);
    }
  }
}

TEST(Reading, LeavesOutWhatIsIgnored) {
  const Opened file(Town());
  OGRLayer& areas = file["areas"];
  const char* ignored[] = {"Girth", "feature_name", "OGR_GEOMETRY", "OGR_STYLE", nullptr};
  ASSERT_EQ(areas.SetIgnoredFields(ignored), OGRERR_NONE);
  const std::string shown = Show(areas);
  EXPECT_EQ(shown.find("Girth"), std::string::npos);
  EXPECT_EQ(shown.find("POLYGON"), std::string::npos);
  EXPECT_NE(shown.find("Text="), std::string::npos);
  areas.SetAttributeFilter("Girth = 0.5");  // filters see it
  const std::string filtered = Show(areas);
  EXPECT_EQ(filtered.find("Girth"), std::string::npos);
  areas.SetIgnoredFields(nullptr);
  EXPECT_EQ(std::count(filtered.begin(), filtered.end(), '\n'), areas.GetFeatureCount());
  areas.SetAttributeFilter(nullptr);
  OGRLayer& vertices = file["vertices"];
  const char* texts[] = {"text", "time", nullptr};
  vertices.SetIgnoredFields(texts);
  vertices.SetAttributeFilter("text = '' AND time IS NOT NULL");
  EXPECT_EQ(FeaturePtr(vertices.GetNextFeature())->IsFieldSet(2), FALSE);
  const GIntBig passed = vertices.GetFeatureCount();
  vertices.SetAttributeFilter(nullptr);
  EXPECT_EQ(passed, vertices.GetFeatureCount());

  for (const auto& layer : file->GetLayers()) {
    OGRFeatureDefn& definition = *layer->GetLayerDefn();
    CPLStringList all;
    for (int i = 0; i < definition.GetFieldCount(); ++i) all.AddString(definition.GetFieldDefn(i)->GetNameRef());
    all.AddString("OGR_GEOMETRY");
    ASSERT_EQ(layer->SetIgnoredFields(const_cast<const char**>(all.List())), OGRERR_NONE);
    const std::string left = ShowSorted(*layer);
    EXPECT_EQ(left.find('='), std::string::npos) << left;
    EXPECT_EQ(left.find(" ZM "), std::string::npos) << left;
    layer->ResetReading();
    const FeaturePtr next(layer->GetNextFeature());
    EXPECT_EQ(Show(*FeaturePtr(layer->GetFeature(next->GetFID()))), Show(*next));
  }
}

}  // namespace
}  // namespace kesp::test
