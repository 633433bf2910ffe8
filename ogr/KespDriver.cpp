// The driver and its registration. GDAL finds the plugin by its file name, ogr_Kesp.so, and calls RegisterOGRKesp.
#include <gdal_priv.h>

#include <cstring>
#include <string_view>

#include "ogr/Dataset.h"
#include "ogr/Options.h"

namespace kesp::ogr {
namespace {

// By the bytes that GDAL has read already: it asks about every file that anybody opens.
int Identify(GDALOpenInfo* info) {
  constexpr std::string_view kSignature = "Corvanthe Survey Devices -- Kesp Data File";
  return info->nHeaderBytes >= static_cast<int>(kSignature.size()) &&
         std::memcmp(info->pabyHeader, kSignature.data(), kSignature.size()) == 0;
}

GDALDataset* Open(GDALOpenInfo* info) {
  if (Identify(info) == 0 || info->eAccess == GA_Update) return nullptr;
  if (STARTS_WITH(info->pszFilename, "/vsi")) {
    CPLError(CE_Failure, CPLE_NotSupported, "%s: the Kesp driver reads only files of the system", info->pszFilename);
    return nullptr;
  }
  const std::optional<Options> options = ParseOptions(info->papszOpenOptions);
  if (!options) return nullptr;
  // Without a list at hand, asking for two names costs less than reading the folder.
  char** const siblings = info->AreSiblingFilesLoaded() ? info->GetSiblingFiles() : nullptr;
  return Dataset::Open(info->pszFilename, *options, siblings).release();
}

}  // namespace
}  // namespace kesp::ogr

extern "C" CPL_DLL void RegisterOGRKesp();

void RegisterOGRKesp() {
  constexpr const char* kName = "Kesp";
  if (!GDAL_CHECK_VERSION(kName) || GDALGetDriverByName(kName) != nullptr) return;
  auto driver = std::make_unique<GDALDriver>();
  driver->SetDescription(kName);
  driver->SetMetadataItem(GDAL_DMD_LONGNAME, "Kesp data file");
  driver->SetMetadataItem(GDAL_DMD_EXTENSION, "kesp");
  driver->SetMetadataItem(GDAL_DMD_EXTENSIONS, "kesp");
  driver->SetMetadataItem(GDAL_DMD_OPENOPTIONLIST, kesp::ogr::kOptionList);
  for (const char* const capability :
       {GDAL_DCAP_VECTOR, GDAL_DCAP_OPEN, GDAL_DCAP_MULTIPLE_VECTOR_LAYERS, GDAL_DCAP_FIELD_DOMAINS,
        GDAL_DCAP_RELATIONSHIPS, GDAL_DCAP_FEATURE_STYLES, GDAL_DCAP_MEASURED_GEOMETRIES, GDAL_DCAP_Z_GEOMETRIES}) {
    driver->SetMetadataItem(capability, "YES");
  }
  driver->pfnIdentify = kesp::ogr::Identify;
  driver->pfnOpen = kesp::ogr::Open;
  GetGDALDriverManager()->RegisterDriver(driver.release());
}
