// What the comparison of views with objects does not show. That comparison is made for each input of the corpus.
#include <algorithm>
#include <vector>

#include "tests/recordfile/Survey.h"
#include "tests/support/FaultyMemory.h"
#include "tests/support/Views.h"

using namespace kesp::test;
using kesp::RecordView;
using kesp::TagView;
using kesp::TextView;

namespace {

class KespDataFileViewing : public OneFile {
 protected:
  // Compares the two walks over the file; `prepare` is run on each file object before.
  template <class Prepare>
  std::string Difference(std::uint32_t objects, Prepare prepare) {
    CKespDataFile other;
    for (CKespDataFile* each : {&file, &other}) {
      each->Close();
      EXPECT_TRUE(each->OpenReadOnly(Text(path)) && each->SeekToFirstRecord());
      prepare(*each);
    }
    return DifferenceOfWalks(other, file, false, objects);
  }
  RecordView view;
};

// Whatever length it states: its own, one less, or that of another kind of record.
TEST_F(KespDataFileViewing, ShowsTheRecordAsItIsStored) {
  std::vector<std::size_t> lengths;
  for (const auto& [type, version, fields] : kLayouts)
    lengths.push_back(std::max<std::size_t>(SampleBody(type, version).size(), 1));
  for (const auto& [type, version, fields] : kLayouts) {
    const ByteVector body = SampleBody(type, version);
    lengths.push_back(body.size() - 1);
    for (const std::uint32_t flags : {0u, 0x0Au}) {
      for (const std::size_t length : lengths) {
        Open(Record(200, 1, 0, {1}) +
                 WithLength(Record(type, version, flags, body), static_cast<std::uint32_t>(length)) +
                 Record(200, 1, 0, Hex("01*9000")),
             true);
        ASSERT_TRUE(file.ReadNextView(view, true));
        EXPECT_EQ(std::tuple(view.Type(), view.Version(), view.StoredFlags(), view.StatedLength(), view.Position()),
                  std::tuple(type, version, flags, length, kFirst + 15));
        EXPECT_TRUE(IsEqual(view.Body(), std::as_bytes(std::span(body))));
        EXPECT_FALSE(file.ReadNextView(view, true));
        EXPECT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
      }
    }
    lengths.pop_back();
  }
}

// Even if the version and the length together are those of a feature.
TEST_F(KespDataFileViewing, RefusesVersionsThatDontExist) {
  for (const std::uint32_t type : {KESP_RECORD_HEADER, KESP_RECORD_FEATURE_END, KESP_RECORD_NOTE, KESP_RECORD_TAG}) {
    Open(Record(type, 3, 0, Hex("00*524")), true);
    EXPECT_FALSE(file.ReadNextView(view, true)) << type;
    EXPECT_EQ(file.GetError(), KESP_ERROR_VERSION) << type;
  }
}

TEST_F(KespDataFileViewing, StopsAtSkippedRecordsWhenAsked) {
  Open(EndOf(1, 1) + Record(200, 9, 8, Hex("aa")) + EndOf(2) + Record(12, 1, 1, Hex("bb*2")) +
           Record(8, 1, 1, Hex("cc")),
       true);
  // Offset, type, and whether it is skipped; of the record of a refused type only when deleted ones are.
  using Row = std::tuple<std::uint64_t, std::uint32_t, bool>;
  const std::vector<Row> steps[] = {{{50, 4, false}, {68, 200, true}, {83, 4, false}},
                                    {{50, 4, true}, {68, 200, true}, {83, 4, false}, {101, 12, true}, {117, 8, true}}};
  for (const bool skipDeleted : {false, true}) {
    ASSERT_TRUE(file.SeekToFirstRecord());
    std::vector<Row> rows;
    while (file.ReadNextStep(view, skipDeleted)) {
      rows.emplace_back(view.Position(), view.Type(), view.IsSkipped());
      EXPECT_EQ(view.Body().empty(), view.IsSkipped());
      EXPECT_EQ(view.IsDeleted(), view.Position() != 68 && view.Position() != 83);
    }
    EXPECT_EQ(rows, steps[skipDeleted]);
    EXPECT_EQ(file.GetError(), skipDeleted ? KESP_ERROR_NORMAL_EOF : KESP_ERROR_UNICODE);
  }
}

// Up to a flag, another version or another length.
TEST_F(KespDataFileViewing, ReturnsPlainPointsAtOnce) {
  const ByteVector body = SampleBody(KESP_RECORD_POINT, 2);
  const ByteVector plain = Record(KESP_RECORD_POINT, 2, 0, body);
  const ByteVector old = Record(KESP_RECORD_POINT, 1, 0, SampleBody(KESP_RECORD_POINT, 1));
  const ByteVector longer = WithLength(plain, static_cast<std::uint32_t>(body.size() + 1));
  for (const ByteVector& other : {EndOf(1), old, longer, Record(KESP_RECORD_POINT, 2, 1, body)}) {
    Open(plain + plain + plain + other, true);
    ASSERT_TRUE(file.ReadNextView(view, true));
    const kesp::PointRun run = file.ReadPointRun();
    ASSERT_EQ(run.Size(), 2u);
    EXPECT_EQ(run.PositionOf(1), view.Position() + 2 * plain.size());
    EXPECT_EQ(run[1].CoordX(), view.AsPoint().CoordX());
    EXPECT_EQ(run[1].PointText().ToUtf8(), view.AsPoint().PointText().ToUtf8());
    EXPECT_EQ(file.GetPosition(), kFirst + 3 * plain.size());
    EXPECT_EQ(file.ReadPointRun().Size(), 0u);
  }
}

TEST_F(KespDataFileViewing, HoldsTheFirstPartOfALongTag) {
  constexpr auto kMost = static_cast<std::uint32_t>(TagView::kMostBlock);
  const auto named = [](std::uint32_t nameBytes, std::uint32_t payload) {
    ByteVector block = Words({nameBytes}) + ByteVector(nameBytes, 'n') + Words({payload}) + ByteVector(payload, 'p');
    return Record(9, 2, 0, Words({0, static_cast<std::uint32_t>(block.size())}) + block);
  };
  const struct {
    std::uint32_t nameBytes, payload;
    bool isWhole, hasName, hasPayload;
  } rows[] = {{4, kMost - 12, true, true, true},   {4, kMost - 11, false, true, false},
              {4, 1'000'000, false, true, false},  {kMost - 8, 0, true, true, true},
              {kMost - 4, 0, false, true, false},  {kMost - 6, 0, false, true, false},
              {kMost - 3, 0, false, false, false}, {200'000, 9, false, false, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.nameBytes << ' ' << row.payload);
    Open(EndOf(1) + named(row.nameBytes, row.payload) + EndOf(8), true);
    ASSERT_TRUE(file.ReadNextView(view, true) && file.ReadNextView(view, true));
    const TagView tag = view.AsTag();
    EXPECT_EQ(std::tuple(tag.IsWhole(), tag.Name().has_value(), tag.Payload().has_value()),
              std::tuple(row.isWhole, row.hasName, row.hasPayload));
    EXPECT_EQ(tag.BlockLength(), 8 + row.nameBytes + row.payload);
    EXPECT_EQ(tag.Block().size(), std::min(kMost, tag.BlockLength()));
    ASSERT_TRUE(file.ReadNextView(view, true));
    EXPECT_EQ(view.AsFeatureEnd().FeatureNumber(), 8u);
    EXPECT_EQ(Difference(0, [](CKespDataFile&) {}), "");
  }
}

// Records of all layouts and tags of up to 200 KB, in any order.
TEST_F(KespDataFileViewing, ReadsAheadAndAllocatesNothing) {
  std::uint32_t random = 1;
  ByteVector records;
  while (records.size() < 9'000'000) {
    random = random * 1664525 + 1013904223;
    const Layout& layout = kLayouts[(random >> 16) % std::size(kLayouts)];
    const bool isLong = layout.type == 9 && (random >> 24) % 4 == 0;
    Append(records,
           isLong ? Tag(0, "blob", ByteVector((random >> 8) % 200'000, 'p')) : Sample(layout.type, layout.version));
  }
  Put(records);
  for (const std::uint32_t objects : {0u, 0x10F05555u}) {
    EXPECT_EQ(Difference(objects,
                         [this](CKespDataFile& each) {
                           if (&each == &file) each.ReadAhead();
                         }),
              "");
  }
  for (const bool isAhead : {false, true}) {
    ASSERT_TRUE(file.SeekToFirstRecord());
    if (isAhead) file.ReadAhead();
    std::size_t texts = 0;
    const FaultyMemory memory(1);
    while (file.ReadNextView(view, true)) {
      char room[3 * 256];
      if (view.Type() == KESP_RECORD_NOTE)
        texts += static_cast<std::size_t>(view.AsNote().NoteText().PutUtf8(room) - room);
    }
    EXPECT_FALSE(FaultyMemory::Struck());
    EXPECT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
    EXPECT_GT(texts, 1000u);
  }
}

TEST_F(KespDataFileViewing, KeepsPositionsBeyondFourGigabytes) {
  constexpr std::uint64_t kFour = std::uint64_t{1} << 32;
  const auto skip = [](std::uint64_t to) {  // from the first record
    return WithLength(Record(200, 1, 0, {}), static_cast<std::uint32_t>(to - kFirst - 14));
  };
  Put(skip(kFour - 100));
  std::filesystem::resize_file(path, kFour + 1000);
  PutAt(kFour - 100, Point(7, 1) + EndOf(7));
  for (const std::uint64_t limit : {std::uint64_t{0}, std::uint64_t{1000}, kFour - 101, kFour - 100, kFour - 87,
                                    kFour - 1, kFour, kFour + 21, kFour + 22, kFour + 40, ~std::uint64_t{0}}) {
    const auto limitIt = [limit](CKespDataFile& each) { each.LimitLength(limit); };
    EXPECT_EQ(Difference(0, limitIt), "") << limit;
  }
  ASSERT_TRUE(file.SeekToFirstRecord());
  file.LimitLength(kFour - 1);
  for (const std::uint64_t position : {kFour - 100, kFour + 22}) {
    ASSERT_TRUE(file.ReadNextView(view, true));
    EXPECT_EQ(view.Position(), position);
  }
  // A tag of nearly 4 GiB, whose name is as long.
  Open(WithLength(Record(9, 2, 0, Words({0, 0xFFFFFFF0, 0xFFFFFFE0})), 8), true);
  EXPECT_FALSE(file.ReadNextView(view, true));
  EXPECT_EQ(file.GetError(), KESP_ERROR_EOF);
  std::filesystem::resize_file(path, kFour + 1000);
  PutAt(kFour + 56, EndOf(8));
  ASSERT_TRUE(file.SeekToFirstRecord() && file.ReadNextView(view, true));
  EXPECT_TRUE(!view.AsTag().IsWhole() && !view.AsTag().Name() && !view.AsTag().Payload());
  ASSERT_TRUE(file.ReadNextView(view, true));
  EXPECT_EQ(std::tuple(view.Position(), view.AsFeatureEnd().FeatureNumber()), std::tuple(kFour + 56, 8u));
}

TEST(TextView, IsEncodedAsUtf8) {
  const struct {
    std::u16string units;
    std::string kept, valid;  // a text without lone surrogates is kept as it is
  } parts[] = {{u"", "", ""},
               {u"\x7F\x80", "\x7F\xC2\x80", ""},
               {u"\x7FF\x800", "\xDF\xBF\xE0\xA0\x80", ""},
               {u"\xD7FF\xE000\xFFFF", "\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", ""},
               {u"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", ""},
               {u"\xD800", "\xED\xA0\x80", "\xEF\xBF\xBD"},
               {u"\xDFFF", "\xED\xBF\xBF", "\xEF\xBF\xBD"},
               {u"\xDC00\xDBFF\xD83C\xDF32", "\xED\xB0\x80\xED\xAF\xBF\xF0\x9F\x8C\xB2",
                "\xEF\xBF\xBD\xEF\xBF\xBD\xF0\x9F\x8C\xB2"}};
  for (const auto& [units, kept, valid] : parts) {
    for (const std::size_t before : {0u, 1u, 2u, 3u, 4u, 5u, 7u, 8u, 252u, 253u, 254u, 255u, 256u, 511u, 512u}) {
      for (std::size_t after = 0; after < 6; ++after) {
        for (const std::size_t rest :
             {0u, 1u, 2u, 9u}) {  // after the text: a zero unit, if there is room, and anything
          SCOPED_TRACE(testing::Message() << kept << ' ' << before << ' ' << after << ' ' << rest);
          const std::string front(before, 'a'), back(after, 'b');
          const std::u16string text = std::u16string(before, u'a') + units + std::u16string(after, u'b');
          ByteVector bytes(1);  // the units are at odd addresses
          for (const char16_t unit : text) Append(bytes, unit, 2);
          for (std::size_t i = 0; i < rest; ++i) Append(bytes, i == 0 ? 0 : i % 2 == 0 ? 0xDC00 : 'x', 2);
          bytes.shrink_to_fit();
          const TextView view(std::as_bytes(std::span(bytes)).data() + 1, text.size() + rest, true);
          const auto room = std::make_unique<char[]>(view.MostUtf8());
          EXPECT_EQ(std::string(room.get(), view.PutUtf8(room.get())), front + (valid.empty() ? kept : valid) + back);
          EXPECT_EQ(view.ToUtf8(), front + kept + back);
          EXPECT_TRUE(view == text && view.ToString() == CString(text) && view.IsEmpty() == text.empty());
        }
      }
    }
  }
}

}  // namespace
