#include "ogr/FieldTargets.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>

namespace kesp::ogr {
namespace {

bool IsWhole(OGRFieldType type) { return type == OFTInteger || type == OFTInteger64; }

struct OwnName {
  const char* name;
  bool isText;
  Role role;
};
constexpr OwnName kOwnNames[] = {{"feature_name", true, Role::kName},
                                 {"feature_color", false, Role::kColor},
                                 {"feature_symbol", false, Role::kSymbol},
                                 {"deleted", false, Role::kDeleted},
                                 {"edited", false, Role::kEdited},
                                 {kFidColumn, false, Role::kNumber},
                                 {"further_attributes", true, Role::kFurther}};

// The menu whose second level the field is by its name.
int MainFieldOf(const std::string& name, const OGRFeatureDefn& definition) {
  constexpr std::string_view kEnd = "_sub";
  if (name.size() <= kEnd.size() || !name.ends_with(kEnd)) return Schema::kNone;
  const int main = definition.GetFieldIndex(name.substr(0, name.size() - kEnd.size()).c_str());
  const bool isMenu = main >= 0 && !definition.GetFieldDefn(main)->GetDomainName().empty();
  return isMenu ? main : Schema::kNone;
}

KESP_ATTRIBUTE_KIND KindOf(const OGRFieldDefn& field) {
  if (field.GetType() == OFTDate || field.GetType() == OFTDateTime) return KESP_ATTRIBUTE_DATE;
  if (field.GetType() != OFTString) return KESP_ATTRIBUTE_NUMERIC;
  return field.GetDomainName().empty() ? KESP_ATTRIBUTE_STRING : KESP_ATTRIBUTE_MENU;
}

// The decimals with which a number is written in full, if it has no more than 15 digits.
std::uint16_t DecimalsOf(double value) {
  const std::string digits = CPLSPrintf("%.15g", value);
  const std::size_t exponent = std::min(digits.find('e'), digits.size());
  const std::size_t point = digits.find('.');
  const int ofMantissa = point != std::string::npos ? static_cast<int>(exponent - point) - 1 : 0;
  const int more =
      exponent < digits.size() ? -static_cast<int>(std::strtol(digits.c_str() + exponent + 1, nullptr, 10)) : 0;
  return static_cast<std::uint16_t>(std::clamp(ofMantissa + more, 0, AttributeTraits::kMostDecimals));
}

// Days since 30 December 1899; the fraction counts forward from the day, also below zero. A time with a zone is given
// in UTC.
std::optional<double> DateOf(const OGRFeature& feature, int field, std::string& why) {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int zone = 0;
  float second = 0;
  feature.GetFieldAsDateTime(field, &year, &month, &day, &hour, &minute, &second, &zone);
  constexpr std::chrono::sys_days kZero = std::chrono::year(1899) / 12 / 30;
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  constexpr int kFirstYear = 100;
  constexpr int kLastYear = 9999;
  if (!date.ok() || year < kFirstYear || year > kLastYear) {
    why = "a date must be in the years 100 to 9999";
    return std::nullopt;
  }
  constexpr int kUtc = 100;
  constexpr int kMinutesPerZone = 15;
  constexpr std::int64_t kPerMinute = 60'000;
  constexpr std::int64_t kPerDay = 86'400'000;
  const int zoneMinutes = zone > 1 ? (zone - kUtc) * kMinutesPerZone : 0;
  const std::int64_t inDay =
      (std::int64_t{hour} * 60 + minute - zoneMinutes) * kPerMinute + std::llround(second * 1000.0F);
  const std::int64_t days = (std::chrono::sys_days{date} - kZero).count();
  const std::int64_t whole = days + (inDay >= 0 ? inDay / kPerDay : (inDay - kPerDay + 1) / kPerDay);
  const double fraction = static_cast<double>(inDay - (whole - days) * kPerDay) / static_cast<double>(kPerDay);
  const double value = static_cast<double>(whole) + (whole < 0 ? -fraction : fraction);
  if (value == 0) {
    why = "30 December 1899, 0:00, is how the format writes that there is no date";
    return std::nullopt;
  }
  return value;
}

bool PutNumber(CKespAttribute& attribute, const OGRFeature& feature, int field, std::string& why) {
  const OGRFieldDefn& defn = *feature.GetDefnRef()->GetFieldDefn(field);
  constexpr GIntBig kLargest = GIntBig{1} << 53;
  if (IsWhole(defn.GetType())) {
    const GIntBig number = feature.GetFieldAsInteger64(field);
    if (number > kLargest || number < -kLargest) {
      why = "the number " + std::to_string(number) + " has more than 53 bits";
      return false;
    }
    attribute.Value = static_cast<double>(number);
    return true;
  }
  const double value = feature.GetFieldAsDouble(field);
  const int precision = std::min(defn.GetPrecision(), AttributeTraits::kMostDecimals);
  if (attribute.Value == value && value != 0) return true;
  attribute.Value = value;
  const auto decimals = precision > 0 ? static_cast<std::uint16_t>(precision) : DecimalsOf(value);
  attribute.Decimals = std::max(attribute.Decimals, decimals);
  return true;
}

// A number or a date in a field of texts keeps its kind if the new text is one.
void PutText(CKespAttribute& attribute, const char* text) {
  if (attribute.AttributeKind == KESP_ATTRIBUTE_NUMERIC) {
    char* end = nullptr;
    const double value = CPLStrtod(text, &end);
    if (end != text && *end == '\0') {
      attribute.Value = value;
      attribute.Decimals = DecimalsOf(value);
      return;
    }
  }
  if (attribute.AttributeKind != KESP_ATTRIBUTE_MENU) attribute.AttributeKind = KESP_ATTRIBUTE_STRING;
  attribute.TextValue = CString::FromUtf8(text);
}

}  // namespace

FieldTarget TargetOf(const OGRFieldDefn& field, const OGRFeatureDefn& definition) {
  const std::string name = field.GetNameRef();
  for (const OwnName& own : kOwnNames) {
    const bool fits = own.isText ? field.GetType() == OFTString : IsWhole(field.GetType());
    if (EQUAL(own.name, name.c_str()) && fits) return {own.role};
  }
  const int main = field.GetType() == OFTString ? MainFieldOf(name, definition) : Schema::kNone;
  if (main != Schema::kNone) return {Role::kSubValue, {}, KESP_ATTRIBUTE_MENU, main};
  return {Role::kAttribute, CString::FromUtf8(name), KindOf(field)};
}

std::vector<FieldTarget> TargetsOf(const Schema& schema, const Attributes& attributes,
                                   const OGRFeatureDefn& definition) {
  std::vector<FieldTarget> targets(static_cast<std::size_t>(definition.GetFieldCount()));
  constexpr Role kOwn[kOwnFields] = {Role::kName, Role::kColor, Role::kSymbol, Role::kDeleted, Role::kEdited};
  for (std::size_t i = 0; i < kOwnFields; ++i) targets[i].role = kOwn[i];
  for (std::size_t code = 0; code < schema.fields.size(); ++code) {
    const auto [value, subValue] = schema.fields[code];
    if (value == Schema::kNone) continue;
    FieldTarget& target = targets[static_cast<std::size_t>(value)];
    target = {Role::kAttribute, CString::FromUtf8(attributes.NameOf(code)), KindOf(*definition.GetFieldDefn(value))};
    if (attributes[code].IsOnly(KESP_ATTRIBUTE_MENU)) target.kind = KESP_ATTRIBUTE_MENU;
    if (subValue != Schema::kNone) {
      targets[static_cast<std::size_t>(subValue)] = {Role::kSubValue, target.name, KESP_ATTRIBUTE_MENU, value};
    }
  }
  if (schema.further != Schema::kNone) targets[static_cast<std::size_t>(schema.further)].role = Role::kFurther;
  return targets;
}

bool AdaptType(OGRFieldDefn& field, bool approximates) {
  switch (field.GetType()) {
    case OFTInteger:
    case OFTInteger64:
    case OFTReal:
    case OFTString:
    case OFTDate:
    case OFTDateTime:
      return true;
    default:
      break;
  }
  const std::string type = OGRFieldDefn::GetFieldTypeName(field.GetType());
  CPLError(approximates ? CE_Warning : CE_Failure, CPLE_NotSupported, "Kesp: field %s: values of type %s %s",
           field.GetNameRef(), type.c_str(), approximates ? "become texts" : "can't be written");
  if (approximates) field.SetType(OFTString);
  return approximates;
}

bool PutValue(CKespAttribute& attribute, const OGRFeature& feature, int field, std::string& why) {
  switch (feature.GetDefnRef()->GetFieldDefn(field)->GetType()) {
    case OFTInteger:
    case OFTInteger64:
    case OFTReal:
      attribute.AttributeKind = KESP_ATTRIBUTE_NUMERIC;
      return PutNumber(attribute, feature, field, why);
    case OFTDate:
    case OFTDateTime: {
      const std::optional<double> date = DateOf(feature, field, why);
      attribute.AttributeKind = KESP_ATTRIBUTE_DATE;
      if (date) attribute.Value = *date;
      return date.has_value();
    }
    default:
      PutText(attribute, feature.GetFieldAsString(field));
      return true;
  }
}

}  // namespace kesp::ogr
