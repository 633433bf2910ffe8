// The ordered list of a data set's records, which is also its write queue.
//
//   for (CKespRecord* record : file.m_recordList) ...
//
// Appending and asking for the length take constant time, removing a record too: it leaves a hole that walks skip, and
// the list is compacted when half of it is holes and nobody walks over it. The same pointer may be here more than once,
// and so may null.
//
// A walk goes on whatever is removed and appended meanwhile: a record that is removed before the walk comes to it is
// left out, one that is appended is met. Only the entry that the walk is at must not be looked at after its removal.
//
// Ownership: none, but the list knows which of its entries are header records, since the data set deletes those.
// Errors: out of memory leaves AddTail, which then has added nothing. Remove never fails; without the memory for its
// index it looks through the list.
#pragma once
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kesp/dataset/BlockList.h"
#include "kesp/platform/Export.h"
#include "kesp/records/KespRecord.h"

namespace kesp {

class KESP_EXPORT RecordList {
 public:
  // Forward. While one lives that is not an end, the list is not compacted; it must not outlive the list.
  class Iterator {
   public:
    using value_type = CKespRecord*;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    explicit Iterator(const RecordList* list) noexcept : m_list(list) {
      ++m_list->m_walks;
      SkipHoles();
    }
    Iterator(const Iterator& other) noexcept : m_list(other.m_list), m_at(other.m_at) {
      if (m_list != nullptr) ++m_list->m_walks;
    }
    Iterator& operator=(Iterator other) noexcept {
      std::swap(m_list, other.m_list);
      std::swap(m_at, other.m_at);
      return *this;
    }
    ~Iterator() {
      if (m_list != nullptr) --m_list->m_walks;
    }
    CKespRecord* operator*() const { return m_list->m_records[m_at]; }
    Iterator& operator++() {
      ++m_at;
      SkipHoles();
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    // All ends are equal, wherever the list ends by now.
    bool operator==(const Iterator& other) const {
      return IsEnd() ? other.IsEnd() : !other.IsEnd() && m_at == other.m_at;
    }

   private:
    bool IsEnd() const { return m_list == nullptr || m_at >= m_list->m_records.Size(); }
    void SkipHoles() {
      while (!IsEnd() && m_list->m_records[m_at] == Hole()) ++m_at;
    }
    const RecordList* m_list = nullptr;
    std::size_t m_at = 0;
  };

  RecordList() = default;
  RecordList(const RecordList&) = delete;
  RecordList& operator=(const RecordList&) = delete;

  Iterator begin() const noexcept { return Iterator(this); }
  Iterator end() const noexcept { return {}; }
  int GetCount() const noexcept { return static_cast<int>(m_records.Size() - m_holes); }
  bool IsEmpty() const noexcept { return m_records.Size() == m_holes; }
  CKespRecord* GetHead() const { return IsEmpty() ? nullptr : *begin(); }

  void AddTail(CKespRecord* record) {
    const bool isHeader = record != nullptr && record->m_recordType == KESP_RECORD_HEADER;
    if (isHeader) m_headers.push_back(record);
    try {
      m_records.Append(record);
    } catch (...) {
      if (isHeader) m_headers.pop_back();
      throw;
    }
    if (m_placesKnown) NotePlace(record);
  }
  // Every entry that is this record.
  void Remove(const CKespRecord* record) noexcept;
  void RemoveAll() noexcept;
  // The entries that were header records when they were added.
  const std::vector<CKespRecord*>& Headers() const noexcept { return m_headers; }

 private:
  // Stands for an entry that was removed: an address at which no record can be.
  static CKespRecord* Hole() noexcept { return reinterpret_cast<CKespRecord*>(std::uintptr_t{1}); }
  void NotePlace(const CKespRecord* last) noexcept;
  bool FindPlaces() noexcept;
  void ForgetPlaces() noexcept;
  void CloseHoles() noexcept;

  BlockList<CKespRecord*> m_records;
  std::vector<CKespRecord*> m_headers;
  std::size_t m_holes = 0;
  mutable std::size_t m_walks = 0;  // iterators that are no ends
  // Where each record is. Made when the first one is removed, so that reading and queueing need not pay for it.
  std::unordered_multimap<const CKespRecord*, std::size_t> m_places;
  bool m_placesKnown = false;
};

}  // namespace kesp
