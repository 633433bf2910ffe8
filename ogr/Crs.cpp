#include "ogr/Crs.h"

#include <cstring>

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <cpl_vsi.h>

namespace kesp::ogr {
namespace {

// Reading a file must not make GDAL read others that its text names; what a user gives may.
CrsPtr FromText(const char* text, CSLConstList limits = nullptr) {
  CrsPtr crs(new OGRSpatialReference);
  crs->SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);  // coordinates are east, north
  if (crs->SetFromUserInput(text, limits) != OGRERR_NONE) return nullptr;
  return crs;
}

// The sidecar's name; empty if there is none.
std::string SidecarOf(const std::string& path, const char* extension, char** siblings) {
  const std::string name = CPLResetExtension(path.c_str(), extension);
  if (siblings != nullptr) return CSLFindString(siblings, CPLGetFilename(name.c_str())) >= 0 ? name : std::string();
  VSIStatBufL info;
  return VSIStatExL(name.c_str(), &info, VSI_STAT_EXISTS_FLAG) == 0 ? name : std::string();
}

CrsPtr FromFile(const std::string& name) {
  constexpr GIntBig kLargest = 64 * 1024;
  GByte* bytes = nullptr;
  if (VSIIngestFile(nullptr, name.c_str(), &bytes, nullptr, kLargest) == FALSE) return nullptr;
  CPLPushErrorHandler(CPLQuietErrorHandler);
  const char* text = reinterpret_cast<const char*>(bytes);
  text += std::strspn(text, " \t\r\n");  // gdalsrsinfo begins with an empty line, which GDAL does not take
  CrsPtr crs = FromText(text, OGRSpatialReference::SET_FROM_USER_INPUT_LIMITATIONS_get());
  CPLPopErrorHandler();
  CPLErrorReset();
  VSIFree(bytes);
  if (crs == nullptr) CPLError(CE_Warning, CPLE_AppDefined, "%s: no reference system that GDAL knows", name.c_str());
  return crs;
}

}  // namespace

std::optional<Crs> FindCrs(const std::string& given, const std::string& path, char** siblings) {
  if (!given.empty()) {
    CrsPtr crs = FromText(given.c_str());
    if (crs != nullptr) return Crs{std::move(crs), {}};
    CPLError(CE_Failure, CPLE_IllegalArg, "Kesp: open option CRS=%s names no reference system", given.c_str());
    return std::nullopt;
  }
  // QGIS writes both, and the first one names more.
  for (const char* const extension : {"qpj", "prj"}) {
    const std::string sidecar = SidecarOf(path, extension, siblings);
    if (sidecar.empty()) continue;
    if (CrsPtr crs = FromFile(sidecar)) return Crs{std::move(crs), sidecar};
  }
  return Crs{};
}

Crs WriteCrs(const OGRSpatialReference& crs, const std::string& path) {
  CrsPtr copy(crs.Clone());
  copy->SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  const std::string sidecar = CPLResetExtension(path.c_str(), "prj");
  char* text = nullptr;
  VSILFILE* const file = crs.exportToWkt(&text) == OGRERR_NONE ? VSIFOpenL(sidecar.c_str(), "wxb") : nullptr;
  const bool isWritten = file != nullptr && VSIFWriteL(text, std::strlen(text), 1, file) == 1;
  const bool isClosed = file != nullptr && VSIFCloseL(file) == 0;
  CPLFree(text);
  if (isWritten && isClosed) return Crs{std::move(copy), sidecar};
  CPLError(CE_Warning, CPLE_FileIO, "%s: can't be written, so the file has no reference system", sidecar.c_str());
  return Crs{std::move(copy), {}};
}

}  // namespace kesp::ogr
