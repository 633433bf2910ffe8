// kesp copy: a file byte by byte, damage included.
#include "tools/kesp/Commands.h"
#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/NewFile.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {
namespace {

struct Copied {
  Verdict verdict;
  std::uint64_t bytes = 0;
  std::uint64_t records = 0;
};

void Report(const CopyOptions& options, const Copied& copied, Output& out) {
  if (options.json) {
    JsonWriter json(out);
    json.BeginObject();
    WriteVerdict(json, CString::FromPathBytes(options.source), copied.verdict);
    json.Key("destination").Text(CString::FromPathBytes(options.destination).View());
    json.Key("bytes").Number(static_cast<std::int64_t>(copied.bytes));
    json.Key("records").Number(static_cast<std::int64_t>(copied.records));
    json.EndObject();
    json.EndLine();
  } else if (!options.quiet) {
    out.Put("Copied " + Counted(copied.bytes, "byte") + ", " + Counted(copied.records, "record") + "\n");
  }
  out.Flush();
}

}  // namespace

ExitStatus Copy(const CopyOptions& options, Output& out) {
  const SteadyFile steady(options.source);
  CKespDataFile source;
  if (const auto refused = OpenForReading(source, options.source)) {
    return Refuse(*refused, options.source, options.json, out);
  }
  Copied copied;
  RecordWalk walk(source, DeletedRecords::kPassOver);
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    if (step == RecordWalk::Step::kRecord) ++copied.records;
  }
  copied.verdict = walk.End();
  const auto fail = [&](const std::string& path, const std::string& why) {
    return Fail(copied.verdict, options.source, path, why, options.json, out);
  };
  if (steady.IsWritten()) return fail(options.source, kIsWritten);
  NewFile copy(source, options.destination, options.force ? Existing::kReplace : Existing::kRefuse);
  if (!copy.IsReady()) return fail({}, copy.Why());
  bool good = false;
  {
    // cppcheck-suppress unreadVariable
    const Growth growth(copy, source.m_file.KnownLength());
    good = source.Copy(copy.Path());
  }
  if (!good) return fail(options.destination, WhyNotWritten(source));
  copied.bytes = copy.Size();
  if (!copy.Keep()) return fail({}, copy.Why());
  Report(options, copied, out);
  if (copied.verdict.IsWhole()) return kExitWhole;
  Complain(options.source, copied.verdict.Describe() + "; so is the copy");
  return copied.verdict.Status();
}

}  // namespace kesp::tool
