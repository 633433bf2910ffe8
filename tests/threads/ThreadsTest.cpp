// Several threads, each with data sets of its own. Meant for the thread sanitizer (the preset `tsan`).
#include <atomic>
#include <future>
#include <thread>

#include "tests/dataset/DataSet.h"
#include "tests/support/Rows.h"

using namespace kesp::test;

namespace {

template <class Work>
void InThreads(unsigned count, Work work) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < count; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

TEST(Threads, EachHaveDataSetsOfTheirOwn) {
  constexpr std::uint32_t kPoints = 40'000;  // more than 4 MiB: read ahead by yet another thread
  const TempDir dir;
  std::vector<ByteVector> records(kPoints + 3, Point(7, 1, {.text = "a text of 19 units."}));
  records[0] = Header2{}, records[1] = Feature(7), records[2] = Attribute(7, "Girth", "a text of more than eleven");
  WriteFile(dir / "shared.kesp", Survey(records));
  std::vector<std::unique_ptr<CKespFile>> kept(4);  // read by one thread, let go by another
  InThreads(4, [&](unsigned i) {
    CString message;
    for (int times = 0; times < 3; ++times) {
      auto file = std::make_unique<CKespFile>();
      EXPECT_EQ(file->OpenKespReadOnly(Text(dir / "shared.kesp"), message), ERR_NONE);
      EXPECT_EQ(file->ReadKespFile(false), ERR_NONE);
      EXPECT_EQ(file->m_numPoints, kPoints);
      int count = 0;
      ErrorEnum error = ERR_NONE;
      CKespFeature** const oaks = file->GetFeaturesWhereName(LOGIC_EQUAL, "oak", count, error);
      EXPECT_EQ(Names(oaks, count), "F7");
      const CString own = Text(dir / ("own" + std::to_string(i) + std::to_string(times)));
      CKespFile written;
      const std::unique_ptr<CKespNote> note(written.CreateNote(u"written by a thread of its own"));
      written.AddNoteToWriteQueue(note.get());
      EXPECT_EQ(written.WriteNewKespFileFromQueue(own), ERR_NONE);
      EXPECT_EQ(written.CloseKesp(), ERR_NONE);
      kept[i] = std::move(file);
    }
  });
  InThreads(4, [&](unsigned i) { kept[(i + 1) % 4].reset(); });
}

// The thread that reads ahead fills columns too, of runs of any length, while others walk over views.
TEST(Threads, ShareTheFillingOfColumns) {
  const TempDir dir;
  std::vector<ByteVector> records{Header2{}};
  for (std::uint32_t i = 0; i < 36'000; ++i) {
    if (i % (i < 10'000 ? 70 : 9'999) == 0) records.push_back(Feature(i));
    records.push_back(Point(i, i, {.text = i % 1000 == 0 ? "A1" : ""}));
  }
  WriteFile(dir / "a.kesp", Survey(records));
  CKespDataFile alone;
  ASSERT_TRUE(alone.OpenReadOnly(Text(dir / "a.kesp")));
  CKespDataFile::AllowReadAhead(false);
  const Rows expected = RowsAtOnce(alone, false);
  CKespDataFile::AllowReadAhead(true);
  EXPECT_EQ(expected.points.size(), 36'000U);
  InThreads(2, [&](unsigned i) {
    CKespDataFile file;
    ASSERT_TRUE(file.OpenReadOnly(Text(dir / "a.kesp")));
    for (const std::size_t batchRows : {1000u, 100'000u})
      EXPECT_EQ(RowsInBatches(file, false, batchRows, i == 0).points, expected.points);
    EXPECT_EQ(RowsAtOnce(file, false), expected);
    EXPECT_FALSE(ReadColumns(file, AllColumns(false, 3000), [](kesp::Columns&) { return false; }));
    ASSERT_TRUE(file.SeekToFirstRecord());
    file.ReadAhead();
    std::size_t views = 0;
    for (kesp::RecordView record; file.ReadNextView(record, true);) ++views;
    EXPECT_EQ(views, records.size());
  });
}

TEST(Threads, OpenAndCloseReadersSideBySide) {
  const TempDir dir;
  WriteFile(dir / "a.kesp", FileHeader());
  InThreads(4, [&](unsigned) {
    for (int times = 0; times < 500; ++times) {
      CKespDataFile file;
      EXPECT_TRUE(file.OpenReadOnly(Text(dir / "a.kesp")));
      EXPECT_FALSE(CKespDataFile().Create(Text(dir / "a.kesp"))) << "while this process reads it";
    }
  });
}

// A record of the host's whose destructor waits for a thread that makes records itself: no lock is held meanwhile.
TEST(Threads, AreNotWaitedForUnderALock) {
  struct Waiting : CKespTavoHeader {
    ~Waiting() override {
      auto made = std::async(std::launch::async, [] {
        for (int i = 0; i < 10'000; ++i) std::make_unique<CKespPoint>()->PointText = "a text of 19 units.";
      });
      EXPECT_EQ(made.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    }
  };
  CKespFile file;
  file.AddTavoHeaderToWriteQueue(new Waiting);
}

}  // namespace
