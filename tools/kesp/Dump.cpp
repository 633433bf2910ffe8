// kesp dump: every record as a line of JSON, and a last line that says how the walk ended; or one document of the data
// set.
#include <unistd.h>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
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

ExitStatus DumpDataset(const DumpOptions& options, DeletedRecords deleted, Output& out) {
  CKespFile& file = DatasetOfThisRun();
  const bool isOpen = OpenForReading(file, options.path);
  const DatasetEnd end = ReadDataset(file, deleted);
  JsonWriter json(out);
  WriteDataset(json, file, end);
  out.Flush();
  if (!isOpen) return kExitTrouble;
  if (end.IsComplete()) return kExitWhole;
  Complain(options.path, end.reason);
  return kExitDamaged;
}

}  // namespace

ExitStatus Dump(const DumpOptions& options, Output& out) {
  const auto deleted = options.includeDeleted ? DeletedRecords::kInclude : DeletedRecords::kPassOver;
  if (options.dataset) return DumpDataset(options, deleted, out);
  CKespDataFile file;
  if (!OpenForReading(file, options.path)) {
    WriteLastLine(out, file.GetError(), file.GetErrorString());
    return kExitTrouble;
  }
  RecordWalk walk(file, deleted);
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
