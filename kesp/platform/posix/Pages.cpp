#include "kesp/platform/Pages.h"

#include <sys/mman.h>

#include <cstdint>

namespace kesp {

void* MapPages(std::size_t size, std::size_t alignment) noexcept {
  // Maps more than needed and keeps the aligned part.
  void* const raw = ::mmap(nullptr, size + alignment, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  auto* const begin = static_cast<std::byte*>(raw);
  const std::size_t lead = (alignment - reinterpret_cast<std::uintptr_t>(begin) % alignment) % alignment;
  if (lead != 0) ::munmap(begin, lead);
  ::munmap(begin + lead + size, alignment - lead);
  return begin + lead;
}

void UnmapPages(void* pages, std::size_t size) noexcept { ::munmap(pages, size); }

#if KESP_HAS_MADVISE
bool FillPages(void* pages, std::size_t size, bool huge) noexcept {
  constexpr int kPopulateWrite = 23;                // missing in older headers
  if (huge) ::madvise(pages, size, MADV_HUGEPAGE);  // best effort
  return ::madvise(pages, size, kPopulateWrite) == 0;
}

void LetGoPages(void* pages, std::size_t size) noexcept { ::madvise(pages, size, MADV_FREE); }
#else
bool FillPages(void* /*pages*/, std::size_t /*size*/, bool /*huge*/) noexcept { return false; }
void LetGoPages(void* /*pages*/, std::size_t /*size*/) noexcept {}
#endif

void StayLoaded() noexcept {}  // the library is linked as one that is not unloaded

}  // namespace kesp
