// Memory in whole pages, as the pool takes it from the system. Not installed.
#pragma once
#include <cstddef>

namespace kesp {

// Whether a part of what was mapped at once can be unmapped by itself. If not, UnmapPages takes only what one call of
// MapPages returned.
#ifdef _WIN32
constexpr bool kUnmapsParts = false;
#else
constexpr bool kUnmapsParts = true;
#endif

// Zeroed memory of that size, aligned to a power of two; null when there is none.
void* MapPages(std::size_t size, std::size_t alignment) noexcept;
void UnmapPages(void* pages, std::size_t size) noexcept;
// Brings in all pages at once, as a huge page if `huge`. Returns false where that fails: some systems can't, and bring
// in pages at the first touch only.
bool FillPages(void* pages, std::size_t size, bool huge) noexcept;
// The system may take these pages back until they are used again.
void LetGoPages(void* pages, std::size_t size) noexcept;
// Keeps the library in memory until the process ends: threads return their memory to the pool when they end, which may
// be after a host has closed the library.
void StayLoaded() noexcept;

}  // namespace kesp
