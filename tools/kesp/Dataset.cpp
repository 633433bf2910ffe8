#include "tools/kesp/Dataset.h"

#include <system_error>
#include <utility>

#include "tools/kesp/RecordJson.h"

namespace kesp::tool {
namespace {

std::string ReasonOf(ErrorEnum result, const CKespDataFile& container) {
  switch (result) {
    case ERR_NONE:
      return {};
    case ERR_FILE_NOT_OPEN:
      return "not open";
    case ERR_BAD_FEATURE:
      return "a feature has no points";
    case ERR_BAD_VERSION1_HEADER:
      return "the notes behind the header can't be read";
    case ERR_NO_HEADER:
      return "the first record is missing or no header";
    case ERR_SEEK_FAILED:
      return "the first record can't be reached";
    case ERR_OLD_VERSION:
      return "old: holds features and needs file version 1 only";
    case ERR_READ_FAILED:
      break;
    default:
      return "error " + std::to_string(result);
  }
  std::string failed = "a record can't be read";
  if (const int osError = container.GetSystemError(); osError != 0) {
    return failed + ": " + std::generic_category().message(osError);
  }
  if (container.GetError() == KESP_ERROR_NONE) return failed;
  return failed + ": " + container.GetErrorString().ToUtf8();
}

template <class Operation>
DatasetEnd EndOf(const CKespFile& file, Operation operation) {
  try {
    const ErrorEnum result = operation();
    return {result, ReasonOf(result, *file.m_pDataFile)};
  } catch (const CFileException& e) {
    // A version-1 feature body that is cut short is raised where the others are answered.
    const bool cutShort = e.m_cause == CFileException::endOfFile;
    return {ERR_READ_FAILED, std::string("a record can't be read: ") + (cutShort ? "EOF Error" : e.what())};
  }
}

void BeginWithFlags(JsonWriter& json, const CKespRecord& record) {
  json.BeginObject();
  json.Key("flags").Number(std::int64_t{record.m_flags});
}

void WriteHeaderRecord(JsonWriter& json, CKespRecord& header) {
  json.BeginObject();
  json.Key("version").Number(std::int64_t{header.m_recordVersion});
  json.Key("flags").Number(std::int64_t{header.m_flags});
  WriteMembers(json, header);
  json.EndObject();
}

void WriteFeature(JsonWriter& json, const CKespFeature& feature, bool indexed) {
  json.BeginObject();
  json.Key("number").Number(std::int64_t{feature.FeatureNumber});
  json.Key("name").Text(feature.FeatureName.View());
  json.Key("type").Number(std::int64_t{feature.FeatureType});
  json.Key("color").Number(std::int64_t{feature.Color});
  json.Key("symbol").Number(std::int64_t{feature.SymbolIndex});
  json.Key("flags").Number(std::int64_t{feature.m_flags});
  json.Key("indexed").Bool(indexed);
  json.Key("points").BeginArray();
  for (const auto& point : feature.m_pointList) {
    BeginWithFlags(json, *point);
    WriteMembers(json, *point);
    json.EndObject();
  }
  json.EndArray();
  json.Key("attributes").BeginArray();
  for (const auto& attribute : feature.m_attributeList) {
    BeginWithFlags(json, *attribute);
    WriteMembers(json, *attribute);
    json.Key("formatted").Text(attribute->GetAsFormatedString(false).View());
    json.EndObject();
  }
  json.EndArray();
  json.Key("hasEnd").Bool(feature.GetFeatureEnd() != nullptr);
  json.EndObject();
}

void WriteLink(JsonWriter& json, const CKespFeatureLink& link) {
  json.BeginObject();
  json.Key("featureNumber1").Number(std::int64_t{link.m_featureNumber1});
  json.Key("qualifier1").Number(std::int64_t{link.m_qualifier1});
  json.Key("featureNumber2").Number(std::int64_t{link.m_featureNumber2});
  json.Key("qualifier2").Number(std::int64_t{link.m_qualifier2});
  json.Key("linkValue").Number(std::int64_t{link.m_linkValue});
  json.Key("spare").Number(std::int64_t{link.m_spare});
  json.Key("tagRecordPosition").Number(std::int64_t{link.m_tagRecordPosition});
  json.EndObject();
}

}  // namespace

DatasetEnd ReadDataset(CKespFile& file, DeletedRecords deleted) {
  return EndOf(file, [&] { return file.ReadKespFile(deleted == DeletedRecords::kInclude); });
}

DatasetEnd ValidateDataset(CKespFile& file) {
  return EndOf(file, [&] { return file.ValidateKesp(); });
}

DatasetSummary::DatasetSummary(const CKespFile& file) {
  CTime first;
  CTime last;
  file.GetKespDataSummary(points, features, extent, first, last, lastPointText);
  if (points == 0) return;
  firstTime = first.GetTime();

  // The last time starts from a value that depends on the time zone; a data set of nothing answers it.
  CKespFile nothing;
  CTime start;
  CTime unused;
  CBoundingBox noExtent;
  CString noText;
  std::uint32_t none = 0;
  nothing.GetKespDataSummary(none, none, noExtent, unused, start, noText);
  if (last > start) lastTime = last.GetTime();
}

void WriteExtentAndTimes(JsonWriter& json, const CBoundingBox& extent, const std::optional<std::int64_t>& firstTime,
                         const std::optional<std::int64_t>& lastTime) {
  json.Key("extent");
  if (extent.IsValid()) {
    json.BeginObject();
    json.Key("minX").Number(extent.MinX());
    json.Key("maxX").Number(extent.MaxX());
    json.Key("minY").Number(extent.MinY());
    json.Key("maxY").Number(extent.MaxY());
    json.EndObject();
  } else {
    json.Null();
  }
  for (const auto& [name, time] : {std::pair{"firstTime", firstTime}, {"lastTime", lastTime}}) {
    json.Key(name);
    if (time) {
      json.Number(*time);
    } else {
      json.Null();
    }
  }
}

void WriteSummary(JsonWriter& json, const DatasetSummary& summary) {
  json.Key("points").Number(std::int64_t{summary.points});
  json.Key("features").Number(std::int64_t{summary.features});
  WriteExtentAndTimes(json, summary.extent, summary.firstTime, summary.lastTime);
  json.Key("lastPointText").Text(summary.lastPointText.View());
}

void WriteDataset(JsonWriter& json, CKespFile& file, const DatasetEnd& end) {
  json.BeginObject();
  json.Key("result").Number(std::int64_t{end.result});
  json.Key("kespVersion").Number(std::int64_t{file.m_kespVersion});
  CKespRecord* const first = file.m_recordList.GetHead();
  json.Key("header");
  if (first != nullptr && first->m_recordType == KESP_RECORD_HEADER) {
    WriteHeaderRecord(json, *first);
  } else {
    json.Null();
  }
  json.Key("summary").BeginObject();
  WriteSummary(json, DatasetSummary(file));
  json.EndObject();

  json.Key("features").BeginArray();
  for (const CKespRecord* record : file.m_recordList) {
    if (record->m_recordType != KESP_RECORD_FEATURE) continue;
    const auto& feature = static_cast<const CKespFeature&>(*record);
    CKespFeature* const* const indexed = file.m_featureIndex.Find(feature.FeatureNumber);
    WriteFeature(json, feature, indexed != nullptr && *indexed == &feature);
  }
  json.EndArray();
  json.Key("notes").BeginArray();
  for (const CKespRecord* record : file.m_recordList) {
    if (record->m_recordType != KESP_RECORD_NOTE) continue;
    BeginWithFlags(json, *record);
    json.Key("text").Text(static_cast<const CKespNote&>(*record).NoteText.View());
    json.EndObject();
  }
  json.EndArray();
  json.Key("tags").BeginArray();
  for (CKespTag* tag : file.m_tagList) {
    BeginWithFlags(json, *tag);
    WriteMembers(json, *tag);
    json.EndObject();
  }
  json.EndArray();
  json.Key("links").BeginArray();
  for (const CKespFeatureLink* link : file.m_featureLinks) WriteLink(json, *link);
  json.EndArray();
  json.EndObject();
  json.EndLine();
}

}  // namespace kesp::tool
