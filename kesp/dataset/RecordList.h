// The ordered list of a data set's records, which is also its write queue.
//
//   for (CKespRecord* record : file.m_recordList) ...
//
// Appending, removing and the length take constant time on average. Remove leaves a hole that iteration skips; the list
// is compacted when more than half of it is holes and nothing iterates over it. The list may hold the same pointer more
// than once, and null.
//
// Iteration continues whatever is removed and appended meanwhile: it skips a record that is removed before it gets
// there, and visits one that is appended.
//
// Ownership: none. The list records which entries are header records, since the data set deletes those.
// Errors: AddTail raises std::bad_alloc, and then adds nothing. Remove never fails; the first few times, and if there
// is no memory for its index, it searches the list.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "kesp/platform/Export.h"

class CKespRecord;

namespace kesp {

class KESP_EXPORT RecordList {
 public:
  // Forward iterator. While one exists that is not an end, the list is not compacted. It must not outlive the list.
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
    CKespRecord* operator*() const noexcept;  // null if it was removed meanwhile
    Iterator& operator++() noexcept;
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    // All ends are equal, however long the list has become.
    bool operator==(const Iterator& other) const noexcept {
      return IsEnd() ? other.IsEnd() : !other.IsEnd() && m_at == other.m_at;
    }

   private:
    bool IsEnd() const noexcept;
    const RecordList* m_list = nullptr;
    std::size_t m_at = 0;  // index in the list, including cleared entries
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
  // Removes all entries that are this record.
  void Remove(const CKespRecord* record) noexcept;
  void RemoveAll() noexcept;
  // Access by place, for an index of the list. Removing leaves a null at its place. Arrangement returns another number
  // once a place may mean another entry: after AddTail, RemoveAll and compaction.
  std::size_t Places() const noexcept;
  CKespRecord* At(std::size_t place) const noexcept;  // null if there is none
  std::uint64_t Arrangement() const noexcept;
  // Returns the entries that were header records when they were added.
  const std::vector<CKespRecord*>& Headers() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace kesp
