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
  TempDir m_folder;
  const CString m_path = Text(m_folder / "long");
  std::vector<std::byte> m_bytes = std::vector<std::byte>(9'000'001);
};

// Pieces of many sizes, of which some are skipped, are all compared.
TEST_F(ReadAhead, GivesTheBytesOfTheFileWhereverItBegins) {
  for (const unsigned start : {0U, 50U, 4095U, 100'000U, 8'999'990U, 9'000'001U}) {
    CFile file(m_path, CFile::modeRead);
    (void)file.ReadView(start % 3);  // with something in the buffer, and without
    file.Seek(start, CFile::begin);
    file.ReadAhead();
    file.ReadAhead();  // at work already
    std::mt19937 random(start);
    for (std::size_t got = 1; got != 0;) {
      const auto from = m_bytes.begin() + static_cast<std::ptrdiff_t>(file.GetPosition());
      const std::size_t wanted = random() % (random() % 8 == 0 ? CFile::kMaxView : 300) + 1;
      const auto view = file.ReadView(wanted);
      ASSERT_TRUE(std::equal(view.begin(), view.end(), from)) << start << ' ' << from - m_bytes.begin();
      ASSERT_TRUE(view.size() == wanted || file.GetPosition() == m_bytes.size());
      got = view.size();
      const auto left = m_bytes.size() - file.GetPosition();
      if (random() % 500 == 0) file.Seek(random() % std::min<std::size_t>(700'000, left + 1), CFile::current);
    }
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
