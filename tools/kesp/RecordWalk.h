// The walk over a file as the tool needs it: besides the records themselves, those that are passed over, and at the end
// the verdict.
//
//   RecordWalk walk(file, DeletedRecords::kPassOver);
//   for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
//     if (step == RecordWalk::Step::kRecord) Show(walk.View());
//   }
//   if (!walk.End().IsWhole()) Complain(path, walk.End().Describe());
//
// Returns exactly the records of CKespDataFile::ReadNextRecord, and ends where that ends. Reads ahead.
//
// Ownership: borrows the file, which nothing else may read or move during a step. A record lives until the next step,
// unless it is taken; a view until the next step or until the record is asked for.
// Errors: none are raised but CMemoryException and std::bad_alloc; End() has what stopped the walk.
#pragma once
#include <cstdint>
#include <memory>
#include <utility>

#include "kesp/format/RecordView.h"
#include "tools/kesp/Verdict.h"

namespace kesp::tool {

constexpr std::uint64_t kRecordHeaderSize = 14;

// The name that the JSON has for a type of record; null for one that is stepped over or refused.
const char* TypeName(KESP_RECORD_TYPE type) noexcept;

// What is done with records that are marked deleted.
enum class DeletedRecords { kPassOver, kInclude };
// Where every processor has its own walk, a second thread only takes time from the others.
enum class SecondThread { kReadsAhead, kNone };

class RecordWalk {
 public:
  enum class Step {
    kRecord,      // View() and Record() are there
    kPassedOver,  // a deleted record, or one of a type that nobody knows: of View() only what the header says
    kEnd
  };

  // Begins at the first record of an open file, or at `start`, which must be the offset of a record header that a walk
  // from the first record finds. From there on the walk does not read ahead, and needs no header record.
  RecordWalk(CKespDataFile& file, DeletedRecords deleted, std::uint64_t start = 0,
             SecondThread secondThread = SecondThread::kReadsAhead);
  RecordWalk(const RecordWalk&) = delete;
  RecordWalk& operator=(const RecordWalk&) = delete;

  Step Next() {
    m_record.reset();
    try {
      if (!m_hasEnded && m_file.ReadNextStep(m_view, m_deleted == DeletedRecords::kPassOver)) {
        if (m_view.IsSkipped()) {
          m_passedOver = m_view.Position();
          return Step::kPassedOver;
        }
        if (m_firstType == KESP_RECORD_NONE) m_firstType = m_view.Type();
        const bool isLongTag = m_view.Type() == KESP_RECORD_TAG && !m_view.AsTag().IsWhole();
        return !isLongTag || ReadAll() ? Step::kRecord : Step::kEnd;
      }
      EndWith(m_file.GetError(), m_file.GetSystemError());
    } catch (const CFileException& e) {
      EndWith(e);
    }
    return Step::kEnd;
  }
  const RecordView& View() const noexcept { return m_view; }
  // Makes the object. Null if the record can't be read once more, since the file changes or memory has run out; the
  // walk then ends with the next step.
  CKespRecord* Record();
  std::unique_ptr<CKespRecord> TakeRecord();  // then the caller's
  // Of the first record that was not passed over; KESP_RECORD_NONE before it.
  KESP_RECORD_TYPE FirstType() const noexcept { return m_firstType; }
  const Verdict& End() const noexcept { return m_end; }  // of the file, at the end

 private:
  bool ReadAll();
  void EndWith(KESP_ERROR_TYPE error, int systemError);
  void EndWith(const CFileException& failure);

  CKespDataFile& m_file;
  DeletedRecords m_deleted;
  RecordView m_view;
  std::unique_ptr<CKespRecord> m_record;
  bool m_hasEnded = false;
  KESP_RECORD_TYPE m_firstType = KESP_RECORD_NONE;
  // Of the last record that was passed over: only such a one can claim to go on past the end.
  std::uint64_t m_passedOver = 0;
  Verdict m_end;
};

}  // namespace kesp::tool
