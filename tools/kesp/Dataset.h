// A file read into a data set, as the sub-commands need it: what came of it, and the document of what it holds.
//
//   CKespFile file;
//   if (!OpenForReading(file, path)) return kExitTrouble;
//   const DatasetEnd end = ReadDataset(file, DeletedRecords::kPassOver);
//   WriteDataset(json, file, end);
//
// Ownership: borrows the data set.
// Errors: none are raised but CMemoryException and std::bad_alloc. What stops reading is in the DatasetEnd, and the
//   data set then holds what it had read by then.
#pragma once
#include <optional>
#include <string>

#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {

struct DatasetEnd {
  ErrorEnum result = ERR_NONE;  // ERR_READ_FAILED also where reading raised an exception of the file's
  std::string reason;           // for a person; empty for ERR_NONE

  // A data set of an old version is complete all the same.
  bool IsComplete() const noexcept { return result == ERR_NONE || result == ERR_OLD_VERSION; }
};

DatasetEnd ReadDataset(CKespFile& file, DeletedRecords deleted);
// Reads it too, without the deleted ones, and wants every feature to have a point.
DatasetEnd ValidateDataset(CKespFile& file);

// CKespFile::GetKespDataSummary, with nothing where it has a value that stands for nothing.
struct DatasetSummary {
  explicit DatasetSummary(const CKespFile& file);

  std::uint32_t points = 0;  // of the features in the index, like all of these
  std::uint32_t features = 0;
  CBoundingBox extent;  // invalid without points
  std::optional<std::int64_t> firstTime;
  std::optional<std::int64_t> lastTime;
  CString lastPointText;
};
// The members of the JSON object, whose brackets are the caller's; and three of them for what isn't such a summary.
void WriteSummary(JsonWriter& json, const DatasetSummary& summary);
void WriteExtentAndTimes(JsonWriter& json, const CBoundingBox& extent, const std::optional<std::int64_t>& firstTime,
                         const std::optional<std::int64_t>& lastTime);

// Everything, as one object.
void WriteDataset(JsonWriter& json, CKespFile& file, const DatasetEnd& end);

}  // namespace kesp::tool
