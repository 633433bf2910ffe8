// Passes tables of columns to other libraries through the Arrow C data interface: two structs, whose layout is
// published, and no library. The receiver reads the columns where they are.
//
//   ArrowSchema schema;
//   ArrowArray array;
//   kesp::ExportToArrow(std::move(columns.points), &schema, &array);
//   ImportRecordBatch(&array, &schema);  // the receiver's; it calls both release functions when it is done
//
// A table becomes an array of type struct with a child for each chosen column:
//
//   column                                                        format
//   numbers                                                       C, S, I, L, g: 8, 16, 32, 64 bits unsigned; double
//   time of a point                                               tss:UTC: seconds since 1970 UTC, 64 bits signed
//   texts                                                         U: UTF-8 with 64-bit offsets
//   name of an attribute                                          i, with a dictionary of format U
//
// The names of the columns are those of the members in lower case with underscores: "feature_number", "x", "min_x". No
// column has nulls.
//
// Ownership: the exported array owns the table, and the schema its texts. The receiver calls their release functions,
// in any thread; the array and the children that it moved out may be released in any order. Errors: std::bad_alloc;
// then both structs are unchanged and the table is as it was.
#pragma once
#include <cstdint>

#include "kesp/platform/Export.h"
#include "kesp/recordfile/Columns.h"

#ifndef ARROW_C_DATA_INTERFACE
#define ARROW_C_DATA_INTERFACE
// NOLINTBEGIN(cppcoreguidelines-macro-usage): the names that every producer and consumer of these structs defines
#define ARROW_FLAG_DICTIONARY_ORDERED 1
#define ARROW_FLAG_NULLABLE 2
#define ARROW_FLAG_MAP_KEYS_SORTED 4
// NOLINTEND(cppcoreguidelines-macro-usage)

extern "C" {

struct ArrowSchema {
  const char* format;
  const char* name;
  const char* metadata;
  std::int64_t flags;
  std::int64_t n_children;
  struct ArrowSchema** children;
  struct ArrowSchema* dictionary;
  void (*release)(struct ArrowSchema*);
  void* private_data;
};

struct ArrowArray {
  std::int64_t length;
  std::int64_t null_count;
  std::int64_t offset;
  std::int64_t n_buffers;
  std::int64_t n_children;
  const void** buffers;
  struct ArrowArray** children;
  struct ArrowArray* dictionary;
  void (*release)(struct ArrowArray*);
  void* private_data;
};

}  // extern "C"
#endif

namespace kesp {

KESP_EXPORT void ExportToArrow(PointColumns&& table, ArrowSchema* schema, ArrowArray* array);
KESP_EXPORT void ExportToArrow(FeatureColumns&& table, ArrowSchema* schema, ArrowArray* array);
KESP_EXPORT void ExportToArrow(AttributeColumns&& table, ArrowSchema* schema, ArrowArray* array);

}  // namespace kesp
