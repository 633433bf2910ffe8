// kesp copy: a file byte by byte, damage included.
#include "tools/kesp/Commands.h"
#include "tools/kesp/NewFile.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"

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
  out.Put("Copied " + std::to_string(size) + " bytes\n").Flush();
  return kExitWhole;
}

}  // namespace kesp::tool
