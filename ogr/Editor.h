// Writes to the file of a data set: new records at its end, changed ones in place, and the header.
//
// Records to be appended are gathered, and are on the disk when Flush or CommitTransaction returns true; so are changes
// in place. A feature is appended wholly or not at all.
//
// A transaction is undone by truncating the file and putting back the bytes of records that were changed. A process
// that dies in a transaction leaves what was written so far.
//
// The first change clears the header's mark that the file was closed properly. Close writes the summary and sets it.
//
// Errors: reported to GDAL; the result is then false.
#pragma once
#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kesp/records/KespTavoHeader.h"
#include "ogr/NumberSet.h"
#include "ogr/Survey.h"
#include "ogr/SurveyFile.h"

namespace kesp::ogr {

using Records = std::vector<std::unique_ptr<CKespRecord>>;

struct Amendment {
  std::unique_ptr<CKespRecord> before, after;
};
using Amendments = std::vector<Amendment>;

class Editor {
 public:
  // A new file's records get no mark of having been added.
  enum class Origin { kNew, kExisting };
  // Borrows the file and what was read of it.
  Editor(SurveyFile& file, const Survey& survey, std::string path, Origin origin);

  std::uint16_t FileVersion() const noexcept { return m_file.Container().m_version; }
  // The version that records of a class have in this file. `newest` is that of the class.
  std::uint16_t RecordVersion(std::uint16_t newest) const noexcept { return std::min(newest, FileVersion()); }

  bool IsFree(std::uint32_t featureNumber) const;
  std::uint64_t NextFeature() const noexcept { return std::uint64_t{m_lastFeature} + 1; }
  std::uint64_t NextPoint() const noexcept { return std::uint64_t{m_lastPoint} + 1; }
  // The length of the file when it was opened.
  std::uint64_t LengthBefore() const noexcept { return m_lengthBefore; }
  // Where the next record that is appended will be.
  std::uint64_t NextPosition() const noexcept { return m_file.Length() + m_pendingBytes; }

  // Takes records of which all fit into their version. If it fails, none of them will be in the file, but records that
  // were gathered before may be written later.
  bool Append(Records records);
  // Changes records that are in the file, all or none of them.
  bool Amend(const Amendments& amendments);
  // Whether Amend would take them; else says why not.
  bool CanAmend(const Amendments& amendments);
  // Changes the header record. Refuses values that it can't hold. False without an error if there is no header record.
  using Change = std::function<void(CKespTavoHeader&)>;
  bool ChangeHeader(const Change& change);
  const CKespTavoHeader* Header() const noexcept { return m_header.get(); }

  // Whether something was appended that Survey doesn't know, or still is to be written.
  bool HasNews() const noexcept { return !m_pending.empty() || m_hasAppended; }
  void ForgetNews() noexcept;
  bool Flush();

  bool IsInTransaction() const noexcept { return m_isInTransaction; }
  bool Begin();
  bool Commit();
  bool Rollback();
  // Writes what is left, the summary and the mark, if anything was written.
  bool Close();

 private:
  struct Original {
    std::uint32_t position;
    std::vector<std::byte> bytes;
  };
  bool Fail(const std::string& what);
  bool HasRoomFor(std::uint64_t bytes);
  bool WritePending();
  bool MarkOpen();
  bool Sync();
  void NoteNumber(const CKespRecord& record);
  void ReadHeader();
  bool ReadOriginals(const Amendments& amendments, std::vector<Original>& originals);
  bool PutBack(const std::vector<Original>& originals, std::size_t count);

  SurveyFile& m_file;
  const Survey& m_survey;
  std::string m_path;
  std::uint32_t m_sourceFlag;
  std::uint64_t m_lengthBefore;
  std::unique_ptr<CKespTavoHeader> m_header;  // as it is in the file; null if there is none
  Records m_pending;
  std::uint64_t m_pendingBytes = 0;
  NumberSet m_recent;  // features that Survey doesn't know
  std::uint32_t m_lastFeature, m_lastPoint;
  bool m_hasAppended = false, m_hasChanged = false, m_isUnsynced = false, m_isMarked = false;

  bool m_isInTransaction = false;
  std::uint64_t m_start = 0;  // the length of the file when it began
  bool m_wasMarked = false, m_hadChanged = false;
  std::vector<Original> m_originals;
};

}  // namespace kesp::ogr
