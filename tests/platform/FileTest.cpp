#include "tests/platform/FileFixture.h"

#include <functional>

#include "tests/support/Records.h"

namespace kesp::test {
namespace {

class File : public FileFixture {
 protected:
  void RunBesideAModel(unsigned seed, int steps, bool readsAhead);
};

// Thousands of operations, each also made on an array of bytes. Positions are drawn around the edges of the read buffer
// (1 MiB) as well as near each other, so that writes fall inside it, at its end, after and before it, and into what is
// read ahead.
void File::RunBesideAModel(unsigned seed, int steps, bool readsAhead) {
  CFile file(name, kCreator);
  ByteVector model;
  std::size_t position = 0;
  std::mt19937 random(seed);
  const auto below = [&random](std::size_t limit) { return limit == 0 ? 0 : random() % limit; };
  const auto size = [&] { return below(20) == 0 ? below(1'600'000) : below(200); };
  const auto write = [&](std::size_t count) {
    ByteVector bytes(count);
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
    file.Write(bytes.data(), bytes.size());
    return bytes;
  };
  const auto put = [&](const ByteVector& bytes) {
    if (bytes.empty()) return;
    model.resize(std::max(model.size(), position + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), model.data() + position);
    position += bytes.size();
  };
  const auto read = [&](std::size_t count) {
    ByteVector bytes(count);
    const ByteVector expected = Part(model, position, position + count);
    if (count <= CFile::kMaxView && below(2) == 0) {
      const auto* const seen = reinterpret_cast<const std::uint8_t*>(file.ReadView(count).data());
      bytes.assign(seen, seen + expected.size());
    } else {
      bytes.resize(file.Read(bytes.data(), count));
    }
    ASSERT_TRUE(bytes == expected) << count;
    position += expected.size();
  };
  const auto seek = [&](std::size_t to) {
    ASSERT_EQ(file.Seek(static_cast<std::int64_t>(to), CFile::begin), position = to);
  };
  if (readsAhead) put(write(5'000'001));
  for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE(step);
    const std::size_t kind = below(90), start = position;
    if (kind < 30) {
      read(size());
    } else if (kind < 50) {
      put(write(size()));
      if (below(4) == 0) seek(start);
    } else if (kind < 60) {
      CFile::Gather gather(file);
      const ByteVector first = write(size()), all = first + write(size());
      if (below(3) == 0) continue;
      gather.Commit();
      put(all);
    } else if (kind < 70) {
      seek(below(2) == 0 ? below(2'800'000) : std::min<std::size_t>(position + below(300), 2'800'000));
    } else if (kind < 80) {
      const std::size_t back = below(std::min<std::size_t>(position + 1, 500));
      ASSERT_EQ(file.Seek(-static_cast<std::int64_t>(back), CFile::current), position -= back);
    } else if (kind == 80 && !readsAhead) {
      model.resize(below(2'400'000));
      file.SetLength(model.size());
    } else if (kind == 80) {
      if (below(2) == 0) seek(below(model.size()));
      file.StartBlockReader();
      for (std::size_t pieces = below(300); pieces != 0; --pieces) {
        read(below(pieces % 8 == 0 ? CFile::kMaxView : 300) + 1);
        if (below(50) != 0) continue;
        seek(position + below(2'800'000));  // over what is not wanted
        if (below(2) == 0) put(write(3000)), seek(position - 3000);
        file.StartBlockReader();  // at work already, if nothing was written
      }
    }
    ASSERT_EQ(file.GetPosition(), position);
    ASSERT_TRUE(below(50) != 0 || file.GetLength() == model.size());
  }
  file.Close();
  EXPECT_TRUE(ReadFile(path) == model);
}
TEST_F(File, ReadsWhatItWroteWhereverThatFallsInTheBuffer) {
  RunBesideAModel(1, 2500, false);
  RunBesideAModel(3, 2500, true);
  FaultySystem halves(1, Fault::Short, true);  // of what was asked
  RunBesideAModel(2, 1000, false);
}

TEST_F(File, AFailureOfReadingAheadIsLeftToTheReadThere) {
  constexpr std::int64_t kPlace = 5'000'000, kSize = 9'000'001;
  WriteFile(path, ByteVector(kSize));
  for (const int times : {1, 1'000'000}) {
    const BadSpot bad(kPlace, times);
    CFile file(name, kReader);
    file.StartBlockReader();
    std::int64_t got = 0;
    const auto readAll = [&] {
      while (const std::size_t size = file.ReadView(10'000).size()) got += static_cast<std::int64_t>(size);
    };
    EXPECT_EQ(CauseOf(readAll), times == 1 ? CFileException::none : CFileException::hardIO);
    EXPECT_LE(got, times == 1 ? kSize : kPlace);
    EXPECT_GE(got, times == 1 ? kSize : 0) << "read again, there";
  }
}

TEST_F(File, ReadsAheadFarIntoALongFile) {
  constexpr std::uint32_t kMarks = 100, kStep = 1 << 20;
  constexpr std::int64_t kFrom = std::int64_t{5} << 30;  // beyond 32 bits, after a hole
  CFile file(name, kCreator);
  for (std::uint32_t i = 0; i < kMarks; ++i) file.Seek(kFrom + i * kStep, CFile::begin), file.Write(&i, sizeof i);
  file.Seek(kFrom, CFile::begin);
  (void)file.ReadView(1);
  file.StartBlockReader();  // from where the buffer ends
  file.Seek(kFrom, CFile::begin);
  for (std::uint32_t i = 0, mark = kMarks; i < kMarks; ++i) {
    EXPECT_EQ(file.Read(&mark, sizeof mark), sizeof mark);
    EXPECT_EQ(mark, i);
    for (std::size_t rest = kStep - sizeof mark, size = 1; rest != 0 && size != 0; rest -= size)
      size = file.ReadView(std::min<std::size_t>(rest, 60'000)).size();
  }
}

TEST_F(File, FindsWhatAnotherWriterAppended) {
  WriteFile(path, ByteVector(1000, 7));
  CFile file(name, kReader);
  EXPECT_THROW((void)file.ReadView(CFile::kMaxView + 1), CInvalidArgException);
  EXPECT_EQ(file.ReadView(2000).size(), 1000u);
  EXPECT_FALSE(file.ReachesTo(1001));
  WriteFile(path, ByteVector(1000, 7) + Hex("'and new'"));
  EXPECT_TRUE(file.ReachesTo(1007));
  EXPECT_EQ(ReadText(file, 10), "and new");
}

TEST_F(File, WhoDeniesWritingKeepsWritersOutAndReadersIn) {
  constexpr unsigned kFree = CFile::modeReadWrite | CFile::shareDenyNone, kDenier = kReader | CFile::shareDenyWrite;
#ifdef _WIN32
  constexpr bool kDeniersAgree = true;  // neither writes
#else
  constexpr bool kDeniersAgree = false;
#endif
  // clang-format off
  const std::tuple<unsigned, unsigned, bool> kCases[] = {
      {kWriter, kCreator, false}, {kWriter, kFree, false}, {kWriter, kReader, true}, {kReader, kWriter, true},
      {kFree, kWriter, false}, {kFree, kFree, true}, {kDenier, kDenier, kDeniersAgree},
      {CFile::shareExclusive, kDenier, false}};
  // clang-format on
  for (const auto& [first, then, admitted] : kCases) {
    SCOPED_TRACE(testing::Message() << std::hex << first << ' ' << then);
    WriteFile(path, Hex("'bytes'"));
    CFile holder(name, first), second;
    CFileException error(CFileException::none, name);
    EXPECT_EQ(second.Open(name, then, &error), admitted);
    EXPECT_EQ(error.m_cause, admitted ? CFileException::none : CFileException::sharingViolation);
    EXPECT_EQ(ReadText(holder, 5), "bytes");
    holder.Close();
    EXPECT_TRUE(second.Open(name, then, &error)) << "the lock ends with Close";
  }
}

TEST_F(File, TellsWhyAnOperationFailed) {
  WriteFile(path, Hex("'0123456789'"));
  CFile file;
  for (const auto& [bad, cause] : {std::pair{std::string("."), CFileException::invalidFile},
                                   {"file/x", CFileException::badPath},
                                   {"none", CFileException::fileNotFound},
                                   {std::string(300, 'x'), CFileException::badPath}}) {
    CFileException error(CFileException::none, {});
    EXPECT_FALSE(file.Open(Text(dir / bad), kWriter)) << bad;
    EXPECT_FALSE(file.Open(Text(dir / bad), kReader, &error)) << bad;
    EXPECT_EQ(error.m_cause, cause) << bad;
    EXPECT_NE(error.GetErrorMessage().Find(Text(dir / bad)), -1) << error.what();
  }
  const std::function<void()> kOnAClosedFile[] = {[&] { (void)ReadText(file, 1); }, [&] { (void)file.ReadView(1); },
                                                  [&] { file.Write("a", 1); },      [&] { file.SetLength(1); },
                                                  [&] { (void)file.GetLength(); },  [&] { file.SeekToBegin(); }};
  for (const auto& run : kOnAClosedFile) EXPECT_EQ(CauseOf(run), CFileException::invalidFile) << &run - kOnAClosedFile;
  EXPECT_EQ(CauseOf([&] { CFile::Remove(Text(dir / "none")); }), CFileException::fileNotFound);

  ASSERT_TRUE(file.Open(name, kWriter));
  const auto write = [&file] { file.Write("ab", 2); };
  const auto failing = [&file](Fault fault, auto run) {
    file.SeekToBegin();
    FaultySystem system(1, fault, true);
    return CauseOf(run);
  };
  EXPECT_EQ(failing(Fault::Error, [&] { (void)ReadText(file, 4); }), CFileException::hardIO);
  EXPECT_EQ(failing(Fault::Full, [&] { file.SetLength(20); }), CFileException::diskFull);
  for (const auto& [offset, from] :
       {std::pair{std::int64_t{-1}, CFile::begin}, {-11, CFile::end}, {INT64_MIN, CFile::current}})
    EXPECT_EQ(CauseOf([&, to = offset, origin = from] { file.Seek(to, origin); }), CFileException::badSeek);
  EXPECT_EQ(file.Seek(INT64_MAX, CFile::begin), std::uint64_t{INT64_MAX});
  EXPECT_EQ(ReadText(file, 4), "");
  EXPECT_EQ(CauseOf(write), CFileException::diskFull);
  EXPECT_EQ(CauseOf([&] { file.Seek(1, CFile::current); }), CFileException::badSeek);
  EXPECT_EQ(file.Seek(-10, CFile::end), 0u);
  EXPECT_EQ(ReadText(file, 20), "0123456789");
  EXPECT_EQ(failing(Fault::Torn, write), CFileException::diskFull);
  EXPECT_EQ(ReadText(file, 3), "a12") << "what this object reads is what the file holds";
  EXPECT_EQ(failing(Fault::Error, [&] { file.Close(); }), CFileException::hardIO);
  EXPECT_FALSE(file.IsOpen());
  ASSERT_TRUE(file.Open(name, kReader));
  EXPECT_EQ(CauseOf(write), CFileException::accessDenied);
  EXPECT_EQ(CauseOf([&] { file.SetLength(0); }), CFileException::accessDenied);
  EXPECT_EQ(ReadFile(path), Hex("'a123456789'"));
}

TEST_F(File, ClosesWhateverComes) {
  CFile file(name, kCreator);
  CFile::Gather gather(file);
  file.Write("lost", 4);
  EXPECT_EQ(ReadFile(path).size(), 0u);
  FaultySystem failing(1, Fault::Error);
  EXPECT_EQ(CauseOf([&] { file.Close(); }), CFileException::hardIO);
  EXPECT_FALSE(file.IsOpen());
}

}  // namespace
}  // namespace kesp::test
