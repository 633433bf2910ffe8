// What makes a file out of a file: the copy, the rebuild, the salvage, and the data set written anew.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "fuzz/Targets.h"
#include "kesp/kesp.h"

namespace kesp::fuzz {
namespace {

constexpr std::size_t kFirst = 50;  // where the records begin in a file with a header of its own only

// What is made of a file is made again of that, twice: a signal status too large for version 1 is still written there,
// and only its reader makes it the largest.
constexpr std::pair<const char*, const char*> kGenerations[] = {{"b", "c"}, {"c", "d"}};

// One of the two for each input, or half the time went into the other.
unsigned short VersionFor(Input input) { return input.size() % 2 == 0 ? 1 : 2; }

struct Walked {
  std::uint64_t records = 0;
  KESP_ERROR_TYPE error = KESP_ERROR_NONE;
};
Walked WalkFrom(const CString& path, std::size_t first) {
  CKespDataFile file;
  KESP_REQUIRE(file.OpenReadOnly(path) && file.Seek(first));
  Walked walked;
  while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)}) ++walked.records;
  walked.error = file.GetError();
  return walked;
}

// The bytes of a file, with 0 for the flag words of its records.
Bytes WithoutMarks(MemorySystem& system, const char* path) {
  constexpr std::size_t kFlags = 6;  // where they are in a record header
  Bytes bytes = system.At(path);
  CKespDataFile file;
  KESP_REQUIRE(file.OpenReadOnly(path));
  while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)}) {
    const auto flags = bytes.begin() + static_cast<std::ptrdiff_t>(record->m_filePosition + kFlags);
    std::fill(flags, flags + sizeof(std::uint32_t), std::uint8_t{0});
  }
  return bytes;
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
  // The copy is whole, and rebuilding it changes nothing.
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
  const auto version = static_cast<unsigned short>(input.size() % 3);  // 0: as it is
  SalvageReport report;
  const std::uint64_t readBefore = system.BytesRead();
  if (!kesp::Salvage(file, u"b", version, report)) return;
  KESP_REQUIRE(system.At("a") == bytes);
  // Every byte of the source is looked at a few times at the most, however it is made.
  KESP_REQUIRE(system.BytesRead() - readBefore <= 64 * input.size() + 65536);
  // And it comes to an end: nothing is counted twice, each record having its header and each gap its bytes.
  constexpr std::uint64_t kHeader = 14;
  KESP_REQUIRE(kHeader * (report.kept + report.deleted + report.unknown) + kFirst <= input.size());
  KESP_REQUIRE(report.gapCount <= report.gapBytes && report.gapBytes + report.applicationBytes <= input.size());
  std::uint64_t behind = 0;
  std::uint64_t sum = 0;
  for (const SalvageGap& gap : report.gaps) {
    KESP_REQUIRE(gap.length != 0 && gap.offset >= behind && gap.offset + gap.length <= input.size());
    behind = gap.offset + gap.length;
    sum += gap.length;
  }
  KESP_REQUIRE(report.gaps.size() == std::min<std::uint64_t>(report.gapCount, SalvageReport::kMostGaps));
  KESP_REQUIRE(report.gaps.size() != report.gapCount || sum == report.gapBytes);

  const Walked walked = WalkFrom(u"b", kFirst);
  KESP_REQUIRE(walked.error == KESP_ERROR_NORMAL_EOF && walked.records == report.kept);
  KESP_REQUIRE(version != 0 || report.loss.IsNone());
  // What was salvaged is whole.
  for (const auto& [from, to] : kGenerations) {
    CKespDataFile again;
    SalvageReport second;
    KESP_REQUIRE(again.OpenReadOnly(from) && kesp::Salvage(again, to, version, second));
    KESP_REQUIRE(second.kept == report.kept && second.gapCount == 0 && second.loss.IsNone());
  }
  KESP_REQUIRE(system.At("d") == system.At("c") && system.At("c") == system.At("b"));
}

void RoundTrip(Input input) {
  MemorySystem system;
  system.Put("a", Bytes(input.begin(), input.end()));
  CString message;
  std::ptrdiff_t records = 0;
  // Reads, writes all that was read into a new file, and goes on with that.
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
    // An attribute of version 0 has no bytes to be written.
    const auto written =
        std::count_if(file.m_recordList.begin(), file.m_recordList.end(), [](const CKespRecord* record) {
          return record->m_recordType != KESP_RECORD_ATTRIBUTE || record->m_recordVersion != 0;
        });
    // A header of version 1 takes such a note for its own once nothing is left between the two.
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
  // But for the marks: each reading hands those of a feature's records up to it, each writing adds its own, and what
  // restoring and filtering makes of them may take it further the next time.
  KESP_REQUIRE(WithoutMarks(system, "b") == WithoutMarks(system, "c"));
}

}  // namespace kesp::fuzz
