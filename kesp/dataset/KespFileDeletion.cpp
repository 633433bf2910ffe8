// Deleting features and points, in memory and on disk.
#include <memory>

#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"

namespace {

int IndexOf(const CKespFeature& feature, const CKespPoint* point) {
  const std::size_t index = feature.m_pointList.IndexOf(point);
  return index == feature.m_pointList.size() ? -1 : static_cast<int>(index);
}

// Turns flushing off, and on again when destroyed.
class WithoutFlush {
 public:
  explicit WithoutFlush(CKespDataFile* file) : m_file(file) { Set(false); }
  ~WithoutFlush() { Set(true); }
  WithoutFlush(const WithoutFlush&) = delete;
  WithoutFlush& operator=(const WithoutFlush&) = delete;

 private:
  void Set(bool enabled) const {
    if (m_file != nullptr) m_file->SetFlush(enabled);
  }
  CKespDataFile* m_file;
};

}  // namespace

void CKespFile::MarkDeletedOnDisk(CKespRecord& record) {
  record.SetDelete();
  if (m_pDataFile == nullptr || !m_pDataFile->IsOpen()) return;
  // Usually the record at its place is the right one; otherwise the file is searched.
  (void)m_pDataFile->Guarded([&] {
    return m_pDataFile->FindFromItsPlaceAndOverwrite(record, KESP_SRC_DELETED) == CKespDataFile::Update::kDone;
  });
}

ErrorEnum CKespFile::DeleteFeatureAndAssociatedRec(CKespFeature* feature) {
  if (feature == nullptr) return ERR_NONE;
  m_featureIndex.RemoveKey(feature->FeatureNumber);
  {
    const WithoutFlush withoutFlush(m_pDataFile);
    for (const auto& point : feature->m_pointList) {
      if (point == nullptr) continue;
      MarkDeletedOnDisk(*point);
      if (m_numPoints != 0) --m_numPoints;  // 0 means not counted
    }
    for (const auto& attribute : feature->m_attributeList) {
      if (attribute != nullptr) MarkDeletedOnDisk(*attribute);
    }
    // The feature's record and its end stay undeleted in the file; the container only seeks to them. What remains is a
    // feature without points, which other programs expect.
    for (CKespRecord* record :
         {static_cast<CKespRecord*>(feature), static_cast<CKespRecord*>(feature->GetFeatureEnd())}) {
      if (record == nullptr) continue;
      record->SetDelete();
      if (m_pDataFile != nullptr) (void)m_pDataFile->Seek(record->m_filePosition);
    }
  }
  if (m_pDataFile != nullptr) m_pDataFile->Flush();
  return ERR_NONE;
}

// Marks the point deleted on disk, removes it from all that refers to it, and deletes it. Steps that can run out of
// memory come first, so that the point is either still everywhere or nowhere.
void CKespFile::RemovePointFromStore(CKespPoint* point, CKespFeature& feature, int index) {
  m_pointIndex.Settle();
  MarkDeletedOnDisk(*point);
  m_recordList.Remove(point);
  CKespPoint* indexed = nullptr;
  std::uint32_t number = point->PointNumber;
  // Another point may have this number now, or the point may have been entered under another one.
  const bool isThere = m_pointIndex.Lookup(number, indexed) && indexed == point;
  if (isThere || m_pointIndex.FindKey(point, number)) m_pointIndex.RemoveKey(number);
  delete feature.RemovePoint(index);
  m_own->featuresByPlace.index.reset();  // the box may be smaller now
  if (m_numPoints != 0) --m_numPoints;
}

int CKespFile::DeletePointInFeature(CKespPoint* point, CKespFeature* feature) {
  if (point == nullptr || feature == nullptr) return 0;
  const int index = IndexOf(*feature, point);
  if (index < 0) return 0;
  if (feature->GetNumPoints() == 1) {
    DeleteFeatureAndAssociatedRec(feature);
    return 1;
  }
  RemovePointFromStore(point, *feature, index);
  return 2;
}

void CKespFile::DeletePoint(CKespPoint* point) {
  CKespFeature* const feature = GetKespFeature(point);
  if (feature == nullptr) return;
  // Unlike above, this comes before the check that the feature has the point: a stray point deletes a one-point
  // feature.
  if (feature->GetNumPoints() == 1) {
    DeleteFeatureAndAssociatedRec(feature);
    return;
  }
  const int index = IndexOf(*feature, point);
  if (index >= 0) RemovePointFromStore(point, *feature, index);
}

ErrorEnum CKespFile::DeleteRecord(CKespRecord* record) {
  if (record != nullptr) record->SetDelete();
  return ERR_NONE;
}
