#include "tools/kesp/FoundFeatures.h"

#include <memory>
#include <utility>
#include <vector>

namespace kesp::tool {

void FoundFeatures::Find() {
  RecordWalk walk(m_file, m_deleted);
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    if (step != RecordWalk::Step::kRecord || walk.FirstType() != KESP_RECORD_HEADER) continue;
    const RecordView& record = walk.View();
    if (record.Type() == KESP_RECORD_POINT) {
      const PointView point = record.AsPoint();
      if (FoundFeature* const feature = FeatureOf(point.FeatureNumber())) {
        ++feature->points;
        const std::int32_t time = point.PointTime();
        if (time != 0 && (feature->firstTime == 0 || time < feature->firstTime)) feature->firstTime = time;
        m_wanted.Add(feature->state, point);
      }
    } else if (record.Type() == KESP_RECORD_ATTRIBUTE) {
      const AttributeView attribute = record.AsAttribute();
      if (FoundFeature* const feature = FeatureOf(attribute.FeatureNumber())) {
        ++feature->attributes;
        m_wanted.Add(feature->state, attribute);
      }
    } else if (record.Type() == KESP_RECORD_FEATURE) {
      AddFeature(record);
    } else if (record.Type() == KESP_RECORD_TAG && record.AsTag().Type() == KESP_TAG_NAMED_FLAG) {
      NoteChanges(walk.Record());
    }
  }
  KeepName();
  m_end = walk.End();
}

void FoundFeatures::AddFeature(const RecordView& record) {
  KeepName();
  ++m_count;
  const FeatureView view = record.AsFeature();
  m_lastNumber = view.FeatureNumber();
  m_last = nullptr;
  const Wanted::State state = m_wanted.Start(view);
  if (state.IsRefused()) {
    if (!m_byNumber.IsEmpty()) m_byNumber.RemoveKey(view.FeatureNumber());
    return;
  }
  m_byNumber.Note(view.FeatureNumber(), static_cast<std::uint32_t>(m_features.size()));
  m_last = &m_features.emplace_back();
  m_last->state = state;
  m_last->type = static_cast<std::uint8_t>(view.FeatureType());
  m_last->offset = static_cast<std::uint32_t>(record.Position());
  m_last->number = view.FeatureNumber();
  m_hasName = m_keep == Keep::kNames;
  if (m_hasName) view.FeatureName().CopyTo(m_name);
}

// Most features that are found are found before the next one begins. Names of the others need no memory.
void FoundFeatures::KeepName() {
  if (!std::exchange(m_hasName, false) || !m_wanted.Finds(m_features.back().state)) return;
  m_features.back().name = static_cast<std::uint32_t>(m_names.size());
  m_names.push_back(m_name);
}

CString FoundFeatures::NameOf(const FoundFeature& feature) {
  if (feature.name != FoundFeature::kNotKept) return m_names[feature.name];
  RecordView view;
  try {
    m_file.m_file.Seek(feature.offset, CFile::begin);
    if (m_file.ReadNextView(view, m_deleted == DeletedRecords::kPassOver) && view.Position() == feature.offset &&
        view.Type() == KESP_RECORD_FEATURE) {
      return view.AsFeature().FeatureName().ToString();
    }
  } catch (const CFileException&) {
    // A version-1 feature body that is cut short is raised where the others return false.
  }
  EndAt(feature.offset);
  return {};
}

// Null if there is none, or if it is not wanted.
inline FoundFeature* FoundFeatures::FeatureOf(std::uint32_t number) {
  if (number == m_lastNumber) return m_last;
  const std::uint32_t* const index = m_byNumber.Find(number);
  m_lastNumber = number;
  m_last = index != nullptr ? &m_features[*index] : nullptr;
  return m_last;
}

// As in a data set: the last tag of this name for a number counts.
void FoundFeatures::NoteChanges(const CKespRecord* record) {
  if (record == nullptr) return;
  std::uint32_t number = 0;
  std::uint32_t flags = 0;
  CString name;
  (void)static_cast<const CKespTag*>(record)->GetNamedFlag(number, flags, name);
  if (name.CompareNoCase("FeatureChanges") == 0) m_changes.SetAt(number, flags);
}

// By a tag. It applies to the last feature of its number, and after damage to none.
bool FoundFeatures::IsMarkedDeleted(const FoundFeature& feature) const {
  const std::uint32_t* const flags = m_changes.Find(feature.number);
  if (flags == nullptr || (*flags & KESP_FLAG_DELETED) == 0 || m_end.error != KESP_ERROR_NORMAL_EOF) return false;
  const std::uint32_t* const last = m_byNumber.Find(feature.number);
  return last != nullptr && &m_features[*last] == &feature;
}

void FoundFeatures::EndAt(std::uint64_t offset) {
  m_end = {};
  m_end.offset = offset;
  m_end.systemError = m_file.GetSystemError();
  m_end.cause = m_end.systemError != 0 ? Verdict::Cause::kUnreadable : Verdict::Cause::kChanged;
  m_end.why = "changed while it was read";
}

// Reads the records of the features that were found. Each of them is known to come, so a feature is complete when it
// has as many as were counted.
class FoundFeatures::Reader {
 public:
  explicit Reader(FoundFeatures& found) : m_found(found), m_file(found.m_file) {
    found.ForEach([&](const FoundFeature& feature) { m_wanted.push_back(&feature); });
  }

  // False when the file can't be read or is not what it was.
  bool Run(const std::function<void(const CKespFeature&)>& use) {
    for (;;) {
      while (!m_open.empty() && m_open.front().missing == 0) {
        use(*m_open.front().feature);
        m_open.pop_front();
        ++m_passed;
      }
      if (m_open.empty()) {
        if (m_passed == m_wanted.size()) return true;
        m_file.m_file.Seek(m_wanted[m_passed]->offset, CFile::begin);
      }
      if (!m_file.ReadNextView(m_view, m_found.m_deleted == DeletedRecords::kPassOver) || !Take()) return false;
    }
  }
  std::uint64_t Position() const noexcept { return m_view.Position(); }

 private:
  struct Open {
    std::unique_ptr<CKespFeature> feature;
    std::uint64_t missing;  // points and attributes
  };

  bool Take() {
    if (m_view.Type() == KESP_RECORD_FEATURE) return TakeFeature();
    if (m_view.Type() == KESP_RECORD_POINT) {
      Open* const open = OpenOf(m_view.AsPoint().FeatureNumber());
      return open == nullptr ||
             Attach(*open, [&](CKespRecord* r) { open->feature->AddPoint(static_cast<CKespPoint*>(r)); });
    }
    if (m_view.Type() == KESP_RECORD_ATTRIBUTE) {
      Open* const open = OpenOf(m_view.AsAttribute().FeatureNumber());
      return open == nullptr ||
             Attach(*open, [&](CKespRecord* r) { open->feature->AddAttribute(static_cast<CKespAttribute*>(r)); });
    }
    return true;
  }

  bool TakeFeature() {
    const std::uint32_t number = m_view.AsFeature().FeatureNumber();
    const std::size_t index = m_passed + m_open.size();
    const bool isWanted = index < m_wanted.size() && m_wanted[index]->offset == m_view.Position();
    if (!isWanted) {
      m_byNumber.RemoveKey(number);
      return !m_open.empty();
    }
    std::unique_ptr<CKespRecord> record = ReadAgain();
    if (!record || number != m_wanted[index]->number) return false;
    std::unique_ptr<CKespFeature> feature(static_cast<CKespFeature*>(record.release()));
    if (m_found.IsMarkedDeleted(*m_wanted[index])) feature->m_flags |= KESP_FLAG_DELETED;
    m_open.push_back({std::move(feature), std::uint64_t{m_wanted[index]->points} + m_wanted[index]->attributes});
    m_byNumber.SetAt(number, static_cast<std::uint32_t>(index));
    return true;
  }

  // Null if the number is that of no open feature.
  Open* OpenOf(std::uint32_t number) {
    const std::uint32_t* const index = m_byNumber.Find(number);
    if (index == nullptr || *index < m_passed) return nullptr;
    Open& open = m_open[*index - m_passed];
    return open.missing != 0 ? &open : nullptr;
  }

  template <class Add>
  bool Attach(Open& open, Add add) {
    std::unique_ptr<CKespRecord> record = ReadAgain();
    if (!record) return false;
    add(record.get());
    (void)record.release();
    --open.missing;
    return true;
  }

  std::unique_ptr<CKespRecord> ReadAgain() {
    m_file.m_file.Seek(static_cast<std::int64_t>(m_view.Position()), CFile::begin);
    return std::unique_ptr<CKespRecord>(m_file.ReadNextRecord(false));
  }

  FoundFeatures& m_found;
  CKespDataFile& m_file;
  RecordView m_view;
  std::vector<const FoundFeature*> m_wanted;
  std::size_t m_passed = 0;  // of m_wanted; the open ones are those after them
  std::deque<Open> m_open;
  KespMap<std::uint32_t, std::uint32_t> m_byNumber;  // indexes in m_wanted; those that were passed may stay
};

void FoundFeatures::Read(const std::function<void(const CKespFeature&)>& use) {
  Reader reader(*this);
  try {
    if (reader.Run(use)) return;
  } catch (const CFileException&) {
    // A version-1 feature body that is cut short is raised where the others return false.
  }
  EndAt(reader.Position());
}

}  // namespace kesp::tool
