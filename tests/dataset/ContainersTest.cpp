#include <list>

#include "kesp/dataset/KespMap.h"
#include "kesp/dataset/RecordList.h"
#include "kesp/records/GpsTime.h"
#include "kesp/records/KespNote.h"
#include "tests/dataset/DataSet.h"

using namespace kesp::test;

namespace {

TEST(KespMap, WalksBucketByBucketNewestFirst) {
  kesp::KespMap<std::uint32_t, int> map;
  const auto order = [&map] {
    std::string keys;
    for (const auto& entry : map) keys += std::to_string(entry.key) + " ";
    return keys;
  };
  for (std::uint32_t number = 1; number <= 20; ++number) map.SetAt(number, 0);
  EXPECT_EQ(order(), "15 14 13 12 11 10 9 8 7 6 5 4 3 2 1 20 19 18 17 16 ");
  EXPECT_EQ(map.SetAt(15, 1), 0);  // in place
  EXPECT_TRUE(map.RemoveKey(14) && !map.RemoveKey(14));
  map.SetAt(272 + 3, 2);  // 17 * 16 on: the bucket of 3, at its front
  map.SetAt(14, 3);
  EXPECT_EQ(order(), "14 275 15 13 12 11 10 9 8 7 6 5 4 3 2 1 20 19 18 17 16 ");
  int value = 9;
  EXPECT_FALSE(map.Lookup(99, value));
  EXPECT_EQ(value, 9);
  map.RemoveAll();
  EXPECT_TRUE(map.IsEmpty() && order().empty() && map.Find(1) == nullptr && !map.RemoveKey(1));
}

// Random keys of some shape, beside what the order is defined by: 17 chains, walked from the front.
template <class Key, class MakeKey>
void CompareWithChains(MakeKey makeKey, unsigned keys) {
  Random random(7);
  kesp::KespMap<Key, int> map;
  std::list<std::pair<Key, int>> chains[17];
  for (int step = 0; step < 4000; ++step) {
    const Key key = makeKey(random(keys));
    auto& chain = chains[(static_cast<std::uint32_t>(key) >> 4) % 17];
    const auto found = std::find_if(chain.begin(), chain.end(), [&](const auto& entry) { return entry.first == key; });
    if (random(5) < (step / 1000 % 2 == 0 ? 3u : 1u)) {
      map.SetAt(key, step);
      if (found == chain.end()) chain.emplace_front(key, step);
      if (found != chain.end()) found->second = step;
    } else {
      EXPECT_EQ(map.RemoveKey(key), found != chain.end());
      if (found != chain.end()) chain.erase(found);
    }
    if (step % 50 != 0) continue;
    auto entry = map.begin();
    int count = 0;
    for (const auto& one : chains) {
      for (const auto& [there, value] : one) {
        ASSERT_TRUE(entry != map.end() && entry->key == there && entry->value == value && *map.Find(there) == value);
        ++entry;
        ++count;
      }
    }
    ASSERT_TRUE(entry == map.end() && map.GetCount() == count) << step;
  }
}

TEST(KespMap, HoldsWhatTheChainsHold) {
  CompareWithChains<std::uint32_t>([](unsigned n) { return n; }, 300);
  CompareWithChains<std::uint32_t>([](unsigned n) { return n * 272; }, 300);  // one bucket
  CompareWithChains<std::uint32_t>([](unsigned n) { return 0xFFFFFFFF - n; }, 40);
  CompareWithChains<std::uint32_t>([](unsigned n) { return n << 24; }, 250);
  CompareWithChains<CGPSTime>([](unsigned n) { return CGPSTime(n % 7, n << 20); }, 200);
}

TEST(RecordList, KeepsItsOrderWhateverIsRemoved) {
  Random random(11);
  std::vector<CKespNote> notes(12);
  kesp::RecordList list;
  std::vector<CKespRecord*> model;
  for (int step = 0; step < 3000; ++step) {
    const unsigned what = random(40);
    // Null and repeated entries are ordinary ones.
    CKespRecord* const record = random(13) == 0 ? nullptr : &notes[random(12)];
    if (what < 30) {
      list.AddTail(record);
      model.push_back(record);
    } else if (what < 39) {
      list.Remove(record);
      std::erase(model, record);
    } else if (random(4) == 0) {
      list.RemoveAll();
      model.clear();
    }
    ASSERT_TRUE(list.GetCount() == static_cast<int>(model.size()) && list.IsEmpty() == model.empty()) << step;
    ASSERT_EQ(list.GetHead(), model.empty() ? nullptr : model.front());
    ASSERT_TRUE(std::equal(list.begin(), list.end(), model.begin(), model.end())) << step;
  }
}

}  // namespace
