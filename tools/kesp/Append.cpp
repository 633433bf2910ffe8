// kesp append: the records of files at the end of another one, all or none.
#include <algorithm>
#include <limits>

#include "tools/kesp/Amending.h"
#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Joining.h"

namespace kesp::tool {
namespace {

constexpr std::uint64_t kLongest = std::numeric_limits<std::uint32_t>::max();

// What the destination's file version can't hold is complained about.
bool CanHold(const AppendOptions& options, const CKespDataFile& file, const Sources& sources) {
  for (const auto& source : sources) {
    for (const auto& record : source->records) {
      const unsigned short needed = NeededVersion(*record);
      if (needed != 0 && needed <= file.m_version) continue;
      const std::string what = std::string("the ") + TypeName(record->m_recordType) + " record at offset " +
                               std::to_string(record->m_filePosition) + " is of version " +
                               std::to_string(record->m_recordVersion);
      if (needed == 0) {
        Complain(source->path, what + ", which can't be written");
      } else {
        Complain(source->path, what + " and needs file version " + std::to_string(needed) + ", and " +
                                   PrintablePath(options.destination) + " is of version " +
                                   std::to_string(file.m_version));
        Complain({}, "kesp merge writes a new file that can hold both, kesp repair --format one in another version");
      }
      return false;
    }
  }
  return true;
}

// False after a complaint.
bool IsApart(const AppendOptions& options, const CKespDataFile& file) {
  const auto isDestination = [&](const std::string& path) {
    return file.m_file.IsSameFile(CString::FromPathBytes(path));
  };
  const auto found = std::find_if(options.sources.begin(), options.sources.end(), isDestination);
  if (found != options.sources.end()) Complain(*found, "is the destination itself");
  return found == options.sources.end();
}

bool HasRoom(const AppendOptions& options, const CKespDataFile& file, const std::vector<CKespRecord*>& records) {
  if (file.m_file.KnownLength() + BytesOf(records) <= kLongest) return true;
  Complain(options.destination, "would grow past 4 GiB, where positions in a Kesp data file end");
  return false;
}

bool SaysTheTruth(const CKespTavoHeader& header, const CKespFile& dataset) {
  CKespTavoHeader truth(header);
  PutSummary(truth, dataset);
  return header.m_recordVersion >= 2 && header.PointCount == truth.PointCount &&
         header.FeatureCount == truth.FeatureCount && header.DataExtent1 == truth.DataExtent1 &&
         header.DataExtent2 == truth.DataExtent2 && header.DataExtent3 == truth.DataExtent3 &&
         header.DataExtent4 == truth.DataExtent4 && header.FirstPointTime == truth.FirstPointTime &&
         header.LastPointTime == truth.LastPointTime && header.LastPointText == truth.LastPointText;
}

bool IsHeaderTrue(CKespDataFile& file, const AppendOptions& options, std::uint32_t headerOffset) {
  CKespFile dataset;
  const auto header = ReadAt(file, headerOffset);
  return header && !OpenForReading(dataset, options.destination) &&
         ReadDataset(dataset, DeletedRecords::kPassOver).verdict.IsWhole() &&
         SaysTheTruth(static_cast<const CKespTavoHeader&>(*header), dataset);
}

// Appends, reads the file as everyone else does, and brings the header up to date if that is wanted. False after a
// complaint.
bool Write(CKespDataFile& file, const AppendOptions& options, const std::vector<CKespRecord*>& records,
           const Inventory& before, bool updatesHeader) {
  if (!file.AppendRecords(records.data(), records.size(), KESP_SRC_ADDED)) {
    Complain(options.destination, "nothing is appended: " + WhyNotWritten(file));
    return false;
  }
  CKespFile& now = DatasetOfThisRun();
  const Inventory after = TakeInventory(file, DeletedRecords::kPassOver);
  if (OpenForReading(now, options.destination) || !ReadDataset(now, DeletedRecords::kPassOver).verdict.IsWhole() ||
      after.liveRecords != before.liveRecords + records.size()) {
    Complain(options.destination, "what was written does not read back");
    return false;
  }
  std::vector<Amendment> amendments;
  CKespRecord* const header = updatesHeader ? AddAmendment(amendments, file, before.firstLive) : nullptr;
  if (header != nullptr) PutSummary(static_cast<CKespTavoHeader&>(*header), now);
  return Carry(file, options.destination, amendments);
}

void Report(Output& out, const AppendOptions& options, const Verdict& verdict, const JoinCounts& counts,
            bool updatesHeader) {
  if (options.json) {
    JsonWriter json(out);
    json.BeginObject();
    WriteVerdict(json, CString::FromPathBytes(options.destination), verdict);
    json.Key("dryRun").Bool(options.dryRun);
    WriteCounts(json, "appended", counts);
    json.Key("headerUpdated").Bool(updatesHeader);
    json.EndObject();
    json.EndLine();
  } else if (!options.quiet) {
    out.Put(options.dryRun ? "Would append " : "Appended ").Put(DescribeCounts(counts)).Put("\n");
  }
  out.Flush();
}

}  // namespace

ExitStatus Append(const AppendOptions& options, Output& out) {
  CKespDataFile file;
  if (const auto refused = OpenForEditing(file, options.destination, options.dryRun)) {
    return Refuse(*refused, options.destination, options.json, out);
  }
  const Inventory inventory = TakeInventory(file, DeletedRecords::kInclude);
  if (!inventory.end.IsWhole()) return Refuse(inventory.end, options.destination, options.json, out);
  if (!IsApart(options, file)) return kExitTrouble;
  Sources sources;
  if (const auto status = ReadSources(sources, options.sources, options.json, out)) return *status;
  Numbers taken = NumbersIn(inventory);
  const std::vector<CKespRecord*> records = AllRecords(sources);
  if (!HasRoom(options, file, records) || !CanHold(options, file, sources) ||
      !GiveNumbers(sources, taken, options.collisions)) {
    return kExitTrouble;
  }
  const bool updatesHeader = IsHeaderTrue(file, options, inventory.firstLive);
  if (!options.dryRun && !Write(file, options, records, inventory, updatesHeader)) return kExitTrouble;
  Report(out, options, inventory.end, TotalOf(sources), updatesHeader);
  return kExitWhole;
}

}  // namespace kesp::tool
