#include "kesp/recordfile/RebuiltFile.h"

#include "kesp/recordfile/RecordHeader.h"
#include "kesp/records/KespTag.h"
#include "kesp/util/Fields.h"

namespace kesp {
namespace {

constexpr std::size_t kWriteBlock = std::size_t{64} * 1024;
constexpr unsigned short kNewestVersion = 2;

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

RebuiltFile::RebuiltFile(const CString& path, unsigned short kespVersion)
    : m_file(path, CFile::modeCreate | CFile::modeReadWrite | CFile::shareDenyWrite),
      m_kespVersion(kespVersion == 0 || kespVersion > kNewestVersion ? kNewestVersion : kespVersion) {
  m_gather.emplace(m_file);
}

bool RebuiltFile::Put(CKespRecord& record) {
  const unsigned short bodyVersion = record.GetRecordVersionFromKespVersion(m_kespVersion);
  const auto header = EncodeRecordHeader(
      {record.m_recordType, bodyVersion, record.m_flags, static_cast<std::uint32_t>(record.GetLength(m_kespVersion))});
  const std::uint64_t before = m_file.GetPosition();
  m_file.Write(header.data(), header.size());
  if (!WriteBodyOf(record, m_file, bodyVersion)) return false;
  m_pending += static_cast<std::size_t>(m_file.GetPosition() - before);
  if (m_pending >= kWriteBlock) {
    m_gather->Commit();
    m_pending = 0;
  }
  return true;
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
