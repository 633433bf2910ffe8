#include "kesp/recordfile/ArrowExport.h"

#include <array>
#include <memory>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kesp/recordfile/ColumnTables.h"

namespace kesp {
namespace {

// What an exported array keeps until it is released. The receiver may move children out and release them later than
// their parent, so each holds on to the table.
struct Kept {
  std::shared_ptr<const void> table;
  std::array<const void*, 3> buffers{};
  std::vector<ArrowArray> arrays;  // the children
  std::vector<ArrowArray*> children;
  ArrowArray dictionary{};
};

struct KeptSchema {
  std::vector<ArrowSchema> schemas;
  std::vector<ArrowSchema*> children;
  ArrowSchema dictionary{};
};

template <class Struct>
void ReleaseIfOwned(Struct* part) {
  if (part != nullptr && part->release != nullptr) part->release(part);
}

template <class Struct, class Keep>
void Release(Struct* released) {
  for (std::int64_t i = 0; i < released->n_children; ++i) ReleaseIfOwned(released->children[i]);
  ReleaseIfOwned(released->dictionary);
  delete static_cast<Keep*>(released->private_data);
  released->release = nullptr;
}

ArrowSchema MakeSchema(const char* format, const char* name, std::unique_ptr<KeptSchema> kept) {
  ArrowSchema schema{};
  schema.format = format;
  schema.name = name;
  schema.n_children = static_cast<std::int64_t>(kept->children.size());
  schema.children = kept->children.data();
  if (kept->dictionary.release != nullptr) schema.dictionary = &kept->dictionary;
  schema.release = Release<ArrowSchema, KeptSchema>;
  schema.private_data = kept.release();
  return schema;
}

ArrowArray MakeArray(std::size_t length, std::int64_t buffers, std::unique_ptr<Kept> kept) {
  ArrowArray array{};
  array.length = static_cast<std::int64_t>(length);
  array.n_buffers = buffers;
  array.buffers = kept->buffers.data();
  array.n_children = static_cast<std::int64_t>(kept->children.size());
  array.children = kept->children.data();
  if (kept->dictionary.release != nullptr) array.dictionary = &kept->dictionary;
  array.release = Release<ArrowArray, Kept>;
  array.private_data = kept.release();
  return array;
}

template <class T>
constexpr const char* FormatOf(std::string_view name) {
  if constexpr (std::is_same_v<T, double>) {
    return "g";
  } else if constexpr (std::is_signed_v<T>) {
    static_assert(sizeof(T) == 8);
    return name == "time" ? "tss:UTC" : "l";
  } else {
    return sizeof(T) == 1 ? "C" : sizeof(T) == 2 ? "S" : sizeof(T) == 4 ? "I" : "L";
  }
}

using Table = std::shared_ptr<const void>;

template <class T>
ArrowArray ArrayOf(const Column<T>& column, const Table& table) {
  auto kept = std::make_unique<Kept>();
  kept->table = table;
  kept->buffers[1] = column.data();
  return MakeArray(column.size(), 2, std::move(kept));
}
ArrowArray ArrayOf(const TextColumn& column, const Table& table) {
  static constexpr std::int64_t kNoText = 0;
  auto kept = std::make_unique<Kept>();
  kept->table = table;
  kept->buffers[1] = column.offsets.empty() ? &kNoText : column.offsets.data();
  kept->buffers[2] = column.bytes.data();
  return MakeArray(column.size(), 3, std::move(kept));
}

// Collects the children of a table.
class Export {
 public:
  Export(std::size_t columns, Table table) : m_table(std::move(table)) {
    m_schema->schemas.reserve(columns);
    m_schema->children.reserve(columns);
    m_array->arrays.reserve(columns);
    m_array->children.reserve(columns);
    m_array->table = m_table;
  }
  ~Export() {
    if (!m_schema) return;
    for (ArrowSchema& schema : m_schema->schemas) ReleaseIfOwned(&schema);
    for (ArrowArray& array : m_array->arrays) ReleaseIfOwned(&array);
  }
  Export(const Export&) = delete;
  Export& operator=(const Export&) = delete;

  template <class T>
  void Add(const char* name, const Column<T>& column) {
    Add(MakeSchema(FormatOf<T>(name), name, std::make_unique<KeptSchema>()));
    Add(ArrayOf(column, m_table));
  }
  void Add(const char* name, const TextColumn& column) {
    Add(MakeSchema("U", name, std::make_unique<KeptSchema>()));
    Add(ArrayOf(column, m_table));
  }
  void AddWithDictionary(const char* name, const Column<std::int32_t>& indexes, const TextColumn& dictionary) {
    auto schema = std::make_unique<KeptSchema>();
    schema->dictionary = MakeSchema("U", "", std::make_unique<KeptSchema>());
    Add(MakeSchema("i", name, std::move(schema)));
    auto kept = std::make_unique<Kept>();
    kept->table = m_table;
    kept->buffers[1] = indexes.data();
    kept->dictionary = ArrayOf(dictionary, m_table);
    Add(MakeArray(indexes.size(), 2, std::move(kept)));
  }
  void Finish(std::size_t rows, ArrowSchema* schema, ArrowArray* array) {
    *schema = MakeSchema("+s", "", std::move(m_schema));
    *array = MakeArray(rows, 1, std::move(m_array));
  }

 private:
  void Add(const ArrowSchema& child) {
    m_schema->schemas.push_back(child);
    m_schema->children.push_back(&m_schema->schemas.back());
  }
  void Add(const ArrowArray& child) {
    m_array->arrays.push_back(child);
    m_array->children.push_back(&m_array->arrays.back());
  }

  Table m_table;
  std::unique_ptr<KeptSchema> m_schema = std::make_unique<KeptSchema>();
  std::unique_ptr<Kept> m_array = std::make_unique<Kept>();
};

bool IsChosen(const TextColumn& column) { return !column.offsets.empty(); }
template <class T>
bool IsChosen(const Column<T>& column) {
  return column.data() != nullptr;
}

// A column of int32 has indexes into the names of its table.
template <class Columns, class C>
void AddColumn(Export& exported, const Columns& table, const char* name, const C& column) {
  if constexpr (std::is_same_v<C, Column<std::int32_t>>) {
    exported.AddWithDictionary(name, column, table.names);
  } else {
    exported.Add(name, column);
  }
}

template <class Columns>
void ExportTable(Columns& table, ArrowSchema* schema, ArrowArray* array) {
  std::size_t columns = 0;
  ForEachColumn([&](std::uint32_t, const char*, const auto& column) { columns += IsChosen(column) ? 1 : 0; }, table);
  const auto kept = std::make_shared<Columns>();
  Export exported(columns, kept);
  ForEachColumn(
      [&](std::uint32_t, const char* name, const auto& column) {
        if (IsChosen(column)) AddColumn(exported, table, name, column);
      },
      table);
  exported.Finish(table.rows, schema, array);
  *kept = std::move(table);  // the values stay where they are
  table = Columns();
}

}  // namespace

void ExportToArrow(PointColumns&& table, ArrowSchema* schema, ArrowArray* array) { ExportTable(table, schema, array); }
void ExportToArrow(FeatureColumns&& table, ArrowSchema* schema, ArrowArray* array) {
  ExportTable(table, schema, array);
}
void ExportToArrow(AttributeColumns&& table, ArrowSchema* schema, ArrowArray* array) {
  ExportTable(table, schema, array);
}

}  // namespace kesp
