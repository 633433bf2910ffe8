// Where files depend on descriptors, forked processes, signals and directories.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "tests/platform/FileFixture.h"

namespace kesp::test {
namespace {

using PosixFile = FileFixture;

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

TEST_F(PosixFile, ReadsAheadWithoutTakingASignalOfTheHosts) {
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

TEST_F(PosixFile, AChildThatIsForkedReadsOnForItself) {
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

TEST_F(PosixFile, TheLockIsTheProcessesThatTookIt) {
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

TEST_F(PosixFile, NeedsNoLockWhereTheFileSystemHasNone) {
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

TEST_F(PosixFile, SyncsTheDirectoryThatItIsIn) {
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

// A host that has closed its standard input gets the descriptor 0 for a file.
TEST_F(PosixFile, MayHaveTheDescriptorZero) {
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

TEST_F(PosixFile, IsNoPipe) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  CFile file;
  CFileException error(CFileException::none, {});
  EXPECT_FALSE(file.Open(name, kWriter));
  EXPECT_FALSE(file.Open(name, kReader, &error));  // at once
  EXPECT_EQ(error.m_cause, CFileException::invalidFile);
}

}  // namespace
}  // namespace kesp::test
