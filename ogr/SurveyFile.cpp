#include "ogr/SurveyFile.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include <cpl_error.h>
#include <cpl_vsi.h>

#include "kesp/platform/Exception.h"
#include "kesp/records/KespTavoHeader.h"
#include "ogr/VsiSource.h"

namespace kesp::ogr {
namespace {

std::string WhyRefused(const CKespDataFile& container) {
  const int osError = container.GetSystemError();
  if (osError == EWOULDBLOCK) return "somebody else has the file open for writing";
  return osError != 0 ? std::generic_category().message(osError) : container.GetErrorString().ToUtf8();
}

// Returns the reason if the file can't be opened; an empty text if it is open.
std::string TryOpen(CKespDataFile& container, const std::string& path, SurveyFile::Access access) {
  bool isOpen = false;
  const CString name = CString::FromPathBytes(path);
  if (IsVsiPath(path)) {
    if (access == SurveyFile::Access::kWrite) return "only files of the system can be changed";
    std::unique_ptr<ByteSource> source = OpenVsi(path);
    if (source == nullptr) return std::generic_category().message(errno != 0 ? errno : ENOENT);
    isOpen = container.OpenReadOnly(std::move(source), name);
  } else {
    isOpen = access == SurveyFile::Access::kWrite ? container.Open(name) : container.OpenReadOnly(name);
  }
  return isOpen ? std::string() : WhyRefused(container);
}

}  // namespace

std::unique_ptr<SurveyFile> SurveyFile::Open(const std::string& path, bool includeDeleted, Access access) {
  auto file = std::make_unique<SurveyFile>();
  file->m_includeDeleted = includeDeleted;
  CKespDataFile& container = file->m_container;
  if (const std::string why = TryOpen(container, path, access); !why.empty()) {
    CPLError(CE_Failure, CPLE_OpenFailed, "%s: %s", path.c_str(), why.c_str());
    return nullptr;
  }
  if (file->Length() > std::numeric_limits<std::uint32_t>::max()) {
    CPLError(CE_Failure, CPLE_NotSupported, "%s: Kesp data files of 4 GiB and more are not supported", path.c_str());
    return nullptr;
  }
  // What another program appends from now on is in no layer.
  container.LimitLength(file->Length());
  return file;
}

std::unique_ptr<SurveyFile> SurveyFile::Create(const std::string& path, std::uint16_t version) {
  auto file = std::make_unique<SurveyFile>();
  file->m_includeDeleted = true;  // a new layer knows what is written to it
  CKespDataFile& container = file->m_container;
  container.m_version = version;
  VSIStatBufL info;
  if (VSIStatL(path.c_str(), &info) == 0) {
    CPLError(CE_Failure, CPLE_OpenFailed, "%s: exists", path.c_str());
    return nullptr;
  }
  if (!container.Create(CString::FromPathBytes(path))) {
    CPLError(CE_Failure, CPLE_OpenFailed, "%s: %s", path.c_str(), WhyRefused(container).c_str());
    return nullptr;
  }
  CKespTavoHeader header;
  header.m_recordVersion = std::min<std::uint16_t>(version, 2);
  if (!container.AppendRecord(&header, 0)) {
    CPLError(CE_Failure, CPLE_OpenFailed, "%s: %s", path.c_str(), WhyRefused(container).c_str());
    container.Close();
    VSIUnlink(path.c_str());
    return nullptr;
  }
  file->TakeLength();
  return file;
}

CKespDataFile& SurveyFile::ForWriting() noexcept {
  if (m_user != nullptr) m_user->LetGo();
  return m_container;
}

std::string WalkEnd::Cause() const {
  if (error == KESP_ERROR_NONE && systemError != 0) return std::generic_category().message(systemError);
  if (error == KESP_ERROR_NORMAL_EOF) return "the length of this or of a later record goes past the end of the file";
  return CKespDataFile().m_errorStrings[error].ToUtf8();
}

Cursor::~Cursor() {
  if (m_file.m_user == this) m_file.m_user = nullptr;
}

void Cursor::GoToFirst() {
  LetGo();
  m_start = Start::kFirst;
  m_isPending = false;
  m_end = {};
}

void Cursor::GoTo(std::uint64_t position, Wants wants) {
  m_start = wants == Wants::kAll ? Start::kAtAndAhead : Start::kAt;
  m_position = position;
  m_isPending = false;
  m_end = {};
}

void Cursor::LetGo() noexcept {
  if (m_file.m_user != this) return;
  m_file.m_user = nullptr;
  if (m_start != Start::kHere) return;
  m_start = Start::kAt;
  m_position = m_isPending ? m_view.Position() : m_file.m_container.GetPosition();
  m_isPending = false;
}

void Cursor::TakeOver() {
  if (m_file.m_user != this) {
    if (m_file.m_user != nullptr) m_file.m_user->LetGo();
    m_file.m_user = this;
  }
  CKespDataFile& container = m_file.m_container;
  if (m_start == Start::kFirst) {
    container.SeekToFirstRecord();
    container.ReadAhead();
  } else if (m_start != Start::kHere) {
    container.Seek(m_position);
    if (m_start == Start::kAtAndAhead) container.ReadAhead();
  }
  m_start = Start::kHere;
}

const RecordView* Cursor::Read() {
  if (!m_end.isWhole) return nullptr;
  if (m_isPending && m_file.m_user == this) {
    m_isPending = false;
    return &m_view;
  }
  TakeOver();
  return Step() ? &m_view : nullptr;
}

PointRun Cursor::ReadPoints() {
  const PointRun run = m_file.m_container.ReadPointRun();
  if (run.Size() != 0) m_lastInRun = run.PositionOf(run.Size() - 1);
  return run;
}

std::unique_ptr<CKespRecord> Cursor::ReadObject(std::uint64_t position) {
  GoTo(position);
  TakeOver();
  try {
    return std::unique_ptr<CKespRecord>(m_file.m_container.ReadNextRecord(false));
  } catch (const CFileException&) {
    return nullptr;
  }
}

bool Cursor::Step() {
  m_before = std::max(m_view.Position(), std::exchange(m_lastInRun, 0));
  try {
    if (m_file.m_container.ReadNextView(m_view, m_skipsDeleted)) return true;
    EndWith(m_file.m_container.GetError());
  } catch (const CFileException& e) {
    // A feature of version 1 that is cut short is raised where others leave a code.
    EndWith(e.m_cause == CFileException::endOfFile ? KESP_ERROR_EOF : KESP_ERROR_NONE);
  }
  return false;
}

void Cursor::EndWith(KESP_ERROR_TYPE error) {
  m_end.error = error;
  m_end.offset = m_view.Position();
  m_end.systemError = m_file.m_container.GetSystemError();
  // If a length led past the end, nobody knows where the next record would be. The one before it is the best place.
  const bool isPastEnd = error == KESP_ERROR_NORMAL_EOF && m_end.offset > m_file.Length();
  if (isPastEnd) m_end.offset = m_before;
  m_end.isWhole = error == KESP_ERROR_NORMAL_EOF && !isPastEnd;
}

}  // namespace kesp::ogr
