#include <random>

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
  // Kept here and not in the header: a host with hidden visibility has a copy of its own of what is inline there.
  static const std::uint64_t seed = MakeSeed();
  return seed;
}

void RecordList::AddTail(CKespRecord* record) {
  m_records.push_back(record);
  if (m_placesKnown) m_places.emplace(record, m_records.size() - 1);
}

void RecordList::Remove(const CKespRecord* record) {
  if (!m_placesKnown) {
    m_places.reserve(m_records.size());
    for (std::size_t i = 0; i < m_records.size(); ++i) {
      if (m_records[i] != Hole()) m_places.emplace(m_records[i], i);
    }
    m_placesKnown = true;
  }
  const auto [first, last] = m_places.equal_range(record);
  for (auto place = first; place != last; ++place) {
    m_records[place->second] = Hole();
    ++m_holes;
  }
  m_places.erase(first, last);
  if (2 * m_holes > m_records.size()) CloseHoles();
}

void RecordList::RemoveAll() noexcept {
  m_records = {};
  m_places = {};
  m_placesKnown = false;
  m_holes = 0;
}

void RecordList::CloseHoles() {
  std::erase(m_records, Hole());
  m_holes = 0;
  m_places.clear();
  m_placesKnown = false;
}

}  // namespace kesp
