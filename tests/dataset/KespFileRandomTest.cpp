// Thousands of random operations on a data set and its files. After each, what the files hold and what is in memory
// must follow from what was there before. KESP_SEED, KESP_SEEDS and KESP_STEPS in the environment give other runs, or
// longer ones.
#include <cstdlib>
#include <map>
#include <set>

#include "tests/dataset/DataSet.h"
#include "tests/support/FaultySystem.h"

using namespace kesp::test;

namespace {

struct Content {  // of a record, in memory or in a file
  std::string name, text;
  std::uint32_t flags = 0;
  bool operator==(const Content&) const = default;
  bool IsDeleted() const { return (flags & KESP_FLAG_DELETED) != 0; }
  Content Marked(std::uint32_t mark) const {
    CKespNote note;
    note.m_flags = flags;
    note.SetSourceFlag(mark);
    return {name, text, note.m_flags};
  }
};
using Disk = std::map<std::uint32_t, Content>;  // by position
void PrintTo(const Content& c, std::ostream* out) { *out << c.name << " \"" << c.text << "\" flags " << c.flags; }

Content ContentOf(CKespRecord* record) {
  CString text;
  if (auto* const h = dynamic_cast<CKespTavoHeader*>(record)) text = h->HeaderText4;
  if (auto* const f = dynamic_cast<CKespFeature*>(record)) text = f->FeatureName;
  if (auto* const p = dynamic_cast<CKespPoint*>(record)) text = p->PointText;
  if (auto* const a = dynamic_cast<CKespAttribute*>(record)) text = a->TextValue;
  return {Name(record), text.ToUtf8(), record->m_flags};
}
std::vector<CKespRecord*> Family(const CKespFeature& feature) {
  std::vector<CKespRecord*> family(feature.m_attributeList.begin(), feature.m_attributeList.end());
  family.insert(family.end(), feature.m_pointList.begin(), feature.m_pointList.end());
  return family;
}

class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : m_random(seed) {
    m_text = "first";
    WriteNew();
  }
  ~RandomRun() {
    Clearing([this] { return m_file.reset(), ERR_NONE; });
  }
  void Step(unsigned step) {
    using Operation = void (RandomRun::*)();
    static constexpr std::pair<unsigned, Operation> kOperations[] = {
        {33, &RandomRun::Queue},  {41, &RandomRun::Append},      {50, &RandomRun::WriteNew}, {63, &RandomRun::Read},
        {74, &RandomRun::Delete}, {92, &RandomRun::DeletePoint}, {100, &RandomRun::Reopen}};
    m_text = "t" + std::to_string(step);
    m_before = Now();
    const auto* operation = std::begin(kOperations);
    for (const unsigned dice = m_random(100); operation->first <= dice;) ++operation;
    (this->*operation->second)();
    EXPECT_TRUE(m_file->m_pDataFile->IsOpen());
    for (const auto& entry : m_file->m_featureIndex) {
      EXPECT_EQ(entry.key, entry.value->FeatureNumber);
      for (const CKespPoint* point : entry.value->m_pointList) EXPECT_EQ(point->FeatureNumber, entry.key);
    }
    for (const auto& entry : m_file->m_pointIndex) EXPECT_EQ(entry.key, entry.value->PointNumber);
  }

 private:
  Disk Now() const {
    Disk disk;
    CKespDataFile file;
    EXPECT_TRUE(file.OpenReadOnly(m_path));
    EXPECT_TRUE(file.SeekToFirstRecord());
    while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)})
      disk[record->m_filePosition] = ContentOf(record.get());
    EXPECT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
    return disk;
  }
  // Runs what clears the data set, which deletes what it took over; the other features made here go then too.
  template <class Operation>
  ErrorEnum Clearing(Operation operation) {
    for (const auto& entry : m_file->m_featureIndex) m_ours.erase(entry.value);
    const ErrorEnum result = operation();
    for (CKespRecord* const record : m_ours) delete record;
    m_ours.clear();
    return result;
  }
  void Queue() {
    if (m_file->m_recordList.GetCount() > 120) return;
    if (m_random(6) == 0) {
      auto* const header = new CKespTavoHeader;
      header->HeaderText4 = m_text;
      m_file->AddTavoHeaderToWriteQueue(header);  // which takes it over
      return;
    }
    const std::uint32_t number = 1 + m_random(40);
    CKespFeature* const feature = m_file->CreateFeature(m_text, KESP_FEATURE_LINE, number);
    m_ours.insert(feature);
    for (unsigned n = m_random(4); n > 0; --n)
      feature->AddPoint(m_file->CreatePoint(1 + m_random(60), m_text, 5, 1, 2, 3, number));
    for (unsigned n = m_random(3); n > 0; --n)
      feature->AddAttribute(m_file->CreateStringAttribute(n == 1 ? "a" : "b", number, m_text));
    feature->SetFeatureEnd(m_file->CreateFeatureEnd(number));
    std::vector<CKespRecord*> records = Family(*feature);
    records.insert(records.begin(), feature);
    const std::uint32_t points = m_file->m_numPoints + static_cast<std::uint32_t>(feature->GetNumPoints());
    EXPECT_EQ(m_file->AddRecordsToWriteQueue(records.data(), static_cast<int>(records.size())), ERR_NONE);
    EXPECT_EQ(m_file->m_numPoints, points);
    EXPECT_EQ(*m_file->m_featureIndex.Find(number), feature);
  }
  // Writes the queue by `write`: all of it comes after what was there.
  void WriteAll(std::uint32_t mark, ErrorEnum (CKespFile::*write)(CString)) {
    std::vector<Content> expected, found;
    for (const auto& entry : m_before) expected.push_back(entry.second);
    for (CKespRecord* record : m_file->m_recordList) {
      Content content = ContentOf(record).Marked(mark);  // and once more by reading it
      expected.push_back(content.Marked(std::exchange(content.flags, 0)));
    }
    EXPECT_EQ((m_file.get()->*write)(m_path), ERR_NONE);
    for (const auto& entry : Now()) found.push_back(entry.second);
    EXPECT_EQ(found, expected);
  }
  void Append() {
    if (m_before.size() <= 250) WriteAll(KESP_SRC_ADDED, &CKespFile::AppendToKespFileFromQueue);
  }
  void WriteNew() {
    m_path = Text(m_dir / m_text);
    m_before.clear();
    WriteAll(0, &CKespFile::WriteNewKespFileFromQueue);
  }
  // Changes the header at most, where it comes first.
  void Reopen() {
    CString message;
    EXPECT_EQ(m_file->CloseKesp(), ERR_NONE);
    if (m_random(2) == 0) (void)m_file->OpenKespReadOnly(m_path, message);
    EXPECT_EQ(m_file->OpenKesp(m_path, message), ERR_NONE);
    Disk now = Now();
    if (!now.empty() && now.begin()->second.name == "H") now.begin()->second = m_before.begin()->second;
    EXPECT_EQ(now, m_before);
  }
  void Read() {
    const bool includeDeleted = m_random(3) == 0, validates = !includeDeleted && m_random(3) == 0;
    std::string names;
    std::map<std::string, std::uint32_t> points;  // of the features, by name
    for (const auto& [position, content] : m_before) {
      const char kind = content.name[0];
      if ((content.IsDeleted() && !includeDeleted) || (kind == 'H' && !names.empty())) continue;
      if (names.empty() && kind != 'H') break;
      const std::string feature = "F" + content.name.substr(1, content.name.find_first_of("/:") - 1);
      if (kind != 'H' && kind != 'F' && !points.contains(feature)) continue;
      if (kind == 'F') points[feature] = 0;
      if (kind == 'P') ++points[feature];
      names += (names.empty() ? "" : " ") + content.name;
    }
    std::uint32_t sum = 0;
    ErrorEnum expected = names.empty() ? ERR_NO_HEADER : ERR_NONE;
    for (const auto& [feature, count] : points) {
      sum += count;
      if (validates && count == 0) expected = ERR_BAD_FEATURE;
    }
    EXPECT_EQ(Clearing([&] { return validates ? m_file->ValidateKesp() : m_file->ReadKespFile(includeDeleted); }),
              expected);
    EXPECT_EQ(Names(m_file->m_recordList), names);
    EXPECT_EQ(m_file->m_featureIndex.GetCount(), std::ssize(points));
    EXPECT_EQ(m_file->m_numPoints, sum);
  }
  // Runs what deletes these records: on the disk they are marked, and nothing else changes.
  template <class Operation>
  void Deleting(const std::vector<CKespRecord*>& records, Operation operation) {
    std::set<std::string> names;
    std::set<std::uint32_t> places;
    for (CKespRecord* const record : records) {
      names.insert(Name(record));
      if (record->m_filePosition != 0) places.insert(record->m_filePosition);
    }
    operation();
    Disk now = Now();
    for (const std::uint32_t place : places) EXPECT_TRUE(now[place].IsDeleted()) << place;
    for (auto& [position, content] : now) {
      const Content& before = m_before[position];
      if (content == before) continue;
      EXPECT_TRUE(content.IsDeleted()) << position;
      EXPECT_TRUE(names.contains(content.name)) << position;
      EXPECT_EQ(content.name, before.name);
    }
    EXPECT_EQ(now.size(), m_before.size());
  }
  void Delete() {
    if (m_file->m_featureIndex.IsEmpty()) return;
    CKespFeature* const feature = (*m_file->m_featureIndex.begin()).value;
    const auto points = static_cast<std::uint32_t>(feature->GetNumPoints());
    const std::uint32_t before = m_file->m_numPoints, number = feature->FeatureNumber;
    Deleting(Family(*feature), [&] { EXPECT_EQ(m_file->DeleteFeatureAndAssociatedRec(feature), ERR_NONE); });
    EXPECT_EQ(m_file->m_numPoints, before - std::min(before, points));
    EXPECT_TRUE(feature->IsDeleted());
    EXPECT_EQ(m_file->m_featureIndex.Find(number), nullptr);
  }
  void DeletePoint() {
    std::vector<CKespPoint*> points;
    for (CKespRecord* record : m_file->m_recordList) {
      if (auto* const point = dynamic_cast<CKespPoint*>(record)) points.push_back(point);
    }
    if (points.empty()) return;
    CKespPoint* const point = points[m_random(static_cast<unsigned>(points.size()))];
    CKespFeature* const* const found = m_file->m_featureIndex.Find(point->FeatureNumber);
    CKespFeature* const feature = found != nullptr ? *found : nullptr;
    const bool isMember = feature != nullptr && std::ranges::count(feature->m_pointList, point) != 0;
    const bool isAsked = feature != nullptr && m_random(2) == 0;  // that one, which must have it then
    const bool isOnly = feature != nullptr && feature->GetNumPoints() == 1 && (isMember || !isAsked);
    const std::uint32_t before = m_file->m_numPoints;
    const int list = m_file->m_recordList.GetCount();
    Deleting(
        isOnly     ? Family(*feature)
        : isMember ? std::vector<CKespRecord*>{point}
                   : std::vector<CKespRecord*>(),
        [&] {
          if (!isAsked) return CKespFileTestAccess::DeletePoint(*m_file, point);
          EXPECT_EQ(CKespFileTestAccess::DeletePointInFeature(*m_file, point, feature), !isMember ? 0 : isOnly ? 1 : 2);
        });
    EXPECT_EQ(m_file->m_recordList.GetCount(), isMember && !isOnly ? list - 1 : list);
    EXPECT_EQ(m_file->m_numPoints, isMember || isOnly ? before - std::min(before, 1U) : before);
  }

  IdleDisk m_idleDisk;
  Random m_random;
  TempDir m_dir;
  std::unique_ptr<CKespFile> m_file = std::make_unique<CKespFile>();
  std::string m_text;             // of the step
  Disk m_before;                  // what the open file held before it
  std::set<CKespRecord*> m_ours;  // features to delete unless the data set has them in its index
  CString m_path;                 // of the open file
};

unsigned FromEnvironment(const char* name, unsigned otherwise) {
  const char* const given = std::getenv(name);
  return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : otherwise;
}

TEST(KespFile, StaysConsistentWhateverIsDone) {
  const unsigned first = FromEnvironment("KESP_SEED", 1);
  for (unsigned seed = first; seed < first + FromEnvironment("KESP_SEEDS", 2); ++seed) {
    RandomRun run(seed);
    for (unsigned step = 0; step < FromEnvironment("KESP_STEPS", 1000); ++step) {
      run.Step(step);
      ASSERT_FALSE(HasFailure()) << "seed " << seed << ", step " << step;
    }
  }
}

}  // namespace
