// Updates the header record on disk, and adds source flags to the features.
#include <memory>
#include <new>

#include "kesp/dataset/KespFile.h"
#include "kesp/format/HeaderNotes.h"
#include "kesp/util/NumberText.h"

namespace {

// Not passed to the feature: the children's deletion state is their own.
constexpr std::uint32_t kDeletionState = KESP_FLAG_DELETED | KESP_SRC_DELETED | KESP_SRC_RESTORED;

template <class Records>
void ApplyMarks(const Records& records, CKespFeature& feature) {
  for (const auto* record : records) {
    if (record != nullptr) feature.SetSourceFlag(record->m_flags & ~kDeletionState);
  }
}

CString Fixed8(double value) { return CString::FromLatin1(kesp::FixedNotation(value, 8)); }

}  // namespace

ErrorEnum CKespFile::UpdateKespHeader(CString text1, CString text2, CString text3, CString text4, CString text5,
                                      CString text6, double minY, double maxY, double minX, double maxX,
                                      bool flag) try {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  if (!m_pDataFile->SeekToFirstRecord()) return ERR_SEEK_FAILED;
  const CBoundingBox box(minX, maxX, minY, maxY);
  const std::unique_ptr<CKespRecord> first(m_pDataFile->ReadNextRecord(true));
  if (!first || first->m_recordType != KESP_RECORD_HEADER) return ERR_READ_FAILED;
  auto& header = static_cast<CKespTavoHeader&>(*first);

  header.HeaderText4 = text1;
  header.HeaderText2 = text2;
  header.HeaderText3 = text3;
  header.HeaderText1 = text4;
  header.HeaderText6 = text5;
  header.HeaderText5 = text6;
  if (header.m_recordVersion > 1) {
    if (box.IsValid()) box.Get(header.ExtentMinX, header.ExtentMaxX, header.ExtentMinY, header.ExtentMaxY);
    CBoundingBox dataExtent;
    CTime firstTime;
    CTime lastTime;
    GetKespDataSummary(header.PointCount, header.FeatureCount, dataExtent, firstTime, lastTime, header.LastPointText);
    header.FirstPointTime = static_cast<std::uint32_t>(firstTime.GetTime());
    header.LastPointTime = static_cast<std::uint32_t>(lastTime.GetTime());
    dataExtent.Get(header.DataExtent1, header.DataExtent2, header.DataExtent3, header.DataExtent4);
    header.KespVersion = m_kespVersion;
    header.SlotWord1 = flag ? 1 : 0;
  }
  header.SetCleanClose(true);
  (void)(m_pDataFile->SeekToFirstRecord() && m_pDataFile->OverwriteRecord(&header, KESP_SRC_MODIFIED));
  if (header.m_recordVersion == 1) (void)UpdateKespHeaderVersion1(text5, box);
  return ERR_NONE;
} catch (const std::bad_alloc&) {
  return OutOfMemory();
}

// cppcheck-suppress passedByValue
ErrorEnum CKespFile::UpdateKespHeaderVersion1(CString bmcText, CBoundingBox extent) try {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  // UpdateRecord finds the stored note by its first four characters.
  CKespNote note;
  note.NoteText = CString(kesp::kBmcTag) + bmcText;
  (void)m_pDataFile->UpdateRecord(&note, KESP_SRC_MODIFIED, false);
  if (extent.IsValid()) {
    CKespNote zom;
    zom.NoteText = CString(kesp::kZomTag) + Fixed8(extent.MinX()) + u"," + Fixed8(extent.MaxX()) + u"," +
                   Fixed8(extent.MinY()) + u"," + Fixed8(extent.MaxY());
    (void)m_pDataFile->UpdateRecord(&zom, KESP_SRC_MODIFIED, false);
  }
  return ERR_NONE;
} catch (const std::bad_alloc&) {
  return OutOfMemory();
}

ErrorEnum CKespFile::SetCleanKespClose(bool clean) {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  // A closed file counts as a failed seek.
  if (!m_pDataFile->IsOpen() || !m_pDataFile->SeekToFirstRecord()) return ERR_SEEK_FAILED;
  const std::unique_ptr<CKespRecord> first(m_pDataFile->ReadNextRecord(true));
  if (!first || first->m_recordType != KESP_RECORD_HEADER || first->m_recordVersion <= 1) return ERR_NONE;
  static_cast<CKespTavoHeader&>(*first).SetCleanClose(clean);
  (void)(m_pDataFile->SeekToFirstRecord() && m_pDataFile->OverwriteRecord(first.get(), KESP_SRC_MODIFIED));
  return ERR_NONE;
}

void CKespFile::PropigateSourceCtrlFlagsToFeatures() {
  for (const auto& entry : m_featureIndex) ApplyChangesTag(entry.key, *entry.value);
  for (const auto& entry : m_featureIndex) ApplyMarksOfChildren(*entry.value);
}

void CKespFile::ApplyChangesTag(std::uint32_t featureNumber, CKespFeature& feature) {
  CKespTag* tag = nullptr;
  if (!m_featureChangesIndex.Lookup(featureNumber, tag)) return;
  std::uint32_t number = 0;
  std::uint32_t flags = 0;
  CString name;
  (void)tag->GetNamedFlag(number, flags, name);
  feature.SetSourceFlag(flags);
}

// One by one: SetSourceFlag restores and filters after each mark, so adding all marks at once would differ.
void CKespFile::ApplyMarksOfChildren(CKespFeature& feature) {
  ApplyMarks(feature.m_attributeList, feature);
  ApplyMarks(feature.m_pointList, feature);
  feature.SetSourceFlag(0);
}

unsigned long CKespFile::GetSrcCtrlFlagsForFeat(unsigned long featureNumber) const {
  CKespFeature* feature = nullptr;
  return m_featureIndex.Lookup(static_cast<std::uint32_t>(featureNumber), feature) ? feature->m_flags : 0xFFFFFFFF;
}
