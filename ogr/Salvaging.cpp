#include "ogr/Salvaging.h"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_vsi.h>

#include "kesp/salvage/Salvage.h"

namespace kesp::ogr {
namespace {

void Warn(const std::string& path, const SalvageReport& report) {
  for (const SalvageGap& gap : report.gaps) {
    CPLDebug("Kesp", "%s: gap at offset %llu, %llu bytes", path.c_str(), static_cast<unsigned long long>(gap.offset),
             static_cast<unsigned long long>(gap.length));
  }
  const unsigned long long first = report.gaps.empty() ? 0 : report.gaps.front().offset;
  CPLError(
      CE_Warning, CPLE_AppDefined,
      "%s: damaged: %llu bytes in %llu gaps, the first at offset %llu, can't be understood; %llu records were saved",
      path.c_str(), static_cast<unsigned long long>(report.gapBytes), static_cast<unsigned long long>(report.gapCount),
      first, static_cast<unsigned long long>(report.kept));
}

}  // namespace

std::unique_ptr<SurveyFile> OpenSalvaged(SurveyFile& damaged, const std::string& path) {
  const std::string copy = CPLGenerateTempFilename("kesp");
  SalvageReport report;
  const bool isSaved = Salvage(damaged.Container(), CString::FromPathBytes(copy), 0, report);
  std::unique_ptr<SurveyFile> file;
  if (isSaved) {
    file = SurveyFile::Open(copy, damaged.IncludesDeleted());
    Warn(path, report);
  } else {
    CPLError(CE_Failure, CPLE_FileIO, "%s: can't be salvaged into the temporary file %s", path.c_str(), copy.c_str());
  }
  VSIUnlink(copy.c_str());  // an open file stays readable
  return file;
}

}  // namespace kesp::ogr
