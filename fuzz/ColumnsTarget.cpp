// Columns, whole and in batches, compared with the objects of the same file. The file is a source of the host's.
#include "fuzz/Targets.h"
#include "tests/support/MemorySource.h"
#include "tests/support/Rows.h"

namespace kesp::fuzz {

void Columns(Input input) {
  CKespDataFile file;
  if (!file.OpenReadOnly(std::make_unique<test::MemorySource>(Bytes(input.begin(), input.end())), "a")) return;
  for (const bool includeDeleted : {false, true}) {
    test::Rows expected = test::ExpectedRows(file, includeDeleted).rows;
    KESP_REQUIRE(test::RowsAtOnce(file, includeDeleted) == expected);
    for (const std::size_t batchRows : {1U, 3U, 1000U}) {
      test::Rows rows = test::RowsInBatches(file, includeDeleted, batchRows, batchRows == 3);
      // Only complete features have all their points in batches.
      KESP_REQUIRE(rows.places.size() == expected.places.size());
      rows.places = expected.places;
      KESP_REQUIRE(rows == expected);
    }
  }
}

}  // namespace kesp::fuzz
