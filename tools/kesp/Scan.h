// One pass over a file: its header, how many records it holds of each kind, where and when its points are, and what is
// wrong with them.
//
//   const Scan scan = ScanFile(file);
//   if (!scan.end.IsWhole()) Complain(path, scan.end.Describe());
//
// Records that are marked deleted are counted as such and otherwise left out. Features are put together as a data set
// does it: a point or an attribute belongs to the last feature of its number before it.
#pragma once
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {

struct Tally {
  std::uint64_t count = 0;  // deleted ones included
  std::uint64_t deleted = 0;
};

// What a set of points covers. A time of 0 means none.
struct Coverage {
  void Include(const PointView& point);
  std::optional<std::int64_t> FirstTime() const;
  std::optional<std::int64_t> LastTime() const;

  std::uint64_t points = 0;
  CBoundingBox extent;  // invalid without points
  std::int32_t firstTime = 0x7FFFFFFF;
  std::int32_t lastTime = -0x7FFFFFFF - 1;
};

// Something that a whole file should not have, and how often.
struct Finding {
  const char* code;  // for programs: "featuresWithoutPoints"
  std::uint64_t count = 0;
  std::vector<std::uint32_t> numbers;  // of the features or points, the first kMostNumbers; empty where none apply
  std::string text;                    // for a person: "2 features without points"
  bool isRemark = false;               // nothing is wrong

  static constexpr std::size_t kMostNumbers = 100;
};

struct Scan {
  // Nothing where the header can't say it, or isn't there.
  std::optional<bool> ClosedCleanly() const;

  std::unique_ptr<CKespTavoHeader> header;                           // the first one; null without one
  std::map<std::pair<std::uint32_t, std::uint16_t>, Tally> records;  // by type and version
  Tally all;
  std::uint64_t features = 0;       // by number, as in a data set
  std::uint64_t featurePoints = 0;  // points of those features
  Coverage coverage;                // of all points, also of those without a feature
  std::vector<Finding> findings;
  Verdict end;
};

// On a terminal, if standard error is one.
enum class ShowsProgress { kNo, kYes };
Scan ScanFile(CKespDataFile& file, ShowsProgress progress = ShowsProgress::kYes);
// Opens the file read-only first. Where that fails, `end` says why and the rest is empty.
Scan OpenAndScan(CKespDataFile& file, const std::string& path);

}  // namespace kesp::tool
