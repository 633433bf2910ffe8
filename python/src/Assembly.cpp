// Features put together for data frames: what belongs to which feature, as a data set decides it. A point or an
// attribute belongs to the last feature of its number before it; without one it is left out.
//
// A part of a file (see Parts.cpp) gives the features that begin in it, with all that belongs to them.
#include <optional>
#include <unordered_map>
#include <unordered_set>

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
  void Add(const TextView& text) { m_rows.push_back(CodeOf(text)); }
  void AddCode(std::int32_t code) { m_rows.push_back(code); }
  std::int32_t CodeOf(const TextView& text) {
    text.CopyTo(m_text);
    const auto [at, isNew] = m_codes.try_emplace(m_text, static_cast<std::int32_t>(m_codes.size()));
    if (isNew) m_words.push_back(at->first);
    return at->second;
  }
  const std::string& Word(std::int32_t code) const { return m_words[static_cast<std::size_t>(code)]; }
  py::tuple ToPython() const;

 private:
  std::string m_text;
  std::unordered_map<std::string, std::int32_t> m_codes;
  std::vector<std::string> m_words;
  std::vector<std::int32_t> m_rows;
};

template <class T>
py::array ToArray(const std::vector<T>& values) {
  return {py::dtype::of<T>(), std::vector<py::ssize_t>{static_cast<py::ssize_t>(values.size())}, values.data()};
}

py::tuple Words::ToPython() const {
  py::list words;
  for (const std::string& word : m_words) words.append(ToStr(std::string_view{word}));
  return py::make_tuple(ToArray(m_rows), words);
}

// What is kept of a file. Names are as files have them; equal names differ in the case of A to Z at most.
struct AssemblyChoice {
  std::int32_t type = 0;                                 // of features; 0: all
  std::optional<std::unordered_set<std::string>> names;  // of attributes, folded; none: all
  bool withPoints = true;
};
std::string Fold(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

struct FeatureRows {
  std::vector<std::uint32_t> number, color, flags;
  std::vector<std::uint32_t> allFlags;  // with those of the points and attributes
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
  explicit Assembly(AssemblyChoice choice) : m_choice(std::move(choice)) {}
  void Add(const RecordView& record) {
    if (record.Type() == KESP_RECORD_FEATURE) return AddFeature(record);
    if (record.Type() == KESP_RECORD_POINT) return AddPoint(record);
    if (record.Type() == KESP_RECORD_ATTRIBUTE) AddAttribute(record);
  }
  // A record after the part. A feature there only takes the number of one in the part.
  void AddStraggler(const RecordView& record) {
    if (record.Type() == KESP_RECORD_FEATURE) return Own(record.AsFeature().FeatureNumber(), kLeftOut);
    Add(record);
  }
  py::dict Features() const {
    py::dict out;
    out["number"] = ToArray(m_features.number);
    out["color"] = ToArray(m_features.color);
    out["flags"] = ToArray(m_features.flags);
    out["all_flags"] = ToArray(m_features.allFlags);
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
  // Instead of a row, for a feature that is left out and still has its number.
  static constexpr std::int64_t kLeftOut = -1;

  void Own(std::uint32_t number, std::int64_t row) {
    const auto [at, isNew] = m_rowOf.try_emplace(number, row);
    if (isNew) return;
    const std::int64_t before = std::exchange(at->second, row);
    if (before != kLeftOut) m_features.ownsNumber[static_cast<std::size_t>(before)] = 0;
  }
  // The row of the feature that has the number now. Its flags get those of the record.
  std::int64_t RowOf(std::uint32_t number, const RecordView& record) {
    const auto feature = m_rowOf.find(number);
    if (feature == m_rowOf.end() || feature->second == kLeftOut) return kLeftOut;
    m_features.allFlags[static_cast<std::size_t>(feature->second)] |= record.Flags();
    return feature->second;
  }
  void AddFeature(const RecordView& record) {
    const FeatureView feature = record.AsFeature();
    if (m_choice.type != 0 && m_choice.type != static_cast<std::int32_t>(feature.FeatureType())) {
      return Own(feature.FeatureNumber(), kLeftOut);
    }
    Own(feature.FeatureNumber(), static_cast<std::int64_t>(m_features.number.size()));
    m_features.ownsNumber.push_back(1);
    m_features.number.push_back(feature.FeatureNumber());
    m_features.color.push_back(feature.Color());
    m_features.flags.push_back(record.Flags());
    m_features.allFlags.push_back(record.Flags());
    m_features.type.push_back(static_cast<std::uint16_t>(feature.FeatureType()));
    m_features.symbol.push_back(feature.SymbolIndex());
    m_features.offset.push_back(record.Position());
    m_features.name.Add(feature.FeatureName());
  }
  void AddPoint(const RecordView& record) {
    const PointView point = record.AsPoint();
    const std::int64_t feature = RowOf(point.FeatureNumber(), record);
    if (feature == kLeftOut || !m_choice.withPoints) return;
    PointRows& p = m_points;
    p.feature.push_back(feature);
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
  bool IsWanted(std::int32_t name) {
    if (!m_choice.names) return true;
    const auto code = static_cast<std::size_t>(name);
    if (code == m_isWanted.size()) m_isWanted.push_back(m_choice.names->contains(Fold(m_attributes.name.Word(name))));
    return m_isWanted[code];
  }
  void AddAttribute(const RecordView& record) {
    const AttributeView attribute = record.AsAttribute();
    const std::int64_t feature = RowOf(attribute.FeatureNumber(), record);
    if (feature == kLeftOut) return;
    const std::int32_t name = m_attributes.name.CodeOf(attribute.AttributeName());
    if (!IsWanted(name)) return;
    m_attributes.feature.push_back(feature);
    m_attributes.kind.push_back(static_cast<std::uint8_t>(attribute.AttributeKind()));
    m_attributes.number.push_back(attribute.Value());
    m_attributes.decimals.push_back(attribute.Decimals());
    m_attributes.flags.push_back(record.Flags());
    m_attributes.name.AddCode(name);
    m_attributes.text.Add(attribute.TextValue());
    m_attributes.sub.Add(attribute.SubValue());
  }

  AssemblyChoice m_choice;
  std::vector<bool> m_isWanted;                             // by the code of an attribute's name
  std::unordered_map<std::uint32_t, std::int64_t> m_rowOf;  // by the number, of the last feature that has it
  FeatureRows m_features;
  PointRows m_points;
  AttributeRows m_attributes;
};

// A part of a file: from `start`, or the first record if that is 0, to `end`, or the end of the file if that is 0. The
// stragglers are the offsets of records after it.
struct Part {
  std::uint64_t start = 0, end = 0;
  std::vector<std::uint64_t> stragglers;
  tool::SecondThread secondThread = tool::SecondThread::kReadsAhead;
};

// Without the GIL.
tool::Verdict AssemblePart(CKespDataFile& file, const Part& part, tool::DeletedRecords deleted, Assembly& assembly) {
  using Step = tool::RecordWalk::Step;
  tool::RecordWalk walk(file, deleted, part.start, part.secondThread);
  Step step = walk.Next();
  for (; step != Step::kEnd && (part.end == 0 || walk.View().Position() < part.end); step = walk.Next()) {
    if (step == Step::kRecord) assembly.Add(walk.View());
  }
  if (step == Step::kEnd) return walk.End();
  for (const std::uint64_t position : part.stragglers) {
    tool::RecordWalk jump(file, deleted, position);
    step = jump.Next();
    if (step == Step::kEnd) return jump.End();
    if (step == Step::kRecord) assembly.AddStraggler(jump.View());
  }
  return {};
}

py::tuple Assemble(const py::object& path, bool includeDeleted, const py::object& progress, std::int32_t type,
                   const std::optional<std::vector<std::string>>& names, bool withPoints, std::uint64_t start,
                   std::uint64_t end, const std::vector<std::uint64_t>& stragglers, bool readAhead) {
  AssemblyChoice choice{type, std::nullopt, withPoints};
  if (names) {
    choice.names.emplace();
    for (const std::string& name : *names) choice.names->insert(Fold(name));
  }
  const CString name = ToPath(path);
  Watch watch(progress);
  CKespDataFile file;
  OpenWatched(file, name, watch);
  Assembly assembly(std::move(choice));
  tool::Verdict verdict;
  {
    const py::gil_scoped_release released;
    const auto deleted = includeDeleted ? tool::DeletedRecords::kInclude : tool::DeletedRecords::kPassOver;
    const auto secondThread = readAhead ? tool::SecondThread::kReadsAhead : tool::SecondThread::kNone;
    verdict = AssemblePart(file, {start, end, stragglers, secondThread}, deleted, assembly);
  }
  watch.Rethrow();
  if (verdict.cause == tool::Verdict::Cause::kUnreadable) Raise(verdict, name);
  return py::make_tuple(assembly.Features(), assembly.Points(), assembly.Attributes(), DamageOf(verdict));
}

}  // namespace

void BindAssembly(py::module_& module) {
  module.def("assemble", &Assemble, py::arg("path"), py::arg("deleted"), py::arg("progress"), py::arg("type") = 0,
             py::arg("names") = py::none(), py::arg("points") = true, py::arg("start") = 0, py::arg("end") = 0,
             py::arg("stragglers") = std::vector<std::uint64_t>{}, py::arg("read_ahead") = true);
}

}  // namespace kesp::python
