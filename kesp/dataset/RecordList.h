// The ordered list of a data set's records, which is also its write queue.
//
//   for (CKespRecord* record : file.m_recordList) ...
//
// Appending and asking for the length take constant time, removing a record too: it leaves a hole that walks pass over,
// and holes are closed when they are as many as the records. The same pointer may stand here more than once, and so may
// null.
#pragma once
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <unordered_map>
#include <vector>

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
    Iterator(CKespRecord* const* at, CKespRecord* const* end) : m_at(at), m_end(end) { SkipHoles(); }
    CKespRecord* operator*() const { return *m_at; }
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
      while (m_at != m_end && *m_at == Hole()) ++m_at;
    }
    CKespRecord* const* m_at = nullptr;
    CKespRecord* const* m_end = nullptr;
  };

  Iterator begin() const { return {m_records.data(), m_records.data() + m_records.size()}; }
  Iterator end() const { return {m_records.data() + m_records.size(), m_records.data() + m_records.size()}; }
  int GetCount() const noexcept { return static_cast<int>(m_records.size() - m_holes); }
  bool IsEmpty() const noexcept { return m_records.size() == m_holes; }
  CKespRecord* GetHead() const { return IsEmpty() ? nullptr : *begin(); }

  void Reserve(std::size_t count) { m_records.reserve(count); }
  void AddTail(CKespRecord* record);
  // Every entry that is this record.
  void Remove(const CKespRecord* record);
  void RemoveAll() noexcept;

 private:
  // Stands for an entry that was removed: an address at which no record can be.
  static CKespRecord* Hole() noexcept { return reinterpret_cast<CKespRecord*>(std::uintptr_t{1}); }
  void CloseHoles();

  std::vector<CKespRecord*> m_records;
  std::size_t m_holes = 0;
  // Where each record stands. Made when the first one is removed, so that reading and queueing need not pay for it.
  std::unordered_multimap<const CKespRecord*, std::size_t> m_places;
  bool m_placesKnown = false;
};

}  // namespace kesp
