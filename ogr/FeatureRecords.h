// The records of one feature as objects, to be changed.
#pragma once
#include <memory>
#include <optional>
#include <vector>

#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureEnd.h"
#include "kesp/records/KespPoint.h"
#include "ogr/Editor.h"
#include "ogr/Survey.h"

namespace kesp::ogr {

struct FeatureRecords {
  std::unique_ptr<CKespFeature> feature;
  std::vector<std::unique_ptr<CKespAttribute>> attributes;
  std::vector<std::unique_ptr<CKespPoint>> points;
  std::vector<std::unique_ptr<CKespFeatureEnd>> ends;
};

// Reads the feature whose record is at `position`, with the records that FeatureBuilder gives it, in that order. Null
// if it can't be read.
std::optional<FeatureRecords> ReadRecords(SurveyFile& file, const Directory& directory, std::uint64_t position);

// Marks all records of the feature deleted, or takes that back, where it changes them.
enum class Marking { kDelete, kRestore };
void AddMarks(const FeatureRecords& records, Marking marking, Amendments& amendments);

// A changed copy of the record. `change` returns whether it changed it.
template <class Record, class Change>
bool AddAmendment(const Record& record, Amendments& amendments, Change change) {
  auto after = std::make_unique<Record>(record);
  if (!change(*after)) return false;
  amendments.push_back({std::make_unique<Record>(record), std::move(after)});
  return true;
}

}  // namespace kesp::ogr
