#include "kesp/recordfile/KespDataFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

// What another process answers.
template <class Answer>
bool InChild(Answer answer) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(answer() ? 1 : 0);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  return WEXITSTATUS(status) == 1;
}

timespec ModifiedAt(const std::filesystem::path& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_mtim;
}
time_t AccessedAt(const std::filesystem::path& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_atim.tv_sec;
}
constexpr time_t kLongAgo = 1'000'000'000;
void MakeOld(const std::filesystem::path& path) {
  const timespec times[2] = {{kLongAgo, 0}, {kLongAgo, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(KespDataFile, OpensWhatHasAWholeHeader) {
  const ByteVector good = FileHeader();
  const auto cut = [&](std::size_t size) { return ByteVector(good.begin(), good.begin() + static_cast<long>(size)); };
  ByteVector badSignature = good;
  badSignature[41] = 'f';
  const struct {
    const char* name;
    ByteVector bytes;
    KESP_ERROR_TYPE error;
    std::uint32_t firstRecord = kFirst;
  } rows[] = {{"empty", {}, KESP_ERROR_SIGNATURE},
              {"41 bytes", cut(41), KESP_ERROR_SIGNATURE},
              {"last byte of the signature", badSignature, KESP_ERROR_SIGNATURE},
              {"signature alone", cut(42), KESP_ERROR_EOF},
              {"half a version", cut(43), KESP_ERROR_EOF},
              {"three bytes of length", cut(47), KESP_ERROR_EOF},
              {"48 bytes, length 2", cut(48), KESP_ERROR_FILE_HEADER},
              {"50 bytes", good, KESP_ERROR_NONE},
              {"length 0", FileHeader(3, 0), KESP_ERROR_NONE, 48},
              {"length 0x10 in 70 bytes", FileHeader(2, 0x10) + ByteVector(20, 0xEE), KESP_ERROR_NONE, 64},
              {"length up to the end", FileHeader(3, 0x16) + ByteVector(20), KESP_ERROR_NONE, 70},
              {"length one past the end", FileHeader(3, 0x17) + ByteVector(20), KESP_ERROR_FILE_HEADER},
              {"length that wraps", FileHeader(3, 0xFFFFFFFF), KESP_ERROR_NONE, 47}};
  const TempDir dir;
  const auto path = dir / "a.kesp";
  for (const auto& row : rows) {
    for (const bool readOnly : {false, true}) {
      SCOPED_TRACE(row.name);
      WriteFile(path, row.bytes);
      CKespDataFile file;
      const bool opened = readOnly ? file.OpenReadOnly(Text(path)) : file.Open(Text(path));
      EXPECT_EQ(opened, row.error == KESP_ERROR_NONE);
      EXPECT_EQ(file.IsOpen(), opened);
      EXPECT_EQ(file.GetError(), row.error);
      EXPECT_EQ(file.GetSystemError(), 0);
      if (opened) {
        EXPECT_EQ(file.m_version, row.bytes[42]);
        EXPECT_EQ(file.GetPosition(), 50u);
        EXPECT_EQ(file.m_firstRecordOffset, row.firstRecord);
        EXPECT_TRUE(file.SeekToFirstRecord());
        EXPECT_EQ(file.GetPosition(), row.firstRecord);
      }
      EXPECT_EQ(ReadFile(path), row.bytes);
    }
  }
  // Shorter than the header word, although the records could start there.
  for (const std::size_t size : {48u, 49u}) {
    ByteVector bytes = FileHeader(3, 0);
    bytes.resize(size);
    WriteFile(path, bytes);
    CKespDataFile file;
    EXPECT_FALSE(file.Open(Text(path)));
    EXPECT_EQ(file.GetError(), KESP_ERROR_EOF);
  }
}

TEST(KespDataFile, SaysWhyAPathCantBeOpened) {
  const TempDir dir;
  CKespDataFile file;
  file.m_error = KESP_ERROR_UNICODE;
  EXPECT_FALSE(file.Open(static_cast<const wchar_t*>(nullptr)));
  EXPECT_FALSE(file.OpenReadOnly(static_cast<const wchar_t*>(nullptr)));
  EXPECT_FALSE(file.Create(static_cast<const wchar_t*>(nullptr)));
  EXPECT_FALSE(file.Create(Text(dir / "no" / "such")));
  EXPECT_EQ(file.GetError(), KESP_ERROR_UNICODE);
  for (const bool readOnly : {false, true}) {
    for (const auto& path : {dir / "missing", dir / "."}) {
      EXPECT_FALSE(readOnly ? file.OpenReadOnly(Text(path)) : file.Open(Text(path)));
      EXPECT_EQ(file.GetErrorString(), CString("Cannot Open File"));
    }
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST(KespDataFile, CreatesFiftyBytes) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  WriteFile(path, ByteVector(1000, 0xEE));
  CKespDataFile file;
  file.m_version = 2;
  file.m_headerWord = 0x1234;
  file.m_error = KESP_ERROR_UNICODE;
  ASSERT_TRUE(file.Create(Text(path)));
  EXPECT_EQ(file.GetError(), KESP_ERROR_UNICODE);
  EXPECT_EQ(file.GetPosition(), 50u);
  EXPECT_EQ(file.m_firstRecordOffset, 50u);
  EXPECT_EQ(file.m_path, Text(path));
  EXPECT_EQ(ReadFile(path), Hex("'Corvanthe Survey Devices -- Kesp Data File' 02 00 02 00 00 00 34 12"));
  // An open object keeps its file.
  EXPECT_FALSE(file.Create(Text(dir / "other")));
  EXPECT_FALSE(file.Open(Text(path)));
  EXPECT_EQ(file.GetError(), KESP_ERROR_OPEN);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_FALSE(std::filesystem::exists(dir / "other"));
  EXPECT_TRUE(file.Close());
  EXPECT_FALSE(file.IsOpen());
  CKespDataFile again;
  ASSERT_TRUE(again.Open(Text(path)));
  EXPECT_EQ(again.m_headerWord, 0x1234);
}

TEST(KespDataFile, LetsOthersReadAndNotWrite) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  const ByteVector bytes = FileHeader() + Stored{4, 1, EndBody(7)}.Bytes();
  WriteFile(path, bytes);
  CKespDataFile holder;
  ASSERT_TRUE(holder.Open(Text(path)));
  const auto opens = [&] {
    CKespDataFile other;
    return other.Open(Text(path)) || other.GetErrorString() != CString("Cannot Open File");
  };
  const auto creates = [&] { return CKespDataFile().Create(Text(path)); };
  const auto reads = [&] { return Walk(path) == Walked{{kFirst}, KESP_ERROR_NORMAL_EOF}; };
  EXPECT_FALSE(opens());
  EXPECT_FALSE(InChild(opens));
  EXPECT_FALSE(creates());
  EXPECT_FALSE(InChild(creates));
  EXPECT_EQ(ReadFile(path), bytes);
  EXPECT_TRUE(reads());
  EXPECT_TRUE(InChild(reads));
  EXPECT_TRUE(holder.Close());
  EXPECT_TRUE(InChild(opens));
}

TEST(KespDataFile, LosesItsLockWithItsProcess) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  WriteFile(path, FileHeader());
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    CKespDataFile holder;
    const char answer = holder.Open(Text(path)) ? 'y' : 'n';
    if (::write(ready[1], &answer, 1) == 1) ::pause();
    ::_exit(0);
  }
  char answer = 0;
  ASSERT_EQ(::read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  CKespDataFile file;
  EXPECT_FALSE(file.Open(Text(path)));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(file.Open(Text(path)));
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST(KespDataFile, NamesItsErrors) {
  CKespDataFile file;
  EXPECT_EQ(file.GetErrorString(), CString("No Error"));
  std::uint32_t code = 0;
  for (const char* const text :
       {"No Error", "Normal EOF", "EOF Error", "Cannot Read Version", "Bad Record Type", "Bad Record",
        "Corrupt Record Header", "Cannot Open File", "Bad KESP Header", "Bad KESP Signature", "Bad Application Header",
        "Cannot Use Unicode", "Unsupported or Bad Attribute Type"}) {
    file.m_error = static_cast<KESP_ERROR_TYPE>(code);
    EXPECT_EQ(file.GetErrorString(), CString(text));
    EXPECT_EQ(file.CanAttemptRepair(), code == 2 || code == 4 || code == 5 || code == 6) << text;
    ++code;
  }
}

TEST(KespDataFile, AnswersNoWhileClosed) {
  CKespDataFile file;
  auto end = End(7);
  file.m_error = KESP_ERROR_BAD_RECORD;
  EXPECT_TRUE(file.Close());
  EXPECT_EQ(file.GetLength(), 0xFFFFFFFFu);
  EXPECT_EQ(file.GetPosition(), 0xFFFFFFFFu);
  EXPECT_FALSE(file.Seek(0) || file.SeekToFirstRecord() || file.Flush());
  EXPECT_FALSE(file.AppendRecord(&end, 0) || file.AppendRecordVersion1(&end, 0) || file.AppendRecordVersion2(&end, 0));
  EXPECT_FALSE(file.OverwriteRecord(&end, 0) || file.CopyRecord(&end, 50) || file.UpdateRecord(&end, 0, true));
  EXPECT_FALSE(file.DeleteRecord(50, KESP_RECORD_NONE));
  EXPECT_EQ(file.GetError(), KESP_ERROR_BAD_RECORD);
  EXPECT_EQ(file.ReadNextRecord(true), nullptr);
  EXPECT_EQ(file.GetError(), KESP_ERROR_NONE);
}

TEST(KespDataFile, StampsTheModificationTimeAlone) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  CKespDataFile file;
  ASSERT_TRUE(file.Create(Text(path)));
  auto end = End(7);
  for (const bool append : {true, false}) {
    MakeOld(path);
    EXPECT_TRUE(append ? file.AppendRecord(&end, 0) : file.Flush());
    EXPECT_NEAR(static_cast<double>(ModifiedAt(path).tv_sec), static_cast<double>(::time(nullptr)), 5);
    EXPECT_EQ(AccessedAt(path), kLongAgo);
  }
  MakeOld(path);
  EXPECT_TRUE(file.Close());
  EXPECT_EQ(ModifiedAt(path).tv_sec, kLongAgo);
}

TEST(KespDataFile, OnlyReadsWhenOpenedForReading) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  const ByteVector bytes = FileHeader() + Stored{4, 1, EndBody(7)}.Bytes();
  WriteFile(path, bytes);
  MakeOld(path);
  CKespDataFile file;
  ASSERT_TRUE(file.OpenReadOnly(Text(path)));
  EXPECT_EQ(WalkOn(file), (Walked{{kFirst}, KESP_ERROR_NORMAL_EOF}));
  auto end = End(7);
  // A power event reopens the file; for reading still.
  for (const char* const events : {"", "1"}) {
    FaultySystem system;
    system.powerEvents = events;
    EXPECT_FALSE(file.AppendRecord(&end, 2));
    EXPECT_FALSE(file.AppendRecordVersion1(&end, 2) || file.AppendRecordVersion2(&end, 2));
    EXPECT_FALSE(file.Seek(kFirst) && file.OverwriteRecord(&end, 2));
    EXPECT_FALSE(file.CopyRecord(&end, kFirst) || file.UpdateRecord(&end, 8, false));
    EXPECT_FALSE(file.Seek(kFirst) && file.DeleteRecord(kFirst, KESP_RECORD_NONE));
    EXPECT_TRUE(file.Flush());
    file.UpdateLastModifiedStatus();
    for (const char* const call : {"write", "truncate", "fdatasync", "fsync", "futimens", "flock"}) {
      EXPECT_EQ(system.Calls(call), 0) << call;
    }
  }
  EXPECT_TRUE(file.Close());
  EXPECT_EQ(AccessedAt(path), kLongAgo);
  EXPECT_EQ(ModifiedAt(path).tv_sec, kLongAgo);
  EXPECT_EQ(ReadFile(path), bytes);
}

TEST(KespDataFile, ShowsAReaderWhatAWriterDoesMeanwhile) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  CKespDataFile writer;
  CKespDataFile reader;
  ASSERT_TRUE(writer.Create(Text(path)));
  ASSERT_TRUE(reader.OpenReadOnly(Text(path)));
  auto end = End(7);
  for (const std::uint32_t position : {50u, 68u, 86u}) {
    EXPECT_EQ(WalkOn(reader).error, KESP_ERROR_NORMAL_EOF);
    ASSERT_TRUE(writer.AppendRecord(&end, 0));
    EXPECT_EQ(WalkOn(reader), (Walked{{position}, KESP_ERROR_NORMAL_EOF}));
  }
  // Rewritten in place, too, once the reader goes back.
  ASSERT_TRUE(writer.Seek(68) && writer.DeleteRecord(68, KESP_RECORD_NONE));
  ASSERT_TRUE(reader.SeekToFirstRecord());
  EXPECT_EQ(WalkOn(reader, true), (Walked{{50, 86}, KESP_ERROR_NORMAL_EOF}));
}

TEST(KespDataFile, TellsReadOnlyFromBrokenDisks) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  WriteFile(path, FileHeader());
  auto end = End(7);
  CKespDataFile file;
  ASSERT_TRUE(file.OpenReadOnly(Text(path)));
  EXPECT_FALSE(file.AppendRecord(&end, 0));
  EXPECT_NE(file.GetSystemError(), EIO);
  ASSERT_TRUE(file.Close() && file.Open(Text(path)));
  EXPECT_FALSE(file.OverwriteRecord(&end, 0));  // nothing stands there
  EXPECT_EQ(file.GetSystemError(), 0);
}

}  // namespace
