#include "kesp/dataset/StoreReader.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <utility>

#include "kesp/format/HeaderNotes.h"
#include "kesp/memory/ObjectPool.h"
#include "kesp/util/NumberText.h"

namespace kesp {
namespace {

constexpr double kSmallestExtent = 1e-7;  // an extent is used only if its sides are longer
// The default memory limit of a data set: a fixed part and a part for each byte of the file, in bytes.
constexpr std::uint64_t kMemoryToBeginWith = std::uint64_t{48} << 20;
constexpr std::uint64_t kMemoryPerByte = 4;
// Bytes counted for what is not in the pool: a record's entries in lists, a link, and the link list of a feature.
constexpr std::uint64_t kBytesOfEntries = 32;
constexpr std::uint64_t kBytesOfLink = 48;
constexpr std::uint64_t kBytesOfLinkList = 96;

bool IsExtent(double minX, double maxX, double minY, double maxY) {
  return std::fabs(minX - maxX) > kSmallestExtent && std::fabs(minY - maxY) > kSmallestExtent;
}

// Returns the record as a note if it is one and begins with the tag, else null.
const CKespNote* AsTaggedNote(const CKespRecord* record, std::u16string_view tag) {
  if (record->m_recordType != KESP_RECORD_NOTE) return nullptr;
  const auto* const note = static_cast<const CKespNote*>(record);
  return note->NoteText.View().substr(0, kNoteTagLength) == tag ? note : nullptr;
}

class ReadingAhead {
 public:
  explicit ReadingAhead(CKespDataFile& file) : m_file(file) { file.ReadAhead(true); }
  ~ReadingAhead() { m_file.m_file.EndBlockReader(); }
  ReadingAhead(const ReadingAhead&) = delete;
  ReadingAhead& operator=(const ReadingAhead&) = delete;

 private:
  CKespDataFile& m_file;
};

}  // namespace

ErrorEnum StoreReader::Read() {
  if (!m_container.SeekToFirstRecord()) return ERR_SEEK_FAILED;
  const CKespTavoHeader* const header = ReadHeader();
  if (header == nullptr) return ERR_NO_HEADER;
  CKespRecord* next = nullptr;
  if (header->m_recordVersion != 1) {
    next = ReadNext();
  } else if (!ReadHeaderNotes(next)) {
    return ERR_BAD_VERSION1_HEADER;
  }
  if (next == nullptr && AtCleanEnd()) return ERR_NONE;
  return ReadRecords(next);
}

const CKespTavoHeader* StoreReader::ReadHeader() {
  std::unique_ptr<CKespRecord> first(ReadNext());
  if (!first || first->m_recordType != KESP_RECORD_HEADER) return nullptr;
  m_own.records.push_back(first.get());
  const auto* const header = static_cast<const CKespTavoHeader*>(first.release());
  m_file.m_recordList.AddTail(m_own.records.back());
  if (IsExtent(header->ExtentMinX, header->ExtentMaxX, header->ExtentMinY, header->ExtentMaxY)) {
    m_file.m_extent.Set(header->ExtentMinX, header->ExtentMaxX, header->ExtentMinY, header->ExtentMaxY);
  }
  m_file.m_kespVersion = header->KespVersion;
  return header;
}

bool StoreReader::ReadHeaderNotes(CKespRecord*& next) {
  m_file.m_extent.Invalidate();  // an extent in the header itself doesn't count in such a file
  std::unique_ptr<CKespRecord> record(ReadNext());
  if (!record) return AtCleanEnd();
  m_file.m_pBmcText->Empty();
  if (const CKespNote* const note = AsTaggedNote(record.get(), kBmcTag)) {
    *m_file.m_pBmcText = note->NoteText.Mid(kNoteTagLength);
    record.reset(ReadNext());
    if (!record) return AtCleanEnd();
  }
  // Only searched after the other note: a "BMC:" note after a "ZOM:" one is an ordinary note.
  if (const CKespNote* const note = AsTaggedNote(record.get(), kZomTag)) {
    SetExtentFrom(note->NoteText.View().substr(kNoteTagLength));
    record.reset(ReadNext());
    if (!record) return AtCleanEnd();
  }
  next = record.release();
  return true;
}

// An extent that can't be read is no reason to give up the file.
void StoreReader::SetExtentFrom(std::u16string_view numbers) try {
  double values[4] = {0, 0, 0, 0};
  for (double& value : values) {
    if (numbers.empty()) break;
    const std::size_t comma = std::min(numbers.find(u','), numbers.size());
    value = NumberFromText(numbers.substr(0, comma));
    numbers.remove_prefix(std::min(comma + 1, numbers.size()));
  }
  if (IsExtent(values[0], values[1], values[2], values[3])) {
    m_file.m_extent.Set(values[0], values[1], values[2], values[3]);
  }
} catch (const std::exception&) {
}

ErrorEnum StoreReader::ReadRecords(CKespRecord* next) {
  std::unique_ptr<CKespRecord> record(next);
  const ReadingAhead ahead(m_container);
  m_poolBefore = PoolBytesHeld();
  const std::uint64_t limit = MemoryLimit();
  // Damage right after the header is treated as the end of the file; later damage is reported.
  while (record) {
    Add(record.release());
    while (CKespPoint* const point = m_container.ReadPlainPoint()) AddPoint(point);
    if (MemoryUsed() > limit) throw CMemoryException();
    record.reset(ReadNext());
    if (!record && !AtCleanEnd()) return ERR_READ_FAILED;
  }
  PropagateMarks();
  if (m_file.m_kespVersion < 2 && !m_file.m_featureIndex.IsEmpty()) return ERR_OLD_VERSION;
  m_file.m_numPoints = m_points;
  return ERR_NONE;
}

// Only a crafted file reaches the default limit; a survey needs about half the file's length.
std::uint64_t StoreReader::MemoryLimit() const noexcept {
  const std::uint64_t byDefault = kMemoryToBeginWith + kMemoryPerByte * m_container.m_file.KnownLength();
  return m_own.memoryLimit != 0 ? m_own.memoryLimit : byDefault;
}

std::uint64_t StoreReader::MemoryUsed() const noexcept {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(PoolBytesHeld() - m_poolBefore, 0)) +
         kBytesOfEntries * static_cast<std::uint64_t>(m_file.m_recordList.GetCount()) +
         kBytesOfLink * m_own.links.size() + kBytesOfLinkList * m_own.linkLists.size();
}

// All records of one class and version need the same file version, so only asks the class when a new pair comes.
void StoreReader::NoteNeededVersion(CKespRecord& record) {
  const std::uint64_t kind = std::uint64_t{record.m_recordType} << 16 | record.m_recordVersion;
  for (const std::uint64_t known : m_kindsSeen) {
    if (known == kind) return;
  }
  m_kindsSeen[m_kindsCount++ % m_kindsSeen.size()] = kind;
  unsigned short needed = 0;
  if (record.GetMinimumKespVersionFromRecordVersion(needed, 0)) {
    m_file.m_kespVersion = std::max(m_file.m_kespVersion, std::uint32_t{needed});
  }
}

// Returns the last feature with that number.
CKespFeature* StoreReader::FeatureOf(std::uint32_t number) {
  if (m_lastFeature != nullptr && m_lastFeature->FeatureNumber == number) return m_lastFeature;
  CKespFeature* feature = nullptr;
  if (m_file.m_featureIndex.Lookup(number, feature)) m_lastFeature = feature;
  return feature;
}

void StoreReader::NoteMarks(const CKespRecord& record, CKespFeature& feature) {
  if (record.m_flags != 0) m_marked.push_back(&feature);
}

void StoreReader::Add(CKespRecord* record) {
  NoteNeededVersion(*record);
  if (Place(record)) m_file.m_recordList.AddTail(record);
}

void StoreReader::AddPoint(CKespPoint* point) {
  NoteNeededVersion(*point);
  if (PlacePoint(point)) m_file.m_recordList.AddTail(point);
}

bool StoreReader::PlacePoint(CKespPoint* point) {
  std::unique_ptr<CKespPoint> own(point);
  CKespFeature* const feature = FeatureOf(point->FeatureNumber);
  // A point without a feature is not indexed: it must not replace another.
  if (feature == nullptr) return false;
  feature->AddPoint(point);
  (void)own.release();
  m_file.m_pointIndex.Note(point->PointNumber, point);
  ++m_points;
  NoteMarks(*point, *feature);
  point->Offset1 = 0;
  point->Offset2 = 0;
  point->HasOffset = 0;
  const CTime time(point->PointTime);
  if (time < m_file.m_firstPointTime) m_file.m_firstPointTime = time;
  if (time > m_file.m_lastPointTime) m_file.m_lastPointTime = time;
  return true;
}

void StoreReader::PlaceFeature(std::unique_ptr<CKespRecord> record) {
  auto* const feature = static_cast<CKespFeature*>(record.get());
  m_own.features.push_back(feature);
  (void)record.release();
  if (const CKespFeature* const replaced = m_file.m_featureIndex.SetAt(feature->FeatureNumber, feature)) {
    m_points -= static_cast<std::uint32_t>(replaced->GetNumPoints());
  }
  m_lastFeature = feature;
  NoteMarks(*feature, *feature);
}

bool StoreReader::PlaceEnd(std::unique_ptr<CKespRecord> record) {
  auto* const end = static_cast<CKespFeatureEnd*>(record.get());
  CKespFeature* const feature = FeatureOf(end->FeatureNumber);
  if (feature == nullptr) return false;
  if (CKespFeatureEnd* const replaced = feature->GetFeatureEnd()) m_own.records.push_back(replaced);
  feature->SetFeatureEnd(end);
  (void)record.release();
  return true;
}

bool StoreReader::PlaceAttribute(std::unique_ptr<CKespRecord> record) {
  auto* const attribute = static_cast<CKespAttribute*>(record.get());
  CKespFeature* const feature = FeatureOf(attribute->FeatureNumber);
  if (feature == nullptr) return false;
  feature->AddAttribute(attribute);
  (void)record.release();
  NoteMarks(*attribute, *feature);
  return true;
}

bool StoreReader::Place(CKespRecord* record) {
  std::unique_ptr<CKespRecord> own(record);
  switch (record->m_recordType) {
    case KESP_RECORD_FEATURE:
      PlaceFeature(std::move(own));
      return true;
    case KESP_RECORD_POINT:
      return PlacePoint(static_cast<CKespPoint*>(own.release()));
    case KESP_RECORD_FEATURE_END:
      return PlaceEnd(std::move(own));
    case KESP_RECORD_ATTRIBUTE:
      return PlaceAttribute(std::move(own));
    case KESP_RECORD_NOTE:
    case KESP_RECORD_TAG:
      m_own.records.push_back(record);
      (void)own.release();
      if (record->m_recordType == KESP_RECORD_NOTE) return true;
      m_file.ProcessTag(static_cast<CKespTag*>(record));
      m_file.m_tagList.push_back(static_cast<CKespTag*>(record));
      return true;
    default:
      return false;  // a second header
  }
}

// Does what PropigateSourceCtrlFlagsToFeatures does, but skips features with only zero flag words: these don't change.
void StoreReader::PropagateMarks() {
  for (const auto& entry : m_file.m_featureChangesIndex) {
    CKespFeature* feature = nullptr;
    if (!m_file.m_featureIndex.Lookup(entry.key, feature)) continue;
    m_file.ApplyChangesTag(entry.key, *feature);
    m_marked.push_back(feature);
  }
  std::sort(m_marked.begin(), m_marked.end());
  m_marked.erase(std::unique(m_marked.begin(), m_marked.end()), m_marked.end());
  for (CKespFeature* feature : m_marked) {
    // Skip features whose number a later one has taken.
    CKespFeature* indexed = nullptr;
    if (m_file.m_featureIndex.Lookup(feature->FeatureNumber, indexed) && indexed == feature) {
      CKespFile::ApplyMarksOfChildren(*feature);
    }
  }
}

}  // namespace kesp

ErrorEnum CKespFile::ReadKespFile(bool readDeleted) {
  m_own->wasReadToEnd = false;
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  try {
    ClearStorage();
    m_own->storedIn = m_pDataFile->m_file.Identity();
    m_pDataFile->m_ranOutOfMemory = false;
    const ErrorEnum result = kesp::StoreReader(*this, !readDeleted).Read();
    if (m_pDataFile->m_ranOutOfMemory) return ERR_MEMORY;
    // A last record whose length goes past the end of the file also ends the walk with KESP_ERROR_NORMAL_EOF.
    m_own->wasReadToEnd = result != ERR_SEEK_FAILED && m_pDataFile->GetError() == KESP_ERROR_NORMAL_EOF &&
                          m_pDataFile->m_file.GetPosition() == m_pDataFile->m_file.KnownLength();
    return result;
  } catch (const std::bad_alloc&) {
    return OutOfMemory();
  }
}
