// Reading what is after damage.
#pragma once
#include <memory>
#include <string>

#include "ogr/SurveyFile.h"

namespace kesp::ogr {

// Salvages the file into a temporary one, warns GDAL of the gaps, and opens the copy, which goes away when it is
// closed. Null, with an error reported to GDAL, if there is no room for the copy. `path` is for messages.
std::unique_ptr<SurveyFile> OpenSalvaged(SurveyFile& damaged, const std::string& path);

}  // namespace kesp::ogr
