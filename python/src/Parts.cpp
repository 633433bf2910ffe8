// Cuts a long file into parts that several readers can read at the same time.
//
// A part begins at a feature, and has the features that begin in it. What belongs to these usually follows them.
// Records that were added later are elsewhere: the part has their offsets, its stragglers. So reading all parts gives
// the same features as reading the file, with the same points, attributes and marks.
//
// The same walk finds which attributes there are, since frames of many files need the same columns.
#include <unordered_map>

#include "python/src/Errors.h"
#include "python/src/Reading.h"
#include "python/src/Text.h"
#include "python/src/Watch.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::python {
namespace {

// With more stragglers than that, for each record of the file, jumping to them costs more than cutting saves.
constexpr std::uint64_t kMostStragglersPer100 = 10;
constexpr std::uint64_t kFewStragglers = 1000;

struct Part {
  std::uint64_t start = 0;
  std::vector<std::uint64_t> stragglers;
};
struct Attribute {
  std::uint32_t kinds = 0;  // bit n: kind n
  bool hasSub = false;
};

class PartFinder {
 public:
  PartFinder(std::uint64_t bytes, std::int32_t type) : m_bytes(bytes), m_type(type) {}

  void Add(const RecordView& record) {
    ++m_records;
    if (record.Type() == KESP_RECORD_FEATURE) return AddFeature(record);
    if (record.Type() == KESP_RECORD_POINT) (void)FindOwner(record.AsPoint().FeatureNumber(), record);
    if (record.Type() != KESP_RECORD_ATTRIBUTE) return;
    const AttributeView attribute = record.AsAttribute();
    const Owner* const owner = FindOwner(attribute.FeatureNumber(), record);
    if (owner != nullptr && owner->isWanted) AddAttribute(attribute);
  }
  // Tuples of start, end and stragglers. 0 is the first record and the end of the file. A file without a header record
  // is one part, which finds that out.
  py::list Parts(KESP_RECORD_TYPE firstType) const {
    py::list out;
    const bool isSpread = m_stragglers > kFewStragglers && m_stragglers * 100 > m_records * kMostStragglersPer100;
    if (isSpread || firstType != KESP_RECORD_HEADER) {
      out.append(py::make_tuple(0, 0, py::list()));
      return out;
    }
    for (std::size_t i = 0; i < m_parts.size(); ++i) {
      const std::uint64_t end = i + 1 < m_parts.size() ? m_parts[i + 1].start : 0;
      out.append(py::make_tuple(m_parts[i].start, end, m_parts[i].stragglers));
    }
    return out;
  }
  // Tuples of name, kinds and whether a menu has a second text, in the order of the file.
  py::list Attributes() const {
    py::list out;
    for (const std::string& name : m_names) {
      const Attribute& found = m_attributes.at(name);
      out.append(py::make_tuple(ToStr(std::string_view{name}), found.kinds, found.hasSub));
    }
    return out;
  }

 private:
  struct Owner {
    std::size_t part = 0;
    bool isWanted = false;
  };

  void AddFeature(const RecordView& record) {
    const FeatureView feature = record.AsFeature();
    if (m_hasFeature && record.Position() - m_start >= m_bytes) {
      m_parts.push_back({record.Position(), {}});
      m_start = record.Position();
    }
    if (!std::exchange(m_hasFeature, true)) m_start = record.Position();
    const bool isWanted = m_type == 0 || m_type == static_cast<std::int32_t>(feature.FeatureType());
    (void)FindOwner(feature.FeatureNumber(), record);
    m_owners[feature.FeatureNumber()] = {m_parts.size() - 1, isWanted};
  }
  // The feature that has the number now. The record is a straggler of an earlier part that has it.
  const Owner* FindOwner(std::uint32_t number, const RecordView& record) {
    const auto owner = m_owners.find(number);
    if (owner == m_owners.end()) return nullptr;
    if (owner->second.part + 1 < m_parts.size()) {
      m_parts[owner->second.part].stragglers.push_back(record.Position());
      ++m_stragglers;
    }
    return &owner->second;
  }
  void AddAttribute(const AttributeView& attribute) {
    attribute.AttributeName().CopyTo(m_name);
    const auto [at, isNew] = m_attributes.try_emplace(m_name);
    if (isNew) m_names.push_back(m_name);
    at->second.kinds |= 1U << static_cast<unsigned>(attribute.AttributeKind());
    const bool isMenu = attribute.AttributeKind() == KESP_ATTRIBUTE_MENU;
    if (isMenu && !at->second.hasSub) {
      attribute.SubValue().CopyTo(m_name);
      at->second.hasSub = !m_name.empty();
    }
  }

  std::uint64_t m_bytes;
  std::int32_t m_type;
  std::vector<Part> m_parts{1};
  std::uint64_t m_start = 0;  // of the last part's first feature
  bool m_hasFeature = false;
  std::uint64_t m_records = 0, m_stragglers = 0;
  std::unordered_map<std::uint32_t, Owner> m_owners;  // by number
  std::string m_name;
  std::vector<std::string> m_names;
  std::unordered_map<std::string, Attribute> m_attributes;
};

// What comes before damage. Reading the last part then finds the damage.
py::tuple FindParts(const py::object& path, std::uint64_t bytes, bool includeDeleted, std::int32_t type,
                    const py::object& progress) {
  const CString name = ToPath(path);
  Watch watch(progress);
  CKespDataFile file;
  OpenWatched(file, name, watch);
  PartFinder finder(bytes, type);
  tool::Verdict end;
  KESP_RECORD_TYPE firstType = KESP_RECORD_NONE;
  {
    const py::gil_scoped_release released;
    const auto deleted = includeDeleted ? tool::DeletedRecords::kInclude : tool::DeletedRecords::kPassOver;
    tool::RecordWalk walk(file, deleted, 0, tool::SecondThread::kNone);
    for (auto step = walk.Next(); step != tool::RecordWalk::Step::kEnd; step = walk.Next()) {
      if (step == tool::RecordWalk::Step::kRecord) finder.Add(walk.View());
    }
    end = walk.End();
    firstType = walk.FirstType();
  }
  watch.Rethrow();
  if (end.cause == tool::Verdict::Cause::kUnreadable) Raise(end, name);
  return py::make_tuple(finder.Parts(firstType), finder.Attributes());
}

}  // namespace

void BindParts(py::module_& module) {
  module.def("find_parts", &FindParts, py::arg("path"), py::arg("bytes"), py::arg("deleted") = false,
             py::arg("type") = 0, py::arg("progress") = py::none());
}

}  // namespace kesp::python
