// The driver for GDAL: opens the file with several options, reads up to a thousand features of up to ten layers, and
// some of them again by their FID. Built only with GDAL.
#include <gdal_priv.h>
#include <ogr_recordbatch.h>
#include <ogrsf_frmts.h>

#include <memory>
#include <string_view>
#include <vector>

#include "fuzz/Targets.h"

extern "C" void RegisterOGRKesp();

namespace kesp::fuzz {
namespace {

constexpr const char* kPath = "/vsimem/a.kesp";  // a file of GDAL's, for its own look at it, and of the library's

std::vector<unsigned char> Wkb(const OGRGeometry* geometry) {
  if (geometry == nullptr) return {};
  std::vector<unsigned char> wkb(geometry->WkbSize());
  KESP_REQUIRE(geometry->exportToWkb(wkbNDR, wkb.data(), wkbVariantIso) == OGRERR_NONE);
  return wkb;
}

// In place of OGRFeature::Equal, for which a value that is not a number differs from itself.
bool AreSame(OGRFeature& a, OGRFeature& b) {
  if (a.GetFID() != b.GetFID() || Wkb(a.GetGeometryRef()) != Wkb(b.GetGeometryRef())) return false;
  for (int i = 0; i < a.GetFieldCount(); ++i) {
    if (a.IsFieldSetAndNotNull(i) != b.IsFieldSetAndNotNull(i)) return false;
    if (std::string_view(a.GetFieldAsString(i)) != b.GetFieldAsString(i)) return false;
  }
  return true;
}

GIntBig CountRows(OGRLayer& layer) {
  ArrowArrayStream stream;
  KESP_REQUIRE(layer.GetArrowStream(&stream, nullptr));
  GIntBig rows = 0;
  for (ArrowArray batch; stream.get_next(&stream, &batch) == 0 && batch.release != nullptr; batch.release(&batch)) {
    rows += batch.length;
  }
  stream.release(&stream);
  return rows;
}

void ReadLayer(OGRLayer& layer) {
  constexpr int kMost = 1000;
  const GIntBig count = layer.GetFeatureCount();
  KESP_REQUIRE(CountRows(layer) == count);
  layer.ResetReading();
  GIntBig given = 0;
  while (given < kMost) {
    const OGRFeatureUniquePtr feature(layer.GetNextFeature());
    if (feature == nullptr) break;
    if (given++ % 16 != 0) continue;
    const OGRFeatureUniquePtr again(layer.GetFeature(feature->GetFID()));
    KESP_REQUIRE(again != nullptr && AreSame(*again, *feature));
  }
  KESP_REQUIRE(given == std::min<GIntBig>(count, kMost));
  layer.SetSpatialFilterRect(-10, -10, 50, 50);
  if (layer.GetLayerDefn()->GetFieldIndex("feature_name") >= 0) {
    KESP_REQUIRE(layer.SetAttributeFilter("feature_name = 'Oak' OR edited = 1") == OGRERR_NONE);
  }
  layer.ResetReading();
  for (GIntBig filtered = 0; OGRFeatureUniquePtr(layer.GetNextFeature()) != nullptr; ++filtered) {
    KESP_REQUIRE(filtered < count);
  }
}

void ReadWith(const char* option) {
  constexpr int kMostLayers = 10;
  const char* const options[] = {option, nullptr};
  const std::unique_ptr<GDALDataset> dataset(GDALDataset::Open(kPath, GDAL_OF_VECTOR, nullptr, options, nullptr));
  if (dataset == nullptr) return;
  for (int i = 0; i < std::min(dataset->GetLayerCount(), kMostLayers); ++i) ReadLayer(*dataset->GetLayer(i));
  for (const std::string& name : dataset->GetRelationshipNames()) {
    KESP_REQUIRE(dataset->GetRelationship(name) != nullptr);
  }
}

}  // namespace

void Ogr(Input input) {
  static const bool isRegistered = [] {
    CPLSetErrorHandler(CPLQuietErrorHandler);
    RegisterOGRKesp();
    return true;
  }();
  (void)isRegistered;
  MemorySystem system;
  Bytes bytes(input.begin(), input.end());
  system.Put(kPath, bytes);
  VSIFCloseL(VSIFileFromMemBuffer(kPath, bytes.data(), bytes.size(), FALSE));
  for (const char* const entries : {"1000000", "2"}) {
    CPLSetConfigOption("KESP_DIRECTORY_ENTRIES", entries);
    for (const char* const option : {"DELETED=NO", "DELETED=YES", "LAYERS=NAMES", "SALVAGE=YES"}) ReadWith(option);
  }
  VSIUnlink(kPath);
}

}  // namespace kesp::fuzz
