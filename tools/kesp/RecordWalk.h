// The walk over a file as the tool needs it: besides the records themselves, what their headers say, and where they
// stand in 64 bits.
//
//   RecordWalk walk(file, DeletedRecords::kPassOver);
//   for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
//     if (step == RecordWalk::Step::kRecord) Show(walk.Record());
//   }
//   if (!walk.End().IsWhole()) Complain(path, walk.End().Describe());
//
// Returns exactly the records of CKespDataFile::ReadNextRecord, and ends where that ends.
//
// Ownership: borrows the file; a record lives until the next step, unless it is taken.
// Errors: none are raised but CMemoryException and std::bad_alloc; End() has what stopped the walk.
#pragma once
#include <cstdint>
#include <memory>
#include <utility>

#include "tools/kesp/Verdict.h"

namespace kesp::tool {

// The name that the JSON has for a type of record; null for one that is stepped over or refused.
const char* TypeName(KESP_RECORD_TYPE type) noexcept;

// What is done with records that are marked deleted.
enum class DeletedRecords { kPassOver, kInclude };

class RecordWalk {
 public:
  enum class Step {
    kRecord,      // Record() is there
    kPassedOver,  // a deleted record, or one of a type that nobody knows: the header only
    kEnd
  };

  // Begins at the first record of an open file.
  RecordWalk(CKespDataFile& file, DeletedRecords deleted);
  RecordWalk(const RecordWalk&) = delete;
  RecordWalk& operator=(const RecordWalk&) = delete;

  Step Next();
  CKespRecord& Record() const noexcept { return *m_record; }
  std::unique_ptr<CKespRecord> TakeRecord() noexcept { return std::move(m_record); }  // then the caller's
  std::uint64_t Offset() const noexcept { return m_offset; }                          // of the record header
  // As the record header has them.
  KESP_RECORD_TYPE Type() const noexcept { return m_type; }
  std::uint16_t Version() const noexcept { return m_version; }
  bool IsDeleted() const noexcept { return (m_flags & KESP_FLAG_DELETED) != 0; }
  std::uint32_t Length() const noexcept { return m_length; }
  const Verdict& End() const noexcept { return m_end; }  // of the file, at the end

 private:
  Step EndWith(KESP_ERROR_TYPE error, int systemError);

  CKespDataFile& m_file;
  DeletedRecords m_deleted;
  std::unique_ptr<CKespRecord> m_record;
  std::uint64_t m_offset = 0;
  KESP_RECORD_TYPE m_type = KESP_RECORD_NONE;
  std::uint16_t m_version = 0;
  std::uint32_t m_flags = 0;
  std::uint32_t m_length = 0;
  // Of the last record that was passed over: only such a one can claim to go on past the end.
  std::uint64_t m_passedOver = 0;
  bool m_hasFirst = false;
  bool m_beginsWithHeader = false;
  Verdict m_end;
};

}  // namespace kesp::tool
