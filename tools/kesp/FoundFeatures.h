// The features of a file that a search finds, without a data set: a walk over views finds them, and a second one reads
// what belongs to them.
//
//   FoundFeatures found(file, wanted, DeletedRecords::kPassOver, FoundFeatures::Keep::kPlaces);
//   found.Find();
//   found.Read([&](const CKespFeature& feature) { Show(feature); });
//   if (!found.End().IsWhole()) Complain(path, found.End().Describe());
//
// Features are put together as a data set does it: a point or an attribute belongs to the last feature of its number
// before it, and may come anywhere after it. What comes before damage is found. A file that does not begin with a
// header record has no features.
//
// Ownership: borrows the file and what is wanted.
// Errors: CMemoryException and std::bad_alloc; End() has what else went wrong.
#pragma once
#include <cstdint>
#include <deque>
#include <functional>

#include "kesp/dataset/KespMap.h"
#include "tools/kesp/RecordWalk.h"
#include "tools/kesp/Wanted.h"

namespace kesp::tool {

// Small, since a file may have millions.
struct FoundFeature {
  static constexpr std::uint32_t kNotKept = 0xFFFFFFFF;

  Wanted::State state;
  std::uint8_t type = 0;     // a KESP_FEATURE_TYPE
  std::uint32_t offset = 0;  // of its record header
  std::uint32_t number = 0;
  std::uint32_t points = 0;
  std::uint32_t attributes = 0;
  std::int32_t firstTime = 0;     // of its points that have a time; 0 without one
  std::uint32_t name = kNotKept;  // index of its name
};

class FoundFeatures {
 public:
  enum class Keep { kPlaces, kNames };

  FoundFeatures(CKespDataFile& file, const Wanted& wanted, DeletedRecords deleted, Keep keep)
      : m_file(file), m_wanted(wanted), m_deleted(deleted), m_keep(keep) {}
  FoundFeatures(const FoundFeatures&) = delete;
  FoundFeatures& operator=(const FoundFeatures&) = delete;

  // Walks over the open file.
  void Find();
  // Passes those that were found to `use`, in the order of the file.
  template <class Use>
  void ForEach(Use use) const {
    for (const FoundFeature& feature : m_features) {
      if (m_wanted.Finds(feature.state)) use(feature);
    }
  }
  // Of one that was found. Reads it, unless names are kept and the feature was followed by what it was found by.
  CString NameOf(const FoundFeature& feature);
  // The same with their points and attributes, which are read for it. Goes over the file at most once, however the
  // records of the features are mixed, and skips parts that hold none of them. Holds the features that are not complete
  // yet and those after them, so at most what is passed. If the file can't be read once more, End() says so.
  void Read(const std::function<void(const CKespFeature&)>& use);

  std::uint64_t Count() const noexcept { return m_count; }  // of all features in the file
  const Verdict& End() const noexcept { return m_end; }

 private:
  class Reader;

  void AddFeature(const RecordView& record);
  void KeepName();
  void NoteChanges(const CKespRecord* record);
  FoundFeature* FeatureOf(std::uint32_t number);
  bool IsMarkedDeleted(const FoundFeature& feature) const;
  void EndAt(std::uint64_t offset);

  CKespDataFile& m_file;
  const Wanted& m_wanted;
  const DeletedRecords m_deleted;
  const Keep m_keep;
  std::uint64_t m_count = 0;
  Verdict m_end;
  std::deque<FoundFeature> m_features;  // found, or perhaps later
  // By number: the index of its last feature, if that is among them. Most records follow their feature, so most entries
  // are never looked up.
  KespMap<std::uint32_t, std::uint32_t> m_byNumber;
  std::uint64_t m_lastNumber = ~std::uint64_t{0};  // that was looked up, and its feature; no number at first
  FoundFeature* m_last = nullptr;
  KespMap<std::uint32_t, std::uint32_t> m_changes;  // flags in tags for the features of these numbers
  CString m_name;                                   // of the last feature that is wanted
  bool m_hasName = false;
  std::deque<CString> m_names;
};

}  // namespace kesp::tool
