// Features put together for data frames: what belongs to which feature, as a data set decides it. A point or an
// attribute belongs to the last feature of its number before it; without one it is left out.
#include <cstring>
#include <unordered_map>

#include "python/src/Errors.h"
#include "python/src/Reading.h"
#include "python/src/Text.h"
#include "python/src/Watch.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::python {
namespace {

// Texts of which many are equal: each once, and a code for each row.
class Words {
 public:
  void Add(const TextView& text) {
    text.CopyTo(m_text);
    const auto [at, isNew] = m_codes.try_emplace(m_text, static_cast<std::int32_t>(m_codes.size()));
    if (isNew) m_words.push_back(at->first);
    m_rows.push_back(at->second);
  }
  py::tuple ToPython() const;

 private:
  std::string m_text;
  std::unordered_map<std::string, std::int32_t> m_codes;
  std::vector<std::string> m_words;
  std::vector<std::int32_t> m_rows;
};

template <class T>
py::array ToArray(const std::vector<T>& values) {
  return py::array(py::dtype::of<T>(), std::vector<py::ssize_t>{static_cast<py::ssize_t>(values.size())},
                   values.data());
}

py::tuple Words::ToPython() const {
  py::list words;
  for (const std::string& word : m_words) words.append(ToStr(word));
  return py::make_tuple(ToArray(m_rows), words);
}

struct FeatureRows {
  std::vector<std::uint32_t> number, color, flags;
  std::vector<std::uint16_t> type, symbol;
  std::vector<std::uint64_t> offset;
  std::vector<std::uint8_t> ownsNumber;  // no later feature took it
  Words name;
};
struct PointRows {
  std::vector<std::int64_t> feature;  // row of the feature
  std::vector<std::uint32_t> pointNumber, flags;
  std::vector<std::uint64_t> offset;
  std::vector<std::int64_t> time;
  std::vector<double> x, y, z, gpsValue, offset1, offset2;
  std::vector<std::uint16_t> status, gpsNumber, hasOffset;
  Words text;
};
struct AttributeRows {
  std::vector<std::int64_t> feature;
  std::vector<std::uint8_t> kind;
  std::vector<double> number;
  std::vector<std::uint16_t> decimals;
  std::vector<std::uint32_t> flags;
  Words name, text, sub;
};

class Assembly {
 public:
  void Add(const RecordView& record) {
    if (record.Type() == KESP_RECORD_FEATURE) return AddFeature(record);
    if (record.Type() == KESP_RECORD_POINT) return AddPoint(record);
    if (record.Type() == KESP_RECORD_ATTRIBUTE) AddAttribute(record);
  }
  py::dict Features() const {
    py::dict out;
    out["number"] = ToArray(m_features.number);
    out["color"] = ToArray(m_features.color);
    out["flags"] = ToArray(m_features.flags);
    out["type"] = ToArray(m_features.type);
    out["symbol"] = ToArray(m_features.symbol);
    out["offset"] = ToArray(m_features.offset);
    out["owns_number"] = ToArray(m_features.ownsNumber);
    out["name"] = m_features.name.ToPython();
    return out;
  }
  py::dict Points() const {
    py::dict out;
    const PointRows& p = m_points;
    out["feature"] = ToArray(p.feature);
    out["point_number"] = ToArray(p.pointNumber);
    out["offset"] = ToArray(p.offset);
    out["x"] = ToArray(p.x);
    out["y"] = ToArray(p.y);
    out["z"] = ToArray(p.z);
    out["time"] = ToArray(p.time);
    out["status"] = ToArray(p.status);
    out["gps_value"] = ToArray(p.gpsValue);
    out["gps_number"] = ToArray(p.gpsNumber);
    out["has_offset"] = ToArray(p.hasOffset);
    out["offset_1"] = ToArray(p.offset1);
    out["offset_2"] = ToArray(p.offset2);
    out["flags"] = ToArray(p.flags);
    out["text"] = p.text.ToPython();
    return out;
  }
  py::dict Attributes() const {
    py::dict out;
    out["feature"] = ToArray(m_attributes.feature);
    out["kind"] = ToArray(m_attributes.kind);
    out["number"] = ToArray(m_attributes.number);
    out["decimals"] = ToArray(m_attributes.decimals);
    out["flags"] = ToArray(m_attributes.flags);
    out["name"] = m_attributes.name.ToPython();
    out["text"] = m_attributes.text.ToPython();
    out["sub"] = m_attributes.sub.ToPython();
    return out;
  }

 private:
  void AddFeature(const RecordView& record) {
    const FeatureView feature = record.AsFeature();
    const auto row = static_cast<std::int64_t>(m_features.number.size());
    const auto [at, isNew] = m_rowOf.try_emplace(feature.FeatureNumber(), row);
    if (!isNew) m_features.ownsNumber[static_cast<std::size_t>(std::exchange(at->second, row))] = 0;
    m_features.ownsNumber.push_back(1);
    m_features.number.push_back(feature.FeatureNumber());
    m_features.color.push_back(feature.Color());
    m_features.flags.push_back(record.Flags());
    m_features.type.push_back(static_cast<std::uint16_t>(feature.FeatureType()));
    m_features.symbol.push_back(feature.SymbolIndex());
    m_features.offset.push_back(record.Position());
    m_features.name.Add(feature.FeatureName());
  }
  void AddPoint(const RecordView& record) {
    const PointView point = record.AsPoint();
    const auto feature = m_rowOf.find(point.FeatureNumber());
    if (feature == m_rowOf.end()) return;
    PointRows& p = m_points;
    p.feature.push_back(feature->second);
    p.pointNumber.push_back(point.PointNumber());
    p.flags.push_back(record.Flags());
    p.offset.push_back(record.Position());
    p.time.push_back(point.PointTime());
    p.x.push_back(point.CoordX());
    p.y.push_back(point.CoordY());
    p.z.push_back(point.CoordZ());
    p.gpsValue.push_back(point.GpsValue());
    p.offset1.push_back(point.Offset1());
    p.offset2.push_back(point.Offset2());
    p.status.push_back(static_cast<std::uint16_t>(point.SignalStatus()));
    p.gpsNumber.push_back(static_cast<std::uint16_t>(point.GpsNumber()));
    p.hasOffset.push_back(point.HasOffset());
    p.text.Add(point.PointText());
  }
  void AddAttribute(const RecordView& record) {
    const AttributeView attribute = record.AsAttribute();
    const auto feature = m_rowOf.find(attribute.FeatureNumber());
    if (feature == m_rowOf.end()) return;
    m_attributes.feature.push_back(feature->second);
    m_attributes.kind.push_back(static_cast<std::uint8_t>(attribute.AttributeKind()));
    m_attributes.number.push_back(attribute.Value());
    m_attributes.decimals.push_back(attribute.Decimals());
    m_attributes.flags.push_back(record.Flags());
    m_attributes.name.Add(attribute.AttributeName());
    m_attributes.text.Add(attribute.TextValue());
    m_attributes.sub.Add(attribute.SubValue());
  }

  std::unordered_map<std::uint32_t, std::int64_t> m_rowOf;  // by the number, of the last feature that has it
  FeatureRows m_features;
  PointRows m_points;
  AttributeRows m_attributes;
};

py::tuple Assemble(const py::object& path, bool includeDeleted, const py::object& progress) {
  const CString name = ToPath(path);
  Watch watch(progress);
  CKespDataFile file;
  OpenWatched(file, name, watch);
  Assembly assembly;
  tool::Verdict end;
  {
    const py::gil_scoped_release released;
    tool::RecordWalk walk(file, includeDeleted ? tool::DeletedRecords::kInclude : tool::DeletedRecords::kPassOver);
    for (auto step = walk.Next(); step != tool::RecordWalk::Step::kEnd; step = walk.Next()) {
      if (step == tool::RecordWalk::Step::kRecord) assembly.Add(walk.View());
    }
    end = walk.End();
  }
  watch.Rethrow();
  if (end.cause == tool::Verdict::Cause::kUnreadable) Raise(end, name);
  return py::make_tuple(assembly.Features(), assembly.Points(), assembly.Attributes(), DamageOf(end));
}

}  // namespace

void BindAssembly(py::module_& module) { module.def("assemble", &Assemble); }

}  // namespace kesp::python
