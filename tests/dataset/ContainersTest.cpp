#include <list>

#include "kesp/dataset/KespMap.h"
#include "kesp/dataset/RecordList.h"
#include "kesp/records/GpsTime.h"
#include "kesp/records/KespNote.h"
#include "tests/dataset/DataSet.h"
#include "tests/support/FaultyMemory.h"

using namespace kesp::test;

namespace {

// Random keys of some shape, compared with what defines the order: 17 chains, walked from the front.
template <class Key, class MakeKey>
void CompareWithChains(MakeKey makeKey, unsigned keys) {
  Random random(7);
  kesp::KespMap<Key, int> map;
  std::list<std::pair<Key, int>> chains[17];
  int count = 0;
  for (int step = 1; step < 4000; ++step) {
    const Key key = makeKey(random(keys));
    auto& chain = chains[(static_cast<std::uint32_t>(key) >> 4) % 17];
    const auto found = std::find_if(chain.begin(), chain.end(), [&](const auto& entry) { return entry.first == key; });
    const bool isThere = found != chain.end();
    const bool adds = random(5) < (step / 1000 % 2 == 0 ? 3u : 1u), later = sizeof(Key) == 4 && random(3) == 0;
    if (adds) {
      if constexpr (sizeof(Key) == 4) later ? map.Note(key, step) : void();
      EXPECT_EQ(later ? 0 : map.SetAt(key, step), isThere && !later ? found->second : 0);
      if (isThere) found->second = step;
      if (!isThere) chain.emplace_front(key, step);
    } else {
      EXPECT_EQ(map.RemoveKey(key), isThere);
      if (isThere) chain.erase(found);
    }
    // Each may be the first to see what was noted.
    count += adds == isThere ? 0 : adds ? 1 : -1;
    ASSERT_TRUE(step % 3 == 0 ? map.GetCount() == count : step % 3 == 1 ? (map.Find(key) != nullptr) == adds : true);
    ASSERT_EQ(map.IsEmpty(), count == 0);
    Key entered{};
    const auto at = std::find_if(chain.begin(), chain.end(), [&](const auto& entry) { return entry.second == step; });
    ASSERT_EQ(map.FindKey(step, entered), at != chain.end()) << step;
    ASSERT_TRUE(at == chain.end() || entered == key) << step;
    if (step % 50 != 0) continue;
    std::vector<std::pair<Key, int>> walked, expected;
    for (const auto& one : chains) expected.insert(expected.end(), one.begin(), one.end());
    for (const auto& entry : map) walked.emplace_back(entry.key, entry.value);
    ASSERT_EQ(walked, expected) << step;
    for (const auto& [there, value] : expected) ASSERT_EQ(*map.Find(there), value);
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
    const unsigned what = random(160);
    // Null and repeated entries are ordinary ones.
    CKespRecord* const record = random(13) == 0 ? nullptr : &notes[random(12)];
    if (what < 120) list.AddTail(record), model.push_back(record);
    if (what >= 120 && what < 159) list.Remove(record), std::erase(model, record);
    if (what == 159) list.RemoveAll(), model.clear();
    ASSERT_EQ(std::vector<CKespRecord*>(list.begin(), list.end()), model) << step;
    ASSERT_EQ(list.GetCount(), std::ssize(model));
    ASSERT_EQ(list.IsEmpty(), model.empty());
    ASSERT_EQ(list.GetHead(), model.empty() ? nullptr : model.front());
  }
}

TEST(RecordList, RemovesWhateverIsInItWhenMemoryWasShort) {
  constexpr int kNotes = 120;  // a long list makes an index when many are removed
  std::vector<CKespNote> notes(kNotes + 1);
  bool struck = true;
  for (int at = 1; struck; ++at) {
    kesp::RecordList list;
    for (int i = 0; i < kNotes; ++i) list.AddTail(&notes[static_cast<std::size_t>(i)]);
    const auto remove = [&](int from, int to) {
      for (int i = from; i < to; ++i) list.Remove(&notes[static_cast<std::size_t>(i)]);
    };
    {
      const FaultyMemory memory(at);
      remove(1, 41), list.AddTail(&notes[kNotes]);
      struck = FaultyMemory::Struck();
    }
    remove(42, kNotes + 1);
    EXPECT_EQ(std::vector<CKespRecord*>(list.begin(), list.end()), (std::vector<CKespRecord*>{&notes[0], &notes[41]}));
    EXPECT_EQ(list.GetCount(), 2) << at;
  }
}

TEST(RecordList, IsWalkedWhateverGoesAndComes) {
  std::vector<CKespNote> notes(3000);
  CKespNote late;
  kesp::RecordList list;
  for (CKespNote& note : notes) list.AddTail(&note);
  std::vector<CKespRecord*> walked, expected;
  for (CKespRecord* record : list) {
    walked.push_back(record);
    if (record == &late) continue;
    const auto at = static_cast<std::size_t>(static_cast<CKespNote*>(record) - notes.data());
    list.Remove(record);
    if (at % 3 == 0) list.Remove(&notes[at + 1]);  // before the walk gets there
    if (at == 0) list.AddTail(&late), list.Remove(&late), list.AddTail(&late);
  }
  for (std::size_t i = 0; i < notes.size(); ++i) {
    if (i % 3 != 1) expected.push_back(&notes[i]);
  }
  expected.push_back(&late);
  EXPECT_EQ(walked, expected);
  EXPECT_EQ(list.GetCount(), 1);
  auto walk = list.begin();
  ASSERT_EQ(*walk, &late);
  list.RemoveAll();
  EXPECT_EQ(*walk, nullptr);
  list.AddTail(notes.data());
  EXPECT_EQ(*++walk, notes.data());
}

}  // namespace
