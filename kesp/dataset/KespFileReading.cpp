// The store: opening, closing, clearing, and reading a whole file into it.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <memory>
#include <new>

#include "kesp/dataset/KespFile.h"
#include "kesp/memory/ObjectPool.h"
#include "kesp/util/NumberText.h"
#include "kesp/util/Utilities.h"

namespace {

constexpr double kSmallestExtent = 1e-7;  // sides of an extent that is taken over are longer than this
constexpr int kMessageLimit = 255;        // characters of a system message that are handed on
constexpr int kNoteTagLength = 4;
// What a data set may occupy: so much, and so much for each byte of the file.
constexpr std::uint64_t kMemoryToBeginWith = std::uint64_t{48} << 20;
constexpr std::uint64_t kMemoryPerByte = 4;
// What is reckoned for what is not in the pool: a record's entries in lists, a link, and the list of a feature's links.
constexpr std::uint64_t kBytesOfEntries = 32;
constexpr std::uint64_t kBytesOfLink = 48;
constexpr std::uint64_t kBytesOfLinkList = 96;
constexpr std::u16string_view kBmcTag = u"BMC:";
constexpr std::u16string_view kZomTag = u"ZOM:";

// The note of a record that is one and begins with the tag; null otherwise.
const CKespNote* AsTaggedNote(const CKespRecord* record, std::u16string_view tag) {
  if (record->m_recordType != KESP_RECORD_NOTE) return nullptr;
  const auto* const note = static_cast<const CKespNote*>(record);
  return note->NoteText.View().substr(0, kNoteTagLength) == tag ? note : nullptr;
}

class ReadingAhead {
 public:
  explicit ReadingAhead(CKespDataFile& file) : m_file(file) { file.ReadAhead(true); }
  ~ReadingAhead() { m_file.m_file.EndReadAhead(); }
  ReadingAhead(const ReadingAhead&) = delete;
  ReadingAhead& operator=(const ReadingAhead&) = delete;

 private:
  CKespDataFile& m_file;
};

}  // namespace

CKespFile::CKespFile() : m_pDataFile(new CKespDataFile) {}

CKespFile::~CKespFile() {
  Clear();
  delete m_pDataFile;
}

void CKespFile::ClearStorage() {
  Clear();
  m_pBmcText = &m_bmcTexts.emplace_back();
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
  std::sort(m_ownFeatures.begin(), m_ownFeatures.end());
  std::sort(m_ownRecords.begin(), m_ownRecords.end());
  std::vector<CKespRecord*> entered;
  try {
    for (const auto& entry : m_featureIndex) {
      if (!std::binary_search(m_ownFeatures.begin(), m_ownFeatures.end(), entry.value)) entered.push_back(entry.value);
    }
    for (CKespRecord* header : m_recordList.Headers()) {
      if (!std::binary_search(m_ownRecords.begin(), m_ownRecords.end(), header)) entered.push_back(header);
    }
    std::sort(entered.begin(), entered.end());
    entered.erase(std::unique(entered.begin(), entered.end()), entered.end());
  } catch (const std::bad_alloc&) {
    entered.clear();  // without the memory to tell them apart they are left where they are
  }

  for (CKespRecord* record : entered) delete record;
  for (CKespFeature* feature : m_ownFeatures) delete feature;
  for (CKespRecord* record : m_ownRecords) delete record;
  m_ownFeatures = {};
  m_ownRecords = {};
  m_featureIndex.RemoveAll();
  m_pointIndex.RemoveAll();
  m_qualityMarkIndex.RemoveAll();
  m_featureChangesIndex.RemoveAll();
  m_tagList = {};
  m_recordList.RemoveAll();
  m_featureLinks = {};
  m_gpsMarkIndex.RemoveAll();
  m_linkListIndex.RemoveAll();
  m_ownLinks.clear();
  m_ownLinkLists.clear();
}

ErrorEnum CKespFile::OpenKesp(CString path, CString& message) { return OpenWith(path, message, false); }

ErrorEnum CKespFile::OpenKespReadOnly(CString path, CString& message) { return OpenWith(path, message, true); }

ErrorEnum CKespFile::OpenWith(const CString& path, CString& message, bool readOnly) {
  message.Empty();
  // Without the memory for the text the code has to say it.
  const auto say = [&message](const CException& e) {
    try {
      message = e.GetErrorMessage().Left(kMessageLimit);
    } catch (const std::bad_alloc&) {
      message.Empty();
    }
  };
  try {
    const bool isOpen = m_pDataFile != nullptr && m_pDataFile->IsOpen();
    const bool isSame = isOpen && NamesOpenFile(path);
    // The name in other letter case may lead to no file here.
    if (!FileExists(path) && !(isSame && FileExists(m_pDataFile->m_path))) return ERR_FILE_NOT_FOUND;
    if (m_pDataFile == nullptr) {
      message = u"Memory allocation failed. Free some memory and try again.";
      return ERR_MEMORY;
    }
    if (isOpen) {
      if (isSame) return readOnly ? ERR_NONE : MakeWritable(message);
      message = u"Please close the already open file.";
      return ERR_OTHER_FILE_OPEN;
    }
    // A file that the container refuses leaves it closed, and the next operation says so.
    const bool opened = readOnly ? m_pDataFile->OpenReadOnly(path) : m_pDataFile->Open(path);
    if (!opened && m_pDataFile->GetSystemError() == ENOMEM) throw CMemoryException();
    return ERR_NONE;
  } catch (const std::bad_alloc&) {
    say(CMemoryException());
    return OutOfMemory();
  } catch (const CFileException& e) {
    say(e);
    return ERR_FILE_EXCEPTION;
  } catch (...) {
    return ERR_UNKNOWN_EXCEPTION;
  }
}

// The same name in any letter case, unless that spelling leads to another file.
bool CKespFile::NamesOpenFile(const CString& path) const {
  if (m_pDataFile->m_path.CompareNoCase(path) != 0) return false;
  return !FileExists(path) || m_pDataFile->m_file.IsSameFile(path);
}

// A file that is held read-only would take every write without a word and keep none of it.
ErrorEnum CKespFile::MakeWritable(CString& message) {
  if (m_pDataFile->m_file.IsWritable()) return ERR_NONE;
  const CString path = m_pDataFile->m_path;
  (void)m_pDataFile->Close();
  if (m_pDataFile->Open(path)) return ERR_NONE;
  const int osError = m_pDataFile->GetSystemError();
  // As it was, if the system still lets it.
  (void)m_pDataFile->OpenReadOnly(path);
  message = CFileException(osError, path).GetErrorMessage().Left(kMessageLimit);
  return ERR_FILE_EXCEPTION;
}

ErrorEnum CKespFile::CloseKesp() {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_NONE;
  if (m_pDataFile->m_file.IsWritable()) {
    try {
      (void)SetCleanKespClose(true);
      m_pDataFile->Flush();
    } catch (...) {
      (void)m_pDataFile->Close();  // or nobody could open the file any more
      throw;
    }
  }
  (void)m_pDataFile->Close();
  return ERR_NONE;
}

ErrorEnum CKespFile::CheckFileOpenIfClosed(bool& wasOpen, CString path) {
  wasOpen = false;
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (m_pDataFile->IsOpen()) {
    wasOpen = true;
    return NamesOpenFile(path) ? ERR_NONE : ERR_OTHER_FILE_OPEN;
  }
  CString message;
  return OpenKesp(path, message);
}

ErrorEnum CKespFile::GetKespVersion(unsigned long& version) {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  if (!m_pDataFile->SeekToFirstRecord()) return ERR_SEEK_FAILED;
  const std::unique_ptr<CKespRecord> first(m_pDataFile->ReadNextRecord(true));
  if (!first || first->m_recordType != KESP_RECORD_HEADER) return ERR_READ_FAILED;
  version = static_cast<const CKespTavoHeader&>(*first).KespVersion;
  return ERR_NONE;
}

ErrorEnum CKespFile::GetKespVersion(std::uint32_t& version) {
  unsigned long wide = version;
  const ErrorEnum result = GetKespVersion(wide);
  version = static_cast<std::uint32_t>(wide);
  return result;
}

ErrorEnum CKespFile::ReadKespFile(bool readDeleted) {
  m_wasReadToEnd = false;
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  try {
    const ErrorEnum result = ReadStore(readDeleted);
    if (m_pDataFile->m_ranOutOfMemory) return ERR_MEMORY;
    // A last record that claims to go on after the end of a file ends the walk as the end does.
    m_wasReadToEnd = m_pDataFile->GetError() == KESP_ERROR_NORMAL_EOF &&
                     m_pDataFile->m_file.GetPosition() == m_pDataFile->m_file.KnownLength();
    return result;
  } catch (const std::bad_alloc&) {
    return OutOfMemory();
  }
}

ErrorEnum CKespFile::OutOfMemory() noexcept {
  if (m_pDataFile != nullptr) m_pDataFile->NoteError(ENOMEM);
  return ERR_MEMORY;
}

ErrorEnum CKespFile::ReadStore(bool readDeleted) {
  ClearStorage();
  m_storedIn = m_pDataFile->m_file.Identity();
  if (!m_pDataFile->SeekToFirstRecord()) return ERR_SEEK_FAILED;
  const bool skipDeleted = !readDeleted;

  std::unique_ptr<CKespRecord> next(m_pDataFile->ReadNextRecord(skipDeleted));
  if (!next || next->m_recordType != KESP_RECORD_HEADER) return ERR_NO_HEADER;
  m_ownRecords.push_back(nullptr);
  m_ownRecords.back() = next.release();
  m_recordList.AddTail(m_ownRecords.back());
  const auto* const header = static_cast<const CKespTavoHeader*>(m_ownRecords.back());
  if (std::fabs(header->ExtentMinX - header->ExtentMaxX) > kSmallestExtent &&
      std::fabs(header->ExtentMinY - header->ExtentMaxY) > kSmallestExtent) {
    m_extent.Set(header->ExtentMinX, header->ExtentMaxX, header->ExtentMinY, header->ExtentMaxY);
  }
  m_kespVersion = header->KespVersion;

  if (header->m_recordVersion == 1) {
    CKespRecord* behindNotes = nullptr;
    const bool good = ReadKespHeaderVersion1(&behindNotes, skipDeleted);
    next.reset(behindNotes);
    if (!good) return ERR_BAD_VERSION1_HEADER;
  } else {
    next.reset(m_pDataFile->ReadNextRecord(skipDeleted));
  }
  if (!next && m_pDataFile->GetError() == KESP_ERROR_NORMAL_EOF) return ERR_NONE;

  const ReadingAhead ahead(*m_pDataFile);
  Reading reading;
  // Only a crafted file reaches the limit that is set by default; a survey needs about half the file's length.
  const std::uint64_t mostMemory =
      m_memoryLimit != 0 ? m_memoryLimit : kMemoryToBeginWith + kMemoryPerByte * m_pDataFile->m_file.KnownLength();
  const std::int64_t takenBefore = kesp::PoolBytesTaken();
  // Damage right behind the header reads as a file that ends there; further on it is reported.
  while (next) {
    TakeVersion(*next, reading);
    CKespRecord* const record = next.release();
    if (FileRecord(record, reading)) m_recordList.AddTail(record);
    while (CKespPoint* const point = m_pDataFile->TakePlainPoint()) {
      TakeVersion(*point, reading);
      if (FilePoint(point, reading)) m_recordList.AddTail(point);
    }
    if (ReckonMemory(takenBefore) > mostMemory) throw CMemoryException();
    next.reset(m_pDataFile->ReadNextRecord(skipDeleted));
    if (!next && m_pDataFile->GetError() != KESP_ERROR_NORMAL_EOF) return ERR_READ_FAILED;
  }
  HandUpFlags(reading);
  if (m_kespVersion < 2 && !m_featureIndex.IsEmpty()) return ERR_OLD_VERSION;
  m_numPoints = reading.points;
  return ERR_NONE;
}

std::uint64_t CKespFile::ReckonMemory(std::int64_t takenBefore) const noexcept {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(kesp::PoolBytesTaken() - takenBefore, 0)) +
         kBytesOfEntries * static_cast<std::uint64_t>(m_recordList.GetCount()) + kBytesOfLink * m_ownLinks.size() +
         kBytesOfLinkList * m_ownLinkLists.size();
}

// The class of a record answers the same for all records of a version: it is asked again when one of another class or
// version follows.
void CKespFile::TakeVersion(CKespRecord& record, Reading& reading) {
  const std::uint64_t kind = std::uint64_t{record.m_recordType} << 16 | record.m_recordVersion;
  for (const std::uint64_t known : reading.kindsSeen) {
    if (known == kind) return;
  }
  reading.kindsSeen[reading.kindsCount++ % reading.kindsSeen.size()] = kind;
  unsigned short needed = 0;
  if (record.GetMinimumKespVersionFromRecordVersion(needed, 0)) {
    m_kespVersion = std::max(m_kespVersion, std::uint32_t{needed});
  }
}

// The feature of that number that came last; records of one feature follow one another as a rule.
CKespFeature* CKespFile::FeatureOf(std::uint32_t number, Reading& reading) const {
  CKespFeature* feature = reading.lastFeature;
  if (feature != nullptr && feature->FeatureNumber == number) return feature;
  feature = nullptr;
  if (m_featureIndex.Lookup(number, feature)) reading.lastFeature = feature;
  return feature;
}

// The same as FileRecord.
bool CKespFile::FilePoint(CKespPoint* point, Reading& reading) {
  std::unique_ptr<CKespPoint> own(point);
  CKespFeature* const feature = FeatureOf(point->FeatureNumber, reading);
  // Only a point that stays is indexed: one that belongs to nothing must not take the place of another.
  if (feature == nullptr) return false;
  feature->AddPoint(point);
  (void)own.release();
  m_pointIndex.Note(point->PointNumber, point);
  ++reading.points;
  if (point->m_flags != 0) reading.withMarks.push_back(feature);
  point->Offset1 = 0;
  point->Offset2 = 0;
  point->HasOffset = 0;
  const CTime time(point->PointTime);
  if (time < m_firstPointTime) m_firstPointTime = time;
  if (time > m_lastPointTime) m_lastPointTime = time;
  return true;
}

bool CKespFile::FileRecord(CKespRecord* record, Reading& reading) {
  std::unique_ptr<CKespRecord> own(record);
  const auto featureOf = [&](std::uint32_t number) { return FeatureOf(number, reading); };
  const auto noteMarks = [&](CKespFeature* feature) {
    if (record->m_flags != 0) reading.withMarks.push_back(feature);
  };
  switch (record->m_recordType) {
    case KESP_RECORD_FEATURE: {
      auto* const feature = static_cast<CKespFeature*>(record);
      m_ownFeatures.push_back(feature);
      (void)own.release();
      if (const CKespFeature* const replaced = m_featureIndex.SetAt(feature->FeatureNumber, feature)) {
        reading.points -= static_cast<std::uint32_t>(replaced->GetNumPoints());
      }
      reading.lastFeature = feature;
      noteMarks(feature);
      return true;
    }
    case KESP_RECORD_POINT:
      return FilePoint(static_cast<CKespPoint*>(own.release()), reading);
    case KESP_RECORD_FEATURE_END: {
      auto* const end = static_cast<CKespFeatureEnd*>(record);
      CKespFeature* const feature = featureOf(end->FeatureNumber);
      if (feature == nullptr) return false;
      if (CKespFeatureEnd* const replaced = feature->GetFeatureEnd()) m_ownRecords.push_back(replaced);
      feature->SetFeatureEnd(end);
      (void)own.release();
      return true;
    }
    case KESP_RECORD_ATTRIBUTE: {
      auto* const attribute = static_cast<CKespAttribute*>(record);
      CKespFeature* const feature = featureOf(attribute->FeatureNumber);
      if (feature == nullptr) return false;
      feature->AddAttribute(attribute);
      (void)own.release();
      noteMarks(feature);
      return true;
    }
    case KESP_RECORD_NOTE:
      m_ownRecords.push_back(record);
      (void)own.release();
      return true;
    case KESP_RECORD_TAG:
      m_ownRecords.push_back(record);
      (void)own.release();
      ProcessTag(static_cast<CKespTag*>(record));
      m_tagList.push_back(static_cast<CKespTag*>(record));
      return true;
    default:
      return false;  // a second header
  }
}

bool CKespFile::ReadKespHeaderVersion1(CKespRecord** next, bool skipDeleted) {
  *next = nullptr;
  m_extent.Invalidate();  // an extent in the header itself never counts in such a file
  const auto read = [&] { return std::unique_ptr<CKespRecord>(m_pDataFile->ReadNextRecord(skipDeleted)); };
  const auto cleanEnd = [this] { return m_pDataFile->GetError() == KESP_ERROR_NORMAL_EOF; };

  std::unique_ptr<CKespRecord> record = read();
  if (!record) return cleanEnd();
  m_pBmcText->Empty();
  if (const CKespNote* const note = AsTaggedNote(record.get(), kBmcTag)) {
    *m_pBmcText = note->NoteText.Mid(kNoteTagLength);
    record = read();
    if (!record) return cleanEnd();
  }
  // Looked for behind the other only: a "BMC:" note behind it is an ordinary one.
  if (const CKespNote* const note = AsTaggedNote(record.get(), kZomTag)) {
    TakeExtentNote(note->NoteText.View().substr(kNoteTagLength));
    record = read();
    if (!record) return cleanEnd();
  }
  *next = record.release();
  return true;
}

// What keeps the text from being taken is no reason to give the file up.
void CKespFile::TakeExtentNote(std::u16string_view numbers) try {
  double values[4] = {0, 0, 0, 0};
  for (double& value : values) {
    if (numbers.empty()) break;
    const std::size_t comma = std::min(numbers.find(u','), numbers.size());
    value = kesp::NumberFromText(numbers.substr(0, comma));
    numbers.remove_prefix(std::min(comma + 1, numbers.size()));
  }
  if (std::fabs(values[0] - values[1]) > kSmallestExtent && std::fabs(values[2] - values[3]) > kSmallestExtent) {
    m_extent.Set(values[0], values[1], values[2], values[3]);
  }
} catch (const std::exception&) {
}

bool CKespFile::ProcessTag(CKespTag* tag) {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  CString name;
  float unused = 0;
  switch (tag->GetType()) {
    case KESP_TAG_GPS_MARK: {
      std::uint32_t time1 = 0;
      std::uint32_t time2 = 0;
      if (tag->GetGPSMark(name, first, second, time1, time2)) {
        m_gpsMarkIndex.SetAt(CGPSTime(time1, time2), CKespFeaturePtPair(first, second));
      }
      break;
    }
    case KESP_TAG_QUALITY_MARK:
      // Entered under 0 when the mark can't be read.
      (void)tag->GetQualityMark(first, unused, unused, unused, unused);
      m_qualityMarkIndex.SetAt(first, tag);
      break;
    case KESP_TAG_QUALITY_MARK_EX: {
      int integer = 0;
      (void)tag->GetQualityMarkEx(first, unused, unused, unused, unused, integer);
      m_qualityMarkIndex.SetAt(first, tag);
      break;
    }
    case KESP_TAG_FEATURE_LINK: {
      CKespFeatureLink link;
      if (tag->GetFeatureLink(link)) AddFeatureLink(link);
      break;
    }
    case KESP_TAG_NAMED_FLAG:
      (void)tag->GetNamedFlag(first, second, name);
      if (name.CompareNoCase(u"FeatureChanges") == 0) m_featureChangesIndex.SetAt(first, tag);
      break;
    default:
      break;
  }
  return true;
}

bool CKespFile::AddFeatureLink(const CKespFeatureLink& link) {
  CKespFeatureLink* const copy = &m_ownLinks.emplace_back(link);
  m_featureLinks.push_back(copy);
  // A feature linked to itself has the link in its list twice.
  for (const std::uint32_t number : {link.m_featureNumber1, link.m_featureNumber2}) {
    CKespLinkList* list = nullptr;
    if (!m_linkListIndex.Lookup(number, list)) {
      list = &m_ownLinkLists.emplace_back();
      m_linkListIndex.SetAt(number, list);
    }
    list->Add(copy);
  }
  return true;
}

ErrorEnum CKespFile::CheckTavoFileIntegrity() {
  Clear();  // also where there is nothing to read
  const ErrorEnum result = ReadKespFile(false);
  if (result != ERR_NONE) return result;
  const bool whole = std::all_of(m_featureIndex.begin(), m_featureIndex.end(),
                                 [](const auto& entry) { return entry.value->GetNumPoints() != 0; });
  return whole ? ERR_NONE : ERR_BAD_FEATURE;
}

CKespFeature* CKespFile::GetKespFeature(CKespPoint* point) const {
  CKespFeature* feature = nullptr;
  if (point != nullptr) (void)m_featureIndex.Lookup(point->FeatureNumber, feature);
  return feature;
}
