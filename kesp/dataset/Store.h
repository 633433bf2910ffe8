// What a data set owns and knows besides its public members.
#pragma once
#include <cstdint>
#include <deque>
#include <vector>

#include "kesp/platform/File.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureLink.h"

namespace kesp {

struct Store {
  // What reading made and no feature owns, to be deleted when the data set is cleared; the features apart, since the
  // index has them too.
  std::vector<CKespFeature*> features;
  std::vector<CKespRecord*> records;
  std::deque<CKespFeatureLink> links;
  std::deque<CKespLinkList> linkLists;
  std::deque<CString> bmcTexts;   // of every clearing, since a host may still look at them
  FileIdentity storedIn;          // where the records were read from, or written to last
  std::uint64_t memoryLimit = 0;  // bytes; 0 for the default
  bool wasReadToEnd = false;
};

}  // namespace kesp
