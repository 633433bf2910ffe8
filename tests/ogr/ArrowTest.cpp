// Streams for Arrow. A filter that all rows pass has GDAL make the columns from features; ours must be the same.
#include <gtest/gtest.h>
#include <ogr_recordbatch.h>

#include <cerrno>
#include <cstring>

#include "tests/ogr/Gdal.h"

namespace kesp::test {
namespace {

template <class T>
T At(const void* values, std::int64_t row) {
  T value;
  std::memcpy(&value, static_cast<const char*>(values) + static_cast<std::size_t>(row) * sizeof value, sizeof value);
  return value;
}

bool Bit(const void* bits, std::int64_t row) {
  return (static_cast<const unsigned char*>(bits)[row / 8] >> (row % 8) & 1) != 0;
}

std::string ShowValue(const ArrowArray& array, const std::string& format, std::int64_t row) {
  const void* const values = array.buffers[1];
  if (array.buffers[0] != nullptr && !Bit(array.buffers[0], row)) return "null";
  if (format == "b") return Bit(values, row) ? "yes" : "no";
  if (format == "s") return std::to_string(At<std::int16_t>(values, row));
  if (format == "i" || format == "tdD") return std::to_string(At<std::int32_t>(values, row));
  if (format == "f") return std::to_string(At<float>(values, row));
  if (format == "l" || format == "tsm:") return std::to_string(At<std::int64_t>(values, row));
  if (format == "g") return std::to_string(At<double>(values, row));
  const std::int32_t begin = At<std::int32_t>(values, row);
  const std::string bytes(static_cast<const char*>(array.buffers[2]) + begin,
                          static_cast<std::size_t>(At<std::int32_t>(values, row + 1) - begin));
  if (format == "u") return '"' + bytes + '"';
  EXPECT_EQ(format, "z");
  std::string hex;
  for (const char byte : bytes) hex += CPLSPrintf("%02x", static_cast<unsigned char>(byte));
  return hex;
}

// A line for each row, one for each batch if `showsBatches`, and one for an error at the end.
std::string ShowStream(OGRLayer& layer, const std::vector<std::string>& options = {}, bool showsBatches = false) {
  ArrowArrayStream stream;
  EXPECT_TRUE(layer.GetArrowStream(&stream, ListOf(options).List()));
  ArrowSchema schema;
  EXPECT_EQ(stream.get_schema(&stream, &schema), 0);
  std::string text;
  int error = 0;
  for (ArrowArray batch; (error = stream.get_next(&stream, &batch)) == 0 && batch.release != nullptr;) {
    EXPECT_EQ(batch.n_children, schema.n_children);
    if (showsBatches) text += std::to_string(batch.length) + " rows\n";
    // As a consumer that keeps columns one by one. GDAL's own batches don't free what was taken out of them.
    const bool takesColumns = !showsBatches && batch.private_data != nullptr;
    std::vector<ArrowArray> columns;
    for (std::int64_t i = 0; i < batch.n_children; ++i) {
      EXPECT_EQ(batch.children[i]->length, batch.length);
      EXPECT_EQ(batch.children[i]->dictionary, nullptr);
      EXPECT_EQ(schema.children[i]->dictionary, nullptr);
      columns.push_back(*batch.children[i]);
      if (takesColumns) batch.children[i]->release = nullptr;
    }
    const std::int64_t length = batch.length;
    if (takesColumns) batch.release(&batch);
    for (std::int64_t row = 0; row < length; ++row) {
      for (std::size_t i = 0; i < columns.size(); ++i) {
        const ArrowSchema& column = *schema.children[i];
        text += std::string(column.name) + '=' + ShowValue(columns[i], column.format, row) + ' ';
      }
      text += '\n';
    }
    if (!takesColumns) batch.release(&batch);
    for (ArrowArray& column : columns) {
      if (takesColumns) column.release(&column);
    }
  }
  if (error != 0) text += std::to_string(error) + ' ' + stream.get_last_error(&stream) + '\n';
  schema.release(&schema);
  stream.release(&stream);
  return text;
}

// Every kind of field, null and not, one point and several, rings open and closed, what no geometry can have.
ByteVector Mixture() {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::vector<ByteVector> records{Header2()};
  std::uint32_t point = 0;
  for (std::uint32_t i = 1; i <= 20; ++i) {
    const auto kind = static_cast<std::uint16_t>(1 + i % 3);
    records.push_back(Feature(i, i % 4 == 0 ? "" : "Bäume 木", i % 7 == 0 ? 2 : 0, 3, kind));
    if (i % 2 == 0) records.push_back(Value(i, "Girth", 2, "", i / 4.0, 2));
    if (i % 5 == 0) records.push_back(Value(i, "Kind", 3, "Old", 0, 0, i == 5 ? "sick" : ""));
    if (i % 3 == 0) records.push_back(Value(i, "Seen", 4, "", i == 3 ? 0 : 45453.25 + i / 86399.0));
    if (i % 6 == 1) records.push_back(Value(i, "girth", 2, "", 9, 0));
    if (i % 6 == 1) records.push_back(Value(i, "Girth", 2, "", 9, 0));
    const std::uint32_t points = i % 7 == 3 ? 0 : i < 12 ? 1 : i % 5;
    for (std::uint32_t n = 0; n < points; ++n) {
      records.push_back(Point(i, ++point, {n == 1 ? 0 : 1'700'000'000, i == 15 ? nan : 1.5 * n, n == 2 ? -1.0 : 7}));
    }
    records.push_back(EndOf(i));
    if (i == 18) records.push_back(Value(4, "Late", 1, "x"));
  }
  return Survey(records);
}

TEST(ArrowStreams, AreWhatGdalMakesOfFeatures) {
  for (const auto& options : {std::vector<std::string>{}, {"LAYERS=NAMES", "DELETED=YES"}}) {
    const Opened file(Mixture(), options);
    const char* ignored[] = {"Girth", "text", "feature_number", nullptr};
    const char* noGeometry[] = {"OGR_GEOMETRY", "Seen", "z", nullptr};
    for (OGRLayer* const layer : file->GetLayers()) {
      ASSERT_EQ(layer->TestCapability(OLCFastGetArrowStream) != 0, layer->GetGeomType() != wkbNone) << layer->GetName();
      for (const char** const ignore : {static_cast<const char**>(nullptr), ignored, noGeometry}) {
        layer->SetIgnoredFields(ignore);
        for (const auto& stream : {std::vector<std::string>{}, {"INCLUDE_FID=NO", "MAX_FEATURES_IN_BATCH=3"}}) {
          const std::string ours = ShowStream(*layer, stream, !stream.empty());
          layer->SetAttributeFilter("FID >= 0");
          EXPECT_FALSE(layer->TestCapability(OLCFastGetArrowStream));
          EXPECT_EQ(ours, ShowStream(*layer, stream, !stream.empty())) << layer->GetName();
          EXPECT_NE(ours, "");
          layer->SetAttributeFilter(nullptr);
        }
      }
    }
  }
}

TEST(ArrowStreams, AreEmptyForEmptyLayers) {
  const Opened file(Survey({Header2()}));
  ASSERT_EQ(file->GetLayerCount(), 4);
  for (OGRLayer* const layer : file->GetLayers()) EXPECT_EQ(ShowStream(*layer), "") << layer->GetName();
}

// The error comes after the rows, each time.
TEST(ArrowStreams, EndWhereTheFileIsDamaged) {
  ByteVector bytes = Mixture();
  bytes.resize(bytes.size() - 300);
  const Opened file(bytes);
  for (const char* const name : {"points", "vertices"}) {
    Errors errors;
    const std::string ours = ShowStream(file[name]);
    EXPECT_EQ(errors.failures, 1) << errors.text;
    EXPECT_NE(ours.find("wkb_geometry=01"), std::string::npos);
    EXPECT_NE(ours.find('\n' + std::to_string(EIO) + ' '), std::string::npos) << ours;
    EXPECT_NE(ours.find("damaged at offset"), std::string::npos);
    EXPECT_EQ(ours, ShowStream(file[name]));
    file[name].SetAttributeFilter("FID >= 0");
    EXPECT_EQ(ours, ShowStream(file[name]));
    EXPECT_EQ(errors.failures, 3) << errors.text;
  }
}

// Fields that a program has created may have types that reading gives none.
TEST(ArrowStreams, HaveFieldsThatWereCreated) {
  const TempDir dir;
  WriteFile(dir / "a.kesp", Mixture());
  const DatasetPtr file = Open(dir / "a.kesp", {}, GDAL_OF_UPDATE);
  OGRLayer& layer = *file->GetLayerByName("points");
  for (const auto& [name, type, subtype] : {std::tuple{"whole", OFTInteger, OFSTNone},
                                            {"long", OFTInteger64, OFSTNone},
                                            {"yes", OFTInteger, OFSTBoolean},
                                            {"short", OFTInteger, OFSTInt16},
                                            {"float", OFTReal, OFSTFloat32},
                                            {"day", OFTDate, OFSTNone}}) {
    OGRFieldDefn field(name, type);
    field.SetSubType(subtype);
    ASSERT_EQ(layer.CreateField(&field), OGRERR_NONE) << name;
  }
  const FeaturePtr feature(layer.GetNextFeature());
  for (const char* const name : {"whole", "long", "yes", "short", "float"}) feature->SetField(name, 1);
  feature->SetField("day", "2024/06/10");
  ASSERT_EQ(layer.SetFeature(feature.get()), OGRERR_NONE);
  EXPECT_FALSE(layer.TestCapability(OLCFastGetArrowStream));
  const std::string ours = ShowStream(layer);
  layer.SetAttributeFilter("FID >= 0");
  EXPECT_EQ(ours, ShowStream(layer));
  EXPECT_NE(ours.find("whole=1 long=1 yes=yes short=1 float=1.000000 day=19884"), std::string::npos) << ours;
}

// A long line makes a batch of its own, so that memory doesn't grow with the file.
TEST(ArrowStreams, GiveBatchesOfLimitedLength) {
  std::vector<ByteVector> records{Header2()};
  for (std::uint32_t i = 1; i <= 3; ++i) {
    records.push_back(Feature(i, "Track", 0, 3, 2));
    for (std::uint32_t n = 0; n < 300'000; ++n) records.push_back(Point(i, 300'000 * i + n, {1, double(n), 0}));
    records.push_back(EndOf(i));
  }
  const Opened file(Survey(records));
  ArrowArrayStream stream;
  ASSERT_TRUE(file["lines"].GetArrowStream(&stream, nullptr));
  std::vector<std::int64_t> lengths;
  for (ArrowArray batch; stream.get_next(&stream, &batch) == 0 && batch.release != nullptr; batch.release(&batch)) {
    lengths.push_back(batch.length);
  }
  stream.release(&stream);
  EXPECT_EQ(lengths, (std::vector<std::int64_t>{2, 1}));
}

}  // namespace
}  // namespace kesp::test
