// The reference system of a file's coordinates. The format names none, so it comes from the user or from a file beside
// the data file; nothing is guessed.
#pragma once
#include <memory>
#include <optional>
#include <string>

#include <ogr_spatialref.h>

namespace kesp::ogr {

struct ReleaseCrs {
  void operator()(OGRSpatialReference* crs) const noexcept { crs->Release(); }
};
using CrsPtr = std::unique_ptr<OGRSpatialReference, ReleaseCrs>;

struct Crs {
  CrsPtr system;        // null if none is known
  std::string sidecar;  // the file that it comes from, if it does
};

// Takes the option `given` or, if it is empty, a .qpj or .prj file beside `path`. Null, with an error reported to GDAL,
// if the option names no reference system. A sidecar that can't be understood is left out, with a warning.
std::optional<Crs> FindCrs(const std::string& given, const std::string& path, char** siblings);

// Writes the file survey.prj for survey.kesp, if there is none, and returns what FindCrs will find. Warns if it can't
// be written. For a file that is new or has no reference system.
Crs WriteCrs(const OGRSpatialReference& crs, const std::string& path);

}  // namespace kesp::ogr
