// What layers there are, and what is in them.
#include <gtest/gtest.h>

#include "tests/ogr/Gdal.h"

namespace kesp::test {
namespace {

// Numbers: 1 to 3 in the usual order, then records for 1 after its end, a second feature 2, and a deleted point and
// feature.
ByteVector Garden() {
  const auto feature = [](std::uint32_t number, std::string_view name, int kind, std::uint32_t color = 0) {
    return Record(1, 3, 0,
                  Body(1, 3, {{"feature", number}, {"name", name}, {"kind", kind}, {"color", color}, {"symbol", 34}}));
  };
  return Survey(
      {Record(3, 2, 0, Body(3, 2, {{"status", 1}, {"created", 1'700'000'000}, {"t1", "Garden"}, {"t7", "seven"}})),
       Note("Dry"),
       feature(1, "Oak", 1, 0x0000FF),
       Value(1, "Girth", 2, "", 2.355, 2),
       Value(1, "Kind", 3, "Old", 0, 0, "sick"),
       Value(1, "Seen", 4, "", 45453.25),
       Value(1, "DELETED", 1, "no"),
       Value(1, "girth", 2, "", 9, 0),
       Point(1, 1, {1700000000, 10.5, 50.25, "P1"}),
       EndOf(1),
       feature(2, "Path", 2, 0x112233),
       Point(2, 2, {0, 1, 2}),
       Point(2, 3, {5, 3, 4}),
       EndOf(2),
       feature(3, "Lawn", 3, 0x00FF00),
       Value(3, "Mixed", 2, "", 1.5, 1),
       Point(3, 4, {1, 0, 0}),
       Point(3, 5, {1, 4, 0}),
       Point(3, 6, {1, 4, 4}),
       EndOf(3),
       Value(1, "Late", 4, "", 0),
       Value(1, "Mixed", 1, "text"),
       Point(9, 7),
       feature(2, "Path", 2),
       Point(2, 8, {1, 7, 8}, 2),
       Point(2, 9, {1, 9, 9}, 1),
       EndOf(2),
       Feature(5, "Gone", 1),
       Point(5, 10),
       Tag(1, "Depth", Words({7})),
       Tag(10, "", Words({1, 0, 3, 0, 5, 0xFFFFFFFF})),
       Tag(0, "Blob", Words({0x01020304})),
       Tag(13, "featurechanges", Words({3, 8})),
       Tag(9, "", Floats({1, 0.5F, 2, 3, 4}))});
}

TEST(Layers, ShowWhatIsInTheFile) {
  const Opened file(Garden());
  ASSERT_TRUE(file);
  EXPECT_EQ(ShowSchema(file["points"]),
            "points: 3D Measured Point, feature_name String, feature_color Integer64, feature_symbol Integer, deleted "
            "Integer, edited Integer, Girth Real(2), Kind String<Kind>, Kind_sub String, Seen DateTime, DELETED_2 "
            "String, Late DateTime, Mixed String, further_attributes String");
  const char* ignored[] = {"OGR_STYLE", nullptr};  // QGIS sets this, and then draws by the styles
  ASSERT_EQ(file["points"].SetIgnoredFields(ignored), OGRERR_NONE);
  EXPECT_EQ(Show(file["points"]),
            "1 feature_name=Oak feature_color=255 feature_symbol=34 deleted=0 edited=0 Girth=2.355 Kind=Old "
            "Kind_sub=sick Seen=2024/06/10 06:00:00 DELETED_2=no Late=null Mixed=text "
            "further_attributes=[{\"name\":\"girth\",\"value\":\"9\"}] "
            "POINT ZM (10.5 50.25 0 1700000000) SYMBOL(id:\"ogr-sym-3\",c:#ff0000)\n");
  // The first feature 2 lost its number to the second. The deleted point is in neither.
  const std::string path = Show(file["lines"]);
  EXPECT_EQ(
      path.substr(path.find(' ')),
      " feature_name=Path feature_color=1122867 feature_symbol=34 deleted=0 edited=0 LINESTRING ZM (1 2 0 nan,3 4 "
      "0 5) PEN(c:#332211)\n2 feature_name=Path feature_color=0 feature_symbol=34 deleted=0 edited=1 LINESTRING "
      "ZM (7 8 0 1)\n");
  EXPECT_GT(std::stoll(path), std::int64_t{1} << 32);
  EXPECT_EQ(Show(file["areas"]),
            "3 feature_name=Lawn feature_color=65280 feature_symbol=34 deleted=0 edited=1 Mixed=1.5 POLYGON ZM ((0 0 0 "
            "1,4 0 0 1,4 4 0 1,0 0 0 1)) BRUSH(fc:#00ff00)\n");
  EXPECT_EQ(file["vertices"].GetFeatureCount(), 7);  // neither the deleted one nor that without a feature
  const FeaturePtr vertex{file["vertices"].GetNextFeature()};
  const std::string shown = Show(*vertex);
  EXPECT_EQ(
      shown.substr(shown.find(' ')),
      " feature_number=1 point_number=1 text=P1 time=2023/11/14 22:13:20+00 z=0 status=0 gps_value=0 gps_number=0 "
      "has_offset=0 offset_1=0 offset_2=0 deleted=0 edited=0 POINT ZM (10.5 50.25 0 1700000000)");
}

TEST(Layers, HaveTablesDomainsRelationshipsAndMetadata) {
  const Opened file(Garden());
  std::string tables;
  for (const char* const name : {"notes", "tags", "links"}) tables += Show(file[name]);
  for (std::size_t at = 0; at < tables.size(); at = tables.find('\n', at) + 1) {
    tables.erase(at, tables.find(' ', at) - at);
  }
  EXPECT_EQ(
      tables,
      " text=Dry deleted=0 edited=0\n"
      " kind=1 kind_name=integer name=Depth value=7 deleted=0 edited=0\n"
      " kind=0 kind_name=blob name=Blob data=04030201 deleted=0 edited=0\n"
      " kind=13 kind_name=named_flag name=featurechanges value=3 8 deleted=0 edited=0\n"
      " kind=9 kind_name=quality name= value=1 0.5 2 3 4 deleted=0 edited=0\n"
      " from_feature=1 from_qualifier=0 to_feature=3 to_qualifier=0 value=5 spare=4294967295 deleted=0 edited=0\n");
  const auto* const domain = dynamic_cast<const OGRCodedFieldDomain*>(file->GetFieldDomain("Kind"));
  ASSERT_NE(domain, nullptr);
  EXPECT_STREQ(domain->GetEnumeration()->pszCode, "Old");
  ASSERT_EQ(file->GetRelationshipNames(), std::vector<std::string>{"links_points_areas"});
  const GDALRelationship& links = *file->GetRelationship("links_points_areas");
  EXPECT_EQ(links.GetMappingTableName(), "links");
  EXPECT_EQ(links.GetRightMappingTableFields(), std::vector<std::string>{"to_feature"});
  for (const auto& [key, value] : {std::pair{"HEADER_TEXT_1", "Garden"},
                                   {"HEADER_TEXT_7", "seven"},
                                   {"CREATION_TIME", "2023-11-14T22:13:20Z"},
                                   {"CLOSED_PROPERLY", "YES"},
                                   {"FILE_VERSION", "3"}}) {
    EXPECT_STREQ(file->GetMetadataItem(key), value) << key;
  }
  EXPECT_EQ(file->GetMetadataItem("DAMAGE"), nullptr);
}

TEST(Layers, FollowTheOpenOptions) {
  {
    const Opened file(Garden(), {"LAYERS=NAMES", "COLOR_ORDER=RGB"});
    std::string names;
    for (OGRLayer* const layer : file->GetLayers()) names += std::string(layer->GetName()) + ' ';
    EXPECT_EQ(names, "Oak Path Lawn vertices notes tags links ");
    EXPECT_EQ(file["Path"].GetFeatureCount(), 2);
    EXPECT_NE(Show(file["Oak"]).find("SYMBOL(id:\"ogr-sym-3\",c:#0000ff)"), std::string::npos);
  }
  {
    const Opened file(Survey({Header2(), Feature(1, "Tree", 1), Point(1, 1, {}, 1), EndOf(1)}), {"DELETED=YES"});
    EXPECT_NE(Show(file["points"]).find("deleted=1"), std::string::npos);
    EXPECT_NE(Show(file["vertices"]).find("deleted=1"), std::string::npos);
  }
  const Opened withCrs(Garden(), {"CRS=EPSG:25832"});
  ASSERT_NE(withCrs["areas"].GetSpatialRef(), nullptr);
  EXPECT_STREQ(withCrs["areas"].GetSpatialRef()->GetAuthorityCode(nullptr), "25832");
  EXPECT_EQ(Opened(Garden())["areas"].GetSpatialRef(), nullptr);
  for (const char* const wrong : {"CRS=none such", "LAYERS=X", "COLOR_ORDER=GRB"}) {
    Errors errors;
    EXPECT_FALSE(Opened(Garden(), {wrong})) << wrong;
    EXPECT_EQ(errors.failures, 1) << wrong;
  }
}

TEST(Layers, TakeTheReferenceSystemFromASidecar) {
  const TempDir dir;
  WriteFile(dir / "a.kesp", Garden());
  std::ofstream(dir / "a.prj") << '\n' << SRS_WKT_WGS84_LAT_LONG;
  const DatasetPtr dataset = Open(dir / "a.kesp");
  const OGRSpatialReference* const crs = dataset->GetLayerByName("points")->GetSpatialRef();
  ASSERT_NE(crs, nullptr);
  EXPECT_EQ(crs->GetDataAxisToSRSAxisMapping(), (std::vector<int>{2, 1}));  // east first
  const CPLStringList files(dataset->GetFileList());
  EXPECT_GE(files.FindString((dir / "a.prj").c_str()), 0);
}

TEST(Layers, AreTheSameThroughTheFileLayerOfGdal) {
  ByteVector bytes = Garden();
  const Opened file(bytes);
  const struct {
    const char *written, *read;
  } kPaths[] = {{"/vsimem/garden.kesp", "/vsimem/garden.kesp"},
                {"/vsigzip//vsimem/garden.gz", "/vsigzip//vsimem/garden.gz"},
                {"/vsizip//vsimem/season.zip/garden.kesp", "/vsizip//vsimem/season.zip"}};
  for (const auto& [written, read] : kPaths) {
    VSILFILE* const out = VSIFOpenL(written, "wb");
    VSIFWriteL(bytes.data(), 1, bytes.size(), out);
    VSIFCloseL(out);
    const DatasetPtr dataset = Open(read);
    ASSERT_NE(dataset, nullptr) << read;
    ASSERT_EQ(dataset->GetLayerCount(), file->GetLayerCount());
    for (OGRLayer* const layer : dataset->GetLayers()) EXPECT_EQ(Show(*layer), Show(file[layer->GetName()])) << read;
  }
  Errors errors;
  EXPECT_EQ(Open("/vsimem/missing.kesp"), nullptr);
}

// Which layers a file without some kinds of records has, and the two notes that belong to an old header.
TEST(Layers, AreLeftOutIfTheyAreEmpty) {
  const struct {
    ByteVector bytes;
    const char* layers;
  } cases[] = {
      {Survey({Header2()}), "points lines areas vertices "},
      {Survey({Header2(), Note("a")}), "points lines areas vertices notes "},
      {Survey({Header2(), Feature(1, "Way", 0, 3, 2)}), "lines "},
      {Survey({Header1(), Note("BMC: b"), Note("ZOM:0,1,0,1"), Feature(1), Point(1, 1)}, 1), "points vertices "},
      {Survey({Header2(), Note("BMC: b"), Feature(1), Point(1, 1)}), "points vertices notes "},
  };
  for (const auto& [bytes, layers] : cases) {
    const Opened file(bytes);
    std::string names;
    for (OGRLayer* const layer : file->GetLayers()) names += std::string(layer->GetName()) + ' ';
    EXPECT_EQ(names, layers);
  }
}

// What a hostile file has too many of.
TEST(Layers, HaveBoundedSchemas) {
  std::vector<ByteVector> records{Header2()};
  for (std::uint32_t i = 0; i < 1100; ++i) {
    const std::string name = "n" + std::to_string(i);
    if (i % 2 == 0) records.push_back(Record(1, 1, 0, Body(1, 1, {{"feature", i}, {"name", name}, {"kind", 1}})));
    records.push_back(
        Record(5, 2, 0, Body(5, 2, {{"feature", i / 2 * 2}, {"title", name}, {"kind", 1}, {"string", name}})));
    records.push_back(
        Record(5, 2, 0, Body(5, 2, {{"feature", i / 2 * 2}, {"title", "menu"}, {"kind", 3}, {"string", name}})));
  }
  const Opened file(Survey(records));
  OGRLayer& points = file["points"];
  EXPECT_EQ(points.GetLayerDefn()->GetFieldCount(), 5 + 1000 + 1);
  EXPECT_EQ(file->GetFieldDomain("menu"), nullptr);
  const FeaturePtr last{points.GetFeature(1098)};
  const std::string further = last->GetFieldAsString("further_attributes");
  EXPECT_NE(further.find("\"n1099\""), std::string::npos) << further;
  const Opened byName(Survey(records), {"LAYERS=NAMES"});
  EXPECT_EQ(byName->GetLayerCount(), 248);  // 250 with those of lines and areas, which are empty
  EXPECT_EQ(byName["other_points"].GetFeatureCount(), 550 - 247);
}

}  // namespace
}  // namespace kesp::test
