// A file read into a data set, as the sub-commands need it: what came of it, and the document of what it holds.
//
//   CKespFile file;
//   if (const auto refused = OpenForReading(file, path)) return Refuse(*refused, path, json, out);
//   const DatasetEnd end = ReadDataset(file, DeletedRecords::kPassOver);
//   WriteDataset(json, file, end);
//
// Ownership: borrows the data set.
// Errors: none are raised but CMemoryException and std::bad_alloc. What stops reading is in the DatasetEnd; the data
//   set then holds what it had read by then.
#pragma once
#include <optional>
#include <string>

#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {

struct DatasetEnd {
  ErrorEnum result = ERR_NONE;  // ERR_READ_FAILED also where reading raised an exception of the file's
  Verdict verdict;              // of the file
};

DatasetEnd ReadDataset(CKespFile& file, DeletedRecords deleted);

// CKespFile::GetKespDataSummary, with nothing in place of the values that mean nothing.
struct DatasetSummary {
  explicit DatasetSummary(const CKespFile& file);

  std::uint32_t points = 0;  // of the features in the index, like all of these
  std::uint32_t features = 0;
  CBoundingBox extent;  // invalid without points
  std::optional<std::int64_t> firstTime;
  std::optional<std::int64_t> lastTime;
  CString lastPointText;
};
// "extent", and a time under that key with its number beside it ("firstTime" and "firstTimeUnix"): members of an object
// whose brackets are the caller's.
void WriteExtent(JsonWriter& json, const CBoundingBox& extent);
void WriteTime(JsonWriter& json, const std::string& key, const std::optional<std::int64_t>& time);

// Everything, as one object.
void WriteDataset(JsonWriter& json, const CKespFile& file, const DatasetEnd& end);

}  // namespace kesp::tool
