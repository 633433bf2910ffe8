// Targets that make a file from a file: the copy, the rebuild, the salvage, and writing the data set that was read.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "fuzz/Targets.h"
#include "kesp/kesp.h"

namespace kesp::fuzz {
namespace {

constexpr std::size_t kFirst = 50;  // offset of the first record in a file without an application header

// The operation is repeated on its own result, twice: a signal status that is too large for version 1 is still written,
// and is reduced to the largest value only when it is read.
constexpr std::pair<const char*, const char*> kGenerations[] = {{"b", "c"}, {"c", "d"}};

// One version for each input: trying both would halve the number of inputs.
unsigned short VersionFor(Input input) { return input.size() % 2 == 0 ? 1 : 2; }

struct CopiedWalk {
  std::uint64_t records = 0;
  KESP_ERROR_TYPE error = KESP_ERROR_NONE;
};
CopiedWalk WalkFrom(const CString& path, std::size_t first, bool skipDeleted = false) {
  CKespDataFile file;
  KESP_REQUIRE(file.OpenReadOnly(path) && file.Seek(static_cast<unsigned long>(first)));
  CopiedWalk walked;
  try {
    while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(skipDeleted)}) ++walked.records;
    walked.error = file.GetError();
  } catch (const CFileException&) {
    walked.error = KESP_ERROR_EOF;  // a version-1 feature that is cut short
  }
  return walked;
}

// The bytes of a file, with the flag words of its records set to 0.
Bytes WithoutMarks(MemorySystem& system, const char* path) {
  constexpr std::size_t kFlags = 6;  // offset in a record header
  Bytes bytes = system.At(path);
  CKespDataFile file;
  KESP_REQUIRE(file.OpenReadOnly(path));
  while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)}) {
    const auto flags = bytes.begin() + static_cast<std::ptrdiff_t>(record->m_filePosition + kFlags);
    std::fill(flags, flags + sizeof(std::uint32_t), std::uint8_t{0});
  }
  return bytes;
}

// Up to the first damage; that is all of a file without any. The salvaged file is "b".
void RebuildToDamage(MemorySystem& system, unsigned short version, const SalvageReport& salvaged) {
  CKespDataFile source;
  SalvageReport rebuilt;
  KESP_REQUIRE(source.OpenReadOnly("a") && kesp::Rebuild(source, u"e", version, rebuilt));
  KESP_REQUIRE(rebuilt.kept == WalkFrom(u"a", source.m_firstRecordOffset, true).records && rebuilt.gapCount <= 1);
  KESP_REQUIRE(rebuilt.gapCount != 0 || salvaged.gapCount != 0 || system.At("e") == system.At("b"));
}

}  // namespace

void Rebuild(Input input) {
  MemorySystem system;
  const Bytes bytes(input.begin(), input.end());
  system.Put("a", bytes);
  CKespDataFile file;
  if (!file.OpenReadOnly("a")) return;
  KESP_REQUIRE(file.Copy("copy") && system.At("copy") == bytes);
  KESP_REQUIRE(!file.Copy("a") && !file.CopyVerify("a", 2) && system.At("a") == bytes);

  const unsigned short version = VersionFor(input);
  bool good = false;
  try {
    (void)file.SeekToFirstRecord();
    good = file.CopyVerify("b", version);
  } catch (const CFileException&) {
    good = false;
  }
  KESP_REQUIRE(system.At("a") == bytes && system.At("b").size() >= kFirst);
  KESP_REQUIRE(std::equal(bytes.begin(), bytes.begin() + kFirst, system.At("b").begin()));
  // The copy is whole, and a rebuild does not change it.
  if (!good || file.m_firstRecordOffset != kFirst) return;
  KESP_REQUIRE(WalkFrom(u"b", kFirst).error == KESP_ERROR_NORMAL_EOF);
  for (const auto& [from, to] : kGenerations) {
    CKespDataFile again;
    KESP_REQUIRE(again.OpenReadOnly(from) && again.CopyVerify(to, version));
    KESP_REQUIRE(again.GetError() == KESP_ERROR_NORMAL_EOF);
  }
  KESP_REQUIRE(system.At("d") == system.At("c") && (version == 1 || system.At("c") == system.At("b")));
}

void Salvage(Input input) {
  MemorySystem system;
  const Bytes bytes(input.begin(), input.end());
  system.Put("a", bytes);
  CKespDataFile file;
  if (!file.OpenReadOnly("a")) return;
  const auto version = static_cast<unsigned short>(input.size() % 3);  // 0: without conversion
  SalvageReport report;
  const std::uint64_t readBefore = system.BytesRead();
  if (!kesp::Salvage(file, u"b", version, report)) return;
  KESP_REQUIRE(system.At("a") == bytes);
  // Each byte of the source is read a few times at most, whatever the source holds.
  KESP_REQUIRE(system.BytesRead() - readBefore <= 64 * input.size() + 65536);
  // Nothing is counted twice: each record needs its header, and each gap its bytes.
  constexpr std::uint64_t kHeader = 14;
  KESP_REQUIRE(kHeader * (report.kept + report.deleted + report.unknown) + kFirst <= input.size());
  KESP_REQUIRE(report.gapCount <= report.gapBytes && report.gapBytes + report.applicationBytes <= input.size());
  std::uint64_t end = 0;
  std::uint64_t sum = 0;
  for (const SalvageGap& gap : report.gaps) {
    KESP_REQUIRE(gap.length != 0 && gap.offset >= end && gap.offset + gap.length <= input.size());
    end = gap.offset + gap.length;
    sum += gap.length;
  }
  KESP_REQUIRE(report.gaps.size() == std::min<std::uint64_t>(report.gapCount, SalvageReport::kMostGaps));
  KESP_REQUIRE(report.gaps.size() != report.gapCount || sum == report.gapBytes);

  const CopiedWalk walked = WalkFrom(u"b", kFirst);
  KESP_REQUIRE(walked.error == KESP_ERROR_NORMAL_EOF && walked.records == report.kept);
  KESP_REQUIRE(version != 0 || report.loss.IsNone());
  // The salvaged file is whole.
  for (const auto& [from, to] : kGenerations) {
    CKespDataFile again;
    SalvageReport second;
    KESP_REQUIRE(again.OpenReadOnly(from) && kesp::Salvage(again, to, version, second));
    KESP_REQUIRE(second.kept == report.kept && second.gapCount == 0 && second.loss.IsNone());
  }
  KESP_REQUIRE(system.At("d") == system.At("c") && system.At("c") == system.At("b"));
  RebuildToDamage(system, version, report);
}

void RoundTrip(Input input) {
  MemorySystem system;
  system.Put("a", Bytes(input.begin(), input.end()));
  CString message;
  std::ptrdiff_t records = 0;
  // Reads the file, writes everything to a new file, and repeats that with the new file.
  for (const auto& [from, to] : {std::pair{"a", "b"}, {"b", "c"}}) {
    const bool first = from[0] == 'a';
    CKespFile file;
    (void)file.OpenKespReadOnly(from, message);
    try {
      const ErrorEnum result = file.ReadKespFile(true);
      const bool whole = result == ERR_NONE || result == ERR_OLD_VERSION;
      KESP_REQUIRE(first || whole);
      if (!whole && result != ERR_READ_FAILED) return;
    } catch (const CFileException&) {
      KESP_REQUIRE(first);
      if (file.m_recordList.IsEmpty()) return;
    }
    // An attribute of version 0 has no body, so it is not written.
    const auto written =
        std::count_if(file.m_recordList.begin(), file.m_recordList.end(), [](const CKespRecord* record) {
          return record->m_recordType != KESP_RECORD_ATTRIBUTE || record->m_recordVersion != 0;
        });
    // A version-1 header takes such a note as its own when nothing is between the two any more.
    const bool hasHeaderNotes = std::any_of(file.m_recordList.begin(), file.m_recordList.end(), [](auto* record) {
      if (record->m_recordType != KESP_RECORD_NOTE) return false;
      const CString tag = static_cast<const CKespNote*>(record)->NoteText.Left(4);
      return tag == u"BMC:" || tag == u"ZOM:";
    });
    if (hasHeaderNotes) return;
    if (first) records = written;
    KESP_REQUIRE(written == records && (first || file.m_recordList.GetCount() == written));
    KESP_REQUIRE(file.WriteNewKespFileFromQueue(to) == ERR_NONE && file.m_pDataFile->IsOpen());
    const auto refused = file.m_recordList.GetCount() - written;
    KESP_REQUIRE(file.m_pDataFile->GetFailedAppends() == static_cast<std::uint32_t>(refused));
    KESP_REQUIRE(file.m_pDataFile->GetSystemError() == (refused != 0 ? EINVAL : 0));
  }
  // Except for the flag words: reading hands the flags of a feature's records up to it, writing adds its own, and
  // restoring and filtering may change the result once more the next time.
  KESP_REQUIRE(WithoutMarks(system, "b") == WithoutMarks(system, "c"));
}

}  // namespace kesp::fuzz
