#include "kesp/recordfile/StoredBody.h"

#include "kesp/records/KespTag.h"
#include "kesp/util/Fields.h"

namespace kesp {

bool WriteStoredBody(CKespRecord& record, CFile& file, unsigned long sourceFlag, unsigned short version) {
  const auto* const tag = record.m_recordType == KESP_RECORD_TAG ? dynamic_cast<const CKespTag*>(&record) : nullptr;
  if (tag == nullptr || tag->m_dataLength != 0 || tag->m_pData != nullptr) {
    return record.Write(file, sourceFlag, version);
  }
  std::byte body[8];
  StoreLittle(body, std::uint32_t{tag->m_tagType});
  StoreLittle(body + 4, tag->m_dataLength);
  file.Write(body, sizeof body);
  return true;
}

}  // namespace kesp
