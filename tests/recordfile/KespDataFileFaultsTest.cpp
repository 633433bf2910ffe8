// What a survey is worth after the system has failed: every record that was answered for is there and whole.

#include <functional>

#include "kesp/platform/Exception.h"
#include "kesp/records/KespNote.h"
#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

using Fault = FaultySystem::Fault;

bool Flushed(CKespDataFile& file) {
  try {
    return file.Flush();
  } catch (const CFileException&) {
    return false;
  }
}

class KespDataFileFaults : public OneFile {
 protected:
  // Runs `act`, which answers for each of its steps and sets down in `expected` the bytes that follow from what it was
  // answered, with every call of the system failing in turn.
  void ForEveryFault(const std::function<void()>& prepare, const std::function<bool(ByteVector& expected)>& act) {
    const std::pair<Fault, bool> faults[] = {{Fault::Error, false}, {Fault::Error, true}, {Fault::Full, false},
                                             {Fault::Full, true},   {Fault::Short, true}, {Fault::Interrupted, false}};
    for (const auto& [fault, forGood] : faults) {
      int n = 1;
      for (bool struck = true; struck; ++n) {
        SCOPED_TRACE(testing::Message() << "fault " << static_cast<int>(fault) << " at " << n << ", " << forGood);
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
        const ByteVector whole = ReadFile(path);
        ByteVector found = whole;
        // What could not be taken back stands behind everything else.
        if (forGood && !allGood && found.size() > expected.size()) found.resize(expected.size());
        EXPECT_EQ(found, expected);
        // No lock and no damage stays behind.
        CKespDataFile again;
        if (expected.empty()) {
          EXPECT_TRUE(again.Create(Text(path)));
          continue;
        }
        EXPECT_EQ(Walk(path).error, KESP_ERROR_NORMAL_EOF);
        auto later = EndRecord(99);
        EXPECT_TRUE(again.Open(Text(path)) && again.AppendRecord(&later, 2));
        EXPECT_EQ(ReadFile(path), whole + EndOf(99, 2));
      }
      EXPECT_GT(n, 5);
    }
  }
};

TEST_F(KespDataFileFaults, LoseNothingOfANewFile) {
  const auto steps = [&](ByteVector& expected) {
    CKespDataFile created;
    created.m_version = 3;
    if (!created.Create(Text(path))) return false;
    expected = FileHeader();
    CKespNote old;
    old.NoteText = "rain";
    old.m_recordVersion = 1;
    auto end = EndRecord(7);
    bool good = true;
    const auto answered = [&](bool answer, const ByteVector& bytes) {
      good &= answer;
      if (answer) Append(expected, bytes);
    };
    answered(created.AppendRecord(&end, 0), EndOf(7));
    answered(created.AppendRecordVersion1(&old, 0), Stored{6, 1, NoteBody1()}.Bytes());
    answered(created.AppendRecordVersion2(&end, 0), EndOf(7));
    good &= Flushed(created);
    answered(created.AppendRecord(&end, 0), EndOf(7));
    return created.Close() && good;
  };
  ForEveryFault([&] { std::filesystem::remove(path); }, steps);
  ForEveryFault([&] { WriteFile(path, {}); }, steps);
}

TEST_F(KespDataFileFaults, LeaveAnEditedFileAsAnswered) {
  const auto prepare = [&] { Put(EndOf(1) + EndOf(2) + EndOf(3)); };
  ForEveryFault(prepare, [&](ByteVector& expected) {
    std::vector<ByteVector> records{EndOf(1), EndOf(2), EndOf(3), {}};
    CKespDataFile edited;
    bool good = edited.Open(Text(path));
    const auto answered = [&](bool answer, std::size_t index, const ByteVector& bytes) {
      good &= answer;
      if (answer) records[index] = bytes;
    };
    auto end1 = EndRecord(1), end2 = EndRecord(2), end4 = EndRecord(4);
    answered(edited.SeekToFirstRecord() && edited.OverwriteRecord(&end1, 8), 0, EndOf(1, 8));
    answered(edited.UpdateRecord(&end2, 8, true), 1, EndOf(2, 8));
    answered(edited.Seek(86) && edited.DeleteRecord(86, KESP_RECORD_FEATURE_END), 2, EndOf(3, 5));
    answered(edited.AppendRecord(&end4, 2), 3, EndOf(4, 2));
    good &= Flushed(edited);
    expected = FileHeader() + records[0] + records[1] + records[2] + records[3];
    return edited.Close() && good;
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

TEST_F(KespDataFileFaults, LetNothingPassAfterAFailedSync) {
  Open(EndOf(1));
  auto end = EndRecord(2);
  Chosen system;
  system.syncs = 1;
  EXPECT_FALSE(file.AppendRecord(&end, 0));
  EXPECT_EQ(file.GetSystemError(), ENOSPC);
  // The device is well again and could hide what it lost.
  EXPECT_FALSE(file.AppendRecord(&end, 0) || file.AppendRecordVersion1(&end, 0) || file.CopyRecord(&end, kFirst));
  EXPECT_FALSE(Flushed(file));
  EXPECT_EQ(Records(), EndOf(1));
  ASSERT_TRUE(file.Close() && file.Open(Text(path)));
  EXPECT_EQ(file.GetSystemError(), 0);
  EXPECT_TRUE(file.AppendRecord(&end, 0));
  EXPECT_EQ(Records(), EndOf(1) + EndOf(2, end.m_flags));
}

TEST_F(KespDataFileFaults, CutBackHalfARecord) {
  auto end = EndRecord(2);
  for (int moved = 0; moved <= 18; ++moved) {
    for (const int truncates : {0, 1, 2}) {
      SCOPED_TRACE(testing::Message() << moved << " bytes, truncating fails " << truncates);
      Open(EndOf(1));
      ByteVector expected = EndOf(1);
      Chosen system;
      system.moved = moved;
      system.truncates = truncates;
      // From the second on there is room again. What is answered for now must not stand behind the half.
      for (int i = 0; i < 3; ++i) {
        if (file.AppendRecord(&end, 0)) Append(expected, EndOf(2));
        system.moved = -1;
      }
      EXPECT_TRUE(file.Close());
      EXPECT_GT(expected.size(), 18u);
      EXPECT_EQ(Records(), expected);
    }
  }
}

TEST_F(KespDataFileFaults, KeepWhatAnInterruptedOverwriteDidNotReach) {
  Open(EndOf(1) + EndOf(2));
  Chosen system;
  system.moved = 10;  // the flags are among them
  auto end = EndRecord(9);
  EXPECT_FALSE(file.CopyRecord(&end, kFirst));
  EXPECT_EQ(file.GetSystemError(), ENOSPC);
  EXPECT_EQ(Records(), EndOf(1, 2) + EndOf(2));
  // What this object reads is what the file holds.
  const std::unique_ptr<CKespRecord> record(file.SeekToFirstRecord() ? file.ReadNextRecord(false) : nullptr);
  EXPECT_TRUE(record && record->m_flags == 2);
}

}  // namespace
