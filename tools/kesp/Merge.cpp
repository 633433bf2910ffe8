// kesp merge: a new file of the records of several.
#include <algorithm>
#include <limits>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Joining.h"
#include "tools/kesp/Opening.h"

namespace kesp::tool {
namespace {

constexpr unsigned short kNewestFileVersion = 3;
constexpr std::uint64_t kLongest = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kFileHeaderSize = 50;

// The highest file version of the sources, or what their records need where that is more. 0 after a complaint: a record
// is of a version that can't be written.
unsigned short VersionOf(const Sources& sources) {
  unsigned short version = 1;
  for (const auto& source : sources) {
    version = std::max(version, std::min<unsigned short>(source->file.m_version, kNewestFileVersion));
    for (const Records* const records : {&source->header, &source->records}) {
      for (const auto& record : *records) {
        const unsigned short needed = NeededVersion(*record);
        version = std::max(version, needed);
        if (needed != 0) continue;
        Complain(source->path, "the record at offset " + std::to_string(record->m_filePosition) + " is of version " +
                                   std::to_string(record->m_recordVersion) + ", which can't be written");
        return 0;
      }
    }
  }
  return version;
}

// The header of the first source and the records of all.
std::vector<CKespRecord*> RecordsOf(const Sources& sources) {
  std::vector<CKespRecord*> records;
  for (const auto& record : sources.front()->header) records.push_back(record.get());
  const std::vector<CKespRecord*> rest = AllRecords(sources);
  records.insert(records.end(), rest.begin(), rest.end());
  return records;
}

bool IsApart(const Sources& sources, const std::string& destination) {
  for (const auto& source : sources) {
    if (NewFile::IsStandardOutput(destination)) break;
    if (!source->file.m_file.IsSameFile(CString::FromPathBytes(destination))) continue;
    Complain(destination, "is one of the sources");
    return false;
  }
  return true;
}

// Makes the header true for what the new file holds, which is read for it. False after a complaint.
bool UpdateHeader(CKespDataFile& file, const NewFile& made, const std::string& destination, unsigned short version) {
  CKespFile& dataset = DatasetOfThisRun();
  const bool isRead = !OpenForReading(dataset, made.Path().ToPathBytes()) &&
                      ReadDataset(dataset, DeletedRecords::kPassOver).verdict.IsWhole();
  const auto before = isRead ? ReadAt(file, kFileHeaderSize) : nullptr;
  const auto after = isRead ? ReadAt(file, kFileHeaderSize) : nullptr;
  if (!before || !after) {
    Complain(destination, "what was written does not read back");
    return false;
  }
  auto& header = static_cast<CKespTavoHeader&>(*after);
  if (header.m_recordVersion >= 2) {
    PutSummary(header, dataset);
    header.KespVersion = version;
    header.SetCleanClose(true);
  }
  try {
    if (file.AmendRecord(*before, header) && file.Flush() && file.Close()) return true;
  } catch (const CFileException&) {
    // The container has the reason.
  }
  Complain(destination, WhyNotWritten(file));
  return false;
}

void Report(Output& out, const MergeOptions& options, const JoinCounts& counts, unsigned short version) {
  if (options.json) {
    Verdict whole;
    whole.error = KESP_ERROR_NORMAL_EOF;
    whole.message = CKespDataFile().m_errorStrings[KESP_ERROR_NORMAL_EOF];
    JsonWriter json(out);
    json.BeginObject();
    WriteVerdict(json, CString::FromPathBytes(options.destination), whole);
    json.Key("format").Number(std::int64_t{version});
    WriteCounts(json, "merged", counts);
    json.EndObject();
    json.EndLine();
  } else if (!options.quiet) {
    out.Put("Merged " + DescribeCounts(counts) + ", in file version " + std::to_string(version) + "\n");
  }
  out.Flush();
}

}  // namespace

ExitStatus Merge(const MergeOptions& options, Output& out) {
  Sources sources;
  if (const auto status = ReadSources(sources, options.sources, options.json, out)) return *status;
  Numbers taken;
  const unsigned short version = VersionOf(sources);
  if (version == 0 || !GiveNumbers(sources, taken, options.collisions) || !IsApart(sources, options.destination)) {
    return kExitTrouble;
  }
  const std::vector<CKespRecord*> records = RecordsOf(sources);
  if (kFileHeaderSize + BytesOf(records) > kLongest) {
    Complain(options.destination, "would grow past 4 GiB, where positions in a Kesp data file end");
    return kExitTrouble;
  }
  NewFile made(sources.front()->file, options.destination, options.force ? Existing::kReplace : Existing::kRefuse);
  if (!made.IsReady()) return kExitTrouble;
  CKespDataFile file;
  file.m_version = version;
  file.m_headerWord = sources.front()->file.m_headerWord;
  if (!file.Create(made.Path()) || !file.AppendRecords(records.data(), records.size(), 0)) {
    Complain(options.destination, WhyNotWritten(file));
    return kExitTrouble;
  }
  if (!UpdateHeader(file, made, options.destination, version) || !made.Keep()) return kExitTrouble;
  if (!NewFile::IsStandardOutput(options.destination)) Report(out, options, TotalOf(sources), version);
  return kExitWhole;
}

}  // namespace kesp::tool
