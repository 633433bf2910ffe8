// This library in the comparison with other formats: PeerBench NAME write|read|scan PATH N P A
//
// The header of the comparison makes the features, checks what was read, and prints the expected line. A feature is
// written as its feature record, its attributes, its points and its end. `write` does not sync, as the programs for the
// other formats don't; AppendBench measures the cost of having each record on the disk before the next. `read` and
// `scan` walk over the records and pass on the values of each feature. The header keeps or drops them, as for the other
// formats. The end of NAME chooses another way of reading:
//   views    the records are seen in the read buffer, without objects
//   columns  `read` keeps the values in columns: x, y, z and time of points; names, types and places of features;
//   names,
//            kinds, texts and numbers of attributes. `scan` takes the same in batches. The values are checked
//            afterwards
//   points   columns of the points only, compared with another format's lines
//   dataset  `read` reads the whole file into a CKespFile
#include <common.hpp>
#include <memory>

#include "kesp/kesp.h"
#include "kesp/recordfile/RecordHeader.h"

namespace {

constexpr double kTolerance = 1e-12;  // relative, for sums that are added up in another order

KESP_ATTRIBUTE_KIND ToKesp(Kind kind) {
  switch (kind) {
    case Kind::number:
      return KESP_ATTRIBUTE_NUMERIC;
    case Kind::menu:
      return KESP_ATTRIBUTE_MENU;
    case Kind::date:
      return KESP_ATTRIBUTE_DATE;
    default:
      return KESP_ATTRIBUTE_STRING;
  }
}

Kind FromKesp(std::int32_t kind) {
  switch (kind) {
    case KESP_ATTRIBUTE_NUMERIC:
      return Kind::number;
    case KESP_ATTRIBUTE_MENU:
      return Kind::menu;
    case KESP_ATTRIBUTE_DATE:
      return Kind::date;
    default:
      return Kind::text;
  }
}

void AppendRecord(CFile& file, CKespRecord& record) {
  const auto header = kesp::EncodeRecordHeader(
      {record.m_recordType, record.m_recordVersion, record.m_flags, static_cast<std::uint32_t>(record.GetLength(0))});
  file.Write(header.data(), header.size());
  if (!record.Write(file, 0, 0)) die("write");
}

void AppendFeature(CFile& file, const Feature& from, std::uint32_t number) {
  const auto append = [&](CKespRecord& record) { AppendRecord(file, record); };
  CKespFeature feature;
  feature.FeatureNumber = number;
  feature.FeatureName = from.name;
  feature.FeatureType = from.type == 1 ? KESP_FEATURE_POINT : KESP_FEATURE_LINE;
  append(feature);
  int column = 0;
  for (const Attr& value : from.attrs) {
    CKespAttribute attribute;
    attribute.FeatureNumber = number;
    attribute.AttributeName = col_name(column++);
    attribute.AttributeKind = ToKesp(value.kind);
    attribute.TextValue = value.text;
    attribute.Value = value.num;
    append(attribute);
  }
  CKespPoint point;
  point.FeatureNumber = number;
  point.SignalStatus = KESP_SIGNAL_STATUS_9;
  for (const Point& vertex : from.pts) {
    point.PointTime = static_cast<std::int32_t>(vertex.t);
    point.CoordY = vertex.y;
    point.CoordX = vertex.x;
    point.CoordZ = vertex.z;
    append(point);
    ++point.PointNumber;
  }
  CKespFeatureEnd end;
  end.FeatureNumber = number;
  append(end);
}

void Write(const Args& args) {
  const std::vector<Feature> features = generate(args.c);
  reset_peak();
  const long residentBefore = proc_kb("VmRSS:");
  const double begun = now();
  CKespDataFile created;
  created.m_version = 3;
  if (!created.Create(CString(args.path)) || !created.Close()) die("create " + args.path);
  CFile file(CString(args.path), CFile::modeReadWrite);
  file.SeekToEnd();
  CKespTavoHeader header;
  AppendRecord(file, header);
  constexpr std::uint64_t kAtOnce = 1 << 20;  // bytes for each system call; more if one feature is longer
  for (std::uint32_t number = 0; number < features.size();) {
    CFile::Gather gather(file);
    for (const std::uint64_t start = file.GetPosition();
         number < features.size() && file.GetPosition() < start + kAtOnce;) {
      maybe_die(static_cast<long>(number));
      const Feature& feature = features[number];
      AppendFeature(file, feature, ++number);
    }
    gather.Commit();
  }
  file.Close();
  const double seconds = now() - begun;
  report(seconds, residentBefore, size_of(args.path), sync_path(args.path));
}

// Collects the values of one feature after another. The number of points is known only at the feature's end, so they
// are collected in vectors that are used again, and each feature's own vectors are made once, in their final length.
class Handover {
 public:
  explicit Handover(Sink& sink) : m_sink(sink) {}

  void Start(const CKespFeature& from) {
    m_feature.type = static_cast<int>(from.FeatureType);
    m_feature.name = from.FeatureName.ToUtf8();
  }
  void Add(const CKespAttribute& from) {
    m_attributes.push_back({FromKesp(from.AttributeKind), from.TextValue.ToUtf8(), from.Value});
  }
  void Add(const CKespPoint& from) { m_points.push_back({from.CoordX, from.CoordY, from.CoordZ, from.PointTime}); }
  void End() {
    m_feature.attrs.assign(std::make_move_iterator(m_attributes.begin()), std::make_move_iterator(m_attributes.end()));
    m_feature.pts.assign(m_points.begin(), m_points.end());
    m_attributes.clear();
    m_points.clear();
    m_sink.take(m_feature);
  }

 private:
  Sink& m_sink;
  Feature m_feature;
  std::vector<Attr> m_attributes;
  std::vector<Point> m_points;
};

// The same from views.
class ViewHandover {
 public:
  explicit ViewHandover(Sink& sink) : m_sink(sink) {}

  void Start(const kesp::FeatureView& from) {
    m_feature.type = static_cast<int>(from.FeatureType());
    from.FeatureName().CopyTo(m_feature.name);
  }
  void Add(const kesp::AttributeView& from) {
    from.AttributeName().CopyTo(m_name);  // decoded too, as the other readers do
    if (m_attributes.size() == m_count) m_attributes.emplace_back();
    Attr& to = m_attributes[m_count++];
    to.kind = FromKesp(from.AttributeKind());
    from.TextValue().CopyTo(to.text);
    to.num = from.Value();
  }
  void Add(const kesp::PointView& from) {
    m_points.push_back({from.CoordX(), from.CoordY(), from.CoordZ(), from.PointTime()});
  }
  void End() {
    m_attributes.resize(m_count);
    m_feature.attrs.swap(m_attributes);
    m_feature.pts.swap(m_points);
    m_sink.take(m_feature);
    if (m_sink.keep) {
      // Usually the next feature has as many.
      m_attributes = {};
      m_points = {};
      m_attributes.reserve(m_count);
      m_points.reserve(m_sink.all.back().pts.size());
    } else {
      m_feature.attrs.swap(m_attributes);
      m_feature.pts.swap(m_points);
      m_points.clear();
    }
    m_count = 0;
  }

 private:
  Sink& m_sink;
  Feature m_feature;
  std::string m_name;
  std::vector<Attr> m_attributes;  // used again with their texts
  std::size_t m_count = 0;
  std::vector<Point> m_points;
};

void ReadDataSet(const Args& args) {
  const long residentBefore = proc_kb("VmRSS:");
  const double start = now();
  CKespFile survey;
  CString message;
  if (survey.OpenKespReadOnly(CString(args.path), message) != ERR_NONE) die("open " + args.path);
  if (survey.ReadKespFile(false) != ERR_NONE) die("read " + args.path);
  report(now() - start, residentBefore, 0);

  Sink sink{false, {}, {}};
  Handover handover(sink);
  for (const auto& entry : survey.m_featureIndex) {
    handover.Start(*entry.value);
    for (const auto& attribute : entry.value->m_attributeList) handover.Add(*attribute);
    for (const auto& point : entry.value->m_pointList) handover.Add(*point);
    handover.End();
  }
  sink.check(args.c, kTolerance);
}

void Walk(const Args& args, bool keep) {
  Sink sink{keep, {}, {}};
  const long residentBefore = proc_kb("VmRSS:");
  const double start = now();
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(args.path)) || !file.SeekToFirstRecord()) die("open " + args.path);
  file.ReadAhead();
  Handover handover(sink);
  while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(true)}) {
    switch (record->m_recordType) {
      case KESP_RECORD_HEADER:
        break;
      case KESP_RECORD_FEATURE:
        handover.Start(static_cast<const CKespFeature&>(*record));
        break;
      case KESP_RECORD_ATTRIBUTE:
        handover.Add(static_cast<const CKespAttribute&>(*record));
        break;
      case KESP_RECORD_POINT:
        handover.Add(static_cast<const CKespPoint&>(*record));
        break;
      case KESP_RECORD_FEATURE_END:
        handover.End();
        break;
      default:
        die("a record that was not written");
    }
  }
  if (file.GetError() != KESP_ERROR_NORMAL_EOF) die(file.GetErrorString().ToUtf8());
  (void)file.Close();
  report(now() - start, residentBefore, 0);
  sink.check(args.c, kTolerance);
}

void WalkOverViews(const Args& args, bool keep) {
  Sink sink{keep, {}, {}};
  const long residentBefore = proc_kb("VmRSS:");
  const double start = now();
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(args.path)) || !file.SeekToFirstRecord()) die("open " + args.path);
  file.ReadAhead();
  ViewHandover handover(sink);
  for (kesp::RecordView record; file.ReadNextView(record, true);) {
    switch (record.Type()) {
      case KESP_RECORD_HEADER:
        break;
      case KESP_RECORD_FEATURE:
        handover.Start(record.AsFeature());
        break;
      case KESP_RECORD_ATTRIBUTE:
        handover.Add(record.AsAttribute());
        break;
      case KESP_RECORD_POINT:
        handover.Add(record.AsPoint());
        break;
      case KESP_RECORD_FEATURE_END:
        handover.End();
        break;
      default:
        die("a record that was not written");
    }
  }
  if (file.GetError() != KESP_ERROR_NORMAL_EOF) die(file.GetErrorString().ToUtf8());
  (void)file.Close();
  report(now() - start, residentBefore, 0);
  sink.check(args.c, kTolerance);
}

void AddColumns(Digest& digest, const kesp::Columns& columns) {
  const auto& [points, features, attributes] = columns;
  digest.points += static_cast<long>(points.rows);
  for (std::size_t i = 0; i < points.rows; ++i) {
    digest.sx += points.x[i];
    digest.sy += points.y[i];
    digest.sz += points.z[i];
    digest.st += points.time[i];
  }
  digest.features += static_cast<long>(features.rows);
  for (std::size_t i = 0; i < features.rows; ++i) digest.text += Digest::fnv(features.name[i]) * 3 + features.type[i];
  digest.attrs += static_cast<long>(attributes.rows);
  for (std::size_t i = 0; i < attributes.rows; ++i) {
    if (attributes.names[static_cast<std::size_t>(attributes.name[i])].empty()) die("no name");
    digest.text += Digest::fnv(attributes.text[i]) * static_cast<unsigned>(FromKesp(attributes.kind[i]));
    digest.snum += attributes.number[i];
  }
}

void ReadIntoColumns(const Args& args, bool keep, bool onlyPoints) {
  kesp::ColumnChoice choice;
  choice.points = kesp::kPointX | kesp::kPointY | kesp::kPointZ | kesp::kPointTime;
  choice.features = kesp::kFeatureNumber | kesp::kFeatureName | kesp::kFeatureType | kesp::kFeaturePoints;
  choice.attributes = kesp::kAttributeFeatureNumber | kesp::kAttributeName | kesp::kAttributeKind |
                      kesp::kAttributeText | kesp::kAttributeNumber;
  if (onlyPoints) choice.features = choice.attributes = 0;
  Digest digest;
  const long residentBefore = proc_kb("VmRSS:");
  const double start = now();
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(args.path))) die("open " + args.path);
  kesp::Columns columns;
  const bool good =
      keep ? kesp::ReadColumns(file, choice, columns)
           : kesp::ReadColumns(file, choice, [&](kesp::Columns& batch) { return AddColumns(digest, batch), true; });
  if (!good) die(file.GetErrorString().ToUtf8());
  (void)file.Close();
  report(now() - start, residentBefore, 0);
  if (keep) AddColumns(digest, columns);
  Digest wanted = expected(args.c);
  if (onlyPoints) {
    wanted.features = wanted.attrs = 0;
    wanted.text = 0;
    wanted.snum = 0;
  }
  if (!digest.same(wanted, kTolerance)) die("the columns differ from the data written");
}

}  // namespace

int main(int argc, char** argv) {
  const Args args = parse(argc, argv);
  const bool reads = args.op == "read" || args.op == "scan";
  const bool keeps = args.op == "read";
  if (args.op == "write") {
    Write(args);
  } else if (keeps && args.peer.ends_with("dataset")) {
    ReadDataSet(args);
  } else if (reads && args.peer.ends_with("views")) {
    WalkOverViews(args, keeps);
  } else if (reads && (args.peer.ends_with("columns") || args.peer.ends_with("points"))) {
    ReadIntoColumns(args, keeps, args.peer.ends_with("points"));
  } else if (reads) {
    Walk(args, keeps);
  } else {
    die("unknown operation " + args.op);
  }
}
