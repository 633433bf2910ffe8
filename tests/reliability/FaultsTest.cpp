// Every call to the system that an operation makes fails in turn, in every way in which such a call can fail.

#include <functional>
#include <map>
#include <set>

#include "kesp/format/RecordView.h"
#include "kesp/salvage/Salvage.h"
#include "tests/dataset/DataSet.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/System.h"

using namespace kesp::test;

namespace {

namespace fs = std::filesystem;
using File = CKespDataFile;
using Set = CKespFile;

// The calls by their names in FaultySystem, and the faults of each: (E)rror, (F)ull disk, (I)nterrupted, (S)hort,
// (T)orn.
const std::map<std::string, std::string> kFaults = {
    {"open", "EFI"},     {"close", "EI"},      {"stat", "EI"},
    {"fstat", "EI"},     {"lseek", "EI"},      {"flock", "EI"},
    {"read", "EIS"},     {"write", "EFIST"},   {"copy_file_range", "EFIST"},
    {"truncate", "EFI"}, {"fdatasync", "EFI"}, {"fsync", "EFI"},
    {"futimens", "EI"},  {"unlink", "EI"},     {"readlink", "EI"}};

// One run of an operation, and the results that it had.
struct Trial {
  const CString path, copy;
  FaultySystem& system;
  bool good = true;                       // all results were as if nothing had failed
  int systemError = 0;                    // what the library says that the system said
  std::map<std::size_t, bool> results{};  // of single records, by their place in the file
  Set set{};
  File& Container() { return *set.m_pDataFile; }  // another one, once a new file was written from the queue

  void Say(bool result) { good &= result; }
  void Say(ErrorEnum result) { good &= result == ERR_NONE; }
  void Say(std::size_t place, bool result) { Say(results[place] = result); }
  void SayLarge(const Walked& walked) {  // of kLarge
    Say(walked == Walked{{50, 150084, 150102, 300136}, KESP_ERROR_NORMAL_EOF});
    // What the system does not give is no end.
    EXPECT_EQ(walked.error, good ? KESP_ERROR_NORMAL_EOF : KESP_ERROR_NONE);
  }
  void AppendAll(std::size_t place) {
    auto end = EndRecord(7);
    CKespNote old, note, added;
    old.m_recordVersion = 1;
    Say(place, Container().AppendRecord(&added, 2));
    Say(place + 1, Container().AppendRecordVersion1(&old, 0));
    Say(place + 2, Container().AppendRecordVersion2(&note, 0));
    Say(place + 3, Container().AppendRecord(&end, 2));
  }
  void WriteQueue(ErrorEnum (Set::*write)(CString), unsigned short version) {
    CKespNote note;
    CKespPoint point;
    auto end = EndRecord(7);
    note.m_recordVersion = point.m_recordVersion = version;
    CKespRecord* records[] = {&note, &point, &end};
    set.AddRecordsToWriteQueue(records, 3);
    Say((set.*write)(path));
    Say(Container().IsOpen());
    set.ClearQueueWithoutWriting();
    Say(set.CloseKesp());
  }
  void UpdateHeader() { Say(set.UpdateKespHeader("1", "2", "3", "4", "5", "6", 0, 1, 2, 3, true)); }
};

struct Operation {
  std::string_view name;
  std::vector<ByteVector> records;  // that are in the file before
  char open;                        // (o)pen, for (r)eading, (c)reate, create (O)ver, - neither, (n)ot even a file
  std::function<void(Trial&)> run;
  bool Exists() const { return open != 'c' && open != 'n'; }
  ByteVector Before() const {
    ByteVector bytes = Exists() ? FileHeader() : ByteVector();
    for (const ByteVector& record : records) Append(bytes, record);
    return bytes;
  }
};

const std::vector<ByteVector> kEnds = {EndOf(1), EndOf(2), EndOf(3)};
const std::vector<ByteVector> kSurvey = {Header2(), Feature(7), Attribute(7, "Girth"), Point(7, 1), Point(7, 2),
                                         EndOf(7),  Feature(8), Point(8, 3),           Note("rain")};
const std::vector<ByteVector> kOldSurvey = {Header1(), Note("BMC:", 0, 1), Note("ZOM:", 0, 1)};
// More than a read or a write takes at once.
const ByteVector kLargeTag = Tag(0, "", ByteVector(150'000));
const std::vector<ByteVector> kLarge = {kLargeTag, EndOf(1), kLargeTag, EndOf(2)};

void WriteOverWhatSomebodyHolds(Trial& t) {
  File file;
  auto holder = std::make_unique<Held>(t.path.ToUtf8());
  EXPECT_FALSE(file.Open(t.path));
  EXPECT_FALSE(file.Create(t.path));
  EXPECT_FALSE(file.CopyVerify(t.path, t.copy, 2));
  WriteFile(t.copy.ToUtf8(), FileHeader());
  EXPECT_FALSE(file.OpenReadOnly(t.copy) && (file.Copy(t.path) || file.CopyVerify(t.path, 2)));
  EXPECT_NE(t.set.WriteNewKespFileFromQueue(t.path), ERR_NONE);
  fs::remove(t.copy.ToUtf8());
  holder.reset();
}

// clang-format off
const Operation kOperations[] = {
    {"open", kEnds, 'o', [](Trial&) {}},
    {"create", {}, 'c', [](Trial& t) { t.AppendAll(0); }},
    {"create over", {}, 'O', [](Trial& t) { t.AppendAll(0); }},
    {"append", kEnds, 'o', [](Trial& t) { t.AppendAll(3); }},
    {"append through power events", kEnds, 'o', [](Trial& t) { t.system.powerEvents = "1010", t.AppendAll(3); }},
    {"append several", kEnds, 'o', [](Trial& t) {
      CKespTag large;
      CKespNote note;
      large.Set(KESP_TAG_BLOB, "", nullptr, 60'000);  // two make a write of their own
      CKespRecord* const records[] = {&large, &large, &note};
      t.Say(t.Container().AppendRecords(records, 3, 2)); }},
    {"edit and flush", kEnds, 'o', [](Trial& t) {
      auto end1 = EndRecord(1), end2 = EndRecord(2);
      t.Say(0, t.Container().SeekToFirstRecord() && t.Container().OverwriteRecord(&end1, 8));
      t.Say(1, t.Container().UpdateRecord(&end2, 8, true));
      t.Say(2, t.Container().Seek(86) && t.Container().DeleteRecord(86, KESP_RECORD_FEATURE_END));
      t.Say(t.Container().Flush()); }},
    {"copy records over", kEnds, 'o', [](Trial& t) {
      auto end = EndRecord(9);
      t.Say(2, t.Container().CopyRecord(&end, 86));
      t.Say(3, t.Container().AppendRecord(&end, 2)); }},
    {"read", kLarge, 'r', [](Trial& t) { t.SayLarge(WalkOn(t.Container())); }},
    {"read views", kLarge, 'r', [](Trial& t) {
      Walked walked;
      for (kesp::RecordView view; t.Container().ReadNextView(view, true);)
        walked.positions.push_back(static_cast<std::uint32_t>(view.Position()));
      walked.error = t.Container().GetError();
      t.SayLarge(walked); }},
    {"copy", kLarge, 'o', [](Trial& t) { t.Say(t.Container().Copy(t.copy)); }},
    {"copy of nothing", kEnds, '-', [](Trial& t) {
      EXPECT_FALSE(t.Container().Copy(t.copy) || t.Container().CopyVerify(t.copy, 2));
      t.Say(!fs::exists(t.copy.ToUtf8())); }},
    {"rebuild", kLarge, 'r', [](Trial& t) {
      const bool good = t.Container().CopyVerify(t.copy, 2);
      EXPECT_EQ(t.Container().GetError() == KESP_ERROR_NORMAL_EOF, good);
      t.Say(good); }},
    {"rebuild by path", kLarge, '-', [](Trial& t) { t.Say(t.Container().CopyVerify(t.path, t.copy, 2)); }},
    {"salvage", {EndOf(1), Hex("00*40"), kLargeTag, EndOf(2)}, 'r', [](Trial& t) {
      kesp::SalvageReport report;
      t.Say(kesp::Salvage(t.Container(), t.copy, 0, report)); }},
    {"write over what somebody holds", kEnds, '-', WriteOverWhatSomebodyHolds},
    {"write over what exists", kEnds, '-', [](Trial& t) {
      EXPECT_NE(t.set.WriteNewKespFileFromQueue(t.path), ERR_NONE); }},
    {"read a data set", kSurvey, 'r', [](Trial& t) {
      std::uint32_t version = 0;
      t.Say(t.set.GetKespVersion(version));
      t.Say(t.set.ReadKespFile(true));
      t.Say(t.set.m_recordList.GetCount() == static_cast<int>(kSurvey.size()));
      t.Say(t.set.ValidateKesp()); }},
    {"validate", kSurvey, '-', [](Trial& t) {
      CString message;
      t.Say(t.set.ValidateKesp(t.path, message)); }},
    {"header upkeep", kSurvey, 'o', [](Trial& t) {
      t.Say(t.set.ReadKespFile(false));
      if (t.good) t.UpdateHeader(); }},
    {"header upkeep of an old file", kOldSurvey, 'o', [](Trial& t) { t.UpdateHeader(); }},
    {"mark as not closed", kSurvey, 'o', [](Trial& t) { t.Say(t.set.SetCleanKespClose(false)); }},
    {"close", kSurvey, 'o', [](Trial& t) { t.Say(t.set.CloseKesp()); }},
    {"delete from a data set", kSurvey, 'o', [](Trial& t) {
      t.Say(t.set.ReadKespFile(false));
      if (!t.good) return;
      CKespFileTestAccess::DeletePoint(t.set, *t.set.m_pointIndex.Find(2));
      t.Say(t.set.DeleteFeatureAndAssociatedRec(*t.set.m_featureIndex.Find(8)));
      t.Say(t.set.CloseKesp()); }},
    {"write a queue", {}, 'n', [](Trial& t) { t.WriteQueue(&Set::WriteNewKespFileFromQueue, 2); }},
    {"write a queue, version 2", {}, 'n', [](Trial& t) { t.WriteQueue(&Set::WriteNewKespFileFromQueueVersion2, 2); }},
    {"write a queue, version 1", {}, 'n', [](Trial& t) { t.WriteQueue(&Set::WriteNewKespFileFromQueueVersion1, 1); }},
    {"append a queue", kSurvey, '-', [](Trial& t) { t.WriteQueue(&Set::AppendToKespFileFromQueue, 2); }}};
// clang-format on

class Faults : public testing::Test {
 protected:
  void Do(const Operation& operation, Trial& trial) {
    fs::remove(copy);
    fs::remove(path);
    if (operation.Exists()) WriteFile(path, operation.Before());
    const char open = operation.open;
    if (open == 'o') trial.Say(trial.Container().Open(trial.path));
    if (open == 'r') trial.Say(trial.Container().OpenReadOnly(trial.path));
    if (open == 'c' || open == 'O') trial.Say(trial.Container().Create(trial.path));
    EXPECT_EQ(trial.Container().IsOpen(), trial.good && open != '-' && open != 'n');
    try {
      if (trial.good) operation.run(trial);
    } catch (const CFileException&) {
      trial.good = false;
    }
    trial.Say(trial.Container().Close());
    trial.Say((trial.systemError = trial.Container().GetSystemError()) == 0);
  }
  // Whether an operation left what it reported, compared with what it leaves when nothing fails.
  void Check(const Operation& operation, const Trial& trial, char fault, bool forGood, const std::string& call) {
    const auto isTrue = [](const auto& result) { return result.second; };
    const auto successes = std::count_if(trial.results.begin(), trial.results.end(), isTrue);
    const bool reopens = operation.name == "append through power events";
    const bool isSync = (call == "fdatasync" || call == "fsync") && !reopens;
    const bool mayFail = fault != 'I' && fault != 'S';
    EXPECT_TRUE(trial.good || mayFail);
    EXPECT_TRUE(trial.good || call == "stat" || trial.systemError == (fault == 'E' ? EIO : ENOSPC));
    // After a failed sync nothing is a success; after another fault what comes next is.
    EXPECT_TRUE(!isSync || std::is_partitioned(trial.results.begin(), trial.results.end(), isTrue));
    EXPECT_TRUE(isSync || reopens || forGood || std::ssize(trial.results) - successes <= 1);

    const ByteVector file = ReadFile(path), header = Part(file, 0, kFirst);
    std::size_t at = header.size(), place = 0, count = 0;
    EXPECT_TRUE(header == Part(reference, 0, kFirst) ||
                (!trial.good && operation.records.empty() && (at < kFirst || header == operation.Before())));
    for (std::size_t from = kFirst, size = 0; from < reference.size(); from += size, ++place) {
      const bool existed = place < operation.records.size();
      const ByteVector before = existed ? operation.records[place] : ByteVector();
      size = existed ? before.size() : std::size_t{14} + reference[from + 10] + 256u * reference[from + 11];
      const ByteVector after = Part(reference, from, from + size), now = Part(file, at, at + size);
      const bool isKnown = trial.results.contains(place), mustBe = trial.good || (isKnown && trial.results.at(place));
      bool isThere = (now == after && (mustBe || !isKnown)) || (!mustBe && existed && now == before);
      // Half of an edit may have come to the disk, no more than that.
      if (!mustBe && existed && fault == 'T' && now.size() == size) {
        const auto edge = std::mismatch(now.begin(), now.end(), after.begin()).first - now.begin();
        isThere |= std::equal(now.begin() + edge, now.end(), before.begin() + edge);
      }
      EXPECT_TRUE(isThere || (!mustBe && !existed)) << "record " << place;
      at += isThere ? size : 0;
      count += isThere;
    }
    // Of an append that failed nothing is left, but what the system won't let be taken back.
    EXPECT_TRUE(at == file.size() || (!trial.good && (forGood || reopens)));
    if (at == file.size() && at >= kFirst && file != operation.Before()) {
      EXPECT_EQ(Walk(path).error, KESP_ERROR_NORMAL_EOF);
      EXPECT_EQ(Walk(path).positions.size(), count);
    }
    const ByteVector copied = ReadFile(copy);
    EXPECT_TRUE(copied == referenceCopy || (!trial.good && copied == Part(referenceCopy, 0, copied.size())));
    // What is acknowledged is on the disk: the directory was synced, and nothing written after the copy's last sync.
    const auto& names = trial.system.Names();
    const auto synced = std::find(names.rbegin(), names.rend(), "fdatasync");
    const bool isNew = (!operation.Exists() && successes != 0) || (!copied.empty() && trial.good);
    EXPECT_TRUE(!isNew || !kSyncsFolders || trial.system.Calls("fsync") != 0);
    EXPECT_TRUE(copied.empty() || !trial.good || std::find(names.rbegin(), synced, "write") == synced);
    EXPECT_TRUE(operation.name != "copy" || copied.empty() || copied == referenceCopy || forGood);
    // Nothing keeps the next one out.
    File again;
    auto later = EndRecord(99);
    EXPECT_TRUE(at < kFirst ? again.Create(Text(path)) : again.Open(Text(path)));
    EXPECT_TRUE(again.AppendRecord(&later, 2));
    EXPECT_TRUE(at < kFirst || ReadFile(path) == file + EndOf(99, 2));
  }
  const TempDir dir;
  const fs::path path = dir / "a.kesp", copy = dir / "b.kesp";
  ByteVector reference, referenceCopy;  // what the files hold when nothing fails
};

TEST_F(Faults, OfEveryCallLeaveWhatWasReported) {
  int points = 0;
  std::set<std::string> left;  // faults of calls that are not met yet
  for (const auto& [call, faults] : kFaults) {
    if (!kSyncsFolders && (call == "fsync" || call == "readlink")) continue;
    if (kKeepsOthersFromWriting && call == "flock") continue;
    for (const char fault : faults) left.insert(call + fault);
  }
  const auto descriptors = OpenDescriptors();
  for (const Operation& operation : kOperations) {
    FaultySystem counting;
    Trial untouched{Text(path), Text(copy), counting};
    Do(operation, untouched);
    ASSERT_TRUE(untouched.good) << operation.name;
    reference = ReadFile(path);
    referenceCopy = ReadFile(copy);
    for (int i = 0; i < counting.Calls(); ++i) {
      const std::string name = counting.Names()[static_cast<std::size_t>(i)];
      for (const char fault : kFaults.at(name)) {
        for (const bool forGood : {false, true}) {
          if (forGood && fault == 'I') continue;
          SCOPED_TRACE(testing::Message() << operation.name << ": call " << i + 1 << ", " << name << ", fault " << fault
                                          << (forGood ? " for good" : ""));
          FaultySystem system(i + 1, static_cast<FaultySystem::Fault>(fault), forGood);
          Trial trial{Text(path), Text(copy), system};
          Do(operation, trial);
          EXPECT_TRUE(system.Struck());
          EXPECT_EQ(OpenDescriptors(), descriptors);
          const IdleDisk disk;
          Check(operation, trial, fault, forGood, name);
          if (HasFailure()) return;
          left.erase(name + fault);
          ++points;
        }
      }
    }
  }
  std::printf("%d faults in %zu operations\n", points, std::size(kOperations));
  EXPECT_EQ(left, std::set<std::string>());
}

}  // namespace
