// The records of several files on their way into one: read, checked, and given numbers that nothing else has.
//
//   std::vector<Source> sources;
//   if (const auto status = ReadSources(sources, paths, json, out)) return *status;
//   Numbers taken;
//   if (!GiveNumbers(sources, taken, Collisions::kRenumber)) return kExitTrouble;
//   container.AppendRecords(records.data(), records.size(), KESP_SRC_ADDED);
//
// Taken over are live features with their points, attributes and ends, notes and tags, each in its record version. The
// header record stays behind, with the two notes that belong to one of version 1; so do records without a feature,
// which would become part of another file's, records of types that nobody knows, and the application's bytes before the
// first record. What stays behind is complained about, but for the header.
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Inventory.h"
#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/NewFile.h"

namespace kesp::tool {

using Records = std::vector<std::unique_ptr<CKespRecord>>;

struct JoinCounts {
  std::uint64_t features = 0;
  std::uint64_t points = 0;
  std::uint64_t attributes = 0;
  std::uint64_t notes = 0;
  std::uint64_t tags = 0;
  std::uint64_t renumberedFeatures = 0;
  std::uint64_t renumberedPoints = 0;
  std::uint64_t unknown = 0;  // left out, as are the next two
  std::uint64_t withoutFeature = 0;
  std::uint64_t applicationBytes = 0;
};

// A file that stays open and is kept from being written as long as it lives.
struct Source {
  explicit Source(const std::string& sourcePath) : path(sourcePath), steady(sourcePath) {}

  std::string path;
  SteadyFile steady;
  CKespDataFile file;
  Records header;  // and its two notes, if it has them
  Records records;
  JoinCounts counts;
};
using Sources = std::vector<std::unique_ptr<Source>>;

// The exit status after a complaint, when one of them can't be read or is damaged.
std::optional<ExitStatus> ReadSources(Sources& sources, const std::vector<std::string>& paths, bool json, Output& out);

// Numbers of features, or of points.
struct NumberSpace {
  // One above the highest in use; when that is the last of all, the lowest that is free. Nothing without any.
  std::optional<std::uint32_t> TakeFree();
  void Use(std::uint32_t number);

  std::unordered_set<std::uint32_t> taken;  // a record that comes must not have these
  std::unordered_set<std::uint32_t> used;   // nor be given these: those of deleted records too, which may be restored
  std::uint32_t highest = 0;
  std::uint32_t lowest = 1;  // below it, none is free
};
struct Numbers {
  NumberSpace features;
  NumberSpace points;
};
Numbers NumbersIn(const Inventory& inventory);
// Sees to it that no source has a number that is taken, or that an earlier source has. False after a complaint.
bool GiveNumbers(Sources& sources, Numbers& taken, Collisions collisions);

// The oldest file version that can hold the record; 0 for a record version that nobody knows.
unsigned short NeededVersion(CKespRecord& record);
// All records of the sources, in their order.
std::vector<CKespRecord*> AllRecords(const Sources& sources);
// With the 14 bytes before each.
std::uint64_t BytesOf(const std::vector<CKespRecord*>& records);

JoinCounts TotalOf(const Sources& sources);
// The members of the document, and the lines, that append and merge have in common.
void WriteCounts(JsonWriter& json, const char* key, const JoinCounts& counts);
std::string DescribeCounts(const JoinCounts& counts);

// Puts into the header what the data set holds: counts, extent, times and text of the last point; the last three only
// where there are points. Nothing for a version-1 header, which has no place for them.
void PutSummary(CKespTavoHeader& header, const CKespFile& dataset);

}  // namespace kesp::tool
