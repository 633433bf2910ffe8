// Tables for the Arrow C data interface and its capsules in Python.
#include <array>
#include <cerrno>
#include <cstring>

#include "python/src/Table.h"

namespace kesp::python {
namespace {

// The private part of a schema or an array: what it points to.
template <class Struct>
struct Node {
  std::shared_ptr<const void> owner;
  std::string format, name;
  std::array<const void*, 3> buffers{};
  std::vector<Struct> children;
  std::vector<Struct*> pointers;
  Struct dictionary{};
};

template <class Struct>
void Release(Struct* released) {
  const std::unique_ptr<Node<Struct>> node(static_cast<Node<Struct>*>(released->private_data));
  // A child that the receiver moved out has no release function any more.
  for (Struct& child : node->children) {
    if (child.release != nullptr) child.release(&child);
  }
  if (node->dictionary.release != nullptr) node->dictionary.release(&node->dictionary);
  released->release = nullptr;
}

template <class Struct>
void PutNode(std::unique_ptr<Node<Struct>> node, Struct& out) {
  for (Struct& child : node->children) node->pointers.push_back(&child);
  out.n_children = static_cast<std::int64_t>(node->children.size());
  out.children = node->pointers.data();
  out.dictionary = node->dictionary.release != nullptr ? &node->dictionary : nullptr;
  out.release = Release<Struct>;
  out.private_data = node.release();
}

ArrowSchema SchemaOf(const std::string& name, const std::string& format, const ColumnData* dictionary,
                     const std::vector<ColumnData>& children) {
  auto node = std::make_unique<Node<ArrowSchema>>();
  node->name = name;
  node->format = format;
  node->children.reserve(children.size());
  for (const ColumnData& child : children) {
    node->children.push_back(SchemaOf(child.name, child.format, child.dictionary.get(), {}));
  }
  if (dictionary != nullptr) node->dictionary = SchemaOf("", dictionary->format, nullptr, {});
  ArrowSchema schema{};
  schema.format = node->format.c_str();
  schema.name = node->name.c_str();
  PutNode(std::move(node), schema);
  return schema;
}

ArrowArray ArrayOf(const ColumnData& column) {
  auto node = std::make_unique<Node<ArrowArray>>();
  node->owner = column.owner;
  node->buffers = {nullptr, column.values, column.bytes};
  if (column.dictionary) node->dictionary = ArrayOf(*column.dictionary);
  ArrowArray array{};
  array.length = column.rows;
  array.n_buffers = column.format == "U" ? 3 : 2;
  array.buffers = node->buffers.data();
  PutNode(std::move(node), array);
  return array;
}

struct Stream {
  std::unique_ptr<TableStream> tables;
  std::string error;
};

template <class Use>
int Guarded(ArrowArrayStream* stream, Use use) {
  auto& state = *static_cast<Stream*>(stream->private_data);
  try {
    use(*state.tables);
    return 0;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (const std::exception& e) {
    state.error = e.what();
    return EIO;
  }
}

int GetSchema(ArrowArrayStream* stream, ArrowSchema* out) {
  return Guarded(stream, [&](TableStream& tables) { ExportSchema(*tables.Shape(), out); });
}
int GetNext(ArrowArrayStream* stream, ArrowArray* out) {
  return Guarded(stream, [&](TableStream& tables) {
    const TablePointer table = tables.Next();
    if (table) {
      ExportArray(*table, out);
    } else {
      *out = {};
    }
  });
}
const char* GetLastError(ArrowArrayStream* stream) {
  const auto& state = *static_cast<const Stream*>(stream->private_data);
  return state.error.empty() ? nullptr : state.error.c_str();
}
void ReleaseStream(ArrowArrayStream* stream) {
  delete static_cast<Stream*>(stream->private_data);
  stream->release = nullptr;
}

class OneTable : public TableStream {
 public:
  explicit OneTable(TablePointer table) : m_table(std::move(table)), m_next(m_table) {}
  TablePointer Next() override { return std::exchange(m_next, nullptr); }
  TablePointer Shape() override { return m_table; }

 private:
  TablePointer m_table, m_next;
};

// A capsule owns its struct, and releases what a consumer has not taken.
template <class Struct>
py::capsule CapsuleOf(std::unique_ptr<Struct> content, const char* name) {
  const auto destroy = [](PyObject* capsule) {
    auto* const owned = static_cast<Struct*>(PyCapsule_GetPointer(capsule, PyCapsule_GetName(capsule)));
    if (owned->release != nullptr) owned->release(owned);
    delete owned;
  };
  PyObject* const capsule = PyCapsule_New(content.get(), name, destroy);
  if (capsule == nullptr) {
    content->release(content.get());
    throw py::error_already_set();
  }
  (void)content.release();
  return py::reinterpret_steal<py::capsule>(capsule);
}

}  // namespace

void ExportSchema(const TableData& table, ArrowSchema* schema) { *schema = SchemaOf("", "+s", nullptr, table.columns); }

void ExportArray(const TableData& table, ArrowArray* array) {
  auto node = std::make_unique<Node<ArrowArray>>();
  node->children.reserve(table.columns.size());
  for (const ColumnData& column : table.columns) node->children.push_back(ArrayOf(column));
  ArrowArray out{};
  out.length = table.rows;
  out.n_buffers = 1;
  out.buffers = node->buffers.data();
  PutNode(std::move(node), out);
  *array = out;
}

py::capsule SchemaCapsule(const TableData& table) {
  auto schema = std::make_unique<ArrowSchema>();
  ExportSchema(table, schema.get());
  return CapsuleOf(std::move(schema), "arrow_schema");
}

py::capsule ArrayCapsule(const TableData& table) {
  auto array = std::make_unique<ArrowArray>();
  ExportArray(table, array.get());
  return CapsuleOf(std::move(array), "arrow_array");
}

py::capsule StreamCapsule(std::unique_ptr<TableStream> tables) {
  auto stream = std::make_unique<ArrowArrayStream>();
  *stream = {GetSchema, GetNext, GetLastError, ReleaseStream, new Stream{std::move(tables), {}}};
  return CapsuleOf(std::move(stream), "arrow_array_stream");
}

py::capsule StreamCapsule(TablePointer table) { return StreamCapsule(std::make_unique<OneTable>(std::move(table))); }

}  // namespace kesp::python
