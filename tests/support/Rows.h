// The rows that columns must have, computed from objects, and those that they have. Rows are texts, so that a
// difference can be read.
#pragma once
#include <algorithm>
#include <bit>
#include <cmath>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kesp/kesp.h"
#include "tests/support/Bytes.h"

namespace kesp::test {

struct Rows {
  std::vector<std::string> points, features, places, attributes;  // places: where a feature's points are
  bool isWhole = false;
  bool operator==(const Rows&) const = default;
};

template <class... Values>
std::string Row(const Values&... values) {
  std::ostringstream out;
  const auto put = [&](const auto& value) {
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, double>) {
      out << std::hexfloat << value << (std::isnan(value) ? std::to_string(std::bit_cast<std::uint64_t>(value)) : "");
    } else if constexpr (std::is_integral_v<std::decay_t<decltype(value)>>) {
      out << static_cast<std::int64_t>(value);
    } else {
      out << value;
    }
    out << '|';
  };
  (put(values), ...);
  return out.str();
}

class ExpectedRows {
 public:
  ExpectedRows(CKespDataFile& file, bool includeDeleted) {
    if (!file.SeekToFirstRecord()) return;
    try {
      while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(!includeDeleted)}) Add(*record);
      rows.isWhole = file.GetError() == KESP_ERROR_NORMAL_EOF;
    } catch (const CFileException&) {  // a version-1 feature that is cut short
    }
    for (const Place& p : m_places) {
      rows.places.push_back(Row(p.first, p.count, p.isOneRun, p.box[0], p.box[1], p.box[2], p.box[3]));
    }
  }
  Rows rows;

 private:
  struct Place {
    std::size_t first, count = 0;
    bool isOneRun = true;
    double box[4] = {NAN, NAN, NAN, NAN};
  };
  void Add(const CKespRecord& record) {
    if (record.m_recordType == KESP_RECORD_FEATURE) {
      const auto& f = static_cast<const CKespFeature&>(record);
      m_last[f.FeatureNumber] = m_places.size();
      m_places.push_back({rows.points.size()});
      rows.features.push_back(
          Row(f.FeatureNumber, ValidUtf8(f.FeatureName), f.FeatureType, f.Color, f.SymbolIndex, f.m_flags));
    } else if (record.m_recordType == KESP_RECORD_ATTRIBUTE) {
      const auto& a = static_cast<const CKespAttribute&>(record);
      rows.attributes.push_back(Row(a.FeatureNumber, ValidUtf8(a.AttributeName), a.AttributeKind,
                                    ValidUtf8(a.TextValue), ValidUtf8(a.SubValue), a.Value, a.Decimals, a.m_flags));
    } else if (record.m_recordType == KESP_RECORD_POINT) {
      const auto& p = static_cast<const CKespPoint&>(record);
      if (const auto last = m_last.find(p.FeatureNumber); last != m_last.end()) Extend(m_places[last->second], p);
      rows.points.push_back(Row(p.FeatureNumber, p.PointNumber, p.CoordX, p.CoordY, p.CoordZ, p.PointTime,
                                p.SignalStatus, p.GpsValue, p.GpsNumber, p.Offset1, p.Offset2, p.HasOffset, p.m_flags,
                                ValidUtf8(p.PointText)));
    }
  }
  void Extend(Place& place, const CKespPoint& p) {
    if (place.count == 0) place.first = rows.points.size();
    place.isOneRun = place.isOneRun && place.first + place.count == rows.points.size();
    ++place.count;
    if (!std::isfinite(p.CoordX) || !std::isfinite(p.CoordY)) return;
    place.box[0] = std::fmin(place.box[0], p.CoordX);
    place.box[1] = std::fmin(place.box[1], p.CoordY);
    place.box[2] = std::fmax(place.box[2], p.CoordX);
    place.box[3] = std::fmax(place.box[3], p.CoordY);
  }
  std::vector<Place> m_places;
  std::map<std::uint32_t, std::size_t> m_last;
};

inline void AddRows(Rows& rows, const Columns& columns) {
  const auto& [p, f, a] = columns;
  for (std::size_t i = 0; i < p.rows; ++i) {
    rows.points.push_back(Row(p.featureNumber[i], p.pointNumber[i], p.x[i], p.y[i], p.z[i], p.time[i], p.status[i],
                              p.gpsValue[i], p.gpsNumber[i], p.offset1[i], p.offset2[i], p.hasOffset[i], p.flags[i],
                              p.text[i]));
  }
  for (std::size_t i = 0; i < f.rows; ++i) {
    rows.features.push_back(Row(f.number[i], f.name[i], f.type[i], f.color[i], f.symbol[i], f.flags[i]));
    rows.places.push_back(
        Row(f.firstPoint[i], f.pointCount[i], f.isOneRun[i], f.minX[i], f.minY[i], f.maxX[i], f.maxY[i]));
  }
  for (std::size_t i = 0; i < a.rows; ++i) {
    rows.attributes.push_back(Row(a.featureNumber[i], a.names[static_cast<std::size_t>(a.name[i])], a.kind[i],
                                  a.text[i], a.subText[i], a.number[i], a.decimals[i], a.flags[i]));
  }
}

inline ColumnChoice AllColumns(bool includeDeleted, std::size_t batchRows = 1) {
  return {kPointAll, kFeatureAll, kAttributeAll, includeDeleted, batchRows};
}
inline Rows RowsAtOnce(CKespDataFile& file, bool includeDeleted) {
  Rows rows;
  Columns columns;
  try {
    rows.isWhole = ReadColumns(file, AllColumns(includeDeleted), columns);
  } catch (const CFileException&) {
  }
  AddRows(rows, columns);
  return rows;
}
// `take` moves each batch away.
inline Rows RowsInBatches(CKespDataFile& file, bool includeDeleted, std::size_t batchRows, bool take) {
  Rows rows;
  try {
    rows.isWhole = ReadColumns(file, AllColumns(includeDeleted, batchRows), [&](Columns& batch) {
      const auto starts = [](const auto& table, const auto& before) { return table.firstRow == before.size(); };
      if (!starts(batch.points, rows.points) || !starts(batch.features, rows.features) ||
          !starts(batch.attributes, rows.attributes)) {
        return false;
      }
      const std::size_t most = std::max({batch.points.rows, batch.features.rows, batch.attributes.rows});
      if (most > std::max<std::size_t>(batchRows, 1)) return false;
      AddRows(rows, batch);
      if (take) const Columns taken = std::move(batch);
      return true;
    });
  } catch (const CFileException&) {
  }
  return rows;
}

}  // namespace kesp::test
