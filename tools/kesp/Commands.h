// The sub-commands, one function each: it does its work, reports to the person on standard error, and returns the exit
// status. What fails on standard output is thrown (OutputError), and main reports it.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kesp::tool {

class Output;

// Scripts rely on these: never renumber.
enum ExitStatus : int {
  kExitWhole = 0,    // everything was done, and the file is whole
  kExitDamaged = 1,  // the file is damaged, or falls short of what was asked
  kExitTrouble = 2   // wrong usage, a file that can't be opened or changed, or output that can't be written
};

// Paths are the bytes of the command line; texts are UTF-8.

// How a sub-command reports.
struct ReportOptions {
  bool json = false;   // one JSON document a line for each file, instead of text
  bool quiet = false;  // nothing on standard output
};

struct DumpOptions {
  std::string path;
  bool dataset = false;
  bool includeDeleted = false;
};
ExitStatus Dump(const DumpOptions& options, Output& out);

struct InfoOptions : ReportOptions {
  std::vector<std::string> paths;
};
ExitStatus Info(const InfoOptions& options, Output& out);

struct ValidateOptions : ReportOptions {
  std::vector<std::string> paths;
  bool strict = false;  // problems in a whole file count as damage
};
ExitStatus Validate(const ValidateOptions& options, Output& out);

// The sub-commands that change a file check all they were given first, and change nothing unless all of it can be done.
struct DeleteOptions : ReportOptions {
  std::string path;
  std::vector<std::uint32_t> features;  // by number; one of the two lists is empty
  std::vector<std::uint32_t> points;
  bool dryRun = false;
};
ExitStatus Delete(const DeleteOptions& options, Output& out);
ExitStatus Undelete(const DeleteOptions& options, Output& out);

struct HeaderOptions : ReportOptions {
  std::string path;
  std::vector<std::string> settings;  // NAME=TEXT
  bool dryRun = false;
};
ExitStatus Header(const HeaderOptions& options, Output& out);

struct SetOptions : ReportOptions {
  std::string path;
  std::uint32_t feature = 0;
  std::vector<std::string> settings;  // NAME=VALUE
  bool dryRun = false;
};
ExitStatus Set(const SetOptions& options, Output& out);

enum class Collisions { kRefuse, kRenumber };  // what is done with numbers that are taken

struct AppendOptions : ReportOptions {
  std::vector<std::string> sources;
  std::string destination;
  Collisions collisions = Collisions::kRefuse;
  bool dryRun = false;
};
ExitStatus Append(const AppendOptions& options, Output& out);

struct MergeOptions : ReportOptions {
  std::vector<std::string> sources;
  std::string destination;  // "-" is standard output
  Collisions collisions = Collisions::kRefuse;
  bool force = false;
};
ExitStatus Merge(const MergeOptions& options, Output& out);

struct FindOptions : ReportOptions {
  std::string path;
  std::vector<std::string> names;
  std::vector<std::string> types;  // "point", "line", "area"
  std::optional<std::string> attribute;
  std::optional<std::string> value;  // at most one of these two
  std::optional<std::string> range;  // LOW:HIGH, either of which may be left out
  std::optional<std::string> pointText;
  std::optional<std::string> from;  // RFC 3339
  std::optional<std::string> to;
  std::optional<std::string> area;  // MINX,MINY,MAXX,MAXY
  bool ignoreCase = false;
  bool partial = false;
  bool invert = false;
  bool includeEmpty = false;
  bool includeDeleted = false;
};
ExitStatus Find(const FindOptions& options, Output& out);

// The sub-commands that make a file: it takes its place when it is whole, and one that exists only with `force`.
// A destination of "-" is standard output, and one that is a folder gets the file's name.
struct CopyOptions : ReportOptions {
  std::string source;
  std::string destination;
  bool force = false;
};
ExitStatus Copy(const CopyOptions& options, Output& out);

struct RepairOptions : ReportOptions {
  std::string source;
  std::string destination;
  unsigned short format = 0;  // file version; 0: the source's own
  bool salvage = false;
  bool lossy = false;
  bool first4Gib = false;
  bool force = false;
};
ExitStatus Repair(const RepairOptions& options, Output& out);

}  // namespace kesp::tool
