// What comes back of a survey whose file was overwritten in places.
#include "kesp/recordfile/Salvage.h"

#include <filesystem>
#include <random>
#include <set>

#include "tests/recordfile/Survey.h"

using namespace kesp::test;
using kesp::SalvageGap;

namespace {

namespace fs = std::filesystem;

ByteVector EndBytes(std::uint32_t number) { return Stored{4, 1, EndBody(number)}.Bytes(); }
ByteVector WithLength(ByteVector record, std::uint32_t length) {
  for (std::size_t i = 0; i < 4; ++i) record[10 + i] = static_cast<std::uint8_t>(length >> 8 * i);
  return record;
}
ByteVector Part(const ByteVector& bytes, std::size_t from, std::size_t to) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

class Salvaging : public ::testing::Test {
 protected:
  ByteVector Salvaged(const ByteVector& source) {
    WriteFile(m_source, source);
    CKespDataFile file;
    EXPECT_TRUE(file.OpenReadOnly(Text(m_source)));
    EXPECT_TRUE(kesp::Salvage(file, Text(m_copy), 2, m_report));
    EXPECT_EQ(ReadFile(m_source), source);
    EXPECT_EQ(Walk(m_copy).error, KESP_ERROR_NORMAL_EOF);
    EXPECT_EQ(Walk(m_copy).positions.size(), m_report.kept);
    return ReadFile(m_copy);
  }
  std::vector<std::pair<std::uint64_t, std::uint64_t>> Gaps() const {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> gaps;
    for (const SalvageGap& gap : m_report.gaps) gaps.emplace_back(gap.offset, gap.length);
    return gaps;
  }
  // A record as it is rebuilt from a file of its own.
  ByteVector ReadAlone(const ByteVector& record) {
    WriteFile(m_dir / "one", FileHeader() + record);
    CKespDataFile file;
    EXPECT_TRUE(file.OpenReadOnly(Text(m_dir / "one")) && file.CopyVerify(Text(m_dir / "rebuilt"), 2));
    const ByteVector bytes = ReadFile(m_dir / "rebuilt");
    return Part(bytes, kFirst, bytes.size());
  }
  const IdleDisk m_disk;
  TempDir m_dir;
  fs::path m_source = m_dir / "a.kesp";
  fs::path m_copy = m_dir / "b.kesp";
  kesp::SalvageReport m_report;
};

TEST_F(Salvaging, GoesOnBehindEachKindOfDamage) {
  const ByteVector good = EndBytes(1) + EndBytes(2);  // 36 bytes from offset 50
  const ByteVector behind = EndBytes(3) + EndBytes(4);
  const ByteVector note = Stored{6, 2, NoteBody2()}.Bytes();
  ByteVector badType = FeatureBody3();
  badType[516] = 9;
  const ByteVector unknown = Record(200, 1, 0, Hex("01 02"));
  using Gap = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
  const struct {
    ByteVector damage;
    Gap gaps;
    KESP_ERROR_TYPE reason;
    ByteVector kept = {};  // of the damage itself
  } kCases[] = {
      {{}, {}, KESP_ERROR_NONE},
      {unknown, {}, KESP_ERROR_NONE},
      {Record(4, 1, 1, EndBody(9)), {}, KESP_ERROR_NONE},
      {WithLength(note, 0), {{86, 526}}, KESP_ERROR_RECORD_HEADER},
      {WithLength(note, 0xFFFFFFF0), {}, KESP_ERROR_NONE, note},                // wraps, and the layout counts
      {WithLength(unknown, 0xFFFFFFF0), {{86, 16}}, KESP_ERROR_RECORD_HEADER},  // the walk would end behind the file
      {WithLength(unknown, 25), {{86, 16}}, KESP_ERROR_RECORD_HEADER},          // or in the midst of a record
      {Part(note, 1, 526), {{86, 525}}, KESP_ERROR_RECORD_HEADER},
      {Part(note, 0, 100), {{86, 100}}, KESP_ERROR_RECORD_HEADER, {}},
      {Hex("00*7"), {{86, 7}}, KESP_ERROR_RECORD_HEADER},
      {Hex("00*10 01 00*10"), {{86, 21}}, KESP_ERROR_RECORD_TYPE},
      {Record(6, 3, 0, NoteBody2()), {{86, 526}}, KESP_ERROR_VERSION},
      {Record(6, 0, 0, NoteBody2()), {{86, 526}}, KESP_ERROR_NONE},
      {Record(12, 1, 0, NoteBody2()), {{86, 526}}, KESP_ERROR_UNICODE},
      {Record(1, 3, 0, badType), {{86, 538}}, KESP_ERROR_BAD_RECORD},
      {Record(9, 2, 0, Hex("05 00*3 ff*4 00*16")), {{86, 38}}, KESP_ERROR_EOF},
      {Hex("04 00*3 01 00 00*4 04 00*3"),
       {{86, 14}},
       KESP_ERROR_RECORD_HEADER,
       Record(4, 1, 0, Hex("04 00*3"))},  // a header alone, with which the walk ends
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(&c - kCases);
    const ByteVector copy = Salvaged(FileHeader() + good + c.damage + behind);
    EXPECT_EQ(copy, FileHeader() + good + c.kept + behind);
    EXPECT_EQ(Gaps(), c.gaps);
    EXPECT_EQ(m_report.gaps.empty() ? KESP_ERROR_NONE : m_report.gaps[0].reason, c.reason);
  }
}

TEST_F(Salvaging, TakesAllOfWhatIsWholeToTheWalkHoweverOddItLooks) {
  ByteVector odd;
  for (std::uint32_t i = 0; i < 20; ++i) Append(odd, WithLength(EndBytes(i), 5 + i % 3));
  for (std::uint32_t i = 0; i < 20; ++i) Append(odd, Record(4, 1, 0x80000001, EndBody(i)));
  const ByteVector copy = Salvaged(FileHeader() + odd + EndBytes(7));
  EXPECT_EQ(m_report.kept, 21u);
  EXPECT_EQ(m_report.deleted, 20u);
  EXPECT_EQ(m_report.gapCount, 0u);
}

TEST_F(Salvaging, FindsTheFirstRecordWhenTheFileHeaderNamesAnotherPlace) {
  EXPECT_EQ(Salvaged(FileHeader(3, 5) + EndBytes(1) + EndBytes(2)), FileHeader() + EndBytes(1) + EndBytes(2));
  // What stands in front of the records of an application is its own.
  EXPECT_EQ(Salvaged(FileHeader(3, 20) + EndBytes(1) + EndBytes(2)), FileHeader() + EndBytes(2));
  EXPECT_EQ(Gaps().size(), 0u);
}

TEST_F(Salvaging, NothingIsMadeUpOfWhatOnlyLooksLikeARecord) {
  const ByteVector damage = Hex("00*40");
  ByteVector text = NoteBody2();
  text[300] = 1;  // behind the end of the text
  ByteVector infinite = PointBody2();
  for (const std::size_t at : {60, 61}) infinite[at] = at == 60 ? 0xF0 : 0x7F;
  ByteVector kind = Hex("07 00*3 00*512 06 00 00*1194");
  const ByteVector kDoubtful[] = {
      Record(6, 2, 0, text),
      Record(2, 2, 0, infinite),
      Record(5, 3, 0, kind),
      Record(4, 1, 0x2000, EndBody(1)),                             // flags that nobody knows
      WithLength(EndBytes(1), 5) + Hex("00"),                       // a length that no end has
      EndBytes(1) + Hex("00"),                                      // nothing behind it
      Record(9, 2, 0, Hex("0e 00*3 00*4")),                         // a kind of tag that nobody knows
      Record(9, 2, 0, Hex("01 00*3 08 00*3 00*4 01 00*3")),         // a payload outside the block
      Record(9, 2, 0, Hex("01 00*3 0c 00*3 04 00*3 \"dd\" 00*4")),  // a name without an end
  };
  for (const ByteVector& doubtful : kDoubtful) {
    SCOPED_TRACE(&doubtful - kDoubtful);
    EXPECT_EQ(Salvaged(FileHeader() + EndBytes(1) + damage + doubtful + damage + EndBytes(2)),
              FileHeader() + EndBytes(1) + EndBytes(2));
    EXPECT_EQ(m_report.gapBytes, doubtful.size() + 80);
  }
}

TEST_F(Salvaging, ItsAnswerIsFalseWhenItCannotWriteOrWouldWriteOverItsSource) {
  const ByteVector source = FileHeader() + EndBytes(1);
  WriteFile(m_source, source);
  CKespDataFile file;
  EXPECT_FALSE(kesp::Salvage(file, Text(m_copy), 2, m_report));
  ASSERT_TRUE(file.OpenReadOnly(Text(m_source)));
  fs::create_hard_link(m_source, m_dir / "hard");
  for (const fs::path& path : {m_source, m_dir / "hard", fs::path("/dev/full")}) {
    EXPECT_FALSE(kesp::Salvage(file, Text(path), 2, m_report)) << path;
  }
  bool struck = true;
  for (int n = 1; struck; ++n) {
    bool good = false;
    {
      const FaultySystem system(n, FaultySystem::Fault::Full, true);
      good = kesp::Salvage(file, Text(m_copy), 2, m_report);
      struck = system.Struck();
    }
    EXPECT_TRUE(good || struck);
    EXPECT_TRUE(!good || ReadFile(m_copy) == source) << n;
    EXPECT_EQ(ReadFile(m_source), source);
  }
  CKespDataFile other;  // of which nothing has failed so far
  ASSERT_TRUE(other.OpenReadOnly(Text(m_source)));
  const FaultySystem failing(4, FaultySystem::Fault::Error, true);
  EXPECT_FALSE(kesp::Salvage(other, Text(m_copy), 2, m_report));
  EXPECT_EQ(other.GetSystemError(), EIO);
}

// A survey of records of every class, no two alike.
struct Survey {
  std::vector<Stored> records;
  std::vector<std::size_t> offsets;
  ByteVector bytes = FileHeader();
  // As a copy has it: features and attributes state the lengths of version 2.
  static ByteVector Copied(const Stored& stored) {
    return WithLength(stored.Bytes(), stored.type == 1   ? 54
                                      : stored.type == 5 ? 240
                                                         : static_cast<std::uint32_t>(stored.body.size()));
  }
  Survey(std::size_t count, bool isCopy) {
    const Stored kinds[] = {
        {1, 3, FeatureBody3()}, {5, 3, Hex("07 00*3 \"Girth\" 00*502 02 00 \"x\" 00*510 00*512 00*24 02 00 00*144")},
        {2, 2, PointBody2()},   {2, 2, PointBody2()},
        {6, 2, NoteBody2()},    {9, 2, TagBody()},
        {4, 1, EndBody(7)}};
    for (std::size_t i = 0; i < count; ++i) {
      Stored stored = kinds[i % std::size(kinds)];
      // A number of its own: at offset 0, in the text of a note, in the payload of a tag.
      const std::size_t at = stored.type == 6 ? 0 : stored.type == 9 ? 20 : 0;
      for (std::size_t k = 0; k < 4; ++k)
        stored.body[at + k] = static_cast<std::uint8_t>((i >> 4 * k & 15) + (stored.type == 6 ? 64 : 0));
      records.push_back(stored);
      offsets.push_back(bytes.size());
      Append(bytes, isCopy ? Copied(stored) : stored.Bytes());
    }
  }
};

TEST_F(Salvaging, BringsBackNearlyAllThatWasNotOverwritten) {
  for (const unsigned seed : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(seed);
    const Survey survey(10'000, seed % 2 == 0);
    std::mt19937 random(seed);
    ByteVector damaged = survey.bytes;
    std::vector<bool> touched(damaged.size());
    for (int i = 0; i < 50; ++i) {
      const std::size_t length = 1 + random() % 400;
      const std::size_t from = kFirst + random() % (damaged.size() - kFirst - length);
      const bool zeros = random() % 3 == 0;
      for (std::size_t k = from; k < from + length; ++k) {
        damaged[k] = static_cast<std::uint8_t>(zeros ? 0 : random());
        touched[k] = true;
      }
    }
    const ByteVector copy = Salvaged(damaged);
    std::multiset<ByteVector> kept;
    for (std::size_t at = kFirst; at < copy.size();) {
      const std::uint32_t type = copy[at];
      std::size_t body = copy[at + 10] | static_cast<std::size_t>(copy[at + 11]) << 8;
      if (type == 1) body = 524;
      if (type == 5) body = 1712;
      ASSERT_LE(at + 14 + body, copy.size());
      kept.insert(Part(copy, at, at + 14 + body));
      at += 14 + body;
    }
    std::set<ByteVector> inPlace;
    std::size_t untouched = 0;
    std::size_t back = 0;
    for (std::size_t i = 0; i < survey.records.size(); ++i) {
      const Stored& stored = survey.records[i];
      const std::size_t end = survey.offsets[i] + 14 + stored.body.size();
      const bool whole = std::find(touched.begin() + static_cast<std::ptrdiff_t>(survey.offsets[i]),
                                   touched.begin() + static_cast<std::ptrdiff_t>(end),
                                   true) == touched.begin() + static_cast<std::ptrdiff_t>(end);
      const auto found = kept.find(Survey::Copied(stored));
      untouched += whole;
      if (!whole) inPlace.insert(ReadAlone(Part(damaged, survey.offsets[i], end)));
      if (found != kept.end()) {
        back += whole;
        kept.erase(found);
      }
    }
    EXPECT_GE(100 * back, 99 * untouched);
    EXPECT_LT(untouched, survey.records.size());
    // What is no original is one that was overwritten, as it is read at its own place.
    for (const ByteVector& record : kept) EXPECT_TRUE(inPlace.contains(record));
  }
}

}  // namespace
