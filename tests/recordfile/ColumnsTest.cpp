// Values in columns: the same as in objects, in batches of any size, and through the Arrow C data interface.
#include <set>

#include "tests/recordfile/Survey.h"
#include "tests/support/Rows.h"

namespace kesp::test {
namespace {

ByteVector Point(std::uint32_t feature, double x, double y, std::uint32_t flags = 0, std::string_view text = "") {
  return Record(2, 2, flags,
                Body(2, 2,
                     {{"feature", feature},
                      {"x", x},
                      {"y", y},
                      {"z", 3},
                      {"time", -5},
                      {"text", text},
                      {"signal", 65535},
                      {"number", 65535},
                      {"hasOffset", 1},
                      {"offset1", 1.5}}));
}

class ColumnsTest : public OneFile {
 protected:
  void ExpectSameAsObjects(bool placesInBatches) {
    for (const bool includeDeleted : {false, true}) {
      const Rows expected = ExpectedRows(file, includeDeleted).rows;
      const auto expectSame = [&](const Rows& rows, bool places) {
        EXPECT_EQ(rows.points, expected.points);
        EXPECT_EQ(rows.features, expected.features);
        EXPECT_EQ(rows.attributes, expected.attributes);
        EXPECT_EQ(rows.isWhole, expected.isWhole);
        if (places) {
          EXPECT_EQ(rows.places, expected.places);
        }
      };
      expectSame(RowsAtOnce(file, includeDeleted), true);
      for (const std::size_t batchRows : {0u, 1u, 2u, 7u, 400u, 5000u}) {
        SCOPED_TRACE(batchRows);
        expectSame(RowsInBatches(file, includeDeleted, batchRows, batchRows == 2), placesInBatches);
      }
    }
  }
};

// Points of the newest version in long runs and alone, other versions, flags, deleted ones, features inside features.
TEST_F(ColumnsTest, HoldWhatObjectsHold) {
  ByteVector records = Sample(3, 2) + Point(1, 0, 0);  // a point before its feature has none
  for (std::uint32_t number = 200; number < 500; ++number) records = records + Feature(number) + EndOf(number);
  for (std::uint32_t number = 1; number < 40; ++number) {
    records = records + Feature(number) +
              Attribute(number, number % 3 == 0 ? "Girth" : "Gir", "thick", 0, number % 2 == 0 ? 2 : 3, 2.5);
    for (std::uint32_t i = 0; i < number * 13 % 300; ++i) {
      records =
          records + Point(number, i * 0.5, i % 7 == 3 ? NAN : -1.0 * i, i % 50 == 49 ? 3 : 0, i % 4 == 0 ? "A1" : "");
    }
    if (number % 5 == 0)
      records = records + Feature(100 + number) + Point(100 + number, 1, 1) + Point(number, 9, 9) + EndOf(100 + number);
    records = records + Attribute(number, "State", "") + EndOf(number);
  }
  for (const auto& [type, version] : kEveryClass)
    records = records + Sample(type, version) + Sample(type, version, 0x301);
  Open(records + Attribute(7, "", "", 0, 1) + Feature(7) + EndOf(7) + Sample(2, 2), true);
  ExpectSameAsObjects(false);
  file.Close();
  Open(Feature(1) + Point(1, 1, 2) + Feature(2) + Point(2, 3, 4) + Point(1, 5, 6) + EndOf(2) + Point(1, -1, 8) +
           EndOf(1) + Feature(1) + Point(1, 0, 0) + EndOf(1),
       true);
  ExpectSameAsObjects(false);
  EXPECT_EQ(RowsInBatches(file, false, 5000, false), ExpectedRows(file, false).rows);
}

TEST_F(ColumnsTest, EndWithTheWalk) {
  const ByteVector good = Feature(1) + Point(1, 1, 2) + Attribute(1, "a", "b");
  for (const ByteVector& rest :
       {Hex("02 00"), Record(0, 1, 0, Hex("00")), Part(Sample(1, 1), 0, 30), Part(Point(1, 1, 1), 0, 100)}) {
    Open(good + rest, true);
    ExpectSameAsObjects(true);
    file.Close();
  }
  Open(good + good, true);
  int batches = 0;
  EXPECT_FALSE(ReadColumns(file, AllColumns(false, 1), [&](Columns&) { return ++batches < 2; }));
  EXPECT_EQ(batches, 2);
  EXPECT_EQ(file.GetError(), KESP_ERROR_NONE);
  file.Close();
  Columns none;
  EXPECT_FALSE(ReadColumns(file, AllColumns(false), none));
}

// A batch stays small whatever a file holds: features that never end, long texts, more names than any survey has.
TEST_F(ColumnsTest, BatchesAreBounded) {
  ByteVector records;
  const std::string longText(255, 'x');
  std::set<std::string> names;
  for (std::uint32_t i = 0; i < 6000; ++i) {
    names.insert(std::to_string(i) + longText.substr(0, 240));
    Append(records, Feature(i, longText));
    Append(records, Attribute(i, *names.find(std::to_string(i) + longText.substr(0, 240)), longText));
  }
  Open(records, true);
  std::size_t batches = 0, features = 0, attributes = 0;
  std::set<std::string> seen;
  EXPECT_TRUE(ReadColumns(file, AllColumns(false, 100000), [&](Columns& batch) {
    ++batches;
    features += batch.features.rows;
    attributes += batch.attributes.rows;
    EXPECT_LE(
        batch.features.name.bytes.size() + batch.attributes.text.bytes.size() + batch.attributes.names.bytes.size(),
        3U << 20);
    for (std::size_t i = 0; i < batch.attributes.rows; ++i)
      seen.emplace(batch.attributes.names[static_cast<std::size_t>(batch.attributes.name[i])]);
    return true;
  }));
  EXPECT_GT(batches, 2U);
  EXPECT_EQ(features, 6000U);
  EXPECT_EQ(attributes, 6000U);
  EXPECT_EQ(seen, names);
}

// What was not chosen is empty, and costs the rest nothing.
TEST_F(ColumnsTest, OnlyWhatWasChosen) {
  Open(Feature(1) + Point(1, 1, 2) + Point(1, 3, 4) + Attribute(1, "a", "b"), true);
  Columns columns;
  ASSERT_TRUE(ReadColumns(file, {kPointX, kFeatureBox, 0}, columns));
  EXPECT_EQ(columns.points.x.size(), 2U);
  EXPECT_EQ(columns.points.y.data(), nullptr);
  EXPECT_EQ(columns.points.text.size(), 0U);
  EXPECT_EQ(columns.features.rows, 1U);
  EXPECT_EQ(columns.features.maxY[0], 4);
  EXPECT_EQ(columns.features.pointCount.data(), nullptr);
  EXPECT_EQ(columns.attributes.rows, 0U);
}

// Reads arrays as the published description of the interface says.
struct Received {
  explicit Received(ArrowSchema s, ArrowArray a) : schema(s), array(a) {}
  ~Received() {
    if (array.release != nullptr) array.release(&array);
    if (schema.release != nullptr) schema.release(&schema);
  }
  Received(const Received&) = delete;
  Received& operator=(const Received&) = delete;
  std::size_t Child(std::string_view name) const {
    for (std::int64_t i = 0; i < schema.n_children; ++i) {
      if (schema.children[i]->name == name) return static_cast<std::size_t>(i);
    }
    ADD_FAILURE() << "no column " << name;
    return 0;
  }
  ArrowSchema schema;
  ArrowArray array;
};
template <class T>
T Value(const ArrowArray& array, std::int64_t row) {
  EXPECT_EQ(array.n_buffers, 2);
  EXPECT_EQ(array.buffers[0], nullptr);
  return static_cast<const T*>(array.buffers[1])[array.offset + row];
}
std::string TextAt(const ArrowArray& array, std::int64_t row) {
  EXPECT_EQ(array.n_buffers, 3);
  const auto* const offsets = static_cast<const std::int64_t*>(array.buffers[1]) + array.offset + row;
  return {static_cast<const char*>(array.buffers[2]) + offsets[0],
          static_cast<const char*>(array.buffers[2]) + offsets[1]};
}
template <class Table>
Received Export(Table& table) {
  ArrowSchema schema{};
  ArrowArray array{};
  ExportToArrow(std::move(table), &schema, &array);
  EXPECT_EQ(table.rows, 0U);
  EXPECT_STREQ(schema.format, "+s");
  EXPECT_EQ(schema.n_children, array.n_children);
  for (std::int64_t i = 0; i < array.n_children; ++i) EXPECT_EQ(array.children[i]->length, array.length);
  return Received(schema, array);
}

TEST_F(ColumnsTest, GoThroughTheArrowInterface) {
  Open(Feature(1) + Point(1, 1, 2) + Point(1, 3, 4, 0, "A1") + Attribute(1, "a", "first") + Attribute(1, "b", "") +
           Attribute(1, "a", "x"),
       true);
  Columns columns;
  ASSERT_TRUE(ReadColumns(file, AllColumns(false), columns));
  const Received points = Export(columns.points), features = Export(columns.features);
  ASSERT_EQ(points.array.length, 2);
  EXPECT_EQ(points.array.null_count, 0);
  const std::pair<const char*, const char*> formats[] = {
      {"feature_number", "I"}, {"x", "g"}, {"time", "tss:UTC"}, {"status", "S"}, {"text", "U"}};
  for (const auto& [name, format] : formats)
    EXPECT_STREQ(points.schema.children[points.Child(name)]->format, format) << name;
  EXPECT_EQ(Value<double>(*points.array.children[points.Child("x")], 1), 3);
  EXPECT_EQ(Value<std::int64_t>(*points.array.children[points.Child("time")], 0), -5);
  EXPECT_EQ(
      TextAt(*points.array.children[points.Child("text")], 0) + TextAt(*points.array.children[points.Child("text")], 1),
      "A1");
  EXPECT_EQ(TextAt(*features.array.children[features.Child("name")], 0), "Oak");
  EXPECT_EQ(Value<std::uint32_t>(*features.array.children[features.Child("point_count")], 0), 2U);

  // A child that was moved out outlives its parent.
  ArrowArray names{};
  {
    const Received attributes = Export(columns.attributes);
    const std::size_t at = attributes.Child("name");
    EXPECT_STREQ(attributes.schema.children[at]->format, "i");
    EXPECT_STREQ(attributes.schema.children[at]->dictionary->format, "U");
    names = *attributes.array.children[at];
    attributes.array.children[at]->release = nullptr;
  }
  ASSERT_NE(names.dictionary, nullptr);
  std::string all;
  for (std::int64_t i = 0; i < names.length; ++i) all += TextAt(*names.dictionary, Value<std::int32_t>(names, i));
  EXPECT_EQ(all, "aba");
  names.release(&names);
  EXPECT_EQ(names.release, nullptr);

  Columns empty;
  ASSERT_TRUE(ReadColumns(file, AllColumns(false), [&](Columns& batch) {
    return batch.attributes.rows != 0 || (empty = std::move(batch), true);
  }));
  EXPECT_EQ(Export(empty.attributes).array.n_children, 8) << "a table without rows has its columns";
}

}  // namespace
}  // namespace kesp::test
