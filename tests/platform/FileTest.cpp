#include "kesp/platform/File.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <random>

#include "tests/support/Bytes.h"
#include "tests/support/FaultySystem.h"

namespace kesp::test {
namespace {

constexpr unsigned kWriter = CFile::modeReadWrite | CFile::shareDenyWrite;
constexpr unsigned kCreator = kWriter | CFile::modeCreate;

// The cause of what `run` raises; none when it raises nothing.
template <class Run>
CFileException::Cause CauseOf(Run run) {
  try {
    run();
  } catch (const CFileException& error) {
    return error.m_cause;
  }
  return CFileException::none;
}

void WriteText(CFile& file, const std::string& text) { file.Write(text.data(), text.size()); }
std::string ReadText(CFile& file, std::size_t count) {
  std::string text(count, '?');
  text.resize(file.Read(text.data(), count));
  return text;
}

// Every second call is interrupted, and reads and writes move half of what was asked.
class Halting : public SystemCalls {
 public:
  Halting() { SetSystemCalls(this); }
  ~Halting() override { SetSystemCalls(nullptr); }
  int Open(const char* path, int flags, unsigned mode) override {
    return Interrupted() ? -1 : SystemCalls::Open(path, flags, mode);
  }
  int Lock(int fd, int operation) override { return Interrupted() ? -1 : SystemCalls::Lock(fd, operation); }
  ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset) override {
    return Interrupted() ? -1 : SystemCalls::Read(fd, to, (count + 1) / 2, offset);
  }
  ssize_t Write(int fd, const void* from, std::size_t count, std::int64_t offset) override {
    return Interrupted() ? -1 : SystemCalls::Write(fd, from, (count + 1) / 2, offset);
  }
  int Truncate(int fd, std::int64_t length) override { return Interrupted() ? -1 : SystemCalls::Truncate(fd, length); }
  int DataSync(int fd) override { return Interrupted() ? -1 : SystemCalls::DataSync(fd); }

 private:
  bool Interrupted() {
    errno = EINTR;
    return (m_odd = !m_odd);
  }
  bool m_odd = false;
};

// Thousands of operations beside an array of bytes that goes through the same. Positions are drawn around the edges of
// the read buffer (256 KiB) as well as near each other, so that writes fall inside, at the end of, behind and before
// it.
void RunBesideAModel(unsigned seed, int steps) {
  TempDir dir;
  CFile file(Text(dir / "file"), kCreator);
  ByteVector model;
  std::size_t position = 0;
  std::mt19937 random(seed);
  const auto below = [&random](std::size_t limit) { return limit == 0 ? 0 : random() % limit; };
  const auto size = [&] { return below(20) == 0 ? below(300'000) : below(200); };
  const auto write = [&] {
    ByteVector bytes(size());
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
    file.Write(bytes.data(), bytes.size());
    return bytes;
  };
  const auto put = [&](const ByteVector& bytes) {
    if (bytes.empty()) return;
    if (model.size() < position + bytes.size()) model.resize(position + bytes.size());
    std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<std::ptrdiff_t>(position));
    position += bytes.size();
  };
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE(step);
    const std::size_t left = position < model.size() ? model.size() - position : 0;
    switch (below(9)) {
      case 0:
      case 1:
      case 2: {
        const std::size_t count = size();
        const std::size_t expected = std::min(count, left);
        ByteVector bytes(count);
        if (count <= CFile::kMaxView && below(2) == 0) {
          const auto seen = file.ReadView(count);
          ASSERT_EQ(seen.size(), expected);
          std::copy_n(reinterpret_cast<const std::uint8_t*>(seen.data()), seen.size(), bytes.begin());
        } else {
          ASSERT_EQ(file.Read(bytes.data(), count), expected);
        }
        ASSERT_TRUE(expected == 0 || std::equal(bytes.data(), bytes.data() + expected, model.data() + position));
        position += expected;
        break;
      }
      case 3:
      case 4:
        put(write());
        break;
      case 5: {
        CFile::Gather gather(file);
        ByteVector all = write();
        Append(all, write());
        if (below(3) != 0) {
          gather.Commit();
          put(all);
        }
        break;
      }
      case 6:
        position = below(2) == 0 ? below(700'000) : std::min<std::size_t>(position + below(300), 700'000);
        ASSERT_EQ(file.Seek(static_cast<std::int64_t>(position), CFile::begin), position);
        break;
      case 7: {
        const auto back = static_cast<std::int64_t>(below(std::min<std::size_t>(position + 1, 500)));
        position -= static_cast<std::size_t>(back);
        ASSERT_EQ(file.Seek(-back, CFile::current), position);
        break;
      }
      default:
        if (below(10) != 0) break;
        model.resize(below(600'000));
        file.SetLength(model.size());
    }
    ASSERT_TRUE(file.GetPosition() == position && (below(50) != 0 || file.GetLength() == model.size()));
  }
  file.Flush();
  file.Close();
  EXPECT_TRUE(ReadFile(dir / "file") == model);
}
TEST(File, ReadsWhatItWroteWhereverThatFallsInTheBuffer) { RunBesideAModel(1, 4000); }
TEST(File, InterruptedAndShortCallsGoUnnoticed) {
  Halting system;
  RunBesideAModel(2, 1500);
}

TEST(File, ReadsAheadAndFindsWhatAnotherWriterAppended) {
  TempDir dir;
  WriteFile(dir / "file", ByteVector(1 << 20, 7));
  CFile file(Text(dir / "file"), CFile::modeRead);
  FaultySystem system;
  while (file.ReadView(14).size() == 14) {
  }
  EXPECT_LT(system.Calls("read"), 20);
  EXPECT_THROW((void)file.ReadView(CFile::kMaxView + 1), CInvalidArgException);
  EXPECT_FALSE(file.ReachesTo((1 << 20) + 1));
  WriteFile(dir / "file", ByteVector(1 << 20, 7) + Hex("'and new'"));
  EXPECT_TRUE(file.ReachesTo((1 << 20) + 7));
  EXPECT_EQ(ReadText(file, 10), "and new");
}

TEST(File, WhoDeniesWritingKeepsWritersOutAndReadersIn) {
  constexpr unsigned kReader = CFile::modeRead;
  constexpr unsigned kDenyNoneWriter = CFile::modeReadWrite | CFile::shareDenyNone;
  constexpr unsigned kDenyingReader = CFile::modeRead | CFile::shareDenyWrite;
  const struct {
    unsigned holder, second;
    bool admitted;
  } kCases[] = {{kWriter, kWriter, false},         {kWriter, kCreator, false},
                {kWriter, kDenyNoneWriter, false}, {kWriter, kDenyNoneWriter | CFile::modeCreate, false},
                {kWriter, kReader, true},          {kReader, kWriter, true},
                {kDenyNoneWriter, kWriter, false}, {kDenyNoneWriter, kDenyNoneWriter, true},
                {kDenyingReader, kWriter, false},  {kDenyingReader, kDenyingReader, false},
                {kDenyingReader, kReader, true},   {CFile::shareExclusive, kDenyingReader, false}};
  TempDir dir;
  const auto path = Text(dir / "file");
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.holder << ' ' << c.second);
    WriteFile(dir / "file", Hex("'bytes'"));
    CFile holder(path, c.holder);
    CFile second;
    CFileException error(CFileException::none, path);
    EXPECT_EQ(second.Open(path, c.second, &error), c.admitted);
    EXPECT_EQ(error.m_cause, c.admitted ? CFileException::none : CFileException::sharingViolation);
    EXPECT_EQ(ReadText(holder, 5), "bytes");
    holder.Close();
    EXPECT_TRUE(second.Open(path, c.second, &error)) << "the lock ends with Close";
  }
}

TEST(File, RefusesAtOnceWhatIsNoFile) {
  TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
  WriteFile(dir / "file", {});
  const struct {
    std::string name;
    CFileException::Cause cause;
    // clang-format off
  } kCases[] = {{"pipe", CFileException::invalidFile}, {".", CFileException::invalidFile},
                {"none", CFileException::fileNotFound}, {"file/x", CFileException::badPath},
                {std::string(300, 'x'), CFileException::badPath}};
  // clang-format on
  for (const auto& c : kCases) {
    for (const unsigned flags : {unsigned{CFile::modeRead}, kWriter}) {
      CFileException error(CFileException::none, {});
      CFile file;
      EXPECT_FALSE(file.Open(Text(dir / c.name), flags, &error)) << c.name;
      EXPECT_EQ(error.m_cause, c.cause) << c.name;
      EXPECT_NE(error.GetErrorMessage().Find(Text(dir / c.name)), -1) << error.what();
      EXPECT_EQ(CauseOf([&] { (void)ReadText(file, 1); }), CFileException::invalidFile);
    }
  }
  EXPECT_EQ(CauseOf([&] { CFile::Remove(Text(dir / "none")); }), CFileException::fileNotFound);
}

TEST(File, TellsWhyAnOperationFailed) {
  TempDir dir;
  WriteFile(dir / "file", Hex("'0123456789'"));
  const auto path = Text(dir / "file");
  using Fault = FaultySystem::Fault;
  CFile file(path, kWriter);
  const auto failing = [&file](Fault fault, auto run) {
    file.SeekToBegin();
    FaultySystem system(1, fault, true);
    return CauseOf(run);
  };
  EXPECT_EQ(failing(Fault::Error, [&] { (void)ReadText(file, 4); }), CFileException::hardIO);
  EXPECT_EQ(failing(Fault::Full, [&] { WriteText(file, "x"); }), CFileException::diskFull);
  EXPECT_EQ(failing(Fault::Full, [&] { file.SetLength(20); }), CFileException::diskFull);
  for (const auto& [offset, from] :
       {std::pair{std::int64_t{-1}, CFile::begin}, {-11, CFile::end}, {INT64_MIN, CFile::current}})
    EXPECT_EQ(CauseOf([&, to = offset, origin = from] { file.Seek(to, origin); }), CFileException::badSeek);
  EXPECT_EQ(file.Seek(INT64_MAX, CFile::begin), std::uint64_t{INT64_MAX});
  EXPECT_EQ(ReadText(file, 4), "");
  EXPECT_EQ(CauseOf([&] { WriteText(file, "x"); }), CFileException::diskFull);
  EXPECT_EQ(CauseOf([&] { file.Seek(1, CFile::current); }), CFileException::badSeek);
  EXPECT_EQ(file.Seek(-10, CFile::end), 0u);
  EXPECT_EQ(ReadText(file, 20), "0123456789");
  {
    FaultySystem system(1, Fault::Error);
    EXPECT_EQ(CauseOf([&] { file.Close(); }), CFileException::hardIO);
    EXPECT_FALSE(file.IsOpen());
  }
  ASSERT_TRUE(file.Open(path, CFile::modeRead));
  EXPECT_EQ(CauseOf([&] { WriteText(file, "x"); }), CFileException::accessDenied);
  EXPECT_EQ(CauseOf([&] { file.SetLength(0); }), CFileException::accessDenied);
  file.Flush();
  EXPECT_EQ(ReadFile(dir / "file"), Hex("'0123456789'"));
}

TEST(File, ANewFileIsFlushedWithItsDirectoryOnceAndAFailedFlushIsFinal) {
  TempDir dir;
  CFile file(Text(dir / "file"), kCreator);
  WriteText(file, "abc");
  {
    FaultySystem system;
    file.Flush();
    file.Flush();
    EXPECT_TRUE(system.Calls("fdatasync") == 2 && system.Calls("fsync") == 1);
  }
  {
    FaultySystem system(1, FaultySystem::Fault::Error);
    EXPECT_EQ(CauseOf([&] { file.Flush(); }), CFileException::hardIO);
  }
  EXPECT_EQ(CauseOf([&] { file.Flush(); }), CFileException::hardIO);
  EXPECT_EQ(CauseOf([&] { WriteText(file, "d"); }), CFileException::hardIO);
  file.SeekToBegin();
  EXPECT_EQ(ReadText(file, 4), "abc");
  ASSERT_TRUE(file.Open(Text(dir / "file"), kWriter));
  file.Flush();
}

TEST(File, GatheredWritesReachTheSystemTogetherOrNotAtAll) {
  TempDir dir;
  WriteFile(dir / "file", Hex("'0123456789'"));
  CFile file(Text(dir / "file"), kWriter);
  file.Seek(2, CFile::begin);
  FaultySystem system;
  for (const bool commit : {false, true}) {
    CFile::Gather gather(file);
    WriteText(file, "abc");
    WriteText(file, "d");
    EXPECT_TRUE(file.GetPosition() == 6 && system.Calls() == 0 && ReadFile(dir / "file") == Hex("'0123456789'"));
    if (!commit) continue;
    gather.Commit();
    EXPECT_EQ(ReadText(file, 9), "6789") << "what reads behind it sees the file with it";
  }
  EXPECT_EQ(system.Calls("write"), 1);
  EXPECT_EQ(ReadFile(dir / "file"), Hex("'01abcd6789'"));
  file.SeekToBegin();
  std::optional<CFile::Gather> gather(file);
  WriteText(file, "lost");
  FaultySystem failing(1, FaultySystem::Fault::Error);
  EXPECT_EQ(CauseOf([&] { file.Close(); }), CFileException::hardIO);
  EXPECT_FALSE(file.IsOpen()) << "closed even when what was gathered can't be written";
}

}  // namespace
}  // namespace kesp::test
