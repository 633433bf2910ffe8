// A table of columns that NumPy and Arrow see where they are.
//
// Ownership: a table shares its memory with the arrays and the capsules made from it, so each of them may be dropped in
// any order and at any time.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <pybind11/numpy.h>

#include "kesp/recordfile/ArrowExport.h"

#ifndef ARROW_C_STREAM_INTERFACE
#define ARROW_C_STREAM_INTERFACE  // NOLINT(cppcoreguidelines-macro-usage): the name that each consumer defines
extern "C" {
struct ArrowArrayStream {
  int (*get_schema)(struct ArrowArrayStream*, struct ArrowSchema* out);
  int (*get_next)(struct ArrowArrayStream*, struct ArrowArray* out);
  const char* (*get_last_error)(struct ArrowArrayStream*);
  void (*release)(struct ArrowArrayStream*);
  void* private_data;
};
}
#endif

namespace kesp::python {

namespace py = pybind11;

// A column: the layout of an Arrow array without nulls.
struct ColumnData {
  std::string name;
  std::string format;  // as Arrow has it
  std::int64_t rows = 0;
  std::shared_ptr<const void> owner;
  const void* values = nullptr;  // of a text, its offsets
  const void* bytes = nullptr;   // of a text
  std::shared_ptr<const ColumnData> dictionary;
};

struct TableData {
  std::vector<ColumnData> columns;
  std::int64_t rows = 0;

  const ColumnData* Find(const std::string& name) const;
};
using TablePointer = std::shared_ptr<const TableData>;

// Takes the columns of a table of the library; those in `wanted`, in that order, or all if it is empty.
template <class Columns>
TablePointer TakeTable(Columns&& columns, const std::vector<std::string>& wanted);
TablePointer TakeExported(ArrowSchema* schema, ArrowArray* array, const std::vector<std::string>& wanted);
template <class Columns>
TablePointer TakeTable(Columns&& columns, const std::vector<std::string>& wanted) {
  ArrowSchema schema;
  ArrowArray array;
  ExportToArrow(std::forward<Columns>(columns), &schema, &array);
  return TakeExported(&schema, &array, wanted);
}

// Numbers are views of the column; texts become str objects, one for equal texts that follow each other.
py::array ToNumpy(const ColumnData& column);

void ExportSchema(const TableData& table, ArrowSchema* schema);
void ExportArray(const TableData& table, ArrowArray* array);

py::capsule SchemaCapsule(const TableData& table);
py::capsule ArrayCapsule(const TableData& table);
// What a stream gets its tables from.
class TableStream {
 public:
  virtual ~TableStream() = default;
  // Without the GIL or with it; null at the end. Raises std::exception.
  virtual TablePointer Next() = 0;
  virtual TablePointer Shape() = 0;  // a table with the same columns
};
py::capsule StreamCapsule(std::unique_ptr<TableStream> tables);
py::capsule StreamCapsule(TablePointer table);  // a stream of this one table

}  // namespace kesp::python
