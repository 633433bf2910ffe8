// The store: what a data set holds in memory, and how it is cleared.
#include <algorithm>
#include <memory>
#include <new>

#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"

CKespFile::CKespFile() : CKespFile(std::make_unique<CKespDataFile>()) {}

// The unique_ptr deletes the container if there is no memory for the store.
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

// Finds features that callers entered into the index, and headers that they queued: clearing deletes these too, each
// once, however often it was entered. A header that was removed from the list belongs to the caller again. If there is
// no memory to sort them out, none is deleted.
void CKespFile::FindEntered(std::vector<CKespRecord*>& entered) noexcept {
  std::vector<CKespFeature*>& features = m_own->features;
  std::vector<CKespRecord*>& records = m_own->records;
  std::sort(features.begin(), features.end());
  std::sort(records.begin(), records.end());
  try {
    for (const auto& entry : m_featureIndex) {
      if (!std::binary_search(features.begin(), features.end(), entry.value)) entered.push_back(entry.value);
    }
    for (CKespRecord* header : m_recordList.Headers()) {
      if (!std::binary_search(records.begin(), records.end(), header)) entered.push_back(header);
    }
    std::sort(entered.begin(), entered.end());
    entered.erase(std::unique(entered.begin(), entered.end()), entered.end());
  } catch (const std::bad_alloc&) {
    entered.clear();
  }
}

// Never fails: the destructor calls it.
void CKespFile::Clear() noexcept {
  m_numPoints = 0;
  m_firstPointTime = CTime::GetCurrentTime();
  m_lastPointTime = CTime();
  m_extent.Invalidate();
  m_kespVersion = 0;
  ForgetSpatialIndex();

  std::vector<CKespRecord*> entered;
  FindEntered(entered);
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
