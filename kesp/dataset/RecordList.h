// The ordered list of a data set's records, which is also its write queue.
//
//   for (CKespRecord* record : file.m_recordList) ...
//
// Appending and asking for the length take constant time, removing a record too: it leaves a hole that walks skip, and
// the list is compacted when half of it is holes and nobody walks over it. The same pointer may be here more than once,
// and so may null.
//
// A walk goes on whatever is removed and appended meanwhile: a record that is removed before the walk comes to it is
// left out, one that is appended is met.
//
// Ownership: none, but the list knows which of its entries are header records, since the data set deletes those.
// Errors: out of memory leaves AddTail, which then has added nothing. Remove never fails; without the memory for its
// index it looks through the list.
#pragma once
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "kesp/platform/Export.h"

class CKespRecord;

namespace kesp {

class KESP_EXPORT RecordList {
 public:
  // Forward. While one lives that is not an end, the list is not compacted; it must not outlive the list.
  class KESP_EXPORT Iterator {
   public:
    using value_type = CKespRecord*;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    explicit Iterator(const RecordList* list) noexcept;
    Iterator(const Iterator& other) noexcept;
    Iterator& operator=(Iterator other) noexcept {
      std::swap(m_list, other.m_list);
      std::swap(m_at, other.m_at);
      return *this;
    }
    ~Iterator();
    CKespRecord* operator*() const noexcept;  // null when it was removed meanwhile
    Iterator& operator++() noexcept;
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    // All ends are equal, wherever the list ends by now.
    bool operator==(const Iterator& other) const noexcept {
      return IsEnd() ? other.IsEnd() : !other.IsEnd() && m_at == other.m_at;
    }

   private:
    bool IsEnd() const noexcept;
    const RecordList* m_list = nullptr;
    std::size_t m_at = 0;  // counted from the list's beginning, cleared entries included
  };

  RecordList();
  ~RecordList();
  RecordList(const RecordList&) = delete;
  RecordList& operator=(const RecordList&) = delete;

  Iterator begin() const noexcept { return Iterator(this); }
  Iterator end() const noexcept { return {}; }
  int GetCount() const noexcept;
  bool IsEmpty() const noexcept { return GetCount() == 0; }
  CKespRecord* GetHead() const noexcept { return IsEmpty() ? nullptr : *begin(); }

  void AddTail(CKespRecord* record);
  // Every entry that is this record.
  void Remove(const CKespRecord* record) noexcept;
  void RemoveAll() noexcept;
  // The entries that were header records when they were added.
  const std::vector<CKespRecord*>& Headers() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace kesp
