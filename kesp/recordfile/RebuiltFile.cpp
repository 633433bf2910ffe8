#include "kesp/recordfile/RebuiltFile.h"

#include "kesp/recordfile/StoredBody.h"

namespace kesp {
namespace {

constexpr std::size_t kWriteBlock = std::size_t{64} * 1024;

}  // namespace

RebuiltFile::RebuiltFile(const CString& path)
    : m_file(path, CFile::modeCreate | CFile::modeReadWrite | CFile::shareDenyWrite) {
  m_gather.emplace(m_file);
}

bool RebuiltFile::Put(const RecordHeader& header, CKespRecord& record) {
  const std::uint64_t start = m_file.GetPosition();
  PutHeader(header);
  if (!WriteStoredBody(record, m_file, KESP_SRC_ADDED, header.version)) return false;
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
