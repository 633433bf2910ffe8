// The open and creation options of the driver; docs/gdal.md explains them to users.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include <cpl_port.h>

namespace kesp::ogr {

enum class LayerSplit { kByKind, kByName };
enum class ColorOrder { kBgr, kRgb };  // which of red and blue is the low byte of a colour: kBgr is red

struct Options {
  LayerSplit layers = LayerSplit::kByKind;
  ColorOrder colors = ColorOrder::kBgr;
  bool salvage = false;
  bool includeDeleted = false;
  std::string crs;  // as OGRSpatialReference::SetFromUserInput takes it; empty if none is given
};

struct CreationOptions {
  std::uint16_t fileVersion = 3;
  ColorOrder colors = ColorOrder::kBgr;
};

// The options as GDAL's list describes them to users, in XML.
extern const char* const kOptionList;
extern const char* const kCreationOptionList;
extern const char* const kLayerCreationOptionList;

// Null, with an error reported to GDAL, when an option has a value that it can't have.
std::optional<Options> ParseOptions(CSLConstList list);
std::optional<CreationOptions> ParseCreationOptions(CSLConstList list);

}  // namespace kesp::ogr
