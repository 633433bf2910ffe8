// Finds the record in the file that is the same as a given one, and overwrites it.
#include <limits>
#include <memory>

#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/RecordPlaces.h"

bool CKespDataFile::UpdateRecord(CKespRecord* record, unsigned long sourceFlag, bool continueSearch) {
  return IsOpen() && record != nullptr &&
         Guarded([&] { return FindAndOverwrite(*record, sourceFlag, continueSearch) == Update::kDone; });
}

CKespDataFile::Update CKespDataFile::FindAndOverwrite(CKespRecord& record, unsigned long sourceFlag,
                                                      bool continueSearch) {
  if (!continueSearch && !SeekToFirstRecord()) return Update::kFailed;
  const Update result = WalkAndOverwrite(record, sourceFlag, &CKespDataFile::ReadNext);
  return result == Update::kNotFound && continueSearch ? FindAndOverwrite(record, sourceFlag, false) : result;
}

CKespDataFile::Update CKespDataFile::WalkAndOverwrite(CKespRecord& record, unsigned long sourceFlag, ReadMember read) {
  const std::uint32_t failuresBefore = m_failures;
  std::uint64_t position = 0;
  while (const std::unique_ptr<CKespRecord> found{(this->*read)(position, false)}) {
    if (found->IsSameKespRecord(&record)) return OverwriteAt(position, record, sourceFlag);
  }
  // After a failure it may be there but can't be read.
  return m_failures != failuresBefore ? Update::kFailed : Update::kNotFound;
}

// ReadNext, but a version-1 feature that is cut short ends the walk as other damage does.
CKespRecord* CKespDataFile::ReadNextOrEnd(std::uint64_t& position, bool skipDeleted) {
  try {
    return ReadNext(position, skipDeleted);
  } catch (const CFileException& e) {
    if (e.m_cause != CFileException::endOfFile) throw;
    return nullptr;
  }
}

// Overwrites the same record, so the index of the file's records stays true.
CKespDataFile::Update CKespDataFile::OverwriteAt(std::uint64_t position, CKespRecord& record,
                                                 unsigned long sourceFlag) {
  const std::uint64_t changedFrom = m_file.ChangedFrom();
  m_file.Seek(static_cast<std::int64_t>(position), CFile::begin);
  if (!Overwrite(record, sourceFlag)) return Update::kFailed;
  m_file.SetChangedFrom(changedFrom);
  m_file.Seek(static_cast<std::int64_t>(position), CFile::begin);
  return Update::kDone;
}

// Has the result of FindAndOverwrite from the record's own position, and after that from the first record, and leaves
// the file at the same position with the same m_error. But when another record is at that position, it walks over the
// file only once for all calls, to fill the index.
CKespDataFile::Update CKespDataFile::FindFromItsPlaceAndOverwrite(CKespRecord& record, unsigned long sourceFlag) {
  // In a file over 4 GiB another record may be at that position.
  const bool arePositionsUnique = m_file.KnownLength() <= std::numeric_limits<std::uint32_t>::max();
  if (!arePositionsUnique) return FindAndOverwrite(record, sourceFlag, false);
  const std::uint32_t failuresBefore = m_failures;
  m_file.Seek(record.m_filePosition, CFile::begin);
  std::uint64_t position = 0;
  const std::unique_ptr<CKespRecord> other(ReadNextOrEnd(position, false));
  if (other && other->IsSameKespRecord(&record)) return OverwriteAt(position, record, sourceFlag);
  if (m_failures != failuresBefore) return Update::kFailed;

  const std::uint64_t next = m_file.GetPosition();
  const bool isIndexed = IndexRecords();
  const bool isOnTheWay = other && isIndexed && m_places->Has(*other, static_cast<std::uint32_t>(position));
  if (other && !isOnTheWay) {
    // A walk from there may take another way than one from the first record.
    m_file.Seek(static_cast<std::int64_t>(next), CFile::begin);
    const Update result = WalkAndOverwrite(record, sourceFlag, &CKespDataFile::ReadNextOrEnd);
    if (result != Update::kNotFound) return result;
  }
  return isIndexed ? FindByIndexAndOverwrite(record, sourceFlag, isOnTheWay ? position : 0)
                   : FindAndOverwrite(record, sourceFlag, false);
}

// Searches the file from a position, then from the first record. The index must be up to date.
CKespDataFile::Update CKespDataFile::FindByIndexAndOverwrite(CKespRecord& record, unsigned long sourceFlag,
                                                             std::uint64_t from) {
  const std::uint32_t failuresBefore = m_failures;
  for (const auto& entries : m_places->Candidates(record, from)) {
    for (const std::uint64_t entry : entries) {
      std::uint64_t position = kesp::RecordPlaces::PositionIn(entry);
      m_file.Seek(static_cast<std::int64_t>(position), CFile::begin);
      const std::unique_ptr<CKespRecord> found(ReadNext(position, false));
      if (found && found->IsSameKespRecord(&record)) return OverwriteAt(position, record, sourceFlag);
      if (m_failures != failuresBefore) return Update::kFailed;
    }
  }
  // Meets again what ended the walk for the index.
  m_file.Seek(static_cast<std::int64_t>(m_places->end), CFile::begin);
  return WalkAndOverwrite(record, sourceFlag, &CKespDataFile::ReadNextOrEnd);
}

// Brings the index of the file's records up to date, as far as they can be read. Returns false if there is no memory
// for it. Failures are not noted: a search that gets to that place will meet them.
bool CKespDataFile::IndexRecords() {
  const std::uint32_t failures = m_failures;
  const int systemError = m_systemError;
  bool isDone = false;
  try {
    isDone = SeekToFirstRecord();
    if (isDone) AddPlacesOfNewRecords();
  } catch (const std::bad_alloc&) {
    m_places.reset();
    isDone = false;
  }
  m_failures = failures;
  m_systemError = systemError;
  return isDone;
}

void CKespDataFile::AddPlacesOfNewRecords() {
  const std::uint64_t length = m_file.KnownLength();
  const bool isTrue = m_places && m_places->begin == m_firstRecordOffset && m_places->lengthLimit == m_lengthLimit &&
                      m_places->end <= length && m_places->end <= m_file.ChangedFrom();
  if (isTrue && m_places->fileLength == length && m_file.ChangedFrom() == CFile::kUnchanged) return;
  if (!isTrue) {
    m_places = std::make_unique<kesp::RecordPlaces>();
    m_places->begin = m_firstRecordOffset;
    m_places->end = m_firstRecordOffset;
    m_places->lengthLimit = m_lengthLimit;
  }
  m_places->fileLength = length;
  m_file.SetChangedFrom(CFile::kUnchanged);
  m_file.Seek(static_cast<std::int64_t>(m_places->end), CFile::begin);
  std::uint64_t position = 0;
  while (const std::unique_ptr<CKespRecord> record{ReadNextOrEnd(position, false)}) {
    m_places->Add(*record, static_cast<std::uint32_t>(position));
    m_places->end = m_file.GetPosition();
  }
  m_places->Settle();
}
