// The open file of a data set, and cursors that walk over it.
//
// There is one file object, so one read buffer. A cursor takes it over when it reads, and the cursor before it notes
// where it was. So any number of layers can be read in turns; a change of turn costs a seek, reading in one go none.
//
// Ownership: a SurveyFile must outlive its cursors.
// Errors: reading reports none. A walk that ended says how in End().
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "kesp/format/RecordView.h"
#include "kesp/recordfile/KespDataFile.h"

namespace kesp::ogr {

class Cursor;

class SurveyFile {
 public:
  // Null, with an error reported to GDAL, when the file can't be opened, somebody else has it open for writing, or it
  // is longer than the format's positions reach.
  enum class Access { kRead, kWrite };
  static std::unique_ptr<SurveyFile> Open(const std::string& path, bool includeDeleted, Access access = Access::kRead);
  // Makes a file of this version that has one header record. Null, with an error, if anything is at the path.
  static std::unique_ptr<SurveyFile> Create(const std::string& path, std::uint16_t version);

  CKespDataFile& Container() noexcept { return m_container; }
  std::uint64_t Length() noexcept { return m_container.m_file.KnownLength(); }
  bool IncludesDeleted() const noexcept { return m_includeDeleted; }
  bool IsWritable() const noexcept { return m_container.m_file.IsWritable(); }
  // For an operation that moves the file's position. Cursors go on afterwards where they were.
  CKespDataFile& ForWriting() noexcept;
  // From now on what was appended can be read.
  void TakeLength() noexcept { m_container.LimitLength(Length()); }

 private:
  friend class Cursor;
  CKespDataFile m_container;
  bool m_includeDeleted = false;
  Cursor* m_user = nullptr;  // the cursor that read last
};

// How a walk ended.
struct WalkEnd {
  KESP_ERROR_TYPE error = KESP_ERROR_NORMAL_EOF;
  int systemError = 0;
  std::uint64_t offset = 0;
  bool isWhole = true;  // the walk came to the end of the file

  std::string Cause() const;  // for a person
};

class Cursor {
 public:
  // kAll gets records that are marked as deleted, also if the file doesn't include them.
  enum class Deleted { kAsFile, kAll };
  explicit Cursor(SurveyFile& file, Deleted deleted = Deleted::kAsFile) noexcept
      : m_file(file), m_skipsDeleted(deleted == Deleted::kAsFile && !file.IncludesDeleted()) {}
  ~Cursor();
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;

  // Starts a walk over the whole file. A long one is read ahead.
  void GoToFirst();
  // The next record is the one at this offset. kAll reads ahead, for a walk over most of what follows.
  enum class Wants { kSome, kAll };
  void GoTo(std::uint64_t position, Wants wants = Wants::kSome);
  // The next record, valid until any cursor of the file reads; null at the end of the walk.
  const RecordView* Read();
  // What the next calls of Read would return, as far as it is a run of points that can be had at once. Only after a
  // Read that returned a record, which stays valid.
  PointRun ReadPoints();
  // The record at an offset as an object; null if it can't be read. The cursor is then of no further use.
  std::unique_ptr<CKespRecord> ReadObject(std::uint64_t position);
  // The next Read returns the record of the last one again.
  void Unread() noexcept { m_isPending = true; }
  const WalkEnd& End() const noexcept { return m_end; }

 private:
  enum class Start { kHere, kFirst, kAt, kAtAndAhead };
  void TakeOver();
  void LetGo() noexcept;
  bool Step();
  void EndWith(KESP_ERROR_TYPE error);

  friend class SurveyFile;
  SurveyFile& m_file;
  bool m_skipsDeleted;
  RecordView m_view;
  bool m_isPending = false;
  Start m_start = Start::kFirst;
  std::uint64_t m_position = 0;   // where to go on after another cursor has read
  std::uint64_t m_before = 0;     // of the record before
  std::uint64_t m_lastInRun = 0;  // of the last point that ReadPoints returned
  WalkEnd m_end;
};

}  // namespace kesp::ogr
