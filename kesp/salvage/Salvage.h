// Rebuilds a damaged file beyond its damage.
//
//   CKespDataFile file;
//   if (!file.OpenReadOnly(L"broken.kesp")) return Complain(file.GetErrorString());
//   kesp::SalvageReport report;
//   if (!kesp::Salvage(file, L"salvaged.kesp", 0, report)) return Complain("can't be written");
//   for (const kesp::SalvageGap& gap : report.gaps) Tell(gap.offset, gap.length);
//
// CKespDataFile::CopyVerify ends at the first damage; this goes on after it. Up to there it takes the records that the
// walk takes, and looks into none that the walk steps over: in all of a file that the walk gets to the end of, and
// otherwise up to the last record that it reads, or the last header on its way that has a known type and the length
// that belongs to it. After the damage it looks byte by byte for the next record that leaves no doubt:
//
//   - a type, version and flags that are known, and the body length of just that type and version (in files made by
//     CopyVerify, also the shorter length that it states for features and attributes); a tag's three lengths agree;
//   - a body that can be: a feature's type 1 to 3, an attribute's kind 1 to 5, a tag's 0 to 13, finite numbers, and
//     texts that end, with zeros after their end;
//   - right after it the header of another record, or the end of the file.
//
// From there it walks on, and takes what has such a header, or a record after it. A record that has neither after its
// stated end may be half of one, left by a writer who was cut off, with those of a later one in the place of the rest:
// it is searched for them. So the salvage may leave out a whole record that has damage on both sides, rather than make
// one up. Only a record that somebody stored inside a tag, or inside one of unknown type, may be mistaken for one of
// the file's own, and only where damage is before that tag or right after it.
//
// Deleted records and those of unknown types are left out. All others come over as they are: in the record version that
// they have, byte for byte, with the length of their body in the header, also where the source states another one; the
// flags as they are read. An attribute without a version, which is read as an empty one, gets its newest. Writing an
// older file version is for the asking: then a record of a newer one is converted, and the report tells what that
// loses.
//
// The file header keeps its version unless one is asked for; an application header after it is not copied, and the
// copy's header says so. A file header that can't be opened, or that names a first record where none is while one is in
// front of that place, counts as a gap and is made again; a version in it that nobody knows becomes 3.
//
// Takes time in proportion to the file; memory is that of the longest record, which is never longer than the file.
#pragma once
#include <cstdint>
#include <vector>

#include "kesp/format/FormatLoss.h"
#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespError.h"

class CKespDataFile;

namespace kesp {

// A stretch of the source that makes no sense. At its beginning there may be a record that was kept all the same: the
// one that the walk ends with, when what follows shows that it is not what it says.
struct SalvageGap {
  std::uint64_t offset;
  std::uint64_t length;
  // What the walk says there; KESP_ERROR_RECORD_HEADER also where it would have gone astray without a word. 0 for a
  // body that its class refuses without a code, and what Open says for the file header.
  KESP_ERROR_TYPE reason;
};

struct SalvageReport {
  std::uint64_t kept = 0;              // records in the copy
  std::uint64_t deleted = 0;           // records marked deleted, left out
  std::uint64_t unknown = 0;           // records of types that nobody knows, left out
  std::uint64_t applicationBytes = 0;  // of the application header after the file header, left out
  std::uint64_t gapCount = 0;
  std::uint64_t gapBytes = 0;
  FormatLoss loss;               // in the records kept, by the file version that was asked for
  std::vector<SalvageGap> gaps;  // the first kMostGaps of them, in file order

  static constexpr std::size_t kMostGaps = 4096;
};

// Copies what can be saved of the open file, which may be open read-only. `kespVersion` is the file version to write: 1
// or 2, in which no record has a newer record version than that and the header record names it; 3, in which each
// record keeps its own version; 0 and all others keep the version of the file too. True when the copy is on the disk,
// however much was lost. False when the source isn't open, the destination can't be opened, is the source itself or
// held by somebody, a record can't be written, or the system failed; GetSystemError of the source has its reason. The
// destination then stays as far as it got; the source never changes. The file position of the source and its GetError
// mean nothing afterwards.
[[nodiscard]] KESP_EXPORT bool Salvage(CKespDataFile& source, const CString& destination, unsigned short kespVersion,
                                       SalvageReport& report);
// The same up to the first damage, where the walk ends: what CKespDataFile::CopyVerify copies, but with the versions of
// Salvage. The gap, if there is one, is the rest of the file. The source's LimitLength counts.
[[nodiscard]] KESP_EXPORT bool Rebuild(CKespDataFile& source, const CString& destination, unsigned short kespVersion,
                                       SalvageReport& report);
// Salvage with the file at a path, which CKespDataFile may refuse to open: where the file header is damaged, this
// goes on after it. False also when there is no such file.
[[nodiscard]] KESP_EXPORT bool Salvage(const CString& source, const CString& destination, unsigned short kespVersion,
                                       SalvageReport& report);

}  // namespace kesp
