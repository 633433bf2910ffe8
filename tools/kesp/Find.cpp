// kesp find: the features that a search accepts, as a table or as lines of JSON.
#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/FoundFeatures.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Progress.h"
#include "tools/kesp/Times.h"

namespace kesp::tool {
namespace {

// As --type takes them; empty for another one.
std::string_view FeatureTypeName(KESP_FEATURE_TYPE type) {
  switch (type) {
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
  json.Key("type").Text(FeatureTypeName(feature.FeatureType));
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
class FeatureTable {
 public:
  void Add(const FoundFeature& feature) {
    m_rows.push_back(&feature);
    Widen(kNumber, Digits(feature.number).View());
    Widen(kType, FeatureTypeName(static_cast<KESP_FEATURE_TYPE>(feature.type)));
    Widen(kPoints, Digits(feature.points).View());
    Widen(kAttributes, Digits(feature.attributes).View());
    if (feature.firstTime != 0) Widen(kFirstTime, IsoText(feature.firstTime).View());
  }
  void Write(Output& out, FoundFeatures& features) const {
    if (m_rows.empty()) return;
    const auto put = [&](Column column, std::string_view cell) {
      out.Put(cell);
      for (std::size_t i = cell.size(); i < m_widths[column] + 2; ++i) out.Put(' ');
    };
    for (int i = 0; i < kName; ++i) put(static_cast<Column>(i), kHeadings[static_cast<std::size_t>(i)]);
    out.Put(kHeadings[kName]).Put('\n');
    for (const FoundFeature* const feature : m_rows) {
      put(kNumber, Digits(feature->number).View());
      put(kType, FeatureTypeName(static_cast<KESP_FEATURE_TYPE>(feature->type)));
      put(kPoints, Digits(feature->points).View());
      put(kAttributes, Digits(feature->attributes).View());
      put(kFirstTime, feature->firstTime != 0 ? IsoText(feature->firstTime).View() : "-");
      out.Put(Printable(features.NameOf(*feature))).Put('\n');
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

  std::vector<const FoundFeature*> m_rows;
  std::array<std::size_t, kName> m_widths{kHeadings[0].size(), kHeadings[1].size(), kHeadings[2].size(),
                                          kHeadings[3].size(), kHeadings[4].size()};
};

}  // namespace

ExitStatus Find(const FindOptions& options, Output& out) {
  Wanted wanted;
  if (!wanted.Configure(options)) return kExitTrouble;
  CKespDataFile file;
  if (const auto refused = OpenForReading(file, options.path)) return Refuse(*refused, options.path, options.json, out);
  FoundFeatures features(file, wanted, options.includeDeleted ? DeletedRecords::kInclude : DeletedRecords::kPassOver,
                         options.json ? FoundFeatures::Keep::kPlaces : FoundFeatures::Keep::kNames);
  features.Find();
  std::size_t found = 0;
  FeatureTable table;
  features.ForEach([&](const FoundFeature& feature) {
    ++found;
    if (!options.json) table.Add(feature);
  });
  if (options.json) {
    JsonWriter json(out);
    features.Read([&](const CKespFeature& feature) { WriteFeatureLine(json, feature); });
    json.BeginObject();
    WriteVerdict(json, CString::FromPathBytes(options.path), features.End());
    json.Key("features").Number(static_cast<std::int64_t>(features.Count()));
    json.Key("found").Number(static_cast<std::int64_t>(found));
    json.EndObject();
    json.EndLine();
  } else {
    table.Write(out, features);
  }
  out.Flush();
  if (Progress::OnTerminal() && !options.quiet) {
    Complain({}, std::to_string(found) + " of " + Counted(features.Count(), "feature"));
  }
  const Verdict& end = features.End();
  return end.IsWhole() ? kExitWhole : Refuse(end, options.path, false, out);
}

}  // namespace kesp::tool
