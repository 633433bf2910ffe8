// Every call to the system that an operation makes fails in turn, in every way in which such a call can fail.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>

#include "kesp/dataset/KespFile.h"
#include "kesp/recordfile/Salvage.h"
#include "tests/recordfile/Survey.h"

struct CKespFileTestAccess {
  static void DeletePoint(CKespFile& file, CKespPoint* point) { file.DeletePoint(point); }
};

using namespace kesp::test;

namespace {

namespace fs = std::filesystem;
using Fault = FaultySystem::Fault;
using File = CKespDataFile;
using Set = CKespFile;

// The calls by their names in SystemCalls and in FaultySystem, and the faults of each: (E)rror, (F)ull disk,
// (I)nterrupted, (S)hort, (T)orn. The last two can't fail.
const struct {
  const char *method, *name, *faults;
  // clang-format off
} kCalls[] = {{"Open", "open", "EFI"}, {"Close", "close", "EI"}, {"Stat", "stat", "EI"}, {"FileStat", "fstat", "EI"},
              {"End", "lseek", "EI"}, {"Lock", "flock", "EI"}, {"Read", "read", "EIS"}, {"Write", "write", "EFIST"},
              {"CopyRange", "copy_file_range", "EFIST"}, {"Truncate", "truncate", "EFI"},
              {"DataSync", "fdatasync", "EFI"}, {"FullSync", "fsync", "EFI"}, {"TouchModified", "futimens", "EI"},
              {"Unlink", "unlink", "EI"}, {"SleepMs", "", ""}, {"PowerEventHappened", "", ""}};
// clang-format on
const std::map<char, Fault> kFaults = {
    {'E', Fault::Error}, {'F', Fault::Full}, {'I', Fault::Interrupted}, {'S', Fault::Short}, {'T', Fault::Torn}};

// One run of an operation, and what it was answered.
struct Trial {
  const fs::path path, copy;
  FaultySystem& system;
  bool good = true;                       // all was answered as if nothing had failed
  int systemError = 0;                    // what the library says that the system said
  std::map<std::size_t, bool> answers{};  // about single records, by their place in the file

  void Say(bool answer) { good &= answer; }
  void Say(ErrorEnum answer) { good &= answer == ERR_NONE; }
  void Say(std::size_t place, bool answer) { Say(answers[place] = answer); }
  void AppendAll(File& file, std::size_t place) {
    auto end = EndRecord(7);
    CKespNote old, note, added;
    old.m_recordVersion = 1;
    Say(place, file.AppendRecord(&added, 2));
    Say(place + 1, file.AppendRecordVersion1(&old, 0));
    Say(place + 2, file.AppendRecordVersion2(&note, 0));
    Say(place + 3, file.AppendRecord(&end, 2));
  }
  void WriteQueue(Set& set, ErrorEnum (Set::*write)(CString), unsigned short version) {
    CKespNote note;
    CKespPoint point;
    auto end = EndRecord(7);
    note.m_recordVersion = point.m_recordVersion = version;
    CKespRecord* records[] = {&note, &point, &end};
    set.AddRecordsToWriteQueue(records, 3);
    Say((set.*write)(Text(path)));
    Say(set.m_pDataFile->IsOpen());
    set.ClearQueueWithoutWriting();
    Say(set.CloseKesp());
  }
};

struct Operation {
  std::string_view name;
  std::vector<ByteVector> records;  // that stand in the file before
  char open;                        // (o)pen, for (r)eading, (c)reate, create (O)ver, - neither, (n)ot even a file
  std::function<void(Trial&, Set&, File&)> run;
  bool Exists() const { return open != 'c' && open != 'n'; }
  ByteVector Before() const {
    ByteVector bytes = Exists() ? FileHeader() : ByteVector();
    for (const ByteVector& record : records) Append(bytes, record);
    return bytes;
  }
};

ByteVector Body(std::size_t size, std::initializer_list<std::pair<std::size_t, std::uint8_t>> bytes) {
  ByteVector body(size);
  for (const auto& [at, byte] : bytes) body[at] = byte;
  return body;
}
// clang-format off
ByteVector PointOf(std::uint8_t feature, std::uint8_t n) { return Record(2, 2, 0, Body(108, {{0, feature}, {4, n}})); }
ByteVector FeatureOf(std::uint8_t n) { return Record(1, 3, 0, Body(524, {{0, n}, {516, 1}})); }
const std::vector<ByteVector> kEnds = {EndOf(1), EndOf(2), EndOf(3)};
const std::vector<ByteVector> kSurvey = {
    Record(3, 2, 0, Body(4086, {{2868, 2}})), FeatureOf(7), Record(5, 3, 0, Body(1712, {{0, 7}, {516, 1}})),
    PointOf(7, 1), PointOf(7, 2), EndOf(7), FeatureOf(8), PointOf(8, 3), Stored{6, 2, NoteBody2()}.Bytes()};
const std::vector<ByteVector> kOldSurvey = {
    Stored{3, 1, HeaderBody1()}.Bytes(), Record(6, 1, 0, Hex("'BMC:' 00*252")), Record(6, 1, 0, Hex("'ZOM:' 00*252"))};
// More than a read or a write takes at once.
const ByteVector kLargeTag = Record(9, 2, 0, Hex("00*4 F0 49 02 00") + ByteVector(150'000));
const std::vector<ByteVector> kLarge = {kLargeTag, EndOf(1), kLargeTag, EndOf(2)};

void WriteOverWhatSomebodyHolds(Trial& t, Set& set, File&) {
  File file;
  const int holder = ::open(t.path.c_str(), O_RDWR | O_CLOEXEC);
  ::flock(holder, LOCK_EX);
  EXPECT_FALSE(file.Open(Text(t.path)) || file.Create(Text(t.path)) || file.CopyVerify(Text(t.path), Text(t.copy), 2));
  WriteFile(t.copy, FileHeader());
  EXPECT_FALSE(file.OpenReadOnly(Text(t.copy)) && (file.Copy(Text(t.path)) || file.CopyVerify(Text(t.path), 2)));
  EXPECT_NE(set.WriteNewKespFileFromQueue(Text(t.path)), ERR_NONE);
  fs::remove(t.copy);
  ::close(holder);
}

const Operation kOperations[] = {
    {"open", kEnds, 'o', [](Trial&, Set&, File&) {}},
    {"create", {}, 'c', [](Trial& t, Set&, File& file) { t.AppendAll(file, 0); }},
    {"create over", {}, 'O', [](Trial& t, Set&, File& file) { t.AppendAll(file, 0); }},
    {"append", kEnds, 'o', [](Trial& t, Set&, File& file) { t.AppendAll(file, 3); }},
    {"append through power events", kEnds, 'o', [](Trial& t, Set&, File& file) {
      t.system.powerEvents = "1010";
      t.AppendAll(file, 3); }},
    {"edit and flush", kEnds, 'o', [](Trial& t, Set&, File& file) {
      auto end1 = EndRecord(1), end2 = EndRecord(2);
      t.Say(0, file.SeekToFirstRecord() && file.OverwriteRecord(&end1, 8));
      t.Say(1, file.UpdateRecord(&end2, 8, true));
      t.Say(2, file.Seek(86) && file.DeleteRecord(86, KESP_RECORD_FEATURE_END));
      t.Say(file.Flush()); }},
    {"copy records over", kEnds, 'o', [](Trial& t, Set&, File& file) {
      auto end = EndRecord(9);
      t.Say(2, file.CopyRecord(&end, 86));
      t.Say(3, file.AppendRecord(&end, 2)); }},
    {"read", kLarge, 'r', [](Trial& t, Set&, File& file) {
      const Walked walked = WalkOn(file);
      t.Say(walked == Walked{{50, 150072, 150090, 300112}, KESP_ERROR_NORMAL_EOF});
      // What the system does not give is no end.
      EXPECT_EQ(walked.error, t.good ? KESP_ERROR_NORMAL_EOF : KESP_ERROR_NONE); }},
    {"copy", kLarge, 'o', [](Trial& t, Set&, File& file) { t.Say(file.Copy(Text(t.copy))); }},
    {"copy of nothing", kEnds, '-', [](Trial& t, Set&, File& file) {
      EXPECT_FALSE(file.Copy(Text(t.copy)));
      t.Say(!fs::exists(t.copy)); }},
    {"rebuild", kLarge, 'r', [](Trial& t, Set&, File& file) { t.Say(file.CopyVerify(Text(t.copy), 2)); }},
    {"rebuild by path", kLarge, '-', [](Trial& t, Set&, File& file) {
      t.Say(file.CopyVerify(Text(t.path), Text(t.copy), 2)); }},
    {"salvage", {EndOf(1), Hex("00*40"), kLargeTag, EndOf(2)}, 'r', [](Trial& t, Set&, File& file) {
      kesp::SalvageReport report;
      t.Say(kesp::Salvage(file, Text(t.copy), 2, report)); }},
    {"write over what somebody holds", kEnds, '-', WriteOverWhatSomebodyHolds},
    {"write over what exists", kEnds, '-', [](Trial& t, Set& set, File&) {
      EXPECT_NE(set.WriteNewKespFileFromQueue(Text(t.path)), ERR_NONE); }},
    {"read a data set", kSurvey, 'r', [](Trial& t, Set& set, File&) {
      std::uint32_t version = 0;
      t.Say(set.GetKespVersion(version));
      t.Say(set.ReadKespFile(true));
      t.Say(set.m_recordList.GetCount() == static_cast<int>(kSurvey.size()));
      t.Say(set.ValidateKesp()); }},
    {"validate", kSurvey, '-', [](Trial& t, Set& set, File&) {
      CString message;
      t.Say(set.ValidateKesp(Text(t.path), message)); }},
    {"header upkeep", kSurvey, 'o', [](Trial& t, Set& set, File&) {
      t.Say(set.ReadKespFile(false));
      if (t.good) t.Say(set.UpdateKespHeader("1", "2", "3", "4", "5", "6", 0, 1, 2, 3, true)); }},
    {"header upkeep of an old file", kOldSurvey, 'o', [](Trial& t, Set& set, File&) {
      t.Say(set.UpdateKespHeader("1", "2", "3", "4", "5", "6", 0, 1, 2, 3, true)); }},
    {"mark as not closed", kSurvey, 'o', [](Trial& t, Set& set, File&) { t.Say(set.SetCleanKespClose(false)); }},
    {"close", kSurvey, 'o', [](Trial& t, Set& set, File&) { t.Say(set.CloseKesp()); }},
    {"delete from a data set", kSurvey, 'o', [](Trial& t, Set& set, File&) {
      t.Say(set.ReadKespFile(false));
      if (!t.good) return;
      CKespFileTestAccess::DeletePoint(set, *set.m_pointIndex.Find(2));
      t.Say(set.DeleteFeatureAndAssociatedRec(*set.m_featureIndex.Find(8)));
      t.Say(set.CloseKesp()); }},
    {"write a queue", {}, 'n', [](Trial& t, Set& set, File&) {
      t.WriteQueue(set, &Set::WriteNewKespFileFromQueue, 2); }},
    {"write a queue, version 2", {}, 'n', [](Trial& t, Set& set, File&) {
      t.WriteQueue(set, &Set::WriteNewKespFileFromQueueVersion2, 2); }},
    {"write a queue, version 1", {}, 'n', [](Trial& t, Set& set, File&) {
      t.WriteQueue(set, &Set::WriteNewKespFileFromQueueVersion1, 1); }},
    {"append a queue", kSurvey, '-', [](Trial& t, Set& set, File&) {
      t.WriteQueue(set, &Set::AppendToKespFileFromQueue, 2); }}};
// clang-format on

ByteVector Part(const ByteVector& bytes, std::size_t from, std::size_t size) {
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(from, bytes.size()));
  return {begin, begin + static_cast<std::ptrdiff_t>(std::min(size, bytes.size() - std::min(from, bytes.size())))};
}
std::ptrdiff_t Descriptors() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }

class Faults : public testing::Test {
 protected:
  Trial Do(const Operation& operation, FaultySystem& system) {
    fs::remove(copy);
    fs::remove(path);
    if (operation.Exists()) WriteFile(path, operation.Before());
    Trial trial{path, copy, system};
    Set set;
    File& file = *set.m_pDataFile;
    const char open = operation.open;
    if (open != '-' && open != 'n') {
      trial.Say(open == 'o'   ? file.Open(Text(path))
                : open == 'r' ? file.OpenReadOnly(Text(path))
                              : file.Create(Text(path)));
      EXPECT_EQ(file.IsOpen(), trial.good);
    }
    try {
      if (trial.good) operation.run(trial, set, file);
    } catch (const CFileException&) {
      trial.good = false;
    }
    trial.Say(set.m_pDataFile->Close());
    trial.Say((trial.systemError = set.m_pDataFile->GetSystemError()) == 0);
    return trial;
  }
  // Whether what an operation left behind is what it was answered for, given what it leaves when nothing fails.
  void Check(const Operation& operation, const Trial& trial, char fault, bool forGood, const std::string& call) {
    const auto isTrue = [](const auto& answer) { return answer.second; };
    const auto answered = std::count_if(trial.answers.begin(), trial.answers.end(), isTrue);
    const bool opensAnew = operation.name == "append through power events";
    const bool isSync = (call == "fdatasync" || call == "fsync") && !opensAnew;
    EXPECT_TRUE(trial.good || (fault != 'I' && fault != 'S'));
    EXPECT_TRUE(trial.good || call == "stat" || trial.systemError == (fault == 'E' ? EIO : ENOSPC));
    // After a failed sync nothing is a success; after another fault what comes next is.
    EXPECT_TRUE(!isSync || std::is_partitioned(trial.answers.begin(), trial.answers.end(), isTrue));
    EXPECT_TRUE(isSync || opensAnew || forGood || std::ssize(trial.answers) - answered <= 1);

    const ByteVector file = ReadFile(path), header = Part(file, 0, kFirst);
    std::size_t at = header.size(), place = 0, count = 0;
    EXPECT_TRUE(header == Part(reference, 0, kFirst) ||
                (!trial.good && operation.records.empty() && (at < kFirst || header == operation.Before())));
    for (std::size_t from = kFirst, size = 0; from < reference.size(); from += size, ++place) {
      const bool existed = place < operation.records.size();
      const ByteVector before = existed ? operation.records[place] : ByteVector();
      size = existed ? before.size() : std::size_t{14} + reference[from + 10] + 256u * reference[from + 11];
      const ByteVector after = Part(reference, from, size), now = Part(file, at, size);
      const auto answer = trial.answers.find(place);
      const bool isKnown = answer != trial.answers.end(), mustBe = trial.good || (isKnown && answer->second);
      bool stands = (now == after && (mustBe || !isKnown)) || (!mustBe && existed && now == before);
      // Half of an edit may have come to the disk, no more than that.
      if (!mustBe && existed && fault == 'T' && now.size() == size) {
        const auto edge = std::mismatch(now.begin(), now.end(), after.begin()).first - now.begin();
        stands |= std::equal(now.begin() + edge, now.end(), before.begin() + edge);
      }
      EXPECT_TRUE(stands || (!mustBe && !existed)) << "record " << place;
      at += stands ? size : 0;
      count += stands;
    }
    // Of an append that failed nothing is left, but what the system won't let be taken back.
    EXPECT_TRUE(at == file.size() || (!trial.good && (forGood || opensAnew)));
    if (at == file.size() && at >= kFirst && file != operation.Before()) {
      const Walked walked = Walk(path);
      EXPECT_TRUE(walked.positions.size() == count && walked.error == KESP_ERROR_NORMAL_EOF);
    }
    const ByteVector copied = ReadFile(copy);
    EXPECT_TRUE(copied == referenceCopy || (!trial.good && copied == Part(referenceCopy, 0, copied.size())));
    // What is answered for is on the disk: the directory was synced, and nothing written behind the copy's last sync.
    const auto& names = trial.system.Names();
    const auto synced = std::find(names.rbegin(), names.rend(), "fdatasync");
    const bool isNew = (!operation.Exists() && answered != 0) || (!copied.empty() && trial.good);
    EXPECT_TRUE(!isNew || trial.system.Calls("fsync") != 0);
    EXPECT_TRUE(copied.empty() || !trial.good || std::find(names.rbegin(), synced, "write") == synced);
    EXPECT_TRUE(operation.name != "copy" || copied.empty() || copied == referenceCopy || forGood);
    // Nothing keeps the next one out.
    File again;
    auto later = EndRecord(99);
    EXPECT_TRUE((at < kFirst ? again.Create(Text(path)) : again.Open(Text(path))) && again.AppendRecord(&later, 2));
    EXPECT_TRUE(at < kFirst || ReadFile(path) == file + EndOf(99, 2));
  }
  const TempDir dir;
  const fs::path path = dir / "a.kesp", copy = dir / "b.kesp";
  ByteVector reference, referenceCopy;  // what stands in the files when nothing fails
};

TEST_F(Faults, OfEveryCallLeaveWhatWasAnsweredFor) {
  int points = 0;
  std::set<std::string> done, methods, known;
  const auto descriptors = Descriptors();
  for (const Operation& operation : kOperations) {
    FaultySystem counting;
    const Trial untouched = Do(operation, counting);
    ASSERT_TRUE(untouched.good) << operation.name;
    reference = ReadFile(path);
    referenceCopy = ReadFile(copy);
    for (int i = 0; i < counting.Calls(); ++i) {
      const std::string name = counting.Names()[static_cast<std::size_t>(i)];
      const auto* const call =
          std::find_if(std::begin(kCalls), std::end(kCalls), [&](auto& c) { return c.name == name; });
      ASSERT_NE(call, std::end(kCalls)) << name;
      for (const char fault : std::string_view(call->faults)) {
        for (const bool forGood : {false, true}) {
          if (forGood && fault == 'I') continue;
          SCOPED_TRACE(testing::Message() << operation.name << ": call " << i + 1 << ", " << name << ", fault " << fault
                                          << (forGood ? " for good" : ""));
          FaultySystem system(i + 1, kFaults.at(fault), forGood);
          const Trial trial = Do(operation, system);
          EXPECT_TRUE(system.Struck() && Descriptors() == descriptors);
          const IdleDisk disk;
          Check(operation, trial, fault, forGood, name);
          if (HasFailure()) return;
          done.insert(name + fault);
          ++points;
        }
      }
    }
  }
  std::printf("%d faults in %zu operations\n", points, std::size(kOperations));

  // Nothing was left out, and no call is new.
  for (const auto& call : kCalls) {
    known.insert(call.method);
    for (const char fault : std::string_view(call.faults))
      EXPECT_TRUE(done.contains(call.name + std::string(1, fault)));
  }
  std::ifstream header(KESP_SYSTEM_CALLS);
  for (std::string line; std::getline(header, line);) {
    const std::size_t end = line.find('('), begin = line.rfind(' ', end) + 1;
    if (line.starts_with("  virtual ") && line[begin] != '~') methods.insert(line.substr(begin, end - begin));
  }
  EXPECT_EQ(methods, known);
}

}  // namespace
