// Files that GDAL makes, and what it may not write.
#include <gdal_utils.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>

#include "kesp/dataset/KespFile.h"
#include "tests/ogr/Gdal.h"

namespace kesp::test {
namespace {

DatasetPtr Create(const std::filesystem::path& path, const std::vector<std::string>& options = {}) {
  GDALDriver* const driver = GetGDALDriverManager()->GetDriverByName("Kesp");
  return DatasetPtr(driver->Create(path.c_str(), 0, 0, 0, GDT_Unknown, ListOf(options).List()));
}

// As ogr2ogr does it.
DatasetPtr Translate(GDALDataset* source, const std::filesystem::path& path, const std::vector<std::string>& options) {
  GDALVectorTranslateOptions* const parsed = GDALVectorTranslateOptionsNew(ListOf(options).List(), nullptr);
  GDALDatasetH sources[] = {source};
  DatasetPtr result(GDALDataset::FromHandle(GDALVectorTranslate(path.c_str(), nullptr, 1, sources, parsed, nullptr)));
  GDALVectorTranslateOptionsFree(parsed);
  return result;
}

OGRLayer& Add(GDALDataset& dataset, const char* name, OGRwkbGeometryType type,
              const std::vector<std::pair<const char*, OGRFieldType>>& fields,
              const std::vector<std::string>& options = {}) {
  OGRLayer& layer = *dataset.CreateLayer(name, nullptr, type, ListOf(options).List());
  for (const auto& [field, fieldType] : fields) {
    OGRFieldDefn definition(field, fieldType);
    EXPECT_EQ(layer.CreateField(&definition), OGRERR_NONE) << field;
  }
  return layer;
}

FeaturePtr Make(OGRLayer& layer, const char* wkt, const std::vector<std::pair<const char*, const char*>>& values = {}) {
  FeaturePtr feature(OGRFeature::CreateFeature(layer.GetLayerDefn()));
  OGRGeometry* geometry = nullptr;
  if (wkt != nullptr) OGRGeometryFactory::createFromWkt(wkt, nullptr, &geometry);
  feature->SetGeometryDirectly(geometry);
  for (const auto& [name, value] : values) feature->SetField(name, value);
  return feature;
}

OGRErr Put(OGRLayer& layer, const char* wkt, const std::vector<std::pair<const char*, const char*>>& values = {}) {
  return layer.CreateFeature(Make(layer, wkt, values).get());
}

// The header's counts and extent are those that a data set finds.
void ExpectTrueHeader(const std::filesystem::path& path, bool isClosed = true) {
  CKespFile survey;
  CString message;
  ASSERT_EQ(survey.OpenKespReadOnly(CString::FromPathBytes(path.string()), message), ERR_NONE);
  ASSERT_EQ(survey.ReadKespFile(false), ERR_NONE);
  ASSERT_TRUE(survey.WasReadToEnd());
  const auto& header = dynamic_cast<const CKespTavoHeader&>(**survey.m_recordList.begin());
  EXPECT_EQ(header.WasCleanClose(), isClosed);
  if (!isClosed) return;
  std::uint32_t points = 0, features = 0;
  CBoundingBox box;
  CTime first, last;
  CString text;
  survey.GetKespDataSummary(points, features, box, first, last, text);
  EXPECT_EQ(header.PointCount, points);
  EXPECT_EQ(header.FeatureCount, features);
  EXPECT_EQ(header.DataExtent1, box.MinX());
  EXPECT_EQ(header.DataExtent4, box.MaxY());
  EXPECT_EQ(header.LastPointText, text);
  EXPECT_EQ(header.LastPointTime, static_cast<std::uint32_t>(points != 0 ? last.GetTime() : 0));
}

// Two sets of everything that reading gives: written, read, written again through GeoPackage, and read.
TEST(Writing, KeepsWhatReadingGives) {
  const TempDir dir;
  {
    const DatasetPtr file = Create(dir / "a.kesp");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->SetMetadataItem("HEADER_TEXT_1", "Garden"), CE_None);
    Errors errors;
    EXPECT_EQ(file->SetMetadataItem("HEADER_TEXT_1", "longer than 20 characters"), CE_Failure);
    std::string why;
    EXPECT_TRUE(file->AddFieldDomain(
        std::make_unique<OGRCodedFieldDomain>("Kind", "", OFTString, OFSTNone, std::vector<OGRCodedValue>()), why));
    OGRLayer& trees = Add(*file, "Oak", wkbPoint,
                          {{"Girth", OFTReal},
                           {"Age", OFTInteger},
                           {"Seen", OFTDateTime},
                           {"Day", OFTDate},
                           {"feature_symbol", OFTInteger}});
    OGRFieldDefn menu("Kind", OFTString), sub("Kind_sub", OFTString);
    menu.SetDomainName("Kind");
    EXPECT_EQ(trees.CreateField(&menu), OGRERR_NONE);
    EXPECT_EQ(trees.CreateField(&sub), OGRERR_NONE);
    const FeaturePtr oak = Make(trees, "POINT ZM (1.5 2.5 3.5 1700000000)",
                                {{"Girth", "2.355"},
                                 {"Age", "120"},
                                 {"Seen", "2024/06/10 06:00:00.125"},
                                 {"Day", "1850/01/02"},
                                 {"Kind", "Old"},
                                 {"Kind_sub", "sick"},
                                 {"feature_symbol", "7"}});
    oak->SetStyleString("SYMBOL(c:#ff8001)");
    EXPECT_EQ(trees.CreateFeature(oak.get()), OGRERR_NONE);
    EXPECT_EQ(oak->GetFID(), 1);
    OGRLayer& lines = Add(*file, "lines", wkbLineString,
                          {{"feature_name", OFTString}, {"feature_color", OFTInteger64}, {"edited", OFTInteger}});
    EXPECT_EQ(Put(lines, "LINESTRING M (0 0 5,1 1 6)",
                  {{"feature_name", "Weg"}, {"feature_color", "4294967295"}, {"edited", "1"}}),
              OGRERR_NONE);
    OGRLayer& areas = Add(*file, "Lawn", wkbMultiPolygon, {});
    EXPECT_EQ(Put(areas, "MULTIPOLYGON (((0 0,4 0,4 4,0 0)))"), OGRERR_NONE);
    EXPECT_EQ(Put(*file->CreateLayer("notes", nullptr, wkbNone), nullptr, {{"text", "Dry"}}), OGRERR_NONE);
    EXPECT_EQ(trees.TestCapability(OLCRandomWrite), FALSE);
    EXPECT_EQ(trees.TestCapability(OLCSequentialWrite), TRUE);
  }
  ExpectTrueHeader(dir / "a.kesp");
  const DatasetPtr first = Open(dir / "a.kesp");
  EXPECT_STREQ(first->GetMetadataItem("HEADER_TEXT_1"), "Garden");
  EXPECT_EQ(Show(*first->GetLayerByName("points")),
            "1 feature_name=Oak feature_color=98559 feature_symbol=7 deleted=0 edited=0 Girth=2.355 Age=120 "
            "Seen=2024/06/10 06:00:00.125 Day=1850/01/02 00:00:00 Kind=Old Kind_sub=sick "
            "POINT ZM (1.5 2.5 3.5 1700000000) SYMBOL(id:\"ogr-sym-3\",c:#ff8001)\n");
  EXPECT_EQ(Show(*first->GetLayerByName("lines")),
            "2 feature_name=Weg feature_color=4294967295 feature_symbol=34 deleted=0 edited=1 "
            "LINESTRING ZM (0 0 0 5,1 1 0 6) PEN(c:#ffffff)\n");
  EXPECT_NE(Show(*first->GetLayerByName("areas")).find("3 feature_name=Lawn"), std::string::npos);

  const std::vector<std::string> layers{"points", "lines", "areas", "notes"};
  std::vector<std::string> options{"-f", "GPKG"};
  options.insert(options.end(), layers.begin(), layers.end());
  const DatasetPtr between = Translate(first.get(), dir / "b.gpkg", options);
  ASSERT_TRUE(between);
  for (const char* const version : {"FILE_VERSION=3", "FILE_VERSION=2", "FILE_VERSION=1"}) {
    const std::filesystem::path path = dir / (std::string(version) + ".kesp");
    ASSERT_TRUE(Translate(between.get(), path, {"-f", "Kesp", "-dsco", version}));
    const DatasetPtr again = Open(path);
    EXPECT_EQ("FILE_VERSION=" + std::string(again->GetMetadataItem("FILE_VERSION")), version);
    for (const std::string& layer : layers) {
      std::string was = Show(*first->GetLayerByName(layer.c_str())), is = Show(*again->GetLayerByName(layer.c_str()));
      if (layer == "notes") was.erase(0, was.find(' ')), is.erase(0, is.find(' '));  // offsets
      EXPECT_EQ(is, was) << version;
    }
  }
}

// Each refusal has its cause, and not a byte of the feature is in the file.
TEST(Writing, RefusesWhatFeaturesCantHold) {
  const TempDir dir;
  const std::string longText(256, 'x'), shortText(255, 'x'), longName(256, 'n');
  for (const bool isNewest : {true, false}) {
    const std::filesystem::path path = dir / (isNewest ? "new.kesp" : "old.kesp");
    const DatasetPtr file = Create(path, {isNewest ? "FILE_VERSION=3" : "FILE_VERSION=1"});
    OGRLayer& layer = Add(*file, "points", wkbUnknown,
                          {{"feature_name", OFTString},
                           {"feature_color", OFTInteger64},
                           {"text", OFTString},
                           {"number", OFTInteger64},
                           {"date", OFTDateTime},
                           {"further_attributes", OFTString}});
    OGRLayer& lines = Add(*file, "Way", wkbLineString, {});
    const FeaturePtr taken = Make(layer, "POINT (1 1)");
    taken->SetFID(7);
    ASSERT_EQ(layer.CreateFeature(taken.get()), OGRERR_NONE);
    file->FlushCache(false);
    const ByteVector before = ReadFile(path);
    const struct {
      const char* wkt;
      std::pair<const char*, const char*> value;
      const char* cause;
    } cases[] = {
        {"POINT (1 1)",
         {"text", isNewest ? longText.c_str() : "more than forty characters, where forty fit"},
         "can't be stored"},
        {"POINT (1 1)", {"feature_name", isNewest ? longName.c_str() : "\xE2\x82\xAC"}, "name of the feature"},
        {"POINT (1 1)", {"feature_color", "-1"}, "from 0 to 4294967295"},
        {"POINT (1 1)", {"number", "9007199254740993"}, "53 bits"},
        {"POINT (1 1)", {"date", "1899/12/30 00:00:00"}, "no date"},
        {"POINT (1 1)", {"further_attributes", "{"}, "JSON"},
        {"POINT M (1 1 -1)", {}, "no time"},
        {"POINT M (1 1 2147483648)", {}, "no time"},
        {"POINT M (1 1 0.5)", {}, "no time"},
        {"MULTILINESTRING ((0 0,1 1),(2 2,3 3))", {}, "SPLIT_MULTI"},
        {"POLYGON ((0 0,9 0,9 9,0 0),(1 1,2 1,2 2,1 1))", {}, "holes"},
        {"GEOMETRYCOLLECTION (POINT (1 1),POINT (2 2))", {}, "Collection"},
        {"POINT EMPTY", {}, "not empty"},
        {nullptr, {}, "not empty"},
    };
    for (const auto& [wkt, value, cause] : cases) {
      std::vector<std::pair<const char*, const char*>> values;
      if (value.first != nullptr) values.push_back(value);
      const FeaturePtr feature = Make(layer, wkt, values);
      Errors errors;
      EXPECT_NE(layer.CreateFeature(feature.get()), OGRERR_NONE) << cause;
      EXPECT_NE(errors.text.find(cause), std::string::npos) << errors.text;
    }
    for (const GIntBig fid : {GIntBig{7}, GIntBig{-5}, GIntBig{1} << 32}) {
      taken->SetFID(fid);
      EXPECT_NE(layer.CreateFeature(taken.get()), OGRERR_NONE) << fid;
    }
    for (const auto& [x, z] : {std::pair{std::nan(""), 0.0}, {1.0, HUGE_VAL}}) {
      const FeaturePtr feature = Make(layer, nullptr);
      feature->SetGeometryDirectly(new OGRPoint(x, 1, z));
      EXPECT_NE(layer.CreateFeature(feature.get()), OGRERR_NONE) << x;
    }
    EXPECT_NE(Put(lines, "POINT (1 1)"), OGRERR_NONE);
    for (const auto& [name, type] : {std::pair{"crew", wkbNone}, {"tags", wkbPoint}, {"vertices", wkbLineString}}) {
      EXPECT_EQ(file->CreateLayer(name, nullptr, type), nullptr) << name;
    }
    file->FlushCache(false);
    EXPECT_EQ(ReadFile(path), before);
    EXPECT_EQ(Put(layer, "POINT (1 1)", {{"text", isNewest ? shortText.c_str() : "\xC3\xA4"}}), OGRERR_NONE);
  }
  Errors errors;
  EXPECT_FALSE(Create(dir / "new.kesp" / "no directory"));
  EXPECT_FALSE(Create(dir / "c.kesp", {"FILE_VERSION=4"}));
  EXPECT_EQ(errors.failures, 2) << errors.text;
}

// Numbers that don't ascend, a feature without points, an area whose last point closes it, points and an attribute
// after the end of their feature, a deleted point and a deleted feature, values of points, tags of all kinds, and
// links.
ByteVector Orchard() {
  const auto measured = [](std::uint32_t feature, std::uint32_t number, double x, std::uint32_t flags = 0) {
    return Record(2, 2, flags,
                  Body(2, 2,
                       {{"feature", feature},
                        {"point", number},
                        {"time", 1'700'000'000 + static_cast<int>(number)},
                        {"x", x},
                        {"y", 2},
                        {"z", 3.25},
                        {"text", "P"},
                        {"signal", 4},
                        {"gps", 0.1},
                        {"number", 12},
                        {"offset1", 1.5},
                        {"offset2", -2},
                        {"hasOffset", 1}}));
  };
  return Survey({Record(3, 2, 0, Body(3, 2, {{"status", 1}, {"t1", "Orchard"}, {"slotText1", "slot"}})),
                 Feature(7, "Row", 0, 3, 2),
                 Value(7, "Length", 2, "", 10.5, 1),
                 measured(7, 40, 1),
                 measured(7, 41, 2),
                 EndOf(7),
                 Feature(3, "Tree"),
                 Point(3, 10, {0, 5, 6}),
                 EndOf(3),
                 Record(1, 3, 0, Body(1, 3, {{"feature", 5}, {"name", "Plot"}, {"kind", 3}})),
                 Point(5, 11, {1, 0, 0}),
                 Point(5, 12, {1, 4, 0}),
                 Point(5, 13, {1, 4, 4}),
                 Point(5, 14, {1, 0, 0}),
                 EndOf(5),
                 Feature(4, "Felled"),
                 EndOf(4),
                 measured(7, 42, 3),
                 Point(3, 9, {2, 5, 7}, 1),
                 Value(3, "Kind", 3, "Old", 0, 0, "sick"),
                 Feature(8, "Gone", 1),
                 Point(8, 15, {}, 1),
                 EndOf(8, 1),
                 Note("Dry"),
                 Tag(0, "Blob", Words({0x01020304})),
                 Tag(1, "Depth", Words({0xFFFFFFFE})),
                 Tag(3, "Text", {'e', 0, 0xAC, 0x20, 0, 0}),
                 Tag(3, "", {0, 0}),
                 Tag(4, "Base", ByteVector(24, 0x40)),
                 Tag(6, "Color", Words({0xFF00FF00})),
                 Tag(9, "", Floats({3, 0.1F, 1e20F, 3, 4})),
                 Tag(11, "", Floats({3, 0.1F, 2, 3, 4, -7})),
                 Tag(13, "flag", Words({3, 8}), 4),
                 Tag(99, "new kind", Words({1})),
                 Tag(10, "", Words({7, 1, 3, 2, 5, 0xFFFFFFFF})),
                 Tag(10, "", Words({3, 0, 7, 0, 0, 0}), 1)});
}

// All rows of all layers in any order. The FIDs of records are offsets.
std::string ShowAll(GDALDataset& dataset) {
  std::string all;
  for (OGRLayer* const layer : dataset.GetLayers()) {
    std::vector<std::string> rows;
    while (const FeaturePtr row{layer->GetNextFeature()}) {
      const std::string shown = Show(*row);
      rows.push_back(*layer->GetFIDColumn() != 0 ? shown : shown.substr(shown.find(' ')));
    }
    std::sort(rows.begin(), rows.end());
    all += ShowSchema(*layer) + '\n';
    for (const std::string& row : rows) all += row + '\n';
  }
  return all;
}

// By ogr2ogr from file to file, and by way of GeoPackage, with deleted records and without.
TEST(Writing, CopiesAllLayers) {
  for (const char* const deleted : {"DELETED=NO", "DELETED=YES"}) {
    const TempDir dir;
    WriteFile(dir / "a.kesp", Orchard());
    const DatasetPtr first = Open(dir / "a.kesp", {deleted});
    const std::string wanted = ShowAll(*first);
    EXPECT_NE(wanted.find("feature_number=7 point_number=42 text=P time=2023/11/14 22:14:02+00 z=3.25 status=4 "
                          "gps_value=0.1 gps_number=12 has_offset=1 offset_1=1.5 offset_2=-2"),
              std::string::npos)
        << wanted;
    const DatasetPtr between = Translate(first.get(), dir / "b.gpkg", {"-f", "GPKG"});
    ASSERT_TRUE(between);
    for (GDALDataset* const source : {first.get(), between.get()}) {
      const std::filesystem::path path = dir / (source == first.get() ? "c.kesp" : "d.kesp");
      Errors errors;
      ASSERT_TRUE(Translate(source, path, {"-f", "Kesp"})) << errors.text;
      EXPECT_EQ(errors.text, "");
      const DatasetPtr again = Open(path, {deleted});
      EXPECT_EQ(ShowAll(*again), wanted);
      EXPECT_STREQ(again->GetMetadataItem("SLOT_TEXT_1"), "slot");
    }
  }
}

// As with a long file, of which a part is on the disk before the next layer is created.
TEST(Writing, CompletesFeaturesThatAreOnTheDisk) {
  const TempDir dir;
  const DatasetPtr file = Create(dir / "a.kesp");
  EXPECT_EQ(Put(Add(*file, "lines", wkbLineString, {}), "LINESTRING (1 1,2 2)"), OGRERR_NONE);
  file->FlushCache(false);
  OGRLayer& vertices = *file->CreateLayer("vertices", nullptr, wkbPoint);
  EXPECT_EQ(Put(vertices, "POINT (1 1)", {{"feature_number", "1"}, {"point_number", "5"}, {"text", "a"}}), OGRERR_NONE);
  EXPECT_EQ(Put(vertices, "POINT (2 2)", {{"feature_number", "1"}, {"point_number", "6"}, {"text", "b"}}), OGRERR_NONE);
  const std::string shown = Show(vertices);
  EXPECT_NE(shown.find("point_number=5 text=a"), std::string::npos) << shown;
  EXPECT_NE(shown.find("point_number=6 text=b"), std::string::npos) << shown;
}

TEST(Writing, RefusesWhatVerticesTagsAndLinksCantBe) {
  const TempDir dir;
  const std::filesystem::path path = dir / "a.kesp";
  WriteFile(path, Orchard());
  const DatasetPtr file = Open(path, {}, GDAL_OF_UPDATE);
  const FeaturePtr added = Make(*file->GetLayerByName("lines"), "LINESTRING ZM (1 1 1 1,2 2 2 2)");
  ASSERT_EQ(file->GetLayerByName("lines")->CreateFeature(added.get()), OGRERR_NONE);
  ASSERT_EQ(added->GetFID(), 9);
  file->FlushCache(false);
  const ByteVector before = ReadFile(path);
  const struct {
    const char *layer, *wkt;
    std::vector<std::pair<const char*, const char*>> values;
    const char* cause;
  } cases[] = {
      {"vertices", "POINT (1 1)", {}, "needs a feature_number"},
      {"vertices", "POINT (1 1)", {{"feature_number", "6"}}, "no feature 6"},
      {"vertices", "POINT (1 1)", {{"feature_number", "-1"}}, "32 bits"},
      {"vertices", "POINT (5 6)", {{"feature_number", "3"}, {"point_number", "10"}}, "has its points already"},
      {"vertices", "POINT (1 2)", {{"feature_number", "9"}, {"point_number", "1"}}, "elsewhere"},
      {"vertices", nullptr, {{"feature_number", "3"}}, "not empty"},
      {"vertices", "LINESTRING (1 1,2 2)", {{"feature_number", "3"}}, "must be a point"},
      {"vertices", "POINT (1 1)", {{"feature_number", "3"}, {"time", "1969/12/31 00:00:00"}}, "1970"},
      {"vertices", "POINT M (1 1 5)", {{"feature_number", "3"}, {"time", "1970/01/01 00:00:06+00"}}, "both 5 and 6"},
      {"vertices", "POINT (1 1)", {{"feature_number", "3"}, {"text", "more than 20 characters"}}, "can't be stored"},
      {"vertices", "POINT (1 1)", {{"feature_number", "3"}, {"status", "65536"}}, "status"},
      {"tags", nullptr, {{"name", "Depth"}}, "needs a kind"},
      {"tags", nullptr, {{"kind", "4294967296"}}, "needs a kind"},
      {"tags", nullptr, {{"kind_name", "integer"}, {"value", "2147483648"}}, "integer can't have the value 2147483648"},
      {"tags", nullptr, {{"kind", "4"}, {"value", "1 2"}}, "point can't"},
      {"tags", nullptr, {{"kind", "9"}, {"value", "16777217 0 0 0 0"}}, "quality can't"},  // a float, so it is rounded
      {"tags", nullptr, {{"kind", "2"}, {"value", "x"}}, "double can't"},
      {"links", nullptr, {{"from_feature", "3"}}, "to_feature"},
      {"links", nullptr, {{"from_feature", "3"}, {"to_feature", "4294967296"}}, "to_feature"},
  };
  for (const auto& [layer, wkt, values, cause] : cases) {
    OGRLayer& target = *file->GetLayerByName(layer);
    const FeaturePtr row = Make(target, wkt, values);
    Errors errors;
    EXPECT_NE(target.CreateFeature(row.get()), OGRERR_NONE) << cause;
    EXPECT_NE(errors.text.find(cause), std::string::npos) << errors.text << cause;
  }
  file->FlushCache(false);
  EXPECT_EQ(ReadFile(path), before);
}

TEST(Writing, SplitsGeometriesIfAsked) {
  const TempDir dir;
  {
    const DatasetPtr file = Create(dir / "a.kesp");
    OGRLayer& split = Add(*file, "Way", wkbMultiLineString, {{"width", OFTReal}}, {"SPLIT_MULTI=YES"});
    EXPECT_EQ(Put(split, "MULTILINESTRING ((0 0,1 1),(2 2,3 3),(4 4,5 5))", {{"width", "1.5"}}), OGRERR_NONE);
    OGRLayer& whole = Add(*file, "Group", wkbMultiPoint, {});
    EXPECT_EQ(Put(whole, "MULTIPOINT (0 0,1 1)"), OGRERR_NONE);
    OGRFieldDefn list("list", OFTIntegerList);
    Errors errors;
    EXPECT_NE(split.CreateField(&list, FALSE), OGRERR_NONE);
    EXPECT_EQ(split.CreateField(&list, TRUE), OGRERR_NONE);
    EXPECT_EQ(errors.failures + errors.warnings, 2);
  }
  ExpectTrueHeader(dir / "a.kesp");
  const DatasetPtr file = Open(dir / "a.kesp");
  OGRLayer& lines = *file->GetLayerByName("lines");
  EXPECT_EQ(lines.GetFeatureCount(), 3);
  EXPECT_NE(Show(lines).find("3 feature_name=Way feature_color=0 feature_symbol=34 deleted=0 edited=0 width=1.5 "
                             "LINESTRING ZM (4 4 0 nan,5 5 0 nan)"),
            std::string::npos);
  EXPECT_NE(Show(*file->GetLayerByName("points")).find("4 feature_name=Group"), std::string::npos);
}

// What the system kept of a writer that died, and who may write meanwhile.
TEST(Writing, SurvivesItsWriterAndRefusesASecondOne) {
  const TempDir dir;
  const std::filesystem::path path = dir / "a.kesp";
  const pid_t writer = fork();
  if (writer == 0) {
    const DatasetPtr file = Create(path);
    OGRLayer& layer = Add(*file, "points", wkbPoint, {});
    bool isGood = file->StartTransaction() == OGRERR_NONE;
    for (int i = 0; i < 100; ++i) isGood = Put(layer, "POINT (1 2)") == OGRERR_NONE && isGood;
    isGood = file->CommitTransaction() == OGRERR_NONE && isGood;
    isGood = Put(layer, "POINT (3 4)") == OGRERR_NONE && isGood;  // not written yet
    _exit(isGood ? 0 : 1);
  }
  int status = -1;
  waitpid(writer, &status, 0);
  ASSERT_EQ(status, 0);
  ExpectTrueHeader(path, false);
  const DatasetPtr file = Open(path, {}, GDAL_OF_UPDATE);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->GetLayerByName("points")->GetFeatureCount(), 100);
  const ByteVector before = ReadFile(path);
  Errors errors;
  EXPECT_FALSE(Open(path, {}, GDAL_OF_UPDATE));
  EXPECT_NE(errors.text.find("open for writing"), std::string::npos) << errors.text;
  EXPECT_FALSE(Create(path));
  EXPECT_EQ(ReadFile(path), before);
  EXPECT_TRUE(Open(path));
}

// A full disk, in a process of its own: what was on the disk stays, and the failure is told.
TEST(Writing, TellsOfAFullDisk) {
  const TempDir dir;
  const std::filesystem::path path = dir / "a.kesp";
  const pid_t writer = fork();
  if (writer == 0) {
    const DatasetPtr file = Create(path);
    OGRLayer& layer = Add(*file, "points", wkbPoint, {{"text", OFTString}});
    bool isGood = Put(layer, "POINT (1 2)") == OGRERR_NONE && layer.SyncToDisk() == OGRERR_NONE;
    const rlimit limit{20'000, 20'000};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    isGood = isGood && file->StartTransaction() == OGRERR_NONE;
    for (int i = 0; i < 20; ++i) isGood = isGood && Put(layer, "POINT (1 2)", {{"text", "full"}}) == OGRERR_NONE;
    Errors errors;
    isGood = isGood && file->CommitTransaction() != OGRERR_NONE && errors.failures == 1;
    isGood = isGood && file->RollbackTransaction() == OGRERR_NONE;
    _exit(isGood ? 0 : 1);
  }
  int status = -1;
  waitpid(writer, &status, 0);
  EXPECT_EQ(status, 0);
  ExpectTrueHeader(path, false);
  EXPECT_EQ(Open(path)->GetLayerByName("points")->GetFeatureCount(), 1);
}

TEST(Writing, PutsTheReferenceSystemBesideTheFile) {
  const TempDir dir;
  OGRSpatialReference utm, other;
  utm.importFromEPSG(25832);
  other.importFromEPSG(25833);
  {
    const DatasetPtr file = Create(dir / "a.kesp");
    EXPECT_NE(file->CreateLayer("points", &utm, wkbPoint), nullptr);
    EXPECT_NE(file->CreateLayer("lines", &utm, wkbLineString), nullptr);
    EXPECT_EQ(file->CreateLayer("areas", &other, wkbPolygon), nullptr);
  }
  const DatasetPtr file = Open(dir / "a.kesp");
  EXPECT_NE(file->GetLayerByName("points")->GetSpatialRef()->IsSame(&utm), 0);
}

}  // namespace
}  // namespace kesp::test
