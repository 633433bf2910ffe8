// Counts what records lose when they are written in an older file version.
//
//   kesp::FormatLoss loss;
//   for (const CKespRecord* record : records) loss.Add(*record, 1);
//   if (!loss.IsNone()) Warn(loss.features.texts, loss.points.numbers);
//
// File version 1 has record version 1 of each class, file version 2 has record version 2; a feature end has only
// version 1. Feature ends and tags lose nothing.
#pragma once
#include <cstdint>

#include "kesp/platform/Export.h"

class CKespRecord;

namespace kesp {

struct KESP_EXPORT FormatLoss {
  struct Kind {
    std::uint64_t records = 0;  // records that lose something
    // Texts that are cut: too long for their field, with a zero inside or, in version 1, with a character above U+00FF;
    // and texts that the older body has no field for.
    std::uint64_t texts = 0;
    // Numbers other than the default that the older body has no field for, or whose field is too narrow; in version 1
    // also a SignalStatus above 10, which reading turns into 10. Each slot of raw bytes in a header counts as one. A
    // header's KespVersion follows the version and is not counted.
    std::uint64_t numbers = 0;

    bool operator==(const Kind&) const = default;
  };
  Kind headers;
  Kind features;
  Kind points;
  Kind attributes;
  Kind notes;

  bool IsNone() const noexcept { return *this == FormatLoss{}; }
  // Counts what `record` loses in a file of version 1 or 2; other versions hold everything. Only the record's own body
  // counts, not the points and attributes of a feature. Raises std::bad_alloc.
  void Add(const CKespRecord& record, unsigned short fileVersion);

  bool operator==(const FormatLoss&) const = default;
};

}  // namespace kesp
