// Reads files into tables, as a whole or in batches.
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "kesp/recordfile/Columns.h"
#include "python/src/Table.h"
#include "tools/kesp/Verdict.h"

namespace kesp::python {

enum class TableKind { kPoints, kFeatures, kAttributes };

// What is asked for: one table with some of its columns.
struct TableChoice {
  TableKind kind = TableKind::kPoints;
  std::vector<std::string> names;  // none: those that are read by default
  ColumnChoice choice;
};
// Raises ValueError for a kind or a column that does not exist.
TableChoice ChooseTable(const std::string& kind, const std::vector<std::string>& names, bool includeDeleted);
std::vector<std::string> ColumnNames(const std::string& kind);
TablePointer TakeTable(Columns& columns, const TableChoice& choice);

// What ended the reading of a file that is not whole: walks over it once more, since columns don't know the place.
tool::Verdict FindDamage(CKespDataFile& file);

void BindReading(py::module_& module);
void BindBatches(py::module_& module);
void BindAssembly(py::module_& module);
void BindParts(py::module_& module);
void BindStore(py::module_& module);
void BindChecking(py::module_& module);

}  // namespace kesp::python
