// The ordered list of a data set's records, which is also its write queue.
//
//   for (CKespRecord* record : file.m_recordList) ...
//
// Appending and asking for the length take constant time, removing a record too: it leaves a hole that walks pass over,
// and holes are closed when they are as many as the records. The same pointer may stand here more than once, and so may
// null.
//
// Errors: out of memory gets out of AddTail, which then has added nothing. Remove never fails; without the memory for
// its index it looks through the list.
#pragma once
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <unordered_map>

#include "kesp/dataset/BlockList.h"
#include "kesp/platform/Export.h"

class CKespRecord;

namespace kesp {

class KESP_EXPORT RecordList {
 public:
  class Iterator {
   public:
    using value_type = CKespRecord*;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    Iterator(const BlockList<CKespRecord*>* records, std::size_t at) : m_records(records), m_at(at) { SkipHoles(); }
    CKespRecord* operator*() const { return (*m_records)[m_at]; }
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
    bool operator==(const Iterator& other) const { return m_at == other.m_at; }

   private:
    void SkipHoles() {
      while (m_at < m_records->Size() && (*m_records)[m_at] == Hole()) ++m_at;
    }
    const BlockList<CKespRecord*>* m_records = nullptr;
    std::size_t m_at = 0;
  };

  Iterator begin() const { return {&m_records, 0}; }
  Iterator end() const { return {&m_records, m_records.Size()}; }
  int GetCount() const noexcept { return static_cast<int>(m_records.Size() - m_holes); }
  bool IsEmpty() const noexcept { return m_records.Size() == m_holes; }
  CKespRecord* GetHead() const { return IsEmpty() ? nullptr : *begin(); }

  void AddTail(CKespRecord* record) {
    m_records.Append(record);
    if (m_placesKnown) NotePlace(record);
  }
  // Every entry that is this record.
  void Remove(const CKespRecord* record) noexcept;
  void RemoveAll() noexcept;

 private:
  // Stands for an entry that was removed: an address at which no record can be.
  static CKespRecord* Hole() noexcept { return reinterpret_cast<CKespRecord*>(std::uintptr_t{1}); }
  void NotePlace(const CKespRecord* last) noexcept;
  bool FindPlaces() noexcept;
  void ForgetPlaces() noexcept;
  void CloseHoles() noexcept;

  BlockList<CKespRecord*> m_records;
  std::size_t m_holes = 0;
  // Where each record stands. Made when the first one is removed, so that reading and queueing need not pay for it.
  std::unordered_multimap<const CKespRecord*, std::size_t> m_places;
  bool m_placesKnown = false;
};

}  // namespace kesp
