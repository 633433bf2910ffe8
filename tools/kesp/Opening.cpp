#include "tools/kesp/Opening.h"

#include <cerrno>
#include <limits>
#include <system_error>

#include "tools/kesp/JsonWriter.h"

namespace kesp::tool {
namespace {

std::string WhyNotOpen(const CKespDataFile& file) {
  if (file.GetSystemError() == EWOULDBLOCK) return "in use by another program";
  if (const int osError = file.GetSystemError(); osError != 0) return std::generic_category().message(osError);
  switch (file.GetError()) {
    case KESP_ERROR_SIGNATURE:
      return "not a Kesp data file (" + file.GetErrorString().ToUtf8() + ")";
    case KESP_ERROR_EOF:
      return "the file header is cut short (" + file.GetErrorString().ToUtf8() + ")";
    case KESP_ERROR_FILE_HEADER:
      return "the file header names a first record past the end of the file (" + file.GetErrorString().ToUtf8() + ")";
    default:
      return file.GetErrorString().ToUtf8();
  }
}

std::optional<Verdict> Check(CKespDataFile& file) {
  if (!file.IsOpen()) return Verdict::NotOpened(file, WhyNotOpen(file));
  const std::uint64_t length = file.m_file.KnownLength();
  if (length <= std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  file.Close();
  return Verdict::TooLong(length);
}

}  // namespace

std::optional<Verdict> OpenForReading(CKespDataFile& file, const std::string& path) {
  (void)file.OpenReadOnly(CString::FromPathBytes(path));
  return Check(file);
}

std::optional<Verdict> OpenForWriting(CKespDataFile& file, const std::string& path) {
  (void)file.Open(CString::FromPathBytes(path));
  return Check(file);
}

// A data set does not come to its container when nothing is there, and then knows no reason; the container asked by
// itself has one.

std::optional<Verdict> OpenForReading(CKespFile& file, const std::string& path) {
  CString message;
  (void)file.OpenKespReadOnly(CString::FromPathBytes(path), message);
  return file.m_pDataFile->IsOpen() ? Check(*file.m_pDataFile) : OpenForReading(*file.m_pDataFile, path);
}

std::optional<Verdict> OpenForWriting(CKespFile& file, const std::string& path) {
  CString message;
  (void)file.OpenKesp(CString::FromPathBytes(path), message);
  return file.m_pDataFile->IsOpen() ? Check(*file.m_pDataFile) : OpenForWriting(*file.m_pDataFile, path);
}

ExitStatus Refuse(const Verdict& verdict, const std::string& path, bool json, Output& out) {
  if (json) {
    JsonWriter writer(out);
    WriteVerdictLine(writer, CString::FromPathBytes(path), verdict);
    out.Flush();
  }
  Complain(path, verdict.Describe());
  if (const std::string advice = verdict.Advice(); !advice.empty()) Complain({}, advice);
  return verdict.Status();
}

ExitStatus Fail(const Verdict& verdict, const std::string& source, const std::string& path, const std::string& why,
                bool json, Output& out) {
  if (json) {
    JsonWriter writer(out);
    WriteFailureLine(writer, CString::FromPathBytes(source), verdict, why);
    out.Flush();
  }
  if (!path.empty()) Complain(path, why);
  return kExitTrouble;
}

CKespFile& DatasetOfThisRun() {
  static auto* const dataset = new CKespFile;
  return *dataset;
}

std::string WhyNotWritten(const CKespDataFile& file) {
  const int osError = file.GetSystemError() != 0 ? file.GetSystemError() : file.m_file.LastSystemError();
  return osError != 0 ? std::generic_category().message(osError) : "writing failed";
}

}  // namespace kesp::tool
