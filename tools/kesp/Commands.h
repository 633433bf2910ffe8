// The sub-commands, one function each: it does its work, reports to the person on standard error, and answers the exit
// status. What fails on standard output is raised (OutputError), and main reports it.
#pragma once
#include <string>

namespace kesp::tool {

class Output;

// Scripts rely on these: never renumber.
enum ExitStatus : int {
  kExitWhole = 0,    // everything was done, and the file is whole
  kExitDamaged = 1,  // the walk over the file ended in damage
  kExitTrouble = 2   // wrong usage, a file that can't be opened, or output that can't be written
};

struct DumpOptions {
  std::string path;  // the bytes of the command line, here and below
  bool includeDeleted = false;
};
ExitStatus Dump(const DumpOptions& options, Output& out);

struct InfoOptions {
  std::string path;
  bool json = false;
};
ExitStatus Info(const InfoOptions& options, Output& out);

}  // namespace kesp::tool
