// Fills the write queue and writes it to files.
#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <new>
#include <string>

#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"
#include "kesp/format/RecordKinds.h"
#include "kesp/platform/SystemCalls.h"
#include "kesp/recordfile/FileHeader.h"
#include "kesp/util/Utilities.h"

namespace {

// Whether anything exists at the path: a directory blocks a new file too. Also true when the system can't tell, since
// an existing file would be emptied. False for a path that leads nowhere: the attempt to create the file decides.
bool MayExist(const CString& path) {
  kesp::FileInfo info;
  const std::string name = path.ToPathBytes();
  if (kesp::Uninterrupted([&] { return kesp::System().Stat(name.c_str(), &info); }) == 0) return true;
  const int leadsNowhere[] = {ENOENT, ENOTDIR, EACCES, ELOOP, ENAMETOOLONG};
  return std::find(std::begin(leadsNowhere), std::end(leadsNowhere), errno) == std::end(leadsNowhere);
}

// Deletes the file if not even its file header could be written, so that it doesn't pass for a Kesp file and block the
// next attempt. A longer or locked file was made by someone else meanwhile, and stays.
void RemoveUnfinished(const CString& path, const CKespDataFile& file) {
  kesp::FileInfo info;
  const std::string name = path.ToPathBytes();
  if (file.GetSystemError() == EWOULDBLOCK || kesp::System().Stat(name.c_str(), &info) != 0) return;
  if (info.kind == kesp::FileInfo::Kind::kRegular && info.length < kesp::kFileHeaderSize) {
    (void)kesp::System().Unlink(name.c_str());
  }
}

}  // namespace

ErrorEnum CKespFile::Queue(CKespRecord* record) {
  m_recordList.AddTail(record);
  return ERR_NONE;
}

ErrorEnum CKespFile::AddTavoHeaderToWriteQueue(CKespTavoHeader* header) { return Queue(header); }
ErrorEnum CKespFile::AddFeatureEndToWriteQueue(CKespFeatureEnd* end) { return Queue(end); }
ErrorEnum CKespFile::AddTagToWriteQueue(CKespTag* tag) { return Queue(tag); }
ErrorEnum CKespFile::AddNoteToWriteQueue(CKespNote* note) { return Queue(note); }
ErrorEnum CKespFile::AddFeatureRecOnlyToWriteQueue(CKespFeature* feature) { return Queue(feature); }

ErrorEnum CKespFile::AddFeatureAndAssociatedRecToWriteQueue(CKespFeature* feature) {
  if (feature == nullptr) return ERR_BAD_FEATURE;
  Queue(feature);
  for (CKespAttribute* attribute : feature->m_attributeList) Queue(attribute);
  for (CKespPoint* point : feature->m_pointList) Queue(point);
  if (CKespFeatureEnd* const end = feature->GetFeatureEnd()) Queue(end);
  return ERR_NONE;
}

ErrorEnum CKespFile::AddFeaturesToWriteQueue(CKespFeature* const* features, int count) {
  try {
    for (int i = 0; i < count; ++i) (void)AddFeatureAndAssociatedRecToWriteQueue(features[i]);
    return ERR_NONE;
  } catch (...) {
    return ERR_QUEUE_FAILED;
  }
}

ErrorEnum CKespFile::AddRecordsToWriteQueue(CKespRecord* const* records, int count) {
  try {
    for (int i = 0; i < count; ++i) {
      CKespRecord* const record = records[i];
      Queue(record);
      if (record == nullptr) continue;
      if (record->m_recordType == KESP_RECORD_POINT) {
        ++m_numPoints;
        auto* const point = dynamic_cast<CKespPoint*>(record);
        if (point != nullptr) m_pointIndex.SetAt(point->PointNumber, point);
      } else if (record->m_recordType == KESP_RECORD_FEATURE) {
        auto* const feature = dynamic_cast<CKespFeature*>(record);
        if (feature != nullptr) m_featureIndex.SetAt(feature->FeatureNumber, feature);
      }
    }
    return ERR_NONE;
  } catch (...) {
    return ERR_QUEUE_FAILED;
  }
}

ErrorEnum CKespFile::ClearQueueWithoutWriting() {
  m_recordList.RemoveAll();
  return ERR_NONE;
}

void CKespFile::SetQueueVersion(unsigned short fileVersion, kesp::FormatLoss& loss) {
  if (fileVersion != 1 && fileVersion != 2) return;
  for (CKespRecord* record : m_recordList) {
    if (record == nullptr) continue;
    loss.Add(*record, fileVersion);
    const std::uint16_t newest = kesp::KindOfRecord(record->m_recordType).newest;
    if (newest != 0) record->m_recordVersion = std::min<std::uint16_t>(fileVersion, newest);
  }
}

ErrorEnum CKespFile::WriteNewKespFileFromQueue(CString path) { return WriteNew(path, 3, &CKespDataFile::AppendRecord); }

ErrorEnum CKespFile::WriteNewKespFileFromQueueVersion2(CString path) {
  return WriteNew(path, 2, &CKespDataFile::AppendRecordVersion2);
}

ErrorEnum CKespFile::WriteNewKespFileFromQueueVersion1(CString path) {
  return WriteNew(path, 1, &CKespDataFile::AppendRecordVersion1);
}

ErrorEnum CKespFile::WriteNew(const CString& path, std::uint16_t version, Appender append) try {
  if (MayExist(path)) return ERR_FILE_EXISTS;
  auto created = std::make_unique<CKespDataFile>();
  created->m_version = version;
  const bool isCreated = created->CreateWith(path, CFile::modeNew);
  const int osError = created->GetSystemError();
  if (osError == EEXIST) return ERR_FILE_EXISTS;  // a dangling link, or created just now
  if (m_pDataFile != nullptr) (void)m_pDataFile->Close();
  delete m_pDataFile;
  m_pDataFile = created.release();
  if (!isCreated) RemoveUnfinished(path, *m_pDataFile);
  // A failure to create shows here: the file can't be opened.
  bool wasOpen = false;
  const ErrorEnum opened = CheckFileOpenIfClosed(wasOpen, path);
  // Keep the reason from creating, not the one from opening.
  if (!m_pDataFile->IsOpen() || m_pDataFile->m_systemError == 0) m_pDataFile->m_systemError = osError;
  if (opened != ERR_NONE) return opened;
  m_own->storedIn = m_pDataFile->m_file.Identity();
  for (CKespRecord* record : m_recordList) (void)(m_pDataFile->*append)(record, 0);
  return ERR_NONE;
} catch (const std::bad_alloc&) {
  return OutOfMemory();
}

ErrorEnum CKespFile::AppendToKespFileFromQueue(CString path) try {
  bool wasOpen = false;
  ErrorEnum opened = CheckFileOpenIfClosed(wasOpen, path);
  CString message;
  if (opened == ERR_NONE && wasOpen) opened = MakeWritable(message);
  if (opened != ERR_NONE) return opened;
  m_own->storedIn = m_pDataFile->m_file.Identity();
  for (CKespRecord* record : m_recordList) (void)m_pDataFile->AppendRecord(record, KESP_SRC_ADDED);
  return ERR_NONE;
} catch (const std::bad_alloc&) {
  return OutOfMemory();
}

int CKespFile::CountQueuedFromOpenFile() const {
  if (m_pDataFile == nullptr || !m_pDataFile->IsOpen() || m_pDataFile->m_file.Identity() != m_own->storedIn) return 0;
  int count = 0;
  for (const CKespRecord* record : m_recordList) {
    if (record != nullptr && record->m_filePosition != 0) ++count;
  }
  return count;
}
