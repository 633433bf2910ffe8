// A survey in memory, with the file that changes go to.
//
// Features, notes and tags are known by their index, which is never used again: what Python holds is this number, so
// nothing can dangle. A wrong index, and any use after Close, raises.
//
// Changes happen in memory at once and are gathered for the file. Flush writes them, and Rollback takes back what was
// changed since the last Flush. A change is checked before it is made, so that one that does not fit changes nothing.
//
// All functions need the GIL. Those that read or write the file release it meanwhile; other threads must not use the
// store then, and get a RuntimeError.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <pybind11/pybind11.h>

#include "kesp/dataset/KespFile.h"
#include "python/src/Watch.h"
#include "tools/kesp/Verdict.h"

namespace kesp::python {

struct PointValue {
  double x = 0, y = 0, z = 0;
  std::int32_t time = 0;
  CString text;
  std::uint16_t status = 0;
  double gpsValue = 0;
  std::uint16_t gpsNumber = 0;
};
struct AttributeValue {
  CString name;
  std::int32_t kind = KESP_ATTRIBUTE_STRING;
  CString text, sub;
  double number = 0;
  std::optional<std::uint16_t> decimals;  // none: as it is
};
struct FeatureValue {
  CString name;
  KESP_FEATURE_TYPE type = KESP_FEATURE_POINT;
  std::uint32_t color = 0;
  std::uint16_t symbol = 0;
};
// What happens to a text that is too long for its field.
enum class LongText { kRefuse, kCut };
// What happens to attributes that are not among those that are set.
enum class OtherAttributes { kKeep, kRemove };

class Store {
 public:
  enum class Mode { kRead, kEdit, kCreate };
  Store(const CString& path, Mode mode, bool includeDeleted, std::uint16_t version, Watch& watch);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  template <class Record>
  struct Entry {
    std::shared_ptr<Record> record;
    bool isGone = false;  // deleted since it was read
  };
  template <class Record>
  using Entries = std::vector<Entry<Record>>;

  const CString& Path() const noexcept { return m_path; }
  const tool::Verdict& End() const noexcept { return m_end; }
  bool IsOpen() const noexcept { return m_dataset != nullptr; }
  bool IsWritable() const noexcept { return m_mode != Mode::kRead; }
  std::uint16_t FileVersion() const noexcept { return m_version; }

  // Raise ValueError when closed, and KeyError for an index of something that is gone.
  void Check() const;
  CKespFeature& Feature(std::size_t index) const { return At(m_features, index, "feature"); }
  CKespNote& Note(std::size_t index) const { return At(m_notes, index, "note"); }
  CKespTag& Tag(std::size_t index) const { return At(m_tags, index, "tag"); }
  const Entries<CKespFeature>& Features() const noexcept { return m_features; }
  const Entries<CKespNote>& Notes() const noexcept { return m_notes; }
  const Entries<CKespTag>& Tags() const noexcept { return m_tags; }
  std::optional<std::size_t> FindNumber(std::uint32_t number) const;
  const CKespTavoHeader* Header() const noexcept { return m_header.get(); }

  std::size_t AddFeature(std::optional<std::uint32_t> number, const FeatureValue& value,
                         const std::vector<PointValue>& points, const std::vector<AttributeValue>& attributes,
                         LongText longText);
  void ChangeFeature(std::size_t index, const FeatureValue& value, LongText longText);
  void SetPoints(std::size_t index, const std::vector<PointValue>& points, LongText longText);
  // Of several attributes of a name, ignoring the case of A to Z, sets the first. Adds one if there is none. The names
  // of the values must differ.
  void SetAttributes(std::size_t index, const std::vector<AttributeValue>& values, OtherAttributes others,
                     LongText longText);
  void RemoveAttribute(std::size_t index, const CString& name);
  void DeleteFeature(std::size_t index);
  std::size_t AddNote(const CString& text, LongText longText);
  void ChangeNote(std::size_t index, const CString& text, LongText longText);
  void DeleteNote(std::size_t index);
  std::size_t AddTag(std::uint32_t kind, const CString& name, const std::string& payload);
  void DeleteTag(std::size_t index);
  void ChangeHeader(const std::vector<std::pair<std::string, CString>>& texts, LongText longText);

  // Everything that was changed is on the disk when this returns.
  void Flush();
  void Rollback();
  // Flushes, and writes the summary and the mark of a proper closing. Closes whatever happens.
  void Close(bool discard);

 private:
  struct Amendment {
    std::unique_ptr<CKespRecord> before, after;
  };

  template <class Record>
  Record& At(const Entries<Record>& entries, std::size_t index, const char* what) const {
    Check();
    if (index >= entries.size() || entries[index].isGone) {
      throw py::key_error("the " + std::string(what) + " has been deleted");
    }
    return *entries[index].record;
  }
  void CreateFile(std::uint16_t version);
  void ReadAll(bool includeDeleted, Watch& watch);
  void TakeRecords();
  void FindLastNumbers();
  void CheckWritable() const;
  std::uint16_t VersionOf(std::uint16_t newest) const noexcept { return std::min(newest, m_version); }

  // A change of a record that is in the file, or waits to be appended.
  template <class Record, class Edit>
  void CheckFits(std::uint16_t version, const char* what, const Edit& change) const;
  template <class Record, class Edit>
  void Alter(Record& record, const char* what, const Edit& change);
  Amendment& AmendmentOf(const CKespRecord& record);
  std::unique_ptr<CKespRecord> ReadAt(std::uint32_t position, bool& isSteppable);
  void Append(CKespRecord& record) { m_appends.push_back(&record); }
  void CheckSteppable(const CKespRecord& record);
  void MarkDeleted(const CKespRecord& record);
  void Remove(CKespFeature& feature, const std::vector<CKespAttribute*>& attributes);
  void Keep(CKespFeature& feature, std::size_t index);

  CString Fit(const CString& text, std::size_t most, LongText longText, const char* what) const;
  FeatureValue Fit(const FeatureValue& value, LongText longText) const;
  PointValue Fit(const PointValue& value, LongText longText) const;
  AttributeValue Fit(const AttributeValue& value, LongText longText) const;
  std::unique_ptr<CKespPoint> NewPoint(const PointValue& value);
  std::unique_ptr<CKespAttribute> NewAttribute(const AttributeValue& value) const;
  std::uint32_t ChooseNumber(std::optional<std::uint32_t> wanted) const;

  void MarkOpen();
  bool WriteAll();
  bool WriteSummary();
  void Forget() noexcept;

  CString m_path;
  Mode m_mode;
  std::uint16_t m_version = 0;
  std::unique_ptr<CKespFile> m_dataset;  // owns what was read; null once closed
  CKespDataFile m_writer;
  tool::Verdict m_end;
  bool m_isBusy = false;

  Entries<CKespFeature> m_features;
  Entries<CKespNote> m_notes;
  Entries<CKespTag> m_tags;
  std::unordered_map<std::uint32_t, std::size_t> m_byNumber;
  std::unique_ptr<CKespTavoHeader> m_header;
  std::uint64_t m_nextFeature = 1, m_nextPoint = 1;

  // Since the last Flush.
  std::vector<CKespRecord*> m_appends;
  std::unordered_set<const CKespRecord*> m_dropped;       // of these, no longer to be written
  std::vector<std::unique_ptr<CKespRecord>> m_graveyard;  // what they point to
  std::map<std::uint32_t, Amendment> m_amendments;        // by position
  std::map<std::size_t, std::shared_ptr<CKespFeature>> m_keptFeatures;
  std::map<std::size_t, CString> m_keptNotes;
  std::vector<std::size_t> m_goneFeatures, m_goneNotes, m_goneTags;
  std::size_t m_oldFeatures = 0, m_oldNotes = 0, m_oldTags = 0;
  std::unique_ptr<CKespTavoHeader> m_keptHeader;

  bool m_isMarkedOpen = false, m_hasChanged = false;
};

}  // namespace kesp::python
