// The driver for GDAL, open for changes: creates, changes and deletes what the last bytes of the file say, with
// transactions, closes it and reads it again. What was not touched must be as it was, and the file after a refusal.
// Built only with GDAL.
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "fuzz/Targets.h"
#include "ogr/Dataset.h"

namespace kesp::fuzz {
namespace {

using ogr::SurveyFile;

constexpr const char* kEditedPath = "a.kesp";  // in memory; only a path of GDAL's file layer is read through that
constexpr int kMostFeatures = 100;             // of a layer
constexpr GIntBig kFirstPosition = GIntBig{1} << 32;  // of features whose number a later one has

ogr::Options OptionsFor(Input input) {
  ogr::Options options;
  options.includeDeleted = !input.empty() && input.size() % 2 == 0;
  if (input.size() % 8 >= 6) options.layers = ogr::LayerSplit::kByName;
  return options;
}

std::unique_ptr<ogr::Dataset> Open(const ogr::Options& options, SurveyFile::Access access) {
  return ogr::Dataset::Open(kEditedPath, options, nullptr, access);
}

bool IsVertices(OGRLayer& layer) { return EQUAL(layer.GetName(), "vertices"); }

// The number of the feature to which a row belongs; its FID in layers of features and of tables.
GIntBig OwnerOf(OGRLayer& layer, OGRFeature& row) {
  return IsVertices(layer) ? row.GetFieldAsInteger64("feature_number") : row.GetFID();
}

// What must stay. Marks as edited change with tags; an attribute's type, and whether points are multipoints, with what
// other features get.
std::string Show(OGRFeature& row) {
  std::string text;
  for (const char* const name : {"feature_name", "feature_color", "feature_symbol", "deleted",  "feature_number",
                                 "point_number", "text",          "time",           "z",        "status",
                                 "gps_value",    "gps_number",    "has_offset",     "offset_1", "offset_2",
                                 "kind",         "name",          "value",          "data",     "from_feature",
                                 "to_feature"}) {
    const int field = row.GetFieldIndex(name);
    if (field >= 0 && row.IsFieldSetAndNotNull(field)) text += std::string(row.GetFieldAsString(field)) + '\n';
  }
  if (row.GetGeometryRef() == nullptr) return text;
  const std::unique_ptr<OGRGeometry> geometry(wkbFlatten(row.GetGeometryRef()->getGeometryType()) == wkbPoint
                                                  ? OGRGeometryFactory::forceToMultiPoint(row.StealGeometry())
                                                  : row.StealGeometry());
  std::string wkb(static_cast<std::size_t>(geometry->WkbSize()), '\0');
  geometry->exportToWkb(wkbNDR, reinterpret_cast<unsigned char*>(wkb.data()), wkbVariantIso);
  return text + wkb;
}

class Editing {
 public:
  Editing(Input input, ogr::Dataset& dataset, const MemorySystem& system)
      : m_input(input), m_dataset(dataset), m_system(system) {
    for (OGRLayer* const layer : dataset.GetLayers()) {
      for (int i = 0; i < kMostFeatures; ++i) {
        const OGRFeatureUniquePtr row(layer->GetNextFeature());
        if (row == nullptr) break;
        const GIntBig owner = OwnerOf(*layer, *row);
        m_before[layer->GetName()][row->GetFID()] = {owner, Show(*row)};
      }
    }
  }

  void Run() {
    constexpr int kMostSteps = 40;
    for (int i = 0; i < kMostSteps && !m_input.empty(); ++i) Step();
  }

  void ExpectTheRest(ogr::Dataset& again) const {
    for (const auto& [name, rows] : m_before) {
      OGRLayer* const layer = again.GetLayerByName(name.c_str());
      for (const auto& [fid, before] : rows) {
        if (m_touched.contains({GroupOf(name), before.owner}) || fid >= kFirstPosition) continue;
        KESP_REQUIRE(layer != nullptr);
        const OGRFeatureUniquePtr row(layer->GetFeature(fid));
        KESP_REQUIRE(row != nullptr && Show(*row) == before.shown);
      }
    }
  }

 private:
  struct Row {
    GIntBig owner;
    std::string shown;
  };

  // Features and vertices have numbers of features, the others FIDs of their own.
  static std::string GroupOf(const std::string& layer) {
    return layer == "notes" || layer == "tags" || layer == "links" ? layer : std::string();
  }
  // From the end, where what a mutation adds changes no record.
  unsigned Next() {
    if (m_input.empty()) return 0;
    const unsigned byte = m_input.back();
    m_input = m_input.first(m_input.size() - 1);
    return byte;
  }

  void Step() {
    OGRLayer& layer = *m_dataset.GetLayer(static_cast<int>(Next()) % m_dataset.GetLayerCount());
    switch (Next() % 10) {
      case 0:
        if (m_dataset.StartTransaction(FALSE) == OGRERR_NONE) m_touchedBefore = m_touched;
        return;
      case 1:
        (void)m_dataset.CommitTransaction();
        return;
      case 2:
        if (m_dataset.RollbackTransaction() == OGRERR_NONE) m_touched = m_touchedBefore;
        return;
      case 3:
        return AddField(layer);
      case 4:
        return Create(layer);
      case 5:
        return Delete(layer);
      case 6:
        return Change(layer, [](OGRLayer& changed, OGRFeature& row) { return changed.UpsertFeature(&row); });
      default:
        return Change(layer, [](OGRLayer& changed, OGRFeature& row) { return changed.SetFeature(&row); });
    }
  }

  GIntBig Choose(OGRLayer& layer) {
    const auto& rows = m_before[layer.GetName()];
    if (rows.empty()) return Next();
    auto chosen = rows.begin();
    std::advance(chosen, Next() % rows.size());
    return chosen->first;
  }

  void Touch(OGRLayer& layer, OGRFeature& row) { m_touched.insert({GroupOf(layer.GetName()), OwnerOf(layer, row)}); }

  template <class Operation>
  bool IsDone(OGRLayer& layer, Operation operation) const {
    (void)layer.SyncToDisk();
    const Bytes before = m_system.At(kEditedPath);
    if (operation() == OGRERR_NONE) return true;
    (void)layer.SyncToDisk();
    KESP_REQUIRE(m_system.At(kEditedPath) == before);
    return false;
  }

  void Create(OGRLayer& layer) {
    const OGRFeatureUniquePtr row(OGRFeature::CreateFeature(layer.GetLayerDefn()));
    const unsigned fid = Next();
    if (fid % 2 == 0) row->SetFID(fid / 2);
    for (unsigned changes = Next() % 8; changes > 0; --changes) PutField(*row);
    PutGeometry(*row);
    const GIntBig count = layer.GetFeatureCount();
    if (!IsDone(layer, [&] { return layer.CreateFeature(row.get()); })) return;
    Touch(layer, *row);
    const bool isHidden = row->GetFieldIndex("deleted") >= 0 && row->GetFieldAsInteger("deleted") != 0;
    const bool mayBeLink = EQUAL(layer.GetName(), "tags");
    if (!isHidden && !mayBeLink) KESP_REQUIRE(layer.GetFeatureCount() == count + 1);
  }

  void Delete(OGRLayer& layer) {
    const GIntBig fid = Choose(layer);
    const OGRFeatureUniquePtr row(layer.GetFeature(fid));
    if (row == nullptr || fid >= kFirstPosition) return;
    if (IsDone(layer, [&] { return layer.DeleteFeature(fid); })) Touch(layer, *row);
  }

  void AddField(OGRLayer& layer) {
    constexpr OGRFieldType kTypes[] = {OFTString, OFTReal, OFTInteger, OFTDateTime};
    const std::string name(1, static_cast<char>('A' + Next() % 4));
    OGRFieldDefn field(name.c_str(), kTypes[Next() % std::size(kTypes)]);
    (void)layer.CreateField(&field);
  }

  template <class Operation>
  void Change(OGRLayer& layer, Operation operation) {
    const OGRFeatureUniquePtr row(layer.GetFeature(Choose(layer)));
    if (row == nullptr || row->GetFID() >= kFirstPosition) return;
    const OGRFeatureUniquePtr before(row->Clone());
    for (unsigned changes = Next() % 4; changes > 0; --changes) PutField(*row);
    if (Next() % 2 == 0) PutGeometry(*row);
    if (IsDone(layer, [&] { return operation(layer, *row); })) Touch(layer, *before);
  }

  void PutField(OGRFeature& row) {
    const int field = static_cast<int>(Next()) % row.GetFieldCount();
    const unsigned value = Next();
    switch (Next() % 4) {
      case 0:
        return row.SetFieldNull(field);
      case 1:
        return row.SetField(field, std::string(value * 2, 'x').c_str());
      case 2:
        return row.SetField(field, "2024/06/10 12:00:00+00");
      default:
        return row.SetField(field, static_cast<int>(value));
    }
  }

  void PutGeometry(OGRFeature& row) {
    const double x = Next();
    const unsigned kind = Next() % 4;
    std::unique_ptr<OGRGeometry> geometry;
    if (kind == 1) geometry = std::make_unique<OGRPoint>(x, 1, 2, Next());
    if (kind > 1) {
      auto ring = std::make_unique<OGRLinearRing>();
      for (unsigned vertices = Next() % 5; vertices > 0; --vertices) ring->addPoint(x, Next(), vertices, 0);
      auto area = std::make_unique<OGRPolygon>();
      if (kind == 2) geometry = std::make_unique<OGRLineString>(*ring);
      area->addRingDirectly(ring.release());
      if (kind == 3) geometry = std::move(area);
    }
    row.SetGeometryDirectly(geometry.release());
  }

  Input m_input;
  ogr::Dataset& m_dataset;
  const MemorySystem& m_system;
  std::map<std::string, std::map<GIntBig, Row>> m_before;
  std::set<std::pair<std::string, GIntBig>> m_touched, m_touchedBefore;
};

}  // namespace

void OgrEdit(Input input) {
  CPLSetErrorHandler(CPLQuietErrorHandler);
  MemorySystem system;
  system.Put(kEditedPath, Bytes(input.begin(), input.end()));
  const ogr::Options options = OptionsFor(input);
  std::unique_ptr<ogr::Dataset> dataset = Open(options, SurveyFile::Access::kWrite);
  if (dataset == nullptr) return;
  Editing editing(input, *dataset, system);
  editing.Run();
  dataset.reset();
  dataset = Open(options, SurveyFile::Access::kRead);
  KESP_REQUIRE(dataset != nullptr && dataset->GetMetadataItem("DAMAGE") == nullptr);
  editing.ExpectTheRest(*dataset);
}

}  // namespace kesp::fuzz
