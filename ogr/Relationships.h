// Links between features as GDAL relationships: many to many, with the layer `links` as the mapping table.
#pragma once
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gdal_priv.h>

#include "ogr/Survey.h"

namespace kesp::ogr {

using Relationships = std::map<std::string, std::unique_ptr<GDALRelationship>>;

// One for each pair of layers between which there are links, up to a hundred. `titles` are the names of the survey's
// layers.
Relationships FindRelationships(Survey& survey, const std::vector<std::string>& titles);

}  // namespace kesp::ogr
