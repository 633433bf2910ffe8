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
    const bool isOpen = OpenForReading(file, path);
    DatasetEnd end = ValidateDataset(file);
    if (!isOpen) end.reason = WhyNotOpen(*file.m_pDataFile);
    if (end.result != ERR_NONE) status = std::max(status, isOpen ? kExitDamaged : kExitTrouble);
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
