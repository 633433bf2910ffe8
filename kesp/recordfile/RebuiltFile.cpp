#include "kesp/recordfile/RebuiltFile.h"

#include "kesp/records/KespTag.h"
#include "kesp/util/Fields.h"

namespace kesp {
namespace {

constexpr std::size_t kWriteBlock = std::size_t{64} * 1024;

// The body of a tag without a block is its two numbers. Write refuses such a tag, since a new one has nothing to say
// either; one that stands in a file is kept.
bool WriteBodyOf(CKespRecord& record, CFile& file, unsigned short version) {
  if (record.m_recordType == KESP_RECORD_TAG) {
    const auto& tag = static_cast<const CKespTag&>(record);
    if (tag.m_dataLength == 0 && tag.m_pData == nullptr) {
      std::byte body[8];
      StoreLittle(body, std::uint32_t{tag.m_tagType});
      StoreLittle(body + 4, tag.m_dataLength);
      file.Write(body, sizeof body);
      return true;
    }
  }
  return record.Write(file, KESP_SRC_ADDED, version);
}

}  // namespace

RebuiltFile::RebuiltFile(const CString& path)
    : m_file(path, CFile::modeCreate | CFile::modeReadWrite | CFile::shareDenyWrite) {
  m_gather.emplace(m_file);
}

bool RebuiltFile::Put(const RecordHeader& header, CKespRecord& record) {
  const std::uint64_t start = m_file.GetPosition();
  PutHeader(header);
  if (!WriteBodyOf(record, m_file, header.version)) return false;
  CommitFrom(start);
  return true;
}

void RebuiltFile::Put(const RecordHeader& header, std::span<const std::byte> body) {
  const std::uint64_t start = m_file.GetPosition();
  PutHeader(header);
  m_file.Write(body.data(), body.size());
  CommitFrom(start);
}

void RebuiltFile::PutHeader(const RecordHeader& header) {
  const auto bytes = EncodeRecordHeader(header);
  m_file.Write(bytes.data(), bytes.size());
}

void RebuiltFile::CommitFrom(std::uint64_t start) {
  m_pending += static_cast<std::size_t>(m_file.GetPosition() - start);
  if (m_pending < kWriteBlock) return;
  m_gather->Commit();
  m_pending = 0;
}

void RebuiltFile::Finish() {
  m_gather->Commit();
  m_file.Flush();
  m_file.Close();
}

void RebuiltFile::Leave() {
  m_gather->Commit();
  m_file.Close();
}

}  // namespace kesp
