#include "kesp/recordfile/RecordPlaces.h"

#include <algorithm>

#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespPoint.h"

namespace kesp {
namespace {

constexpr int kPositionBits = 32;

// Finishes a hash so that each bit of the input can change each bit of the result.
std::uint64_t Mix(std::uint64_t word) {
  word = (word ^ (word >> 33)) * 0xFF51AFD7ED558CCDU;
  word = (word ^ (word >> 33)) * 0xC4CEB9FE1A85EC53U;
  return word ^ (word >> 33);
}

// Equal for records that IsSameKespRecord takes for the same.
std::uint64_t HashOf(const CKespRecord& record) {
  if (record.m_recordType == KESP_RECORD_POINT) {
    const auto* const point = dynamic_cast<const CKespPoint*>(&record);
    if (point != nullptr) return Mix(Mix(point->FeatureNumber) + point->PointNumber);
  }
  if (record.m_recordType == KESP_RECORD_ATTRIBUTE) {
    const auto* const attribute = dynamic_cast<const CKespAttribute*>(&record);
    if (attribute == nullptr) return Mix(record.m_recordType);
    std::uint64_t hash = Mix(attribute->FeatureNumber);
    for (const char16_t unit : attribute->AttributeName.View()) hash = Mix(hash + unit);
    return hash;
  }
  return Mix(record.m_recordType);
}

}  // namespace

std::uint64_t RecordPlaces::Entry(const CKespRecord& record, std::uint64_t position) {
  return HashOf(record) << kPositionBits | position;
}

void RecordPlaces::Settle() {
  const auto middle = m_entries.begin() + static_cast<std::ptrdiff_t>(m_settled);
  std::sort(middle, m_entries.end());
  std::inplace_merge(m_entries.begin(), middle, m_entries.end());
  m_settled = m_entries.size();
}

bool RecordPlaces::Has(const CKespRecord& record, std::uint32_t position) const {
  return std::binary_search(m_entries.begin(), m_entries.end(), Entry(record, position));
}

std::array<RecordPlaces::Entries, 2> RecordPlaces::Candidates(const CKespRecord& record, std::uint64_t from) const {
  constexpr std::uint64_t kLastPosition = (std::uint64_t{1} << kPositionBits) - 1;
  const auto first = std::lower_bound(m_entries.begin(), m_entries.end(), Entry(record, 0));
  const auto middle = std::lower_bound(first, m_entries.end(), Entry(record, std::min(from, kLastPosition)));
  const auto last = std::upper_bound(middle, m_entries.end(), Entry(record, kLastPosition));
  return {Entries(middle, last), Entries(first, middle)};
}

}  // namespace kesp
