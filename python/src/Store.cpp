#include "python/src/Store.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "ogr/Summary.h"
#include "python/src/Errors.h"
#include "python/src/Reading.h"
#include "python/src/Text.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::python {
namespace {

constexpr std::uint64_t kLongest = 0xFFFFFFFF;  // bytes of a file, and the highest number

// What the data set owns.
template <class Record>
std::shared_ptr<Record> Borrow(Record* record) {
  return std::shared_ptr<Record>(record, [](Record*) {});
}

// After a read: whether it came to the end of the file, and nothing claims to go on there.
bool IsWhole(const CKespFile& dataset, ErrorEnum result) {
  if ((result != ERR_NONE && result != ERR_OLD_VERSION) || !dataset.WasReadToEnd()) return false;
  CFile& file = dataset.m_pDataFile->m_file;
  return file.GetPosition() == file.KnownLength();
}

}  // namespace

Store::Store(const CString& path, Mode mode, bool includeDeleted, std::uint16_t version, Watch& watch)
    : m_path(path), m_mode(mode), m_dataset(std::make_unique<CKespFile>()) {
  if (mode == Mode::kCreate) CreateFile(version);
  if (mode == Mode::kEdit) {
    const auto refused = tool::OpenForWriting(m_writer, path.ToPathBytes());
    if (refused && m_writer.GetSystemError() != 0) RaiseOs(m_writer.GetSystemError(), path);
    if (refused) Raise(*refused, path);
  }
  ReadAll(includeDeleted, watch);
  if (mode == Mode::kRead) return;
  if (!m_end.IsWhole()) Raise(m_end, path);
  if (m_version == 0) RaiseError(KESP_ERROR_NONE, "no record can be written in a file of version 0", path);
  const py::gil_scoped_release released;
  FindLastNumbers();
}

Store::~Store() = default;

void Store::CreateFile(std::uint16_t version) {
  CFileException failure(CFileException::none, m_path);
  CFile file;
  if (!file.Open(m_path, CFile::modeReadWrite | CFile::modeNew, &failure)) RaiseOs(failure.m_lOsError, m_path);
  file.Abort();
  m_writer.m_version = version;
  m_writer.m_headerWord = 0;
  CKespTavoHeader header;
  header.m_recordVersion = std::min<std::uint16_t>(version, 2);
  header.KespVersion = version;
  header.CreationTime = static_cast<std::uint32_t>(std::time(nullptr));
  if (!m_writer.Create(m_path) || !m_writer.AppendRecord(&header, 0)) RaiseWriteFailure(m_writer, m_path);
  m_hasChanged = true;
}

void Store::ReadAll(bool includeDeleted, Watch& watch) {
  CKespDataFile first;
  OpenWatched(first, m_path, watch);
  m_version = first.m_version;
  ErrorEnum result = ERR_NONE;
  {
    const py::gil_scoped_release released;
    CString message;
    if (first.m_file.ReadsSource()) {
      result = m_dataset->OpenKespReadOnly(WatchedSource(m_path, watch), m_path, message);
    } else {
      result = m_dataset->OpenKespReadOnly(m_path, message);
    }
    bool isWhole = false;
    try {
      if (result == ERR_NONE) result = m_dataset->ReadKespFile(includeDeleted);
      isWhole = IsWhole(*m_dataset, result);
    } catch (const CFileException&) {
      // A feature of version 1 that is cut short. What was read before it is there.
    }
    // A data set does not tell where and why it ended.
    if (!isWhole) m_end = FindDamage(first);
    (void)m_dataset->CloseKesp();
  }
  watch.Rethrow();
  if (result == ERR_MEMORY) RaiseOs(ENOMEM, m_path);
  if (m_end.cause == tool::Verdict::Cause::kUnreadable) Raise(m_end, m_path);
  TakeRecords();
}

void Store::TakeRecords() {
  for (CKespRecord* const record : m_dataset->m_recordList) {
    if (auto* const feature = dynamic_cast<CKespFeature*>(record)) {
      m_byNumber[feature->FeatureNumber] = m_features.size();
      m_features.push_back({Borrow(feature)});
    } else if (auto* const note = dynamic_cast<CKespNote*>(record)) {
      m_notes.push_back({Borrow(note)});
    } else if (auto* const tag = dynamic_cast<CKespTag*>(record)) {
      m_tags.push_back({Borrow(tag)});
    } else if (auto* const header = dynamic_cast<CKespTavoHeader*>(record); header != nullptr && !m_header) {
      m_header = std::make_unique<CKespTavoHeader>(*header);
    }
  }
  m_oldFeatures = m_features.size();
  m_oldNotes = m_notes.size();
  m_oldTags = m_tags.size();
}

// Numbers are not used again, not even those of deleted records.
void Store::FindLastNumbers() {
  if (!m_writer.SeekToFirstRecord()) return;
  for (RecordView record; m_writer.ReadNextView(record, false);) {
    if (record.Type() == KESP_RECORD_FEATURE) {
      m_nextFeature = std::max(m_nextFeature, record.AsFeature().FeatureNumber() + std::uint64_t{1});
    } else if (record.Type() == KESP_RECORD_POINT) {
      m_nextPoint = std::max(m_nextPoint, record.AsPoint().PointNumber() + std::uint64_t{1});
    }
  }
}

void Store::Check() const {
  if (!IsOpen()) throw py::value_error("the survey is closed");
  if (m_isBusy) throw std::runtime_error("the survey is being written by another thread");
}

void Store::CheckWritable() const {
  Check();
  if (!IsWritable()) throw py::value_error("the survey is open read-only");
}

std::optional<std::size_t> Store::FindNumber(std::uint32_t number) const {
  const auto found = m_byNumber.find(number);
  if (found == m_byNumber.end() || m_features[found->second].isGone) return std::nullopt;
  return found->second;
}

// The first change takes the mark of a proper closing away, so that a survey whose program dies is known by it.
void Store::MarkOpen() {
  if (std::exchange(m_isMarkedOpen, true) || !m_header || m_header->m_recordVersion < 2) return;
  if (!m_header->WasCleanClose()) return;
  AmendmentOf(*m_header);
  dynamic_cast<CKespTavoHeader&>(*m_amendments.at(m_header->m_filePosition).after).SetCleanClose(false);
}

bool Store::WriteAll() {
  std::vector<CKespRecord*> records;
  for (CKespRecord* const record : m_appends) {
    if (!m_dropped.contains(record)) records.push_back(record);
  }
  const std::uint32_t flag = m_mode == Mode::kCreate ? 0U : std::uint32_t{KESP_SRC_ADDED};
  if (!records.empty() && !m_writer.AppendRecords(records.data(), records.size(), flag)) return false;
  m_appends.clear();
  m_dropped.clear();
  m_oldFeatures = m_features.size();
  m_oldNotes = m_notes.size();
  m_oldTags = m_tags.size();
  for (const auto& [position, amendment] : m_amendments) {
    if (!m_writer.AmendRecord(*amendment.before, *amendment.after)) return false;
  }
  try {
    return m_writer.Flush();
  } catch (const CFileException&) {
    return false;
  }
}

void Store::Flush() {
  CheckWritable();
  if (m_appends.empty() && m_amendments.empty()) return;
  std::uint64_t bytes = m_writer.GetLength();
  for (CKespRecord* const record : m_appends) bytes += 14 + record->GetLength(0);
  if (bytes > kLongest) RaiseDoesNotFit("the file would grow past 4 GiB, where positions end", m_path);
  MarkOpen();
  bool isWritten = false;
  m_isBusy = true;
  {
    const py::gil_scoped_release released;
    isWritten = WriteAll();
  }
  m_isBusy = false;
  if (!isWritten) RaiseWriteFailure(m_writer, m_path);
  m_hasChanged = true;
  Forget();
}

void Store::Forget() noexcept {
  m_appends.clear();
  m_dropped.clear();
  m_graveyard.clear();
  m_amendments.clear();
  m_keptFeatures.clear();
  m_keptNotes.clear();
  m_goneFeatures.clear();
  m_goneNotes.clear();
  m_goneTags.clear();
  m_keptHeader.reset();
  m_oldFeatures = m_features.size();
  m_oldNotes = m_notes.size();
  m_oldTags = m_tags.size();
}

void Store::Rollback() {
  Check();
  const auto restore = [](auto& entries, const std::vector<std::size_t>& gone, std::size_t old) {
    for (const std::size_t index : gone) entries[index].isGone = false;
    for (std::size_t index = old; index < entries.size(); ++index) entries[index].isGone = true;
  };
  restore(m_features, m_goneFeatures, m_oldFeatures);
  restore(m_notes, m_goneNotes, m_oldNotes);
  restore(m_tags, m_goneTags, m_oldTags);
  for (auto& [index, feature] : m_keptFeatures) {
    if (index < m_oldFeatures) m_features[index].record = std::move(feature);
  }
  for (const auto& [index, text] : m_keptNotes) m_notes[index].record->NoteText = text;
  if (m_keptHeader) m_header = std::move(m_keptHeader);
  Forget();
}

bool Store::WriteSummary() {
  if (!m_hasChanged || !m_header || m_header->m_recordVersion < 2) return true;
  bool isSteppable = false;
  const std::unique_ptr<CKespRecord> before = ReadAt(m_header->m_filePosition, isSteppable);
  const auto* const stored = dynamic_cast<const CKespTavoHeader*>(before.get());
  if (stored == nullptr) return false;
  CKespTavoHeader after(*stored);
  if (!ogr::Summarize(m_writer, after)) return false;
  after.SetCleanClose(true);
  try {
    return m_writer.AmendRecord(*stored, after) && m_writer.Flush();
  } catch (const CFileException&) {
    return false;
  }
}

void Store::Close(bool discard) {
  if (!IsOpen()) return;
  Check();
  bool isWritten = true;
  const auto close = [this] {
    Forget();
    m_features.clear();
    m_notes.clear();
    m_tags.clear();
    m_header.reset();
    m_dataset.reset();
    m_writer.Close();
  };
  try {
    if (discard) Rollback();
    if (IsWritable()) {
      Flush();
      m_isBusy = true;
      {
        const py::gil_scoped_release released;
        isWritten = WriteSummary();
      }
      m_isBusy = false;
    }
  } catch (...) {
    close();
    throw;
  }
  const bool hasFailed = !isWritten;
  const int osError = m_writer.GetSystemError();
  close();
  if (hasFailed && osError != 0) RaiseOs(osError, m_path);
  if (hasFailed) RaiseError(KESP_ERROR_NONE, "the summary can't be written", m_path);
}

}  // namespace kesp::python
