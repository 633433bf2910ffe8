#include "kesp/dataset/RecordList.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <unordered_map>

#include "kesp/memory/BlockList.h"
#include "kesp/records/KespRecord.h"

namespace kesp {
namespace {

// Marks a removed entry: an address that no record can have.
CKespRecord* Hole() noexcept { return reinterpret_cast<CKespRecord*>(std::uintptr_t{1}); }

constexpr unsigned kOften = 32;

}  // namespace

struct RecordList::State {
  void NotePlace(const CKespRecord* last) noexcept {
    try {
      places.emplace(last, records.Size() - 1);
    } catch (const std::bad_alloc&) {
      ForgetPlaces();
    }
  }
  bool FindPlaces() noexcept {
    if (placesKnown) return true;
    // Making the index takes as long as a few dozen searches, so a single removal should not wait for it.
    if (++searches < kOften) return false;
    try {
      places.reserve(records.Size());
      for (std::size_t i = 0; i < records.Size(); ++i) {
        if (records[i] != Hole()) places.emplace(records[i], i);
      }
      placesKnown = true;
    } catch (const std::bad_alloc&) {
      ForgetPlaces();
    }
    return placesKnown;
  }
  void ForgetPlaces() noexcept {
    places.clear();
    placesKnown = false;
    searches = 0;
  }
  void CloseHoles() noexcept {
    ++arrangement;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < records.Size(); ++i) {
      if (records[i] != Hole()) records[kept++] = records[i];
    }
    records.Truncate(kept);
    holes = front = 0;
    ForgetPlaces();
  }
  void MakeHole(std::size_t at) noexcept {
    records[at] = Hole();
    ++holes;
    while (front < records.Size() && records[front] == Hole()) ++front;
  }

  BlockList<CKespRecord*> records;
  std::vector<CKespRecord*> headers;
  std::size_t holes = 0;
  std::size_t front = 0;  // all entries before this one are holes
  std::size_t gone = 0;   // entries that RemoveAll dropped; a walk at one of them goes on with the first entry
  std::uint64_t arrangement = 0;
  std::size_t walks = 0;  // iterators other than ends
  // Where each record is. Built after a few removals, so that reading and queueing don't pay for it.
  std::unordered_multimap<const CKespRecord*, std::size_t> places;
  bool placesKnown = false;
  unsigned searches = 0;  // since the index was last forgotten
};

RecordList::RecordList() : m_state(std::make_unique<State>()) {}
RecordList::~RecordList() = default;

int RecordList::GetCount() const noexcept { return static_cast<int>(m_state->records.Size() - m_state->holes); }

std::size_t RecordList::Places() const noexcept { return m_state->records.Size(); }

CKespRecord* RecordList::At(std::size_t place) const noexcept {
  CKespRecord* const record = place < m_state->records.Size() ? m_state->records[place] : nullptr;
  return record != Hole() ? record : nullptr;
}

std::uint64_t RecordList::Arrangement() const noexcept { return m_state->arrangement; }

const std::vector<CKespRecord*>& RecordList::Headers() const noexcept { return m_state->headers; }

void RecordList::AddTail(CKespRecord* record) {
  const bool isHeader = record != nullptr && record->m_recordType == KESP_RECORD_HEADER;
  if (isHeader) m_state->headers.push_back(record);
  try {
    m_state->records.Append(record);
  } catch (...) {
    if (isHeader) m_state->headers.pop_back();
    throw;
  }
  ++m_state->arrangement;
  if (m_state->placesKnown) m_state->NotePlace(record);
}

void RecordList::Remove(const CKespRecord* record) noexcept {
  State& state = *m_state;
  if (state.FindPlaces()) {
    const auto [first, last] = state.places.equal_range(record);
    for (auto place = first; place != last; ++place) {
      state.MakeHole(place->second);
    }
    state.places.erase(first, last);
  } else {
    for (std::size_t i = 0; i < state.records.Size(); ++i) {
      if (state.records[i] == record) state.MakeHole(i);
    }
  }
  std::erase(state.headers, record);
  if (state.walks == 0 && 2 * state.holes > state.records.Size()) state.CloseHoles();
}

void RecordList::RemoveAll() noexcept {
  ++m_state->arrangement;
  m_state->gone += m_state->records.Size();
  m_state->records.Clear();
  m_state->headers = {};
  m_state->ForgetPlaces();
  m_state->holes = m_state->front = 0;
}

RecordList::Iterator::Iterator(const RecordList* list) noexcept
    : m_list(list), m_at(list->m_state->gone + list->m_state->front) {
  ++m_list->m_state->walks;
}

RecordList::Iterator::Iterator(const Iterator& other) noexcept : m_list(other.m_list), m_at(other.m_at) {
  if (m_list != nullptr) ++m_list->m_state->walks;
}

RecordList::Iterator::~Iterator() {
  if (m_list != nullptr) --m_list->m_state->walks;
}

CKespRecord* RecordList::Iterator::operator*() const noexcept {
  const State& state = *m_list->m_state;
  if (m_at < state.gone) return nullptr;
  CKespRecord* const record = state.records[m_at - state.gone];
  return record != Hole() ? record : nullptr;
}

RecordList::Iterator& RecordList::Iterator::operator++() noexcept {
  const State& state = *m_list->m_state;
  m_at = std::max(m_at + 1, state.gone + state.front);
  while (!IsEnd() && state.records[m_at - state.gone] == Hole()) ++m_at;
  return *this;
}

bool RecordList::Iterator::IsEnd() const noexcept {
  return m_list == nullptr || (m_at >= m_list->m_state->gone + m_list->m_state->records.Size());
}

}  // namespace kesp
