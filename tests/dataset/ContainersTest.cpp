#include <list>

#include "kesp/dataset/KespMap.h"
#include "kesp/dataset/RecordList.h"
#include "kesp/records/GpsTime.h"
#include "kesp/records/KespNote.h"
#include "tests/dataset/DataSet.h"

using namespace kesp::test;

namespace {

using Map = kesp::KespMap<std::uint32_t, int>;

template <class Key, class Value>
std::vector<std::pair<Key, Value>> Entries(const kesp::KespMap<Key, Value>& map) {
  std::vector<std::pair<Key, Value>> entries;
  for (const auto& entry : map) entries.emplace_back(entry.key, entry.value);
  return entries;
}

// What the order is defined by: 17 chains, walked from the front.
template <class Key, class Value>
struct Chains {
  std::list<std::pair<Key, Value>> chains[17];
  std::list<std::pair<Key, Value>>& Of(const Key& key) { return chains[(static_cast<std::uint32_t>(key) >> 4) % 17]; }
  void Set(const Key& key, Value value) {
    for (auto& entry : Of(key)) {
      if (entry.first == key) {
        entry.second = value;
        return;
      }
    }
    Of(key).emplace_front(key, value);
  }
  bool Remove(const Key& key) {
    return Of(key).remove_if([&](const auto& entry) { return entry.first == key; }) != 0;
  }
  std::vector<std::pair<Key, Value>> All() const {
    std::vector<std::pair<Key, Value>> all;
    for (const auto& chain : chains) all.insert(all.end(), chain.begin(), chain.end());
    return all;
  }
};

TEST(KespMap, WalksBucketByBucketNewestFirst) {
  Map map;
  for (std::uint32_t number = 1; number <= 20; ++number) map.SetAt(number, 0);
  std::vector<std::uint32_t> order;
  for (const auto& entry : map) order.push_back(entry.key);
  EXPECT_EQ(order, (std::vector<std::uint32_t>{15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 20, 19, 18, 17, 16}));

  EXPECT_EQ(map.SetAt(15, 1), 0);  // in place
  EXPECT_EQ(map.begin()->key, 15u);
  EXPECT_TRUE(map.RemoveKey(15));
  EXPECT_FALSE(map.RemoveKey(15));
  EXPECT_EQ(map.begin()->key, 14u);
  map.SetAt(272 + 3, 2);  // 17 * 16 on: the bucket of 3, at its front
  map.SetAt(15, 3);
  EXPECT_EQ(map.begin()->key, 15u);
  EXPECT_EQ((++map.begin())->key, 275u);

  int value = 9;
  EXPECT_FALSE(map.Lookup(99, value));
  EXPECT_EQ(value, 9);
  map.RemoveAll();
  EXPECT_TRUE(map.IsEmpty() && map.begin() == map.end() && map.Find(1) == nullptr && !map.RemoveKey(1));
}

// Random keys out of a few shapes: dense, all in one bucket, and up to the edge of 32 bits.
template <class Key, class MakeKey>
void CompareWithChains(MakeKey makeKey, unsigned keys) {
  Random random(7);
  kesp::KespMap<Key, int> map;
  Chains<Key, int> chains;
  for (int step = 0; step < 4000; ++step) {
    const Key key = makeKey(random(keys));
    if (random(5) < (step / 1000 % 2 == 0 ? 3u : 1u)) {
      map.SetAt(key, step);
      chains.Set(key, step);
    } else {
      EXPECT_EQ(map.RemoveKey(key), chains.Remove(key));
    }
    if (step % 50 != 0) continue;
    ASSERT_EQ(Entries(map), chains.All()) << step;
    ASSERT_EQ(map.GetCount(), static_cast<int>(chains.All().size()));
    for (const auto& [there, value] : chains.All()) ASSERT_EQ(*map.Find(there), value);
  }
}

TEST(KespMap, HoldsWhatTheChainsHold) {
  CompareWithChains<std::uint32_t>([](unsigned n) { return n; }, 300);
  CompareWithChains<std::uint32_t>([](unsigned n) { return n * 272; }, 300);  // one bucket
  CompareWithChains<std::uint32_t>([](unsigned n) { return 0xFFFFFFFF - n; }, 40);
  CompareWithChains<std::uint32_t>([](unsigned n) { return n << 24; }, 250);
  CompareWithChains<CGPSTime>([](unsigned n) { return CGPSTime(n % 7, n / 7); }, 100);
  CompareWithChains<CGPSTime>([](unsigned n) { return CGPSTime(5, n << 20); },
                              200);  // the second part tells them apart
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
    ASSERT_EQ(list.GetCount(), static_cast<int>(model.size()));
    ASSERT_EQ(list.IsEmpty(), model.empty());
    ASSERT_EQ(list.GetHead(), model.empty() ? nullptr : model.front());
    ASSERT_TRUE(std::equal(list.begin(), list.end(), model.begin(), model.end())) << step;
  }
}

}  // namespace
