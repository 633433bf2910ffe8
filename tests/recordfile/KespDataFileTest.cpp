#include "kesp/recordfile/KespDataFile.h"

#include <array>
#include <cerrno>

#include "tests/recordfile/Survey.h"
#include "tests/support/System.h"

using namespace kesp::test;

namespace {

class KespDataFile : public OneFile {
 protected:
  void ExpectNoChanges() {  // by any call that changes a file
    auto end = EndRecord(7);
    const std::uint32_t failed = file.GetFailedAppends();
    file.m_systemError = 0;
    EXPECT_FALSE(file.AppendRecord(&end, 2));
    EXPECT_EQ(std::tuple(file.GetFailedAppends() - failed, end.m_flags),
              file.IsOpen() ? std::tuple(1, 2) : std::tuple(0, 0));
    EXPECT_FALSE(file.CopyRecord(&end, kFirst));
    EXPECT_FALSE(file.UpdateRecord(&end, 8, false));
    EXPECT_FALSE((file.Seek(kFirst), file.OverwriteRecord(&end, 2)));
    EXPECT_FALSE((file.Seek(kFirst), file.DeleteRecord(kFirst, KESP_RECORD_NONE)));
    EXPECT_EQ(file.GetSystemError(), file.IsOpen() ? EBADF : 0);
  }
};

TEST_F(KespDataFile, OpensWhatHasAWholeHeader) {
  ByteVector badSignature = FileHeader();
  badSignature[41] = 'f';
  const ByteVector twenty(20, 0xEE), none = FileHeader(3, 0);
  // clang-format off
  const struct { ByteVector bytes; KESP_ERROR_TYPE error; std::uint32_t firstRecord = kFirst; } rows[] = {
      {{}, KESP_ERROR_SIGNATURE}, {Part(none, 0, 41), KESP_ERROR_SIGNATURE}, {badSignature, KESP_ERROR_SIGNATURE},
      // Cut inside version, length and header word, and with too little for a length of 2.
      {Part(none, 0, 43), KESP_ERROR_EOF}, {Part(none, 0, 47), KESP_ERROR_EOF}, {Part(none, 0, 49), KESP_ERROR_EOF},
      {Part(none, 0, 48), KESP_ERROR_EOF}, {Part(FileHeader(), 0, 48), KESP_ERROR_FILE_HEADER},
      {FileHeader(), KESP_ERROR_NONE}, {none, KESP_ERROR_NONE, 48}, {FileHeader(2, 0x10) + twenty, KESP_ERROR_NONE, 64},
      // Up to the end, one past it, and so far that it wraps.
      {FileHeader(3, 0x16) + twenty, KESP_ERROR_NONE, 70}, {FileHeader(3, 0x17) + twenty, KESP_ERROR_FILE_HEADER},
      {FileHeader(3, 0xFFFFFFFF), KESP_ERROR_NONE, 47}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    file.Close();
    WriteFile(path, row.bytes);
    const bool opened = file.Open(Text(path));
    EXPECT_EQ(file.GetError(), row.error);
    EXPECT_EQ(std::tuple(opened, file.IsOpen()),
              std::tuple(row.error == KESP_ERROR_NONE, row.error == KESP_ERROR_NONE));
    EXPECT_EQ(ReadFile(path), row.bytes);
    if (!opened) continue;
    EXPECT_EQ(std::tuple(file.m_version, file.GetPosition()), std::tuple(row.bytes[42], 50));
    EXPECT_TRUE(file.SeekToFirstRecord());
    EXPECT_EQ(file.GetPosition(), row.firstRecord);
  }
}

TEST_F(KespDataFile, CreatesFiftyBytesAndSaysWhyAPathCantBeOpened) {
  const wchar_t* const null = nullptr;
  for (const auto& bad : {path, dir / "."}) {
    EXPECT_FALSE(file.Open(Text(bad))) << bad;
    EXPECT_FALSE(file.OpenReadOnly(Text(bad))) << bad;
    EXPECT_EQ(file.GetErrorString(), CString("Cannot Open File"));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  file.m_error = KESP_ERROR_BAD_RECORD;
  EXPECT_EQ((std::array{file.Open(null), file.OpenReadOnly(null), file.Create(null), file.Create(Text(dir / "no/no")),
                        file.Seek(0), file.SeekToFirstRecord(), file.Flush()}),
            (std::array<bool, 7>{}));
  ExpectNoChanges();
  EXPECT_EQ(file.GetLength() & file.GetPosition(), 0xFFFFFFFFu);
  EXPECT_EQ(file.GetError(), KESP_ERROR_BAD_RECORD);
  EXPECT_EQ(file.ReadNextRecord(true), nullptr);
  EXPECT_EQ(file.GetError(), KESP_ERROR_NONE);
  KESP_RECORD_TYPE type = KESP_RECORD_TAG;
  unsigned short version = 9;
  std::uint32_t flags = 9, length = 9;
  unsigned long wideFlags = 9, wideLength = 9;
  EXPECT_FALSE(file.ReadNextRecordHeader(type, version, flags, length) || file.EndsWhole());
  EXPECT_FALSE(file.ReadNextRecordHeader(type, version, wideFlags, wideLength));
  EXPECT_EQ(std::tuple(type, version, flags, length, wideFlags, wideLength),
            std::tuple(KESP_RECORD_TAG, 9, 9, 9, 9, 9));
  EXPECT_EQ(file.GetSystemError(), 0) << "a closed file is no failure of the system";

  WriteFile(path, ByteVector(1000, 0xEE));
  file.m_version = 2;
  file.m_headerWord = 0x1234;
  ASSERT_TRUE(file.Create(Text(path)));
  EXPECT_EQ(std::tuple(file.GetPosition(), file.m_firstRecordOffset), std::tuple(50, 50));
  EXPECT_EQ(ReadFile(path), Hex("'Corvanthe Survey Devices -- Kesp Data File' 02 00 02 00 00 00 34 12"));
  EXPECT_FALSE(file.Create(Text(dir / "other"))) << "an open object keeps its file";
  EXPECT_FALSE(file.Open(Text(path)));
  EXPECT_EQ(file.GetError(), KESP_ERROR_OPEN);
  EXPECT_FALSE(std::filesystem::exists(dir / "other"));
  file.m_headerWord = 0;
  ASSERT_TRUE(file.Close() && file.Open(Text(path)));
  EXPECT_EQ(file.m_headerWord, 0x1234);
}

TEST_F(KespDataFile, StampsTheModificationTimeAloneAndNoneWhenOpenedForReading) {
  const auto stamped = [&](const auto& run) {  // whether the modification time is a new one
    SetLongAgo(path);
    run();
    const Times now = TimesOf(path);
    EXPECT_TRUE(now.read == kLongAgo || !kKeepsTimeOfReading);
    EXPECT_TRUE(now.modified == kLongAgo || now.modified > ::time(nullptr) - 5);
    return now.modified != kLongAgo;
  };
  Open(EndOf(7));
  EXPECT_TRUE(stamped([&] { file.Flush(); }));
  file.Close();
  EXPECT_FALSE(stamped([&] {
    ASSERT_TRUE(file.OpenReadOnly(Text(path)));
    EXPECT_EQ(WalkOn(file), (Walked{{kFirst}, KESP_ERROR_NORMAL_EOF}));
    FaultySystem system;
    system.powerEvents = "01";  // the file is opened once more, for reading still
    for (int i = 0; i < 2; ++i) ExpectNoChanges();
    EXPECT_TRUE(file.Flush());
    for (const char* const call : {"write", "truncate", "fdatasync", "fsync", "futimens", "flock"}) {
      EXPECT_EQ(system.Calls(call), 0) << call;
    }
  }));
  EXPECT_EQ(Records(), EndOf(7));
}

}  // namespace
