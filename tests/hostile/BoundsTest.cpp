// Files made to cost as much as they can: memory and time stay in proportion to their length.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "kesp/kesp.h"
#include "tests/support/MemorySystem.h"
#include "tests/support/Records.h"

namespace kesp::test {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;  // with an allocator of its own, and everything is slow
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

struct Cost {
  double bytes = 0;    // resident at the most, above what the process had before
  double seconds = 0;  // of the processor
  unsigned records = 0;
  int systemError = 0;
};

double StatusBytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == key && status >> word) return 1024 * std::stod(word);
  }
  return 0;
}

Cost ReadHere() {
  ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);      // as in a process that has freed nothing yet
  std::ofstream("/proc/self/clear_refs") << 5;  // resets the peak
  const double before = StatusBytes("VmRSS:");
  const std::clock_t start = std::clock();
  Cost cost;
  {
    CKespFile file;
    CString message;
    (void)file.OpenKespReadOnly(u"a", message);
    (void)file.ReadKespFile(true);
    cost.records = static_cast<unsigned>(file.m_recordList.GetCount());
    cost.systemError = file.m_pDataFile->GetSystemError();
  }
  cost.seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  cost.bytes = StatusBytes("VmHWM:") - before;
  return cost;
}

// In a process of its own, so that no file finds memory that another left. The file is the one at "a".
Cost Read() {
  int ends[2];
  Cost cost;
  EXPECT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    cost = ReadHere();
    ::_exit(::write(ends[1], &cost, sizeof cost) == sizeof cost ? 0 : 1);
  }
  ::close(ends[1]);
  EXPECT_EQ(::read(ends[0], &cost, sizeof cost), ssize_t{sizeof cost}) << "the child ended early";
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
  return cost;
}

// Records of one kind.
const struct Shape {
  const char* name;
  std::string record;
  std::vector<std::pair<std::size_t, std::uint32_t>> numbers;  // where the record's number is put, multiplied by what
  enum { kAll, kNone, kSome } kept = kAll;                     // some: up to where they would take too much memory
} kShapes[] = {
    // clang-format off
    {"ends of one feature", "04000000 0100 00*4 04000000 00*4", {}},
    {"ends of no feature", "04000000 0100 00*4 04000000 ffffffff", {}, Shape::kNone},
    {"features", "01000000 0100 00*4 22000000 00*26 0100 00*6", {{14, 1}}},
    {"features in one bucket", "01000000 0100 00*4 22000000 00*26 0100 00*6", {{14, 272}}},
    {"points in one bucket", "02000000 0100 00*4 44000000 00*68", {{18, 272}}},
    {"attributes", "05000000 0100 00*4 8a000000 00*26 0100 00*110", {}},
    // 14 bytes in the file, whatever length they state, and an attribute of feature 0 in memory.
    {"attributes without a body", "05000000 0000 00*4 01000000", {}, Shape::kSome},
    {"notes", "06000000 0100 00*4 00010000 00*256", {}},
    {"tags without a block", "09000000 0100 00*4 08000000 00*8", {}},
    {"GPS marks in one bucket", "09000000 0100 00*4 20000000 07000000 18000000 00*4 10000000 00*16", {{42, 1}}},
    {"named flags", "09000000 0100 00*4 30000000 0d000000 28000000 18000000 \"Feature\" 00*10 08000000 00*8",
     {{50, 1}}},
    {"links of two features", "09000000 0100 00*4 28000000 0a000000 20000000 00*4 18000000 00*24", {}},
    {"links of many features", "09000000 0100 00*4 28000000 0a000000 20000000 00*4 18000000 00*24",
     {{30, 2}, {38, 3}}, Shape::kSome},
    // clang-format on
};

TEST(Bounds, MemoryAndTimeOfAReadAreInProportionToTheFile) {
#ifdef NDEBUG
  constexpr std::uint32_t kTags = kSanitized ? 40'000 : 1'000'000;
#else
  constexpr std::uint32_t kTags = kSanitized ? 40'000 : 200'000;
#endif
  for (const auto& shape : kShapes) {
    SCOPED_TRACE(shape.name);
    ByteVector record = Hex(shape.record);
    const std::uint32_t most = record[0] == KESP_RECORD_TAG ? kTags : kTags / 2;
    const auto read = [&](std::uint32_t count) {
      ByteVector file = FileHeader(1) + Header1() + Record(1, 1, 0, Hex("00*26 0100 00*6"));
      file.reserve(file.size() + count * record.size() + 15);
      for (std::uint32_t i = 0; i < count; ++i) {
        for (const auto& [offset, factor] : shape.numbers) Put(record, offset, i * factor, 4);
        Append(file, record);
      }
      Append(file, Record(200, 1, 0, Hex("00")));  // so that a length of 1 fits after the last
      const auto size = static_cast<double>(file.size());
      MemorySystem system;
      system.Put("a", std::move(file));
      return std::pair(Read(), size);
    };
    double eighth = HUGE_VAL;
    for (int i = 0; i < 3; ++i) eighth = std::min(eighth, read(most / 8).first.seconds);
    auto [cost, size] = read(most);
    // Once more where other programs may have had the caches.
    if (cost.seconds > 8 * 3 * eighth) cost.seconds = std::min(cost.seconds, read(most).first.seconds);
    std::printf("%-26s %3.0f MB of memory, %.2f times the file; %.2f times the time of an eighth of it\n", shape.name,
                cost.bytes / (1 << 20), cost.bytes / size, cost.seconds / eighth);
    const bool stops = shape.kept == Shape::kSome && kTags == 1'000'000;
    EXPECT_EQ(cost.systemError, stops ? ENOMEM : 0);
    EXPECT_EQ(cost.records, stops ? cost.records : shape.kept == Shape::kNone ? 2u : most + 2);
    // What the sanitizers add to memory and time is theirs.
    if (kSanitized) continue;
    EXPECT_LE(cost.bytes, ((shape.kept == Shape::kSome ? 64 : 32) << 20) + 4 * size);
    EXPECT_GE(cost.bytes, stops ? 48 << 20 : 0) << "no sooner than it has to";
    EXPECT_LE(cost.seconds, 8 * 4 * eighth + 0.05) << "in proportion would be 8, with the square 64";
  }
}

}  // namespace
}  // namespace kesp::test
