// Reads records into columns. Plain points, nearly all records of a survey, are taken from the read buffer many at
// once, and each column is filled in a loop of its own; all other records come as views.
#include "kesp/recordfile/Columns.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "kesp/format/RecordView.h"
#include "kesp/platform/Task.h"
#include "kesp/platform/Utf8.h"
#include "kesp/recordfile/ColumnTables.h"
#include "kesp/recordfile/PlainPoints.h"

namespace kesp {
namespace {

constexpr std::size_t kMostText = std::size_t{512} << 10;  // bytes of a text column at which a batch is full
constexpr std::size_t kMostNames = std::size_t{1} << 20;   // bytes of names at which they start again
constexpr std::size_t kBytesOfName = 64;                   // that a name costs besides its text
constexpr std::size_t kPointsAtOnce = 128;                 // their bytes stay in the nearest cache
constexpr std::size_t kLeastRows = 256;                    // of a table that grows
constexpr double kNoBound = std::numeric_limits<double>::quiet_NaN();
constexpr std::size_t kNoRow = std::numeric_limits<std::size_t>::max();

PointView PlainPoint(std::span<const std::byte> points, std::size_t index) noexcept {
  return {points.data() + index * kPlainPointSize + kRecordHeaderSize, kNewestPoint};
}

}  // namespace

class ColumnReader {
 public:
  using Sink = std::function<bool(Columns&)>;

  // Without a sink the whole file goes into `columns`.
  ColumnReader(CKespDataFile& file, const ColumnChoice& choice, Columns& columns, const Sink* sink)
      : m_file(file),
        m_choice(choice),
        m_columns(columns),
        m_sink(sink),
        m_batchRows(std::max<std::size_t>(choice.batchRows, 1)),
        m_links((choice.features & (kFeaturePoints | kFeatureBox)) != 0),
        m_pending(*this) {}
  ~ColumnReader() {
    m_file.m_file.EndBlockReader();
    m_pending.Finish();
  }
  ColumnReader(const ColumnReader&) = delete;
  ColumnReader& operator=(const ColumnReader&) = delete;

  bool Read();

 private:
  // Texts and the values of a column that was not chosen need no room.
  template <class T>
  static void Reserve(Column<T>& column, std::size_t capacity);
  template <class T>
  static void ReserveRows(Column<T>& column, std::size_t rows) {
    Reserve(column, rows);
  }
  static void ReserveRows(TextColumn& column, std::size_t rows);
  template <class T>
  static void SetSize(Column<T>& column, std::size_t rows) {
    column.m_size = rows;
  }
  static void SetSize(TextColumn& column, std::size_t rows);
  template <class T>
  static void AppendRows(Column<T>& to, std::size_t at, const Column<T>& from, std::size_t first);
  void AppendRows(TextColumn& to, std::size_t at, const TextColumn& from, std::size_t first);
  // Makes room for `more` rows in the chosen columns.
  template <class Table>
  void MakeRoom(Table& table, std::size_t& room, std::uint32_t chosen, std::size_t more) {
    if (table.rows + more > room) Grow(table, room, chosen, more);
  }
  template <class Table>
  void Grow(Table& table, std::size_t& room, std::uint32_t chosen, std::size_t more);
  template <class Table>
  void Finish(Table& table, std::uint32_t chosen) const;
  std::size_t Expected(std::size_t count) const;

  template <class T, class Value>
  static void Put(Column<T>& column, std::size_t row, Value value) noexcept {
    if (column.m_capacity != 0) column.m_data.get()[row] = static_cast<T>(value);
  }
  void Put(TextColumn& column, std::size_t row, const TextView& text);
  void Put(TextColumn& column, std::size_t row, std::string_view text);
  void MakeRoomForText(TextColumn& column, std::size_t row, std::size_t bytes);
  template <auto kField, class Stored, class T>
  static void Gather(Column<T>& column, std::span<const std::byte> points, std::size_t row) noexcept;
  void GatherPoints(std::span<const std::byte> points, std::size_t row) noexcept;

  // Points whose columns are to be filled, by this thread or by the one that reads ahead.
  class Pending : public Task {
   public:
    explicit Pending(ColumnReader& reader) : m_reader(reader) {}
    void Set(std::span<const std::byte> points, std::size_t row) noexcept {
      m_points = points;
      m_row = row;
    }

   protected:
    void Run() noexcept override { m_reader.GatherPoints(m_points, m_row); }

   private:
    ColumnReader& m_reader;
    std::span<const std::byte> m_points;
    std::size_t m_row = 0;
  };
  bool IsNextInBuffer() const noexcept;

  bool ReadNext();
  bool ReadPlainPoints();
  void AddPlainPoints(std::span<const std::byte> points);
  void AddPoint(const RecordView& record);
  void AddFeature(const RecordView& record);
  void AddAttribute(const RecordView& record);
  void EndFeature(std::uint32_t number);
  std::size_t RowOfFeature(std::uint32_t number);
  void LinkPlainPoints(std::span<const std::byte> points);
  std::size_t Link(std::uint32_t featureNumber, std::size_t pointRow, std::size_t count);
  void ExtendBox(std::size_t row, const PointView& point) noexcept;
  std::int32_t NameCode(const TextView& name);

  void CountRows(std::size_t& rows, std::size_t more) noexcept {
    rows += more;
    if (m_sink != nullptr && rows >= m_batchRows) m_isFull = true;
  }
  bool PassOn(bool isLast);
  std::size_t CompleteFeatures() const noexcept;
  FeatureColumns TakeFeaturesFrom(std::size_t row);
  void StartBatch(FeatureColumns&& incomplete);
  void PutNames();
  void ForgetNames();

  CKespDataFile& m_file;
  const ColumnChoice m_choice;
  Columns& m_columns;
  const Sink* const m_sink;
  const std::size_t m_batchRows;
  const bool m_links;  // whether points are counted for their features
  Pending m_pending;

  // Rows for which the chosen columns have room.
  std::size_t m_pointRoom = 0;
  std::size_t m_featureRoom = 0;
  std::size_t m_attributeRoom = 0;

  // Of the features in the table, whether chosen as columns or not.
  struct Feature {
    std::uint32_t number;
    bool hasEnd;
  };
  std::vector<Feature> m_features;
  std::size_t m_current = kNoRow;  // the feature of the last point
  // The last feature of each number; made when the points of a feature don't follow it directly.
  std::unordered_map<std::uint32_t, std::size_t> m_rowOf;
  bool m_hasRowOf = false;

  struct Name {
    bool IsAt(const TextView& other) const noexcept {
      const std::span<const std::byte> bytes = other.Field();
      return !field.empty() && other.IsWide() == isWide && field.size() <= bytes.size() &&
             std::memcmp(field.data(), bytes.data(), field.size()) == 0;
    }
    void SetField(const TextView& name) {
      const std::span<const std::byte> bytes = name.Field();
      const std::size_t used = (name.Size() + 1) * (name.IsWide() ? 2 : 1);
      isWide = name.IsWide();
      field.clear();
      if (used <= bytes.size()) field.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(used));
    }
    std::string text;              // UTF-8
    std::vector<std::byte> field;  // as it was last in the file, with the zero that ends it; empty if none did
    bool isWide;
    std::int32_t next;  // the name that came after it; -1 for none
  };
  std::vector<Name> m_names;
  std::unordered_map<std::string, std::int32_t> m_codeOf;
  std::size_t m_nameBytes = 0;
  std::int32_t m_lastCode = -1;
  bool m_isFull = false;  // the batch is to be passed on
};

template <class T>
void ColumnReader::Reserve(Column<T>& column, std::size_t capacity) {
  if (capacity <= column.m_capacity) return;
  if (capacity > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw CMemoryException();
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): a long array grows in place
  void* const grown = std::realloc(column.m_data.get(), capacity * sizeof(T));
  if (grown == nullptr) throw CMemoryException();
  (void)column.m_data.release();
  column.m_data.reset(static_cast<T*>(grown));
  column.m_capacity = capacity;
}

void ColumnReader::ReserveRows(TextColumn& column, std::size_t rows) {
  const bool isNew = column.offsets.m_capacity == 0;
  Reserve(column.offsets, rows + 1);
  if (isNew) column.offsets.m_data.get()[0] = 0;
}

void ColumnReader::SetSize(TextColumn& column, std::size_t rows) {
  column.offsets.m_size = rows + 1;
  column.bytes.m_size = static_cast<std::size_t>(column.offsets[rows]);
}

// Puts the rows of `from` from `first` on at row `at`. There must be room.
template <class T>
void ColumnReader::AppendRows(Column<T>& to, std::size_t at, const Column<T>& from, std::size_t first) {
  std::copy(from.begin() + first, from.end(), to.m_data.get() + at);
}

void ColumnReader::AppendRows(TextColumn& to, std::size_t at, const TextColumn& from, std::size_t first) {
  for (std::size_t row = first; row < from.size(); ++row) Put(to, at + row - first, from[row]);
}

template <class Table>
void ColumnReader::Grow(Table& table, std::size_t& room, std::uint32_t chosen, std::size_t more) {
  m_pending.Finish();
  room = std::max({table.rows + more, 2 * room, kLeastRows});
  if (m_sink != nullptr) room = std::max(table.rows + more, std::min(room, m_batchRows));
  const auto reserve = [&](std::size_t rows) {
    ForEachColumn(
        [&](std::uint32_t bit, const char*, auto& column) {
          if ((chosen & bit) != 0) ReserveRows(column, rows);
        },
        table);
    room = rows;
  };
  try {
    reserve(std::max(room, Expected(table.rows)));
  } catch (const CMemoryException&) {
    reserve(room);
  }
}

// How many there will be at the end of the file if it goes on like this, and a few more. An array that gets all its
// memory at once is not moved while it is filled. Returns 0 where that is not known.
std::size_t ColumnReader::Expected(std::size_t count) const {
  constexpr std::size_t kEnoughToTell = 4096;
  constexpr double kMargin = 1.0625;
  if (m_sink != nullptr || count < kEnoughToTell) return 0;
  const auto timesAsLong =
      static_cast<double>(m_file.m_file.KnownLength()) / static_cast<double>(m_file.m_file.GetPosition());
  return static_cast<std::size_t>(static_cast<double>(count) * timesAsLong * kMargin);
}

// Gives the chosen columns their size. One without rows gets memory too, which shows that it was chosen.
template <class Table>
void ColumnReader::Finish(Table& table, std::uint32_t chosen) const {
  ForEachColumn(
      [&](std::uint32_t bit, const char*, auto& column) {
        if ((chosen & bit) == 0) return;
        ReserveRows(column, std::max<std::size_t>(table.rows, 1));
        SetSize(column, table.rows);
      },
      table);
}

void ColumnReader::Put(TextColumn& column, std::size_t row, const TextView& text) {
  if (column.offsets.m_capacity == 0) return;
  std::int64_t* const offsets = column.offsets.m_data.get();
  if (text.IsEmpty()) {
    offsets[row + 1] = offsets[row];
    return;
  }
  MakeRoomForText(column, row, text.MostUtf8());
  char* const bytes = column.bytes.m_data.get();
  offsets[row + 1] = text.PutUtf8(bytes + offsets[row]) - bytes;
}

void ColumnReader::Put(TextColumn& column, std::size_t row, std::string_view text) {
  MakeRoomForText(column, row, text.size());
  std::int64_t* const offsets = column.offsets.m_data.get();
  std::copy(text.begin(), text.end(), column.bytes.m_data.get() + offsets[row]);
  offsets[row + 1] = offsets[row] + static_cast<std::int64_t>(text.size());
}

// In batches a column has room for the text of a whole batch from the start. When that is not enough the batch is full.
void ColumnReader::MakeRoomForText(TextColumn& column, std::size_t row, std::size_t bytes) {
  const auto used = static_cast<std::size_t>(column.offsets.m_data.get()[row]);
  if (used + bytes <= column.bytes.m_capacity) return;
  m_isFull = m_isFull || (m_sink != nullptr && used + bytes > kMostText);
  const std::size_t least = std::max(used + bytes, m_sink != nullptr ? kMostText : 2 * column.bytes.m_capacity);
  try {
    Reserve(column.bytes, std::max(least, Expected(used)));
  } catch (const CMemoryException&) {
    Reserve(column.bytes, least);
  }
}

bool ColumnReader::Read() {
  m_columns = {};
  m_file.m_error = KESP_ERROR_NONE;
  if (!m_file.SeekToFirstRecord()) return false;
  m_file.ReadAhead();
  try {
    while (ReadNext()) {
      if (m_isFull && !PassOn(false)) return false;
    }
  } catch (const CFileException&) {
    (void)PassOn(true);
    throw;
  }
  const KESP_ERROR_TYPE end = m_file.GetError();
  return PassOn(true) && end == KESP_ERROR_NORMAL_EOF;
}

bool ColumnReader::ReadNext() {
  if (ReadPlainPoints()) return true;
  if (!IsNextInBuffer()) m_pending.Finish();
  RecordView record;
  if (!m_file.ReadNextView(record, !m_choice.includeDeleted)) return false;
  switch (record.Type()) {
    case KESP_RECORD_POINT:
      AddPoint(record);
      break;
    case KESP_RECORD_FEATURE:
      AddFeature(record);
      break;
    case KESP_RECORD_ATTRIBUTE:
      if (m_choice.attributes != 0) AddAttribute(record);
      break;
    case KESP_RECORD_FEATURE_END:
      EndFeature(record.AsFeatureEnd().FeatureNumber());
      break;
    default:
      break;
  }
  return true;
}

// Whether reading the next record leaves the bytes in the buffer where they are. Not only the length that the record
// states counts: bodies are read by their layout, and a tag by the length in its block.
bool ColumnReader::IsNextInBuffer() const noexcept {
  constexpr std::size_t kLongestBody = 8 * 1024;
  const std::span<const std::byte> bytes = m_file.m_file.Buffered();
  if (bytes.size() < kRecordHeaderSize + kLongestBody) return false;
  const auto type = LoadLittle<std::uint32_t>(bytes.data() + RecordHeaderPlaces::kType);
  const auto flags = LoadLittle<std::uint32_t>(bytes.data() + RecordHeaderPlaces::kFlags);
  return KindOfRecord(type).use == RecordUse::kRead && type != KESP_RECORD_TAG && flags == 0;
}

// Takes the plain points that come next in the read buffer; false if there are none.
bool ColumnReader::ReadPlainPoints() {
  const std::byte* const next = m_file.m_file.Buffered(kPlainPointSize);
  if (next == nullptr || !IsPlainPoint(next)) return false;
  const std::size_t most =
      m_sink == nullptr ? kPointsAtOnce : std::min(kPointsAtOnce, m_batchRows - m_columns.points.rows);
  const std::span<const std::byte> points = m_file.ViewPlainPoints(most);
  if (points.empty()) return false;
  AddPlainPoints(points);
  return true;
}

// Fills one column from the same field of all points, from `row` on.
template <auto kField, class Stored, class T>
void ColumnReader::Gather(Column<T>& column, std::span<const std::byte> points, std::size_t row) noexcept {
  if (column.m_capacity == 0) return;
  constexpr FieldPlace kPlace = PlacesOf<kField>(kPointBodies).back();
  static_assert(kPlace.width == sizeof(Stored));
  const std::byte* from = points.data() + kRecordHeaderSize + kPlace.offset;
  T* const to = column.m_data.get() + row;
  for (std::size_t i = 0; i < points.size() / kPlainPointSize; ++i, from += kPlainPointSize) {
    if constexpr (std::is_same_v<T, double>) {
      const auto bits = LoadLittle<Stored>(from);  // copied as bytes, as in FieldReader
      std::memcpy(to + i, &bits, sizeof bits);
    } else {
      to[i] = static_cast<T>(
          static_cast<std::conditional_t<std::is_signed_v<T>, std::int32_t, Stored>>(LoadLittle<Stored>(from)));
    }
  }
}

void ColumnReader::GatherPoints(std::span<const std::byte> points, std::size_t row) noexcept {
  using Fields = BodyFields;
  using Word = std::uint32_t;
  using Short = std::uint16_t;
  using Long = std::uint64_t;
  PointColumns& to = m_columns.points;
  Gather<&Fields::FeatureNumber, Word>(to.featureNumber, points, row);
  Gather<&Fields::PointNumber, Word>(to.pointNumber, points, row);
  Gather<&Fields::CoordX, Long>(to.x, points, row);
  Gather<&Fields::CoordY, Long>(to.y, points, row);
  Gather<&Fields::CoordZ, Long>(to.z, points, row);
  Gather<&Fields::PointTime, Word>(to.time, points, row);
  Gather<&Fields::SignalStatus, Short>(to.status, points, row);
  Gather<&Fields::GpsValue, Long>(to.gpsValue, points, row);
  Gather<&Fields::GpsNumber, Short>(to.gpsNumber, points, row);
  Gather<&Fields::Offset1, Long>(to.offset1, points, row);
  Gather<&Fields::Offset2, Long>(to.offset2, points, row);
  Gather<&Fields::HasOffset, Short>(to.hasOffset, points, row);
  if (to.flags.m_capacity != 0) std::fill_n(to.flags.m_data.get() + row, points.size() / kPlainPointSize, 0U);
}

// The columns of a long run are filled by the thread that reads ahead, if it is there and has done the last one.
void ColumnReader::AddPlainPoints(std::span<const std::byte> points) {
  constexpr std::size_t kWorthSharing = 64;
  PointColumns& to = m_columns.points;
  const std::size_t count = points.size() / kPlainPointSize;
  MakeRoom(to, m_pointRoom, m_choice.points, count);
  if (count >= kWorthSharing && m_pending.IsDone()) {
    m_pending.Set(points, to.rows);
    m_pending.Prepare();
    if (!m_file.m_file.OfferWork(m_pending)) m_pending.Finish();
  } else {
    GatherPoints(points, to.rows);
  }
  if ((m_choice.points & kPointText) != 0) {
    for (std::size_t i = 0; i < count; ++i) Put(to.text, to.rows + i, PlainPoint(points, i).PointText());
  }
  if (m_links) LinkPlainPoints(points);
  CountRows(to.rows, count);
}

void ColumnReader::AddPoint(const RecordView& record) {
  const PointView point = record.AsPoint();
  PointColumns& to = m_columns.points;
  MakeRoom(to, m_pointRoom, m_choice.points, 1);
  Put(to.featureNumber, to.rows, point.FeatureNumber());
  Put(to.pointNumber, to.rows, point.PointNumber());
  Put(to.x, to.rows, point.CoordX());
  Put(to.y, to.rows, point.CoordY());
  Put(to.z, to.rows, point.CoordZ());
  Put(to.time, to.rows, point.PointTime());
  Put(to.status, to.rows, point.SignalStatus());
  Put(to.gpsValue, to.rows, point.GpsValue());
  Put(to.gpsNumber, to.rows, point.GpsNumber());
  Put(to.offset1, to.rows, point.Offset1());
  Put(to.offset2, to.rows, point.Offset2());
  Put(to.hasOffset, to.rows, point.HasOffset());
  Put(to.flags, to.rows, record.Flags());
  Put(to.text, to.rows, point.PointText());
  const std::size_t row = m_links ? Link(point.FeatureNumber(), to.rows, 1) : kNoRow;
  if (row != kNoRow && (m_choice.features & kFeatureBox) != 0) ExtendBox(row, point);
  CountRows(to.rows, 1);
}

void ColumnReader::AddFeature(const RecordView& record) {
  if (m_choice.features == 0) return;
  const FeatureView feature = record.AsFeature();
  FeatureColumns& to = m_columns.features;
  MakeRoom(to, m_featureRoom, m_choice.features, 1);
  Put(to.number, to.rows, feature.FeatureNumber());
  Put(to.name, to.rows, feature.FeatureName());
  Put(to.type, to.rows, feature.FeatureType());
  Put(to.color, to.rows, feature.Color());
  Put(to.symbol, to.rows, feature.SymbolIndex());
  Put(to.flags, to.rows, record.Flags());
  Put(to.firstPoint, to.rows, m_columns.points.firstRow + m_columns.points.rows);
  Put(to.pointCount, to.rows, 0);
  Put(to.isOneRun, to.rows, 1);
  for (Column<double>* const bound : {&to.minX, &to.minY, &to.maxX, &to.maxY}) Put(*bound, to.rows, kNoBound);
  m_features.push_back({feature.FeatureNumber(), false});
  if (m_hasRowOf) m_rowOf[feature.FeatureNumber()] = to.rows;
  m_current = to.rows;
  CountRows(to.rows, 1);
}

void ColumnReader::EndFeature(std::uint32_t number) {
  if (m_sink == nullptr || m_choice.features == 0) return;
  const std::size_t row = RowOfFeature(number);
  if (row != kNoRow) m_features[row].hasEnd = true;
}

// The row of the last feature with that number; kNoRow if the table has none.
std::size_t ColumnReader::RowOfFeature(std::uint32_t number) {
  if (m_current != kNoRow && m_features[m_current].number == number) return m_current;
  if (!m_hasRowOf) {
    m_rowOf.clear();
    for (std::size_t row = 0; row < m_features.size(); ++row) m_rowOf[m_features[row].number] = row;
    m_hasRowOf = true;
  }
  const auto found = m_rowOf.find(number);
  return found == m_rowOf.end() ? kNoRow : found->second;
}

// The points of a feature usually follow one another.
void ColumnReader::LinkPlainPoints(std::span<const std::byte> points) {
  const std::size_t count = points.size() / kPlainPointSize;
  for (std::size_t i = 0; i < count;) {
    const std::uint32_t number = PlainPoint(points, i).FeatureNumber();
    std::size_t end = i + 1;
    while (end < count && PlainPoint(points, end).FeatureNumber() == number) ++end;
    const std::size_t row = Link(number, m_columns.points.rows + i, end - i);
    if (row != kNoRow && (m_choice.features & kFeatureBox) != 0) {
      for (; i < end; ++i) ExtendBox(row, PlainPoint(points, i));
    }
    i = end;
  }
}

// Counts points that follow one another for their feature. Returns its row; kNoRow if there is none.
std::size_t ColumnReader::Link(std::uint32_t featureNumber, std::size_t pointRow, std::size_t count) {
  const std::size_t row = RowOfFeature(featureNumber);
  if (row == kNoRow) return row;
  m_current = row;
  FeatureColumns& to = m_columns.features;
  if (to.pointCount.m_capacity != 0) {
    const std::uint64_t place = m_columns.points.firstRow + pointRow;
    std::uint32_t& before = to.pointCount.m_data.get()[row];
    if (before == 0) Put(to.firstPoint, row, place);
    if (to.firstPoint[row] + before != place) Put(to.isOneRun, row, 0);
    before += static_cast<std::uint32_t>(count);
  }
  return row;
}

void ColumnReader::ExtendBox(std::size_t row, const PointView& point) noexcept {
  const double x = point.CoordX();
  const double y = point.CoordY();
  if (!std::isfinite(x) || !std::isfinite(y)) return;
  FeatureColumns& to = m_columns.features;
  const auto extend = [row](Column<double>& least, Column<double>& greatest, double value) {
    // The first value replaces the NaN, with which all comparisons are false.
    double& low = least.m_data.get()[row];
    double& high = greatest.m_data.get()[row];
    if (!(low <= value)) low = value;
    if (!(high >= value)) high = value;
  };
  extend(to.minX, to.maxX, x);
  extend(to.minY, to.maxY, y);
}

void ColumnReader::AddAttribute(const RecordView& record) {
  const AttributeView attribute = record.AsAttribute();
  AttributeColumns& to = m_columns.attributes;
  MakeRoom(to, m_attributeRoom, m_choice.attributes, 1);
  Put(to.featureNumber, to.rows, attribute.FeatureNumber());
  if ((m_choice.attributes & kAttributeName) != 0) Put(to.name, to.rows, NameCode(attribute.AttributeName()));
  Put(to.kind, to.rows, attribute.AttributeKind());
  Put(to.text, to.rows, attribute.TextValue());
  Put(to.subText, to.rows, attribute.SubValue());
  Put(to.number, to.rows, attribute.Value());
  Put(to.decimals, to.rows, attribute.Decimals());
  Put(to.flags, to.rows, record.Flags());
  CountRows(to.rows, 1);
}

// Attributes repeat in the same order, so the name that came after the last one before is tried first, by its bytes.
std::int32_t ColumnReader::NameCode(const TextView& name) {
  if (m_lastCode >= 0) {
    const std::int32_t code = m_names[static_cast<std::size_t>(m_lastCode)].next;
    if (code >= 0 && m_names[static_cast<std::size_t>(code)].IsAt(name)) return m_lastCode = code;
  }
  const auto [found, isNew] = m_codeOf.try_emplace(name.ToUtf8(), static_cast<std::int32_t>(m_names.size()));
  const std::int32_t code = found->second;
  if (isNew) {
    constexpr std::size_t kMostUnits = 256;
    std::array<char, kMostUtf8PerUnit * kMostUnits> text;
    m_names.push_back({std::string(text.data(), name.PutUtf8(text.data())), {}, true, -1});
    m_nameBytes += found->first.size() + kBytesOfName;
    m_isFull = m_isFull || (m_sink != nullptr && m_nameBytes >= kMostNames);
  }
  m_names[static_cast<std::size_t>(code)].SetField(name);
  if (m_lastCode >= 0) m_names[static_cast<std::size_t>(m_lastCode)].next = code;
  return m_lastCode = code;
}

// How many features, from the first on, can be passed on: those before the first without an end. If that is none and
// the table is full, all but the last, to which points may still come.
std::size_t ColumnReader::CompleteFeatures() const noexcept {
  const auto open = std::find_if(m_features.begin(), m_features.end(), [](const Feature& f) { return !f.hasEnd; });
  const auto complete = static_cast<std::size_t>(open - m_features.begin());
  const std::size_t rows = m_columns.features.rows;
  const bool isFull = rows >= m_batchRows || m_columns.features.name.bytes.size() >= kMostText / 2;
  return complete == 0 && isFull && rows != 0 ? rows - 1 : complete;
}

// Gives the tables their sizes and passes them on. Features that are not complete go into the next batch.
bool ColumnReader::PassOn(bool isLast) {
  m_pending.Finish();
  auto& [points, features, attributes] = m_columns;
  Finish(points, m_choice.points);
  Finish(features, m_choice.features);
  Finish(attributes, m_choice.attributes);
  PutNames();
  if (m_sink == nullptr) return true;
  FeatureColumns incomplete = TakeFeaturesFrom(isLast ? features.rows : CompleteFeatures());
  const bool isEmpty = points.rows + features.rows + attributes.rows == 0;
  // The sink may move the tables away, so the counts for the next batch are kept here.
  const std::uint64_t next[] = {points.firstRow + points.rows, features.firstRow + features.rows,
                                attributes.firstRow + attributes.rows};
  if (!isEmpty && !(*m_sink)(m_columns)) {
    m_file.m_error = KESP_ERROR_NONE;
    return false;
  }
  points.firstRow = next[0];
  features.firstRow = next[1];
  attributes.firstRow = next[2];
  StartBatch(std::move(incomplete));
  return true;
}

FeatureColumns ColumnReader::TakeFeaturesFrom(std::size_t row) {
  FeatureColumns& features = m_columns.features;
  FeatureColumns taken;
  if (row == features.rows) return taken;
  taken.rows = features.rows - row;
  std::size_t room = 0;
  MakeRoom(taken, room, m_choice.features, 0);
  ForEachColumn(
      [&](std::uint32_t bit, const char*, auto& from, auto& to) {
        if ((m_choice.features & bit) == 0) return;
        AppendRows(to, 0, from, row);
        SetSize(to, taken.rows);
        SetSize(from, row);
      },
      features, taken);
  features.rows = row;
  return taken;
}

void ColumnReader::StartBatch(FeatureColumns&& incomplete) {
  auto& [points, features, attributes] = m_columns;
  m_isFull = false;
  points.rows = attributes.rows = features.rows = 0;
  m_pointRoom = m_attributeRoom = m_featureRoom = 0;
  if (m_nameBytes >= kMostNames) ForgetNames();

  const std::size_t passedOn = m_features.size() - incomplete.rows;
  m_features.erase(m_features.begin(), m_features.begin() + static_cast<std::ptrdiff_t>(passedOn));
  m_current = m_current != kNoRow && m_current >= passedOn ? m_current - passedOn : kNoRow;
  m_hasRowOf = false;
  if (incomplete.rows == 0) return;
  MakeRoom(features, m_featureRoom, m_choice.features, incomplete.rows);
  ForEachColumn(
      [&](std::uint32_t bit, const char*, auto& to, auto& from) {
        if ((m_choice.features & bit) != 0) AppendRows(to, 0, from, 0);
      },
      features, incomplete);
  features.rows = incomplete.rows;
}

// The sink may have moved the names away.
void ColumnReader::PutNames() {
  if ((m_choice.attributes & kAttributeName) == 0) return;
  TextColumn& names = m_columns.attributes.names;
  std::size_t known = names.size();
  ReserveRows(names, std::max<std::size_t>(m_names.size(), 1));
  for (; known < m_names.size(); ++known) Put(names, known, std::string_view{m_names[known].text});
  SetSize(names, m_names.size());
}

void ColumnReader::ForgetNames() {
  m_names.clear();
  m_codeOf.clear();
  m_nameBytes = 0;
  m_lastCode = -1;
  m_columns.attributes.names = {};
}

bool ReadColumns(CKespDataFile& file, const ColumnChoice& choice, const std::function<bool(Columns&)>& sink) {
  Columns batch;
  return ColumnReader(file, choice, batch, &sink).Read();
}

bool ReadColumns(CKespDataFile& file, const ColumnChoice& choice, Columns& columns) {
  return ColumnReader(file, choice, columns, nullptr).Read();
}

}  // namespace kesp
