// kesp repair: a file rebuilt record by record, up to the first damage or beyond it.
#include "tools/kesp/Commands.h"
#include "tools/kesp/NewFile.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {
namespace {

constexpr unsigned short kVersionOfRebuild = 2;  // where none is asked for
constexpr std::uint32_t kRecordsOfRebuild = 50;  // where a rebuild takes the records to begin

std::string Counted(std::uint64_t count, std::string_view what) {
  return std::to_string(count) + " " + std::string(what) + (count == 1 ? "" : "s");
}

// What the walk takes and leaves out, and where it ends.
struct Walked {
  SalvageReport report;
  WalkEnd end;
};
Walked WalkOver(CKespDataFile& file) {
  Walked walked;
  RecordWalk walk(file, DeletedRecords::kPassOver);
  std::uint64_t last = 0;  // where it begins, and what it was counted as
  std::uint64_t* count = nullptr;
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    last = walk.Offset();
    count = step == RecordWalk::Step::kRecord ? &walked.report.kept
            : walk.IsDeleted()                ? &walked.report.deleted
                                              : &walked.report.unknown;
    ++*count;
  }
  walked.end = walk.End();
  const std::uint64_t length = file.m_file.KnownLength();
  const auto noteGap = [&](std::uint64_t offset, KESP_ERROR_TYPE reason) {
    walked.report.gapCount = 1;
    walked.report.gapBytes = length - offset;
    walked.report.gaps.push_back({offset, length - offset, reason});
  };
  if (walked.end.offset > length && count != nullptr) {
    // Only a record that is passed over can claim to go on behind the end.
    --*count;
    noteGap(last, KESP_ERROR_RECORD_HEADER);
  } else if (!walked.end.IsWhole() && walked.end.offset < length) {
    noteGap(walked.end.offset, walked.end.error);
  }
  return walked;
}

unsigned short VersionOfRebuild(const RepairOptions& options) {
  return options.version != 0 ? options.version : kVersionOfRebuild;
}

bool Rebuild(CKespDataFile& source, const NewFile& copy, const RepairOptions& options, SalvageReport& report) {
  // cppcheck-suppress unreadVariable
  const Growth growth(copy, source.m_file.KnownLength());
  if (options.salvage) return Salvage(source, copy.Path(), options.version, report);
  const Walked walked = WalkOver(source);
  report = walked.report;
  if (walked.end.systemError != 0) return false;
  // A version-1 feature that is cut short is answered with false, though all before it is there: counting tells.
  return source.CopyVerify(copy.Path(), VersionOfRebuild(options)) || source.GetSystemError() == 0;
}

// Read once more: a copy that is given out as whole has been seen to be so.
bool Holds(const NewFile& copy, std::uint64_t records) {
  CKespDataFile file;
  if (!file.OpenReadOnly(copy.Path())) return false;
  const Walked walked = WalkOver(file);
  return walked.end.IsWhole() && walked.report.kept == records;
}

void Tell(Output& out, CKespDataFile& source, std::uint64_t size, const SalvageReport& report) {
  out.Put("Kept      " + Counted(report.kept, "record") + ", " + std::to_string(size) + " bytes of " +
          std::to_string(source.m_file.KnownLength()) + "\n");
  out.Put("Left out  " + Counted(report.deleted, "deleted record") + ", " + Counted(report.unknown, "record") +
          " of unknown type, " + std::to_string(report.gapBytes) + " damaged bytes\n");
  if (report.applicationBytes != 0) {
    out.Put("Left out  an application header of " + Counted(report.applicationBytes, "byte") + "\n");
  }
  for (const SalvageGap& gap : report.gaps) {
    out.Put("Gap       at offset " + std::to_string(gap.offset) + ", " + Counted(gap.length, "byte") + ": " +
            (gap.reason == KESP_ERROR_NONE ? "a record body that can't be read"
                                           : source.m_errorStrings[gap.reason].ToUtf8()) +
            "\n");
  }
  if (report.gapCount > report.gaps.size()) {
    out.Put("and " + Counted(report.gapCount - report.gaps.size(), "more gap") + "\n");
  }
}

void TellLoss(Output& out, const FormatLoss& loss, unsigned short version) {
  const auto tell = [&](const FormatLoss::Kind& kind, const char* what) {
    if (kind.records == 0) return;
    out.Put("Lost      in version " + std::to_string(version) + ", " + Counted(kind.texts, "text") + " and " +
            Counted(kind.numbers, "number") + " of " + Counted(kind.records, what) + "\n");
  };
  tell(loss.headers, "header");
  tell(loss.features, "feature");
  tell(loss.points, "point");
  tell(loss.attributes, "attribute");
  tell(loss.notes, "note");
}

// A salvage also takes a file whose header can't be read.
bool OpenSource(CKespDataFile& source, const RepairOptions& options) {
  const CString path = CString::FromPathBytes(options.source);
  if (source.OpenReadOnly(path)) return true;
  const KESP_ERROR_TYPE error = source.GetError();
  const bool isHeader = error == KESP_ERROR_SIGNATURE || error == KESP_ERROR_FILE_HEADER || error == KESP_ERROR_EOF;
  if (options.salvage && isHeader && source.m_file.Open(path, CFile::modeRead | CFile::shareDenyNone)) return true;
  Complain(options.source, WhyNotOpen(source));
  return false;
}

}  // namespace

ExitStatus Repair(const RepairOptions& options, Output& out) {
  const SteadyFile steady(options.source);
  if (steady.IsWritten()) return kExitTrouble;
  CKespDataFile source;
  if (!OpenSource(source, options)) return kExitTrouble;
  const bool hasHeader = source.GetError() == KESP_ERROR_NONE;
  const std::string headerError = WhyNotOpen(source);
  if (!options.salvage && source.m_firstRecordOffset != kRecordsOfRebuild) {
    Complain(options.source, "its records don't begin right behind the file header; --salvage can deal with that");
    return kExitTrouble;
  }
  NewFile copy(source, options.destination, options.force ? Existing::kReplace : Existing::kRefuse);
  if (!copy.IsReady()) return kExitTrouble;
  SalvageReport report;
  if (!Rebuild(source, copy, options, report)) {
    Complain(options.destination, WhyNotWritten(source));
    return kExitTrouble;
  }
  if (!hasHeader && report.kept == 0) {
    Complain(options.source, headerError + ", and no record stands behind it");
    return kExitTrouble;
  }
  if (!Holds(copy, report.kept)) {
    Complain(options.destination, "the copy does not read back");
    return kExitTrouble;
  }
  const std::uint64_t size = copy.Size();
  if (!copy.Keep()) return kExitTrouble;
  Tell(out, source, size, report);
  if (!options.salvage) {
    out.Put("Written   in the layouts of file version " + std::to_string(VersionOfRebuild(options)) +
            "; a rebuild knows 1 and 2 only\n");
  } else if (options.version != 0) {
    TellLoss(out, report.loss, options.version);
    out.Put("Written   in file version " + std::to_string(options.version) + "\n");
  } else {
    out.Put("Written   in the version of the file, each record in its own\n");
  }
  out.Flush();
  return report.gapCount == 0 ? kExitWhole : kExitDamaged;
}

}  // namespace kesp::tool
