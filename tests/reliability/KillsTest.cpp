// What a kill leaves of a file, whenever it comes: all that was acknowledged.
#include <cerrno>
#include <cstdio>
#include <random>

#include "tests/reliability/Processes.h"

using namespace kesp::test;

namespace {

TEST(Kills, LoseNothingAcknowledged) {
  const TempDir dir;
  const std::filesystem::path path = dir / "a.kesp";
  constexpr int kKills = 320;
  Board& board = Board::Make();
  std::mt19937 random(1);
  const IdleDisk disk;
  std::size_t records = 0, torn = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    SCOPED_TRACE(kill);
    std::filesystem::remove(path);
    board.Clear();
    const pid_t child = ::fork();
    if (child == 0) {
      CKespDataFile file;
      NEED(file.Create(Text(path)));
      while (board.appended < Board::kMost) AppendAndEdit(file, board);
      for (;;) ::pause();
    }
    ::usleep(static_cast<useconds_t>(random() % 8000));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "ended in line " << WEXITSTATUS(status);
    CKespDataFile file;
    if (!file.Open(Text(path))) {  // killed before there was a header
      ASSERT_EQ(board.appended, 0u);
      ASSERT_NE(file.GetSystemError(), EWOULDBLOCK);
      continue;
    }
    std::uint32_t n = 0;
    for (; const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)}; ++n) {
      ASSERT_TRUE(IsWhole(*record, n)) << n;
      ASSERT_TRUE(board.edited[n] == 1 || record->m_flags == 4u * board.edited[n]) << n;
    }
    ASSERT_GE(n, board.appended);
    ASSERT_LE(n, board.appended + 1);
    records += n;
    torn += file.GetError() != KESP_ERROR_NORMAL_EOF;
    ASSERT_TRUE(file.GetError() == KESP_ERROR_NORMAL_EOF || file.CanAttemptRepair());
  }
  std::printf("%d kills, %zu records, %zu files with half a record at the end\n", kKills, records, torn);
  EXPECT_GT(records, 1000u);
}

}  // namespace
