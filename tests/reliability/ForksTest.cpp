// A process that forks while other threads of it use the library: the child uses it too.
#include <atomic>
#include <thread>

#include "tests/dataset/DataSet.h"
#include "tests/reliability/Processes.h"

using namespace kesp::test;

namespace {

TEST(Forks, LeaveTheChildAllThatItNeeds) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's allocator keeps its own locks in a child";
#endif
  constexpr int kPoints = 60'000, kTimes = 40;
  const TempDir dir;
  std::vector<ByteVector> records(kPoints + 2, Point(7, 1));  // 7 MB: read ahead by a thread
  records[0] = Header2{}, records[1] = Feature(7);
  WriteFile(dir / "a.kesp", Survey(records));
  const CString path = Text(dir / "a.kesp");
  const auto readAll = [&] {
    CKespFile file;
    CString message;
    return file.OpenKespReadOnly(path, message) == ERR_NONE && file.ReadKespFile(false) == ERR_NONE &&
           file.WasReadToEnd() && file.m_numPoints == kPoints;
  };
  std::atomic<bool> done = false, good = true;
  const auto repeat = [&](auto operation) {
    return std::thread([&, operation] {
      while (!done) good = good && operation();
    });
  };
  std::thread reader = repeat(readAll), opener = repeat([&] { return CKespDataFile().OpenReadOnly(path); });
  for (int times = 0; times < kTimes; ++times) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(30);
      NEED(readAll());
      ::_exit(0);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "fork " << times;
  }
  done = true;
  reader.join();
  opener.join();
  EXPECT_TRUE(good);
}

}  // namespace
