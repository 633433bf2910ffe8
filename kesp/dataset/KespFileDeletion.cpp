// Deleting features and points, in memory and on disk, and validating a file.
#include <algorithm>
#include <memory>

#include "kesp/dataset/KespFile.h"

namespace {

int IndexOf(const CKespFeature& feature, const CKespPoint* point) {
  const auto& points = feature.m_pointList;
  const auto* const found = std::find(points.begin(), points.end(), point);
  return found == points.end() ? -1 : static_cast<int>(found - points.begin());
}

}  // namespace

void CKespFile::MarkDeletedOnDisk(CKespRecord& record) {
  record.SetDelete();
  if (m_pDataFile == nullptr) return;
  (void)m_pDataFile->Seek(record.m_filePosition);
  // Normally the first record read back is the one; else the whole file is searched, and once more if that fails.
  if (!m_pDataFile->UpdateRecord(&record, KESP_SRC_DELETED, true)) {
    (void)m_pDataFile->UpdateRecord(&record, KESP_SRC_DELETED, false);
  }
}

ErrorEnum CKespFile::DeleteFeatureAndAssociatedRec(CKespFeature* feature) {
  if (feature == nullptr) return ERR_NONE;
  m_featureIndex.RemoveKey(feature->FeatureNumber);
  if (m_pDataFile != nullptr) m_pDataFile->SetFlush(false);
  for (CKespPoint* point : feature->m_pointList) {
    if (point == nullptr) continue;
    MarkDeletedOnDisk(*point);
    if (m_numPoints != 0) --m_numPoints;  // 0 means not counted
  }
  for (CKespAttribute* attribute : feature->m_attributeList) {
    if (attribute != nullptr) MarkDeletedOnDisk(*attribute);
  }
  // The records of the feature and its end stay undeleted in the file: what is left there is a feature without points,
  // which other programs expect to find.
  feature->SetDelete();
  if (CKespFeatureEnd* const end = feature->GetFeatureEnd()) end->SetDelete();
  if (m_pDataFile != nullptr) {
    m_pDataFile->SetFlush(true);
    m_pDataFile->Flush();
  }
  return ERR_NONE;
}

// Takes the point out of everything that refers to it, marks it deleted on disk and deletes it.
void CKespFile::RemovePointFromStore(CKespPoint* point, CKespFeature& feature, int index) {
  feature.RemovePoint(index);
  const std::unique_ptr<CKespPoint> own(point);  // cppcheck-suppress unreadVariable
  MarkDeletedOnDisk(*point);
  if (m_numPoints != 0) --m_numPoints;
  CKespPoint* indexed = nullptr;
  if (m_pointIndex.Lookup(point->PointNumber, indexed) && indexed == point) m_pointIndex.RemoveKey(point->PointNumber);
  m_recordList.Remove(point);
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
  // Before any look whether the point is really in there, other than above: a stray point takes a one-point feature
  // with it.
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

ErrorEnum CKespFile::ValidateKesp(CString path, CString& /*message*/) {
  bool wasOpen = false;
  const ErrorEnum opened = CheckFileOpenIfClosed(wasOpen, path);
  if (opened != ERR_NONE) return opened;
  ErrorEnum checked = ERR_NONE;
  try {
    checked = CheckTavoFileIntegrity();
  } catch (...) {
    if (!wasOpen) (void)m_pDataFile->Close();
    throw;
  }
  if (wasOpen) return checked;
  const ErrorEnum closed = CloseKesp();
  return checked != ERR_NONE ? checked : closed;
}

ErrorEnum CKespFile::ValidateKesp() {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  return CheckTavoFileIntegrity();
}
