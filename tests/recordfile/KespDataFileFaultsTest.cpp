// What a survey is worth after the system has failed: every record that was answered for is there and whole.

#include <functional>

#include "kesp/platform/Exception.h"
#include "kesp/records/KespNote.h"
#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

using Fault = FaultySystem::Fault;

ByteVector EndBytes(std::uint32_t feature, std::uint32_t flags = 0) {
  return Stored{4, 1, EndBody(feature)}.Bytes(flags);
}

bool Flushed(CKespDataFile& file) {
  try {
    return file.Flush();
  } catch (const CFileException&) {
    return false;
  }
}

// Spares the disk where a failure is no longer at stake.
struct UnsyncedSystem : kesp::SystemCalls {
  UnsyncedSystem() { kesp::SetSystemCalls(this); }
  ~UnsyncedSystem() override { kesp::SetSystemCalls(nullptr); }
  int DataSync(int) override { return 0; }
};

// Runs `act`, which answers for each of its steps and sets down in `expected` the bytes that follow from what it was
// answered, with every call of the system failing in turn.
void ForEveryFault(const std::filesystem::path& path, const std::function<void()>& prepare,
                   const std::function<bool(ByteVector& expected)>& act) {
  for (const Fault fault : {Fault::Error, Fault::Full, Fault::Interrupted, Fault::Short}) {
    for (const bool forGood : {false, true}) {
      if (fault == Fault::Interrupted && forGood) continue;  // a signal comes once
      int n = 1;
      for (bool struck = true; struck; ++n) {
        SCOPED_TRACE(testing::Message() << "fault " << static_cast<int>(fault) << " at " << n << " for good "
                                        << forGood);
        ASSERT_LT(n, 200);
        prepare();
        ByteVector expected;
        bool allGood = false;
        {
          FaultySystem system(n, fault, forGood);
          allGood = act(expected);
          struck = system.Struck();
        }
        EXPECT_TRUE(allGood || (struck && fault != Fault::Interrupted && fault != Fault::Short));
        const ByteVector found = ReadFile(path);
        if (!forGood) {
          EXPECT_EQ(found, expected);
        } else {
          // What could not be taken back stands behind everything else.
          ASSERT_GE(found.size(), expected.size());
          EXPECT_TRUE(std::equal(expected.begin(), expected.end(), found.begin()));
        }
        // No lock and no damage stays behind.
        UnsyncedSystem system;
        if (expected.empty()) {
          EXPECT_TRUE(CKespDataFile().Create(Text(path)));
          continue;
        }
        EXPECT_EQ(Walk(path).error, KESP_ERROR_NORMAL_EOF);
        CKespDataFile again;
        EXPECT_TRUE(again.Open(Text(path)));
        auto later = End(99);
        EXPECT_TRUE(again.AppendRecord(&later, 2));
        EXPECT_EQ(ReadFile(path), found + EndBytes(99, 2));
      }
      EXPECT_GT(n, 5);
    }
  }
}

TEST(KespDataFileFaults, LoseNothingOfANewFile) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  for (const bool exists : {false, true}) {
    const auto prepare = [&] {
      std::filesystem::remove(path);
      if (exists) WriteFile(path, ByteVector());
    };
    ForEveryFault(path, prepare, [&](ByteVector& expected) {
      CKespDataFile file;
      file.m_version = 3;
      if (!file.Create(Text(path))) return false;
      expected = FileHeader();
      CKespNote old;
      old.NoteText = "rain";
      old.m_recordVersion = 1;
      CKespNote note;
      note.NoteText = "rain";
      auto end = End(7);
      bool good = true;
      const auto answered = [&](bool answer, const ByteVector& bytes) {
        good &= answer;
        if (answer) Append(expected, bytes);
      };
      answered(file.AppendRecord(&end, 0), EndBytes(7));
      answered(file.AppendRecordVersion1(&old, 0), Stored{6, 1, NoteBody1()}.Bytes());
      answered(file.AppendRecordVersion2(&note, 0), Stored{6, 2, NoteBody2()}.Bytes());
      good &= Flushed(file);
      answered(file.AppendRecord(&end, 0), EndBytes(7));
      return file.Close() && good;
    });
  }
}

TEST(KespDataFileFaults, LeaveAnEditedFileAsAnswered) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  const auto prepare = [&] { WriteFile(path, FileHeader() + EndBytes(1) + EndBytes(2) + EndBytes(3)); };
  ForEveryFault(path, prepare, [&](ByteVector& expected) {
    std::vector<ByteVector> records{EndBytes(1), EndBytes(2), EndBytes(3)};
    CKespDataFile file;
    bool good = file.Open(Text(path));
    const auto answered = [&](bool answer, std::size_t index, const ByteVector& bytes) {
      good &= answer;
      if (answer && index == records.size()) records.push_back(bytes);
      if (answer) records[index] = bytes;
    };
    auto end1 = End(1);
    auto end2 = End(2);
    auto end4 = End(4);
    answered(file.SeekToFirstRecord() && file.OverwriteRecord(&end1, 8), 0, EndBytes(1, 8));
    answered(file.UpdateRecord(&end2, 8, true), 1, EndBytes(2, 8));
    answered(file.Seek(86) && file.DeleteRecord(86, KESP_RECORD_FEATURE_END), 2, EndBytes(3, 5));
    answered(file.AppendRecord(&end4, 2), 3, EndBytes(4, 2));
    good &= Flushed(file);
    good &= file.Close();
    expected = FileHeader();
    for (const auto& record : records) Append(expected, record);
    return good;
  });
}

// Fails calls of its own choice.
struct Chosen : FaultySystem {
  int syncs = 0;      // how many fail
  int truncates = 0;  // how many fail
  int moved = -1;     // bytes that the device still takes, or no limit
  int DataSync(int fd) override { return syncs-- > 0 ? Fail() : FaultySystem::DataSync(fd); }
  int Truncate(int fd, std::int64_t length) override {
    return truncates-- > 0 ? Fail() : FaultySystem::Truncate(fd, length);
  }
  ssize_t Write(int fd, const void* from, std::size_t count, std::int64_t offset) override {
    if (moved < 0) return FaultySystem::Write(fd, from, count, offset);
    if (moved == 0) return Fail();
    const std::size_t now = std::min(count, static_cast<std::size_t>(moved));
    moved = 0;
    return FaultySystem::Write(fd, from, now, offset);
  }
  static int Fail() {
    errno = ENOSPC;
    return -1;
  }
};

TEST(KespDataFileFaults, LetNothingPassAfterAFailedSync) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  WriteFile(path, FileHeader() + EndBytes(1));
  CKespDataFile file;
  ASSERT_TRUE(file.Open(Text(path)));
  auto end = End(2);
  Chosen system;
  system.syncs = 1;
  EXPECT_FALSE(file.AppendRecord(&end, 0));
  EXPECT_EQ(file.GetSystemError(), ENOSPC);
  // The device is well again and could hide what it lost.
  EXPECT_FALSE(file.AppendRecord(&end, 0) || file.AppendRecordVersion1(&end, 0));
  EXPECT_FALSE(file.CopyRecord(&end, kFirst));
  EXPECT_FALSE(Flushed(file));
  EXPECT_EQ(ReadFile(path), FileHeader() + EndBytes(1));
  EXPECT_TRUE(file.Close());
  ASSERT_TRUE(file.Open(Text(path)));
  EXPECT_EQ(file.GetSystemError(), 0);
  EXPECT_TRUE(file.AppendRecord(&end, 0));
  EXPECT_EQ(ReadFile(path), FileHeader() + EndBytes(1) + EndBytes(2, end.m_flags));
}

TEST(KespDataFileFaults, CutBackHalfARecord) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  auto end = End(2);
  for (int moved = 0; moved <= 18; ++moved) {
    for (const int truncates : {0, 1, 2}) {
      SCOPED_TRACE(testing::Message() << moved << " bytes, truncating fails " << truncates);
      WriteFile(path, FileHeader() + EndBytes(1));
      CKespDataFile file;
      ASSERT_TRUE(file.Open(Text(path)));
      ByteVector expected = FileHeader() + EndBytes(1);
      {
        Chosen system;
        system.moved = moved;
        system.truncates = truncates;
        if (file.AppendRecord(&end, 0)) Append(expected, EndBytes(2));
        system.moved = -1;
        // There is room again. What is answered for now must not stand behind the half.
        for (int i = 0; i < 2; ++i) {
          if (file.AppendRecord(&end, 0)) Append(expected, EndBytes(2));
        }
        EXPECT_TRUE(file.Close());
      }
      EXPECT_GT(expected.size(), 68u);
      EXPECT_EQ(ReadFile(path), expected);
    }
  }
}

TEST(KespDataFileFaults, KeepWhatAnInterruptedOverwriteDidNotReach) {
  const TempDir dir;
  const auto path = dir / "a.kesp";
  WriteFile(path, FileHeader() + EndBytes(1) + EndBytes(2));
  CKespDataFile file;
  ASSERT_TRUE(file.Open(Text(path)));
  Chosen system;
  system.moved = 10;  // the flags are among them
  auto end = End(9);
  EXPECT_FALSE(file.CopyRecord(&end, kFirst));
  EXPECT_EQ(file.GetSystemError(), ENOSPC);
  EXPECT_EQ(ReadFile(path), FileHeader() + EndBytes(1, 2) + EndBytes(2));
  // What this object reads is what the file holds.
  ASSERT_TRUE(file.SeekToFirstRecord());
  const std::unique_ptr<CKespRecord> record(file.ReadNextRecord(false));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->m_flags, 2u);
}

}  // namespace
