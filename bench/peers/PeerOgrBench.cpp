// This format and the shapefile in the comparison with other formats, through OGR as the others are:
// PeerOgrBench NAME write|read|scan|bbox|name|raw PATH N P A
//
// NAME begins with `kesp` or `shp`. Point features and lines are two layers, and two shapefiles in the folder PATH.
// GDAL_DRIVER_PATH names the folder of the plugin. If NAME ends with `arrow`, `read` and `scan` take columns from a
// stream. `bbox` asks for the features in about 1 % of the area, `name` for one by its name, both from opening to the
// last feature. `raw` reads the file in blocks of 1 MB, without looking at it.
#include <gdal_priv.h>
#include <ogr_recordbatch.h>
#include <ogrsf_frmts.h>

#include <common.hpp>
#include <memory>

namespace {

struct CloseDataset {
  void operator()(GDALDataset* dataset) const { GDALClose(dataset); }
};
using DatasetPtr = std::unique_ptr<GDALDataset, CloseDataset>;
constexpr const char* kLayers[] = {"points", "lines"};

bool IsKesp(const Args& args) { return args.peer.rfind("kesp", 0) == 0; }
const char* NameField(const Args& args) { return IsKesp(args) ? "feature_name" : "name"; }

OGRFieldType TypeOf(int column, bool hasDates) {
  const Kind kind = kind_of(column);
  if (kind == Kind::date) return hasDates ? OFTDate : OFTDateTime;
  return kind == Kind::number ? OFTReal : OFTString;
}

void SetGeometry(OGRFeature& row, const Feature& from) {
  if (from.type == 1) {
    auto points = std::make_unique<OGRMultiPoint>();
    for (const Point& p : from.pts) points->addGeometryDirectly(new OGRPoint(p.x, p.y, p.z, static_cast<double>(p.t)));
    row.SetGeometryDirectly(points.release());
    return;
  }
  auto line = std::make_unique<OGRLineString>();
  line->setNumPoints(static_cast<int>(from.pts.size()));
  int i = 0;
  for (const Point& p : from.pts) line->setPoint(i++, p.x, p.y, p.z, static_cast<double>(p.t));
  row.SetGeometryDirectly(line.release());
}

void SetFields(OGRFeature& row, const Feature& from, int nameField, int firstField) {
  row.SetField(nameField, from.name.c_str());
  int field = firstField;
  for (const Attr& value : from.attrs) {
    if (value.kind == Kind::number) {
      row.SetField(field, value.num);
    } else if (value.kind == Kind::date) {
      int year = 0, month = 0, day = 0;
      civil_from_days(static_cast<int>(value.num), year, month, day);
      row.SetField(field, year, month, day);
    } else {
      row.SetField(field, value.text.c_str());
    }
    ++field;
  }
}

void Write(const Args& args) {
  const std::vector<Feature> features = generate(args.c);
  reset_peak();
  const long residentBefore = proc_kb("VmRSS:");
  const double begun = now();
  GDALDriver* const driver = GetGDALDriverManager()->GetDriverByName(IsKesp(args) ? "Kesp" : "ESRI Shapefile");
  DatasetPtr dataset(driver->Create(args.path.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
  if (dataset == nullptr) die("create " + args.path);
  OGRLayer* layers[2];
  int firstField = 0, nameField = 0;
  for (int i = 0; i < 2; ++i) {
    const OGRwkbGeometryType type = i == 0 ? wkbMultiPointZM : wkbLineStringZM;
    OGRLayer& layer = *(layers[i] = dataset->CreateLayer(kLayers[i], nullptr, type));
    OGRFieldDefn name(NameField(args), OFTString);
    if (layer.CreateField(&name) != OGRERR_NONE) die("field");
    nameField = layer.GetLayerDefn()->GetFieldIndex(NameField(args));
    firstField = layer.GetLayerDefn()->GetFieldCount();
    for (int column = 0; column < args.c.a; ++column) {
      OGRFieldDefn field(col_name(column).c_str(), TypeOf(column, !IsKesp(args)));
      if (layer.CreateField(&field) != OGRERR_NONE) die("field");
    }
  }
  if (IsKesp(args)) dataset->StartTransaction();
  long done = 0;
  for (const Feature& feature : features) {
    maybe_die(done++);
    OGRLayer& layer = *layers[feature.type - 1];
    OGRFeature row(layer.GetLayerDefn());
    SetGeometry(row, feature);
    SetFields(row, feature, nameField, firstField);
    if (layer.CreateFeature(&row) != OGRERR_NONE) die("feature");
  }
  if (IsKesp(args)) dataset->CommitTransaction();
  dataset.reset();
  report(now() - begun, residentBefore, size_of(args.path), sync_path(args.path));
}

DatasetPtr Open(const Args& args) {
  const char* const drivers[] = {IsKesp(args) ? "Kesp" : "ESRI Shapefile", nullptr};
  DatasetPtr dataset(GDALDataset::Open(args.path.c_str(), GDAL_OF_VECTOR, drivers, nullptr, nullptr));
  if (dataset == nullptr) die("open " + args.path);
  return dataset;
}

void TakeGeometry(const OGRGeometry* geometry, Feature& to) {
  to.pts.clear();
  if (geometry == nullptr) return;
  if (wkbFlatten(geometry->getGeometryType()) == wkbMultiPoint) {
    const OGRMultiPoint& points = *geometry->toMultiPoint();
    to.pts.reserve(static_cast<std::size_t>(points.getNumGeometries()));
    for (const OGRPoint* const p : points) {
      to.pts.push_back({p->getX(), p->getY(), p->getZ(), static_cast<std::int64_t>(p->getM())});
    }
    return;
  }
  const OGRLineString& line = *geometry->toLineString();
  const int count = line.getNumPoints();
  to.pts.resize(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    to.pts[static_cast<std::size_t>(i)] = {line.getX(i), line.getY(i), line.getZ(i),
                                           static_cast<std::int64_t>(line.getM(i))};
  }
}

void TakeField(const OGRFeature& row, int field, Attr& to) {
  if (to.kind == Kind::number) {
    to.num = row.GetFieldAsDouble(field);
  } else if (to.kind == Kind::date) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, zone = 0;
    if (row.GetFieldAsDateTime(field, &year, &month, &day, &hour, &minute, &second, &zone) == 0) die("date");
    to.num = days_from_civil(year, month, day);
  } else {
    to.text = row.GetFieldAsString(field);
  }
}

// The columns of one layer, by their places in a row or in a batch.
struct Columns {
  int name = -1, geometry = -1;
  std::vector<int> values;
};

void ReadFeatures(OGRLayer& layer, int kind, const Args& args, Sink& sink) {
  OGRFeatureDefn& definition = *layer.GetLayerDefn();
  Columns columns{definition.GetFieldIndex(NameField(args)), 0, {}};
  for (int i = 0; i < args.c.a; ++i) columns.values.push_back(definition.GetFieldIndex(col_name(i).c_str()));
  Feature feature;
  while (OGRFeature* const row = layer.GetNextFeature()) {
    feature.type = kind;
    TakeGeometry(row->GetGeometryRef(), feature);
    feature.name = row->GetFieldAsString(columns.name);
    feature.attrs.resize(columns.values.size());
    for (std::size_t i = 0; i < columns.values.size(); ++i) {
      feature.attrs[i].kind = kind_of(static_cast<int>(i));
      TakeField(*row, columns.values[i], feature.attrs[i]);
    }
    OGRFeature::DestroyFeature(row);
    sink.take(feature);
  }
}

template <class T>
T At(const void* values, std::int64_t at) {
  T value;
  std::memcpy(&value, static_cast<const char*>(values) + static_cast<std::size_t>(at) * sizeof value, sizeof value);
  return value;
}

std::string_view BytesAt(const ArrowArray& column, std::int64_t row) {
  const auto begin = At<std::int32_t>(column.buffers[1], row);
  return {static_cast<const char*>(column.buffers[2]) + begin,
          static_cast<std::size_t>(At<std::int32_t>(column.buffers[1], row + 1) - begin)};
}

void TakeWkb(std::string_view wkb, Feature& to) {
  constexpr std::size_t kHead = 5, kCount = 4;
  to.pts.resize(At<std::uint32_t>(wkb.data() + kHead, 0));
  const char* from = wkb.data() + kHead + kCount;
  for (Point& point : to.pts) {
    if (to.type == 1) from += kHead;
    point = {At<double>(from, 0), At<double>(from, 1), At<double>(from, 2),
             static_cast<std::int64_t>(At<double>(from, 3))};
    from += 4 * sizeof(double);
  }
}

void TakeBatch(const ArrowArray& batch, const Columns& columns, int kind, Sink& sink) {
  constexpr std::int64_t kMillisecondsPerDay = 86'400'000, kEpoch = 25569;  // days from 1899-12-30 to 1970
  Feature feature;
  for (std::int64_t row = 0; row < batch.length; ++row) {
    feature.type = kind;
    TakeWkb(BytesAt(*batch.children[columns.geometry], row), feature);
    feature.name = BytesAt(*batch.children[columns.name], row);
    feature.attrs.resize(columns.values.size());
    for (std::size_t i = 0; i < columns.values.size(); ++i) {
      const ArrowArray& column = *batch.children[columns.values[i]];
      Attr& value = feature.attrs[i];
      value.kind = kind_of(static_cast<int>(i));
      if (value.kind == Kind::number) {
        value.num = At<double>(column.buffers[1], row);
      } else if (value.kind == Kind::date) {
        value.num = static_cast<double>(At<std::int64_t>(column.buffers[1], row) / kMillisecondsPerDay + kEpoch);
      } else {
        value.text = BytesAt(column, row);
      }
    }
    sink.take(feature);
  }
}

void ReadStream(OGRLayer& layer, int kind, const Args& args, Sink& sink) {
  const char* const options[] = {"INCLUDE_FID=NO", nullptr};
  ArrowArrayStream stream;
  ArrowSchema schema;
  if (!layer.GetArrowStream(&stream, options) || stream.get_schema(&stream, &schema) != 0) die("stream");
  Columns columns{-1, -1, std::vector<int>(static_cast<std::size_t>(args.c.a), -1)};
  for (int i = 0; i < static_cast<int>(schema.n_children); ++i) {
    const std::string name = schema.children[i]->name;
    if (name == NameField(args)) columns.name = i;
    if (schema.children[i]->format == std::string("z")) columns.geometry = i;
    for (int j = 0; j < args.c.a; ++j) {
      if (name == col_name(j)) columns.values[static_cast<std::size_t>(j)] = i;
    }
  }
  for (ArrowArray batch; stream.get_next(&stream, &batch) == 0 && batch.release != nullptr; batch.release(&batch)) {
    TakeBatch(batch, columns, kind, sink);
  }
  schema.release(&schema);
  stream.release(&stream);
}

void Read(const Args& args) {
  Sink sink{args.op == "read", {}, {}};
  const bool isStream = args.peer.find("arrow") != std::string::npos;
  const long residentBefore = proc_kb("VmRSS:");
  const double start = now();
  DatasetPtr dataset = Open(args);
  for (int i = 0; i < 2; ++i) {
    OGRLayer* const layer = dataset->GetLayerByName(kLayers[i]);
    if (layer != nullptr) (isStream ? ReadStream : ReadFeatures)(*layer, i + 1, args, sink);
  }
  dataset.reset();
  report(now() - start, residentBefore, 0);
  sink.check(args.c, 1e-9);
}

// What the other formats are asked, too.
void Ask(const Args& args) {
  Feature probe;
  gen_feature(args.c.n / 2, args.c, probe);
  const long residentBefore = proc_kb("VmRSS:");
  const double start = now();
  DatasetPtr dataset = Open(args);
  long found = 0;
  for (const char* const name : kLayers) {
    OGRLayer* const layer = dataset->GetLayerByName(name);
    if (layer == nullptr) continue;
    if (args.op == "bbox") {
      layer->SetSpatialFilterRect(7, 50, 7.5, 50.7);
    } else {
      layer->SetAttributeFilter((NameField(args) + (" = '" + probe.name + "'")).c_str());
    }
    for (OGRFeatureUniquePtr row; (row.reset(layer->GetNextFeature()), row != nullptr);) ++found;
  }
  dataset.reset();
  report(now() - start, residentBefore, found);
  if (found == 0 && args.op == "name") die("nothing found");
}

void ReadRaw(const Args& args) {
  constexpr std::size_t kBlock = std::size_t{1} << 20;
  const std::vector<char> block(kBlock);
  const double start = now();
  const int file = ::open(args.path.c_str(), O_RDONLY);
  while (::read(file, const_cast<char*>(block.data()), kBlock) > 0) {
  }
  ::close(file);
  report(now() - start, 0, 0);
}

}  // namespace

int main(int argc, char** argv) {
  const Args args = parse(argc, argv);
  if (args.op == "raw") return ReadRaw(args), 0;
  GDALAllRegister();
  if (args.op == "write") return Write(args), 0;
  if (args.op == "read" || args.op == "scan") return Read(args), 0;
  if (args.op == "bbox" || args.op == "name") return Ask(args), 0;
  die("no operation " + args.op);
}
