#include "tools/kesp/Dataset.h"

#include <cerrno>

#include "tools/kesp/RecordJson.h"
#include "tools/kesp/Times.h"

namespace kesp::tool {
namespace {

void BeginWithFlags(JsonWriter& json, const CKespRecord& record) {
  json.BeginObject();
  json.Key("flags").Number(std::int64_t{record.m_flags});
}

void WriteHeaderRecord(JsonWriter& json, const CKespRecord& header) {
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

void WriteFeatures(JsonWriter& json, const CKespFile& file) {
  for (const CKespRecord* record : file.m_recordList) {
    if (record->m_recordType != KESP_RECORD_FEATURE) continue;
    const auto& feature = static_cast<const CKespFeature&>(*record);
    CKespFeature* const* const indexed = file.m_featureIndex.Find(feature.FeatureNumber);
    WriteFeature(json, feature, indexed != nullptr && *indexed == &feature);
  }
}

void WriteNotes(JsonWriter& json, const CKespFile& file) {
  for (const CKespRecord* record : file.m_recordList) {
    if (record->m_recordType != KESP_RECORD_NOTE) continue;
    BeginWithFlags(json, *record);
    json.Key("text").Text(static_cast<const CKespNote&>(*record).NoteText.View());
    json.EndObject();
  }
}

void WriteNumberOrNull(JsonWriter& json, std::string_view key, const std::optional<std::int64_t>& number) {
  json.Key(key);
  if (number) {
    json.Number(*number);
  } else {
    json.Null();
  }
}

void WriteSummary(JsonWriter& json, const DatasetSummary& summary) {
  json.Key("points").Number(std::int64_t{summary.points});
  json.Key("features").Number(std::int64_t{summary.features});
  WriteExtent(json, summary.extent);
  WriteNumberOrNull(json, "firstTime", summary.firstTime);
  WriteNumberOrNull(json, "lastTime", summary.lastTime);
  json.Key("lastPointText").Text(summary.lastPointText.View());
}

}  // namespace

DatasetEnd ReadDataset(CKespFile& file, DeletedRecords deleted) {
  CKespDataFile& container = *file.m_pDataFile;
  DatasetEnd end;
  try {
    end.result = file.ReadKespFile(deleted == DeletedRecords::kInclude);
  } catch (const CFileException&) {
    end.result = ERR_READ_FAILED;  // the others return it where a version-1 feature body that is cut short is raised
  }
  const bool isRead = end.result == ERR_NONE || end.result == ERR_OLD_VERSION;
  if (isRead && file.WasReadToEnd() && container.m_file.GetPosition() == container.m_file.KnownLength()) {
    end.verdict.error = KESP_ERROR_NORMAL_EOF;
    end.verdict.message = container.m_errorStrings[KESP_ERROR_NORMAL_EOF];
    return end;
  }
  if (end.result == ERR_MEMORY) {
    end.verdict.cause = Verdict::Cause::kUnreadable;
    end.verdict.systemError = ENOMEM;
    end.verdict.offset = container.m_file.GetPosition();
    return end;
  }
  // Where and why: a data set doesn't tell, and calls damage right after the header its end.
  RecordWalk walk(container, deleted);
  while (walk.Next() != RecordWalk::Step::kEnd) {
  }
  end.verdict = walk.End();
  if (end.verdict.IsWhole()) end.verdict.cause = Verdict::Cause::kDamaged;
  return end;
}

DatasetSummary::DatasetSummary(const CKespFile& file) {
  CTime first;
  CTime last;
  file.GetKespDataSummary(points, features, extent, first, last, lastPointText);
  if (points == 0) return;
  firstTime = first.GetTime();

  // The last time starts from a value that depends on the time zone; an empty data set gives it.
  CKespFile nothing;
  CTime start;
  CTime unused;
  CBoundingBox noExtent;
  CString noText;
  std::uint32_t none = 0;
  nothing.GetKespDataSummary(none, none, noExtent, unused, start, noText);
  if (last > start) lastTime = last.GetTime();
}

void WriteExtent(JsonWriter& json, const CBoundingBox& extent) {
  json.Key("extent");
  if (!extent.IsValid()) return json.Null();
  json.BeginObject();
  json.Key("minX").Number(extent.MinX());
  json.Key("maxX").Number(extent.MaxX());
  json.Key("minY").Number(extent.MinY());
  json.Key("maxY").Number(extent.MaxY());
  json.EndObject();
}

void WriteTime(JsonWriter& json, const std::string& key, const std::optional<std::int64_t>& time) {
  json.Key(key);
  if (time) {
    json.Text(IsoText(*time).View());
  } else {
    json.Null();
  }
  WriteNumberOrNull(json, key + "Unix", time);
}

void WriteDataset(JsonWriter& json, const CKespFile& file, const DatasetEnd& end) {
  json.BeginObject();
  json.Key("result").Number(std::int64_t{end.result});
  json.Key("kespVersion").Number(std::int64_t{file.m_kespVersion});
  const CKespRecord* const first = file.m_recordList.GetHead();
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
  WriteFeatures(json, file);
  json.EndArray();
  json.Key("notes").BeginArray();
  WriteNotes(json, file);
  json.EndArray();
  json.Key("tags").BeginArray();
  for (const CKespTag* tag : file.m_tagList) {
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
