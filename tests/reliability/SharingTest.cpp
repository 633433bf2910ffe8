// Several processes on one file at a time.

#include "tests/reliability/Processes.h"

using namespace kesp::test;

namespace {

class Sharing : public testing::Test {
 protected:
  using Path = std::filesystem::path;
  void Write(bool mayBeRefused) const {
    // And until the readers have had their turn.
    for (int round = 0; round < 40 || (board.reads < 10 && round < 400);) {
      CKespDataFile file;
      if (file.Open(Text(path))) {
        NEED(++board.writers == 1);
        for (int i = 0; i < 5; ++i) AppendAndEdit(file, board);
        --board.writers;
        ++round;
      } else {
        NEED(mayBeRefused && file.GetError() == KESP_ERROR_OPEN && file.GetSystemError() == EWOULDBLOCK);
        ++board.refused;
      }
      NEED(file.Close());
      ::usleep(200);
    }
  }
  // Each record is whole, and there are at least so many. Half a one may follow.
  static void Check(const Path& what, std::uint32_t least) {
    CKespDataFile file;
    std::uint32_t n = 0;
    NEED(file.OpenReadOnly(Text(what)));
    for (; const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(true)}; ++n) NEED(IsWhole(*record, n));
    NEED(n >= least && (file.GetError() == KESP_ERROR_NORMAL_EOF || file.CanAttemptRepair()));
  }
  void Read() const {
    for (; !board.done; ++board.reads) Check(path, board.appended);
  }
  void Copy() const {
    for (; !board.done; ++board.copies) {
      CKespDataFile file;
      const std::uint32_t least = board.appended;
      NEED(file.OpenReadOnly(Text(path)));
      NEED(board.copies % 2 == 0 ? file.Copy(Text(copy)) : file.CopyVerify(Text(copy), 2));
      Check(copy, least);
    }
  }
  const TempDir dir;
  const Path path = dir / "a.kesp", copy = dir / "b.kesp";
  const IdleDisk disk;
  Board& board = Board::Make();
};

TEST_F(Sharing, KeepsWritersApartAndReadersUndisturbed) {
  for (const int writers : {1, 3}) {
    board.Clear();
    ASSERT_TRUE(CKespDataFile().Create(Text(path)));
    std::vector<pid_t> children;
    for (int i = 0; i < writers + 3; ++i) {
      children.push_back(::fork());
      if (children.back() != 0) continue;
      i < writers ? Write(writers > 1) : i < writers + 2 ? Read() : Copy();
      ::_exit(0);
    }
    for (std::size_t i = 0; i < children.size(); ++i) {
      int status = 0;
      ::waitpid(children[i], &status, 0);
      EXPECT_EQ(status, 0) << "ended in line " << WEXITSTATUS(status) << ", signal " << WTERMSIG(status);
      board.done = i + 1 >= static_cast<std::size_t>(writers);
    }
    EXPECT_GE(board.appended, 200u);
    EXPECT_GE(board.reads, 3u);
    EXPECT_EQ(Walk(path).positions.size(), board.appended);
    std::printf("%d writers, refused %u times; %u reads and %u copies meanwhile\n", writers, board.refused.load(),
                board.reads.load(), board.copies.load());
  }
}

}  // namespace
