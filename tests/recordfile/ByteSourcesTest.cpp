// Files that the host reads: the same as by path, also where reading fails, and what lies.
#include "kesp/platform/ByteSource.h"

#include <future>
#include <random>
#include <stdexcept>
#include <system_error>

#include "kesp/kesp.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/MemorySource.h"
#include "tests/support/Rows.h"
#include "tests/support/Views.h"

namespace kesp::test {
namespace {

// Longer than the largest buffer, with records of each kind.
ByteVector LongFile() {
  ByteVector bytes = FileHeader() + Header2{3};
  while (bytes.size() < std::size_t{5} << 20) {
    Append(bytes, Sample(3, 2) + Tag(0, "name", ByteVector(70'000, 7)) + Feature(7) + Attribute(7, "Girth", "thick"));
    for (std::uint32_t i = 0; i < 3000; ++i) Append(bytes, Point(7, i, {1, i * 0.5, -1.0 * i, "A"}));
  }
  return bytes;
}

class ByteSources : public OneFile {
 protected:
  void OpenBoth(const ByteVector& bytes, std::size_t mostAtOnce = ~std::size_t{0}) {
    file.Close();
    sourced.Close();
    WriteFile(path, bytes);
    EXPECT_EQ(sourced.OpenReadOnly(std::make_unique<MemorySource>(bytes, mostAtOnce), u"zip:/a.kesp"),
              file.OpenReadOnly(Text(path)));
    EXPECT_EQ(sourced.GetError(), file.GetError());
    EXPECT_EQ(sourced.GetSystemError(), file.GetSystemError());
  }
  // What a copy by each of the two made; the same is expected.
  template <class Copy>
  void ExpectSameCopy(Copy copy) {
    EXPECT_EQ(copy(sourced, Text(dir / "b")), copy(file, Text(dir / "c")));
    EXPECT_EQ(ReadFile(dir / "b"), ReadFile(dir / "c"));
    EXPECT_EQ(sourced.GetError(), file.GetError());
  }
  const IdleDisk disk;
  CKespDataFile sourced;
  SalvageReport report;
};

TEST_F(ByteSources, ReadAsByPath) {
  const ByteVector whole = FileHeader() + Sample(3, 2) + Tag(0, "t", {1, 2, 3}) + EndOf(7);
  std::vector<std::pair<ByteVector, std::size_t>> rows = {{LongFile(), ~std::size_t{0}}, {LongFile(), 4999}};
  for (std::size_t size = 0; size < whole.size(); size += size < 100 ? 1 : 97)
    rows.push_back({Part(whole, 0, size), 1});
  for (const auto& [bytes, mostAtOnce] : rows) {
    SCOPED_TRACE(bytes.size());
    OpenBoth(bytes, mostAtOnce);
    if (!file.IsOpen()) continue;
    EXPECT_EQ(sourced.m_file.GetFilePath(), u"zip:/a.kesp");
    EXPECT_EQ(sourced.GetLength(), bytes.size());
    sourced.ReadAhead(true);  // on this thread
    EXPECT_EQ(DifferenceOfWalks(file, sourced, false), "");
    EXPECT_EQ(RowsAtOnce(sourced, true), RowsAtOnce(file, true));
    ExpectSameCopy([](CKespDataFile& from, const CString& to) { return from.Copy(to); });
    EXPECT_EQ(ReadFile(dir / "b"), bytes);
    ExpectSameCopy(
        [](CKespDataFile& from, const CString& to) { return from.SeekToFirstRecord() && from.CopyVerify(to, 2); });
    ExpectSameCopy([&](CKespDataFile& from, const CString& to) { return Rebuild(from, to, 1, report); });
  }
}

TEST_F(ByteSources, RefuseWritesAsAFileThatIsOpenReadOnly) {
  CKespFeatureEnd end = EndRecord(7);
  const std::function<bool(CKespDataFile&)> rows[] = {
      [&](CKespDataFile& f) { return f.AppendRecord(&end, 0); },
      [&](CKespDataFile& f) { return f.OverwriteRecord(&end, 0); },
      [&](CKespDataFile& f) { return f.UpdateRecord(&end, 0, false); },
      [&](CKespDataFile& f) { return f.DeleteRecord(kFirst, KESP_RECORD_NONE); },
      [&](CKespDataFile& f) { return f.AmendRecord(end, EndRecord(8)); },
  };
  for (const auto& write : rows) {
    SCOPED_TRACE(&write - rows);
    OpenBoth(FileHeader() + EndOf(7));
    end.m_filePosition = kFirst;
    for (CKespDataFile* each : {&file, &sourced}) {
      ASSERT_TRUE(each->SeekToFirstRecord());
      EXPECT_FALSE(write(*each));
      EXPECT_EQ(each->GetSystemError(), EBADF);
      EXPECT_TRUE(each->Flush() && each->Close());
    }
  }
}

TEST_F(ByteSources, AreFilesOfTheirOwn) {
  bool destroyed = false;
  const auto make = [&] {
    std::shared_ptr<void> guard(nullptr, [&](void*) { destroyed = true; });
    return std::make_unique<MemorySource>(FileHeader(), ~std::size_t{0}, [guard](int) {});
  };
  CKespDataFile other;
  ASSERT_TRUE(file.OpenReadOnly(make(), Text(path)) && other.OpenReadOnly(make(), Text(path)));
  EXPECT_FALSE(file.m_file.Identity() == other.m_file.Identity());
  EXPECT_FALSE(file.OpenReadOnly(make(), u"b"));
  EXPECT_EQ(file.GetError(), KESP_ERROR_OPEN);
  EXPECT_EQ(file.m_path, Text(path));
  // The name is not a path.
  WriteFile(path, {});
  EXPECT_FALSE(file.m_file.IsSameFile(Text(path)));
  EXPECT_TRUE(file.Copy(Text(path)));
  EXPECT_EQ(ReadFile(path), FileHeader());

  destroyed = false;
  EXPECT_TRUE(file.Close() && destroyed && !file.IsOpen());
  destroyed = false;
  EXPECT_FALSE(file.OpenReadOnly(
      std::make_unique<MemorySource>(Hex("00"), 1,
                                     [g = std::shared_ptr<void>(nullptr, [&](void*) { destroyed = true; })](int) {}),
      u"a"));
  EXPECT_TRUE(destroyed);
  EXPECT_FALSE(file.OpenReadOnly(nullptr, u"a"));
  EXPECT_FALSE(Salvage(std::unique_ptr<ByteSource>(), Text(path), 0, report));
}

TEST_F(ByteSources, FailAsTheSystemDoes) {
  const struct {
    std::function<void()> raise;
    int reason;
  } rows[] = {{[] { throw std::system_error(ETIMEDOUT, std::generic_category()); }, ETIMEDOUT},
              {[] { throw std::system_error(EINTR, std::generic_category()); }, EINTR},
              {[] { throw CFileException(EACCES, u"b"); }, EACCES},
              {[] { throw CFileException(CFileException::endOfFile, u"b"); }, EIO},
              {[] { throw std::system_error(std::make_error_code(std::future_errc::no_state)); }, EIO},
              {[] { throw std::system_error(-1, std::generic_category()); }, EIO},
              {[] { throw std::bad_alloc(); }, ENOMEM},
              {[] { throw std::runtime_error("b"); }, EIO},
              {[] { throw 7; }, EIO}};
  const ByteVector bytes = FileHeader() + Sample(3, 2) + Tag(0, "t", ByteVector(2'000'000, 1)) + EndOf(7);
  OpenBoth(bytes);
  const Walked all = WalkOn(file);
  const Rows allRows = RowsAtOnce(file, false);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    bool struck = true;
    for (int at = 1; struck; ++at) {
      struck = false;
      sourced.Close();
      const auto fault = [&](int call) {
        if (call == at) struck = true, row.raise();
      };
      const auto expectReason = [&] { EXPECT_EQ(sourced.GetSystemError(), struck ? row.reason : 0) << at; };
      const bool isOpen = sourced.OpenReadOnly(std::make_unique<MemorySource>(bytes, 100'000, fault), u"a");
      expectReason();
      EXPECT_EQ(isOpen, !struck);
      if (!isOpen) continue;
      const Walked walked = WalkOn(sourced);
      expectReason();
      EXPECT_EQ(walked.error, struck ? KESP_ERROR_NONE : KESP_ERROR_NORMAL_EOF);
      EXPECT_TRUE(std::equal(walked.positions.begin(), walked.positions.end(), all.positions.begin()));
      // Each begins at the start, whatever happened before.
      bool before = struck;
      const bool sameRows = RowsAtOnce(sourced, false) == allRows;
      EXPECT_EQ(sameRows, before == struck) << at;
      before = struck;
      const bool isSalvaged = Salvage(sourced, Text(dir / "b"), 0, report);
      EXPECT_EQ(isSalvaged, before == struck) << at;
      expectReason();
    }
  }
}

// Says another length than it has, ends early, returns more than was asked for, or has other bytes each time.
struct Liar : MemorySource {
  Liar(const ByteVector& file, int lie) : MemorySource(file), bytes(file), kind(lie) {}
  std::uint64_t Length() override {
    const std::uint64_t size = bytes.size();
    const std::uint64_t lengths[] = {size - 1, size + 1, 0x7FFFFFFF, (std::uint64_t{1} << 62) + 0x7FFFFFFF, ~size};
    return kind < 5 ? lengths[kind] : size;
  }
  std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
    if (kind == 5) return offset < 9000 ? MemorySource::ReadAt(offset, to, count) : 0;
    if (kind == 6) return count + 1;
    for (std::size_t i = 0; i < count; ++i) {
      if (kind < 5 && offset + i >= bytes.size()) return i;
      static_cast<std::uint8_t*>(to)[i] = bytes[static_cast<std::size_t>((offset + i) % bytes.size())];
    }
    if (kind > 6 && count > 1) static_cast<std::uint8_t*>(to)[random() % count] ^= static_cast<std::uint8_t>(random());
    return count;
  }
  const ByteVector bytes;
  const int kind;
  std::minstd_rand random{static_cast<unsigned>(kind)};
};
// A tag of 3 GiB, more than an address space of 32 bits has room for; with 64 bits it would just be read.
TEST_F(ByteSources, MayHoldMoreThanMemoryCan) {
  if (sizeof(void*) > 4) GTEST_SKIP() << "addresses have more than 32 bits";
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer ends a program that asks for so much";
#endif
  struct Long : ByteSource {
    std::uint64_t Length() override { return 0xFFFFFFFF; }
    std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
      for (std::size_t i = 0; i < count; ++i) {
        static_cast<std::uint8_t*>(to)[i] = offset + i < head.size() ? head[static_cast<std::size_t>(offset + i)] : 0;
      }
      return count;
    }
    const ByteVector head = FileHeader() + Record(9, 2, 0, Hex("01000000 000000c0"));
  };
  CKespDataFile whole;
  ASSERT_TRUE(whole.OpenReadOnly(std::make_unique<Long>(), u"a") && whole.SeekToFirstRecord());
  EXPECT_EQ(WalkOn(whole).positions.size(), 0u);
  EXPECT_EQ(std::tuple(whole.GetSystemError(), whole.GetError()), std::tuple(ENOMEM, KESP_ERROR_NONE));
}

TEST_F(ByteSources, MayLie) {
  const ByteVector bytes = FileHeader() + Header2{3} + Sample(3, 2) + Tag(0, "t", ByteVector(200'000, 1)) + EndOf(7);
  OpenBoth(bytes);
  const Walked all = WalkOn(file);
  for (int kind = 0; kind < 200; ++kind) {
    SCOPED_TRACE(kind);
    const auto liar = [&] { return std::make_unique<Liar>(bytes, kind); };
    CKespDataFile lied;
    const bool isOpen = lied.OpenReadOnly(liar(), u"a");
    if (kind < 7) {
      EXPECT_EQ(isOpen, kind != 4 && kind != 6);
    }
    if (isOpen && lied.SeekToFirstRecord()) {
      const Walked walked = WalkOn(lied);
      if (kind < 7) {
        EXPECT_EQ(walked.positions.size(), all.positions.size() - (kind == 0 ? 1 : kind == 5 ? 2 : 0));
        EXPECT_EQ(lied.GetSystemError(), kind == 0 ? 0 : EIO);
      }
      (void)RowsAtOnce(lied, true);
    }
    (void)Salvage(liar(), Text(dir / "b"), 0, report);
    CKespFile survey;
    CString message;
    EXPECT_EQ(survey.OpenKespReadOnly(liar(), u"a", message), ERR_NONE);
    try {
      (void)survey.ReadKespFile(true);
    } catch (const CFileException&) {  // a version-1 feature that is cut short
    }
  }
}

}  // namespace
}  // namespace kesp::test
