// Whether a file is whole, what is wrong with it, and a copy of what can be saved.
#include "python/src/Errors.h"
#include "python/src/Reading.h"
#include "python/src/Text.h"
#include "python/src/Watch.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/RecordWalk.h"
#include "tools/kesp/Scan.h"

#include "kesp/salvage/Salvage.h"

namespace kesp::python {
namespace {

py::tuple Validate(const py::object& path, const py::object& progress) {
  const CString name = ToPath(path);
  Watch watch(progress);
  CKespDataFile file;
  OpenWatched(file, name, watch);
  tool::Scan scan;
  {
    const py::gil_scoped_release released;
    scan = tool::ScanFile(file, tool::ShowsProgress::kNo);
  }
  watch.Rethrow();
  if (scan.end.cause == tool::Verdict::Cause::kUnreadable) Raise(scan.end, name);
  py::list findings;
  for (const tool::Finding& finding : scan.findings) {
    findings.append(py::make_tuple(ToStr(std::string_view(finding.code)), finding.count,
                                   py::tuple(py::cast(finding.numbers)), ToStr(finding.text), finding.isRemark));
  }
  py::dict counts;
  for (const auto& [kind, tally] : scan.records) {
    const char* const type = tool::TypeName(static_cast<KESP_RECORD_TYPE>(kind.first));
    const py::str key(type != nullptr ? type : "unknown");
    const std::uint64_t before = counts.contains(key) ? counts[key].cast<std::uint64_t>() : 0;
    counts[key] = before + tally.count - tally.deleted;
  }
  return py::make_tuple(DamageOf(scan.end), findings, counts, scan.features, scan.all.deleted);
}

py::list LossList(const FormatLoss& loss) {
  py::list out;
  const std::pair<const char*, const FormatLoss::Kind*> kKinds[] = {{"header", &loss.headers},
                                                                    {"feature", &loss.features},
                                                                    {"point", &loss.points},
                                                                    {"attribute", &loss.attributes},
                                                                    {"note", &loss.notes}};
  for (const auto& [type, kind] : kKinds) {
    if (kind->records != 0) out.append(py::make_tuple(type, kind->records, kind->texts, kind->numbers));
  }
  return out;
}

py::dict ReportOf(const CKespDataFile& source, const SalvageReport& report) {
  py::list gaps;
  for (const SalvageGap& gap : report.gaps) {
    const std::string reason =
        gap.reason == KESP_ERROR_NONE ? "a record body that can't be read" : source.m_errorStrings[gap.reason].ToUtf8();
    gaps.append(py::make_tuple(gap.offset, gap.length, static_cast<int>(gap.reason), reason));
  }
  py::dict out;
  out["kept"] = report.kept;
  out["deleted"] = report.deleted;
  out["unknown"] = report.unknown;
  out["application_bytes"] = report.applicationBytes;
  out["gap_count"] = report.gapCount;
  out["gap_bytes"] = report.gapBytes;
  out["gaps"] = gaps;
  out["lost"] = LossList(report.loss);
  return out;
}

// A file whose header can't be read is opened without a look at it: a salvage goes on after that.
void OpenForSalvage(CKespDataFile& source, const CString& path, Watch& watch) {
  {
    const py::gil_scoped_release released;
    const auto refused = tool::OpenForReading(source, path.ToPathBytes());
    const bool isHeader = refused && (refused->error == KESP_ERROR_SIGNATURE || refused->error == KESP_ERROR_EOF ||
                                      refused->error == KESP_ERROR_FILE_HEADER);
    if (isHeader) (void)source.m_file.Open(WatchedSource(path, watch), path);
    if (isHeader && source.m_file.IsOpen()) return;
    source.Close();
  }
  OpenWatched(source, path, watch);
}

// Keeps others from opening a file for writing, until it is closed. Fails if somebody has it open so.
class Hold {
 public:
  explicit Hold(const py::object& path) {
    const CString name = ToPath(path);
    CFileException failure(CFileException::none, name);
    if (!m_file.Open(name, CFile::modeReadWrite | CFile::shareDenyWrite, &failure)) RaiseOs(failure.m_lOsError, name);
  }
  void Close() noexcept { m_file.Abort(); }

 private:
  CFile m_file;
};

// Writes the copy to `destination`, which is there and empty.
py::dict Rebuild(const py::object& path, const py::object& destination, bool salvage, unsigned short version,
                 const py::object& progress) {
  const CString from = ToPath(path);
  const CString to = ToPath(destination);
  Watch watch(progress);
  CKespDataFile source;
  if (salvage) {
    OpenForSalvage(source, from, watch);
  } else {
    OpenWatched(source, from, watch);
  }
  SalvageReport report;
  bool isWritten = false;
  {
    const py::gil_scoped_release released;
    isWritten = salvage ? kesp::Salvage(source, to, version, report) : kesp::Rebuild(source, to, version, report);
  }
  watch.Rethrow();
  if (!isWritten) RaiseWriteFailure(source, to);
  return ReportOf(source, report);
}

}  // namespace

void BindChecking(py::module_& module) {
  module.def("validate", &Validate);
  module.def("rebuild", &Rebuild);
  py::class_<Hold>(module, "Hold").def(py::init<const py::object&>()).def("close", &Hold::Close);
}

}  // namespace kesp::python
