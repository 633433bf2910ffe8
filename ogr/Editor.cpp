#include "ogr/Editor.h"

#include <algorithm>
#include <limits>
#include <system_error>

#include <cpl_error.h>

#include "kesp/platform/Exception.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespPoint.h"
#include "ogr/Summary.h"

namespace kesp::ogr {
namespace {

constexpr std::uint64_t kMostPending = std::uint64_t{4} << 20;  // bytes, that are gathered for one append
constexpr std::uint64_t kRecordHeader = 14, kLengthField = 10;

std::uint64_t BytesOf(const Records& records) {
  std::uint64_t bytes = 0;
  for (const auto& record : records) bytes += kRecordHeader + record->GetLength(0);
  return bytes;
}

bool IsMarkedDeletedBy(const Amendment& amendment) {
  return amendment.after->IsDeleted() && !amendment.before->IsDeleted();
}

// The body's length as the record header in the file gives it.
std::uint32_t LengthIn(const std::vector<std::byte>& record) {
  std::uint32_t length = 0;
  for (std::size_t i = 0; i < sizeof length; ++i) {
    length |= std::to_integer<std::uint32_t>(record[kLengthField + i]) << 8 * i;
  }
  return length;
}

}  // namespace

Editor::Editor(SurveyFile& file, const Survey& survey, std::string path, Origin origin)
    : m_file(file),
      m_survey(survey),
      m_path(std::move(path)),
      m_sourceFlag(origin == Origin::kNew ? 0U : std::uint32_t{KESP_SRC_ADDED}),
      m_lengthBefore(file.Length()),
      m_lastFeature(survey.lastFeature),
      m_lastPoint(survey.lastPoint) {
  ReadHeader();
}

bool Editor::Fail(const std::string& what) {
  const int osError = m_file.Container().GetSystemError();
  const std::string why = osError != 0 ? ": " + std::generic_category().message(osError) : std::string();
  CPLError(CE_Failure, CPLE_FileIO, "%s: %s%s", m_path.c_str(), what.c_str(), why.c_str());
  return false;
}

void Editor::ReadHeader() {
  CKespDataFile& container = m_file.ForWriting();
  std::unique_ptr<CKespRecord> first(container.SeekToFirstRecord() ? container.ReadNextRecord(true) : nullptr);
  m_header.reset(dynamic_cast<CKespTavoHeader*>(first.get()));
  if (m_header != nullptr) (void)first.release();
}

bool Editor::IsFree(std::uint32_t featureNumber) const {
  if (m_recent.Has(featureNumber)) return false;
  return !m_survey.directory.Find(featureNumber) || m_survey.directory.IsGone(featureNumber);
}

void Editor::NoteNumber(const CKespRecord& record) {
  if (const auto* const feature = dynamic_cast<const CKespFeature*>(&record)) {
    m_recent.Add(feature->FeatureNumber);
    m_lastFeature = std::max(m_lastFeature, feature->FeatureNumber);
  } else if (const auto* const point = dynamic_cast<const CKespPoint*>(&record)) {
    m_lastPoint = std::max(m_lastPoint, point->PointNumber);
  }
}

bool Editor::HasRoomFor(std::uint64_t bytes) {
  if (m_file.Length() + m_pendingBytes + bytes <= std::numeric_limits<std::uint32_t>::max()) return true;
  CPLError(CE_Failure, CPLE_NotSupported, "%s: would grow past 4 GiB, where positions in a Kesp data file end",
           m_path.c_str());
  return false;
}

bool Editor::Append(Records records) {
  const std::uint64_t bytes = BytesOf(records);
  if (!HasRoomFor(bytes)) return false;
  const std::size_t before = m_pending.size();
  for (const auto& record : records) NoteNumber(*record);
  std::move(records.begin(), records.end(), std::back_inserter(m_pending));
  m_pendingBytes += bytes;
  if (m_pendingBytes < kMostPending || WritePending()) return true;
  m_pending.resize(before);
  m_pendingBytes -= bytes;
  return false;
}

bool Editor::WritePending() {
  if (m_pending.empty()) return true;
  if (!MarkOpen()) return false;
  std::vector<CKespRecord*> records;
  records.reserve(m_pending.size());
  for (const auto& record : m_pending) records.push_back(record.get());
  if (!m_file.ForWriting().AppendRecords(records.data(), records.size(), m_sourceFlag)) {
    return Fail("can't be written");
  }
  m_file.TakeLength();
  m_pending.clear();
  m_pendingBytes = 0;
  m_hasAppended = m_hasChanged = true;
  m_isUnsynced = false;
  return true;
}

bool Editor::Sync() {
  if (!m_isUnsynced) return true;
  try {
    m_file.ForWriting().Flush();
  } catch (const CFileException&) {
    return Fail("can't be written to the disk");
  }
  m_isUnsynced = false;
  return true;
}

bool Editor::Flush() { return WritePending() && Sync(); }

void Editor::ForgetNews() noexcept {
  m_hasAppended = false;
  m_recent = {};
}

bool Editor::MarkOpen() {
  if (std::exchange(m_isMarked, true) || m_header == nullptr || m_header->m_recordVersion < 2) return true;
  return ChangeHeader([](CKespTavoHeader& header) { header.SetCleanClose(false); });
}

bool Editor::ChangeHeader(const Change& change) {
  if (m_header == nullptr || !MarkOpen()) return false;
  Amendments amendments;
  auto after = std::make_unique<CKespTavoHeader>(*m_header);
  change(*after);
  if (m_sourceFlag != 0) after->SetSourceFlag(KESP_SRC_MODIFIED);
  auto now = std::make_unique<CKespTavoHeader>(*after);
  amendments.push_back({std::make_unique<CKespTavoHeader>(*m_header), std::move(after)});
  if (!Amend(amendments)) return false;
  m_header = std::move(now);
  return true;
}

bool Editor::ReadOriginals(const Amendments& amendments, std::vector<Original>& originals) {
  CFile& file = m_file.ForWriting().m_file;
  for (const Amendment& amendment : amendments) {
    if (!CKespDataFile::CanAmend(*amendment.before, *amendment.after)) {
      CPLError(CE_Failure, CPLE_NotSupported,
               "%s: a value is too long or too large for its place in a file of version %d", m_path.c_str(),
               int{FileVersion()});
      return false;
    }
    Original original{amendment.before->m_filePosition, {}};
    original.bytes.resize(kRecordHeader + amendment.before->GetLength(0));
    file.Seek(original.position, CFile::begin);
    if (file.Read(original.bytes.data(), original.bytes.size()) != original.bytes.size()) {
      return Fail("a record can't be read any more");
    }
    // A deleted record is stepped over by this length.
    if (IsMarkedDeletedBy(amendment) && LengthIn(original.bytes) != amendment.before->GetLength(0)) {
      return Fail("the record at offset " + std::to_string(original.position) +
                  " states a length that is not its own, so it can't be marked as deleted");
    }
    originals.push_back(std::move(original));
  }
  return true;
}

bool Editor::CanAmend(const Amendments& amendments) try {
  std::vector<Original> originals;
  return ReadOriginals(amendments, originals);
} catch (const CFileException&) {
  return Fail("a record can't be read any more");
}

bool Editor::PutBack(const std::vector<Original>& originals, std::size_t count) {
  CFile& file = m_file.ForWriting().m_file;
  while (count-- != 0) {
    file.Seek(originals[count].position, CFile::begin);
    file.Write(originals[count].bytes.data(), originals[count].bytes.size());
  }
  return true;
}

bool Editor::Amend(const Amendments& amendments) try {
  if (amendments.empty()) return true;
  std::vector<Original> originals;
  if (!ReadOriginals(amendments, originals) || !MarkOpen()) return false;
  m_hasChanged = m_isUnsynced = true;
  for (std::size_t i = 0; i < amendments.size(); ++i) {
    if (m_file.ForWriting().AmendRecord(*amendments[i].before, *amendments[i].after)) continue;
    PutBack(originals, i + 1);
    return Fail("a record can't be changed");
  }
  for (const Amendment& amendment : amendments) {
    if (amendment.after->m_recordType == KESP_RECORD_POINT) NoteNumber(*amendment.after);
  }
  for (Original& original : originals) {
    // What the transaction itself has appended is cut off by a rollback.
    const bool isOlder = original.position < m_start;
    if (m_isInTransaction && isOlder) m_originals.push_back(std::move(original));
  }
  return true;
} catch (const CFileException&) {
  return Fail("a record can't be changed");
}

bool Editor::Begin() {
  if (m_isInTransaction) {
    CPLError(CE_Failure, CPLE_NotSupported, "%s: is in a transaction already", m_path.c_str());
    return false;
  }
  if (!Flush()) return false;
  m_isInTransaction = true;
  m_start = m_file.Length();
  m_wasMarked = m_isMarked;
  m_hadChanged = m_hasChanged;
  m_originals.clear();
  return true;
}

bool Editor::Commit() {
  if (!m_isInTransaction || !Flush()) return false;
  m_isInTransaction = false;
  m_originals.clear();
  return true;
}

bool Editor::Rollback() try {
  if (!m_isInTransaction) return false;
  m_isInTransaction = false;
  m_pending.clear();
  m_pendingBytes = 0;
  CKespDataFile& container = m_file.ForWriting();
  if (m_file.Length() > m_start) container.m_file.SetLength(m_start);
  m_file.TakeLength();
  PutBack(m_originals, m_originals.size());
  m_originals.clear();
  container.Flush();
  m_isMarked = m_wasMarked;
  m_hasChanged = m_hadChanged;
  m_isUnsynced = m_hasAppended = false;
  ReadHeader();
  return true;
} catch (const CFileException&) {
  return Fail("the transaction can't be undone");
}

bool Editor::Close() {
  if (m_isInTransaction && !Rollback()) return false;
  if (!Flush()) return false;
  if (!m_hasChanged || m_header == nullptr || m_header->m_recordVersion < 2) return true;
  CKespTavoHeader summary(*m_header);
  if (!Summarize(m_file.ForWriting(), summary)) return Fail("can't be read to its end");
  return ChangeHeader([&](CKespTavoHeader& header) {
           header = summary;
           header.SetCleanClose(true);
         }) &&
         Sync();
}

}  // namespace kesp::ogr
