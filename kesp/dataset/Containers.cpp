#include <atomic>
#include <new>
#include <random>
#include <vector>

#include "kesp/dataset/KespMap.h"
#include "kesp/dataset/RecordList.h"

namespace kesp {

namespace {

std::uint64_t MakeSeed() noexcept {
  // Without a source of randomness the maps are still right, only predictable.
  try {
    std::random_device device;
    return std::uint64_t{device()} << 32 | device();
  } catch (const std::exception&) {
    return 0x9E3779B97F4A7C15U;
  }
}

}  // namespace

std::uint64_t ProcessSeed() noexcept {
  // Kept here and not in the header: a host with hidden visibility has a copy of its own of what is inline there. Not a
  // static of this function either, whose making another thread may be at when the process forks.
  static constinit std::atomic<std::uint64_t> seed{0};
  std::uint64_t known = seed.load(std::memory_order_relaxed);
  if (known != 0) return known;
  const std::uint64_t made = MakeSeed() | 1;
  return seed.compare_exchange_strong(known, made) ? made : known;
}

void RecordList::NotePlace(const CKespRecord* last) noexcept {
  try {
    m_places.emplace(last, m_records.Size() - 1);
  } catch (const std::bad_alloc&) {
    ForgetPlaces();
  }
}

bool RecordList::FindPlaces() noexcept {
  if (m_placesKnown) return true;
  try {
    m_places.reserve(m_records.Size());
    for (std::size_t i = 0; i < m_records.Size(); ++i) {
      if (m_records[i] != Hole()) m_places.emplace(m_records[i], i);
    }
    m_placesKnown = true;
  } catch (const std::bad_alloc&) {
    ForgetPlaces();
  }
  return m_placesKnown;
}

void RecordList::ForgetPlaces() noexcept {
  m_places.clear();
  m_placesKnown = false;
}

void RecordList::Remove(const CKespRecord* record) noexcept {
  if (FindPlaces()) {
    const auto [first, last] = m_places.equal_range(record);
    for (auto place = first; place != last; ++place) {
      m_records[place->second] = Hole();
      ++m_holes;
    }
    m_places.erase(first, last);
  } else {
    for (std::size_t i = 0; i < m_records.Size(); ++i) {
      if (m_records[i] != record) continue;
      m_records[i] = Hole();
      ++m_holes;
    }
  }
  std::erase(m_headers, record);
  if (m_walks == 0 && 2 * m_holes > m_records.Size()) CloseHoles();
}

void RecordList::RemoveAll() noexcept {
  m_records.Clear();
  m_headers = {};
  ForgetPlaces();
  m_holes = 0;
}

void RecordList::CloseHoles() noexcept {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < m_records.Size(); ++i) {
    if (m_records[i] != Hole()) m_records[kept++] = m_records[i];
  }
  m_records.Truncate(kept);
  m_holes = 0;
  ForgetPlaces();
}

}  // namespace kesp
