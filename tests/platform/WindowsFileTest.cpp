// Where files depend on the system's own sharing and on names of UTF-16.
#include <windows.h>

#include "kesp/kesp.h"
#include "tests/platform/FileFixture.h"

namespace kesp::test {
namespace {

using WindowsFile = FileFixture;

// What another program gets that opens the file so: 0, or its error.
DWORD OpenedByAnother(const std::filesystem::path& path, DWORD access, DWORD shared) {
  HANDLE const file = ::CreateFileW(path.c_str(), access, shared, nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return ::GetLastError();
  ::CloseHandle(file);
  return 0;
}

TEST_F(WindowsFile, IsSharedAsTheSystemSharesIt) {
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, kRefused = ERROR_SHARING_VIOLATION;
  WriteFile(path, Hex("'bytes'"));
  const struct {
    unsigned flags;
    DWORD reads, writes, deletes, denies;  // what becomes of each attempt
  } kCases[] = {{kReader, 0, 0, 0, 0},
                {kWriter, 0, kRefused, kRefused, kRefused},
                {CFile::modeReadWrite | CFile::shareDenyNone, 0, 0, 0, kRefused},
                {kReader | CFile::shareDenyWrite, 0, kRefused, kRefused, 0},
                {CFile::modeReadWrite | CFile::shareExclusive, kRefused, kRefused, kRefused, kRefused}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.flags);
    const CFile file(name, c.flags);
    EXPECT_EQ(OpenedByAnother(path, GENERIC_READ, kAll), c.reads);
    EXPECT_EQ(OpenedByAnother(path, GENERIC_WRITE, kAll), c.writes);
    EXPECT_EQ(OpenedByAnother(path, DELETE, kAll), c.deletes);
    EXPECT_EQ(OpenedByAnother(path, GENERIC_READ, FILE_SHARE_READ), c.denies);
  }
  const CFile reader(name, kReader);
  EXPECT_FALSE(CFile().Open(name, CFile::modeReadWrite | CFile::shareExclusive));
  EXPECT_TRUE(CFile().Open(name, kWriter));
}

TEST_F(WindowsFile, MayHaveAPathOfAnyLength) {
  std::filesystem::path deep = dir / "";
  for (int i = 0; i < 6; ++i) {
    deep /= std::wstring(120, static_cast<wchar_t>(L'a' + i));
    ASSERT_NE(::CreateDirectoryW((L"\\\\?\\" + deep.wstring()).c_str(), nullptr), 0) << ::GetLastError();
  }
  for (const std::filesystem::path& folder : {deep, deep / ".." / deep.filename()}) {
    const CString distant = Text(folder / "file");
    CFile file(distant, kCreator);
    file.Write("abc", 3);
    file.Flush();
    EXPECT_TRUE(file.IsSameFile(distant));
    EXPECT_FALSE(CFile().Open(distant, kWriter));
    file.Close();
    EXPECT_EQ(CFile(distant, kReader).GetLength(), 3u);
  }
  CFile::Remove(Text(deep / "file"));
  for (int i = 0; i < 6; ++i, deep = deep.parent_path()) ::RemoveDirectoryW((L"\\\\?\\" + deep.wstring()).c_str());
}

TEST_F(WindowsFile, HasANameOfUnits) {
  const struct {
    const wchar_t* units;
    bool isText;
  } kCases[] = {{L"\u00E9", true},  {L"\u6728", true},   {L"\U0001F333", true},
                {L"\xD83C", false}, {L"\xDF33x", false}, {L"\xDCE9", false}};
  for (const auto& c : kCases) {
    const std::filesystem::path made = dir / "" / c.units;
    const CString units(made.c_str());
    EXPECT_EQ(CString::FromPathBytes(units.ToPathBytes()), units);
    HANDLE const direct = ::CreateFileW(made.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    const bool hasSuch = direct != INVALID_HANDLE_VALUE;  // Wine has no lone surrogates in names
    EXPECT_TRUE(hasSuch || !c.isText);
    if (hasSuch) ::CloseHandle(direct);
    EXPECT_EQ(CFile().Open(units, kWriter), hasSuch);
    EXPECT_EQ(CFile().Open(units, kCreator), hasSuch);
    if (hasSuch) CFile::Remove(units);
    EXPECT_EQ(::GetFileAttributesW(made.c_str()), INVALID_FILE_ATTRIBUTES);
  }
}

TEST_F(WindowsFile, TellsWhyItCannotBeOpened) {
  WriteFile(path, Hex("'bytes'"));
  const struct {
    std::filesystem::path path;
    unsigned flags;
    CFileException::Cause cause;
    int number;
  } kCases[] = {{path / "x", kReader, CFileException::badPath, ENOTDIR},
                {path / "x" / "y", kReader, CFileException::badPath, ENOTDIR},
                {dir / "none" / "x", kCreator, CFileException::fileNotFound, ENOENT},
                {dir / "a*b", kCreator, CFileException::fileNotFound, ENOENT},
                {"", kReader, CFileException::fileNotFound, ENOENT},
                {"NUL", kReader, CFileException::invalidFile, EINVAL},
                {dir / "", kWriter, CFileException::invalidFile, EISDIR},
                {path, kWriter | CFile::modeNew, CFileException::genericException, EEXIST}};
  for (const auto& c : kCases) {
    CFileException error(CFileException::none, {});
    EXPECT_FALSE(CFile().Open(Text(c.path), c.flags, &error)) << c.path;
    EXPECT_EQ(error.m_cause, c.cause) << c.path << ' ' << error.what();
    EXPECT_EQ(error.m_lOsError, c.number) << c.path;
  }
}

TEST(WindowsHeaders, LeaveTheNamesOfTheInterface) { EXPECT_GT(CTime::GetCurrentTime(), CTime(1'700'000'000)); }

}  // namespace
}  // namespace kesp::test
