#include "tools/kesp/NewFile.h"

#include <fcntl.h>
#include <stdio.h>   // NOLINT(modernize-deprecated-headers): renameat2
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkstemp
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <filesystem>
#include <system_error>

#include "tools/kesp/Console.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/Progress.h"

namespace kesp::tool {
namespace {

namespace fs = std::filesystem;

std::string Reason(int osError) { return std::generic_category().message(osError); }

constexpr const char* kExists = "exists; --force replaces it";

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

// The file in the folder for temporary files that is put out on standard output.
std::string TemporaryPlace() {
  std::error_code failure;
  const fs::path folder = fs::temp_directory_path(failure);
  return (failure ? fs::path("/tmp") : folder) / "kesp";
}
constexpr std::array kEndings{SIGHUP, SIGINT, SIGTERM};
constexpr std::size_t kLongestStem = 200;  // bytes of the name that are taken over, of the 255 that a name may have

// What one of these signals takes away before it ends the tool.
std::array<char, PATH_MAX> madeSoFar;

void TakeAwayAndEnd(int signal) {
  ::unlink(madeSoFar.data());
  (void)std::signal(signal, SIG_DFL);
  (void)std::raise(signal);
}

void TakeAwayWhenEnded(const std::string& path) {
  if (path.size() >= madeSoFar.size()) return;
  madeSoFar[path.copy(madeSoFar.data(), path.size())] = 0;
  for (const int signal : kEndings) {
    if (std::signal(signal, TakeAwayAndEnd) == SIG_IGN) (void)std::signal(signal, SIG_IGN);
  }
}

mode_t ModeOfNewFiles() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

SteadyFile::SteadyFile(const std::string& path)
    : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)),
      m_isWritten(m_descriptor >= 0 && ::flock(m_descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) {}

SteadyFile::~SteadyFile() {
  if (m_descriptor >= 0) ::close(m_descriptor);
}

NewFile::NewFile(const CKespDataFile& source, const std::string& destination, Existing existing)
    : m_given(destination), m_place(destination), m_existing(existing) {
  std::error_code failure;
  if (IsStandardOutput(destination)) {
    m_place = TemporaryPlace();
  } else if (fs::is_directory(destination, failure)) {
    m_place = (fs::path(destination) / fs::path(source.m_file.GetFilePath().ToUtf8()).filename()).string();
    m_given = m_place;
  }
  if (fs::is_symlink(m_place, failure)) {
    m_place = fs::weakly_canonical(m_place, failure).string();
    if (failure) {
      Fail(failure.message());
      return;
    }
  }
  if (!IsStandardOutput(destination) && !Check(source)) return;
  const fs::path place(m_place);
  std::string name(1, '.');
  name.append(place.filename().string(), 0, kLongestStem).append(".XXXXXX");
  std::string made = (place.parent_path() / name).string();
  const int fd = ::mkstemp(made.data());
  if (fd < 0) {
    Fail(Reason(errno));
    return;
  }
  TakeAwayWhenEnded(made);
  struct stat info {};
  const bool replaces = m_replaced.IsOpen() && ::stat(m_place.c_str(), &info) == 0;
  (void)::fchmod(fd, replaces ? info.st_mode & 0777 : ModeOfNewFiles());
  ::close(fd);
  m_made = made;
}

bool NewFile::Check(const CKespDataFile& source) {
  struct stat info {};
  if (::stat(m_place.c_str(), &info) != 0) {
    if (errno == ENOENT) return true;
    Fail(Reason(errno));
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    Fail(S_ISDIR(info.st_mode) ? "is a directory" : "is no regular file");
    return false;
  }
  const CString path = CString::FromPathBytes(m_place);
  if (source.m_file.IsSameFile(path)) {
    Fail("is the source itself");
    return false;
  }
  if (m_existing == Existing::kRefuse) {
    Fail(kExists);
    return false;
  }
  CFileException failure(CFileException::none, path);
  if (m_replaced.Open(path, CFile::modeReadWrite | CFile::shareDenyWrite, &failure)) return true;
  Fail(failure.m_cause == CFileException::sharingViolation ? kIsWritten : Reason(failure.m_lOsError));
  return false;
}

void NewFile::Fail(const std::string& why) {
  m_why = why;
  Complain(m_given, why);
}

NewFile::~NewFile() {
  if (!m_made.empty()) ::unlink(m_made.c_str());
}

std::uint64_t NewFile::Size() const {
  struct stat info {};
  return ::stat(m_made.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

bool NewFile::PutOut() {
  const int fd = ::open(m_made.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Fail(Reason(errno));
    return false;
  }
  Output out(STDOUT_FILENO);
  std::array<char, 16384> piece;
  ssize_t count = 0;
  while ((count = ::read(fd, piece.data(), piece.size())) > 0) {
    out.Put(std::string_view(piece.data(), static_cast<std::size_t>(count)));
  }
  const int failure = count < 0 ? errno : 0;
  ::close(fd);
  out.Flush();
  if (failure != 0) Fail(Reason(failure));
  return failure == 0;
}

bool NewFile::Keep() {
  if (IsStandardOutput(m_given)) return PutOut();
  const int result = m_existing == Existing::kRefuse ? RenameToNew(m_made.c_str(), m_place.c_str())
                                                     : ::rename(m_made.c_str(), m_place.c_str());
  if (result != 0) {
    Fail(errno == EEXIST ? kExists : Reason(errno));
    return false;
  }
  m_made.clear();
  const std::string folder = fs::path(m_place).parent_path().string();
  if (const int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); fd >= 0) {
    (void)::fsync(fd);
    ::close(fd);
  }
  return true;
}

Growth::Growth(const NewFile& file, std::uint64_t expected) {
  if (!Progress::OnTerminal()) return;
  m_thread = std::thread([this, &file, expected] {
    Progress progress(expected, true);
    while (!m_ends) {
      progress.Update(file.Size());
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
}

Growth::~Growth() {
  m_ends = true;
  if (m_thread.joinable()) m_thread.join();
}

}  // namespace kesp::tool
