#include "ogr/Options.h"

#include <cpl_error.h>
#include <cpl_string.h>

namespace kesp::ogr {

const char* const kOptionList =
    "<OpenOptionList>"
    "  <Option name='LAYERS' type='string-select' description='One layer for each kind of feature, or for each feature "
    "name' default='KINDS'><Value>KINDS</Value><Value>NAMES</Value></Option>"
    "  <Option name='CRS' type='string' description='Reference system of the coordinates, for example EPSG:25832'/>"
    "  <Option name='DELETED' type='boolean' description='Whether deleted records are read too' default='NO'/>"
    "  <Option name='SALVAGE' type='boolean' description='Whether to read what is after damage' default='NO'/>"
    "  <Option name='COLOR_ORDER' type='string-select' description='Order of the bytes of a colour, highest first' "
    "default='BGR'><Value>BGR</Value><Value>RGB</Value></Option>"
    "</OpenOptionList>";

const char* const kCreationOptionList =
    "<CreationOptionList>"
    "  <Option name='FILE_VERSION' type='string-select' description='Version of the file' default='3'>"
    "<Value>1</Value><Value>2</Value><Value>3</Value></Option>"
    "  <Option name='COLOR_ORDER' type='string-select' description='Order of the bytes of a colour, highest first' "
    "default='BGR'><Value>BGR</Value><Value>RGB</Value></Option>"
    "</CreationOptionList>";

const char* const kLayerCreationOptionList =
    "<LayerCreationOptionList>"
    "  <Option name='SPLIT_MULTI' type='boolean' description='Whether a feature is written for each part of a "
    "geometry' default='NO'/>"
    "  <Option name='FID' type='string' description='Name of the column of the FIDs; only those of feature_number "
    "become "
    "feature numbers' default='feature_number'/>"
    "</LayerCreationOptionList>";

namespace {

// Whether the option has its second value; null when it has neither.
std::optional<bool> IsSecond(CSLConstList list, const char* name, const char* first, const char* second) {
  const char* const value = CSLFetchNameValueDef(list, name, first);
  if (EQUAL(value, second)) return true;
  if (EQUAL(value, first)) return false;
  CPLError(CE_Failure, CPLE_IllegalArg, "Kesp: option %s=%s: must be %s or %s", name, value, first, second);
  return std::nullopt;
}

}  // namespace

std::optional<Options> ParseOptions(CSLConstList list) {
  const std::optional<bool> byName = IsSecond(list, "LAYERS", "KINDS", "NAMES");
  const std::optional<bool> rgb = IsSecond(list, "COLOR_ORDER", "BGR", "RGB");
  if (!byName || !rgb) return std::nullopt;
  Options options;
  options.layers = *byName ? LayerSplit::kByName : LayerSplit::kByKind;
  options.colors = *rgb ? ColorOrder::kRgb : ColorOrder::kBgr;
  options.salvage = CPLFetchBool(list, "SALVAGE", false);
  options.includeDeleted = CPLFetchBool(list, "DELETED", false);
  options.crs = CSLFetchNameValueDef(list, "CRS", "");
  return options;
}

std::optional<CreationOptions> ParseCreationOptions(CSLConstList list) {
  const std::optional<bool> rgb = IsSecond(list, "COLOR_ORDER", "BGR", "RGB");
  if (!rgb) return std::nullopt;
  CreationOptions options;
  options.colors = *rgb ? ColorOrder::kRgb : ColorOrder::kBgr;
  const std::string version = CSLFetchNameValueDef(list, "FILE_VERSION", "3");
  if (version != "1" && version != "2" && version != "3") {
    CPLError(CE_Failure, CPLE_IllegalArg, "Kesp: option FILE_VERSION=%s: must be 1, 2 or 3", version.c_str());
    return std::nullopt;
  }
  options.fileVersion = static_cast<std::uint16_t>(version[0] - '0');
  return options;
}

}  // namespace kesp::ogr
