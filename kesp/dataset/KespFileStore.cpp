// The store: what a data set holds in memory, and how it is cleared.
#include <algorithm>
#include <memory>
#include <new>

#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"

CKespFile::CKespFile() : CKespFile(std::make_unique<CKespDataFile>()) {}

// By way of the pointer, which deletes the container when there is no memory for the rest.
CKespFile::CKespFile(std::unique_ptr<CKespDataFile> container)
    : m_pDataFile(container.get()), m_own(std::make_unique<kesp::Store>()) {
  (void)container.release();
}

CKespFile::~CKespFile() {
  Clear();
  delete m_pDataFile;
}

void CKespFile::ClearStorage() {
  Clear();
  m_pBmcText = &m_own->bmcTexts.emplace_back();
}

// Never fails: the destructor needs it.
void CKespFile::Clear() noexcept {
  m_numPoints = 0;
  m_firstPointTime = CTime::GetCurrentTime();
  m_lastPointTime = CTime();
  m_extent.Invalidate();
  m_kespVersion = 0;

  // Features that callers entered into the index, and headers that they queued, go with what reading made. Each object
  // is deleted once however often it was entered. A header that was taken out of the list is its caller's again.
  std::sort(m_own->features.begin(), m_own->features.end());
  std::sort(m_own->records.begin(), m_own->records.end());
  std::vector<CKespRecord*> entered;
  try {
    for (const auto& entry : m_featureIndex) {
      if (!std::binary_search(m_own->features.begin(), m_own->features.end(), entry.value))
        entered.push_back(entry.value);
    }
    for (CKespRecord* header : m_recordList.Headers()) {
      if (!std::binary_search(m_own->records.begin(), m_own->records.end(), header)) entered.push_back(header);
    }
    std::sort(entered.begin(), entered.end());
    entered.erase(std::unique(entered.begin(), entered.end()), entered.end());
  } catch (const std::bad_alloc&) {
    entered.clear();  // without the memory to tell them apart they are left where they are
  }

  for (CKespRecord* record : entered) delete record;
  for (CKespFeature* feature : m_own->features) delete feature;
  for (CKespRecord* record : m_own->records) delete record;
  m_own->features = {};
  m_own->records = {};
  m_featureIndex.RemoveAll();
  m_pointIndex.RemoveAll();
  m_qualityMarkIndex.RemoveAll();
  m_featureChangesIndex.RemoveAll();
  m_tagList = {};
  m_recordList.RemoveAll();
  m_featureLinks = {};
  m_gpsMarkIndex.RemoveAll();
  m_linkListIndex.RemoveAll();
  m_own->links.clear();
  m_own->linkLists.clear();
}

CKespFeature* CKespFile::GetKespFeature(CKespPoint* point) const {
  CKespFeature* feature = nullptr;
  if (point != nullptr) (void)m_featureIndex.Lookup(point->FeatureNumber, feature);
  return feature;
}

bool CKespFile::WasReadToEnd() const noexcept { return m_own->wasReadToEnd; }

void CKespFile::SetMemoryLimit(std::uint64_t bytes) noexcept { m_own->memoryLimit = bytes; }
