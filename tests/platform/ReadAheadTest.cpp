#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "kesp/platform/File.h"
#include "kesp/platform/SystemCalls.h"
#include "tests/support/Bytes.h"

using namespace kesp::test;

namespace {

// Fails the reads that reach a place in the file, so often; any thread may read.
class BadSpot : public kesp::SystemCalls {
 public:
  BadSpot(std::int64_t place, int times) : m_place(place), m_times(times) { kesp::SetSystemCalls(this); }
  ~BadSpot() override { kesp::SetSystemCalls(nullptr); }
  ssize_t Read(int fd, void* to, std::size_t count, std::int64_t offset) override {
    if (offset <= m_place && offset + static_cast<std::int64_t>(count) > m_place && m_times-- > 0) {
      errno = EIO;
      return -1;
    }
    return SystemCalls::Read(fd, to, count, offset);
  }

 private:
  const std::int64_t m_place;
  std::atomic<int> m_times;
};

class ReadAhead : public ::testing::Test {
 protected:
  void SetUp() override {
    std::mt19937 random(5);
    std::generate(m_bytes.begin(), m_bytes.end(), [&] { return static_cast<std::byte>(random()); });
    CFile(m_path, CFile::modeCreate | CFile::modeReadWrite).Write(m_bytes.data(), m_bytes.size());
  }
  // Reads pieces of many sizes, skips some, and compares all; answers how far it got.
  std::size_t ReadOn(CFile& file, unsigned seed) {
    std::mt19937 random(seed);
    for (;;) {
      const auto start = static_cast<std::size_t>(file.GetPosition());
      const std::size_t wanted = random() % (random() % 8 == 0 ? CFile::kMaxView : 300) + 1;
      const auto view = file.ReadView(wanted);
      EXPECT_TRUE(std::equal(view.begin(), view.end(), m_bytes.begin() + static_cast<std::ptrdiff_t>(start)));
      if (view.size() < wanted || ::testing::Test::HasFailure()) return start + view.size();
      if (random() % 500 == 0) file.Seek(random() % 700'000, CFile::current);
    }
  }

  TempDir m_folder;
  const CString m_path = Text(m_folder / "long");
  std::vector<std::byte> m_bytes = std::vector<std::byte>(9'000'001);
};

TEST_F(ReadAhead, GivesTheBytesOfTheFileWhereverItBegins) {
  for (const unsigned start : {0U, 1U, 50U, 4095U, 100'000U, 8'999'990U, 9'000'001U}) {
    CFile file(m_path, CFile::modeReadWrite);
    (void)file.ReadView(start % 3);  // with something in the buffer, and without
    file.Seek(start, CFile::begin);
    file.ReadAhead();
    file.ReadAhead();  // at work already
    const std::size_t end = ReadOn(file, start);
    EXPECT_TRUE(end >= m_bytes.size() || file.GetPosition() > m_bytes.size()) << start;
  }
}

TEST_F(ReadAhead, EndsWhenTheFileIsWrittenToOrReadElsewhere) {
  for (int what = 0; what < 4; ++what) {
    CFile file(m_path, CFile::modeReadWrite);
    file.ReadAhead();
    for (int i = 0; i < 7'000; ++i) (void)file.ReadView(100);
    if (what == 0) file.Seek(10, CFile::begin);
    if (what == 1) file.Seek(8'000'000, CFile::begin);
    if (what >= 2) {
      // What is written is what is read next, also where it was read ahead.
      const std::vector<std::byte> fresh(3'000, std::byte{static_cast<unsigned char>(what)});
      const auto at = static_cast<std::size_t>(file.GetPosition()) + (what == 2 ? 0 : 200'000);
      file.Seek(static_cast<std::int64_t>(at), CFile::begin);
      file.Write(fresh.data(), fresh.size());
      std::copy(fresh.begin(), fresh.end(), m_bytes.begin() + static_cast<std::ptrdiff_t>(at));
      file.Seek(static_cast<std::int64_t>(at) - 50, CFile::begin);
    }
    ReadOn(file, 3);
  }
}

TEST_F(ReadAhead, LeavesAFailureToWhoeverReadsThere) {
  constexpr std::int64_t kPlace = 5'000'000;
  for (const int times : {1, 1'000'000}) {
    const BadSpot bad(kPlace, times);
    CFile file(m_path, CFile::modeRead);
    file.ReadAhead();
    std::size_t got = 0;
    const auto readAll = [&] {
      while (const std::size_t size = file.ReadView(10'000).size()) got += size;
    };
    if (times == 1) {
      readAll();  // tried again, and there
      EXPECT_EQ(got, m_bytes.size());
    } else {
      EXPECT_THROW(readAll(), CFileException);
      EXPECT_LE(got, static_cast<std::size_t>(kPlace));
    }
  }
}

}  // namespace
