// A process that forks while other threads of it use the library: the child uses it too.
#include <atomic>
#include <thread>

#include "tests/dataset/DataSet.h"
#include "tests/reliability/Processes.h"

using namespace kesp::test;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAllocatorSurvivesForks = false;
#else
constexpr bool kAllocatorSurvivesForks = true;
#endif

TEST(Forks, LeaveTheChildAllThatItNeeds) {
  if (!kAllocatorSurvivesForks) GTEST_SKIP() << "the sanitizer's allocator keeps its own locks in a child";
  constexpr int kPoints = 60'000, kTimes = 40;
  const TempDir dir;
  ByteVector survey = Survey({Header2{}, Feature(7)});
  for (std::uint32_t i = 1; i <= kPoints; ++i) Append(survey, Point(7, i));  // 7 MB: read ahead by a thread
  WriteFile(dir / "a.kesp", survey);
  const CString path = Text(dir / "a.kesp");
  const auto readAll = [&] {
    CKespFile file;
    CString message;
    return file.OpenKespReadOnly(path, message) == ERR_NONE && file.ReadKespFile(false) == ERR_NONE &&
           file.WasReadToEnd() && file.m_numPoints == kPoints;
  };
  std::atomic<bool> done = false, good = true;
  std::thread reader([&] {
    while (!done) good = good && readAll();
  });
  std::thread opener([&] {
    while (!done) good = good && CKespDataFile().OpenReadOnly(path);
  });
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
    if (HasFailure()) break;
  }
  done = true;
  reader.join();
  opener.join();
  EXPECT_TRUE(good);
}

}  // namespace
