// What a data set owns and keeps besides its public members.
#pragma once
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "kesp/dataset/SpatialIndex.h"
#include "kesp/platform/File.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureLink.h"

namespace kesp {

// Of the places in the record list, and for which arrangement of the list.
struct IndexOfList {
  std::optional<SpatialIndex> index;
  std::uint64_t arrangement = 0;
};

struct Store {
  // Records that reading made and no feature owns; clearing deletes them. Features are apart, since the index has them
  // too.
  std::vector<CKespFeature*> features;
  std::vector<CKespRecord*> records;
  std::deque<CKespFeatureLink> links;
  std::deque<CKespLinkList> linkLists;
  std::deque<CString> bmcTexts;   // one for each clearing, since a host may still use them
  IndexOfList pointsByPlace;      // built when first needed, like the next
  IndexOfList featuresByPlace;    // by the boxes around their points
  FileIdentity storedIn;          // the file that the records were read from, or last written to
  std::uint64_t memoryLimit = 0;  // bytes; 0 for the default
  bool wasReadToEnd = false;
};

}  // namespace kesp
