#include "kesp/memory/ObjectPool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace kesp::test {
namespace {

TEST(ObjectPool, UsesAgainWhatWasFreed) {
  constexpr std::size_t kSize = 200, kCount = 50'000;  // of several regions
  constexpr std::int64_t kRun = 64 << 10;              // at most as much more is in the thread's stock
  std::vector<void*> blocks(kCount);
  std::int64_t most = 0;
  for (int times = 0; times < 10; ++times) {
    for (void*& block : blocks) block = PoolAllocate(kSize);
    if (times == 0) most = PoolBytesHeld();
    EXPECT_LE(std::abs(PoolBytesHeld() - most), kRun) << times;
    for (std::size_t i = 0; i < kCount; i += 2) PoolFree(blocks[i], kSize);
    for (std::size_t i = 0; i < kCount; i += 2) blocks[i] = PoolAllocate(kSize);
    EXPECT_LE(std::abs(PoolBytesHeld() - most), kRun) << times;
    for (void* const block : blocks) PoolFree(block, kSize);
    EXPECT_LE(PoolBytesHeld(), most / 2);
  }
}

TEST(ObjectPool, ThreadsShareBlocksAndLeaveNone) {
  constexpr std::size_t kThreads = 4, kPlaces = 64, kSizes = 40;
  std::array<std::atomic<std::uint8_t*>, kPlaces> places{};  // blocks of 8 times 1 and more, filled with that number
  const auto check = [](std::uint8_t* block) {
    if (block == nullptr) return;
    EXPECT_TRUE(std::all_of(block, block + block[0] * 8, [&](std::uint8_t byte) { return byte == block[0]; }));
    PoolFree(block, block[0] * std::size_t{8});
  };
  const auto work = [&](unsigned seed) {
    std::minstd_rand random(seed);
    for (int i = 0; i < 50'000; ++i) {
      const std::size_t number = 1 + random() % kSizes;
      auto* const block = static_cast<std::uint8_t*>(PoolAllocate(number * 8));
      std::fill_n(block, number * 8, static_cast<std::uint8_t>(number));
      check(random() % 2 == 0 ? block : places[random() % kPlaces].exchange(block));
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) threads.emplace_back(work, i + 1);
  for (std::thread& thread : threads) thread.join();
  for (auto& place : places) check(place);

  // What a thread had in stock is there again when it has ended.
  constexpr std::size_t kAll = 200;
  std::vector<void*> first(kAll), second(kAll);
  const auto take = [](void*& block) { block = PoolAllocate(1000); };
  const auto free = [](void* block) { PoolFree(block, 1000); };
  std::thread([&] {
    std::for_each(first.begin(), first.end(), take), std::for_each(first.begin(), first.end(), free);
  }).join();
  std::for_each(second.begin(), second.end(), take);
  const auto wasThere = [&](void* block) { return std::count(first.begin(), first.end(), block) != 0; };
  const bool pooled = PoolBytesHeld() != 0;
  EXPECT_GE(std::count_if(second.begin(), second.end(), wasThere), pooled ? kAll - 64 : 0);
  std::for_each(second.begin(), second.end(), free);
  std::set<void*> used;  // that many threads use one after another
  for (int i = 0; i < 200; ++i) std::thread([&] { free(*used.insert(PoolAllocate(1000)).first); }).join();
  EXPECT_LE(used.size(), pooled ? 64u : 200u);
}

// The stock goes back in the first round of a thread's destructors; another one may need the pool in the second.
TEST(ObjectPool, ServesAThreadThatHasNoStockAnyMore) {
  static pthread_key_t key;
  static int rounds = 0;
  const auto work = [](void* early) {
    if (++rounds == 1) return (void)::pthread_setspecific(key, early);
    std::vector<void*> blocks(100);
    for (void*& block : blocks) std::memset(block = PoolAllocate(1000), 1, 1000);
    EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()).size(), blocks.size());
    for (void* const block : blocks) PoolFree(block, 1000);
    PoolFree(early, 1000);
  };
  ASSERT_EQ(::pthread_key_create(&key, work), 0);
  std::thread([] { (void)::pthread_setspecific(key, PoolAllocate(1000)); }).join();
  EXPECT_EQ(rounds, 2);
}

TEST(ObjectPool, PreparesUntilEnoughIsReady) {
  int prepared = 0;
  while (prepared < 100 && PoolPrepare()) ++prepared;
  EXPECT_LE(prepared, 4);
}

}  // namespace
}  // namespace kesp::test
