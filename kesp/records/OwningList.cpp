#include "kesp/records/OwningList.h"

#include <bit>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "kesp/memory/ObjectPool.h"
#include "kesp/memory/PlaceTable.h"

namespace kesp {
namespace {

// Small lists use the pool; larger ones use realloc, which can grow in place.
constexpr std::size_t kMostPooled = kLargestPooledBlock / sizeof(void*);

constexpr std::size_t kBits = 64;  // in a word

std::uint64_t Bit(std::size_t place) { return std::uint64_t{1} << place % kBits; }

std::uint64_t AsNumber(const void* item) { return reinterpret_cast<std::uintptr_t>(item); }

}  // namespace

Removals::Removals(std::size_t count)
    : m_left((count + kBits - 1) / kBits, ~std::uint64_t{0}),
      m_sums(m_left.size()),
      m_table(std::make_unique<PlaceTable>(count)) {
  m_items.reserve(count);
  if (count % kBits != 0) m_left.back() = Bit(count) - 1;
  for (std::size_t i = 1; i <= m_sums.size(); ++i) {
    m_sums[i - 1] += static_cast<std::uint32_t>(std::popcount(m_left[i - 1]));
    const std::size_t parent = i + (i & (~i + 1));
    if (parent <= m_sums.size()) m_sums[parent - 1] += m_sums[i - 1];
  }
}

Removals::~Removals() = default;

void Removals::Enter(const void* item) noexcept {
  if (item != nullptr) m_table->Enter(AsNumber(item), static_cast<std::uint32_t>(m_items.size()));
  m_items.push_back(item);
}

void Removals::Remove(std::size_t place) noexcept {
  m_left[place / kBits] &= ~Bit(place);
  for (std::size_t i = place / kBits + 1; i <= m_sums.size(); i += i & (~i + 1)) --m_sums[i - 1];
}

bool Removals::IsRemoved(std::size_t place) const noexcept { return (m_left[place / kBits] & Bit(place)) == 0; }

std::size_t Removals::PlaceOf(std::size_t index) const noexcept {
  std::size_t word = 0;
  for (std::size_t step = std::bit_floor(m_sums.size()); step != 0; step /= 2) {
    if (word + step > m_sums.size() || m_sums[word + step - 1] > index) continue;
    word += step;
    index -= m_sums[word - 1];
  }
  std::uint64_t bits = m_left[word];
  for (; index != 0; --index) bits &= bits - 1;
  return word * kBits + static_cast<std::size_t>(std::countr_zero(bits));
}

std::size_t Removals::IndexOf(const void* item, std::size_t none) const noexcept {
  const auto holds = [&](std::uint32_t place) { return m_items[place] == item && !IsRemoved(place); };
  const std::uint32_t place = m_table->Find(AsNumber(item), holds);
  if (place == PlaceTable::kNone) return none;
  auto index = static_cast<std::size_t>(std::popcount(m_left[place / kBits] & (Bit(place) - 1)));
  for (std::size_t i = place / kBits; i != 0; i &= i - 1) index += m_sums[i - 1];
  return index;
}

void* GrowPointers(void* old, std::size_t oldCapacity, std::size_t used, std::size_t capacity) {
  if (capacity > std::numeric_limits<std::uint32_t>::max()) throw CMemoryException();
  const std::size_t bytes = capacity * sizeof(void*);
  if (capacity > kMostPooled && oldCapacity > kMostPooled) {
    void* const grown = std::realloc(old, bytes);  // NOLINT(cppcoreguidelines-no-malloc): only it grows in place
    if (grown == nullptr) throw CMemoryException();
    return grown;
  }
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): as above
  void* const storage = capacity <= kMostPooled ? PoolAllocate(bytes) : std::malloc(bytes);
  if (storage == nullptr) throw CMemoryException();
  if (used != 0) std::memcpy(storage, old, used * sizeof(void*));
  FreePointers(old, oldCapacity);
  return storage;
}

void FreePointers(void* storage, std::size_t capacity) noexcept {
  if (capacity > kMostPooled) {
    std::free(storage);  // NOLINT(cppcoreguidelines-no-malloc): as above
  } else if (capacity != 0) {
    PoolFree(storage, capacity * sizeof(void*));
  }
}

}  // namespace kesp
