// The values of a file in columns: contiguous arrays for programs that compute, draw or pass values on. Nothing is made
// for a single record.
//
//   kesp::ColumnChoice choice;
//   choice.points = kesp::kPointX | kesp::kPointY;
//   choice.features = choice.attributes = 0;
//   const bool whole = kesp::ReadColumns(file, choice, [&](kesp::Columns& batch) {
//     Draw(batch.points.x.data(), batch.points.y.data(), batch.points.rows);
//     return true;
//   });
//   if (!whole) Complain(file.GetErrorString());
//
// There are three tables: points, features and attributes. Their rows are the records that ReadNextRecord returns, in
// the same order and with the same values. Points and attributes have the number of their feature and need not have a
// feature. Header records, notes, tags and feature ends have no row.
//
// Texts are valid UTF-8: a surrogate that is not part of a pair becomes U+FFFD.
//
// Ownership: a table owns its columns and can be moved. What a sink doesn't move away is used again for the next batch.
// One thread at a time may use a table; any number may read it.
// Errors: std::bad_alloc (CMemoryException is one) when memory runs out, and what ReadNextRecord raises.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "kesp/platform/Export.h"
#include "kesp/recordfile/KespDataFile.h"

namespace kesp {

class ColumnReader;
class TextView;

// Values of one type, one for each row. If the column was not chosen it is empty, and data() is null.
template <class T>
class Column {
 public:
  using value_type = T;

  Column() noexcept = default;
  Column(Column&& other) noexcept
      : m_data(std::move(other.m_data)),
        m_size(std::exchange(other.m_size, 0)),
        m_capacity(std::exchange(other.m_capacity, 0)) {}
  Column& operator=(Column&& other) noexcept {
    m_data = std::move(other.m_data);
    m_size = std::exchange(other.m_size, 0);
    m_capacity = std::exchange(other.m_capacity, 0);
    return *this;
  }

  const T* data() const noexcept { return m_data.get(); }
  std::size_t size() const noexcept { return m_size; }
  bool empty() const noexcept { return m_size == 0; }
  const T& operator[](std::size_t row) const noexcept { return m_data.get()[row]; }
  const T* begin() const noexcept { return data(); }
  const T* end() const noexcept { return data() + m_size; }
  operator std::span<const T>() const noexcept { return {data(), m_size}; }

 private:
  friend class ColumnReader;
  struct Free {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): the array comes from realloc, which can grow it in place
    void operator()(T* memory) const noexcept { std::free(memory); }
  };
  std::unique_ptr<T, Free> m_data;
  std::size_t m_size = 0;
  std::size_t m_capacity = 0;
};

// Texts one after another. Text i is from byte offsets[i] to offsets[i + 1].
struct TextColumn {
  std::string_view operator[](std::size_t row) const noexcept {
    return {bytes.data() + offsets[row], static_cast<std::size_t>(offsets[row + 1] - offsets[row])};
  }
  std::size_t size() const noexcept { return offsets.empty() ? 0 : offsets.size() - 1; }

  Column<std::int64_t> offsets;  // one more than there are texts
  Column<char> bytes;
};

// Which columns of points to read, as bits.
enum PointColumn : std::uint32_t {
  kPointFeatureNumber = 0x001,
  kPointNumber = 0x002,
  kPointX = 0x004,
  kPointY = 0x008,
  kPointZ = 0x010,
  kPointTime = 0x020,
  kPointStatus = 0x040,
  kPointGps = 0x080,     // gpsValue and gpsNumber
  kPointOffset = 0x100,  // offset1, offset2, hasOffset
  kPointFlags = 0x200,
  kPointText = 0x400,
  kPointAll = 0x7FF
};
struct PointColumns {
  std::size_t rows = 0;
  std::uint64_t firstRow = 0;  // how many rows earlier batches had
  Column<std::uint32_t> featureNumber;
  Column<std::uint32_t> pointNumber;
  Column<double> x;  // east
  Column<double> y;  // north
  Column<double> z;
  Column<std::int64_t> time;     // seconds since 1970 UTC; 0 means none
  Column<std::uint16_t> status;  // KESP_SIGNAL_STATUS
  Column<double> gpsValue;
  Column<std::uint16_t> gpsNumber;
  Column<double> offset1;
  Column<double> offset2;
  Column<std::uint16_t> hasOffset;  // 1 if the offset is set
  Column<std::uint32_t> flags;      // KESP_FLAG
  TextColumn text;
};

enum FeatureColumn : std::uint32_t {
  kFeatureNumber = 0x01,
  kFeatureName = 0x02,
  kFeatureType = 0x04,
  kFeatureColor = 0x08,
  kFeatureSymbol = 0x10,
  kFeatureFlags = 0x20,
  kFeaturePoints = 0x40,  // firstPoint, pointCount, isOneRun
  kFeatureBox = 0x80,     // minX, minY, maxX, maxY
  kFeatureAll = 0xFF
};
// The points of a feature are those after it that have its number, up to the next feature with the same number. In most
// files they follow one another: rows firstPoint to firstPoint + pointCount - 1, counted over all batches.
// When a file is read in batches, a feature is complete after its end record; points that come later are not counted.
// So is a feature that has no end record and is followed by as many features as a batch has rows.
struct FeatureColumns {
  std::size_t rows = 0;
  std::uint64_t firstRow = 0;
  Column<std::uint32_t> number;
  TextColumn name;
  Column<std::uint16_t> type;  // KESP_FEATURE_TYPE
  Column<std::uint32_t> color;
  Column<std::uint16_t> symbol;
  Column<std::uint32_t> flags;
  Column<std::uint64_t> firstPoint;  // the row of its first point; without points the row that it would have had
  Column<std::uint32_t> pointCount;
  Column<std::uint8_t> isOneRun;  // 1 if no other point is between its points
  Column<double> minX;            // of its points with finite coordinates; NaN if there are none
  Column<double> minY;
  Column<double> maxX;
  Column<double> maxY;
};

enum AttributeColumn : std::uint32_t {
  kAttributeFeatureNumber = 0x01,
  kAttributeName = 0x02,
  kAttributeKind = 0x04,
  kAttributeText = 0x08,
  kAttributeSubText = 0x10,
  kAttributeNumber = 0x20,
  kAttributeDecimals = 0x40,
  kAttributeFlags = 0x80,
  kAttributeAll = 0xFF
};
struct AttributeColumns {
  std::size_t rows = 0;
  std::uint64_t firstRow = 0;
  Column<std::uint32_t> featureNumber;
  Column<std::int32_t> name;  // index into `names`
  Column<std::uint8_t> kind;  // KESP_ATTRIBUTE_KIND
  TextColumn text;            // TextValue
  TextColumn subText;         // SubValue
  Column<double> number;      // Value
  Column<std::uint16_t> decimals;
  Column<std::uint32_t> flags;
  // The names that occur. In batches an index keeps its meaning until there are a mebibyte of names, which a survey
  // does not have; then they start again.
  TextColumn names;
};

struct Columns {
  PointColumns points;
  FeatureColumns features;
  AttributeColumns attributes;
};

struct ColumnChoice {
  std::uint32_t points = kPointAll & ~std::uint32_t{kPointText};
  std::uint32_t features = kFeatureAll;
  std::uint32_t attributes = kAttributeAll;
  bool includeDeleted = false;
  std::size_t batchRows = 8 * 1024;  // the most rows of a table in a batch, at least 1; fewer if texts are long
};

// Reads the chosen columns of the open file from its first record on, in batches of at most batchRows rows and about 1
// MiB of text, and passes them to `sink`, which returns whether to go on. Memory does not grow with the file. Returns
// true if the walk came to the file's end. If false, GetError has the damage that ended it, after all rows before that
// were passed on; KESP_ERROR_NONE if the sink ended it or the system failed.
KESP_EXPORT bool ReadColumns(CKespDataFile& file, const ColumnChoice& choice,
                             const std::function<bool(Columns&)>& sink);
// The whole file at once; batchRows doesn't matter. Points of a feature are counted after its end record too.
KESP_EXPORT bool ReadColumns(CKespDataFile& file, const ColumnChoice& choice, Columns& columns);

}  // namespace kesp
