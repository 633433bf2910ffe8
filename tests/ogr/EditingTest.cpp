// Changes of files that are there.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/ogr/Gdal.h"

namespace kesp::test {
namespace {

// A tree with its attributes, a path of three points, a lawn, a feature that has lost its number, and one that is
// deleted.
ByteVector EditedGarden() {
  return Survey({Record(3, 2, 0, Body(3, 2, {{"status", 1}, {"t1", "Garden"}})),
                 Note("Dry"),
                 Feature(1, "Oak"),
                 Value(1, "Girth", 2, "", 2.25, 2),
                 Value(1, "Kind", 3, "Old", 0, 0, "sick"),
                 Value(1, "Seen", 4, "", 45453.25),
                 Point(1, 1, {1700000000, 10.5, 50.25, "P1"}),
                 EndOf(1),
                 Feature(2, "Path", 0, 3, 2),
                 Point(2, 2, {0, 1, 2, "a"}),
                 Point(2, 3, {5, 3, 4, "b"}),
                 Point(2, 4, {6, 5, 4, "c"}),
                 EndOf(2),
                 Record(1, 3, 0, Body(1, 3, {{"feature", 3}, {"name", "Lawn"}, {"kind", 3}})),
                 Point(3, 5, {1, 0, 0}),
                 Point(3, 6, {1, 4, 0}),
                 Point(3, 7, {1, 4, 4}),
                 EndOf(3),
                 Feature(9, "Gone", 5),
                 Point(9, 8, {}, 5),
                 EndOf(9, 5)});
}

// With and without a directory in which neighbours share an entry.
class Editing : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    CPLSetConfigOption("KESP_DIRECTORY_ENTRIES", GetParam());
    WriteFile(m_path, EditedGarden());
    Reopen();
  }
  void TearDown() override { CPLSetConfigOption("KESP_DIRECTORY_ENTRIES", nullptr); }
  void Reopen(const std::vector<std::string>& options = {}) {
    m_file.reset();
    m_file = Open(m_path, options, GDAL_OF_UPDATE);
    ASSERT_TRUE(m_file);
  }
  OGRLayer& operator[](const char* layer) { return *m_file->GetLayerByName(layer); }
  // The bytes that differ from those before, as "offset:length" of each run, after the header record.
  std::string Changed(const ByteVector& before) {
    m_file->FlushCache(false);
    const ByteVector now = ReadFile(m_path);
    std::string runs;
    for (std::size_t i = kAfterHeader; i < std::max(now.size(), before.size()); ++i) {
      const std::size_t start = i;
      while (i < now.size() && (i >= before.size() || now[i] != before[i])) ++i;
      if (i != start) runs += std::to_string(start) + ':' + std::to_string(i - start) + ' ';
    }
    return runs;
  }
  // Reading the file anew gives what this data set reads, but for marks as edited.
  void ExpectSameWhenReopened(const std::vector<std::string>& options = {}) {
    std::vector<std::string> now, then;
    for (OGRLayer* const layer : m_file->GetLayers()) now.push_back(ShowSorted(*layer));
    std::vector<std::pair<GIntBig, std::string>> counts;
    for (OGRLayer* const layer : m_file->GetLayers()) counts.emplace_back(layer->GetFeatureCount(), layer->GetName());
    Reopen(options);
    for (OGRLayer* const layer : m_file->GetLayers()) then.push_back(ShowSorted(*layer));
    EXPECT_EQ(now, then);
    for (const auto& [count, layer] : counts) EXPECT_EQ((*this)[layer.c_str()].GetFeatureCount(), count) << layer;
  }
  OGRErr Set(const char* layer, GIntBig fid, const std::vector<std::pair<const char*, const char*>>& values,
             const char* wkt = nullptr) {
    const FeaturePtr feature((*this)[layer].GetFeature(fid));
    for (const auto& [name, value] : values) {
      if (value != nullptr) feature->SetField(name, value);
      if (value == nullptr) feature->SetFieldNull(feature->GetFieldIndex(name));
    }
    OGRGeometry* geometry = nullptr;
    if (wkt != nullptr) OGRGeometryFactory::createFromWkt(wkt, nullptr, &geometry);
    if (wkt != nullptr) feature->SetGeometryDirectly(geometry);
    return (*this)[layer].SetFeature(feature.get());
  }
  std::string Row(const char* layer, GIntBig fid) {
    const FeaturePtr feature((*this)[layer].GetFeature(fid));
    return feature ? Show(*feature) : "none";
  }

  static constexpr std::size_t kAfterHeader = kFirst + 14 + 4086;
  TempDir m_dir;
  std::filesystem::path m_path = m_dir / "a.kesp";
  DatasetPtr m_file;
};

INSTANTIATE_TEST_SUITE_P(, Editing, testing::Values("2", "1000"));

TEST_P(Editing, ChangesInPlaceOnlyWhatIsAsked) {
  const ByteVector before = ReadFile(m_path);
  EXPECT_EQ(Set("points", 1, {}), OGRERR_NONE);
  EXPECT_EQ(Set("notes", kAfterHeader, {}), OGRERR_NONE);
  EXPECT_EQ(ReadFile(m_path).size(), before.size());
  const std::size_t oak = kAfterHeader + 14 + 512, girth = oak + 14 + 524, kind = girth + 14 + 1712;
  const std::size_t point = kind + 2 * (14 + 1712);
  EXPECT_EQ(Set("points", 1, {{"Girth", "2.5"}}, "POINT ZM (10.5 50.5 0 1700000000)"), OGRERR_NONE);
  const auto mark = [](std::size_t record) { return std::to_string(record + 6) + ":1 "; };
  EXPECT_EQ(Changed(before), mark(girth) + std::to_string(girth + 14 + 1542 + 6) + ":1 " + mark(point) +
                                 std::to_string(point + 14 + 54 + 5) + ":1 ");
  EXPECT_EQ(
      Set("points", 1, {{"feature_name", "Elm"}, {"feature_color", "255"}, {"Kind_sub", "well"}, {"Seen", nullptr}}),
      OGRERR_NONE);
  EXPECT_EQ(Row("points", 1),
            "1 feature_name=Elm feature_color=255 feature_symbol=0 deleted=0 edited=1 Girth=2.5 Kind=Old Kind_sub=well "
            "POINT ZM (10.5 50.5 0 1700000000) SYMBOL(id:\"ogr-sym-3\",c:#ff0000)");
  EXPECT_EQ(Set("areas", 3, {}, "POLYGON ((1 1,4 0,4 4,1 1))"), OGRERR_NONE);
  EXPECT_NE(Row("areas", 3).find("((1 1 0 1,4 0 0 1,4 4 0 1,1 1 0 1))"), std::string::npos);
  EXPECT_EQ(ReadFile(m_path).size(), before.size());
  const GIntBig vertex = static_cast<GIntBig>(point);
  EXPECT_EQ(Set("vertices", vertex, {{"text", "P2"}, {"status", "3"}}, "POINT (7 8)"), OGRERR_NONE);
  EXPECT_NE(Set("vertices", vertex, {{"feature_number", "2"}}), OGRERR_NONE);
  EXPECT_NE(Set("vertices", vertex, {{"text", "longer than 20 characters"}}), OGRERR_NONE);
  EXPECT_NE(Row("points", 1).find("(7 8 0 1700000000)"), std::string::npos);
  OGREnvelope extent;
  EXPECT_EQ((*this)["points"].GetExtent(&extent), OGRERR_NONE);
  EXPECT_EQ(extent.MaxX, 7);
  EXPECT_EQ(ReadFile(m_path).size(), before.size());
  ExpectSameWhenReopened();
  EXPECT_STREQ(m_file->GetMetadataItem("CLOSED_PROPERLY"), "YES");
}

TEST_P(Editing, MakesAFeatureAnewWhereItMust) {
  OGRLayer& points = (*this)["points"];
  OGRFieldDefn field("Height", OFTInteger);
  EXPECT_EQ(points.CreateField(&field), OGRERR_NONE);
  EXPECT_EQ(Set("points", 1, {{"Height", "12"}}), OGRERR_NONE);
  EXPECT_EQ(points.GetFeatureCount(), 1);
  EXPECT_NE(Row("points", 1).find("Girth=2.25 Kind=Old Kind_sub=sick Seen=2024/06/10 06:00:00 Height=12"),
            std::string::npos);
  // The points that stay keep their texts and numbers.
  EXPECT_EQ(Set("lines", 2, {}, "LINESTRING ZM (1 2 0 0,2 2 0 0,3 4 0 5,5 4 0 6)"), OGRERR_NONE);
  EXPECT_NE(Row("lines", 2).find("(1 2 0 nan,2 2 0 nan,3 4 0 5,5 4 0 6)"), std::string::npos);
  std::string texts;
  (*this)["vertices"].SetAttributeFilter("feature_number = 2");
  while (const FeaturePtr row{(*this)["vertices"].GetNextFeature()}) {
    texts += std::string(row->GetFieldAsString("point_number")) + row->GetFieldAsString("text") + ' ';
  }
  EXPECT_EQ(texts, "2a 9 3b 4c ");
  (*this)["vertices"].SetAttributeFilter(nullptr);
  // A program that changes what it reads sees each feature once.
  int seen = 0;
  for (OGRLayer& lines = (*this)["lines"]; const FeaturePtr row{lines.GetNextFeature()}; ++seen) {
    row->GetGeometryRef()->toLineString()->addPoint(seen, 9, 9, 9);
    ASSERT_EQ(lines.SetFeature(row.get()), OGRERR_NONE);
    ASSERT_EQ(seen, 0);
  }
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(Set("lines", 2, {}, "LINESTRING (1 2,5 4)"), OGRERR_NONE);
  EXPECT_EQ(Set("areas", 3, {}, "POLYGON ((1 1,4 4,1 1))"), OGRERR_NONE);  // as many points as before, with the last
  (*this)["vertices"].SetAttributeFilter("feature_number = 3");
  EXPECT_EQ((*this)["vertices"].GetFeatureCount(), 2);
  (*this)["vertices"].SetAttributeFilter(nullptr);
  EXPECT_EQ(Set("points", 1, {{"Kind", nullptr}}), OGRERR_NONE);
  EXPECT_EQ(Row("points", 1).find("Kind=Old"), std::string::npos) << Row("points", 1);
  ExpectSameWhenReopened();
}

TEST_P(Editing, AppendsDeletesAndRestores) {
  m_file.reset();
  const std::size_t flagsOfSecondEnd = ReadFile(m_path).size() + 6;
  WriteFile(m_path, ReadFile(m_path) + EndOf(1));
  Reopen();
  OGRLayer& points = (*this)["points"];
  const FeaturePtr feature(OGRFeature::CreateFeature(points.GetLayerDefn()));
  feature->SetGeometryDirectly(new OGRPoint(3, 4));
  feature->SetField("Girth", 1.125);
  EXPECT_EQ(points.CreateFeature(feature.get()), OGRERR_NONE);
  EXPECT_EQ(feature->GetFID(), 10);  // not that of the deleted one
  EXPECT_NE(Row("points", 10).find("edited=1 Girth=1.125"), std::string::npos);
  EXPECT_EQ(Set("points", 10, {{"Girth", nullptr}}), OGRERR_NONE);
  EXPECT_STREQ(points.GetMetadataItem(OLMD_FID64), "YES");  // or SQL takes one FID for another
  EXPECT_EQ(points.DeleteFeature(1), OGRERR_NONE);
  EXPECT_EQ(points.DeleteFeature(1), OGRERR_NON_EXISTING_FEATURE);
  EXPECT_EQ(static_cast<unsigned>(ReadFile(m_path)[flagsOfSecondEnd]) & 1U, 1U);
  EXPECT_EQ((*this)["notes"].DeleteFeature(kAfterHeader), OGRERR_NONE);
  EXPECT_EQ(points.GetFeatureCount(), 1);
  EXPECT_EQ(Row("points", 1), "none");
  ExpectSameWhenReopened();
  Reopen({"DELETED=YES"});
  EXPECT_EQ((*this)["points"].GetFeatureCount(), 3);
  EXPECT_EQ(Set("points", 10, {{"Girth", "4"}}), OGRERR_NONE);
  EXPECT_EQ(Set("points", 1, {{"deleted", "0"}, {"Girth", "3"}}), OGRERR_NONE);
  EXPECT_EQ(Set("notes", kAfterHeader, {{"deleted", "0"}, {"text", "Wet"}}), OGRERR_NONE);
  EXPECT_EQ(Set("areas", 3, {{"deleted", "1"}}), OGRERR_NONE);
  ExpectSameWhenReopened({"DELETED=YES"});
  Reopen();
  EXPECT_NE(Row("points", 1).find("Girth=3 Kind=Old"), std::string::npos);
  EXPECT_NE(Row("points", 10).find("Girth=4"), std::string::npos);
  EXPECT_NE(Row("notes", kAfterHeader).find("text=Wet"), std::string::npos);
  EXPECT_EQ((*this)["areas"].GetFeatureCount(), 0);
}

// As ogr2ogr -upsert does with what comes back from a database.
TEST_P(Editing, TakesBackWhatWasEditedElsewhere) {
  const ByteVector before = ReadFile(m_path);
  const auto put = [this](GIntBig fid, const std::vector<std::pair<const char*, const char*>>& values) {
    const FeaturePtr row(OGRFeature::CreateFeature((*this)["points"].GetLayerDefn()));
    row->SetFID(fid);
    for (const auto& [name, value] : values) row->SetField(name, value);
    if (fid == 1) row->SetField("Girth", std::nextafter(2.25, 3));
    row->SetGeometryDirectly(new OGRPoint(10.5, 50.25, 0, 1700000000));
    EXPECT_EQ((*this)["points"].UpsertFeature(row.get()), OGRERR_NONE) << fid;
  };
  EXPECT_EQ((*this)["points"].TestCapability(OLCUpsertFeature), TRUE);
  put(1, {{"feature_name", "Oak"}, {"Seen", "2024/06/10 06:00:00+02"}});
  EXPECT_EQ(ReadFile(m_path), before);
  put(1, {{"feature_name", "Elm"}});
  put(77, {{"feature_name", "Ash"}});
  EXPECT_NE(Row("points", 1).find("feature_name=Elm"), std::string::npos);
  EXPECT_NE(Row("points", 1).find("Girth=2.25 Kind=Old Kind_sub=sick Seen=2024/06/10 06:00:00"), std::string::npos);
  EXPECT_NE(Row("points", 77).find("feature_name=Ash"), std::string::npos);
  ExpectSameWhenReopened();
}

// Rows of records: an added vertex becomes the last one of its feature, and a deleted number can be used again.
TEST_P(Editing, AddsAndDeletesVerticesTagsAndLinks) {
  const auto add = [this](const char* layer, const char* wkt,
                          const std::vector<std::pair<const char*, const char*>>& values) {
    const FeaturePtr row(OGRFeature::CreateFeature((*this)[layer].GetLayerDefn()));
    OGRGeometry* geometry = nullptr;
    if (wkt != nullptr) OGRGeometryFactory::createFromWkt(wkt, nullptr, &geometry);
    row->SetGeometryDirectly(geometry);
    for (const auto& [name, value] : values) row->SetField(name, value);
    EXPECT_EQ((*this)[layer].CreateFeature(row.get()), OGRERR_NONE) << layer;
    return row->GetFID();
  };
  const GIntBig last = add("vertices", "POINT ZM (9 9 1 7)", {{"feature_number", "2"}, {"text", "d"}});
  const GIntBig other = add("vertices", "POINT (8 8)", {{"feature_number", "2"}});
  EXPECT_NE(Row("lines", 2).find("(1 2 0 nan,3 4 0 5,5 4 0 6,9 9 1 7,8 8 0 nan)"), std::string::npos);
  EXPECT_NE(Row("vertices", last).find("feature_number=2 point_number=9 text=d"), std::string::npos);
  EXPECT_EQ((*this)["vertices"].DeleteFeature(other), OGRERR_NONE);
  const FeaturePtr middle((*this)["vertices"].GetFeature(last));
  const char* ignored[] = {"feature_number", "point_number", nullptr};
  (*this)["vertices"].SetIgnoredFields(ignored);
  EXPECT_EQ((*this)["vertices"].DeleteFeature(last), OGRERR_NONE);
  (*this)["vertices"].SetIgnoredFields(nullptr);
  EXPECT_NE(Row("lines", 2).find("(1 2 0 nan,3 4 0 5,5 4 0 6)"), std::string::npos);
  EXPECT_EQ((*this)["vertices"].CreateFeature(middle.get()), OGRERR_NONE);  // as an editor undoes it
  EXPECT_NE(Row("vertices", middle->GetFID()).find("point_number=9 text=d"), std::string::npos);
  const GIntBig tag = add("tags", nullptr, {{"kind_name", "integer"}, {"name", "Depth"}, {"value", "7"}});
  const GIntBig link = add("links", nullptr, {{"from_feature", "1"}, {"to_feature", "2"}});
  EXPECT_EQ(Set("tags", tag, {{"value", "-8"}}), OGRERR_NONE);
  EXPECT_NE(Set("tags", tag, {{"name", "A longer name"}}), OGRERR_NONE);
  EXPECT_EQ(Set("links", link, {{"value", "4"}}), OGRERR_NONE);
  EXPECT_NE(Row("tags", tag).find("kind=1 kind_name=integer name=Depth value=-8"), std::string::npos);
  const FeaturePtr path((*this)["lines"].GetFeature(2));
  EXPECT_EQ((*this)["lines"].DeleteFeature(2), OGRERR_NONE);
  EXPECT_EQ((*this)["lines"].CreateFeature(path.get()), OGRERR_NONE);
  EXPECT_NE(Row("lines", 2).find("(1 2 0 nan,3 4 0 5,5 4 0 6,9 9 1 7)"), std::string::npos);
  EXPECT_NE((*this)["lines"].CreateFeature(path.get()), OGRERR_NONE);
  ExpectSameWhenReopened();
  EXPECT_EQ((*this)["tags"].DeleteFeature(tag), OGRERR_NONE);
  EXPECT_EQ(Set("links", link, {{"deleted", "1"}}), OGRERR_NONE);
  EXPECT_EQ((*this)["tags"].GetFeatureCount() + (*this)["links"].GetFeatureCount(), 0);
  EXPECT_EQ(Row("tags", tag), "none");
  ExpectSameWhenReopened();
}

TEST_P(Editing, UndoesATransaction) {
  const std::vector<std::string> layers{"points", "lines", "areas", "vertices", "notes"};
  std::vector<std::string> shown;
  for (const std::string& layer : layers) shown.push_back(Show((*this)[layer.c_str()]));
  const ByteVector before = ReadFile(m_path);
  EXPECT_EQ(m_file->TestCapability(ODsCTransactions), TRUE);
  ASSERT_EQ(m_file->StartTransaction(), OGRERR_NONE);
  EXPECT_NE(m_file->StartTransaction(), OGRERR_NONE);
  EXPECT_EQ(Set("points", 1, {{"Girth", "9"}}, "POINT (0 0)"), OGRERR_NONE);
  EXPECT_EQ(Set("lines", 2, {}, "LINESTRING (0 0,1 1)"), OGRERR_NONE);
  EXPECT_EQ((*this)["lines"].DeleteFeature(2), OGRERR_NONE);  // marks records that the transaction has appended
  EXPECT_EQ((*this)["areas"].DeleteFeature(3), OGRERR_NONE);
  EXPECT_EQ((*this)["areas"].GetFeatureCount(), 0);
  EXPECT_EQ(m_file->SetMetadataItem("HEADER_TEXT_2", "Park"), CE_None);
  EXPECT_NE(ReadFile(m_path), before);
  ASSERT_EQ(m_file->RollbackTransaction(), OGRERR_NONE);
  EXPECT_EQ(ReadFile(m_path), before);
  for (std::size_t i = 0; i < layers.size(); ++i) EXPECT_EQ(Show((*this)[layers[i].c_str()]), shown[i]);
  EXPECT_NE(m_file->CommitTransaction(), OGRERR_NONE);
  m_file.reset();
  EXPECT_EQ(ReadFile(m_path), before);  // also the marks of closing
  Reopen();
  ASSERT_EQ(m_file->StartTransaction(), OGRERR_NONE);
  EXPECT_EQ(Set("points", 1, {{"Girth", "9"}}), OGRERR_NONE);
  ASSERT_EQ(m_file->CommitTransaction(), OGRERR_NONE);
  ExpectSameWhenReopened();
}

// A refused change leaves the file as it is, also where other changes of the same feature could have been made.
TEST_P(Editing, RefusesAllOrNothing) {
  const ByteVector before = ReadFile(m_path);
  const std::string longText(256, 'x');
  EXPECT_NE(Set("points", 1, {{"Girth", "9"}, {"Kind", longText.c_str()}}), OGRERR_NONE);
  EXPECT_NE(Set("points", 1, {{"feature_name", longText.c_str()}, {"Girth", "1"}}), OGRERR_NONE);
  EXPECT_NE(Set("points", 1, {{"Girth", "9"}}, "MULTIPOINT (0 0,1 1)"), OGRERR_NONE);
  EXPECT_NE(Set("lines", 2, {{"feature_color", "9"}}, "POINT (0 0)"), OGRERR_NONE);
  EXPECT_NE(Set("lines", 2, {}, "LINESTRING M (0 0 -1,1 1 2)"), OGRERR_NONE);
  EXPECT_NE(Set("notes", kAfterHeader, {{"text", longText.c_str()}}), OGRERR_NONE);
  m_file.reset();
  EXPECT_EQ(ReadFile(m_path), before);
  WriteFile(m_path, ByteVector(before.begin(), before.end() - 3));
  EXPECT_FALSE(Open(m_path, {}, GDAL_OF_UPDATE));  // what is after damage can't be read
  ByteVector ofVersion0 = before;
  ofVersion0[kFirst - 8] = ByteVector::value_type{0};
  WriteFile(m_path, ofVersion0);
  EXPECT_FALSE(Open(m_path, {}, GDAL_OF_UPDATE));
  WriteFile(m_path, before);
  Reopen({"LAYERS=NAMES"});
  EXPECT_NE(Set("Oak", 1, {{"feature_name", "Elm"}}), OGRERR_NONE);
  EXPECT_EQ(Set("Oak", 1, {{"Girth", "1"}}), OGRERR_NONE);
}

}  // namespace
}  // namespace kesp::test
