// The driver and its registration. GDAL finds the plugin by its file name, ogr_Kesp.so, and calls RegisterOGRKesp.
#include <gdal_priv.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "ogr/Dataset.h"
#include "ogr/Options.h"

namespace kesp::ogr {
namespace {

// By the bytes that GDAL has read already: it asks about every file that anybody opens.
int Identify(GDALOpenInfo* info) {
  constexpr std::string_view kSignature = "Corvanthe Survey Devices -- Kesp Data File";
  const bool isKesp = info->nHeaderBytes >= static_cast<int>(kSignature.size()) &&
                      std::memcmp(info->pabyHeader, kSignature.data(), kSignature.size()) == 0;
  return isKesp ? TRUE : FALSE;
}

GDALDataset* Open(GDALOpenInfo* info) {
  if (Identify(info) == 0) return nullptr;
  const std::optional<Options> options = ParseOptions(info->papszOpenOptions);
  if (!options) return nullptr;
  // Without a list at hand, asking for two names costs less than reading the folder.
  char** const siblings = info->AreSiblingFilesLoaded() ? info->GetSiblingFiles() : nullptr;
  const auto access = info->eAccess == GA_Update ? SurveyFile::Access::kWrite : SurveyFile::Access::kRead;
  return Dataset::Open(info->pszFilename, *options, siblings, access).release();
}

GDALDataset* Create(const char* name, int, int, int bands, GDALDataType, char** options) {
  const std::optional<CreationOptions> parsed = ParseCreationOptions(options);
  if (!parsed) return nullptr;
  if (bands != 0 || STARTS_WITH(name, "/vsi")) {
    CPLError(CE_Failure, CPLE_NotSupported, "%s: only vector data, in files of the system, can be written", name);
    return nullptr;
  }
  return Dataset::Create(name, *parsed).release();
}

// GDAL deletes what is at a path before it creates a file there. A file that is being written must stay, and so must a
// sidecar, which may be that of other data too.
CPLErr Delete(const char* name) {
  CKespDataFile file;
  if (!file.Open(CString::FromPathBytes(name)) && file.GetSystemError() == EWOULDBLOCK) {
    CPLError(CE_Failure, CPLE_FileIO, "%s: somebody else has the file open for writing", name);
    return CE_Failure;
  }
  if (VSIUnlink(name) != 0) {
    CPLError(CE_Failure, CPLE_FileIO, "%s: can't be deleted", name);
    return CE_Failure;
  }
  return CE_None;
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
  driver->SetMetadataItem(GDAL_DMD_CREATIONOPTIONLIST, kesp::ogr::kCreationOptionList);
  driver->SetMetadataItem(GDAL_DS_LAYER_CREATIONOPTIONLIST, kesp::ogr::kLayerCreationOptionList);
  driver->SetMetadataItem(GDAL_DMD_CREATIONFIELDDATATYPES, "Integer Integer64 Real String Date DateTime Binary");
  driver->SetMetadataItem(GDAL_DMD_CREATIONFIELDDATASUBTYPES, "Boolean Int16 Float32 JSON");
  driver->SetMetadataItem(GDAL_DMD_CREATION_FIELD_DOMAIN_TYPES, "Coded");
  for (const char* const capability :
       {GDAL_DCAP_VECTOR, GDAL_DCAP_OPEN, GDAL_DCAP_CREATE, GDAL_DCAP_CREATE_LAYER, GDAL_DCAP_CREATE_FIELD,
        GDAL_DCAP_VIRTUALIO, GDAL_DCAP_MULTIPLE_VECTOR_LAYERS, GDAL_DCAP_FIELD_DOMAINS, GDAL_DCAP_RELATIONSHIPS,
        GDAL_DCAP_FEATURE_STYLES, GDAL_DCAP_MEASURED_GEOMETRIES, GDAL_DCAP_Z_GEOMETRIES}) {
    driver->SetMetadataItem(capability, "YES");
  }
  driver->pfnIdentify = kesp::ogr::Identify;
  driver->pfnOpen = kesp::ogr::Open;
  driver->pfnCreate = kesp::ogr::Create;
  driver->pfnDelete = kesp::ogr::Delete;
  GetGDALDriverManager()->RegisterDriver(driver.release());
}
