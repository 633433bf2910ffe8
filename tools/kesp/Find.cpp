// kesp find: the features that a search accepts, as a table or as lines of JSON.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"
#include "tools/kesp/Times.h"

namespace kesp::tool {
namespace {

// A finite number; one that is left out is `otherwise`, where that is given.
bool ReadNumber(std::string_view text, std::optional<double> otherwise, double& number) {
  if (text.empty() && otherwise) {
    number = *otherwise;
    return true;
  }
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && std::isfinite(number);
}

// LOW:HIGH, LOW: or :HIGH.
bool ReadRange(std::string_view text, std::array<double, 2>& bounds) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || text == ":") return false;
  constexpr double kMost = std::numeric_limits<double>::max();
  return ReadNumber(text.substr(0, colon), -kMost, bounds[0]) && ReadNumber(text.substr(colon + 1), kMost, bounds[1]);
}

bool ReadArea(std::string_view text, std::array<double, 4>& edges) {
  for (std::size_t i = 0; i < edges.size(); ++i) {
    const std::size_t comma = i + 1 < edges.size() ? text.find(',') : text.size();
    if (comma == std::string_view::npos || !ReadNumber(text.substr(0, comma), std::nullopt, edges[i])) return false;
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  return true;
}

// The library's filter, and what a person means besides: a feature that lacks what is asked for is not found.
class Wanted {
 public:
  // False, and complained, where an option makes no sense.
  bool Configure(const FindOptions& options);
  bool Accepts(const CKespFeature& feature) {
    if (!HasName(feature) || !m_search.Validate(&feature)) return false;
    if (m_options->includeEmpty) return true;
    if (m_wantsPoints && feature.GetNumPoints() == 0) return false;
    return !m_wantsAttribute || HasAttribute(feature);
  }

 private:
  bool HasName(const CKespFeature& feature) const;
  bool HasAttribute(const CKespFeature& feature) const;
  bool IsSame(const CString& text, const CString& wanted, bool partial) const;
  bool SetTimes(const FindOptions& options, int& bits);

  const FindOptions* m_options = nullptr;
  CKespSearch m_search;
  std::vector<CString> m_names;
  CString m_attribute;
  bool m_wantsPoints = false;
  bool m_wantsAttribute = false;
};

bool Wrong(const std::string& what) {
  Complain({}, what + "; try kesp help find");
  return false;
}

bool Wanted::Configure(const FindOptions& options) {
  m_options = &options;
  int bits = 0;
  for (const std::string& type : options.types) {
    bits |= type == "point" ? SEARCH_POINT_FEATURES : type == "line" ? SEARCH_LINE_FEATURES : SEARCH_AREA_FEATURES;
  }
  if (options.ignoreCase) bits |= SEARCH_IGNORE_CASE;
  if (options.partial) bits |= SEARCH_PARTIAL_MATCH;
  for (const std::string& name : options.names) m_names.push_back(CString::FromUtf8(name));
  if (options.pointText) m_search.SetPointNameFilter(CString::FromUtf8(*options.pointText));
  if (options.attribute) {
    m_attribute = CString::FromUtf8(*options.attribute);
    m_search.SetAttributeNameFilter(m_attribute);
  }
  if (options.value) m_search.Set(CString::FromUtf8(*options.value));
  if (options.range) {
    std::array<double, 2> bounds{};
    if (!ReadRange(*options.range, bounds)) return Wrong("--range takes LOW:HIGH, LOW: or :HIGH");
    m_search.Set(bounds[0], bounds[1]);
  }
  if (options.invert && !options.value && !options.range) return Wrong("--invert goes with --value or --range");
  if (!SetTimes(options, bits)) return false;
  if (options.area) {
    std::array<double, 4> edges{};
    if (!ReadArea(*options.area, edges)) return Wrong("--area takes MINX,MINY,MAXX,MAXY");
    m_search.SetAreaFilter(CRect2D(edges[0], edges[1], edges[2], edges[3]));
    bits |= SEARCH_IN_AREA;
  }
  m_search.SetSearchOptions(bits);
  m_search.SetInverted(options.invert);
  m_search.Enable(true);
  m_wantsPoints = options.pointText || options.from || options.to || options.area;
  m_wantsAttribute = options.attribute || options.value || options.range;
  return true;
}

bool Wanted::SetTimes(const FindOptions& options, int& bits) {
  if (!options.from && !options.to) return true;
  const auto from = options.from ? ParseTime(*options.from, false) : std::numeric_limits<std::int64_t>::min();
  const auto to = options.to ? ParseTime(*options.to, true) : std::numeric_limits<std::int64_t>::max();
  if (!from || !to) return Wrong("a time looks like 2024-05-01T12:00:00Z, 2024-05-01T14:00+02:00 or 2024-05-01");
  m_search.SetTimeRangeFilter(CTime(*from), CTime(*to));
  bits |= SEARCH_TIME_RANGE;
  return true;
}

bool Wanted::IsSame(const CString& text, const CString& wanted, bool partial) const {
  if (!m_options->ignoreCase) return partial ? text.Find(wanted) >= 0 : text == wanted;
  if (!partial) return text.CompareNoCase(wanted) == 0;
  CString lower(text);
  CString lowerWanted(wanted);
  return lower.MakeLower().Find(lowerWanted.MakeLower()) >= 0;
}

bool Wanted::HasName(const CKespFeature& feature) const {
  return m_names.empty() || std::any_of(m_names.begin(), m_names.end(), [&](const CString& name) {
           return IsSame(feature.FeatureName, name, m_options->partial);
         });
}

bool Wanted::HasAttribute(const CKespFeature& feature) const {
  const auto& attributes = feature.m_attributeList;
  return std::any_of(attributes.begin(), attributes.end(), [&](const auto& attribute) {
    return !m_options->attribute || IsSame(attribute->AttributeName, m_attribute, false);
  });
}

// As --type takes them; empty for another one.
std::string_view TypeName(const CKespFeature& feature) {
  switch (feature.FeatureType) {
    case KESP_FEATURE_POINT:
      return "point";
    case KESP_FEATURE_LINE:
      return "line";
    case KESP_FEATURE_AREA:
      return "area";
    default:
      return {};
  }
}

struct Times {
  std::optional<std::int64_t> first;
  std::optional<std::int64_t> last;
};
// Of the points that have one; 0 means none.
Times TimesOf(const CKespFeature& feature) {
  Times times;
  for (const auto& point : feature.m_pointList) {
    if (point->PointTime == 0) continue;
    times.first = std::min<std::int64_t>(times.first.value_or(point->PointTime), point->PointTime);
    times.last = std::max<std::int64_t>(times.last.value_or(point->PointTime), point->PointTime);
  }
  return times;
}

void WritePoint(JsonWriter& json, const CKespPoint& point) {
  json.BeginObject();
  json.Key("number").Number(std::int64_t{point.PointNumber});
  json.Key("text").Text(point.PointText.View());
  json.Key("deleted").Bool(point.IsDeleted());
  WriteTime(json, "time", point.PointTime != 0 ? std::optional<std::int64_t>(point.PointTime) : std::nullopt);
  json.Key("x").Number(point.CoordX);
  json.Key("y").Number(point.CoordY);
  json.Key("z").Number(point.CoordZ);
  json.EndObject();
}

void WriteAttribute(JsonWriter& json, const CKespAttribute& attribute) {
  json.BeginObject();
  json.Key("name").Text(attribute.AttributeName.View());
  json.Key("value");
  if (attribute.AttributeKind == KESP_ATTRIBUTE_NUMERIC) {
    json.Number(attribute.Value);
  } else if (attribute.AttributeKind == KESP_ATTRIBUTE_STRING) {
    json.Text(attribute.TextValue.View());
  } else {
    json.Text(attribute.GetAsFormatedString(true).View());
  }
  json.Key("deleted").Bool(attribute.IsDeleted());
  json.EndObject();
}

void WriteFeatureLine(JsonWriter& json, const CKespFeature& feature) {
  json.BeginObject();
  json.Key("number").Number(std::int64_t{feature.FeatureNumber});
  json.Key("name").Text(feature.FeatureName.View());
  json.Key("type").Text(TypeName(feature));
  json.Key("deleted").Bool(feature.IsDeleted());
  const Times times = TimesOf(feature);
  WriteTime(json, "firstTime", times.first);
  WriteTime(json, "lastTime", times.last);
  json.Key("points").BeginArray();
  for (const auto& point : feature.m_pointList) WritePoint(json, *point);
  json.EndArray();
  json.Key("attributes").BeginArray();
  for (const auto& attribute : feature.m_attributeList) WriteAttribute(json, *attribute);
  json.EndArray();
  json.EndObject();
  json.EndLine();
}

// Rows of columns that are as wide as their longest cells. Keeps the features, not the cells: there may be millions.
class Table {
 public:
  void Add(const CKespFeature& feature) {
    const std::optional<std::int64_t> firstTime = TimesOf(feature).first;
    m_rows.emplace_back(&feature, firstTime);
    Widen(kNumber, Digits(feature.FeatureNumber).View());
    Widen(kType, TypeName(feature));
    Widen(kPoints, Digits(feature.GetNumPoints()).View());
    Widen(kAttributes, Digits(feature.GetNumAttributes()).View());
    if (firstTime) Widen(kFirstTime, IsoText(*firstTime).View());
  }
  void Write(Output& out) const {
    if (m_rows.empty()) return;
    const auto put = [&](Column column, std::string_view cell) {
      out.Put(cell);
      for (std::size_t i = cell.size(); i < m_widths[column] + 2; ++i) out.Put(' ');
    };
    for (int i = 0; i < kName; ++i) put(static_cast<Column>(i), kHeadings[static_cast<std::size_t>(i)]);
    out.Put(kHeadings[kName]).Put('\n');
    for (const auto& [feature, firstTime] : m_rows) {
      put(kNumber, Digits(feature->FeatureNumber).View());
      put(kType, TypeName(*feature));
      put(kPoints, Digits(feature->GetNumPoints()).View());
      put(kAttributes, Digits(feature->GetNumAttributes()).View());
      put(kFirstTime, firstTime ? IsoText(*firstTime).View() : "-");
      out.Put(Printable(feature->FeatureName)).Put('\n');
    }
  }

 private:
  // All but the last hold plain ASCII.
  enum Column : std::uint8_t { kNumber, kType, kPoints, kAttributes, kFirstTime, kName };
  static constexpr std::array<std::string_view, 6> kHeadings{"NUMBER",     "TYPE",       "POINTS",
                                                             "ATTRIBUTES", "FIRST TIME", "NAME"};

  class Digits {
   public:
    explicit Digits(std::int64_t number)
        : m_size(static_cast<std::size_t>(std::to_chars(m_text.begin(), m_text.end(), number).ptr - m_text.begin())) {}
    std::string_view View() const noexcept { return {m_text.data(), m_size}; }

   private:
    std::array<char, 20> m_text;
    std::size_t m_size;
  };

  void Widen(Column column, std::string_view cell) { m_widths[column] = std::max(m_widths[column], cell.size()); }

  std::vector<std::pair<const CKespFeature*, std::optional<std::int64_t>>> m_rows;
  std::array<std::size_t, kName> m_widths{kHeadings[0].size(), kHeadings[1].size(), kHeadings[2].size(),
                                          kHeadings[3].size(), kHeadings[4].size()};
};

}  // namespace

ExitStatus Find(const FindOptions& options, Output& out) {
  Wanted wanted;
  if (!wanted.Configure(options)) return kExitTrouble;
  CKespFile& file = DatasetOfThisRun();
  if (const auto refused = OpenForReading(file, options.path)) return Refuse(*refused, options.path, options.json, out);
  const Verdict end =
      ReadDataset(file, options.includeDeleted ? DeletedRecords::kInclude : DeletedRecords::kPassOver).verdict;
  JsonWriter json(out);
  Table table;
  std::size_t features = 0;
  std::size_t found = 0;
  for (CKespRecord* const record : file.m_recordList) {
    if (record->m_recordType != KESP_RECORD_FEATURE) continue;
    ++features;
    const auto& feature = static_cast<const CKespFeature&>(*record);
    if (!wanted.Accepts(feature)) continue;
    ++found;
    if (options.json) {
      WriteFeatureLine(json, feature);
    } else {
      table.Add(feature);
    }
  }
  if (options.json) {
    json.BeginObject();
    WriteVerdict(json, CString::FromPathBytes(options.path), end);
    json.Key("features").Number(static_cast<std::int64_t>(features));
    json.Key("found").Number(static_cast<std::int64_t>(found));
    json.EndObject();
    json.EndLine();
  } else {
    table.Write(out);
  }
  out.Flush();
  if (Progress::OnTerminal() && !options.quiet) {
    Complain({}, std::to_string(found) + " of " + Counted(features, "feature"));
  }
  return end.IsWhole() ? kExitWhole : Refuse(end, options.path, false, out);
}

}  // namespace kesp::tool
