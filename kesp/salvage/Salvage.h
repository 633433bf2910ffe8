// Rebuilds a damaged file, going on after the damage.
//
//   CKespDataFile file;
//   if (!file.OpenReadOnly(L"broken.kesp")) return Complain(file.GetErrorString());
//   kesp::SalvageReport report;
//   if (!kesp::Salvage(file, L"salvaged.kesp", 0, report)) return Complain("can't be written");
//   for (const kesp::SalvageGap& gap : report.gaps) Tell(gap.offset, gap.length);
//
// CKespDataFile::CopyVerify ends at the first damage; this goes on after it. Up to the damage it keeps the records that
// an ordinary walk reads, and skips, without looking inside, those that the walk skips. "Up to the damage" is all of a
// file whose end the walk reaches. Otherwise it ends at the last record that the walk reads, or at the last header on
// its way with a known type and the length of that type. After the damage it searches byte by byte for the next certain
// record:
//
//   - a known type, version and flags, and the body length of exactly that type and version (or the shorter length that
//     CopyVerify writes for features and attributes); a tag's three lengths agree;
//   - a possible body: a feature's type 1 to 3, an attribute's kind 1 to 5, a tag's 0 to 13, finite numbers, and
//     texts that end, with zeros after their end;
//   - right after it, the header of another record or the end of the file.
//
// From there it walks on, and keeps records that have such a header, or that have a record after them. A record with
// neither may be cut short: a writer was interrupted, and a later one appended records where the rest should be. So it
// is searched for records. The salvage may therefore drop a whole record with damage on both sides, but it does not
// make one up. It can be wrong in one case: a record that was stored inside a tag or inside a record of unknown type,
// with damage before that tag or right after it, may be taken for one of the file's own.
//
// Deleted records and those of unknown types are left out. All others are copied byte for byte in their own record
// version, with their flags as read. Their header gets the length of their body, even if the source states another. An
// attribute of version 0, which is read as empty, gets the newest version. If an older file version is asked for, newer
// records are converted, and the report tells what that loses.
//
// The file header keeps its version unless another is asked for. An application header after it is not copied, and the
// header length in the copy says so. A file header that can't be opened is written again and counts as a gap; so does
// one whose first record is not where it says, if there is a record before that place. An unknown version in it becomes
// 3.
//
// Time is proportional to the file's length; memory is that of the longest record, which is at most the file's length.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "kesp/format/FormatLoss.h"
#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespError.h"

class CKespDataFile;

namespace kesp {

class ByteSource;

// A part of the source that can't be understood. A record at its start may have been kept all the same: the last one of
// the walk, if what follows shows that its header is wrong.
struct SalvageGap {
  std::uint64_t offset;
  std::uint64_t length;
  // The error of the walk there; KESP_ERROR_RECORD_HEADER also where the walk would have gone wrong without an error. 0
  // for a body that its class refuses without a code. For the file header, the error of Open.
  KESP_ERROR_TYPE reason;
};

struct SalvageReport {
  std::uint64_t kept = 0;              // records in the copy
  std::uint64_t deleted = 0;           // records marked deleted, left out
  std::uint64_t unknown = 0;           // records of unknown types, left out
  std::uint64_t applicationBytes = 0;  // bytes of the application header after the file header, left out
  std::uint64_t gapCount = 0;
  std::uint64_t gapBytes = 0;
  FormatLoss loss;               // what the kept records lose in the file version that was asked for
  std::vector<SalvageGap> gaps;  // the first kMostGaps of them, in file order

  static constexpr std::size_t kMostGaps = 4096;
};

// Copies what can be saved of the open file, which may be open read-only. Returns true when the copy is on the disk,
// however much was lost. Returns false when the source isn't open; when the destination can't be opened, is the source
// itself or is locked; when a record can't be written; and when the system failed or memory ran out. GetSystemError of
// the source then has the system's error. The destination keeps what was written so far; the source never changes. The
// source's file position and its GetError are undefined afterwards.
// `kespVersion` is the file version to write. For 1 or 2 no record gets a newer record version than that, and the
// header record names it. For 3 each record keeps its own version. 0 and all others keep the file's version too.
[[nodiscard]] KESP_EXPORT bool Salvage(CKespDataFile& source, const CString& destination, unsigned short kespVersion,
                                       SalvageReport& report);
// The same up to the first damage, where the walk ends: what CKespDataFile::CopyVerify copies, but with the versions of
// Salvage. The gap, if there is one, is the rest of the file. The source's LimitLength counts.
[[nodiscard]] KESP_EXPORT bool Rebuild(CKespDataFile& source, const CString& destination, unsigned short kespVersion,
                                       SalvageReport& report);
// Salvage for the file at a path, even one that CKespDataFile refuses to open: if the file header is damaged, this
// goes on after it. Also returns false when there is no such file.
[[nodiscard]] KESP_EXPORT bool Salvage(const CString& source, const CString& destination, unsigned short kespVersion,
                                       SalvageReport& report);
// The same for bytes that the host reads (see kesp/platform/ByteSource.h). Also returns false for a null. A host that
// needs the system's error opens the source in the m_file of a container, and salvages that.
[[nodiscard]] KESP_EXPORT bool Salvage(std::unique_ptr<ByteSource> source, const CString& destination,
                                       unsigned short kespVersion, SalvageReport& report);

}  // namespace kesp
