// Thousands of random operations on a data set and its files, beside a model that is kept in plain structs.
#include <cstdlib>
#include <map>
#include <set>

#include "kesp/platform/SystemCalls.h"
#include "tests/dataset/DataSet.h"

using namespace kesp::test;
using Access = CKespFileTestAccess;

namespace {

// Disks are slow, and nobody pulls the plug here.
class WithoutSyncs : public kesp::SystemCalls {
 public:
  WithoutSyncs() { kesp::SetSystemCalls(this); }
  ~WithoutSyncs() override { kesp::SetSystemCalls(nullptr); }
  int DataSync(int) override { return 0; }
  int FullSync(int) override { return 0; }
};

std::uint32_t Marked(std::uint32_t flags, std::uint32_t mark) {
  CKespNote note;
  note.m_flags = flags;
  note.SetSourceFlag(mark);
  return note.m_flags;
}
std::uint32_t Deleted(std::uint32_t flags) {
  CKespNote note;
  note.m_flags = flags;
  note.SetDelete();
  return note.m_flags;
}

// A record, in memory or in a file.
struct Item {
  char kind;              // H F P A E N T
  std::uint32_t feature;  // its feature, or 0
  std::uint32_t number;   // of a point; of an attribute the second half of its name
  std::string text;       // name, value or text; for a tag, which names its feature, empty
  std::uint32_t flags = 0;
  std::uint32_t counts[3] = {0, 0, 0};  // of a header: status, points, features
  bool operator==(const Item&) const = default;
  bool IsSame(const Item& other) const {
    return kind == other.kind && feature == other.feature && number == other.number;
  }
  std::size_t Size() const {
    switch (kind) {
      case 'H':
        return 14 + 4086;
      case 'F':
        return 14 + 524;
      case 'P':
        return 14 + 108;
      case 'A':
        return 14 + 1712;
      case 'E':
        return 14 + 4;
      case 'N':
        return 14 + 512;
      default:
        return Tag(13, "FeatureChanges", Words({0, 0})).size();
    }
  }
};
void PrintTo(const Item& item, std::ostream* out) {
  *out << item.kind << item.feature << '/' << item.number << ' ' << item.text << " flags " << std::hex << item.flags
       << std::dec << " status " << item.counts[0] << " counts " << item.counts[1] << ' ' << item.counts[2];
}
Item ItemOf(CKespRecord* record) {
  Item item{'?', 0, 0, "", record->m_flags};
  if (auto* const header = dynamic_cast<CKespTavoHeader*>(record)) {
    item.kind = 'H';
    item.text = header->HeaderText4.ToUtf8();
    item.counts[0] = header->StatusFlags;
    item.counts[1] = header->PointCount;
    item.counts[2] = header->FeatureCount;
  } else if (auto* const feature = dynamic_cast<CKespFeature*>(record)) {
    item.kind = 'F';
    item.feature = feature->FeatureNumber;
    item.text = feature->FeatureName.ToUtf8();
  } else if (auto* const point = dynamic_cast<CKespPoint*>(record)) {
    item.kind = 'P';
    item.feature = point->FeatureNumber;
    item.number = point->PointNumber;
    item.text = point->PointText.ToUtf8();
  } else if (auto* const attribute = dynamic_cast<CKespAttribute*>(record)) {
    item.kind = 'A';
    item.feature = attribute->FeatureNumber;
    item.number = attribute->AttributeName[0];
    item.text = attribute->TextValue.ToUtf8();
  } else if (auto* const end = dynamic_cast<CKespFeatureEnd*>(record)) {
    item.kind = 'E';
    item.feature = end->FeatureNumber;
  } else if (auto* const note = dynamic_cast<CKespNote*>(record)) {
    item.kind = 'N';
    item.text = note->NoteText.ToUtf8();
  } else if (auto* const tag = dynamic_cast<CKespTag*>(record)) {
    item.kind = 'T';
    CString name;
    EXPECT_TRUE(tag->GetNamedFlag(item.feature, item.number, name));
  }
  return item;
}

// A record in memory. `record` is only looked at while the model says that it lives.
struct Object {
  Item item;
  CKespRecord* record = nullptr;
  std::string file;                         // that it was read from or written to last; empty if none
  std::size_t position = 0;                 // in there
  bool ours = false;                        // we delete it, unless the data set took it over
  std::vector<Object*> points, attributes;  // of a feature, in order
  Object* end = nullptr;
};

using Disk = std::vector<Item>;

class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : m_random(seed) {}
  ~RandomRun() {
    m_file.reset();
    ForgetStore();
    for (Object* object : std::set<Object*>(m_owned)) DeleteOurs(object);
  }

  void Step(int step) {
    m_step = step;
    const unsigned what = m_random(100);
    if (what < 30) {
      QueueSomething();
    } else if (what < 36) {
      Append();
    } else if (what < 44) {
      WriteNew();
    } else if (what < 56) {
      Read();
    } else if (what < 62) {
      DeleteFeature();
    } else if (what < 76) {
      DeletePoint();
    } else if (what < 82) {
      UpdateHeader();
    } else if (what < 86) {
      Validate();
    } else if (what < 90) {
      MarkInMemory();
    } else if (what < 94) {
      Close();
    } else if (what < 97) {
      Open();
    } else {
      Log("clear queue");
      EXPECT_EQ(m_file->ClearQueueWithoutWriting(), ERR_NONE);
      m_list.clear();
      m_headersQueued.clear();
    }
    DeleteSomeOfOurs();
    CompareMemory();
    if (step % 25 == 0) CompareFiles();
  }
  const std::string& Log() const { return m_log; }

 private:
  void Log(const std::string& what) { m_log += std::to_string(m_step) + " " + what + "\n"; }

  // --- Making and owning -----------------------------------------------------------------------------------------

  Object* NewObject(Item item, CKespRecord* record) {
    Object* const object = &m_objects.emplace_back();
    object->item = std::move(item);
    object->record = record;
    return object;
  }
  Object* Ours(Item item, CKespRecord* record) {
    Object* const object = NewObject(std::move(item), record);
    object->ours = true;
    m_owned.insert(object);
    return object;
  }
  void DeleteOurs(Object* object) {
    delete object->record;
    m_owned.erase(object);
  }
  Object* MakeFeature() {
    const std::uint32_t number = 1 + m_random(40);
    const std::string name = "f" + std::to_string(m_step);
    CKespFeature* const feature = m_file->CreateFeature(name, KESP_FEATURE_LINE, number);
    Object* const object = Ours({'F', number, 0, name}, feature);
    for (unsigned n = m_random(4); n > 0; --n) {
      const std::uint32_t pointNumber = 1 + m_random(60);
      const std::string text = "p" + std::to_string(m_step);
      CKespPoint* const point = m_file->CreatePoint(pointNumber, text, 5, 1, 2, 3, number);
      feature->AddPoint(point);
      object->points.push_back(NewObject({'P', number, pointNumber, text}, point));
    }
    for (unsigned n = m_random(3); n > 0; --n) {
      const char name1[] = {static_cast<char>('a' + m_random(3)), 0};
      CKespAttribute* const attribute = m_file->CreateStringAttribute(name1, number, name);
      feature->AddAttribute(attribute);
      object->attributes.push_back(NewObject({'A', number, static_cast<std::uint32_t>(name1[0]), name}, attribute));
    }
    if (m_random(2) == 0) {
      CKespFeatureEnd* const end = m_file->CreateFeatureEnd(number);
      feature->SetFeatureEnd(end);
      object->end = NewObject({'E', number, 0, ""}, end);
    }
    return object;
  }
  static std::vector<Object*> Family(const Object* feature) {
    std::vector<Object*> family = feature->attributes;
    family.insert(family.end(), feature->points.begin(), feature->points.end());
    if (feature->end != nullptr) family.push_back(feature->end);
    return family;
  }
  void DeleteSomeOfOurs() {
    std::set<const Object*> used(m_list.begin(), m_list.end());
    for (const auto& [number, feature] : m_features) used.insert(feature);
    for (Object* object : std::set<Object*>(m_owned)) {
      const auto family = Family(object);
      const bool free = !used.contains(object) &&
                        std::none_of(family.begin(), family.end(), [&](Object* o) { return used.contains(o); });
      if (free && m_random(2) == 0) DeleteOurs(object);
    }
  }
  // What the data set does when it is cleared.
  void ForgetStore() {
    for (Object* header : m_headersQueued) m_owned.erase(header);
    for (const auto& [number, feature] : m_features) m_owned.erase(feature);
    m_headersQueued.clear();
    m_features.clear();
    m_points.clear();
    m_tagCount = 0;
    m_list.clear();
    m_numPoints = 0;
  }

  // --- Operations ------------------------------------------------------------------------------------------------

  void QueueSomething() {
    if (m_list.size() > 120) return;
    const unsigned what = m_random(7);
    const std::string text = "t" + std::to_string(m_step);
    Log("queue " + std::to_string(what));
    if (what == 0) {
      auto* const header = new CKespTavoHeader;
      header->HeaderText4 = text;
      m_file->AddTavoHeaderToWriteQueue(header);
      m_list.push_back(Ours({'H', 0, 0, text}, header));
      m_headersQueued.push_back(m_list.back());
    } else if (what == 1) {
      CKespNote* const note = m_file->CreateNote(text);
      const unsigned times = 1 + m_random(2);
      Object* const object = Ours({'N', 0, 0, text}, note);
      for (unsigned i = 0; i < times; ++i) {
        m_file->AddNoteToWriteQueue(note);
        m_list.push_back(object);
      }
    } else if (what == 2) {
      auto* const tag = new CKespTag;
      const std::uint32_t number = 1 + m_random(40);
      const std::uint32_t flags = 1U << m_random(8);
      tag->Set(number, flags, CString("FeatureChanges"));
      m_file->AddTagToWriteQueue(tag);
      m_list.push_back(Ours({'T', number, flags, ""}, tag));
    } else if (what < 5) {
      Object* const feature = MakeFeature();
      EXPECT_EQ(m_file->AddFeatureAndAssociatedRecToWriteQueue(static_cast<CKespFeature*>(feature->record)), ERR_NONE);
      m_list.push_back(feature);
      for (Object* object : Family(feature)) m_list.push_back(object);
    } else {
      // The feature goes to the data set, with all that is its own; perhaps one of ours that was queued before.
      Object* feature = nullptr;
      for (Object* object : m_owned) {
        if (object->item.kind == 'F' && m_random(4) == 0) feature = object;
      }
      if (feature == nullptr) feature = MakeFeature();
      std::vector<CKespRecord*> records{feature->record};
      m_list.push_back(feature);
      m_features[feature->item.feature] = feature;
      for (Object* object : Family(feature)) {
        records.push_back(object->record);
        m_list.push_back(object);
        if (object->item.kind != 'P') continue;
        m_points[object->item.number] = object;
        ++m_numPoints;
      }
      EXPECT_EQ(m_file->AddRecordsToWriteQueue(records.data(), static_cast<int>(records.size())), ERR_NONE);
    }
  }

  void WriteAll(std::uint32_t mark) {
    Disk& disk = m_disks[m_path];
    std::size_t position = 50;
    for (const Item& item : disk) position += item.Size();
    for (Object* object : m_list) {
      object->item.flags = Marked(object->item.flags, mark);
      object->file = m_path;
      object->position = position;
      disk.push_back(object->item);
      position += object->item.Size();
      if (object->item.kind == 'A')
        object->item.flags = Marked(object->item.flags, mark);  // attributes mark themselves
    }
  }
  void WriteNew() {
    if (m_disks.size() > 3) {
      const auto gone = std::next(m_disks.begin(), m_random(3));
      if (gone->first != m_path) {
        std::filesystem::remove(m_dir / gone->first);
        m_disks.erase(gone);
      }
    }
    const std::string name = "file" + std::to_string(m_step);
    Log("write " + name);
    const CString taken = Text(m_path.empty() ? m_dir / "." : m_dir / m_path);
    EXPECT_EQ(m_file->WriteNewKespFileFromQueue(taken), ERR_FILE_EXISTS);
    EXPECT_EQ(m_file->WriteNewKespFileFromQueue(Text(m_dir / name)), ERR_NONE);
    m_path = name;
    m_disks[m_path] = {};
    WriteAll(0);
  }
  void Append() {
    if (m_disks.empty()) return;
    const std::string name = m_path.empty() ? m_disks.begin()->first : m_path;
    if (m_disks[name].size() > 250) return;
    Log("append to " + name);
    EXPECT_EQ(m_file->AppendToKespFileFromQueue(Text(m_dir / name)), ERR_NONE);
    m_path = name;
    WriteAll(KESP_SRC_ADDED);
  }
  void Open() {
    if (m_disks.empty()) return;
    const std::string name = std::next(m_disks.begin(), m_random(static_cast<unsigned>(m_disks.size())))->first;
    Log("open " + name);
    CString message;
    EXPECT_EQ(m_file->OpenKesp(Text(m_dir / name), message),
              m_path.empty() || m_path == name ? ERR_NONE : ERR_OTHER_FILE_OPEN);
    if (!m_path.empty()) return;
    m_path = name;
  }
  void Close() {
    Log("close");
    EXPECT_EQ(m_file->CloseKesp(), ERR_NONE);
    MarkClosed();
  }
  void MarkClosed() {
    if (Item* const header = FirstHeader()) {
      header->counts[0] |= 1;
      header->flags = Marked(Marked(0, header->flags), KESP_SRC_MODIFIED);
    }
    m_path.clear();
  }
  // The header of the open file, where it is the first record that isn't deleted; those of this run never are.
  Item* FirstHeader() {
    if (m_path.empty() || m_disks[m_path].empty() || m_disks[m_path].front().kind != 'H') return nullptr;
    return &m_disks[m_path].front();
  }
  // Whether the first record that isn't deleted is a header.
  bool HeaderComesFirst() const {
    for (const Item& item : m_disks.at(m_path)) {
      if ((item.flags & KESP_FLAG_DELETED) == 0) return item.kind == 'H';
    }
    return false;
  }
  void UpdateHeader() {
    Log("update header");
    const std::string text = "u" + std::to_string(m_step);
    const ErrorEnum result = m_file->UpdateKespHeader(text, "", "", "", "", "", 0, 1, 0, 1, false);
    if (m_path.empty()) {
      EXPECT_EQ(result, ERR_FILE_NOT_OPEN);
      return;
    }
    EXPECT_EQ(result, HeaderComesFirst() ? ERR_NONE : ERR_READ_FAILED);
    Item* const header = FirstHeader();
    if (header == nullptr) return;
    header->text = text;
    header->counts[0] |= 1;
    header->counts[1] = PointsInIndex();
    header->counts[2] = static_cast<std::uint32_t>(m_features.size());
    header->flags = Marked(Marked(0, header->flags), KESP_SRC_MODIFIED);
  }
  std::uint32_t PointsInIndex() const {
    std::size_t count = 0;
    for (const auto& [number, feature] : m_features) count += feature->points.size();
    return static_cast<std::uint32_t>(count);
  }

  ErrorEnum ReadModel(bool deleted) {
    ForgetStore();
    std::size_t position = 50;
    std::map<std::uint32_t, std::uint32_t> changes;
    bool any = false;
    const Disk& disk = m_disks[m_path];
    std::size_t followers = 0;
    for (const Item& item : disk) {
      const std::size_t at = position;
      position += item.Size();
      if ((item.flags & KESP_FLAG_DELETED) != 0 && !deleted) continue;
      if (!any && item.kind != 'H') return ERR_NO_HEADER;
      if (any) ++followers;
      if (any && item.kind == 'H') continue;
      any = true;
      const auto found = m_features.find(item.feature);
      const bool orphan = found == m_features.end();
      if ((item.kind == 'P' || item.kind == 'A' || item.kind == 'E') && orphan) continue;
      Object* const object = NewObject(item, nullptr);
      object->file = m_path;
      object->position = at;
      object->item.flags = Marked(0, item.flags);
      m_list.push_back(object);
      if (item.kind == 'F') m_features[item.feature] = object;
      if (item.kind == 'P') {
        found->second->points.push_back(object);
        m_points[item.number] = object;
      }
      if (item.kind == 'A') found->second->attributes.push_back(object);
      if (item.kind == 'E') found->second->end = object;
      if (item.kind == 'T') {
        changes[item.feature] = item.number;
        ++m_tagCount;
      }
    }
    if (!any) return ERR_NO_HEADER;
    if (followers == 0) return ERR_NONE;
    for (const auto& [number, feature] : m_features) {
      if (changes.contains(number)) feature->item.flags = Marked(feature->item.flags, changes[number]);
      for (const auto* children : {&feature->attributes, &feature->points}) {
        for (const Object* child : *children) {
          feature->item.flags = Marked(feature->item.flags, child->item.flags & ~0x15U);
        }
      }
      feature->item.flags = Marked(feature->item.flags, 0);
    }
    m_numPoints = PointsInIndex();
    return ERR_NONE;
  }
  // The objects that reading made get known by their places in the list.
  void MeetRecords() {
    auto object = m_list.begin();
    for (CKespRecord* record : m_file->m_recordList) {
      if (object == m_list.end()) break;
      (*object++)->record = record;
    }
  }
  void Read() {
    const bool deleted = m_random(3) == 0;
    Log(deleted ? "read all" : "read");
    const ErrorEnum result = m_file->ReadKespFile(deleted);
    if (m_path.empty()) {
      EXPECT_EQ(result, ERR_FILE_NOT_OPEN);
      return;
    }
    EXPECT_EQ(result, ReadModel(deleted));
    MeetRecords();
  }
  void Validate() {
    if (m_disks.empty()) return;
    const bool open = !m_path.empty();
    const std::string name = open ? m_path : m_disks.begin()->first;
    Log("validate " + name);
    CString message;
    const ErrorEnum result =
        open && m_random(2) == 0 ? m_file->ValidateKesp() : m_file->ValidateKesp(Text(m_dir / name), message);
    m_path = name;
    ErrorEnum expected = ReadModel(false);
    for (const auto& [number, feature] : m_features) {
      if (expected == ERR_NONE && feature->points.empty()) expected = ERR_BAD_FEATURE;
    }
    EXPECT_EQ(result, expected);
    MeetRecords();
    if (!open) MarkClosed();
  }
  void MarkInMemory() {
    if (m_list.empty()) return;
    Object* const object = m_list[m_random(static_cast<unsigned>(m_list.size()))];
    if (object->item.kind == 'H') return;  // a deleted header is one that no reader finds
    Log("mark");
    EXPECT_EQ(m_file->DeleteRecord(object->record), ERR_NONE);
    object->item.flags = Deleted(object->item.flags);
  }

  void MarkOnDisk(Object* object) {
    object->item.flags = Deleted(object->item.flags);
    if (m_path.empty()) return;
    Disk& disk = m_disks[m_path];
    Item* found = nullptr;
    std::size_t position = 50;
    for (Item& item : disk) {
      // From its place on, where it has one, and then from the first record.
      if (found == nullptr && object->position != 0 && position >= object->position && item.IsSame(object->item)) {
        found = &item;
      }
      position += item.Size();
    }
    for (Item& item : disk) {
      if (found == nullptr && item.IsSame(object->item)) found = &item;
    }
    if (found == nullptr) return;
    object->item.flags = Marked(object->item.flags, KESP_SRC_DELETED);
    *found = object->item;
    if (object->item.kind == 'A') object->item.flags = Marked(object->item.flags, KESP_SRC_DELETED);
  }
  void DeleteFeatureModel(Object* feature) {
    m_features.erase(feature->item.feature);
    for (Object* point : feature->points) {
      MarkOnDisk(point);
      if (m_numPoints != 0) --m_numPoints;
    }
    for (Object* attribute : feature->attributes) MarkOnDisk(attribute);
    feature->item.flags = Deleted(feature->item.flags);
    if (feature->end != nullptr) feature->end->item.flags = Deleted(feature->end->item.flags);
  }
  // A place in another file may be anywhere in this one: there is no telling what is read there.
  bool IsPlaced(const Object* object) const { return m_path.empty() || object->file.empty() || object->file == m_path; }
  bool IsPlacedWhole(const Object* feature) const {
    const auto family = Family(feature);
    return std::all_of(family.begin(), family.end(), [this](const Object* object) { return IsPlaced(object); });
  }
  void DeleteFeature() {
    if (m_features.empty()) return;
    Object* const feature = std::next(m_features.begin(), m_random(static_cast<unsigned>(m_features.size())))->second;
    if (!IsPlacedWhole(feature)) return;
    Log("delete feature " + std::to_string(feature->item.feature));
    EXPECT_EQ(m_file->DeleteFeatureAndAssociatedRec(static_cast<CKespFeature*>(feature->record)), ERR_NONE);
    DeleteFeatureModel(feature);
  }
  void DeletePoint() {
    std::vector<Object*> points;
    for (Object* object : m_list) {
      if (object->item.kind == 'P') points.push_back(object);
    }
    if (points.empty()) return;
    Object* const point = points[m_random(static_cast<unsigned>(points.size()))];
    const auto found = m_features.find(point->item.feature);
    Object* const feature = found == m_features.end() ? nullptr : found->second;
    const bool member = feature != nullptr && std::count(feature->points.begin(), feature->points.end(), point) != 0;
    const bool only = feature != nullptr && feature->points.size() == 1;
    if (!IsPlaced(point) || (only && !IsPlacedWhole(feature))) return;
    Log("delete point " + std::to_string(point->item.number) + " of " + std::to_string(point->item.feature));
    auto* const real = static_cast<CKespPoint*>(point->record);
    if (feature != nullptr && m_random(2) == 0) {
      EXPECT_EQ(Access::DeletePointInFeature(*m_file, real, static_cast<CKespFeature*>(feature->record)), !member ? 0
                                                                                                          : only  ? 1
                                                                                                                  : 2);
      if (!member) return;
    } else {
      Access::DeletePoint(*m_file, real);
    }
    if (only) {
      DeleteFeatureModel(feature);
    } else if (member) {
      std::erase(feature->points, point);
      MarkOnDisk(point);
      if (m_numPoints != 0) --m_numPoints;
      std::erase(m_list, point);
      const auto indexed = m_points.find(point->item.number);
      if (indexed != m_points.end() && indexed->second->record == point->record) m_points.erase(indexed);
    }
  }

  // --- Comparing -------------------------------------------------------------------------------------------------

  void CompareMemory() {
    ASSERT_EQ(m_file->m_recordList.GetCount(), static_cast<int>(m_list.size()));
    auto object = m_list.begin();
    for (CKespRecord* record : m_file->m_recordList) {
      ASSERT_EQ(record, (*object)->record);
      ASSERT_EQ(ItemOf(record), (*object)->item);
      ++object;
    }
    ASSERT_EQ(m_file->m_numPoints, m_numPoints);
    ASSERT_EQ(m_file->m_tagList.size(), m_tagCount);
    ASSERT_EQ(m_file->m_featureIndex.GetCount(), static_cast<int>(m_features.size()));
    ASSERT_EQ(m_file->m_pointIndex.GetCount(), static_cast<int>(m_points.size()));
    for (const auto& [number, feature] : m_features) {
      CKespFeature* const* const real = m_file->m_featureIndex.Find(number);
      ASSERT_TRUE(real != nullptr && *real == feature->record) << number;
      ASSERT_EQ((*real)->GetNumPoints(), static_cast<int>(feature->points.size()));
      for (std::size_t i = 0; i < feature->points.size(); ++i) {
        ASSERT_EQ((*real)->GetPoint(static_cast<int>(i)), feature->points[i]->record);
      }
      ASSERT_EQ((*real)->GetNumAttributes(), static_cast<int>(feature->attributes.size()));
      ASSERT_EQ((*real)->GetFeatureEnd() != nullptr, feature->end != nullptr);
    }
    for (const auto& [number, point] : m_points) {
      CKespPoint* const* const real = m_file->m_pointIndex.Find(number);
      ASSERT_TRUE(real != nullptr && *real == point->record) << number;
    }
    ASSERT_EQ(m_file->m_pDataFile->IsOpen(), !m_path.empty());
  }
  // Each file holds the records of its model, byte for byte as long, in their order.
  void CompareFiles() {
    for (const auto& [name, disk] : m_disks) {
      CKespDataFile file;
      ASSERT_TRUE(file.OpenReadOnly(Text(m_dir / name)) && file.SeekToFirstRecord());
      Disk found;
      Disk expected = disk;
      for (Item& item : expected) item.flags = Marked(0, item.flags);
      while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)})
        found.push_back(ItemOf(record.get()));
      ASSERT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
      ASSERT_EQ(found, expected) << name;
    }
  }

  WithoutSyncs m_withoutSyncs;
  Random m_random;
  TempDir m_dir;
  std::unique_ptr<CKespFile> m_file = std::make_unique<CKespFile>();
  int m_step = 0;
  std::string m_log;

  std::deque<Object> m_objects;  // all that ever were
  std::set<Object*> m_owned;     // alive, and ours to delete unless the data set takes them over
  std::vector<Object*> m_list;
  std::vector<Object*> m_headersQueued;
  std::map<std::uint32_t, Object*> m_features;
  std::map<std::uint32_t, Object*> m_points;
  std::uint32_t m_numPoints = 0;
  std::size_t m_tagCount = 0;
  std::map<std::string, Disk> m_disks;  // by file name
  std::string m_path;                   // of the open file, or empty
};

// Another seed, or more of them, by KESP_SEED.
TEST(KespFile, DoesWhatAModelDoes) {
  const char* const wanted = std::getenv("KESP_SEED");
  const unsigned first = wanted != nullptr ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : 1;
  for (unsigned seed = first; seed < first + 4; ++seed) {
    RandomRun run(seed);
    for (int step = 0; step < 1000; ++step) {
      run.Step(step);
      if (testing::Test::HasFailure()) {
        const std::string& log = run.Log();
        FAIL() << "seed " << seed << ", step " << step << ", lately:\n"
               << log.substr(log.size() > 600 ? log.size() - 600 : 0);
      }
    }
  }
}

}  // namespace
