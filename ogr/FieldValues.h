// Compares features of one layer.
#pragma once
#include <ogr_feature.h>

namespace kesp::ogr {

bool HasSameValue(const OGRFeature& a, const OGRFeature& b, int field);
// Bit by bit, so that a missing M equals a missing M.
bool HasSameGeometry(const OGRFeature& a, const OGRFeature& b);

}  // namespace kesp::ogr
