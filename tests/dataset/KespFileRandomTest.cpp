// Thousands of random operations on a data set and its files, and what a model of plain structs makes of them.
// KESP_SEED, KESP_SEEDS and KESP_STEPS in the environment give other runs, or longer ones.
#include <cstdlib>
#include <deque>
#include <map>

#include "tests/dataset/DataSet.h"
#include "tests/support/FaultySystem.h"

using namespace kesp::test;
using Access = CKespFileTestAccess;

namespace {

// What a record says, in memory or in a file.
struct Content {
  std::string name;  // as Name has it: points and attributes of one name are the same to those who search a file
  std::string text;
  std::uint32_t flags = 0;
  bool operator==(const Content&) const = default;
  char Kind() const { return name[0]; }
  bool IsDeleted() const { return (flags & KESP_FLAG_DELETED) != 0; }
  std::uint32_t Feature() const { return static_cast<std::uint32_t>(std::stoul(name.substr(1))); }
  std::uint32_t Point() const { return static_cast<std::uint32_t>(std::stoul(name.substr(name.find('/') + 1))); }
  void Mark(std::uint32_t mark) {
    CKespNote note;
    note.m_flags = flags;
    note.SetSourceFlag(mark);
    flags = note.m_flags;
  }
  void Delete() {
    CKespNote note;
    note.m_flags = flags;
    note.SetDelete();
    flags = note.m_flags;
  }
};
using Disk = std::vector<Content>;
void PrintTo(const Content& c, std::ostream* out) { *out << c.name << " \"" << c.text << "\" flags " << c.flags; }
std::string HeaderText(const std::string& title, std::size_t points, std::size_t features, bool clean) {
  return title + " " + std::to_string(points) + " " + std::to_string(features) + (clean ? " 1" : " 0");
}
Content ContentOf(CKespRecord* record) {
  std::string text;
  if (auto* const h = dynamic_cast<CKespTavoHeader*>(record))
    text = HeaderText(h->HeaderText4.ToUtf8(), h->PointCount, h->FeatureCount, h->WasCleanClose());
  if (auto* const f = dynamic_cast<CKespFeature*>(record)) text = f->FeatureName.ToUtf8();
  if (auto* const p = dynamic_cast<CKespPoint*>(record)) text = p->PointText.ToUtf8();
  if (auto* const a = dynamic_cast<CKespAttribute*>(record)) text = a->TextValue.ToUtf8();
  return {Name(record), text, record->m_flags};
}
std::vector<CKespRecord*> Family(const CKespFeature& feature) {
  std::vector<CKespRecord*> family(feature.m_attributeList.begin(), feature.m_attributeList.end());
  family.insert(family.end(), feature.m_pointList.begin(), feature.m_pointList.end());
  if (feature.GetFeatureEnd() != nullptr) family.push_back(feature.GetFeatureEnd());
  return family;
}

// A record in memory. `real` is only looked at while the model says that it lives.
struct Object : Content {
  CKespRecord* real;
  std::string file{};               // that it was read from or written to last; empty if none
  std::size_t place = 0;            // in there
  std::vector<Object*> children{};  // of a feature: attributes, points and an end, each kind in order
  std::vector<Object*> Children(std::string_view kinds) const {
    std::vector<Object*> of;
    for (const char kind : kinds)
      std::ranges::copy_if(children, std::back_inserter(of), [=](auto* child) { return child->Kind() == kind; });
    return of;
  }
};

class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : m_random(seed) {}
  ~RandomRun() { Renew(); }
  void Step(unsigned step) {
    static constexpr std::pair<unsigned, void (RandomRun::*)()> kOperations[] = {
        {30, &RandomRun::Queue},        {36, &RandomRun::Append},        {44, &RandomRun::WriteNew},
        {56, &RandomRun::Read},         {62, &RandomRun::DeleteFeature}, {76, &RandomRun::DeletePoint},
        {82, &RandomRun::UpdateHeader}, {86, &RandomRun::Validate},      {90, &RandomRun::MarkInMemory},
        {93, &RandomRun::Close},        {96, &RandomRun::Open},          {97, &RandomRun::Renew},
        {100, &RandomRun::ClearQueue}};
    m_text = "t" + std::to_string(step);
    auto operation = std::begin(kOperations);
    for (const unsigned dice = m_random(100); operation->first <= dice;) ++operation;
    log = (log + " " + std::to_string(operation - std::begin(kOperations))).substr(log.size() > 200 ? 3 : 0);
    (this->*operation->second)();
    CompareMemory();
    for (const auto& [name, disk] : m_disks) {
      if (step % 25 == 0 || name == m_path) CompareFile(name, disk);
    }
  }
  std::string log;  // the latest operations, as they stand above

 private:
  unsigned Below(std::size_t count) { return m_random(static_cast<unsigned>(count)); }
  Object* Any(const std::vector<Object*>& of) { return of.empty() ? nullptr : of[Below(of.size())]; }
  Object* Know(const Content& content, CKespRecord* real) { return &m_objects.emplace_back(Object{content, real}); }
  Object* Ours(CKespRecord* real) { return m_ours.emplace_back(Know(ContentOf(real), real)); }
  // Runs what clears the data set: what it took over goes with it, and the rest of ours then serves nobody.
  template <class Operation>
  ErrorEnum Clearing(Operation operation) {
    for (Object* object : m_list) {
      if (object->Kind() == 'H') std::erase(m_ours, object);
    }
    for (const auto& entry : m_features) std::erase(m_ours, entry.second);
    const ErrorEnum result = operation();
    for (Object* object : m_ours) delete object->real;
    m_ours.clear();
    m_list.clear();
    m_features.clear();
    m_points.clear();
    m_numPoints = 0;
    return result;
  }
  void Renew() {
    Clearing([this] { return m_file = std::make_unique<CKespFile>(), ERR_NONE; });
    m_path.clear();
  }
  Object* MakeFeature() {
    const std::uint32_t number = 1 + m_random(40);
    CKespFeature* const feature = m_file->CreateFeature(m_text, KESP_FEATURE_LINE, number);
    Object* const object = Ours(feature);
    for (unsigned n = m_random(4); n > 0; --n)
      feature->AddPoint(m_file->CreatePoint(1 + m_random(60), m_text, 5, 1, 2, 3, number));
    for (unsigned n = m_random(3); n > 0; --n)
      feature->AddAttribute(m_file->CreateStringAttribute(n == 1 ? "a" : "b", number, m_text));
    if (m_random(2) != 0) feature->SetFeatureEnd(m_file->CreateFeatureEnd(number));
    for (CKespRecord* child : Family(*feature)) object->children.push_back(Know(ContentOf(child), child));
    return object;
  }

  void Queue() {
    if (m_list.size() > 120) return;
    const unsigned what = m_random(6);
    if (what == 0) {
      auto* const header = new CKespTavoHeader;
      header->HeaderText4 = m_text;
      m_list.push_back(Ours(header));
      m_file->AddTavoHeaderToWriteQueue(header);
      return;
    }
    if (what == 1) {
      CKespNote* const note = m_file->CreateNote(m_text);
      m_list.insert(m_list.end(), 2, Ours(note));
      for (int i = 0; i < 2; ++i) m_file->AddNoteToWriteQueue(note);
      return;
    }
    // By one of two ways; the second gives the data set the feature, perhaps one of ours that was queued before.
    Object* feature = nullptr;
    for (Object* object : m_ours) {
      if (what > 3 && object->Kind() == 'F' && m_random(4) == 0) feature = object;
    }
    if (feature == nullptr) feature = MakeFeature();
    std::vector<Object*> objects = feature->Children("APE");
    objects.insert(objects.begin(), feature);
    m_list.insert(m_list.end(), objects.begin(), objects.end());
    if (what < 4) {
      EXPECT_EQ(m_file->AddFeatureAndAssociatedRecToWriteQueue(static_cast<CKespFeature*>(feature->real)), ERR_NONE);
      return;
    }
    m_features[feature->Feature()] = feature;
    std::vector<CKespRecord*> records;
    for (Object* object : objects) {
      records.push_back(object->real);
      if (object->Kind() == 'P') m_points[object->Point()] = object, ++m_numPoints;
    }
    EXPECT_EQ(m_file->AddRecordsToWriteQueue(records.data(), static_cast<int>(records.size())), ERR_NONE);
  }
  void ClearQueue() {
    EXPECT_EQ(m_file->ClearQueueWithoutWriting(), ERR_NONE);
    m_list.clear();
  }
  void WriteAll(std::uint32_t mark) {
    Disk& disk = m_disks[m_path];
    for (Object* object : m_list) {
      object->Mark(mark);
      object->file = m_path;
      object->place = disk.size();
      disk.push_back(*object);
      if (object->Kind() == 'A') object->Mark(mark);  // attributes mark themselves once more
    }
  }
  std::string AnyFile() { return std::next(m_disks.begin(), Below(m_disks.size()))->first; }
  void WriteNew() {
    if (const std::string gone = m_disks.size() > 3 ? AnyFile() : m_path; gone != m_path) {
      std::filesystem::remove(m_dir / gone);
      m_disks.erase(gone);
    }
    EXPECT_EQ(m_file->WriteNewKespFileFromQueue(Text(m_dir / (m_path.empty() ? "." : m_path))), ERR_FILE_EXISTS);
    EXPECT_EQ(m_file->WriteNewKespFileFromQueue(Text(m_dir / m_text)), ERR_NONE);
    m_path = m_text;
    WriteAll(0);
  }
  void Append() {
    if (m_disks.empty()) return;
    const std::string name = m_path.empty() ? AnyFile() : m_path;
    if (m_disks[name].size() > 250) return;
    EXPECT_EQ(m_file->AppendToKespFileFromQueue(Text(m_dir / name)), ERR_NONE);
    m_path = name;
    WriteAll(KESP_SRC_ADDED);
  }
  void Open() {
    if (m_disks.empty()) return;
    const std::string name = AnyFile();
    CString message;
    if (m_random(2) == 0) (void)m_file->OpenKespReadOnly(Text(m_dir / name), message);
    EXPECT_EQ(m_file->OpenKesp(Text(m_dir / name), message),
              m_path.empty() || m_path == name ? ERR_NONE : ERR_OTHER_FILE_OPEN);
    if (m_path.empty()) m_path = name;
  }
  // Rewrites the header of the open file where it comes first; those of this run are never deleted.
  void ChangeHeader(const std::string& text) {
    if (m_path.empty() || m_disks[m_path].empty() || m_disks[m_path].front().Kind() != 'H') return;
    Content& header = m_disks[m_path].front();
    if (!text.empty()) header.text = text;
    header.text.back() = '1';  // closed cleanly
    header = AsRead(header);
    header.Mark(KESP_SRC_MODIFIED);
  }
  void CloseModel() {
    ChangeHeader("");
    m_path.clear();
  }
  void Close() {
    EXPECT_EQ(m_file->CloseKesp(), ERR_NONE);
    CloseModel();
  }
  void UpdateHeader() {
    ErrorEnum expected = m_path.empty() ? ERR_FILE_NOT_OPEN : ERR_READ_FAILED;
    const Disk disk = m_path.empty() ? Disk() : m_disks[m_path];
    const auto first = std::ranges::find_if_not(disk, &Content::IsDeleted);
    if (first != disk.end() && first->Kind() == 'H') expected = ERR_NONE;
    EXPECT_EQ(m_file->UpdateKespHeader(m_text, "", "", "", "", "", 0, 1, 0, 1, false), expected);
    ChangeHeader(HeaderText(m_text, PointsInIndex(), m_features.size(), true));
  }
  std::uint32_t PointsInIndex() const {
    std::size_t count = 0;
    for (const auto& entry : m_features) count += entry.second->Children("P").size();
    return static_cast<std::uint32_t>(count);
  }
  static Content AsRead(Content content) {
    content.Mark(std::exchange(content.flags, 0));
    return content;
  }
  ErrorEnum ReadModel(bool deleted) {
    std::size_t count = 0;
    const Disk& disk = m_disks[m_path];
    for (std::size_t place = 0; place < disk.size(); ++place) {
      const char kind = disk[place].Kind();
      if (disk[place].IsDeleted() && !deleted) continue;
      if (count == 0 && kind != 'H') return ERR_NO_HEADER;
      if (count++ != 0 && kind == 'H') continue;
      const bool isChild = kind == 'P' || kind == 'A' || kind == 'E';
      if (isChild && !m_features.contains(disk[place].Feature())) continue;
      Object* const object = Know(AsRead(disk[place]), nullptr);
      object->file = m_path;
      object->place = place;
      m_list.push_back(object);
      if (kind == 'F') m_features[object->Feature()] = object;
      if (kind == 'P') m_points[object->Point()] = object;
      if (isChild) {
        std::vector<Object*>& siblings = m_features[object->Feature()]->children;
        if (kind == 'E') std::erase_if(siblings, [](Object* o) { return o->Kind() == 'E'; });
        siblings.push_back(object);
      }
    }
    if (count < 2) return count == 0 ? ERR_NO_HEADER : ERR_NONE;
    for (const auto& [number, feature] : m_features) {
      for (const Object* child : feature->Children("AP")) feature->Mark(child->flags & ~0x15U);
      feature->Mark(0);
    }
    m_numPoints = PointsInIndex();
    return ERR_NONE;
  }
  void Read() {
    const bool deleted = m_random(3) == 0;
    const auto read = [&] { return m_file->ReadKespFile(deleted); };
    const ErrorEnum result = m_path.empty() ? read() : Clearing(read);
    EXPECT_EQ(result, m_path.empty() ? ERR_FILE_NOT_OPEN : ReadModel(deleted));
  }
  void Validate() {
    if (m_disks.empty()) return;
    const bool wasOpen = !m_path.empty();
    if (!wasOpen) m_path = AnyFile();
    CString message;
    const ErrorEnum result = Clearing(
        [&] { return wasOpen ? m_file->ValidateKesp() : m_file->ValidateKesp(Text(m_dir / m_path), message); });
    ErrorEnum expected = ReadModel(false);
    for (const auto& [number, feature] : m_features) {
      if (expected == ERR_NONE && feature->Children("P").empty()) expected = ERR_BAD_FEATURE;
    }
    EXPECT_EQ(result, expected);
    if (!wasOpen) CloseModel();
  }
  void MarkInMemory() {
    Object* const object = Any(m_list);
    if (object == nullptr || object->Kind() == 'H') return;  // a deleted header is one that no reader finds
    EXPECT_EQ(m_file->DeleteRecord(object->real), ERR_NONE);
    object->Delete();
  }
  void MarkOnDisk(Object& object) {
    object.Delete();
    if (m_path.empty()) return;
    // From its place on, where it has one, and then from the first record.
    Disk& disk = m_disks[m_path];
    const auto isSame = [&](const Content& content) { return content.name == object.name; };
    auto found = std::find_if(disk.begin() + static_cast<std::ptrdiff_t>(object.place), disk.end(), isSame);
    if (found == disk.end()) found = std::ranges::find_if(disk, isSame);
    if (found == disk.end()) return;
    object.Mark(KESP_SRC_DELETED);
    *found = object;
    if (object.Kind() == 'A') object.Mark(KESP_SRC_DELETED);
  }
  void DeleteFeatureModel(Object& feature) {
    m_features.erase(feature.Feature());
    for (Object* child : feature.Children("PA")) MarkOnDisk(*child);
    m_numPoints -= std::min(m_numPoints, static_cast<std::uint32_t>(feature.Children("P").size()));
    feature.Delete();
    for (Object* end : feature.Children("E")) end->Delete();
  }
  // A place in another file may be anywhere in this one: there is no telling what is read there.
  bool IsPlaced(const Object* object) const {
    return (m_path.empty() || object->file.empty() || object->file == m_path) &&
           std::ranges::all_of(object->children, [this](const Object* child) { return IsPlaced(child); });
  }
  void DeleteFeature() {
    if (m_features.empty()) return;
    Object* const feature = std::next(m_features.begin(), Below(m_features.size()))->second;
    if (!IsPlaced(feature)) return;
    EXPECT_EQ(m_file->DeleteFeatureAndAssociatedRec(static_cast<CKespFeature*>(feature->real)), ERR_NONE);
    DeleteFeatureModel(*feature);
  }
  void DeletePoint() {
    std::vector<Object*> points = m_list;
    std::erase_if(points, [](const Object* o) { return o->Kind() != 'P'; });
    Object* const point = Any(points);
    if (point == nullptr) return;
    Object* const feature = m_features.contains(point->Feature()) ? m_features[point->Feature()] : nullptr;
    const std::vector<Object*> siblings = feature != nullptr ? feature->Children("P") : std::vector<Object*>();
    const bool member = std::ranges::count(siblings, point) != 0, only = siblings.size() == 1;
    if (!IsPlaced(only ? feature : point)) return;
    auto* const real = static_cast<CKespPoint*>(point->real);
    if (feature != nullptr && m_random(2) == 0) {
      const int answer = Access::DeletePointInFeature(*m_file, real, static_cast<CKespFeature*>(feature->real));
      EXPECT_EQ(answer, !member ? 0 : only ? 1 : 2);
      if (!member) return;
    } else {
      Access::DeletePoint(*m_file, real);
    }
    if (only) return DeleteFeatureModel(*feature);
    if (!member) return;
    MarkOnDisk(*point);
    std::erase(feature->children, point);
    std::erase(m_list, point);
    std::erase_if(m_points, [point](const auto& entry) { return entry.second == point; });
    m_numPoints -= std::min(m_numPoints, 1U);
  }

  template <class Map>
  static void CompareIndex(const Map& real, const std::map<std::uint32_t, Object*>& model) {
    ASSERT_EQ(real.GetCount(), static_cast<int>(model.size()));
    for (const auto& [number, object] : model) {
      ASSERT_TRUE(real.Find(number) != nullptr && *real.Find(number) == object->real);
    }
  }
  void CompareMemory() {
    ASSERT_EQ(m_file->m_recordList.GetCount(), std::ssize(m_list));
    auto place = m_list.begin();
    for (CKespRecord* record : m_file->m_recordList) {
      Object& object = **place++;
      if (object.real == nullptr) object.real = record;  // reading made it
      ASSERT_EQ(record, object.real);
      ASSERT_EQ(ContentOf(record), static_cast<const Content&>(object));
    }
    ASSERT_EQ(m_file->m_numPoints, m_numPoints);
    ASSERT_EQ(m_file->m_pDataFile->IsOpen(), !m_path.empty());
    CompareIndex(m_file->m_featureIndex, m_features);
    CompareIndex(m_file->m_pointIndex, m_points);
    for (const auto& [number, feature] : m_features) {
      std::vector<CKespRecord*> expected;
      for (const Object* child : feature->Children("APE")) expected.push_back(child->real);
      ASSERT_EQ(Family(static_cast<CKespFeature&>(*feature->real)), expected) << number;
    }
  }
  void CompareFile(const std::string& name, const Disk& disk) {
    CKespDataFile file;
    ASSERT_TRUE(file.OpenReadOnly(Text(m_dir / name)) && file.SeekToFirstRecord());
    Disk found, expected;
    for (const Content& content : disk) expected.push_back(AsRead(content));
    while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)})
      found.push_back(ContentOf(record.get()));
    ASSERT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
    ASSERT_EQ(found, expected) << name;
  }

  IdleDisk m_idleDisk;
  Random m_random;
  TempDir m_dir;
  std::unique_ptr<CKespFile> m_file = std::make_unique<CKespFile>();
  std::string m_text;            // of the step
  std::deque<Object> m_objects;  // all that ever were
  std::vector<Object*> m_ours;   // alive, and ours to delete unless the data set takes them over
  std::vector<Object*> m_list;
  std::map<std::uint32_t, Object*> m_features;
  std::map<std::uint32_t, Object*> m_points;
  std::uint32_t m_numPoints = 0;
  std::map<std::string, Disk> m_disks;  // by file name
  std::string m_path;                   // of the open file, or empty
};

unsigned FromEnvironment(const char* name, unsigned otherwise) {
  const char* const given = std::getenv(name);
  return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : otherwise;
}

TEST(KespFile, DoesWhatAModelDoes) {
  const unsigned first = FromEnvironment("KESP_SEED", 1);
  for (unsigned seed = first; seed < first + FromEnvironment("KESP_SEEDS", 4); ++seed) {
    RandomRun run(seed);
    for (unsigned step = 0; step < FromEnvironment("KESP_STEPS", 1000); ++step) {
      run.Step(step);
      ASSERT_FALSE(HasFailure()) << "seed " << seed << ", step " << step << ", lately:" << run.log;
    }
  }
}

}  // namespace
