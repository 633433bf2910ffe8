// kesp find: the features that a search accepts, as a table or as lines of JSON.
#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <optional>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"

namespace kesp::tool {
namespace {

namespace chrono = std::chrono;

// 2024-05-01T12:00:00Z. Times of points are in 32 bits, so that a year has four digits.
class IsoText {
 public:
  explicit IsoText(std::int64_t seconds) {
    const chrono::sys_seconds time{chrono::seconds{seconds}};
    const auto day = chrono::floor<chrono::days>(time);
    const chrono::year_month_day date(day);
    const chrono::hh_mm_ss clock(time - day);
    Put(0, 4, static_cast<unsigned>(static_cast<int>(date.year())));
    Put(5, 2, static_cast<unsigned>(date.month()));
    Put(8, 2, static_cast<unsigned>(date.day()));
    Put(11, 2, static_cast<unsigned>(clock.hours().count()));
    Put(14, 2, static_cast<unsigned>(clock.minutes().count()));
    Put(17, 2, static_cast<unsigned>(clock.seconds().count()));
  }
  std::string_view View() const noexcept { return {m_text.data(), m_text.size()}; }

 private:
  void Put(std::size_t at, std::size_t digits, unsigned number) {
    for (; digits != 0; number /= 10) m_text[at + --digits] = static_cast<char>('0' + number % 10);
  }
  std::array<char, 20> m_text{'0', '0', '0', '0', '-', '0', '0', '-', '0', '0',
                              'T', '0', '0', ':', '0', '0', ':', '0', '0', 'Z'};
};

// Digits of exactly that many places, and a separator in front of them unless it is 0.
bool TakeNumber(std::string_view& text, char separator, std::size_t places, int& number) {
  if (separator != 0) {
    if (text.empty() || text.front() != separator) return false;
    text.remove_prefix(1);
  }
  if (text.size() < places) return false;
  const char* const end = text.data() + places;
  if (text[0] == '-' || std::from_chars(text.data(), end, number).ptr != end) return false;
  text.remove_prefix(places);
  return true;
}

// 2024-05-01, 2024-05-01T12:00 or 2024-05-01T12:00:00, with or without a Z: always UTC. A day alone ends at its last
// second when it `ends` a range.
std::optional<std::int64_t> ParseTime(std::string_view text, bool ends) {
  int year = 0;
  int month = 0;
  int dayOfMonth = 0;
  if (!TakeNumber(text, 0, 4, year) || !TakeNumber(text, '-', 2, month) || !TakeNumber(text, '-', 2, dayOfMonth)) {
    return std::nullopt;
  }
  const chrono::year_month_day date{chrono::year(year), chrono::month(static_cast<unsigned>(month)),
                                    chrono::day(static_cast<unsigned>(dayOfMonth))};
  if (!date.ok()) return std::nullopt;
  int hour = ends ? 23 : 0;
  int minute = ends ? 59 : 0;
  int second = ends ? 59 : 0;
  if (!text.empty() && text.front() == 'T') {
    second = 0;
    if (!TakeNumber(text, 'T', 2, hour) || !TakeNumber(text, ':', 2, minute)) return std::nullopt;
    if (!text.empty() && text.front() == ':' && !TakeNumber(text, ':', 2, second)) return std::nullopt;
    if (text == "Z") text = {};
  }
  if (!text.empty() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const auto time = chrono::sys_days{date} + chrono::hours{hour} + chrono::minutes{minute} + chrono::seconds{second};
  return chrono::duration_cast<chrono::seconds>(time.time_since_epoch()).count();
}

// Finite numbers with a separator between them.
template <std::size_t Count>
bool ParseNumbers(std::string_view text, char separator, std::array<double, Count>& numbers) {
  for (std::size_t i = 0; i < Count; ++i) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), numbers[i]);
    if (error != std::errc() || !std::isfinite(numbers[i])) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (i + 1 == Count) break;
    if (text.empty() || text.front() != separator) return false;
    text.remove_prefix(1);
  }
  return text.empty();
}

// False, and complained, where an option makes no sense.
bool Configure(CKespSearch& search, const FindOptions& options) {
  const auto wrong = [](const std::string& what) {
    Complain({}, what + "; try find --help");
    return false;
  };
  int bits = 0;
  for (const std::string& type : options.types) {
    bits |= type == "point" ? SEARCH_POINT_FEATURES : type == "line" ? SEARCH_LINE_FEATURES : SEARCH_AREA_FEATURES;
  }
  if (options.ignoreCase) bits |= SEARCH_IGNORE_CASE;
  if (options.partial) bits |= SEARCH_PARTIAL_MATCH;
  for (const std::string& name : options.names) search.FeatureNameFilterAdd(CString::FromUtf8(name));
  if (options.pointText) search.SetPointNameFilter(CString::FromUtf8(*options.pointText));
  if (options.attribute) search.SetAttributeNameFilter(CString::FromUtf8(*options.attribute));
  if (options.value) search.Set(CString::FromUtf8(*options.value));
  if (options.range) {
    std::array<double, 2> bounds{};
    if (!ParseNumbers(*options.range, ':', bounds)) return wrong("--range wants LOW:HIGH");
    search.Set(bounds[0], bounds[1]);
  }
  if ((options.attribute || options.invert) && !options.value && !options.range) {
    return wrong("--attribute and --invert want --value or --range");
  }
  if (options.from || options.to) {
    const auto from = options.from ? ParseTime(*options.from, false) : std::numeric_limits<std::int64_t>::min();
    const auto to = options.to ? ParseTime(*options.to, true) : std::numeric_limits<std::int64_t>::max();
    if (!from || !to) return wrong("a time looks like 2024-05-01T12:00:00Z");
    search.SetTimeRangeFilter(CTime(*from), CTime(*to));
    bits |= SEARCH_TIME_RANGE;
  }
  if (options.area) {
    std::array<double, 4> edges{};
    if (!ParseNumbers(*options.area, ',', edges)) return wrong("--area wants MINX,MINY,MAXX,MAXY");
    search.SetAreaFilter(CRect2D(edges[0], edges[1], edges[2], edges[3]));
    bits |= SEARCH_IN_AREA;
  }
  search.SetSearchOptions(bits);
  search.SetInverted(options.invert);
  search.Enable(true);
  return true;
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
// Of the points that have one; 0 stands for none.
Times TimesOf(const CKespFeature& feature) {
  Times times;
  for (const auto& point : feature.m_pointList) {
    if (point->PointTime == 0) continue;
    times.first = std::min<std::int64_t>(times.first.value_or(point->PointTime), point->PointTime);
    times.last = std::max<std::int64_t>(times.last.value_or(point->PointTime), point->PointTime);
  }
  return times;
}

void WriteTime(JsonWriter& json, std::string_view key, std::optional<std::int64_t> time) {
  json.Key(key);
  if (time) {
    json.Text(IsoText(*time).View());
  } else {
    json.Null();
  }
}

void WriteFeatureLine(JsonWriter& json, const CKespFeature& feature) {
  json.BeginObject();
  json.Key("number").Number(std::int64_t{feature.FeatureNumber});
  json.Key("name").Text(feature.FeatureName.View());
  json.Key("type").Text(TypeName(feature));
  const Times times = TimesOf(feature);
  WriteTime(json, "firstTime", times.first);
  WriteTime(json, "lastTime", times.last);
  json.Key("points").BeginArray();
  for (const auto& point : feature.m_pointList) {
    json.BeginObject();
    json.Key("number").Number(std::int64_t{point->PointNumber});
    json.Key("text").Text(point->PointText.View());
    WriteTime(json, "time", point->PointTime != 0 ? std::optional<std::int64_t>(point->PointTime) : std::nullopt);
    json.Key("x").Number(point->CoordX);
    json.Key("y").Number(point->CoordY);
    json.Key("z").Number(point->CoordZ);
    json.EndObject();
  }
  json.EndArray();
  json.Key("attributes").BeginArray();
  for (const auto& attribute : feature.m_attributeList) {
    json.BeginObject();
    json.Key("name").Text(attribute->AttributeName.View());
    json.Key("value");
    if (attribute->AttributeKind == KESP_ATTRIBUTE_NUMERIC) {
      json.Number(attribute->Value);
    } else if (attribute->AttributeKind == KESP_ATTRIBUTE_STRING) {
      json.Text(attribute->TextValue.View());
    } else {
      json.Text(attribute->GetAsFormatedString(true).View());
    }
    json.EndObject();
  }
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
  CKespSearch search;
  if (!Configure(search, options)) return kExitTrouble;
  CKespFile& file = DatasetOfThisRun();
  if (!OpenForReading(file, options.path)) return kExitTrouble;
  const DatasetEnd end = ReadDataset(file, DeletedRecords::kPassOver);
  JsonWriter json(out);
  Table table;
  std::size_t features = 0;
  std::size_t found = 0;
  for (CKespRecord* const record : file.m_recordList) {
    if (record->m_recordType != KESP_RECORD_FEATURE) continue;
    ++features;
    const auto& feature = static_cast<const CKespFeature&>(*record);
    if (!search.Validate(&feature)) continue;
    ++found;
    if (options.json) {
      WriteFeatureLine(json, feature);
    } else {
      table.Add(feature);
    }
  }
  if (!options.json) table.Write(out);
  out.Flush();
  if (Progress::OnTerminal()) {
    Complain({},
             std::to_string(found) + " of " + std::to_string(features) + (features == 1 ? " feature" : " features"));
  }
  if (end.IsComplete()) return kExitWhole;
  Complain(options.path, end.reason);
  return kExitDamaged;
}

}  // namespace kesp::tool
