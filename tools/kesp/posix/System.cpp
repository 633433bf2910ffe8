#include "tools/kesp/System.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>   // NOLINT(modernize-deprecated-headers): renameat2
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkstemp
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <system_error>

namespace kesp::tool {
namespace {

// A standard stream that the caller closed is filled up, so that no data file is opened in its place and written over
// with messages. What was to be output then fails, since it would be lost.
void FillStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) continue;
    (void)::open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY);  // takes the lowest free descriptor
  }
}

// Fails with EEXIST when there is a file of the new name.
int RenameToNew(const char* from, const char* to) {
#if KESP_HAS_RENAMEAT2
  const int result = ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
  if (result == 0 || (errno != EINVAL && errno != ENOSYS)) return result;
#endif
  // Not every file system knows the flag; a second name isn't given to a file that exists either.
  if (::link(from, to) != 0) return errno == EEXIST ? -1 : ::rename(from, to);
  ::unlink(from);
  return 0;
}

constexpr std::array kEndings{SIGHUP, SIGINT, SIGTERM};

// What one of these signals takes away before it ends the tool.
std::array<char, PATH_MAX> madeSoFar;

void TakeAwayAndEnd(int signal) {
  ::unlink(madeSoFar.data());
  (void)std::signal(signal, SIG_DFL);
  (void)std::raise(signal);
}

mode_t ModeOfNewFiles() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

std::vector<std::string> ProgramArguments(int argc, char** argv) { return {argv, argv + argc}; }

void PrepareStreams() {
  FillStandardStreams();
  (void)std::signal(SIGPIPE, SIG_IGN);  // a reader who has enough is met as EPIPE
  (void)std::signal(SIGXFSZ, SIG_IGN);  // and a limit on the length of files as EFBIG
}

bool IsTerminal(Stream stream) noexcept { return ::isatty(static_cast<int>(stream)) == 1; }

std::ptrdiff_t WriteSome(Stream stream, const char* bytes, std::size_t count) noexcept {
  for (;;) {
    const ssize_t written = ::write(static_cast<int>(stream), bytes, count);
    if (written >= 0 || (errno != EAGAIN && errno != EINTR)) return written;
    if (errno == EINTR) continue;
    // The other end of a pipe may have made it non-blocking.
    pollfd ready{static_cast<int>(stream), POLLOUT, 0};
    ::poll(&ready, 1, -1);
  }
}

std::filesystem::path PathOf(const std::string& path) { return path; }
std::string BytesOf(const std::filesystem::path& path) { return path.string(); }

PathInfo Look(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    return {errno == ENOENT ? PathInfo::Kind::kMissing : PathInfo::Kind::kUnknown};
  }
  const auto kind = S_ISREG(info.st_mode)   ? PathInfo::Kind::kFile
                    : S_ISDIR(info.st_mode) ? PathInfo::Kind::kFolder
                                            : PathInfo::Kind::kOther;
  return {kind, static_cast<std::uint64_t>(info.st_size)};
}

std::string FollowLinks(const std::string& path) {
  std::error_code failure;
  if (!std::filesystem::is_symlink(path, failure)) return path;
  const std::string place = std::filesystem::weakly_canonical(path, failure).string();
  errno = failure.value();
  return failure ? std::string() : place;
}

std::intptr_t Hold(const std::string& path, bool& isWritten) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  isWritten = descriptor >= 0 && ::flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  return descriptor;
}

void LetGo(std::intptr_t held) noexcept {
  if (held >= 0) ::close(static_cast<int>(held));
}

std::string MakeFile(const std::string& folder, std::string_view stem, const std::string& like) {
  std::string made = (std::filesystem::path(folder) / std::string(stem).append("XXXXXX")).string();
  const int descriptor = ::mkstemp(made.data());
  if (descriptor < 0) return {};
  struct stat info {};
  const bool isLike = !like.empty() && ::stat(like.c_str(), &info) == 0;
  (void)::fchmod(descriptor, isLike ? info.st_mode & 0777 : ModeOfNewFiles());
  ::close(descriptor);
  return made;
}

bool Rename(const std::string& from, const std::string& to, bool replaces) {
  if ((replaces ? ::rename(from.c_str(), to.c_str()) : RenameToNew(from.c_str(), to.c_str())) != 0) return false;
  const std::string folder = std::filesystem::path(to).parent_path().string();
  if (const int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); fd >= 0) {
    (void)::fsync(fd);
    ::close(fd);
  }
  return true;
}

bool ReplacesOpenFiles() noexcept { return true; }

void RemoveFile(const std::string& path) noexcept { ::unlink(path.c_str()); }

void PauseIfEnded() noexcept {}  // the signal ends the thread that it comes to

void TakeAwayWhenEnded(const std::string& path) {
  if (path.size() >= madeSoFar.size()) return;
  madeSoFar[path.copy(madeSoFar.data(), path.size())] = 0;
  for (const int signal : kEndings) {
    if (std::signal(signal, TakeAwayAndEnd) == SIG_IGN) (void)std::signal(signal, SIG_IGN);
  }
}

}  // namespace kesp::tool
