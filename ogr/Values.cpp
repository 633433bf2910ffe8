#include "ogr/Values.h"

#include <chrono>
#include <cmath>
#include <ctime>
#include <limits>
#include <optional>

#include <cpl_string.h>
#include <cpl_time.h>

#include "ogr/ArrowRows.h"

namespace kesp::ogr {
namespace {

struct DateTime {
  int year, month, day, hour, minute;
  float second;
};

using Milliseconds = ArrowRows::Milliseconds;

DateTime Split(Milliseconds time) {
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  const auto millisecond = clock.seconds().count() * 1000 + clock.subseconds().count();
  return {static_cast<int>(date.year()),
          static_cast<int>(static_cast<unsigned>(date.month())),
          static_cast<int>(static_cast<unsigned>(date.day())),
          static_cast<int>(clock.hours().count()),
          static_cast<int>(clock.minutes().count()),
          static_cast<float>(millisecond) / 1000.0F};
}

Milliseconds FromSeconds(std::int64_t time) { return Milliseconds(std::chrono::seconds(time)); }

// Days since 30 December 1899; the fraction counts forward from the day, also below zero. Null for no date and for what
// is not between the years 100 and 9999.
std::optional<Milliseconds> FromDate(double date) {
  constexpr double kFirst = -657434;
  constexpr double kLast = 2958465;
  constexpr double kMillisecondsPerDay = 86400e3;
  const double day = std::trunc(date);
  if (date == 0 || !(day >= kFirst && day <= kLast)) return std::nullopt;
  constexpr std::chrono::sys_days kZero = std::chrono::year(1899) / 12 / 30;
  const std::chrono::milliseconds inDay(std::llround(std::fabs(date - day) * kMillisecondsPerDay));
  return kZero + std::chrono::days(static_cast<int>(day)) + inDay;
}

void Set(OGRFeature& feature, int field, Milliseconds time, int zone) {
  const DateTime t = Split(time);
  feature.SetField(field, t.year, t.month, t.day, t.hour, t.minute, t.second, zone);
}
void Set(ArrowRows& rows, int field, Milliseconds time, int /*zone*/) { rows.SetTime(field, time); }

std::string IsoText(Milliseconds time) {
  const DateTime t = Split(time);
  const bool isWhole = t.second == std::floor(t.second);
  return CPLSPrintf(isWhole ? "%04d-%02d-%02dT%02d:%02d:%02.0f" : "%04d-%02d-%02dT%02d:%02d:%06.3f", t.year, t.month,
                    t.day, t.hour, t.minute, double{t.second});
}

std::string NumberText(double value, int decimals) {
  constexpr double kLongest = 1e15;  // longer numbers have no exact decimals
  constexpr int kMostDecimals = 15;
  if (!(std::fabs(value) < kLongest) || decimals > kMostDecimals) return CPLSPrintf("%.17g", value);
  return CPLSPrintf("%.*f", decimals, value);
}

constexpr int kUnknownZone = 0;
constexpr int kUtc = 100;

}  // namespace

template <class Row>
void SetTime(Row& row, int field, std::int64_t time) {
  if (time == 0) return row.SetFieldNull(field);
  Set(row, field, FromSeconds(time), kUtc);
}
template void SetTime(OGRFeature&, int, std::int64_t);
template void SetTime(ArrowRows&, int, std::int64_t);

std::optional<std::int32_t> TimeIn(const OGRFeature& feature, int field) {
  if (!feature.IsFieldSetAndNotNull(field)) return 0;
  std::tm clock{};
  int zone = 0;
  float second = 0;
  feature.GetFieldAsDateTime(field, &clock.tm_year, &clock.tm_mon, &clock.tm_mday, &clock.tm_hour, &clock.tm_min,
                             &second, &zone);
  constexpr int kFirstYear = 1900;
  constexpr int kSecondsPerZone = 900;
  clock.tm_year -= kFirstYear;
  --clock.tm_mon;
  clock.tm_sec = static_cast<int>(second);
  const GIntBig time = CPLYMDHMSToUnixTime(&clock) - (zone > 1 ? GIntBig{zone - kUtc} * kSecondsPerZone : 0);
  const bool isTime =
      time > 0 && time <= std::numeric_limits<std::int32_t>::max() && second == static_cast<float>(clock.tm_sec);
  if (!isTime) return std::nullopt;
  return static_cast<std::int32_t>(time);
}

double MeasureOf(const PointView& point) {
  const std::int32_t time = point.PointTime();
  return time != 0 ? static_cast<double>(time) : std::numeric_limits<double>::quiet_NaN();
}

std::string TimeText(std::int64_t time) { return IsoText(FromSeconds(time)) + 'Z'; }

void CopyValueText(const AttributeView& attribute, std::string& utf8) {
  if (attribute.AttributeKind() == KESP_ATTRIBUTE_NUMERIC) {
    utf8 = NumberText(attribute.Value(), attribute.Decimals());
  } else if (attribute.AttributeKind() == KESP_ATTRIBUTE_DATE) {
    const std::optional<Milliseconds> date = FromDate(attribute.Value());
    utf8 = date ? IsoText(*date) : std::string();
  } else {
    CopyText(attribute.TextValue(), utf8);
  }
}

template <class Row>
void SetValue(Row& row, int field, OGRFieldType type, const AttributeView& attribute, std::string& buffer) {
  const int kind = attribute.AttributeKind();
  if (type != OFTString && kind == KESP_ATTRIBUTE_NUMERIC) return row.SetField(field, attribute.Value());
  if (type != OFTString && kind == KESP_ATTRIBUTE_DATE) {
    const std::optional<Milliseconds> date = FromDate(attribute.Value());
    if (!date) return row.SetFieldNull(field);
    return Set(row, field, *date, kUnknownZone);
  }
  if (type != OFTString) return row.SetFieldNull(field);
  CopyValueText(attribute, buffer);
  if (buffer.empty() && kind != KESP_ATTRIBUTE_STRING) return row.SetFieldNull(field);
  row.SetField(field, buffer.c_str());
}
template void SetValue(OGRFeature&, int, OGRFieldType, const AttributeView&, std::string&);
template void SetValue(ArrowRows&, int, OGRFieldType, const AttributeView&, std::string&);

}  // namespace kesp::ogr
