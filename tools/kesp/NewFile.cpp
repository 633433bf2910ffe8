#include "tools/kesp/NewFile.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>

#include "tools/kesp/Console.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/Progress.h"
#include "tools/kesp/System.h"

namespace kesp::tool {
namespace {

namespace fs = std::filesystem;

std::string Reason(int osError) { return std::generic_category().message(osError); }

constexpr const char* kExists = "exists; --force replaces it";

// The file in the folder for temporary files that is put out on standard output.
std::string TemporaryPlace() {
  std::error_code failure;
  const fs::path folder = fs::temp_directory_path(failure);
  return BytesOf((failure ? fs::path("/tmp") : folder) / "kesp");
}
constexpr std::size_t kLongestStem = 200;  // bytes of the name that are taken over, of the 255 that a name may have

}  // namespace

SteadyFile::SteadyFile(const std::string& path) : m_held(Hold(path, m_isWritten)) {}

SteadyFile::~SteadyFile() { LetGo(m_held); }

NewFile::NewFile(const CKespDataFile& source, const std::string& destination, Existing existing)
    : m_given(destination), m_place(destination), m_existing(existing) {
  if (IsStandardOutput(destination)) {
    m_place = TemporaryPlace();
  } else if (Look(destination).kind == PathInfo::Kind::kFolder) {
    m_place = BytesOf(PathOf(destination) / PathOf(source.m_file.GetFilePath().ToPathBytes()).filename());
    m_given = m_place;
  }
  m_place = FollowLinks(m_place);
  if (m_place.empty()) {
    Fail(Reason(errno));
    return;
  }
  if (!IsStandardOutput(destination) && !Check(source)) return;
  const fs::path place = PathOf(m_place);
  std::string stem(1, '.');
  stem.append(BytesOf(place.filename()), 0, kLongestStem).append(".");
  const std::string made = MakeFile(BytesOf(place.parent_path()), stem, m_replaced.IsOpen() ? m_place : std::string());
  if (made.empty()) {
    Fail(Reason(errno));
    return;
  }
  TakeAwayWhenEnded(made);
  m_made = made;
}

bool NewFile::Check(const CKespDataFile& source) {
  switch (Look(m_place).kind) {
    case PathInfo::Kind::kMissing:
      return true;
    case PathInfo::Kind::kUnknown:
      Fail(Reason(errno));
      return false;
    case PathInfo::Kind::kFolder:
      Fail("is a directory");
      return false;
    case PathInfo::Kind::kOther:
      Fail("is no regular file");
      return false;
    case PathInfo::Kind::kFile:
      break;
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
  if (!m_made.empty()) RemoveFile(m_made);
}

std::uint64_t NewFile::Size() const { return Look(m_made).size; }

bool NewFile::PutOut() try {
  CFile made(Path(), CFile::modeRead);
  Output out(Stream::kOutput);
  std::array<char, 16384> piece;
  while (const std::size_t count = made.Read(piece.data(), piece.size())) {
    out.Put(std::string_view(piece.data(), count));
  }
  out.Flush();
  return true;
} catch (const CFileException& e) {
  Fail(Reason(e.m_lOsError));
  return false;
}

bool NewFile::Keep() {
  if (IsStandardOutput(m_given)) return PutOut();
  if (!ReplacesOpenFiles()) m_replaced.Abort();
  if (!Rename(m_made, m_place, m_existing == Existing::kReplace)) {
    Fail(errno == EEXIST ? kExists : Reason(errno));
    return false;
  }
  m_made.clear();
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
