// What comes back of a survey whose file was overwritten in places.
#include "kesp/salvage/Salvage.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <random>
#include <tuple>

#include "tests/recordfile/Survey.h"
#include "tests/support/MemorySource.h"

using namespace kesp::test;

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kHeader = KESP_ERROR_RECORD_HEADER;

struct Counts {
  std::uint64_t deleted = 0, unknown = 0, applicationBytes = 0;
};

class Salvaging : public OneFile {
 protected:
  ByteVector Salvaged(const ByteVector& source, unsigned short version = 0) {
    WriteFile(path, source);
    EXPECT_TRUE(kesp::Salvage(Text(path), Text(copy), version, report));
    EXPECT_EQ(ReadFile(path), source);
    kesp::SalvageReport sourced;
    EXPECT_TRUE(kesp::Salvage(std::make_unique<MemorySource>(source, 977), Text(dir / "c.kesp"), version, sourced));
    EXPECT_EQ(ReadFile(dir / "c.kesp"), ReadFile(copy));
    EXPECT_EQ(std::tie(sourced.kept, sourced.deleted, sourced.unknown, sourced.gapCount, sourced.gapBytes),
              std::tie(report.kept, report.deleted, report.unknown, report.gapCount, report.gapBytes));
    const Walked walked = Walk(copy);
    EXPECT_EQ(walked.error, KESP_ERROR_NORMAL_EOF);
    EXPECT_EQ(walked.positions.size(), report.kept);
    return ReadFile(copy);
  }
  // The gaps are the offset, length and reason of each.
  void Expect(const ByteVector& source, const ByteVector& salvaged, const std::vector<std::uint64_t>& gaps,
              Counts counts = {}, int line = __builtin_LINE()) {
    const testing::ScopedTrace trace(__FILE__, line, "expected here");
    EXPECT_EQ(Salvaged(source), salvaged);
    std::vector<std::uint64_t> found;
    std::uint64_t bytes = 0;
    for (const kesp::SalvageGap& gap : report.gaps) {
      found.insert(found.end(), {gap.offset, gap.length, gap.reason});
      bytes += gap.length;
    }
    EXPECT_EQ(found, gaps);
    EXPECT_EQ(report.gapCount, gaps.size() / 3);
    EXPECT_EQ(report.gapBytes, bytes);
    EXPECT_EQ(report.deleted, counts.deleted);
    EXPECT_EQ(report.unknown, counts.unknown);
    EXPECT_EQ(report.applicationBytes, counts.applicationBytes);
  }
  const IdleDisk disk;
  const fs::path copy = dir / "b.kesp";
  kesp::SalvageReport report;
};

TEST_F(Salvaging, GoesOnAfterEachKindOfDamage) {
  const ByteVector before = EndOf(1) + EndOf(2);  // 36 bytes from offset 50
  const ByteVector after = EndOf(3) + EndOf(4);
  const ByteVector note = Sample(6, 2);
  const ByteVector unknown = Record(200, 1, 0, Hex("01 02"));
  const ByteVector badText = Note(std::string_view("rain\0x", 6));  // more after the end of the text
  const auto expect = [&](const ByteVector& damage, const std::vector<std::uint64_t>& gaps, const ByteVector& kept = {},
                          Counts counts = {}, int line = __builtin_LINE()) {
    Expect(FileHeader() + before + damage + after, FileHeader() + before + kept + after, gaps, counts, line);
  };
  expect(unknown, {}, {}, {.unknown = 1});
  expect(EndOf(9, 1), {}, {}, {.deleted = 1});
  expect(WithLength(note, 0), {86, 526, kHeader});
  expect(WithLength(note, 0xFFFFFFF0), {}, note);  // wraps, and the layout counts
  // Headers that the walk would follow: past the end of the file, into a record, and over a whole one to the next.
  expect(WithLength(unknown, 0xFFFFFFF0), {86, 16, kHeader});
  expect(WithLength(unknown, 25), {86, 16, kHeader});
  expect(ByteVector(9) + EndOf(5) + WithLength(unknown, 20), {86, 9, kHeader, 113, 16, kHeader}, EndOf(5));
  expect(ByteVector(9) + EndOf(9, 1), {86, 9, kHeader}, {}, {.deleted = 1});
  // A record that ends in damage is kept; but not one that can't be, after other damage.
  expect(ByteVector(9) + EndOf(5) + note + ByteVector(7), {86, 9, kHeader, 639, 7, kHeader}, EndOf(5) + note);
  expect(ByteVector(9) + EndOf(5) + badText + ByteVector(7), {86, 9, kHeader, 113, 533, kHeader}, EndOf(5));
  // Between a record and the next certain one there may be four others.
  const ByteVector four = unknown + unknown + unknown + unknown;
  expect(ByteVector(9) + EndOf(5) + four, {86, 9, kHeader}, EndOf(5), {.unknown = 4});
  expect(ByteVector(9) + EndOf(5) + four + unknown, {86, 9 + 18 + 5 * 16, kHeader});
  // The lengths of a rebuilt copy.
  expect(ByteVector(9) + WithLength(Sample(1, 3), 54) + WithLength(Sample(5, 3), 240), {86, 9, kHeader},
         Sample(1, 3) + Sample(5, 3));
  expect(Part(note, 1), {86, 525, kHeader});
  expect(Hex("00*10 01 00*10"), {86, 21, KESP_ERROR_RECORD_TYPE});
  expect(Record(6, 3, 0, SampleBody(6, 2)), {86, 526, KESP_ERROR_VERSION});
  expect(Feature(1, "Oak", 0, 3, 9), {86, 538, KESP_ERROR_BAD_RECORD});
  expect(Record(9, 2, 0, Body(9, 2, {{"tag", 5}, {"length", -1}}) + ByteVector(16)), {86, 38, KESP_ERROR_EOF});
  // A header alone, with which the walk ends.
  expect(Part(EndOf(0), 0, 14), {86, 14, kHeader}, EndOf(4));
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
  const auto feature = [](std::uint16_t version) {
    return Record(1, version, 0,
                  Body(1, version, {{"feature", 7}, {"name", "Oak"}, {"kind", 2}, {"color", 0x332211}, {"symbol", 5}}));
  };
  for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2, 3}) {
    const ByteVector rest = Sample(2, 2) + Sample(6, 2) + Sample(9, 2) + EndOf(7);
    const ByteVector all =
        FileHeader(version) + old + header2(3) + feature(2) + Sample(1, 3) + attribute(3, x41) + rest;
    for (const unsigned short asIs : std::initializer_list<unsigned short>{0, 3, 7}) {
      ByteVector want = all;
      if (asIs == 3) want[42] = 3;
      EXPECT_EQ(Salvaged(all, asIs), want);
      EXPECT_TRUE(report.loss.IsNone());
    }
    EXPECT_EQ(Salvaged(all, 2), FileHeader(2) + old + header2(2) + feature(2) + feature(2) + attribute(2, x40) + rest);
    kesp::FormatLoss loss;
    loss.attributes = {1, 1, 0};
    EXPECT_EQ(report.loss, loss);
    EXPECT_EQ(Salvaged(all, 1), FileHeader(1) + old + Header1() + feature(1) + feature(1) + attribute(1, x40) +
                                    Sample(2, 1) + Sample(6, 1) + Sample(9, 1) + EndOf(7));
    loss.headers = {1, 0, 1};
    EXPECT_EQ(report.loss, loss);
  }
  // Without a version, an attribute is an empty one.
  const ByteVector empty = Hex("05 00*3 00 00 00*4 01 00*3");
  Salvaged(FileHeader() + empty + EndOf(7));
  EXPECT_EQ(report.kept, 2u);
  EXPECT_EQ(ReadFile(copy).size(), (FileHeader() + Attribute(0, "") + EndOf(7)).size());
}

TEST_F(Salvaging, LooksIntoNoRecordThatTheWalkStepsOverBeforeTheDamage) {
  const ByteVector ends = EndOf(1) + EndOf(2), damage(40);         // ends: 36 bytes
  const ByteVector image = Hex("01*8") + EndOf(5) + Sample(6, 2);  // of records
  const ByteVector unknown = Record(20, 1, 0, image), tag = Tag(0, "", image);
  // A note whose text is one of a record that ends where the note does.
  const ByteVector gone = Record(6, 2, 1, Hex("61 00*493") + EndOf(5));
  const auto expect = [&](const ByteVector& stepped, const ByteVector& kept, Counts counts,
                          int line = __builtin_LINE()) {
    Expect(FileHeader() + stepped + ends + damage + ends, FileHeader() + kept + ends + ends,
           {kFirst + stepped.size() + 36, 40, kHeader}, counts, line);
  };
  expect(unknown, {}, {.unknown = 1});
  expect(gone, {}, {.deleted = 1});
  expect(Record(20, 0x100, 0, image), {}, {.unknown = 1});
  expect(Tag(0, "", image, 1), {}, {.deleted = 1});
  expect(tag, tag, {});
  expect(unknown + gone + unknown, {}, {.deleted = 1, .unknown = 2});
  // Right before the damage, and after another.
  Expect(FileHeader() + ends + gone + damage + ends + gone + damage + ends, FileHeader() + ends + ends + ends,
         {86 + 526, 40, kHeader, 86 + 526 + 40 + 36 + 526, 40, kHeader}, {.deleted = 2});
  const ByteVector single = Record(20, 1, 0, Hex("01*8") + EndOf(5));  // 40 bytes
  Expect(FileHeader() + ends + single + damage + ends, FileHeader() + ends + ends, {86 + 40, 40, kHeader},
         {.unknown = 1});
  // And before a record that the walk reads although its header states another length.
  Expect(FileHeader() + ends + single + WithLength(EndOf(3), 9) + damage + ends, FileHeader() + ends + EndOf(3) + ends,
         {86 + 40 + 18, 40, kHeader}, {.unknown = 1});
}

TEST_F(Salvaging, FindsWhatWasAppendedAfterAHalfTag) {
  const ByteVector before = EndOf(1), after = EndOf(2) + EndOf(3) + EndOf(4) + EndOf(5);
  for (const bool isDeleted : {false, true}) {
    // 33 bytes of its payload are those of the next records. As the walk has it, it is taken.
    const ByteVector tag = Part(Tag(0, "", ByteVector(36, 0xAA), isDeleted), 0, 37);
    const ByteVector taken = isDeleted ? ByteVector() : Part(tag + after, 0, 14 + 56);
    Expect(FileHeader() + before + tag + after, FileHeader() + before + taken + after, {68, 37, kHeader});
    // Other damage before it: nothing of it is taken.
    Expect(FileHeader() + ByteVector(40) + before + tag + after, FileHeader() + before + after,
           {50, 40, kHeader, 108, 37, kHeader});
  }
}

TEST_F(Salvaging, AFileHeaderMayBeDamagedToo) {
  const ByteVector records = EndOf(1) + EndOf(2);
  Expect(FileHeader(7, 20) + records, FileHeader(7) + EndOf(2), {}, {.applicationBytes = 18});
  // The bytes before the first record are an application's where the walk comes to the end from there, whatever that
  // record looks like.
  Expect(FileHeader(3, 38) + EndOf(1) + EndOf(1) + WithLength(EndOf(3), 9) + EndOf(2),
         FileHeader() + EndOf(3) + EndOf(2), {}, {.applicationBytes = 36});
  // A length that leads to no record, past some: to the end, or in between.
  for (const std::uint32_t length : {38u, 5u})
    Expect(FileHeader(3, length) + records, FileHeader() + records, {0, 50, KESP_ERROR_FILE_HEADER});
  for (const std::uint16_t version : std::initializer_list<std::uint16_t>{0, 2, 4}) {
    for (const std::size_t at : {41u, 47u}) {
      ByteVector source = FileHeader(version) + records;
      source[at] ^= 1;
      const std::uint64_t reason = at == 41 ? KESP_ERROR_SIGNATURE : KESP_ERROR_FILE_HEADER;
      Expect(source, FileHeader(version == 2 ? 2 : 3) + records, {0, 50, reason});
    }
  }
  // A first record that can't be read: what is before its place is looked at once, also when none of it is kept.
  const ByteVector unreadable = Feature(1, "Oak", 0, 1, 0) + Hex("ee");
  Expect(FileHeader(3, 20) + EndOf(1, 1) + unreadable, FileHeader(), {68, 49, kHeader}, {.deleted = 1});
  Expect(FileHeader(3, 20) + Hex("aa*18") + unreadable, FileHeader(), {68, 49, KESP_ERROR_BAD_RECORD},
         {.applicationBytes = 18});
  for (const std::size_t length : {0u, 43u, 49u}) {
    EXPECT_EQ(Salvaged(Part(FileHeader(3, 0), 0, length)), FileHeader()) << length;
    EXPECT_EQ(report.gapBytes, length);
  }
}

TEST_F(Salvaging, NothingIsMadeUpOfWhatOnlyLooksLikeARecord) {
  const ByteVector doubtful[] = {
      EndOf(1, 0x2000),                                             // flags that nobody knows
      WithLength(EndOf(1), 5) + Hex("00"),                          // a length that no end has
      EndOf(1) + Hex("00"),                                         // nothing after it
      Record(9, 2, 0, Hex("01 00*3 08 00*3 00*4 01 00*3")),         // a payload outside the block
      Record(9, 2, 0, Hex("01 00*3 0c 00*3 04 00*3 \"dd\" 00*4")),  // a name without an end
  };
  for (const ByteVector& record : doubtful) {
    Expect(FileHeader() + EndOf(1) + ByteVector(40) + record + EndOf(3) + EndOf(2),
           FileHeader() + EndOf(1) + EndOf(3) + EndOf(2), {68, 40 + record.size(), kHeader});
  }
}

TEST_F(Salvaging, AfterDamageEveryTextHasToEndAndEveryNumberToBeFinite) {
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
      std::vector<std::pair<std::size_t, ByteVector>> refused;
      if (letter == 'c' || letter == 'u') refused.emplace_back(at + width - (letter == 'u' ? 2 : 1), ByteVector{1});
      if (letter == 'd') refused.emplace_back(at, Hex("00*6 f0 7f"));
      if (name == choice) refused.emplace_back(at, ByteVector{static_cast<std::uint8_t>(highest + 1)});
      if (name == choice) refused.emplace_back(at, ByteVector{1, 1});
      if (name == "note") refused.emplace_back(at, ByteVector(width, 1));  // no end at all
      for (const auto& [where, bytes] : refused) EXPECT_FALSE(isTakenWith(where, bytes)) << where;
      EXPECT_TRUE(letter != 'd' || isTakenWith(at, Hex("ff*6 ef 7f")));
    });
  }
}

TEST_F(Salvaging, FindsWhatIsBeyondFourGigabytes) {
  constexpr std::uint32_t kPassedOver = 0xFFFFFFE0;  // from 82 to 4 GiB and 50
  Put(EndOf(1) + WithLength(Record(200, 1, 0, {}), kPassedOver));
  PutAt(82 + std::uint64_t{kPassedOver}, EndOf(2) + ByteVector(40) + Sample(9, 2) + Sample(6, 2));
  EXPECT_TRUE(kesp::Salvage(Text(path), Text(copy), 0, report));
  EXPECT_EQ(ReadFile(copy), FileHeader() + EndOf(1) + EndOf(2) + Sample(9, 2) + Sample(6, 2));
  EXPECT_EQ(std::tuple(report.gaps[0].offset, report.gapBytes), std::tuple(82 + std::uint64_t{kPassedOver} + 18, 40));
}

TEST_F(Salvaging, FailsWhereItCannotWriteOrWouldWriteOverItsSource) {
  EXPECT_FALSE(kesp::Salvage(file, Text(copy), 2, report));  // not open
  EXPECT_FALSE(kesp::Salvage(Text(dir / "none"), Text(copy), 2, report));
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

TEST_F(Salvaging, BringsBackAllThatWasNotOverwritten) {
  ByteVector damaged = FileHeader() + EndOf(0), kept = damaged;
  std::mt19937 random(1);
  std::size_t gaps = 0, overwritten = 0;
  for (std::uint32_t i = 0; i < 10'000; ++i) {  // many times what the search looks at in one piece
    const ByteVector kinds[] = {Feature(i), Attribute(i, "Girth"),         Point(7, i),
                                EndOf(i),   Note("n" + std::to_string(i)), Tag(1, "n", Words({i}))};
    ByteVector record = kinds[i % 6];
    if (i % 97 == 0) {
      std::generate_n(record.begin(), 14 + random() % (record.size() - 14), std::ref(random));
      ++gaps, overwritten += record.size();
    } else {
      Append(kept, record);
    }
    Append(damaged, record);
  }
  EXPECT_EQ(Salvaged(damaged), kept);
  EXPECT_EQ(std::tuple(report.gapCount, report.gapBytes), std::tuple(gaps, overwritten));
}

}  // namespace
