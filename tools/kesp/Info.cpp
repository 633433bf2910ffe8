// kesp info: what a file holds, for a person or as one JSON document.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"
#include "tools/kesp/RecordJson.h"

namespace kesp::tool {
namespace {

struct Tally {
  std::uint64_t count = 0;  // deleted ones included
  std::uint64_t deleted = 0;
};

struct Summary {
  std::unique_ptr<CKespTavoHeader> header;  // the first one that isn't deleted; null without one
  std::map<std::pair<std::uint32_t, std::uint16_t>, Tally> records;  // by type and version
  // Of the points that aren't deleted; a time of 0 stands for none.
  std::uint64_t points = 0;
  CBoundingBox extent;
  std::int32_t firstTime = std::numeric_limits<std::int32_t>::max();
  std::int32_t lastTime = std::numeric_limits<std::int32_t>::min();
  WalkEnd end;

  bool HasTimes() const { return firstTime <= lastTime; }
  // Nothing where the header can't say it, or isn't there.
  std::optional<bool> ClosedCleanly() const {
    if (!header || header->m_recordVersion < 2) return std::nullopt;
    return header->WasCleanClose();
  }
};

void Include(Summary& summary, const CKespPoint& point) {
  ++summary.points;
  summary.extent.Include(point.CoordX, point.CoordY);
  if (point.PointTime == 0) return;
  summary.firstTime = std::min(summary.firstTime, point.PointTime);
  summary.lastTime = std::max(summary.lastTime, point.PointTime);
}

Summary Summarize(CKespDataFile& file) {
  Summary summary;
  RecordWalk walk(file, DeletedRecords::kPassOver);
  Progress progress(file.m_file.KnownLength(), Progress::OnTerminal());
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    Tally& tally = summary.records[{walk.Type(), walk.Version()}];
    ++tally.count;
    if (walk.IsDeleted()) ++tally.deleted;
    if (step == RecordWalk::Step::kRecord) {
      if (walk.Type() == KESP_RECORD_POINT) Include(summary, static_cast<const CKespPoint&>(walk.Record()));
      if (walk.Type() == KESP_RECORD_HEADER && !summary.header) {
        summary.header = std::make_unique<CKespTavoHeader>(static_cast<const CKespTavoHeader&>(walk.Record()));
      }
    }
    progress.Update(walk.Offset());
  }
  summary.end = walk.End();
  return summary;
}

std::string TypeText(std::uint32_t type) {
  const char* const name = TypeName(static_cast<KESP_RECORD_TYPE>(type));
  return name != nullptr ? name : "type " + std::to_string(type);
}

void WriteJson(JsonWriter& json, CKespFile& dataset, const DatasetEnd& datasetEnd, const Summary& summary) {
  const CKespDataFile& file = *dataset.m_pDataFile;
  json.BeginObject();
  json.Key("path").Text(file.m_path.View());
  json.Key("length").Number(static_cast<std::int64_t>(file.m_file.KnownLength()));
  json.Key("fileVersion").Number(std::int64_t{file.m_version});
  json.Key("headerWord").Number(std::int64_t{file.m_headerWord});
  json.Key("firstRecordOffset").Number(std::int64_t{file.m_firstRecordOffset});
  json.Key("header");
  if (summary.header) {
    json.BeginObject();
    json.Key("version").Number(std::int64_t{summary.header->m_recordVersion});
    json.Key("fields");
    WriteFields(json, *summary.header);
    json.EndObject();
  } else {
    json.Null();
  }
  json.Key("closedCleanly");
  if (const auto clean = summary.ClosedCleanly()) {
    json.Bool(*clean);
  } else {
    json.Null();
  }
  json.Key("records").BeginArray();
  for (const auto& [kind, tally] : summary.records) {
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
  json.Key("points").Number(static_cast<std::int64_t>(summary.points));
  std::optional<std::int64_t> first;
  std::optional<std::int64_t> last;
  if (summary.HasTimes()) {
    first = summary.firstTime;
    last = summary.lastTime;
  }
  WriteExtentAndTimes(json, summary.extent, first, last);
  json.Key("dataset").BeginObject();
  json.Key("result").Number(std::int64_t{datasetEnd.result});
  json.Key("kespVersion").Number(std::int64_t{dataset.m_kespVersion});
  WriteSummary(json, DatasetSummary(dataset));
  json.EndObject();
  json.Key("end");
  WriteEnd(json, summary.end.error, summary.end.message);
  json.Key("damage");
  if (summary.end.IsWhole()) {
    json.Null();
  } else {
    json.BeginObject();
    json.Key("offset").Number(static_cast<std::int64_t>(summary.end.offset));
    json.Key("message").Text(CString(summary.end.Describe()).View());
    json.EndObject();
  }
  json.EndObject();
  json.EndLine();
}

std::string UtcText(std::int64_t seconds) {
  namespace chrono = std::chrono;
  const chrono::sys_seconds time{std::chrono::seconds{seconds}};
  const auto day = chrono::floor<chrono::days>(time);
  const chrono::year_month_day date(day);
  const chrono::hh_mm_ss clock(time - day);
  std::array<char, 40> text;
  (void)std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d UTC", static_cast<int>(date.year()),
                      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                      static_cast<int>(clock.seconds().count()));
  return text.data();
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

void ReportHeader(Report& report, const CKespTavoHeader& header) {
  report.Line("Header", "version " + std::to_string(header.m_recordVersion));
  if (header.CreationTime != 0) report.Line("  created", UtcText(header.CreationTime));
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

void ReportRecords(Report& report, const Summary& summary) {
  Tally all;
  for (const auto& [kind, tally] : summary.records) {
    all.count += tally.count;
    all.deleted += tally.deleted;
  }
  const auto counts = [](const Tally& tally) {
    return std::to_string(tally.count) +
           (tally.deleted != 0 ? " (" + std::to_string(tally.deleted) + " deleted)" : std::string());
  };
  report.Line("Records", counts(all));
  for (const auto& [kind, tally] : summary.records) {
    report.Line("  " + TypeText(kind.first) + " v" + std::to_string(kind.second), counts(tally));
  }
}

void ReportExtent(Report& report, const CBoundingBox& extent) {
  if (!extent.IsValid()) return;
  report.Span("  X", extent.MinX(), extent.MaxX());
  report.Span("  Y", extent.MinY(), extent.MaxY());
}

void ReportDataset(Report& report, CKespFile& dataset, const DatasetEnd& end, const Summary& records) {
  const DatasetSummary summary(dataset);
  report.Line("Data set", end.IsComplete() ? "complete" : "as far as it got: " + end.reason);
  report.Line("  needs version", dataset.m_kespVersion != 0 ? std::to_string(dataset.m_kespVersion) : "unknown");
  report.Line("  features", std::to_string(summary.features));
  report.Line("  points", std::to_string(summary.points));
  ReportExtent(report, summary.extent);
  if (summary.firstTime) report.Line("  first time", UtcText(*summary.firstTime));
  if (summary.lastTime) report.Line("  last time", UtcText(*summary.lastTime));
  report.Text("  last point", summary.lastPointText);

  // Points that belong to no feature of the data set.
  if (records.points == summary.points) return;
  report.Line("All points", std::to_string(records.points));
  ReportExtent(report, records.extent);
  if (!records.HasTimes()) return;
  report.Line("  first time", UtcText(records.firstTime));
  report.Line("  last time", UtcText(records.lastTime));
}

void WriteReport(Output& out, CKespFile& dataset, const DatasetEnd& datasetEnd, const Summary& summary) {
  const CKespDataFile& file = *dataset.m_pDataFile;
  Report report(out);
  report.Line("File", Printable(file.m_path));
  report.Line("File version", std::to_string(file.m_version));
  report.Line("Length", std::to_string(file.m_file.KnownLength()) + " bytes");
  if (summary.header) {
    ReportHeader(report, *summary.header);
  } else {
    report.Line("Header", "none");
  }
  ReportRecords(report, summary);
  ReportDataset(report, dataset, datasetEnd, summary);
  const auto clean = summary.ClosedCleanly();
  report.Line("Closed cleanly", !clean ? "not recorded" : *clean ? "yes" : "no");
  report.Line("State", summary.end.IsWhole() ? "whole" : summary.end.Describe());
}

}  // namespace

ExitStatus Info(const InfoOptions& options, Output& out) {
  CKespFile& dataset = DatasetOfThisRun();
  if (!OpenForReading(dataset, options.path)) return kExitTrouble;
  const Summary summary = Summarize(*dataset.m_pDataFile);
  const DatasetEnd datasetEnd = ReadDataset(dataset, DeletedRecords::kPassOver);
  if (options.json) {
    JsonWriter json(out);
    WriteJson(json, dataset, datasetEnd, summary);
  } else {
    WriteReport(out, dataset, datasetEnd, summary);
  }
  out.Flush();
  if (summary.end.IsWhole()) return kExitWhole;
  Complain(options.path, summary.end.Describe());
  return kExitDamaged;
}

}  // namespace kesp::tool
