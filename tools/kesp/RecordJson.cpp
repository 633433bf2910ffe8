#include "tools/kesp/RecordJson.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <span>
#include <type_traits>

namespace kesp::tool {
namespace {

class FieldsWriter {
 public:
  explicit FieldsWriter(JsonWriter& json) noexcept : m_json(json) {}

  FieldsWriter& Field(std::string_view name, const CString& text) {
    m_json.Key(name).Text(text.View());
    return *this;
  }
  template <class Number>
  requires std::is_arithmetic_v<Number> || std::is_enum_v<Number> FieldsWriter& Field(std::string_view name,
                                                                                      Number value) {
    m_json.Key(name);
    if constexpr (std::is_floating_point_v<Number>) {
      m_json.Number(double{value});
    } else {
      m_json.Number(static_cast<std::int64_t>(value));
    }
    return *this;
  }
  FieldsWriter& Hex(std::string_view name, std::span<const std::uint8_t> bytes) {
    m_json.Key(name).Hex(std::as_bytes(bytes));
    return *this;
  }

 private:
  JsonWriter& m_json;
};

void WriteHeader(FieldsWriter json, const CKespTavoHeader& h) {
  json.Field("StatusFlags", h.StatusFlags)
      .Field("CreationTime", h.CreationTime)
      .Field("HeaderText1", h.HeaderText1)
      .Field("HeaderText2", h.HeaderText2)
      .Field("HeaderText3", h.HeaderText3)
      .Field("HeaderText4", h.HeaderText4)
      .Field("HeaderShort", h.HeaderShort)
      .Field("HeaderText6", h.HeaderText6)
      .Field("HeaderText7", h.HeaderText7)
      .Field("KespVersion", h.KespVersion)
      .Field("ExtentMinX", h.ExtentMinX)
      .Field("ExtentMaxX", h.ExtentMaxX)
      .Field("ExtentMinY", h.ExtentMinY)
      .Field("ExtentMaxY", h.ExtentMaxY)
      .Field("DataExtent1", h.DataExtent1)
      .Field("DataExtent2", h.DataExtent2)
      .Field("DataExtent3", h.DataExtent3)
      .Field("DataExtent4", h.DataExtent4)
      .Field("FirstPointTime", h.FirstPointTime)
      .Field("LastPointTime", h.LastPointTime)
      .Field("LastPointText", h.LastPointText)
      .Field("PointCount", h.PointCount)
      .Field("FeatureCount", h.FeatureCount)
      .Field("SpareCount", h.SpareCount)
      .Field("SlotWord1", h.SlotWord1)
      .Field("SlotWord2", h.SlotWord2)
      .Field("SlotWord3", h.SlotWord3)
      .Field("SlotWord4", h.SlotWord4)
      .Field("SlotText1", h.SlotText1)
      .Field("SlotText2", h.SlotText2)
      .Hex("SlotBytes3", h.SlotBytes3)
      .Hex("SlotBytes4", h.SlotBytes4)
      .Field("HeaderText5", h.HeaderText5);
}

void WriteFeature(FieldsWriter json, const CKespFeature& f) {
  json.Field("FeatureNumber", f.FeatureNumber)
      .Field("FeatureName", f.FeatureName)
      .Field("FeatureType", f.FeatureType)
      .Field("Color", f.Color)
      .Field("SymbolIndex", f.SymbolIndex);
}

void WritePoint(FieldsWriter json, const CKespPoint& p) {
  json.Field("PointNumber", p.PointNumber)
      .Field("PointText", p.PointText)
      .Field("PointTime", p.PointTime)
      .Field("CoordY", p.CoordY)
      .Field("CoordX", p.CoordX)
      .Field("CoordZ", p.CoordZ)
      .Field("GpsValue", p.GpsValue)
      .Field("GpsNumber", p.GpsNumber)
      .Field("SignalStatus", p.SignalStatus)
      .Field("HasOffset", p.HasOffset)
      .Field("Offset1", p.Offset1)
      .Field("Offset2", p.Offset2)
      .Field("FeatureNumber", p.FeatureNumber);
}

void WriteAttribute(FieldsWriter json, const CKespAttribute& a) {
  json.Field("AttributeName", a.AttributeName)
      .Field("AttributeKind", a.AttributeKind)
      .Field("TextValue", a.TextValue)
      .Field("SubValue", a.SubValue)
      .Field("AuxNumber1", a.AuxNumber1)
      .Field("AuxNumber2", a.AuxNumber2)
      .Field("Decimals", a.Decimals)
      .Field("AuxText", a.AuxText)
      .Field("Value", a.Value)
      .Field("AuxNumber3", a.AuxNumber3)
      .Field("AuxNumber4", a.AuxNumber4)
      .Field("FeatureNumber", a.FeatureNumber);
}

// The bytes of a tag's block or payload, taken apart little-endian. The caller has seen to it that they are there.
class TagBytes {
 public:
  explicit TagBytes(std::span<const std::byte> bytes) noexcept : m_bytes(bytes) {}

  std::uint32_t U32(std::size_t offset) const { return static_cast<std::uint32_t>(Load(offset, 4)); }
  double F32(std::size_t offset) const { return std::bit_cast<float>(U32(offset)); }
  double F64(std::size_t offset) const { return std::bit_cast<double>(Load(offset, 8)); }
  // Up to the first zero unit, or all of it; an odd last byte is no unit.
  std::u16string Text() const {
    std::u16string text;
    for (std::size_t i = 0; i + 2 <= m_bytes.size(); i += 2) {
      const auto unit = static_cast<char16_t>(Load(i, 2));
      if (unit == 0) break;
      text.push_back(unit);
    }
    return text;
  }

 private:
  std::uint64_t Load(std::size_t offset, std::size_t width) const {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) value = value << 8 | std::to_integer<std::uint64_t>(m_bytes[offset + i]);
    return value;
  }
  std::span<const std::byte> m_bytes;
};

// Bytes that a payload must have to be decoded; 0 for the kinds whose payloads are just bytes.
std::size_t PayloadSize(KESP_TAG kind) {
  switch (kind) {
    case KESP_TAG_STRING:
      return 2;
    case KESP_TAG_INTEGER:
    case KESP_TAG_COLOR:
    case KESP_TAG_FILE_LINK:
      return 4;
    case KESP_TAG_DOUBLE:
    case KESP_TAG_NAMED_FLAG:
      return 8;
    case KESP_TAG_GPS_MARK:
    case KESP_TAG_POS_ERR_MARK:
      return 16;
    case KESP_TAG_QUALITY_MARK:
      return 20;
    case KESP_TAG_POINT:
    case KESP_TAG_FEATURE_LINK:
    case KESP_TAG_QUALITY_MARK_EX:
      return 24;
    case KESP_TAG_RECT:
      return 32;
    default:
      return 0;
  }
}

void WriteDoubles(JsonWriter& json, const TagBytes& payload, std::size_t count) {
  json.BeginArray();
  for (std::size_t i = 0; i < count; ++i) json.Number(payload.F64(8 * i));
  json.EndArray();
}

void WriteWords(JsonWriter& json, const TagBytes& payload, std::initializer_list<std::string_view> names) {
  json.BeginObject();
  std::size_t offset = 0;
  for (const std::string_view name : names) {
    json.Key(name).Number(std::int64_t{payload.U32(offset)});
    offset += 4;
  }
  json.EndObject();
}

// The marks keep their numbers as floats; how those become integers again is the tag's own business.
void WriteMark(JsonWriter& json, const CKespTag& tag, const TagBytes& payload) {
  std::uint32_t number = 0;
  float unused[4] = {};
  int integer = 0;
  std::size_t values = 4;
  if (tag.m_tagType == KESP_TAG_QUALITY_MARK) {
    tag.GetQualityMark(number, unused[0], unused[1], unused[2], unused[3]);
  } else if (tag.m_tagType == KESP_TAG_QUALITY_MARK_EX) {
    tag.GetQualityMarkEx(number, unused[0], unused[1], unused[2], unused[3], integer);
  } else {
    tag.GetPosErrMark(number, unused[0], unused[1], unused[2]);
    values = 3;
  }
  json.BeginObject();
  json.Key("number").Number(std::int64_t{number});
  json.Key("values").BeginArray();
  for (std::size_t i = 1; i <= values; ++i) json.Number(payload.F32(4 * i));
  json.EndArray();
  if (tag.m_tagType == KESP_TAG_QUALITY_MARK_EX) json.Key("integer").Number(std::int64_t{integer});
  json.EndObject();
}

void WriteValue(JsonWriter& json, const CKespTag& tag, const TagBytes& payload) {
  switch (tag.m_tagType) {
    case KESP_TAG_INTEGER:
      return json.Number(std::int64_t{static_cast<std::int32_t>(payload.U32(0))});
    case KESP_TAG_DOUBLE:
      return json.Number(payload.F64(0));
    case KESP_TAG_STRING:
      return json.Text(payload.Text());
    case KESP_TAG_POINT:
      return WriteDoubles(json, payload, 3);
    case KESP_TAG_RECT:
      return WriteDoubles(json, payload, 4);
    case KESP_TAG_COLOR:
      return json.Number(std::int64_t{payload.U32(0)});
    case KESP_TAG_GPS_MARK:
      return WriteWords(json, payload, {"featureNumber", "pointNumber", "time1", "time2"});
    case KESP_TAG_FILE_LINK:
      return WriteWords(json, payload, {"number"});
    case KESP_TAG_FEATURE_LINK:
      return WriteWords(json, payload,
                        {"featureNumber1", "qualifier1", "featureNumber2", "qualifier2", "linkValue", "spare"});
    case KESP_TAG_QUALITY_MARK:
    case KESP_TAG_QUALITY_MARK_EX:
    case KESP_TAG_POS_ERR_MARK:
      return WriteMark(json, tag, payload);
    case KESP_TAG_NAMED_FLAG:
      return WriteWords(json, payload, {"first", "second"});
    case KESP_TAG_BLOB:
      break;
  }
}

void WriteTag(JsonWriter& json, const CKespTag& tag) {
  FieldsWriter(json).Field("tagType", tag.m_tagType).Field("dataLength", tag.m_dataLength);
  const TagParts parts = PartsOf(tag);
  json.Key("name");
  if (parts.name) {
    json.Text(parts.name->View());
  } else {
    json.Null();
  }
  const std::size_t size = PayloadSize(tag.m_tagType);
  if (parts.payload && size != 0 && parts.payload->size() >= size) {
    json.Key("value");
    WriteValue(json, tag, TagBytes(*parts.payload));
  } else if (parts.payload) {
    json.Key("payload").Hex(*parts.payload);
  } else {
    json.Key("payload").Null();
  }
}

}  // namespace

void WriteMembers(JsonWriter& json, const CKespRecord& record) {
  const FieldsWriter fields(json);
  switch (record.m_recordType) {
    case KESP_RECORD_HEADER:
      WriteHeader(fields, static_cast<const CKespTavoHeader&>(record));
      break;
    case KESP_RECORD_FEATURE:
      WriteFeature(fields, static_cast<const CKespFeature&>(record));
      break;
    case KESP_RECORD_POINT:
      WritePoint(fields, static_cast<const CKespPoint&>(record));
      break;
    case KESP_RECORD_ATTRIBUTE:
      WriteAttribute(fields, static_cast<const CKespAttribute&>(record));
      break;
    case KESP_RECORD_FEATURE_END:
      json.Key("FeatureNumber").Number(std::int64_t{static_cast<const CKespFeatureEnd&>(record).FeatureNumber});
      break;
    case KESP_RECORD_NOTE:
      json.Key("NoteText").Text(static_cast<const CKespNote&>(record).NoteText.View());
      break;
    case KESP_RECORD_TAG:
      WriteTag(json, static_cast<const CKespTag&>(record));
      break;
    default:
      break;
  }
}

void WriteFields(JsonWriter& json, const CKespRecord& record) {
  json.BeginObject();
  WriteMembers(json, record);
  json.EndObject();
}

void WriteRecordLine(JsonWriter& json, RecordWalk& walk) {
  const RecordView view = walk.View();
  const CKespRecord* const record = walk.Record();
  if (record == nullptr) return;
  json.BeginObject();
  json.Key("offset").Number(static_cast<std::int64_t>(view.Position()));
  json.Key("type").Text(std::string_view(TypeName(view.Type())));
  json.Key("version").Number(std::int64_t{view.Version()});
  json.Key("flags").Number(std::int64_t{record->m_flags});
  json.Key("deleted").Bool(record->IsDeleted());
  json.Key("length").Number(std::int64_t{view.StatedLength()});
  json.Key("fields");
  WriteFields(json, *record);
  json.EndObject();
  json.EndLine();
}

void WriteEnd(JsonWriter& json, KESP_ERROR_TYPE error, const CString& message) {
  json.BeginObject();
  json.Key("error").Number(std::int64_t{error});
  json.Key("message").Text(message.View());
  json.EndObject();
}

}  // namespace kesp::tool
