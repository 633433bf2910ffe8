// The fields in which two states of one record differ, and the bytes of the later state.
#pragma once
#include <cstddef>
#include <optional>
#include <vector>

#include "kesp/records/KespRecord.h"

namespace kesp {

struct RecordChanges {
  struct Field {
    std::size_t offset;  // in the body
    std::size_t width;   // bytes
  };
  std::vector<Field> fields;    // those that differ, in the order of the body
  std::vector<std::byte> body;  // of the later state; empty when no field differs
};

// In the layout of the record version of `before`. Returns nothing when `after` is of another class, or when a value
// that differs has no place in that layout: the version lacks the field, a text is too long or has a zero or a
// character that the field can't hold, a number is too wide or not allowed there, a tag's block has another length.
// Ignores the flags. Throws std::bad_alloc.
std::optional<RecordChanges> ChangesOf(const CKespRecord& before, const CKespRecord& after);

}  // namespace kesp
