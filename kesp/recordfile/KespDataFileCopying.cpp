// Copies of whole files: byte by byte, and rebuilt record by record, which is also the way to repair a damaged one.
#include <algorithm>
#include <memory>
#include <vector>

#include "kesp/recordfile/FileHeader.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/RecordHeader.h"
#include "kesp/records/KespTag.h"

namespace {

constexpr std::size_t kCopyBlock = 1024 * 1024;
constexpr std::size_t kWriteBlock = 64 * 1024;  // rebuilt records that are written at once
constexpr unsigned short kNewestCopyVersion = 2;

// The body of a tag without a block is its two numbers. Write refuses such a tag, since a new one has nothing to say
// either; one that stands in a file is kept.
bool WriteCopiedBody(CFile& destination, CKespRecord& record, unsigned short version) {
  if (record.m_recordType == KESP_RECORD_TAG) {
    const auto& tag = static_cast<const CKespTag&>(record);
    if (tag.m_dataLength == 0 && tag.m_pData == nullptr) {
      std::byte body[8];
      kesp::StoreLittle(body, std::uint32_t{tag.m_tagType});
      kesp::StoreLittle(body + 4, tag.m_dataLength);
      destination.Write(body, sizeof body);
      return true;
    }
  }
  return record.Write(destination, KESP_SRC_ADDED, version);
}

}  // namespace

bool CKespDataFile::Copy(const wchar_t* destination) { return destination != nullptr && Copy(CString(destination)); }

bool CKespDataFile::Copy(const CString& destination) {
  // Without a lock of its own, a file that is open for reading only would not keep itself from being emptied.
  if (m_file.IsSameFile(destination)) return false;
  CFile out;
  CFileException failure(CFileException::none, destination);
  if (!out.Open(destination, CFile::modeCreate | CFile::modeWrite | CFile::shareDenyNone, &failure)) {
    NoteFailure(failure);
    return false;
  }
  const auto giveUp = [&] {
    out.Abort();
    try {
      CFile::Remove(destination);
    } catch (const CFileException& e) {
      NoteFailure(e);
    }
    return false;
  };
  try {
    m_file.SeekToBegin();
    m_file.Flush();
    const std::uint64_t length = m_file.GetLength();
    out.CopyFrom(m_file, kCopyBlock);
    out.Flush();
    const std::uint64_t copied = out.GetLength();
    out.Close();
    return copied < length ? giveUp() : true;
  } catch (const CFileException& e) {
    NoteFailure(e);
    return giveUp();
  }
}

bool CKespDataFile::CopyVerify(const CString& destination, unsigned short kespVersion) {
  if (!IsOpen() || m_file.IsSameFile(destination)) return false;
  CFile out;
  CFileException failure(CFileException::none, destination);
  const unsigned short version =
      kespVersion == 0 || kespVersion > kNewestCopyVersion ? kNewestCopyVersion : kespVersion;
  try {
    m_file.Flush();
    if (!out.Open(destination, CFile::modeCreate | CFile::modeReadWrite | CFile::shareDenyWrite, &failure)) {
      throw failure;
    }
    CFile::Gather gather(out);
    const auto finish = [&] {
      gather.Commit();
      out.Flush();
      out.Close();
    };
    try {
      // The header goes over as it is, whatever version is asked for, and the records are taken to begin behind it:
      // an application header between the two is not copied.
      m_file.SeekToBegin();
      const std::span<const std::byte> header = m_file.ReadView(kesp::kFileHeaderSize);
      out.Write(header.data(), header.size());

      m_systemError = 0;
      std::size_t pending = 0;
      for (;;) {
        const std::uint64_t start = m_file.GetPosition();
        KESP_RECORD_TYPE type = KESP_RECORD_NONE;
        unsigned short foundVersion = 0;
        std::uint32_t flags = 0;
        std::uint32_t length = 0;
        if (!ReadNextRecordHeader(type, foundVersion, flags, length)) break;
        m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
        const std::unique_ptr<CKespRecord> record(ReadNextRecord(true));
        if (!record) break;

        // The length is the one of record version `version`, and the body is in the version that belongs to the file
        // version: for features and attributes of file version 2 the two differ. Readers go by the layout.
        const unsigned short bodyVersion = record->GetRecordVersionFromKespVersion(version);
        const auto recordHeader = kesp::EncodeRecordHeader({record->m_recordType, bodyVersion, record->m_flags,
                                                            static_cast<std::uint32_t>(record->GetLength(version))});
        const std::uint64_t before = out.GetPosition();
        out.Write(recordHeader.data(), recordHeader.size());
        if (!WriteCopiedBody(out, *record, bodyVersion)) {
          m_error = record->GetError();
          gather.Commit();
          out.Close();
          return false;
        }
        pending += static_cast<std::size_t>(out.GetPosition() - before);
        if (pending >= kWriteBlock) {
          gather.Commit();
          pending = 0;
        }
      }
      finish();
      // What ended the walk is in m_error, a failure of the system excepted: the rest might be read another time.
      return m_systemError == 0;
    } catch (const CFileException& e) {
      NoteFailure(e);
      finish();  // what was read stays
      return false;
    }
  } catch (const CFileException& e) {
    NoteFailure(e);
    return false;
  }
}

bool CKespDataFile::CopyVerify(const CString& source, const CString& destination, unsigned short kespVersion) {
  (void)Close();
  CFileException failure(CFileException::none, source);
  if (!m_file.Open(source, CFile::modeReadWrite | CFile::shareExclusive, &failure)) {
    NoteFailure(failure);
    return false;
  }
  return CopyVerify(destination, kespVersion);
}
