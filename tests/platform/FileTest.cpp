#include "kesp/platform/File.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <random>
#include <thread>

#include "tests/support/Bytes.h"
#include "tests/support/FaultySystem.h"

namespace kesp::test {
namespace {

using Fault = FaultySystem::Fault;
constexpr unsigned kReader = CFile::modeRead;
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
std::string ReadText(CFile& file, std::size_t count) {
  std::string text(count, '?');
  text.resize(file.Read(text.data(), count));
  return text;
}

// Thousands of operations beside an array of bytes that goes through the same. Positions are drawn around the edges of
// the read buffer (1 MiB) as well as near each other, so that writes fall inside, at the end of, behind and before
// it, and into what is read ahead.
void RunBesideAModel(unsigned seed, int steps, bool readsAhead) {
  TempDir dir;
  CFile file(Text(dir / "file"), kCreator);
  ByteVector model;
  std::size_t position = 0;
  std::mt19937 random(seed);
  const auto below = [&random](std::size_t limit) { return limit == 0 ? 0 : random() % limit; };
  const auto size = [&] { return below(20) == 0 ? below(1'600'000) : below(200); };
  const auto write = [&](std::size_t count) {
    ByteVector bytes(count);
    auto word = static_cast<std::uint32_t>(random());
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>((word = word * 1664525 + 1013904223) >> 24);
    file.Write(bytes.data(), bytes.size());
    return bytes;
  };
  const auto put = [&](const ByteVector& bytes) {
    if (!bytes.empty()) model.resize(std::max(model.size(), position + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<std::ptrdiff_t>(bytes.empty() ? 0 : position));
    position += bytes.size();
  };
  const auto read = [&](std::size_t count) {
    ByteVector bytes(count);
    const std::size_t expected = std::min(count, model.size() - std::min(position, model.size()));
    if (count <= CFile::kMaxView && below(2) == 0) {
      const auto seen = file.ReadView(count);
      ASSERT_EQ(seen.size(), expected);
      std::copy_n(reinterpret_cast<const std::uint8_t*>(seen.data()), seen.size(), bytes.begin());
    } else {
      ASSERT_EQ(file.Read(bytes.data(), count), expected);
    }
    ASSERT_TRUE(expected == 0 || std::equal(bytes.data(), bytes.data() + expected, model.data() + position));
    position += expected;
  };
  const auto seek = [&](std::size_t to) { ASSERT_EQ(file.Seek(static_cast<std::int64_t>(to), CFile::begin), to); };
  if (readsAhead) put(write(5'000'001));
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE(step);
    const std::size_t kind = below(90);
    if (kind < 30) {
      read(size());
    } else if (kind < 50) {
      const std::size_t start = position;
      put(write(size()));
      if (below(4) == 0) seek(position = start);
    } else if (kind < 60) {
      CFile::Gather gather(file);
      const ByteVector first = write(size()), all = first + write(size());
      if (below(3) == 0) continue;
      gather.Commit();
      put(all);
    } else if (kind < 70) {
      position = below(2) == 0 ? below(2'800'000) : std::min<std::size_t>(position + below(300), 2'800'000);
      seek(position);
    } else if (kind < 80) {
      const std::size_t back = below(std::min<std::size_t>(position + 1, 500));
      ASSERT_EQ(file.Seek(-static_cast<std::int64_t>(back), CFile::current), position -= back);
    } else if (kind == 80 && !readsAhead) {
      model.resize(below(2'400'000));
      file.SetLength(model.size());
    } else if (kind == 80) {
      if (below(2) == 0) seek(position = below(model.size()));
      file.StartBlockReader();
      for (std::size_t pieces = below(300); pieces != 0 && !testing::Test::HasFailure(); --pieces) {
        read(below(pieces % 8 == 0 ? CFile::kMaxView : 300) + 1);
        if (below(50) != 0) continue;
        seek(position += below(2'800'000));  // over what is not wanted
        if (below(2) == 0) put(write(3000)), seek(position -= 3000);
        file.StartBlockReader();  // at work already, if nothing was written
      }
    }
    ASSERT_TRUE(file.GetPosition() == position && (below(50) != 0 || file.GetLength() == model.size()));
  }
  file.Close();
  EXPECT_TRUE(ReadFile(dir / "file") == model);
}
TEST(File, ReadsWhatItWroteWhereverThatFallsInTheBuffer) {
  RunBesideAModel(1, 2500, false);
  RunBesideAModel(3, 2500, true);
  FaultySystem halves(1, Fault::Short, true);  // of what was asked
  RunBesideAModel(2, 1000, false);
}

// Fails the reads that reach a place in the file, so often; any thread may read.
class BadSpot : public SystemCalls {
 public:
  explicit BadSpot(int times) : m_times(times) { SetSystemCalls(this); }
  ~BadSpot() override { SetSystemCalls(nullptr); }
  ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset) override {
    if (offset > kPlace || offset + static_cast<std::int64_t>(count) <= kPlace || m_times-- <= 0)
      return SystemCalls::Read(fd, to, count, offset);
    errno = EIO;
    return -1;
  }
  static constexpr std::int64_t kPlace = 5'000'000;

 private:
  std::atomic<int> m_times;
};

TEST(File, ReadingAheadLeavesAFailureToWhoeverReadsThere) {
  TempDir dir;
  WriteFile(dir / "file", ByteVector(9'000'001));
  for (const int times : {1, 1'000'000}) {
    const BadSpot bad(times);
    CFile file(Text(dir / "file"), kReader);
    file.StartBlockReader();
    std::int64_t got = 0;
    const auto readAll = [&] {
      while (const std::size_t size = file.ReadView(10'000).size()) got += static_cast<std::int64_t>(size);
    };
    EXPECT_EQ(CauseOf(readAll), times == 1 ? CFileException::none : CFileException::hardIO);
    EXPECT_TRUE(times == 1 ? got == 9'000'001 : got <= BadSpot::kPlace) << "tried again, and there";
  }
}

TEST(File, ReadsAheadWithoutTakingASignalOfTheHosts) {
  static std::atomic<int> taken = 0;
  TempDir dir;
  WriteFile(dir / "file", ByteVector(9'000'001));
  CFile file(Text(dir / "file"), kReader);
  file.StartBlockReader();
  (void)file.ReadView(1);
  const auto before = std::signal(SIGUSR1, [](int) { ++taken; });
  sigset_t signals, masked;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &signals, &masked);
  ::kill(::getpid(), SIGUSR1);  // of the two threads the other one could take it
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(taken, 0);
  ::pthread_sigmask(SIG_SETMASK, &masked, nullptr);
  EXPECT_EQ(taken, 1);
  (void)std::signal(SIGUSR1, before);
}

TEST(File, AChildThatIsForkedReadsOnForItself) {
  constexpr std::size_t kSize = 9'000'001;
  TempDir dir;
  WriteFile(dir / "file", ByteVector(kSize));
  for (int times = 0; times < 30; ++times) {
    CFile file(Text(dir / "file"), kReader);
    file.StartBlockReader();
    std::size_t got = 0;
    const auto readTo = [&](std::size_t end) {
      while (got < end) got += file.ReadView(std::min<std::size_t>(50'000, end - got)).size();
    };
    readTo(static_cast<std::size_t>(times) * 200'000);
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(20);
      readTo(kSize);
      file.Close();
      ::_exit(file.IsOpen() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0) << times;
  }
}

TEST(File, ReadsAheadFarIntoALongFile) {
  constexpr std::uint32_t kMarks = 100, kStep = 1 << 20;
  constexpr std::int64_t kFrom = std::int64_t{5} << 30;  // a place that 32 bits can't name, behind a hole
  TempDir dir;
  CFile file(Text(dir / "file"), kCreator);
  for (std::uint32_t i = 0; i < kMarks; ++i) file.Seek(kFrom + i * kStep, CFile::begin), file.Write(&i, sizeof i);
  file.Seek(kFrom, CFile::begin);
  (void)file.ReadView(1);
  file.StartBlockReader();  // from where the buffer ends
  file.Seek(kFrom, CFile::begin);
  for (std::uint32_t i = 0; i < kMarks; ++i) {
    std::uint32_t mark = kMarks;
    EXPECT_TRUE(file.Read(&mark, sizeof mark) == sizeof mark && mark == i);
    for (std::uint32_t rest = kStep - sizeof mark, size = 1; rest != 0 && size != 0; rest -= size) {
      size = static_cast<std::uint32_t>(file.ReadView(std::min(rest, 60'000u)).size());
    }
  }
}

TEST(File, FindsWhatAnotherWriterAppended) {
  TempDir dir;
  WriteFile(dir / "file", ByteVector(1000, 7));
  CFile file(Text(dir / "file"), kReader);
  EXPECT_THROW((void)file.ReadView(CFile::kMaxView + 1), CInvalidArgException);
  EXPECT_TRUE(file.ReadView(2000).size() == 1000 && !file.ReachesTo(1001));
  WriteFile(dir / "file", ByteVector(1000, 7) + Hex("'and new'"));
  EXPECT_TRUE(file.ReachesTo(1007));
  EXPECT_EQ(ReadText(file, 10), "and new");
}

TEST(File, WhoDeniesWritingKeepsWritersOutAndReadersIn) {
  constexpr unsigned kFree = CFile::modeReadWrite | CFile::shareDenyNone, kDenier = kReader | CFile::shareDenyWrite;
  TempDir dir;
  const auto path = Text(dir / "file");
  // clang-format off
  const std::tuple<unsigned, unsigned, bool> kCases[] = {
      {kWriter, kCreator, false}, {kWriter, kFree, false}, {kWriter, kReader, true}, {kReader, kWriter, true},
      {kFree, kWriter, false}, {kFree, kFree, true}, {kDenier, kDenier, false},
      {CFile::shareExclusive, kDenier, false}};
  // clang-format on
  for (const auto& [first, then, admitted] : kCases) {
    SCOPED_TRACE(testing::Message() << std::hex << first << ' ' << then);
    WriteFile(dir / "file", Hex("'bytes'"));
    CFile holder(path, first), second;
    CFileException error(CFileException::none, path);
    EXPECT_EQ(second.Open(path, then, &error), admitted);
    EXPECT_EQ(error.m_cause, admitted ? CFileException::none : CFileException::sharingViolation);
    EXPECT_EQ(ReadText(holder, 5), "bytes");
    holder.Close();
    EXPECT_TRUE(second.Open(path, then, &error)) << "the lock ends with Close";
  }
}

TEST(File, TheLockIsTheProcessesThatTookIt) {
  TempDir dir;
  const auto path = Text(dir / "file");
  WriteFile(dir / "file", Hex("'bytes'"));
  CFile file(path, kWriter);
  int wait[2];
  ASSERT_EQ(::pipe(wait), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    file.Close();  // the parent's all the same
    ::_exit(CFile().Open(path, kWriter) ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(CFile().Open(path, kWriter));
  const pid_t holder = ::fork();  // as between fork and exec: it has the descriptor
  if (holder == 0) {
    char byte = 0;
    ::close(wait[1]);
    ::_exit(::read(wait[0], &byte, 1) == 0 ? 0 : 1);
  }
  file.Close();
  EXPECT_TRUE(CFile().Open(path, kWriter));
  ::close(wait[0]), ::close(wait[1]);
  ASSERT_EQ(::waitpid(holder, &status, 0), holder);
}

TEST(File, DoesWithoutALockWhereTheFileSystemHasNone) {
  struct NoLocks : SystemCalls {
    explicit NoLocks(int error) : reason(error) { SetSystemCalls(this); }
    ~NoLocks() override { SetSystemCalls(nullptr); }
    int Lock(int, int) override { return errno = reason, -1; }
    const int reason;
  };
  TempDir dir;
  for (const auto& [reason, opens] : {std::pair{ENOLCK, true}, {EOPNOTSUPP, true}, {EACCES, false}}) {
    const NoLocks none(reason);
    CFile file;
    EXPECT_EQ(file.Open(Text(dir / "file"), kCreator), opens) << reason;
  }
}

TEST(File, SyncsTheDirectoryThatItIsIn) {
  struct Directories : SystemCalls {
    Directories() { SetSystemCalls(this); }
    ~Directories() override { SetSystemCalls(nullptr); }
    int Open(const char* path, int flags, unsigned mode) override {
      if ((flags & O_DIRECTORY) != 0) opened.push_back(std::filesystem::canonical(path));
      return SystemCalls::Open(path, flags, mode);
    }
    std::vector<std::filesystem::path> opened;
  } directories;
  const auto before = std::filesystem::current_path();
  TempDir dir;
  const auto target = std::filesystem::canonical(dir / "");
  std::filesystem::create_directory(dir / "links");
  std::filesystem::create_symlink(target / "new", dir / "links" / "dangling");
  std::filesystem::current_path(target);
  CFile relative("file", kCreator), linked(Text(dir / "links" / "dangling"), kCreator);
  std::filesystem::current_path(before);
  relative.Flush();
  linked.Flush();
  EXPECT_EQ(directories.opened, (std::vector{target, target}));
}

TEST(File, TellsWhyAnOperationFailed) {
  TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
  WriteFile(dir / "file", Hex("'0123456789'"));
  CFile file;
  for (const auto& [name, cause] : {std::pair{std::string("pipe"), CFileException::invalidFile},
                                    {".", CFileException::invalidFile},
                                    {"file/x", CFileException::badPath},
                                    {"none", CFileException::fileNotFound},
                                    {std::string(300, 'x'), CFileException::badPath}}) {
    CFileException error(CFileException::none, {});
    EXPECT_FALSE(file.Open(Text(dir / name), kReader, &error) || file.Open(Text(dir / name), kWriter)) << name;
    EXPECT_EQ(error.m_cause, cause) << name;
    EXPECT_NE(error.GetErrorMessage().Find(Text(dir / name)), -1) << error.what();
  }
  const std::function<void()> kOnAClosedFile[] = {[&] { (void)ReadText(file, 1); }, [&] { (void)file.ReadView(1); },
                                                  [&] { file.Write("a", 1); },      [&] { file.SetLength(1); },
                                                  [&] { (void)file.GetLength(); },  [&] { file.SeekToBegin(); }};
  for (const auto& run : kOnAClosedFile) EXPECT_EQ(CauseOf(run), CFileException::invalidFile) << &run - kOnAClosedFile;
  EXPECT_EQ(CauseOf([&] { CFile::Remove(Text(dir / "none")); }), CFileException::fileNotFound);

  ASSERT_TRUE(file.Open(Text(dir / "file"), kWriter));
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
  ASSERT_TRUE(file.Open(Text(dir / "file"), kReader));
  EXPECT_EQ(CauseOf(write), CFileException::accessDenied);
  EXPECT_EQ(CauseOf([&] { file.SetLength(0); }), CFileException::accessDenied);
  EXPECT_EQ(ReadFile(dir / "file"), Hex("'a123456789'"));
}

TEST(File, ClosesWhateverComes) {
  TempDir dir;
  CFile file(Text(dir / "file"), kCreator);
  CFile::Gather gather(file);
  file.Write("lost", 4);
  EXPECT_EQ(ReadFile(dir / "file").size(), 0u);
  FaultySystem failing(1, Fault::Error);
  EXPECT_EQ(CauseOf([&] { file.Close(); }), CFileException::hardIO);
  EXPECT_FALSE(file.IsOpen());
}

}  // namespace
}  // namespace kesp::test
