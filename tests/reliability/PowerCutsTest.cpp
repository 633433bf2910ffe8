// What a power cut leaves of a file, whenever it comes: all that was acknowledged.

#include <functional>
#include <map>
#include <random>
#include <set>

#include "kesp/dataset/KespFile.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/System.h"

using namespace kesp::test;

namespace {

namespace fs = std::filesystem;

struct Event {
  // (w)rite, (t)runcate, (s)ync of the file, sync of its (d)irectory; or of what is promised: the record at `offset`
  // (b)egins to change into `bytes`, is (a)cknowledged.
  char kind;
  std::size_t offset = 0;
  ByteVector bytes{};
};

// Notes what happens to one file.
struct Recorder : IdleDisk {
  explicit Recorder(fs::path watched) : path(std::move(watched)) {}
  int Open(const char* name, int flags, unsigned mode) override {
    const int opened = SystemCalls::Open(name, flags, mode);
    if (path == name) fd = opened;
    return opened;
  }
  ssize_t Write(int to, const void* from, std::size_t count, std::int64_t offset) override {
    const auto* const bytes = static_cast<const std::uint8_t*>(from);
    Note(to, {'w', static_cast<std::size_t>(offset), {bytes, bytes + count}});
    return SystemCalls::Write(to, from, count, offset);
  }
  ssize_t CopyRange(int, std::int64_t, int, std::int64_t, std::size_t) override { return -1; }
  int Truncate(int of, std::int64_t length) override {
    Note(of, {'t', static_cast<std::size_t>(length)});
    return SystemCalls::Truncate(of, length);
  }
  int DataSync(int of) override { return Note(of, {'s'}); }
  int FullSync(int) override { return Note(fd, {'d'}); }
  int Note(int of, const Event& event) {
    if (of == fd) events.push_back(event);
    return 0;
  }
  // The record that is at `offset` now.
  Event Now(char kind, std::size_t offset) const {
    const ByteVector file = ReadFile(path);
    const auto at = file.begin() + static_cast<std::ptrdiff_t>(offset);
    return {kind, offset, {at, at + 14 + at[10] + 256 * at[11]}};
  }
  const fs::path path;
  std::vector<Event> events;
  int fd = -1;
};

void Apply(ByteVector& image, const Event& event, std::size_t from = 0, std::size_t to = SIZE_MAX) {
  to = std::min(to, event.bytes.size());
  image.resize(event.kind == 't' ? event.offset : std::max(image.size(), event.offset + to));
  for (std::size_t i = from; i < to; ++i) image[event.offset + i] = event.bytes[i];
}

// What may be on the disk when the power goes: `durable`, and any of the events after the last sync, the last ones cut
// at a sector: the rest is old, or zeros where the file grew.
std::set<ByteVector> Images(const ByteVector& durable, const std::vector<Event>& pending) {
  std::set<ByteVector> images;
  EXPECT_LT(pending.size(), 10u);
  for (std::size_t kept = 0; kept < std::size_t{1} << pending.size(); ++kept) {
    ByteVector image = durable;
    for (std::size_t i = 0; i < pending.size(); ++i) {
      if ((kept >> i & 1) != 0) Apply(image, pending[i]);
    }
    images.insert(std::move(image));
  }
  ByteVector before = durable;
  for (const Event& event : pending) {
    for (std::size_t cut = 512 - event.offset % 512; cut < event.bytes.size(); cut += 512) {
      ByteVector head = before, tail = before;
      Apply(head, event, 0, cut);
      images.insert(head);
      head.resize(std::max(head.size(), event.offset + event.bytes.size()));
      images.insert(head);
      Apply(tail, event, cut);
      images.insert(tail);
    }
    Apply(before, event);
  }
  return images;
}

class PowerCuts : public testing::Test {
 protected:
  struct State {  // of a record that was acknowledged: as it was, and as it may be
    ByteVector before, after;
  };
  void Examine(const ByteVector& image, const std::map<std::size_t, State>& acknowledged) {
    fs::remove(path);
    fs::remove(copy);
    WriteFile(path, image);
    CKespDataFile file;
    ASSERT_TRUE(file.OpenReadOnly(Text(path)) || acknowledged.empty());
    if (!file.IsOpen()) return;
    const Walked walked = WalkOn(file);
    ASSERT_GE(walked.positions.size(), acknowledged.size());
    ASSERT_TRUE(file.CopyVerify(Text(copy), 2));
    const ByteVector rebuilt = ReadFile(copy);
    std::size_t index = 0, at = kFirst;
    for (const auto& [offset, state] : acknowledged) {
      ASSERT_EQ(walked.positions[index++], offset);
      const std::size_t size = state.before.size();
      for (std::size_t i = 0; i < size; ++i) {
        ASSERT_TRUE(image[offset + i] == state.before[i] || image[offset + i] == state.after[i]) << offset << '+' << i;
      }
      if ((image[offset + 6] & 1) != 0) continue;  // deleted
      ASSERT_LE(at + size, rebuilt.size());
      for (std::size_t i = 0; i < size && state.before == state.after; ++i) {
        ASSERT_TRUE(rebuilt[at + i] == state.before[i] || (i >= 10 && i < 14)) << offset << '+' << i;
      }
      at += size;
    }
  }
  const TempDir dir;
  const fs::path path = dir / "a.kesp", copy = dir / "b.kesp";
};

TEST_F(PowerCuts, LoseNothingAcknowledgedAtAnyPointOfAWorkload) {
  std::vector<Event> events;
  {
    Recorder recorder(path);
    CKespFile set;
    CKespDataFile& file = *set.m_pDataFile;
    std::vector<std::size_t> at;  // of each record
    const auto acknowledge = [&](std::initializer_list<std::size_t> places) {
      for (const std::size_t place : places) recorder.events.push_back(recorder.Now('a', at[place]));
    };
    // Records change, and have done so for good after the next sync at the latest.
    const auto edit = [&](std::initializer_list<std::size_t> places, const std::function<bool()>& act) {
      const auto mark = std::ssize(recorder.events);
      EXPECT_TRUE(act());
      for (const std::size_t place : places) {
        recorder.events.insert(recorder.events.begin() + mark, recorder.Now('b', at[place]));
      }
    };
    const ByteVector large(3000, 7);
    CKespRecord* const made[] = {new CKespTavoHeader,
                                 set.CreateFeature("Oak", KESP_FEATURE_POINT, 7),
                                 set.CreateStringAttribute("Girth", 7, "thick"),
                                 set.CreatePoint(1, "A", 1000, 1, 2, 3, 7),
                                 set.CreateTagBlob("large", large.data(), 3000),
                                 set.CreatePoint(2, "B", 1001, 1, 2, 3, 7),
                                 set.CreatePoint(3, "C", 1002, 1, 2, 3, 8),
                                 set.CreateNote("rain"),
                                 set.CreateFeatureEnd(7)};
    ASSERT_TRUE(file.Create(Text(path)));
    for (CKespRecord* const record : made) {
      EXPECT_TRUE(file.AppendRecord(record, 0));
      at.push_back(record->m_filePosition);
      acknowledge({at.size() - 1});
    }
    edit({7}, [&] { return file.UpdateRecord(made[7], 8, false); });
    edit({6}, [&] { return file.Seek(made[6]->m_filePosition) && file.DeleteRecord(made[6]->m_filePosition, {}); });
    static_cast<CKespTag*>(made[4])->Set(KESP_TAG_BLOB, "small", nullptr, 3000);
    edit({4}, [&] { return file.CopyRecord(made[4], made[4]->m_filePosition); });
    EXPECT_TRUE(file.Flush());
    acknowledge({4, 6, 7});
    EXPECT_TRUE(file.Close());

    CString message;
    EXPECT_EQ(set.OpenKesp(Text(path), message), ERR_NONE);
    EXPECT_EQ(set.ReadKespFile(false), ERR_NONE);
    edit({0}, [&] { return set.UpdateKespHeader("1", "2", "3", "4", "5", "6", 0, 1, 2, 3, true) == ERR_NONE; });
    edit({2, 3, 5}, [&] { return set.DeleteFeatureAndAssociatedRec(*set.m_featureIndex.Find(7)) == ERR_NONE; });
    acknowledge({0, 2, 3, 5});
    edit({0}, [&] { return set.SetCleanKespClose(false) == ERR_NONE && file.Flush(); });
    acknowledge({0});
    edit({0}, [&] { return set.CloseKesp() == ERR_NONE; });
    acknowledge({0});
    for (CKespRecord* const record : made) delete record;
    events = recorder.events;
  }
  const IdleDisk disk;
  std::size_t prefixes = 0, states = 0;
  bool directorySynced = !kSyncsFolders;
  ByteVector durable, written;
  std::vector<Event> pending;
  std::map<std::size_t, State> acknowledged;
  for (const Event& event : events) {
    directorySynced |= event.kind == 'd';
    EXPECT_TRUE(directorySynced || event.kind != 'a');
    if (event.kind == 'a') acknowledged[event.offset] = {event.bytes, event.bytes};
    if (event.kind == 'b') acknowledged[event.offset].after = event.bytes;
    if (event.kind == 'w' || event.kind == 't') {
      pending.push_back(event);
      Apply(written, event);
    } else if (event.kind == 's') {
      pending.clear();
      durable = written;
    }
    prefixes += event.kind != 'a' && event.kind != 'b';
    for (const ByteVector& image : Images(durable, pending)) {
      SCOPED_TRACE(testing::Message() << "after event " << prefixes << ", state " << ++states);
      ASSERT_NO_FATAL_FAILURE(Examine(image, acknowledged));
    }
  }
  EXPECT_EQ(acknowledged.size(), 9u);
  std::printf("%zu prefixes in %zu states\n", prefixes, states);
}

}  // namespace
