#include "python/src/Table.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "python/src/Text.h"

namespace kesp::python {
namespace {

// What the library exported, released when the last user of a column is gone.
struct Exported {
  explicit Exported(const ArrowArray& from) : array(from) {}
  ~Exported() {
    if (array.release != nullptr) array.release(&array);
  }
  Exported(const Exported&) = delete;
  Exported& operator=(const Exported&) = delete;

  ArrowArray array;
};

ColumnData ColumnOf(const ArrowSchema& schema, const ArrowArray& array, const std::shared_ptr<const void>& owner) {
  ColumnData column;
  column.name = schema.name;
  column.format = schema.format;
  column.rows = array.length;
  column.owner = owner;
  column.values = array.buffers[1];
  if (column.format == "U") column.bytes = array.buffers[2];
  if (schema.dictionary != nullptr) {
    column.dictionary = std::make_shared<ColumnData>(ColumnOf(*schema.dictionary, *array.dictionary, owner));
  }
  return column;
}

py::dtype DtypeOf(const std::string& format) {
  switch (format.front()) {
    case 'C':
      return py::dtype::of<std::uint8_t>();
    case 'S':
      return py::dtype::of<std::uint16_t>();
    case 'I':
      return py::dtype::of<std::uint32_t>();
    case 'i':
      return py::dtype::of<std::int32_t>();
    case 'L':
      return py::dtype::of<std::uint64_t>();
    case 'g':
      return py::dtype::of<double>();
    default:
      return py::dtype::of<std::int64_t>();
  }
}

py::array TextsToNumpy(const ColumnData& column) {
  const auto* const offsets = static_cast<const std::int64_t*>(column.values);
  const auto* const bytes = static_cast<const char*>(column.bytes);
  py::array texts(py::dtype("O"), std::vector<py::ssize_t>{column.rows});
  auto** const out = static_cast<PyObject**>(texts.mutable_data());
  py::str last;
  std::string_view lastBytes;
  for (std::int64_t row = 0; row < column.rows; ++row) {
    const std::string_view text(bytes + offsets[row], static_cast<std::size_t>(offsets[row + 1] - offsets[row]));
    if (text != lastBytes) {
      last = ToStr(text);
      lastBytes = text;
    }
    Py_XDECREF(out[row]);
    out[row] = py::str(last).release().ptr();
  }
  return texts;
}

}  // namespace

const ColumnData* TableData::Find(const std::string& name) const {
  const auto found = std::ranges::find(columns, name, &ColumnData::name);
  return found != columns.end() ? &*found : nullptr;
}

TablePointer TakeExported(ArrowSchema* schema, ArrowArray* array, const std::vector<std::string>& wanted) {
  const std::unique_ptr<ArrowSchema, void (*)(ArrowSchema*)> schemaGuard(schema, [](ArrowSchema* s) { s->release(s); });
  const auto owner = std::make_shared<const Exported>(*array);
  auto table = std::make_shared<TableData>();
  table->rows = array->length;
  std::vector<ColumnData> all;
  for (std::int64_t i = 0; i < schema->n_children; ++i) {
    all.push_back(ColumnOf(*schema->children[i], *array->children[i], owner));
  }
  for (const std::string& name : wanted) {
    const auto found = std::ranges::find(all, name, &ColumnData::name);
    if (found != all.end() && table->Find(name) == nullptr) table->columns.push_back(*found);
  }
  if (wanted.empty()) table->columns = std::move(all);
  return table;
}

py::array ToNumpy(const ColumnData& column) {
  if (column.dictionary) {
    ColumnData codes = column;
    codes.dictionary = nullptr;
    if (column.rows == 0) return {py::dtype("O"), std::vector<py::ssize_t>{0}};
    return ToNumpy(*column.dictionary).attr("take")(ToNumpy(codes));
  }
  if (column.format == "U") return TextsToNumpy(column);
  const py::capsule base(new std::shared_ptr<const void>(column.owner),
                         [](void* owner) { delete static_cast<std::shared_ptr<const void>*>(owner); });
  return {DtypeOf(column.format), std::vector<py::ssize_t>{column.rows}, column.values, base};
}

}  // namespace kesp::python
