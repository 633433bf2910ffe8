// kesp validate: whether files are whole, and what is wrong with what they hold.
#include <algorithm>

#include "tools/kesp/Commands.h"
#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Scan.h"

namespace kesp::tool {
namespace {

void WriteFindings(JsonWriter& json, const Scan& scan, bool remarks) {
  json.BeginArray();
  for (const Finding& finding : scan.findings) {
    if (finding.isRemark != remarks) continue;
    json.BeginObject();
    json.Key("code").Text(std::string_view(finding.code));
    json.Key("count").Number(static_cast<std::int64_t>(finding.count));
    json.Key("numbers").BeginArray();
    for (const std::uint32_t number : finding.numbers) json.Number(std::int64_t{number});
    json.EndArray();
    json.Key("message").Text(finding.text);
    json.EndObject();
  }
  json.EndArray();
}

void WriteJson(Output& out, const CString& path, const Scan& scan) {
  JsonWriter json(out);
  json.BeginObject();
  WriteVerdict(json, path, scan.end);
  json.Key("problems");
  WriteFindings(json, scan, false);
  json.Key("remarks");
  WriteFindings(json, scan, true);
  json.EndObject();
  json.EndLine();
}

std::string NumbersOf(const Finding& finding) {
  std::string text;
  constexpr std::size_t kMostShown = 10;
  for (std::size_t i = 0; i < std::min(finding.numbers.size(), kMostShown); ++i) {
    text += (i == 0 ? ": " : ", ") + std::to_string(finding.numbers[i]);
  }
  if (!finding.numbers.empty() && finding.count > kMostShown) text += " and others";
  return text;
}

void WriteText(Output& out, const std::string& path, const Scan& scan) {
  const bool hasProblems =
      std::any_of(scan.findings.begin(), scan.findings.end(), [](const Finding& f) { return !f.isRemark; });
  out.Put(PrintablePath(path)).Put(": ");
  if (!scan.end.IsWhole()) {
    out.Put(Coloured(scan.end.Describe(), Colour::kBad));
  } else {
    out.Put(Coloured(hasProblems ? "whole, with problems" : "whole", hasProblems ? Colour::kBad : Colour::kGood));
  }
  out.Put('\n');
  for (const Finding& finding : scan.findings) {
    out.Put(finding.isRemark ? "  remark: " : "  problem: ").Put(finding.text).Put(NumbersOf(finding)).Put('\n');
  }
}

ExitStatus ValidateOne(const ValidateOptions& options, const std::string& path, Output& out) {
  CKespDataFile file;
  const Scan scan = OpenAndScan(file, path);
  if (options.json) {
    WriteJson(out, CString::FromPathBytes(path), scan);
  } else if (!options.quiet) {
    WriteText(out, path, scan);
  }
  out.Flush();
  const bool hasProblems =
      std::any_of(scan.findings.begin(), scan.findings.end(), [](const Finding& f) { return !f.isRemark; });
  return std::max(scan.end.Status(), options.strict && hasProblems ? kExitDamaged : kExitWhole);
}

}  // namespace

ExitStatus Validate(const ValidateOptions& options, Output& out) {
  ExitStatus status = kExitWhole;
  for (const std::string& path : options.paths) status = std::max(status, ValidateOne(options, path, out));
  return status;
}

}  // namespace kesp::tool
