#include "kesp/recordfile/KespDataFile.h"

#include <algorithm>
#include <array>
#include <utility>

#include "kesp/platform/ByteSource.h"
#include "kesp/platform/SystemCalls.h"
#include "kesp/recordfile/FileHeader.h"
#include "kesp/recordfile/RecordPlaces.h"
#include "kesp/util/Fields.h"
#include "kesp/util/StringTable.h"
#include "kesp/util/Utilities.h"

namespace {

constexpr unsigned long kNoPosition = 0xFFFFFFFF;

}  // namespace

CKespDataFile::CKespDataFile() {
  for (std::size_t code = 0; code < m_errorStrings.size(); ++code) {
    m_errorStrings[code] = GetStringRes(kesp::kFirstErrorText + static_cast<int>(code));
  }
}

CKespDataFile::~CKespDataFile() = default;

bool CKespDataFile::Open(const wchar_t* path) {
  return path != nullptr && OpenWith(path, CFile::modeReadWrite | CFile::shareDenyWrite);
}

bool CKespDataFile::Open(const CString& path) { return OpenWith(path, CFile::modeReadWrite | CFile::shareDenyWrite); }

bool CKespDataFile::OpenReadOnly(const wchar_t* path) {
  return path != nullptr && OpenWith(path, CFile::modeRead | CFile::shareDenyNone);
}

bool CKespDataFile::OpenReadOnly(const CString& path) { return OpenWith(path, CFile::modeRead | CFile::shareDenyNone); }

bool CKespDataFile::OpenReadOnly(std::unique_ptr<kesp::ByteSource> source, const CString& name) {
  return source != nullptr &&
         OpenAs(name, [&](CFileException& failure) { return m_file.Open(std::move(source), name, &failure); });
}

bool CKespDataFile::OpenWith(const CString& path, unsigned openFlags) {
  return OpenAs(path, [&](CFileException& failure) { return m_file.Open(path, openFlags, &failure); });
}

template <class OpenFile>
bool CKespDataFile::OpenAs(const CString& path, OpenFile open) {
  m_error = KESP_ERROR_NONE;
  if (IsOpen()) {
    m_error = KESP_ERROR_OPEN;
    return false;
  }
  ForgetFailures();
  CFileException failure(CFileException::none, path);
  if (!open(failure)) {
    NoteFailure(failure);
    m_error = KESP_ERROR_OPEN;
    return false;
  }
  const bool good = Guarded([&] {
    if (!ReadFileHeader()) return false;
    m_path = path;
    return true;
  });
  if (!good) m_file.Abort();
  return good;
}

bool CKespDataFile::ReadFileHeader() {
  const auto fail = [this](KESP_ERROR_TYPE error) {
    m_error = error;
    return false;
  };
  // In a file too short for the signature, the missing bytes compare as zeros.
  std::array<char, kesp::kSignature.size()> signature{};
  (void)m_file.Read(signature.data(), signature.size());
  if (!std::equal(signature.begin(), signature.end(), kesp::kSignature.begin())) return fail(KESP_ERROR_SIGNATURE);

  kesp::FieldReader version(m_file.ReadView(2));
  version.U16(m_version);
  if (version.Failed()) return fail(KESP_ERROR_EOF);

  std::uint32_t headerLength = 0;
  kesp::FieldReader length(m_file.ReadView(4));
  length.U32(headerLength);
  if (length.Failed()) return fail(KESP_ERROR_EOF);
  m_firstRecordOffset = kesp::kHeaderLengthCountsFrom + headerLength;  // wraps at 32 bits
  if (!m_file.ReachesTo(m_firstRecordOffset)) return fail(KESP_ERROR_FILE_HEADER);

  // Read whatever the header length says, even if a length below 2 makes the records begin inside it.
  std::uint16_t headerWord = 0;
  kesp::FieldReader word(m_file.ReadView(2));
  word.U16(headerWord);
  if (word.Failed()) return fail(KESP_ERROR_EOF);
  m_headerWord = headerWord;
  return true;
}

bool CKespDataFile::Create(const wchar_t* path) { return path != nullptr && Create(CString(path)); }

bool CKespDataFile::Create(const CString& path) { return CreateWith(path, CFile::modeCreate); }

bool CKespDataFile::CreateWith(const CString& path, unsigned openFlags) {
  if (IsOpen()) return false;
  ForgetFailures();
  CFileException failure(CFileException::none, path);
  if (!m_file.Open(path, openFlags | CFile::modeReadWrite | CFile::shareDenyWrite, &failure)) {
    NoteFailure(failure);
    return false;
  }
  const bool good = Guarded([&] {
    std::array<std::byte, kesp::kFileHeaderSize> header;
    std::transform(kesp::kSignature.begin(), kesp::kSignature.end(), header.begin(),
                   [](char c) { return static_cast<std::byte>(c); });
    kesp::FieldWriter writer(header.data() + kesp::kSignature.size());
    writer.U16(m_version);
    writer.U32(kesp::kOwnHeaderLength);
    writer.U16(m_headerWord);
    m_file.Write(header.data(), header.size());
    m_firstRecordOffset = kesp::kHeaderLengthCountsFrom + kesp::kOwnHeaderLength;
    m_path = path;
    return true;
  });
  if (!good) m_file.Abort();
  return good;
}

void CKespDataFile::ForgetFailures() noexcept {
  m_systemError = 0;
  m_failedAppends = 0;
  m_lengthLimit = kNoLimit;
  m_tornFrom.reset();
  m_places.reset();
}

bool CKespDataFile::Close() {
  try {
    CutBackTornRecord();
  } catch (const CFileException&) {
    // The system refuses; a reader stops at the partial record.
  }
  m_tornFrom.reset();
  m_places.reset();
  try {
    m_file.Close();
    return true;
  } catch (const CFileException& e) {
    NoteFailure(e);
    return false;
  }
}

bool CKespDataFile::Seek(unsigned long position) {
  return IsOpen() && Guarded([&] {
           m_file.Seek(static_cast<std::uint32_t>(position), CFile::begin);
           return true;
         });
}

bool CKespDataFile::SeekToFirstRecord() {
  return IsOpen() && Guarded([this] {
           m_file.ReadAgain();
           m_file.Seek(m_firstRecordOffset, CFile::begin);
           return true;
         });
}

unsigned long CKespDataFile::GetLength() {
  if (!IsOpen()) return kNoPosition;
  try {
    return static_cast<std::uint32_t>(m_file.GetLength());
  } catch (const CFileException& e) {
    NoteFailure(e);
    return kNoPosition;
  }
}

unsigned long CKespDataFile::GetPosition() {
  return IsOpen() ? static_cast<std::uint32_t>(m_file.GetPosition()) : kNoPosition;
}

CString CKespDataFile::GetErrorString() const {
  return m_error < m_errorStrings.size() ? m_errorStrings[m_error] : CString();
}

bool CKespDataFile::CanAttemptRepair() const noexcept {
  return m_error == KESP_ERROR_EOF || m_error == KESP_ERROR_RECORD_TYPE || m_error == KESP_ERROR_BAD_RECORD ||
         m_error == KESP_ERROR_RECORD_HEADER;
}

bool CKespDataFile::Flush() {
  if (!IsOpen()) return false;
  try {
    m_file.Flush();
  } catch (const CFileException& e) {
    NoteFailure(e);
    throw;
  }
  UpdateLastModifiedStatus();
  return true;
}

void CKespDataFile::UpdateLastModifiedStatus() noexcept { m_file.TouchModified(); }

bool CKespDataFile::DidPowerEventHappen() { return kesp::System().PowerEventHappened(); }

void CKespDataFile::NoteError(int osError) noexcept {
  ++m_failures;
  if (m_systemError == 0) m_systemError = osError;
}
