// Writes a survey of a small park in metres of UTM zone 32 (EPSG:25832), in a single step: all records or none.
//
//   draw_park park.kesp
//
// It shows AppendRecords, which needs one sync for the whole survey, and is something to see on a map: see
// docs/gdal.md.
#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <numbers>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kesp/kesp.h"

namespace {

constexpr std::int32_t kMorning = 1718003700;  // 10 June 2024, 07:15 UTC
constexpr double kEast = 456500, kNorth = 5429000;

using Metres = std::vector<std::pair<double, double>>;  // to the east and north of the park's corner

class Park {
 public:
  Park() {
    m_header.HeaderText1 = CString("Town park");
    m_header.CreationTime = kMorning;
    m_header.SetCleanClose(true);
  }

  // `color` has red in its low byte.
  void Begin(KESP_FEATURE_TYPE type, const char* name, std::uint32_t color) {
    auto feature = std::make_unique<CKespFeature>();
    feature->SetFeatureNumber(++m_header.FeatureCount);
    feature->FeatureType = type;
    feature->FeatureName = CString(name);
    feature->SetColor(color);
    m_records.push_back(std::move(feature));
  }
  void Choice(const char* name, const char* choice) {
    auto attribute = std::make_unique<CKespAttribute>();
    attribute->AttributeKind = KESP_ATTRIBUTE_MENU;
    attribute->TextValue = CString(choice);
    Add(std::move(attribute), name);
  }
  void Number(const char* name, double value) {
    auto attribute = std::make_unique<CKespAttribute>();
    attribute->AttributeKind = KESP_ATTRIBUTE_NUMERIC;
    attribute->Value = value;
    attribute->Decimals = 2;
    Add(std::move(attribute), name);
  }
  void End(const Metres& points) {
    for (const auto& [east, north] : points) AddPoint(east, north);
    auto end = std::make_unique<CKespFeatureEnd>();
    end->SetFeatureNumber(m_header.FeatureCount);
    m_records.push_back(std::move(end));
  }

  void Write(const std::string& path) {
    const CString name(path);
    // Create would empty an existing file.
    if (FileExists(name)) throw std::runtime_error(path + " exists");
    m_extent.Get(m_header.DataExtent1, m_header.DataExtent2, m_header.DataExtent3, m_header.DataExtent4);
    std::vector<CKespRecord*> records{&m_header};
    for (const auto& record : m_records) records.push_back(record.get());
    CKespDataFile file;
    file.m_version = 3;
    constexpr unsigned long kNewFile = 0;
    if (!file.Create(name) || !file.AppendRecords(records.data(), records.size(), kNewFile) || !file.Close()) {
      throw std::runtime_error(path + " can't be written");
    }
  }

 private:
  void Add(std::unique_ptr<CKespAttribute> attribute, const char* name) {
    attribute->AttributeName = CString(name);
    attribute->SetFeatureNumber(m_header.FeatureCount);
    m_records.push_back(std::move(attribute));
  }
  void AddPoint(double east, double north) {
    auto point = std::make_unique<CKespPoint>();
    point->PointNumber = ++m_header.PointCount;
    point->SetFeatureNumber(m_header.FeatureCount);
    point->PointTime = kMorning + 20 * static_cast<std::int32_t>(m_header.PointCount);
    point->CoordX = kEast + east;
    point->CoordY = kNorth + north;
    point->CoordZ = 116 + east / 100;
    point->SignalStatus = KESP_SIGNAL_STATUS_3;
    m_extent.Include(point->CoordX, point->CoordY);
    m_records.push_back(std::move(point));
  }

  CKespTavoHeader m_header;
  CBoundingBox m_extent;
  std::vector<std::unique_ptr<CKespRecord>> m_records;
};

// A closed curve around a centre that is not quite round.
Metres Blob(double east, double north, double radiusEast, double radiusNorth) {
  constexpr int kCorners = 36;
  Metres points;
  for (int i = 0; i < kCorners; ++i) {
    const double angle = 2 * std::numbers::pi * i / kCorners;
    const double swell = 1 + 0.12 * std::sin(3 * angle) + 0.06 * std::cos(5 * angle);
    points.emplace_back(east + radiusEast * swell * std::cos(angle), north + radiusNorth * swell * std::sin(angle));
  }
  return points;
}

// A path that swings from side to side of the straight line.
Metres Winding(std::pair<double, double> from, std::pair<double, double> to, double swing) {
  constexpr int kSteps = 40;
  const double length = std::hypot(to.first - from.first, to.second - from.second);
  const double rightEast = (to.second - from.second) / length, rightNorth = (from.first - to.first) / length;
  Metres points;
  for (int i = 0; i <= kSteps; ++i) {
    const double share = static_cast<double>(i) / kSteps;
    const double aside = swing * std::sin(2 * std::numbers::pi * share);
    points.emplace_back(std::lerp(from.first, to.first, share) + aside * rightEast,
                        std::lerp(from.second, to.second, share) + aside * rightNorth);
  }
  return points;
}

void AddAreas(Park& park) {
  const auto add = [&park](const char* name, std::uint32_t color, const Metres& points) {
    park.Begin(KESP_FEATURE_AREA, name, color);
    park.End(points);
  };
  add("Great lawn", 0xA6DDB8, Blob(95, 105, 62, 40));
  add("South lawn", 0xA6DDB8, Blob(205, 38, 52, 24));
  add("Pond", 0xE8C48F, Blob(218, 118, 36, 26));
  add("Rose bed", 0xC0A6F2, Blob(40, 40, 17, 12));
  add("Playground", 0x9CD6F7, {{84, 18}, {128, 14}, {132, 42}, {88, 46}});
}

void AddPaths(Park& park) {
  const auto add = [&park](const char* name, const char* surface, std::uint32_t color, const Metres& points) {
    park.Begin(KESP_FEATURE_LINE, name, color);
    park.Choice("Surface", surface);
    park.End(points);
  };
  add("Main avenue", "Asphalt", 0x707070, Winding({5, 60}, {275, 72}, 7));
  add("Pond walk", "Gravel", 0x5A8CB4, Winding({168, 68}, {168, 170}, -10));
  add("Rose walk", "Gravel", 0x5A8CB4, Winding({62, 10}, {68, 60}, 5));
  add("Stream", "Water", 0xC87828, Winding({246, 135}, {278, 176}, 5));
}

void AddTrees(Park& park) {
  const struct {
    const char* species;
    std::uint32_t color;
  } kinds[] = {{"Oak", 0x226B22}, {"Lime", 0x2E9E58}, {"Birch", 0x40B8A0}};
  std::uint32_t tree = 0;
  const auto add = [&](double east, double north) {
    const auto& kind = kinds[tree++ % std::size(kinds)];
    park.Begin(KESP_FEATURE_POINT, kind.species, kind.color);
    park.Number("Girth", 0.8 + 0.37 * (tree * 7 % 11));
    park.End({{east, north}});
  };
  const Metres avenue = Winding({5, 60}, {275, 72}, 7);
  for (std::size_t i = 1; i < avenue.size(); i += 3) add(avenue[i].first, avenue[i].second + (i % 2 == 0 ? 7 : -7));
  const Metres grove = Blob(95, 105, 74, 51);
  for (std::size_t i = 1; i < 20; i += 2) add(grove[i].first, grove[i].second);
}

void AddBenches(Park& park) {
  for (const auto& [east, north] : Metres{{60, 66}, {140, 60}, {172, 100}, {178, 132}, {80, 50}, {225, 78}}) {
    park.Begin(KESP_FEATURE_POINT, "Bench", 0x1E3C78);
    park.Choice("State", east < 100 ? "Good" : "Worn");
    park.End({{east, north}});
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: draw_park PATH\n";
    return 2;
  }
  try {
    Park park;
    AddAreas(park);
    AddPaths(park);
    AddTrees(park);
    AddBenches(park);
    park.Write(argv[1]);
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "draw_park: " << e.what() << '\n';
    return 1;
  }
}
