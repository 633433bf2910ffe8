// kesp copy: a file byte by byte, damage included.
#include "tools/kesp/Commands.h"
#include "tools/kesp/NewFile.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {

ExitStatus Copy(const CopyOptions& options, Output& out) {
  const SteadyFile steady(options.source);
  if (steady.IsWritten()) return kExitTrouble;
  CKespDataFile source;
  if (!OpenForReading(source, options.source)) return kExitTrouble;
  NewFile copy(source, options.destination, options.force ? Existing::kReplace : Existing::kRefuse);
  if (!copy.IsReady()) return kExitTrouble;
  bool good = false;
  {
    // cppcheck-suppress unreadVariable
    const Growth growth(copy, source.m_file.KnownLength());
    good = source.Copy(copy.Path());
  }
  if (!good) {
    Complain(options.destination, WhyNotWritten(source));
    return kExitTrouble;
  }
  const std::uint64_t size = copy.Size();
  if (!copy.Keep()) return kExitTrouble;
  std::uint64_t records = 0;
  RecordWalk walk(source, DeletedRecords::kPassOver);
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    if (step == RecordWalk::Step::kRecord) ++records;
  }
  out.Put("Copied " + std::to_string(size) + " bytes, " + std::to_string(records) +
          (records == 1 ? " record" : " records") + (walk.End().IsWhole() ? "" : "; " + walk.End().Describe()) + "\n")
      .Flush();
  return kExitWhole;
}

}  // namespace kesp::tool
