#include "kesp/recordfile/KespDataFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

class KespDataFile : public OneFile {
 protected:
  static constexpr time_t kLongAgo = 1'000'000'000;
  void MakeOld() const {
    const timespec times[2] = {{kLongAgo, 0}, {kLongAgo, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  struct stat Info() const {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info;
  }
  bool Changes() {  // whether any of the calls that change a file does so
    auto end = EndRecord(7);
    return file.AppendRecord(&end, 2) || file.AppendRecordVersion1(&end, 2) || file.AppendRecordVersion2(&end, 2) ||
           file.CopyRecord(&end, kFirst) || file.UpdateRecord(&end, 8, false) ||
           (file.Seek(kFirst), file.OverwriteRecord(&end, 2)) ||
           (file.Seek(kFirst), file.DeleteRecord(kFirst, KESP_RECORD_NONE));
  }
};

TEST_F(KespDataFile, OpensWhatHasAWholeHeader) {
  const auto cut = [](std::size_t size, ByteVector bytes = FileHeader()) {
    bytes.resize(size);
    return bytes;
  };
  ByteVector badSignature = FileHeader();
  badSignature[41] = 'f';
  // clang-format off
  const struct { ByteVector bytes; KESP_ERROR_TYPE error; std::uint32_t firstRecord = kFirst; } rows[] = {
      {{}, KESP_ERROR_SIGNATURE}, {cut(41), KESP_ERROR_SIGNATURE}, {badSignature, KESP_ERROR_SIGNATURE},
      // Cut behind the signature, inside version and length, and with too little for a length of 2.
      {cut(42), KESP_ERROR_EOF}, {cut(43), KESP_ERROR_EOF}, {cut(47), KESP_ERROR_EOF}, {cut(48), KESP_ERROR_FILE_HEADER},
      // Shorter than the header word, although the records could start there.
      {cut(48, FileHeader(3, 0)), KESP_ERROR_EOF}, {cut(49, FileHeader(3, 0)), KESP_ERROR_EOF},
      {FileHeader(), KESP_ERROR_NONE}, {FileHeader(3, 0), KESP_ERROR_NONE, 48},
      {FileHeader(2, 0x10) + ByteVector(20, 0xEE), KESP_ERROR_NONE, 64},
      // Up to the end, one past it, and so far that it wraps.
      {FileHeader(3, 0x16) + ByteVector(20), KESP_ERROR_NONE, 70}, {FileHeader(3, 0x17) + ByteVector(20), KESP_ERROR_FILE_HEADER},
      {FileHeader(3, 0xFFFFFFFF), KESP_ERROR_NONE, 47}};
  // clang-format on
  for (std::size_t i = 0; i < 2 * std::size(rows); ++i) {
    SCOPED_TRACE(i);
    const auto& row = rows[i / 2];
    file.Close();
    WriteFile(path, row.bytes);
    const bool opened = i % 2 ? file.OpenReadOnly(Text(path)) : file.Open(Text(path));
    EXPECT_TRUE(opened == (row.error == KESP_ERROR_NONE) && opened == file.IsOpen() && file.GetError() == row.error);
    EXPECT_EQ(ReadFile(path), row.bytes);
    if (!opened) continue;
    EXPECT_TRUE(file.m_version == row.bytes[42] && file.GetPosition() == 50 && file.SeekToFirstRecord());
    EXPECT_EQ(file.GetPosition(), row.firstRecord);
  }
}

TEST_F(KespDataFile, CreatesFiftyBytesAndSaysWhyAPathCantBeOpened) {
  const wchar_t* const null = nullptr;
  for (const auto& bad : {path, dir / "."}) {
    EXPECT_FALSE(file.Open(Text(bad)) || file.OpenReadOnly(Text(bad)) || std::filesystem::exists(path));
    EXPECT_EQ(file.GetErrorString(), CString("Cannot Open File"));
  }
  file.m_error = KESP_ERROR_BAD_RECORD;
  EXPECT_FALSE(file.Open(null) || file.OpenReadOnly(null) || file.Create(null) || file.Create(Text(dir / "no" / "no")));
  EXPECT_EQ(file.GetLength() & file.GetPosition(), 0xFFFFFFFFu);
  EXPECT_FALSE(file.Seek(0) || file.SeekToFirstRecord() || file.Flush() || Changes());
  EXPECT_EQ(file.GetError(), KESP_ERROR_BAD_RECORD);
  EXPECT_TRUE(file.ReadNextRecord(true) == nullptr && file.GetError() == KESP_ERROR_NONE);

  WriteFile(path, ByteVector(1000, 0xEE));
  file.m_version = 2;
  file.m_headerWord = 0x1234;
  ASSERT_TRUE(file.Create(Text(path)));
  EXPECT_TRUE(file.GetPosition() == 50 && file.m_firstRecordOffset == 50);
  EXPECT_EQ(ReadFile(path), Hex("'Corvanthe Survey Devices -- Kesp Data File' 02 00 02 00 00 00 34 12"));
  // An open object keeps its file.
  EXPECT_FALSE(file.Create(Text(dir / "other")) || file.Open(Text(path)));
  EXPECT_EQ(file.GetError(), KESP_ERROR_OPEN);
  EXPECT_TRUE(file.IsOpen() && !std::filesystem::exists(dir / "other"));
  ASSERT_TRUE(file.Close() && file.Open(Text(path)));
  EXPECT_EQ(file.m_headerWord, 0x1234);
}

TEST_F(KespDataFile, StampsTheModificationTimeAloneAndNoneWhenOpenedForReading) {
  Open(EndOf(7));
  auto end = EndRecord(7);
  for (const bool append : {true, false}) {
    MakeOld();
    EXPECT_TRUE(append ? file.AppendRecord(&end, 0) : file.Flush());
    EXPECT_TRUE(Info().st_mtime > ::time(nullptr) - 5 && Info().st_atime == kLongAgo);
  }
  Put(EndOf(7));
  MakeOld();
  ASSERT_TRUE(file.OpenReadOnly(Text(path)));
  EXPECT_EQ(WalkOn(file), (Walked{{kFirst}, KESP_ERROR_NORMAL_EOF}));
  // A power event reopens the file; for reading still.
  for (const char* const events : {"", "1"}) {
    FaultySystem system;
    system.powerEvents = events;
    EXPECT_FALSE(Changes());
    EXPECT_TRUE(file.Flush());
    file.UpdateLastModifiedStatus();
    for (const char* const call : {"write", "truncate", "fdatasync", "fsync", "futimens", "flock"}) {
      EXPECT_EQ(system.Calls(call), 0) << call;
    }
  }
  EXPECT_TRUE(file.Close() && Info().st_atime == kLongAgo && Info().st_mtime == kLongAgo && Records() == EndOf(7));
}

TEST_F(KespDataFile, ShowsAReaderWhatAWriterDoesMeanwhile) {
  Open({});
  CKespDataFile reader;
  ASSERT_TRUE(reader.OpenReadOnly(Text(path)));
  auto end = EndRecord(7);
  for (const std::uint32_t position : {50u, 68u, 86u}) {
    EXPECT_EQ(WalkOn(reader).error, KESP_ERROR_NORMAL_EOF);
    ASSERT_TRUE(file.AppendRecord(&end, 0));
    EXPECT_EQ(WalkOn(reader), (Walked{{position}, KESP_ERROR_NORMAL_EOF}));
  }
  // Rewritten in place, too, once the reader goes back.
  ASSERT_TRUE(file.Seek(68) && file.DeleteRecord(68, KESP_RECORD_NONE) && reader.SeekToFirstRecord());
  EXPECT_EQ(WalkOn(reader, true), (Walked{{50, 86}, KESP_ERROR_NORMAL_EOF}));
}

}  // namespace
