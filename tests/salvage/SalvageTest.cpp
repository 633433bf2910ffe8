// What comes back of a survey whose file was overwritten in places.
#include "kesp/salvage/Salvage.h"

#include <cerrno>
#include <filesystem>
#include <random>
#include <set>

#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

namespace fs = std::filesystem;

class Salvaging : public OneFile {
 protected:
  ByteVector Salvaged(const ByteVector& source, unsigned short version = 0) {
    WriteFile(path, source);
    EXPECT_TRUE(kesp::Salvage(Text(path), Text(copy), version, report));
    EXPECT_EQ(ReadFile(path), source);
    const Walked walked = Walk(copy);
    EXPECT_TRUE(walked.error == KESP_ERROR_NORMAL_EOF && walked.positions.size() == report.kept);
    return ReadFile(copy);
  }
  std::vector<std::uint64_t> Gaps() const {  // offset, length and reason of each
    std::vector<std::uint64_t> gaps;
    for (const kesp::SalvageGap& gap : report.gaps) gaps.insert(gaps.end(), {gap.offset, gap.length, gap.reason});
    return gaps;
  }
  const IdleDisk disk;
  const fs::path copy = dir / "b.kesp";
  kesp::SalvageReport report;
};

TEST_F(Salvaging, GoesOnBehindEachKindOfDamage) {
  const ByteVector good = EndOf(1) + EndOf(2);  // 36 bytes from offset 50
  const ByteVector behind = EndOf(3) + EndOf(4);
  const ByteVector note = Sample(6, 2);
  const ByteVector unknown = Record(200, 1, 0, Hex("01 02"));
  ByteVector badType = SampleBody(1, 3);
  badType[516] = 9;
  ByteVector badText = SampleBody(6, 2);
  badText[300] = 1;  // behind the end of the text
  const struct {
    ByteVector damage;
    std::vector<std::uint64_t> gaps;
    ByteVector kept = {};  // of the damage itself
    // clang-format off
  } kCases[] = {
      {unknown, {}},
      {EndOf(9, 1), {}},
      {WithLength(note, 0), {86, 526, KESP_ERROR_RECORD_HEADER}},
      {WithLength(note, 0xFFFFFFF0), {}, note},  // wraps, and the layout counts
      // Headers that the walk would follow: behind the file, into a record, and over a whole one to the next.
      {WithLength(unknown, 0xFFFFFFF0), {86, 16, KESP_ERROR_RECORD_HEADER}},
      {WithLength(unknown, 25), {86, 16, KESP_ERROR_RECORD_HEADER}},
      {ByteVector(9) + EndOf(5) + WithLength(unknown, 20), {86, 9, 6, 113, 16, 6}, EndOf(5)},
      {ByteVector(9) + EndOf(9, 1), {86, 9, KESP_ERROR_RECORD_HEADER}},
      // A record that ends in damage is kept; but not one that can't be, behind other damage.
      {ByteVector(9) + EndOf(5) + note + ByteVector(7), {86, 9, 6, 639, 7, 6}, EndOf(5) + note},
      {ByteVector(9) + EndOf(5) + Record(6, 2, 0, badText) + ByteVector(7), {86, 9, 6, 113, 533, 6}, EndOf(5)},
      {Part(note, 1), {86, 525, KESP_ERROR_RECORD_HEADER}},
      {Hex("00*10 01 00*10"), {86, 21, KESP_ERROR_RECORD_TYPE}},
      {Record(6, 3, 0, SampleBody(6, 2)), {86, 526, KESP_ERROR_VERSION}},
      {Record(1, 3, 0, badType), {86, 538, KESP_ERROR_BAD_RECORD}},
      {Record(9, 2, 0, Hex("05 00*3 ff*4 00*16")), {86, 38, KESP_ERROR_EOF}},
      // A header alone, with which the walk ends.
      {Part(EndOf(0), 0, 14), {86, 14, KESP_ERROR_RECORD_HEADER}, Record(4, 1, 0, Hex("04 00*3"))},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(&c - kCases);
    EXPECT_EQ(Salvaged(FileHeader() + good + c.damage + behind), FileHeader() + good + c.kept + behind);
    EXPECT_EQ(Gaps(), c.gaps);
  }
}

TEST_F(Salvaging, TakesAllOfWhatIsWholeToTheWalkHoweverOddItLooks) {
  ByteVector odd;
  for (std::uint32_t i = 0; i < 20; ++i) odd = odd + WithLength(EndOf(i), 5 + i % 3) + EndOf(i, 0x80000001);
  Salvaged(FileHeader() + odd + EndOf(7));
  EXPECT_TRUE(report.kept == 21 && report.deleted == 20 && report.gapCount == 0);
}

TEST_F(Salvaging, KeepsEachRecordInItsVersionUnlessAnOlderOneIsAskedFor) {
  const std::string x256(256, 'x'), x41(41, 'x'), x40(40, 'x');
  const ByteVector header1 = Record(3, 1, 0, Body(3, 1, {{"created", 5}, {"t1", "Job"}}));  // which nobody writes
  const ByteVector old = header1 + Sample(1, 1) + Sample(2, 1) + Sample(5, 1, 2) + Note(x256, 0, 1) +
                         Sample(9, 1);  // a text without an end
  const auto header2 = [](std::uint32_t kespVersion) {
    return Record(3, 2, 0, Body(3, 2, {{"status", 1}, {"kespVersion", kespVersion}}));
  };
  const auto attribute = [](std::uint16_t version, std::string_view text) {
    return Record(5, version, 0, Body(5, version, {{"kind", 1}, {"string", text}}));
  };
  const ByteVector feature2 =
      Record(1, 2, 0, Body(1, 2, {{"feature", 7}, {"name", "Oak"}, {"kind", 2}, {"color", 0x332211}, {"symbol", 5}}));
  for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2, 3}) {
    const ByteVector rest = Sample(2, 2) + Sample(6, 2) + Sample(9, 2) + EndOf(7);
    const ByteVector all = FileHeader(version) + old + header2(3) + feature2 + Sample(1, 3) + attribute(3, x41) + rest;
    for (const unsigned short asIs : std::initializer_list<unsigned short>{0, 3, 7}) {
      EXPECT_EQ(Salvaged(all, asIs), all);
      EXPECT_TRUE(report.loss.IsNone());
    }
    // The lengths of a rebuilt copy.
    EXPECT_EQ(Salvaged(FileHeader(version) + WithLength(Sample(1, 3), 54) + EndOf(7)),
              FileHeader(version) + Sample(1, 3) + EndOf(7));
    EXPECT_EQ(Salvaged(all, 2), FileHeader(2) + old + header2(2) + feature2 + feature2 + attribute(2, x40) + rest);
    kesp::FormatLoss loss;
    loss.attributes = {1, 1, 0};
    EXPECT_EQ(report.loss, loss);
    const ByteVector feature1 = Record(1, 1, 0, Hex("07 00*3 'Oak' 00*19 02 00 11 22 33 00 05 00"));
    EXPECT_EQ(Salvaged(all, 1), FileHeader(1) + old + Header1() + feature1 + feature1 + attribute(1, x40) +
                                    Sample(2, 1) + Sample(6, 1) + Sample(9, 1) + EndOf(7));
    loss.headers = {1, 0, 1};
    EXPECT_EQ(report.loss, loss);
  }
  // Without a version, an attribute is an empty one.
  const ByteVector empty = Hex("05 00*3 00 00 00*4 01 00*3");
  Salvaged(FileHeader() + empty + EndOf(7));
  EXPECT_EQ(report.kept, 2u);
  EXPECT_EQ(ReadFile(copy).size(), 50u + 14 + 1712 + 18);
}

TEST_F(Salvaging, LooksIntoNoRecordThatTheWalkStepsOverBeforeTheDamage) {
  const ByteVector note = Sample(6, 2);
  const ByteVector image = Hex("01*8") + EndOf(5) + note;  // of records
  const ByteVector unknown = Record(20, 1, 0, image);
  const ByteVector notes = EndOf(1) + EndOf(2);
  ByteVector block = Hex("00*4") + Hex("28 02 00 00") + image;
  const ByteVector tag = Record(9, 2, 0, Hex("00*4 30 02 00 00") + block);
  const auto deleted = [](ByteVector record) {
    record[6] = 1;
    return record;
  };
  // A note whose text is one of a record that ends where the note does.
  const ByteVector gone = Record(6, 2, 1, Hex("61 00*493") + EndOf(5));
  const struct {
    ByteVector stepped;
    std::uint64_t deleted, unknown, kept;
  } kCases[] = {
      {unknown, 0, 1, 0},      {gone, 1, 0, 0}, {Record(20, 0x100, 0, image), 0, 1, 0},
      {deleted(tag), 1, 0, 0}, {tag, 0, 0, 1},  {unknown + gone + unknown, 1, 2, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(&c - kCases);
    const ByteVector kept = c.kept != 0 ? c.stepped : ByteVector();
    EXPECT_EQ(Salvaged(FileHeader() + c.stepped + notes + Hex("00*40") + notes), FileHeader() + kept + notes + notes);
    EXPECT_EQ(report.deleted, c.deleted);
    EXPECT_EQ(report.unknown, c.unknown);
    EXPECT_EQ(report.gapBytes, 40u);
  }
  // Right before the damage, and after another.
  EXPECT_EQ(Salvaged(FileHeader() + notes + gone + Hex("00*40") + notes + gone + Hex("00*40") + notes),
            FileHeader() + notes + notes + notes);
  EXPECT_TRUE(report.deleted == 2 && report.gapBytes == 80);
  const ByteVector single = Record(20, 1, 0, Hex("01*8") + EndOf(5));
  EXPECT_EQ(Salvaged(FileHeader() + notes + single + Hex("00*40") + notes), FileHeader() + notes + notes);
  EXPECT_TRUE(report.unknown == 1 && report.gapBytes == 40);
  // And before a record that the walk reads although its header states another length.
  EXPECT_EQ(Salvaged(FileHeader() + notes + single + WithLength(EndOf(3), 9) + Hex("00*40") + notes),
            FileHeader() + notes + EndOf(3) + notes);
}

TEST_F(Salvaging, FindsWhatWasAppendedAfterAHalfTag) {
  const ByteVector before = EndOf(1);
  const ByteVector after = EndOf(2) + EndOf(3) + EndOf(4) + EndOf(5);
  const ByteVector half = Record(9, 2, 0, Hex("00*4 30 00*3 00*4 28 00*3")) + Hex("aa*7");
  const ByteVector tag = WithLength(half, 56);  // 33 bytes of its block are those of the next records
  for (const bool isDeleted : {false, true}) {
    ByteVector source = FileHeader() + before + tag + after;
    source[kFirst + 18 + 6] = isDeleted;
    const ByteVector taken = isDeleted ? ByteVector() : Part(source, 68, 68 + 14 + 56);  // as the walk has it
    EXPECT_EQ(Salvaged(source), FileHeader() + before + taken + after);
    EXPECT_EQ(Gaps(), (std::vector<std::uint64_t>{68, 37, KESP_ERROR_RECORD_HEADER}));
  }
  // Other damage before it: nothing of it is taken.
  EXPECT_EQ(Salvaged(FileHeader() + Hex("00*40") + before + tag + after), FileHeader() + before + after);
}

TEST_F(Salvaging, AFileHeaderMayBeDamagedToo) {
  const ByteVector records = EndOf(1) + EndOf(2);
  EXPECT_EQ(Salvaged(FileHeader(7, 20) + records), FileHeader(7) + EndOf(2)) << "the bytes of an application";
  EXPECT_TRUE(Gaps().empty() && report.applicationBytes == 18);
  // So they are where the walk comes to the end from there, whatever the first record looks like.
  const ByteVector odd = WithLength(EndOf(3), 9) + EndOf(2);
  EXPECT_EQ(Salvaged(FileHeader(3, 38) + EndOf(1) + EndOf(1) + odd), FileHeader() + EndOf(3) + EndOf(2));
  EXPECT_TRUE(Gaps().empty() && report.applicationBytes == 36);
  // A length that leads to no record, past some: to the end, or in between.
  for (const std::uint32_t length : {38u, 5u}) {
    EXPECT_EQ(Salvaged(FileHeader(3, length) + records), FileHeader() + records);
    EXPECT_EQ(Gaps(), (std::vector<std::uint64_t>{0, 50, KESP_ERROR_FILE_HEADER}));
  }
  for (const std::uint16_t version : std::initializer_list<std::uint16_t>{0, 2, 4}) {
    for (const std::size_t at : {41u, 47u}) {
      ByteVector source = FileHeader(version) + records;
      source[at] ^= 1;
      EXPECT_EQ(Salvaged(source), FileHeader(version == 2 ? 2 : 3) + records);
      const std::uint64_t reason = at == 41 ? KESP_ERROR_SIGNATURE : KESP_ERROR_FILE_HEADER;
      EXPECT_EQ(Gaps(), (std::vector<std::uint64_t>{0, 50, reason}));
    }
  }
  // A first record that can't be read: what is before its place is looked at once, also when none of it is kept.
  ByteVector noType = SampleBody(1, 1);
  noType[26] = 0;
  const ByteVector unreadable = Record(1, 1, 0, noType) + Hex("ee");
  EXPECT_EQ(Salvaged(FileHeader(3, 20) + EndOf(1, 1) + unreadable), FileHeader());
  EXPECT_EQ(Gaps(), (std::vector<std::uint64_t>{68, 49, KESP_ERROR_RECORD_HEADER}));
  EXPECT_TRUE(report.deleted == 1 && report.applicationBytes == 0);
  EXPECT_EQ(Salvaged(FileHeader(3, 20) + Hex("aa*18") + unreadable), FileHeader());
  EXPECT_EQ(Gaps(), (std::vector<std::uint64_t>{68, 49, KESP_ERROR_BAD_RECORD}));
  EXPECT_EQ(report.applicationBytes, 18u);
  for (const std::size_t length : {0u, 43u, 49u}) {
    EXPECT_EQ(Salvaged(Part(FileHeader(3, 0), 0, length)), FileHeader()) << length;
    EXPECT_EQ(report.gapBytes, length);
  }
}

TEST_F(Salvaging, NothingIsMadeUpOfWhatOnlyLooksLikeARecord) {
  const ByteVector damage(40);
  const ByteVector kDoubtful[] = {
      EndOf(1, 0x2000),                                             // flags that nobody knows
      WithLength(EndOf(1), 5) + Hex("00"),                          // a length that no end has
      EndOf(1) + Hex("00"),                                         // nothing behind it
      Record(9, 2, 0, Hex("01 00*3 08 00*3 00*4 01 00*3")),         // a payload outside the block
      Record(9, 2, 0, Hex("01 00*3 0c 00*3 04 00*3 \"dd\" 00*4")),  // a name without an end
  };
  for (const ByteVector& doubtful : kDoubtful) {
    EXPECT_EQ(Salvaged(FileHeader() + EndOf(1) + damage + doubtful + EndOf(3) + EndOf(2)),
              FileHeader() + EndOf(1) + EndOf(3) + EndOf(2))
        << &doubtful - kDoubtful;
    EXPECT_EQ(report.gapBytes, doubtful.size() + 40);
  }
}

TEST_F(Salvaging, BehindDamageEveryTextHasToEndAndEveryNumberToBeFinite) {
  for (const Layout& layout : kLayouts) {
    SCOPED_TRACE(testing::Message() << layout.type << ' ' << layout.version);
    // What a feature, an attribute, a tag chooses, and the highest of these.
    const std::uint8_t highest = layout.type == 1 ? 3 : layout.type == 5 ? 5 : layout.type == 9 ? 13 : 0;
    const std::string_view choice = layout.type == 9 ? "tag" : "kind";
    const ByteVector body = Body(layout.type, layout.version, {{choice, highest}});
    const auto isTakenWith = [&](std::size_t at, const ByteVector& bytes) {
      ByteVector changed = body;
      std::copy(bytes.begin(), bytes.end(), changed.begin() + static_cast<std::ptrdiff_t>(at));
      Salvaged(FileHeader() + ByteVector(40) + Record(layout.type, layout.version, 0, changed) + EndOf(2));
      return report.kept == 2;
    };
    EXPECT_TRUE(isTakenWith(0, {}));
    ForFields(layout.fields, [&](std::string_view name, std::size_t at, std::size_t width, char letter) {
      SCOPED_TRACE(name);
      const std::size_t lastUnit = at + width - (letter == 'u' ? 2 : 1);
      EXPECT_FALSE((letter == 'c' || letter == 'u') && isTakenWith(lastUnit, {1}));
      EXPECT_TRUE(letter != 'd' || (isTakenWith(at, Hex("ff*6 ef 7f")) && !isTakenWith(at, Hex("00*6 f0 7f"))));
      const auto above = static_cast<std::uint8_t>(highest + 1);
      EXPECT_FALSE(name == choice && (isTakenWith(at, {above}) || isTakenWith(at, {1, 1})));
      EXPECT_FALSE(name == "note" && isTakenWith(0, ByteVector(width, 1))) << "no end at all";
    });
  }
}

TEST_F(Salvaging, ItsAnswerIsFalseWhenItCannotWriteOrWouldWriteOverItsSource) {
  EXPECT_FALSE(kesp::Salvage(file, Text(copy), 2, report) || kesp::Salvage(Text(dir / "none"), Text(copy), 2, report));
  Put(EndOf(1));
  fs::create_hard_link(path, dir / "hard");
  ASSERT_TRUE(file.OpenReadOnly(Text(path)));
  EXPECT_FALSE(file.Copy(Text(dir / "none" / "a")));
  for (const fs::path& to : {path, dir / "hard", fs::path("/dev/full")}) {
    EXPECT_FALSE(kesp::Salvage(file, Text(to), 2, report)) << to;
    EXPECT_EQ(file.GetSystemError(), ENOENT) << "what failed first";
  }
  EXPECT_EQ(Records(), EndOf(1));
}

// Records of every class with a number of their own: at offset 0 of the body, in the text of a note, in the payload of
// a tag.
ByteVector Numbered(std::uint32_t number) {
  const ByteVector menu =
      Record(5, 3, 0, Body(5, 3, {{"feature", 7}, {"title", "Girth"}, {"kind", 2}, {"string", "x"}, {"decimals", 2}}));
  const ByteVector kinds[] = {Sample(1, 3), menu, Sample(2, 2), Sample(2, 2), Sample(6, 2), Sample(9, 2), EndOf(7)};
  ByteVector record = kinds[number % std::size(kinds)];
  for (std::size_t k = 0; k < 4; ++k) {
    record[14 + k + (record[0] == 9 ? 20 : 0)] =
        static_cast<std::uint8_t>((number >> 4 * k & 15) + (record[0] == 6 ? 64 : 0));
  }
  return record;
}

TEST_F(Salvaging, BringsBackNearlyAllThatWasNotOverwritten) {
  constexpr std::uint32_t kRecords = 10'000;
  for (const unsigned seed : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(seed);
    // Every second survey is a copy: features and attributes state the lengths of version 2.
    ByteVector damaged = FileHeader();
    std::vector<std::size_t> offsets;
    std::vector<ByteVector> records;
    for (std::uint32_t i = 0; i < kRecords; ++i) {
      const ByteVector record = records.emplace_back(Numbered(i));
      const std::uint32_t length = record[0] == 1 ? 54 : record[0] == 5 ? 240 : 0;
      offsets.push_back(damaged.size());
      Append(damaged, length != 0 && seed % 2 == 0 ? WithLength(record, length) : record);
    }
    offsets.push_back(damaged.size());
    std::mt19937 random(seed);
    std::set<std::size_t> touched;  // records
    for (int i = 0; i < 50; ++i) {
      const std::size_t length = 1 + random() % 400;
      const std::size_t from = kFirst + random() % (damaged.size() - kFirst - length);
      for (std::size_t k = from; k < from + length; ++k) {
        damaged[k] = static_cast<std::uint8_t>(seed < 3 ? random() : 0);
        touched.insert(static_cast<std::size_t>(std::upper_bound(offsets.begin(), offsets.end(), k) - offsets.begin()) -
                       1);
      }
    }
    const ByteVector bytes = Salvaged(damaged);
    const Walked walked = Walk(copy);
    std::multiset<ByteVector> kept;
    for (std::size_t i = 0; i < walked.positions.size(); ++i) {
      const bool isLast = i + 1 == walked.positions.size();
      kept.insert(Part(bytes, walked.positions[i], isLast ? bytes.size() : walked.positions[i + 1]));
    }
    std::size_t lost = 0;
    for (std::uint32_t i = 0; i < kRecords; ++i) {
      const auto found = kept.find(records[i]);
      if (found != kept.end()) {
        kept.erase(found);
      } else if (!touched.contains(i)) {
        ++lost;
      }
    }
    EXPECT_LE(100 * lost, kRecords - touched.size());
    // What is no original is one that was overwritten, as it is read at its own place.
    std::set<ByteVector> inPlace;
    for (const std::size_t i : touched) {
      WriteFile(path, FileHeader() + Part(damaged, offsets[i], offsets[i + 1]));
      EXPECT_TRUE(kesp::Salvage(Text(path), Text(copy), 0, report));
      inPlace.insert(Part(ReadFile(copy), kFirst));
    }
    for (const ByteVector& record : kept) EXPECT_TRUE(inPlace.contains(record));
  }
}

}  // namespace
