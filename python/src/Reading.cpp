#include "python/src/Reading.h"

#include <algorithm>
#include <array>
#include <span>

#include "python/src/Errors.h"
#include "python/src/Text.h"
#include "python/src/Watch.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::python {
namespace {

struct Choosable {
  const char* name;
  std::uint32_t bit;
};
constexpr std::array<Choosable, 14> kPointColumns{{{"feature_number", kPointFeatureNumber},
                                                   {"point_number", kPointNumber},
                                                   {"x", kPointX},
                                                   {"y", kPointY},
                                                   {"z", kPointZ},
                                                   {"time", kPointTime},
                                                   {"status", kPointStatus},
                                                   {"gps_value", kPointGps},
                                                   {"gps_number", kPointGps},
                                                   {"offset1", kPointOffset},
                                                   {"offset2", kPointOffset},
                                                   {"has_offset", kPointOffset},
                                                   {"flags", kPointFlags},
                                                   {"text", kPointText}}};
constexpr std::array<Choosable, 13> kFeatureColumns{{{"number", kFeatureNumber},
                                                     {"name", kFeatureName},
                                                     {"type", kFeatureType},
                                                     {"color", kFeatureColor},
                                                     {"symbol", kFeatureSymbol},
                                                     {"flags", kFeatureFlags},
                                                     {"first_point", kFeaturePoints},
                                                     {"point_count", kFeaturePoints},
                                                     {"is_one_run", kFeaturePoints},
                                                     {"min_x", kFeatureBox},
                                                     {"min_y", kFeatureBox},
                                                     {"max_x", kFeatureBox},
                                                     {"max_y", kFeatureBox}}};
constexpr std::array<Choosable, 8> kAttributeColumns{{{"feature_number", kAttributeFeatureNumber},
                                                      {"name", kAttributeName},
                                                      {"kind", kAttributeKind},
                                                      {"text", kAttributeText},
                                                      {"sub_text", kAttributeSubText},
                                                      {"number", kAttributeNumber},
                                                      {"decimals", kAttributeDecimals},
                                                      {"flags", kAttributeFlags}}};

std::span<const Choosable> ColumnsOf(TableKind kind) {
  if (kind == TableKind::kPoints) return kPointColumns;
  if (kind == TableKind::kFeatures) return kFeatureColumns;
  return kAttributeColumns;
}

TableKind KindOf(const std::string& kind) {
  if (kind == "points") return TableKind::kPoints;
  if (kind == "features") return TableKind::kFeatures;
  if (kind == "attributes") return TableKind::kAttributes;
  throw py::value_error("the tables are points, features and attributes, not " + kind);
}

struct Result {
  TablePointer table;
  tool::Verdict end;
};

// Without the GIL.
Result Read(CKespDataFile& file, const TableChoice& choice) {
  Columns columns;
  Result result;
  try {
    if (!ReadColumns(file, choice.choice, columns)) result.end = FindDamage(file);
  } catch (const CFileException&) {
    // A feature of version 1 that is cut short is raised. Then read what comes before it.
    result.end = FindDamage(file);
    file.LimitLength(result.end.offset);
    columns = {};
    (void)ReadColumns(file, choice.choice, columns);
  }
  result.table = TakeTable(columns, choice);
  return result;
}

py::tuple ReadTable(const std::string& kind, const py::object& path, const std::vector<std::string>& names,
                    bool includeDeleted, const py::object& progress) {
  const TableChoice choice = ChooseTable(kind, names, includeDeleted);
  const CString name = ToPath(path);
  Watch watch(progress);
  CKespDataFile file;
  OpenWatched(file, name, watch);
  Result result;
  {
    const py::gil_scoped_release released;
    result = Read(file, choice);
  }
  watch.Rethrow();
  if (result.end.cause == tool::Verdict::Cause::kUnreadable) Raise(result.end, name);
  return py::make_tuple(result.table, DamageOf(result.end));
}

}  // namespace

TableChoice ChooseTable(const std::string& kind, const std::vector<std::string>& names, bool includeDeleted) {
  TableChoice choice;
  choice.kind = KindOf(kind);
  choice.names = names;
  choice.choice.includeDeleted = includeDeleted;
  std::uint32_t bits = names.empty() ? kPointAll & ~std::uint32_t{kPointText} : 0;
  for (const std::string& name : names) {
    const auto columns = ColumnsOf(choice.kind);
    const auto found = std::ranges::find(columns, name, &Choosable::name);
    if (found == columns.end()) throw py::value_error(std::string(kind).append(" have no column ").append(name));
    bits |= found->bit;
  }
  choice.choice.points = choice.kind == TableKind::kPoints ? bits & kPointAll : 0;
  choice.choice.features = choice.kind == TableKind::kFeatures ? bits & kFeatureAll : 0;
  choice.choice.attributes = choice.kind == TableKind::kAttributes ? bits & kAttributeAll : 0;
  return choice;
}

std::vector<std::string> ColumnNames(const std::string& kind) {
  std::vector<std::string> names;
  for (const Choosable& column : ColumnsOf(KindOf(kind))) names.emplace_back(column.name);
  return names;
}

TablePointer TakeTable(Columns& columns, const TableChoice& choice) {
  if (choice.kind == TableKind::kPoints) return TakeTable(std::move(columns.points), choice.names);
  if (choice.kind == TableKind::kFeatures) return TakeTable(std::move(columns.features), choice.names);
  return TakeTable(std::move(columns.attributes), choice.names);
}

tool::Verdict FindDamage(CKespDataFile& file) {
  tool::RecordWalk walk(file, tool::DeletedRecords::kPassOver);
  while (walk.Next() != tool::RecordWalk::Step::kEnd) {
  }
  return walk.End();
}

void BindReading(py::module_& module) {
  py::class_<TableData, std::shared_ptr<TableData>>(module, "Table")
      .def("__len__", [](const TableData& table) { return table.rows; })
      .def_property_readonly("names",
                             [](const TableData& table) {
                               std::vector<std::string> names;
                               for (const ColumnData& column : table.columns) names.push_back(column.name);
                               return names;
                             })
      .def("numpy",
           [](const TableData& table, const std::string& name) {
             const ColumnData* const column = table.Find(name);
             if (column == nullptr) throw py::key_error(name);
             return ToNumpy(*column);
           })
      .def("arrow_schema", [](const TableData& table) { return SchemaCapsule(table); })
      .def("arrow_array", [](const TableData& table) { return ArrayCapsule(table); })
      .def("arrow_stream", [](const std::shared_ptr<TableData>& table) { return StreamCapsule(TablePointer(table)); });
  module.def("column_names", &ColumnNames);
  module.def("read_table", [](const std::string& kind, const py::object& path, const std::vector<std::string>& names,
                              bool includeDeleted, const py::object& progress) {
    return ReadTable(kind, path, names, includeDeleted, progress);
  });
}

}  // namespace kesp::python
