#include "kesp/records/OwningList.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "kesp/memory/ObjectPool.h"

namespace kesp {
namespace {

// Small lists use the pool; larger ones use realloc, which can grow in place.
constexpr std::size_t kMostPooled = kLargestPooledBlock / sizeof(void*);

}  // namespace

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
