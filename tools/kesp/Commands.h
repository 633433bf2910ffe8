// The sub-commands, one function each: it does its work, reports to the person on standard error, and answers the exit
// status. What fails on standard output is raised (OutputError), and main reports it.
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

struct DumpOptions {
  std::string path;  // the bytes of the command line, here and below
  bool dataset = false;
  bool includeDeleted = false;
};
ExitStatus Dump(const DumpOptions& options, Output& out);

struct InfoOptions {
  std::string path;
  bool json = false;
};
ExitStatus Info(const InfoOptions& options, Output& out);

struct ValidateOptions {
  std::vector<std::string> paths;
  bool json = false;
};
ExitStatus Validate(const ValidateOptions& options, Output& out);

// The sub-commands that change a file check all they were given first, and change nothing unless all of it can be done.
struct DeleteOptions {
  std::string path;
  std::vector<std::uint32_t> features;  // by number; one of the two lists is empty
  std::vector<std::uint32_t> points;
  bool dryRun = false;
};
ExitStatus Delete(const DeleteOptions& options, Output& out);

struct HeaderOptions {
  std::string path;
  std::vector<std::string> settings;  // NAME=TEXT, the text in UTF-8
  bool dryRun = false;
};
ExitStatus Header(const HeaderOptions& options, Output& out);

struct FindOptions {
  std::string path;
  std::vector<std::string> names;  // texts are UTF-8, here and below
  std::vector<std::string> types;  // "point", "line", "area"
  std::optional<std::string> attribute;
  std::optional<std::string> value;  // one of these two at the most
  std::optional<std::string> range;  // LOW:HIGH
  std::optional<std::string> pointText;
  std::optional<std::string> from;  // ISO 8601, UTC
  std::optional<std::string> to;
  std::optional<std::string> area;  // MINX,MINY,MAXX,MAXY
  bool ignoreCase = false;
  bool partial = false;
  bool invert = false;
  bool json = false;
};
ExitStatus Find(const FindOptions& options, Output& out);

// The sub-commands that make a file: it takes its place when it is whole, and one that exists only with `force`.
struct CopyOptions {
  std::string source;
  std::string destination;
  bool force = false;
};
ExitStatus Copy(const CopyOptions& options, Output& out);

struct RepairOptions {
  std::string source;
  std::string destination;
  unsigned short version = 0;  // 0: 2 for a rebuild, the source's own for a salvage
  bool salvage = false;
  bool force = false;
};
ExitStatus Repair(const RepairOptions& options, Output& out);

}  // namespace kesp::tool
