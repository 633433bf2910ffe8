// kesp repair: a file rebuilt record by record, up to the first damage or beyond it.
#include <limits>

#include "tools/kesp/Commands.h"
#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/NewFile.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {
namespace {

constexpr std::uint64_t kLongest = std::numeric_limits<std::uint32_t>::max();

struct Rebuilt {
  Verdict source;
  SalvageReport report;
  std::uint64_t sourceSize = 0;
  std::uint64_t size = 0;
  unsigned short format = 0;  // file version of the new file
};

std::uint64_t RecordsLost(const FormatLoss& loss) {
  return loss.headers.records + loss.features.records + loss.points.records + loss.attributes.records +
         loss.notes.records;
}

template <class Use>
void ForEachKind(const FormatLoss& loss, Use use) {
  use(loss.headers, "header");
  use(loss.features, "feature");
  use(loss.points, "point");
  use(loss.attributes, "attribute");
  use(loss.notes, "note");
}

void TellLoss(Output& out, const FormatLoss& loss) {
  ForEachKind(loss, [&](const FormatLoss::Kind& kind, const char* what) {
    if (kind.records == 0) return;
    out.Put("Lost      " + Counted(kind.texts, "text") + " and " + Counted(kind.numbers, "number") + " of " +
            Counted(kind.records, what) + "\n");
  });
}

std::string ReasonOf(const CKespDataFile& source, const SalvageGap& gap) {
  return gap.reason == KESP_ERROR_NONE ? "a record body that can't be read"
                                       : source.m_errorStrings[gap.reason].ToUtf8();
}

void WriteText(Output& out, const CKespDataFile& source, const Rebuilt& rebuilt) {
  const SalvageReport& report = rebuilt.report;
  out.Put("Kept      " + Counted(report.kept, "record") + ", " + std::to_string(rebuilt.size) + " bytes of " +
          std::to_string(rebuilt.sourceSize) + "\n");
  out.Put("Left out  " + Counted(report.deleted, "deleted record") + ", " + Counted(report.unknown, "record") +
          " of unknown type, " + std::to_string(report.gapBytes) + " damaged bytes\n");
  if (report.applicationBytes != 0) {
    out.Put("Left out  an application header of " + Counted(report.applicationBytes, "byte") + "\n");
  }
  for (const SalvageGap& gap : report.gaps) {
    out.Put("Gap       at offset " + std::to_string(gap.offset) + ", " + Counted(gap.length, "byte") + ": " +
            ReasonOf(source, gap) + "\n");
  }
  if (report.gapCount > report.gaps.size()) {
    out.Put("and " + Counted(report.gapCount - report.gaps.size(), "more gap") + "\n");
  }
  TellLoss(out, report.loss);
  out.Put("Written   in file version " + std::to_string(rebuilt.format) + "\n");
}

void WriteJson(Output& out, const RepairOptions& options, const CKespDataFile& source, const Rebuilt& rebuilt) {
  const SalvageReport& report = rebuilt.report;
  JsonWriter json(out);
  const auto count = [&](const char* key, std::uint64_t value) {
    json.Key(key).Number(static_cast<std::int64_t>(value));
  };
  json.BeginObject();
  WriteVerdict(json, CString::FromPathBytes(options.source), rebuilt.source);
  json.Key("destination").Text(CString::FromPathBytes(options.destination).View());
  count("format", rebuilt.format);
  count("bytes", rebuilt.size);
  count("kept", report.kept);
  count("deleted", report.deleted);
  count("unknown", report.unknown);
  count("applicationBytes", report.applicationBytes);
  count("gapBytes", report.gapBytes);
  count("gapCount", report.gapCount);
  json.Key("gaps").BeginArray();
  for (const SalvageGap& gap : report.gaps) {
    json.BeginObject();
    count("offset", gap.offset);
    count("length", gap.length);
    json.Key("reason").Text(ReasonOf(source, gap));
    json.EndObject();
  }
  json.EndArray();
  json.Key("lost").BeginArray();
  ForEachKind(report.loss, [&](const FormatLoss::Kind& kind, const char* what) {
    if (kind.records == 0) return;
    json.BeginObject();
    json.Key("type").Text(std::string_view(what));
    count("records", kind.records);
    count("texts", kind.texts);
    count("numbers", kind.numbers);
    json.EndObject();
  });
  json.EndArray();
  json.EndObject();
  json.EndLine();
}

void Report(const RepairOptions& options, const CKespDataFile& source, const Rebuilt& rebuilt, Output& out) {
  if (options.json) {
    WriteJson(out, options, source, rebuilt);
  } else if (!options.quiet) {
    WriteText(out, source, rebuilt);
  }
  out.Flush();
}

Verdict VerdictOf(CKespDataFile& file) {
  RecordWalk walk(file, DeletedRecords::kPassOver);
  while (walk.Next() != RecordWalk::Step::kEnd) {
  }
  return walk.End();
}

// Opens the source, and says what it is. A salvage also takes a file whose header can't be read.
Verdict OpenSource(CKespDataFile& source, const RepairOptions& options) {
  const auto refused = OpenForReading(source, options.source);
  if (!refused) return VerdictOf(source);
  const CString path = CString::FromPathBytes(options.source);
  if (refused->cause == Verdict::Cause::kTooLong) {
    if (options.first4Gib && source.OpenReadOnly(path)) source.LimitLength(kLongest);
    return *refused;
  }
  const bool isHeader = refused->error == KESP_ERROR_SIGNATURE || refused->error == KESP_ERROR_FILE_HEADER ||
                        refused->error == KESP_ERROR_EOF;
  if (options.salvage && isHeader) (void)source.m_file.Open(path, CFile::modeRead | CFile::shareDenyNone);
  return *refused;
}

bool Make(CKespDataFile& source, const NewFile& copy, const RepairOptions& options, SalvageReport& report) {
  // cppcheck-suppress unreadVariable
  const Growth growth(copy, source.m_file.KnownLength());
  if (options.salvage && !options.first4Gib) return Salvage(source, copy.Path(), options.format, report);
  return Rebuild(source, copy.Path(), options.format, report);
}

// Read once more: a copy that is given out as whole has been seen to be so.
bool Holds(const NewFile& copy, std::uint64_t records) {
  CKespDataFile file;
  if (!file.OpenReadOnly(copy.Path())) return false;
  RecordWalk walk(file, DeletedRecords::kPassOver);
  std::uint64_t kept = 0;
  while (walk.Next() == RecordWalk::Step::kRecord) ++kept;
  return walk.End().error == KESP_ERROR_NORMAL_EOF && kept == records;
}

unsigned short VersionOf(const NewFile& copy) {
  CKespDataFile file;
  return file.OpenReadOnly(copy.Path()) ? file.m_version : 0;
}

}  // namespace

ExitStatus Repair(const RepairOptions& options, Output& out) {
  const SteadyFile steady(options.source);
  CKespDataFile source;
  Rebuilt rebuilt;
  rebuilt.source = OpenSource(source, options);
  if (!source.m_file.IsOpen()) return Refuse(rebuilt.source, options.source, options.json, out);
  const auto fail = [&](const std::string& path, const std::string& why) {
    return Fail(rebuilt.source, options.source, path, why, options.json, out);
  };
  if (steady.IsWritten()) return fail(options.source, kIsWritten);
  rebuilt.sourceSize = source.m_file.KnownLength();
  NewFile copy(source, options.destination, options.force ? Existing::kReplace : Existing::kRefuse);
  if (!copy.IsReady()) return fail({}, copy.Why());
  if (!Make(source, copy, options, rebuilt.report)) return fail(options.destination, WhyNotWritten(source));
  if (rebuilt.source.cause == Verdict::Cause::kNotOpened && rebuilt.report.kept == 0) {
    return fail(options.source, rebuilt.source.Describe() + ", and no record comes after it");
  }
  if (!Holds(copy, rebuilt.report.kept)) return fail(options.destination, "the copy does not read back");
  if (const std::uint64_t lost = RecordsLost(rebuilt.report.loss); lost != 0 && !options.lossy) {
    if (!options.json) TellLoss(out, rebuilt.report.loss);
    out.Flush();
    return fail(options.destination, "file version " + std::to_string(options.format) + " can't hold all of " +
                                         Counted(lost, "record") + "; nothing is written without --lossy");
  }
  rebuilt.size = copy.Size();
  rebuilt.format = VersionOf(copy);
  if (!copy.Keep()) return fail({}, copy.Why());
  Report(options, source, rebuilt, out);
  if (rebuilt.source.IsWhole()) return kExitWhole;
  Complain(options.source, rebuilt.source.Describe());
  return kExitDamaged;
}

}  // namespace kesp::tool
