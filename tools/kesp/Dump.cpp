// kesp dump: every record as a line of JSON, and a last line that says how the walk ended; or one document of the data
// set.
#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"
#include "tools/kesp/RecordJson.h"

namespace kesp::tool {
namespace {

void WriteLastLine(Output& out, const Verdict& verdict) {
  JsonWriter json(out);
  json.BeginObject();
  json.Key("end");
  WriteEnd(json, verdict.error, verdict.message);
  json.EndObject();
  json.EndLine();
  out.Flush();
}

ExitStatus DumpDataset(const DumpOptions& options, DeletedRecords deleted, Output& out) {
  CKespFile& file = DatasetOfThisRun();
  const auto refused = OpenForReading(file, options.path);
  const DatasetEnd end = refused ? DatasetEnd{ERR_FILE_NOT_OPEN, *refused} : ReadDataset(file, deleted);
  JsonWriter json(out);
  WriteDataset(json, file, end);
  out.Flush();
  return end.verdict.IsWhole() ? kExitWhole : Refuse(end.verdict, options.path, false, out);
}

ExitStatus DumpRecords(const DumpOptions& options, DeletedRecords deleted, Output& out) {
  CKespDataFile file;
  if (const auto refused = OpenForReading(file, options.path)) {
    WriteLastLine(out, *refused);
    return Refuse(*refused, options.path, false, out);
  }
  RecordWalk walk(file, deleted);
  // Records that run over the screen tell enough.
  Progress progress(file.m_file.KnownLength(), Progress::OnTerminal() && !IsTerminal(Stream::kOutput));
  JsonWriter json(out);
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    progress.Update(walk.View().Position());
    if (step == RecordWalk::Step::kRecord) WriteRecordLine(json, walk);
  }
  progress.Erase();
  WriteLastLine(out, walk.End());
  return walk.End().IsWhole() ? kExitWhole : Refuse(walk.End(), options.path, false, out);
}

}  // namespace

ExitStatus Dump(const DumpOptions& options, Output& out) {
  const auto deleted = options.includeDeleted ? DeletedRecords::kInclude : DeletedRecords::kPassOver;
  return options.dataset ? DumpDataset(options, deleted, out) : DumpRecords(options, deleted, out);
}

}  // namespace kesp::tool
