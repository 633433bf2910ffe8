// kesp info: what a file holds, for a person or as one JSON document.
#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/RecordJson.h"
#include "tools/kesp/Scan.h"
#include "tools/kesp/Times.h"

namespace kesp::tool {
namespace {

std::string TypeText(std::uint32_t type) {
  const char* const name = TypeName(static_cast<KESP_RECORD_TYPE>(type));
  return name != nullptr ? name : "type " + std::to_string(type);
}

void WriteHeaderJson(JsonWriter& json, const Scan& scan) {
  json.Key("header");
  if (scan.header) {
    json.BeginObject();
    json.Key("version").Number(std::int64_t{scan.header->m_recordVersion});
    json.Key("fields");
    WriteFields(json, *scan.header);
    json.EndObject();
  } else {
    json.Null();
  }
  json.Key("closedCleanly");
  if (const auto clean = scan.ClosedCleanly()) {
    json.Bool(*clean);
  } else {
    json.Null();
  }
}

void WriteRecordsJson(JsonWriter& json, const Scan& scan) {
  json.Key("records").BeginArray();
  for (const auto& [kind, tally] : scan.records) {
    json.BeginObject();
    json.Key("type");
    if (const char* const name = TypeName(static_cast<KESP_RECORD_TYPE>(kind.first)); name != nullptr) {
      json.Text(std::string_view(name));
    } else {
      json.Number(std::int64_t{kind.first});
    }
    json.Key("version").Number(std::int64_t{kind.second});
    json.Key("count").Number(static_cast<std::int64_t>(tally.count));
    json.Key("deleted").Number(static_cast<std::int64_t>(tally.deleted));
    json.EndObject();
  }
  json.EndArray();
}

void WriteJson(JsonWriter& json, const CKespFile& dataset, ErrorEnum result, const Scan& scan) {
  const CKespDataFile& file = *dataset.m_pDataFile;
  json.BeginObject();
  WriteVerdict(json, file.m_path, scan.end);
  json.Key("length").Number(static_cast<std::int64_t>(file.m_file.KnownLength()));
  json.Key("fileVersion").Number(std::int64_t{file.m_version});
  json.Key("headerWord").Number(std::int64_t{file.m_headerWord});
  json.Key("firstRecordOffset").Number(std::int64_t{file.m_firstRecordOffset});
  WriteHeaderJson(json, scan);
  WriteRecordsJson(json, scan);
  json.Key("points").Number(static_cast<std::int64_t>(scan.coverage.points));
  WriteExtent(json, scan.coverage.extent);
  WriteTime(json, "firstTime", scan.coverage.FirstTime());
  WriteTime(json, "lastTime", scan.coverage.LastTime());
  json.Key("dataset").BeginObject();
  json.Key("result").Number(std::int64_t{result});
  json.Key("kespVersion").Number(std::int64_t{dataset.m_kespVersion});
  const DatasetSummary summary(dataset);
  json.Key("points").Number(std::int64_t{summary.points});
  json.Key("features").Number(std::int64_t{summary.features});
  WriteExtent(json, summary.extent);
  WriteTime(json, "firstTime", summary.firstTime);
  WriteTime(json, "lastTime", summary.lastTime);
  json.Key("lastPointText").Text(summary.lastPointText.View());
  json.EndObject();
  json.EndObject();
  json.EndLine();
}

class Report {
 public:
  explicit Report(Output& out) noexcept : m_out(out) {}

  void Line(std::string_view label, std::string_view value) {
    constexpr std::size_t kValueColumn = 18;
    m_out.Put(label)
        .Put(std::string(kValueColumn - std::min(label.size(), kValueColumn - 1), ' '))
        .Put(value)
        .Put('\n');
  }
  // Left out when empty.
  void Text(std::string_view label, const CString& value) {
    if (!value.IsEmpty()) Line(label, Printable(value));
  }
  void Span(std::string_view label, double from, double to) {
    Line(label, ShortestText(from) + " .. " + ShortestText(to));
  }

 private:
  Output& m_out;
};

std::string TimeText(std::int64_t seconds) { return std::string(IsoText(seconds).View()); }

void ReportHeader(Report& report, const CKespTavoHeader& header) {
  report.Line("Header", "version " + std::to_string(header.m_recordVersion));
  if (header.CreationTime != 0) report.Line("  created", TimeText(header.CreationTime));
  report.Text("  HeaderText1", header.HeaderText1);
  report.Text("  HeaderText2", header.HeaderText2);
  report.Text("  HeaderText3", header.HeaderText3);
  report.Text("  HeaderText4", header.HeaderText4);
  report.Text("  HeaderText5", header.HeaderText5);
  report.Text("  HeaderText6", header.HeaderText6);
  report.Text("  HeaderText7", header.HeaderText7);
  report.Text("  LastPointText", header.LastPointText);
  report.Text("  SlotText1", header.SlotText1);
  report.Text("  SlotText2", header.SlotText2);
  if (header.m_recordVersion < 2) return;
  report.Line("  KespVersion", std::to_string(header.KespVersion));
  report.Line("  FeatureCount", std::to_string(header.FeatureCount));
  report.Line("  PointCount", std::to_string(header.PointCount));
  report.Line("  SpareCount", std::to_string(header.SpareCount));
}

void ReportRecords(Report& report, const Scan& scan) {
  const auto counts = [](const Tally& tally) {
    return std::to_string(tally.count) +
           (tally.deleted != 0 ? " (" + std::to_string(tally.deleted) + " deleted)" : std::string());
  };
  report.Line("Records", counts(scan.all));
  for (const auto& [kind, tally] : scan.records) {
    report.Line("  " + TypeText(kind.first) + " v" + std::to_string(kind.second), counts(tally));
  }
}

void ReportExtent(Report& report, const CBoundingBox& extent) {
  if (!extent.IsValid()) return;
  report.Span("  X", extent.MinX(), extent.MaxX());
  report.Span("  Y", extent.MinY(), extent.MaxY());
}

void ReportDataset(Report& report, const CKespFile& dataset, const Scan& scan) {
  const DatasetSummary summary(dataset);
  report.Line("Data set", scan.end.IsWhole() ? "complete" : "what comes before the damage");
  report.Line("  needs version", dataset.m_kespVersion != 0 ? std::to_string(dataset.m_kespVersion) : "unknown");
  report.Line("  features", std::to_string(summary.features));
  report.Line("  points", std::to_string(summary.points));
  ReportExtent(report, summary.extent);
  if (summary.firstTime) report.Line("  first time", TimeText(*summary.firstTime));
  if (summary.lastTime) report.Line("  last time", TimeText(*summary.lastTime));
  report.Text("  last point", summary.lastPointText);

  // Points that belong to no feature of the data set.
  if (scan.coverage.points == summary.points) return;
  report.Line("All points", std::to_string(scan.coverage.points));
  ReportExtent(report, scan.coverage.extent);
  if (!scan.coverage.FirstTime()) return;
  report.Line("  first time", TimeText(*scan.coverage.FirstTime()));
  report.Line("  last time", TimeText(*scan.coverage.LastTime()));
}

std::string StateText(const Verdict& verdict) {
  return verdict.IsWhole() ? Coloured("whole", Colour::kGood) : Coloured(verdict.Describe(), Colour::kBad);
}

void WriteReport(Output& out, const CKespFile& dataset, const Scan& scan) {
  const CKespDataFile& file = *dataset.m_pDataFile;
  Report report(out);
  report.Line("File", Printable(file.m_path));
  report.Line("State", StateText(scan.end));
  report.Line("File version", std::to_string(file.m_version));
  report.Line("Length", std::to_string(file.m_file.KnownLength()) + " bytes");
  const auto clean = scan.ClosedCleanly();
  report.Line("Closed cleanly", !clean ? "not recorded" : *clean ? "yes" : "no");
  if (scan.header) {
    ReportHeader(report, *scan.header);
  } else {
    report.Line("Header", "none");
  }
  ReportRecords(report, scan);
  ReportDataset(report, dataset, scan);
}

ExitStatus InfoOfOne(const InfoOptions& options, Output& out) {
  const std::string& path = options.paths.front();
  CKespFile& dataset = DatasetOfThisRun();
  if (const auto refused = OpenForReading(dataset, path)) return Refuse(*refused, path, options.json, out);
  const Scan scan = ScanFile(*dataset.m_pDataFile);
  const ErrorEnum result = ReadDataset(dataset, DeletedRecords::kPassOver).result;
  if (options.json) {
    JsonWriter json(out);
    WriteJson(json, dataset, result, scan);
  } else {
    WriteReport(out, dataset, scan);
  }
  out.Flush();
  return scan.end.IsWhole() ? kExitWhole : Refuse(scan.end, path, false, out);
}

// A line for each file: its state, what it holds, its name.
class FileTable {
 public:
  void Add(const std::string& path, const CKespDataFile& file, const Scan& scan) {
    const bool isOpen = file.IsOpen();
    const auto number = [&](std::uint64_t value) { return isOpen ? std::to_string(value) : std::string("-"); };
    m_rows.push_back({scan.end.IsWhole()     ? "whole"
                      : scan.end.IsDamaged() ? "damaged"
                                             : "unusable",
                      number(file.m_version), number(scan.features), number(scan.coverage.points),
                      number(scan.all.count), number(isOpen ? file.m_file.KnownLength() : 0), PrintablePath(path)});
  }
  void Write(Output& out) const {
    std::array<std::size_t, kColumns> widths{};
    for (const Row& row : m_rows) {
      for (std::size_t i = 0; i + 1 < kColumns; ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    for (const Row& row : m_rows) {
      for (std::size_t i = 0; i + 1 < kColumns; ++i) {
        const std::string room(widths[i] - row[i].size() + 2, ' ');
        // Numbers end under each other.
        out.Put(i == 0 ? row[i] + room : room.substr(2) + row[i] + "  ");
      }
      out.Put(row[kColumns - 1]).Put('\n');
    }
  }

 private:
  static constexpr std::size_t kColumns = 7;
  using Row = std::array<std::string, kColumns>;
  std::vector<Row> m_rows{{"STATE", "VERSION", "FEATURES", "POINTS", "RECORDS", "BYTES", "FILE"}};
};

ExitStatus InfoOfMany(const InfoOptions& options, Output& out) {
  ExitStatus status = kExitWhole;
  FileTable table;
  for (const std::string& path : options.paths) {
    CKespDataFile file;
    const Scan scan = OpenAndScan(file, path);
    table.Add(path, file, scan);
    if (!scan.end.IsWhole()) Complain(path, scan.end.Describe());
    status = std::max(status, scan.end.Status());
  }
  table.Write(out);
  out.Flush();
  return status;
}

}  // namespace

ExitStatus Info(const InfoOptions& options, Output& out) {
  if (options.paths.size() == 1) return InfoOfOne(options, out);
  if (!options.json) return InfoOfMany(options, out);
  ExitStatus status = kExitWhole;
  for (const std::string& path : options.paths) {
    InfoOptions one(options);
    one.paths = {path};
    status = std::max(status, InfoOfOne(one, out));
  }
  return status;
}

}  // namespace kesp::tool
