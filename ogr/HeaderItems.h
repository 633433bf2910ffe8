// Metadata items that are values of the header record.
#pragma once
#include <string>

#include "kesp/records/KespTavoHeader.h"

namespace kesp::ogr {

enum class HeaderItem {
  kOther,  // of no value that can be set
  kBad,    // the value can't be that of the header
  kPut
};
// Puts the value of an item, as reading gives it, into the header.
HeaderItem PutHeaderItem(CKespTavoHeader& header, const char* key, const char* value);

}  // namespace kesp::ogr
