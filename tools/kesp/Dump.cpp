// kesp dump: every record as a line of JSON, and a last line that says how the walk ended.
#include <unistd.h>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"
#include "tools/kesp/RecordJson.h"

namespace kesp::tool {
namespace {

void WriteLastLine(Output& out, KESP_ERROR_TYPE error, const CString& message) {
  JsonWriter json(out);
  json.BeginObject();
  json.Key("end");
  WriteEnd(json, error, message);
  json.EndObject();
  json.EndLine();
  out.Flush();
}

}  // namespace

ExitStatus Dump(const DumpOptions& options, Output& out) {
  CKespDataFile file;
  if (!OpenForReading(file, options.path)) {
    WriteLastLine(out, file.GetError(), file.GetErrorString());
    return kExitTrouble;
  }
  RecordWalk walk(file, options.includeDeleted ? RecordWalk::Deleted::kInclude : RecordWalk::Deleted::kPassOver);
  // Records that run over the screen tell enough.
  Progress progress(file.m_file.KnownLength(), Progress::OnTerminal() && ::isatty(STDOUT_FILENO) == 0);
  JsonWriter json(out);
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    if (step == RecordWalk::Step::kRecord) WriteRecordLine(json, walk);
    progress.Update(walk.Offset());
  }
  progress.Erase();
  WriteLastLine(out, walk.End().error, walk.End().message);
  if (walk.End().IsWhole()) return kExitWhole;
  Complain(options.path, walk.End().Describe());
  return kExitDamaged;
}

}  // namespace kesp::tool
