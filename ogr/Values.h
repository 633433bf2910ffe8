// Values of the format as OGR's fields and as texts.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include <ogr_feature.h>

#include "kesp/format/RecordView.h"
#include "ogr/Utf8Text.h"

namespace kesp::ogr {

// Below, a row is an OGRFeature or ArrowRows.

// `buffer` is used again and again.
template <class Row>
void SetText(Row& row, int field, const TextView& text, std::string& buffer) {
  CopyText(text, buffer);
  row.SetField(field, buffer.c_str());
}
// Seconds since 1970 UTC; 0 means none and sets null.
template <class Row>
void SetTime(Row& row, int field, std::int64_t time);
// The time in a field of dates and times, 0 for none. One without a zone is taken for UTC. Null if it is not one of
// whole seconds from 1970 to 19 January 2038.
std::optional<std::int32_t> TimeIn(const OGRFeature& feature, int field);
// The M of a point: its time, or NaN if it has none.
double MeasureOf(const PointView& point);
std::string TimeText(std::int64_t time);  // 2024-06-10T08:15:00Z

// An attribute's value as a text: its text, its number with its decimals, or its date as 2024-06-10T12:00:00. Empty if
// it has none.
void CopyValueText(const AttributeView& attribute, std::string& utf8);
// Sets the field of that type. Sets null if the attribute has no value.
template <class Row>
void SetValue(Row& row, int field, OGRFieldType type, const AttributeView& attribute, std::string& buffer);

}  // namespace kesp::ogr
