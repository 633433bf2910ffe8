#include "kesp/platform/ObjectPool.h"

#include <gtest/gtest.h>

#include <vector>

namespace kesp::test {
namespace {

TEST(ObjectPool, UsesAgainWhatWasFreed) {
  constexpr std::size_t kSize = 200, kCount = 50'000;  // of several regions
  std::vector<void*> blocks(kCount);
  std::int64_t most = 0;
  for (int times = 0; times < 10; ++times) {
    for (void*& block : blocks) block = PoolAllocate(kSize);
    if (times == 0) most = PoolBytesTaken();
    EXPECT_EQ(PoolBytesTaken(), most) << times;
    for (std::size_t i = 0; i < kCount; i += 2) PoolFree(blocks[i], kSize);
    for (std::size_t i = 0; i < kCount; i += 2) blocks[i] = PoolAllocate(kSize);
    EXPECT_EQ(PoolBytesTaken(), most) << times;
    for (void* const block : blocks) PoolFree(block, kSize);
    EXPECT_LE(PoolBytesTaken(), most / 2);
  }
}

}  // namespace
}  // namespace kesp::test
