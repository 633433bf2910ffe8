// Compares features of one layer.
#pragma once
#include <ogr_feature.h>

namespace kesp::ogr {

bool HasSameValue(const OGRFeature& a, const OGRFeature& b, int field);
// Whether another format may have made `other` of `value`: it writes numbers with 15 digits, and takes a time without a
// zone for one of its own.
bool IsSameElsewhere(const OGRFeature& value, const OGRFeature& other, int field);
// Bit by bit, so that a missing M equals a missing M.
bool HasSameGeometry(const OGRFeature& a, const OGRFeature& b);

}  // namespace kesp::ogr
