// kesp validate: whether files can be read and each of their features has a point.
#include <algorithm>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Opening.h"

namespace kesp::tool {

ExitStatus Validate(const ValidateOptions& options, Output& out) {
  ExitStatus status = kExitWhole;
  JsonWriter json(out);
  for (const std::string& path : options.paths) {
    const CString name = CString::FromPathBytes(path);
    CKespFile file;
    CString message;
    const ErrorEnum opened = file.OpenKespReadOnly(name, message);
    DatasetEnd end = ValidateDataset(file);
    if (!file.m_pDataFile->IsOpen()) {
      if (opened != ERR_NONE) end.result = opened;
      // The data set has not asked for what is not there; the container, asked by itself, knows why.
      if (opened == ERR_FILE_NOT_FOUND) (void)file.m_pDataFile->OpenReadOnly(name);
      end.reason = WhyNotOpen(*file.m_pDataFile);
    }
    // What is no data file falls short, too; what the system doesn't show can't be judged.
    const bool isJudged = file.m_pDataFile->IsOpen() || file.m_pDataFile->GetSystemError() == 0;
    if (end.result != ERR_NONE) status = std::max(status, isJudged ? kExitDamaged : kExitTrouble);
    if (options.json) {
      json.BeginObject();
      json.Key("path").Text(name.View());
      json.Key("result").Number(std::int64_t{end.result});
      json.Key("reason");
      if (end.result == ERR_NONE) {
        json.Null();
      } else {
        json.Text(CString(end.reason).View());
      }
      json.EndObject();
      json.EndLine();
    } else {
      out.Put(Printable(name)).Put(": ").Put(end.result == ERR_NONE ? "ok" : end.reason).Put('\n');
    }
    out.Flush();
  }
  return status;
}

}  // namespace kesp::tool
