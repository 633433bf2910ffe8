#include "kesp/platform/File.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <random>
#include <thread>

#include "tests/support/FaultySystem.h"
#include "tests/support/Records.h"

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

// The status of a child process that runs this: 0 when it returned true.
template <class Run>
int StatusOfChild(Run run) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(20);
    ::_exit(run() ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return status;
}

class File : public testing::Test {
 protected:
  void RunBesideAModel(unsigned seed, int steps, bool readsAhead);
  const TempDir dir;
  const std::filesystem::path path = dir / "file";
  const CString name = Text(path);
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

TEST_F(File, ReadsAheadWithoutTakingASignalOfTheHosts) {
  static std::atomic<int> taken = 0;
  const auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
  const auto others = threads();
  WriteFile(path, ByteVector(9'000'001));
  CFile file(name, kReader);
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
  EXPECT_EQ(threads(), others + 1);
  file.Close();
  for (int ms = 0; threads() > others && ms < 2000; ++ms) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(threads(), others);
}

TEST_F(File, AChildThatIsForkedReadsOnForItself) {
  constexpr std::size_t kSize = 9'000'001;
  WriteFile(path, ByteVector(kSize));
  for (std::size_t times = 0; times < 30; ++times) {
    CFile file(name, kReader);
    file.StartBlockReader();
    std::size_t got = 0;
    const auto readTo = [&](std::size_t end) {
      while (got < end) got += file.ReadView(std::min<std::size_t>(50'000, end - got)).size();
    };
    readTo(times * 200'000);
    const auto readOn = [&] {
      readTo(kSize);
      file.Close();
      return true;
    };
    ASSERT_EQ(StatusOfChild(readOn), 0) << times;
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
  // clang-format off
  const std::tuple<unsigned, unsigned, bool> kCases[] = {
      {kWriter, kCreator, false}, {kWriter, kFree, false}, {kWriter, kReader, true}, {kReader, kWriter, true},
      {kFree, kWriter, false}, {kFree, kFree, true}, {kDenier, kDenier, false},
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

TEST_F(File, TheLockIsTheProcessesThatTookIt) {
  CFile file(name, kCreator);
  const auto closes = [&] {
    file.Close();
    return !CFile().Open(name, kWriter);
  };
  EXPECT_EQ(StatusOfChild(closes), 0);
  EXPECT_FALSE(CFile().Open(name, kWriter));
  const pid_t holder = ::fork();  // as between fork and exec: it has the descriptor
  if (holder == 0) ::alarm(20), ::pause(), ::_exit(0);
  file.Close();
  EXPECT_TRUE(CFile().Open(name, kWriter));
  ::kill(holder, SIGKILL);
  EXPECT_EQ(::waitpid(holder, nullptr, 0), holder);
}

TEST_F(File, NeedsNoLockWhereTheFileSystemHasNone) {
  struct NoLocks : IdleDisk {
    explicit NoLocks(int error) : reason(error) {}
    int Lock(int, int) override { return errno = reason, -1; }
    const int reason;
  };
  TempDir dir;
  for (const auto& [reason, opens] : {std::pair{ENOLCK, true}, {EOPNOTSUPP, true}, {EACCES, false}}) {
    const NoLocks none(reason);
    EXPECT_EQ(CFile().Open(name, kCreator), opens) << reason;
  }
}

TEST_F(File, SyncsTheDirectoryThatItIsIn) {
  struct Directories : IdleDisk {
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

TEST_F(File, TellsWhyAnOperationFailed) {
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
  WriteFile(path, Hex("'0123456789'"));
  CFile file;
  for (const auto& [bad, cause] : {std::pair{std::string("pipe"), CFileException::invalidFile},
                                   {".", CFileException::invalidFile},
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

// A host that has closed its standard input gets the descriptor 0 for a file.
TEST_F(File, MayHaveTheDescriptorZero) {
  const auto uses = [&] {
    ::close(0);
    CFile file(name, kCreator), second;
    FaultySystem system;
    file.Write("ab", 2);
    file.TouchModified();
    file.Flush();
    file.SeekToBegin();
    const bool good = ::fcntl(0, F_GETFD) != -1 && system.Calls("futimens") == 1 && file.IsOpen() &&
                      file.IsSameFile(name) && ReadText(file, 3) == "ab" && !second.Open(name, kWriter);
    file.Close();
    return good && ::fcntl(0, F_GETFD) == -1 && second.Open(name, kReader) && ReadText(second, 3) == "ab";
  };
  EXPECT_EQ(StatusOfChild(uses), 0);
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
